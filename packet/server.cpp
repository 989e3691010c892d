/* Bound sockets. Every UDP socket of the system is made here. */
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <string>

#include "packet/packet.h"
#include "packet/packeti.h"
#include "process/owned.h"
#include "process/velproc.h"

uint32_t packet_bound_ip = 0;

namespace {

constexpr char label[] = "packet_srv_bound_socket";

namespace say {
void no_socket() {
    const KeptErrno error;
    process_error("%s: socket( AF_INET, SOCK_DGRAM ) errmsg: %s!\n", label, strerror(error.value()));
}
void cannot_bind(const char *ip, unsigned port) {
    const KeptErrno error;
    process_error("%s: bind( sockfd, %s:%u ) errmsg: %s!\n", label, ip, port, strerror(error.value()));
}
void bound(int socket, const char *ip, unsigned port) {
    process_log("UDPSOCKET = %d bound to %s:%u\n", socket, ip, port);
}
}  // namespace say

std::string address_text(uint32_t ip) { return ip == 0 ? "INADDR_ANY" : packet_ip2str(ip); }

bool bind_to(int socket, uint32_t ip, uint16_t port) {
    PacketAddress address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = ip;
    return bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

}  // namespace

void packet_say_unselectable(const char *operation, int socket) {
    static time_t last_said = 0;
    const time_t now = time(nullptr);
    if (now == last_said) return;  // a full table would otherwise fill the log as well
    last_said = now;
    process_error("%s: socket %d closed, select can hold only those below %d!\n", operation, socket, FD_SETSIZE);
}

int packet_srv_bound_socket(uint32_t ip, uint16_t port) {
    const std::string shown = address_text(ip);

    OwnedFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.is_open()) {
        say::no_socket();
        return PACKETERRSOCKET;
    }
    if (!packet_selectable(socket.get())) {
        packet_say_unselectable(label, socket.get());
        errno = EMFILE;
        return PACKETERRSOCKET;
    }
    if (packet_bound_ip == 0) packet_bound_ip = ip;  // before the bind: the first address asked for stays

    if (!bind_to(socket.get(), ip, port)) {
        say::cannot_bind(shown.c_str(), port);
        return PACKETERRBIND;
    }
    if (port != 0) say::bound(socket.get(), shown.c_str(), port);  // a client's own port stays silent
    return socket.release();                                       // from here on it is the caller's
}

int packet_srv_socket(uint16_t port) { return packet_srv_bound_socket(0, port); }
