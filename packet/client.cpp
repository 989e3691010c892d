/* Sockets of a client: of no port of its own choice, or connected to a server. */
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include "packet/packet.h"
#include "packet/packeti.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr char label[] = "packet_clt_connect";

namespace say {
void no_socket() {
    const KeptErrno error;
    process_error("%s: socket( AF_INET, SOCK_STREAM, 0 ) errmsg: %s!\n", label, strerror(error.value()));
}
void failed(const char *call, const char *ip, uint16_t port) {
    const KeptErrno error;
    process_error("%s: %s( sockfd, %s:%u ) errmsg: %s!\n", label, call, ip, port, strerror(error.value()));
}
}  // namespace say

const sockaddr *plain(const PacketAddress &address) { return reinterpret_cast<const sockaddr *>(&address); }

int bind_to_port(int socket, uint16_t port) {
    PacketAddress any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    return bind(socket, plain(any), sizeof any);
}

}  // namespace

int packet_clt_socket(void) { return packet_srv_bound_socket(0, 0); }

int packet_clt_socket_ip(uint32_t ip) { return packet_srv_bound_socket(ip, 0); }

int packet_clt_connect(uint16_t localPort, const PacketAddress *address) {
    OwnedFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.is_open()) {
        say::no_socket();
        return PACKETERRSOCKET;
    }
    if (!packet_keeps_selectable(label, socket)) return PACKETERRSOCKET;
    if (localPort != 0 && bind_to_port(socket.get(), localPort) != 0) {
        say::failed("bind", "INADDR_ANY", localPort);
        return PACKETERRBIND;
    }
    if (connect(socket.get(), plain(*address), sizeof *address) != 0) {
        say::failed("connect", packet_ip2str(address->sin_addr.s_addr), ntohs(address->sin_port));
        return PACKETERRCONNECT;
    }
    return socket.release();
}
