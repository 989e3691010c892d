/* Bound and listening sockets, and the connections that come in on the latter. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <string>

#include "packet/packet.h"
#include "packet/packeti.h"
#include "process/linelimit.h"
#include "process/owned.h"
#include "process/velproc.h"

uint32_t packet_bound_ip = 0;

namespace {

constexpr char bound_label[] = "packet_srv_bound_socket";
constexpr char tcp_label[] = "packet_srv_tcp_socket";
constexpr char accept_label[] = "packet_srv_accept";
constexpr int BACKLOG = 511;

namespace say {
void no_socket() {
    const KeptErrno error;
    process_error("%s: socket( AF_INET, SOCK_DGRAM ) errmsg: %s!\n", bound_label, strerror(error.value()));
}
void cannot_bind(const char *ip, unsigned port) {
    const KeptErrno error;
    process_error("%s: bind( sockfd, %s:%u ) errmsg: %s!\n", bound_label, ip, port, strerror(error.value()));
}
void bound(int socket, const char *ip, unsigned port) {
    process_log("UDPSOCKET = %d bound to %s:%u\n", socket, ip, port);
}
void no_tcp_socket() {
    const KeptErrno error;
    process_error("packet TCP socket( AF_INET, SOCK_STREAM ) errmsg: %s!\n", strerror(error.value()));
}
void no_reuse() { process_error("packet TCP setsockopt failed! errmsg %s\n", strerror(errno)); }
void cannot_bind_tcp(const char *ip, unsigned port) {
    const KeptErrno error;
    process_error("packet TCP bind( sockfd, %s:%u ) errmsg: %s!\n", ip, port, strerror(error.value()));
}
void cannot_listen() {
    const KeptErrno error;
    process_error("packet TCP listen( sockfd, ... ) errmsg: %s!\n", strerror(error.value()));
}
void listening(int socket, const char *ip, int port) {
    process_log("TCPSOCKET = %d bound to %s:%d\n", socket, ip, port);
}
void accept_failed(void (*print)(const char *format, ...), int error) {
    print("%s: accept( listenSocket, .. ) error: %s!\n", accept_label, strerror(error));
}
void unselectable(const char *operation, int socket) {
    static OnceASecond line;  // a full table would otherwise fill the log as well
    if (!line.passes()) return;
    process_error("%s: socket %d closed, select can hold only those below %d!\n", operation, socket, FD_SETSIZE);
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

/* ---- A full descriptor table ----
 * One descriptor is kept in reserve. When accept finds no other, it is given up for as long as it takes to take one
 * connection and drop it: the caller would otherwise find the listening socket ready for ever. */

OwnedFd reserve;

void keep_reserve() {
    const KeptErrno kept;
    if (!reserve.is_open()) reserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

bool is_somebody_waiting(int listen_socket) {
    pollfd wanted{listen_socket, POLLIN, 0};
    return poll(&wanted, 1, 0) > 0;
}

void drop_one_connection(int listen_socket) {
    reserve.reset();
    if (is_somebody_waiting(listen_socket)) {
        const OwnedFd dropped(accept4(listen_socket, nullptr, nullptr, SOCK_CLOEXEC));
    }
    keep_reserve();
}

/* ---- Failed accepts ---- */

bool lacks_descriptors(int error) { return error == EMFILE || error == ENFILE; }
bool has_peer_given_up(int error) {
    return error == ECONNABORTED || error == ECONNRESET || error == ETIMEDOUT || error == EHOSTUNREACH;
}

int after_failed_accept(int listen_socket) {
    const KeptErrno error;
    packet_clearSocketError(listen_socket, accept_label);
    if (error.value() == EINTR) return PACKETERRINTR;
    if (error.value() == EAGAIN) return PACKETERRWOULDBLOCK;

    int result = PACKETERRINTR;
    if (lacks_descriptors(error.value())) {
        static OnceASecond line;
        if (line.passes()) say::accept_failed(process_error, error.value());
        drop_one_connection(listen_socket);
    } else if (has_peer_given_up(error.value())) {
        static LineLimit lines("accept error");
        if (lines.passes()) say::accept_failed(process_log, error.value());
    } else {
        say::accept_failed(process_error, error.value());
        result = PACKETERRACCEPT;
    }
    packet_clearSocketError(listen_socket, accept_label);
    return result;
}

}  // namespace

bool packet_keeps_selectable(const char *operation, OwnedFd &socket) {
    if (packet_selectable(socket.get())) return true;
    say::unselectable(operation, socket.get());
    socket.reset();
    errno = EMFILE;
    return false;
}

int packet_srv_bound_socket(uint32_t ip, uint16_t port) {
    const std::string shown = address_text(ip);

    OwnedFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.is_open()) {
        say::no_socket();
        return PACKETERRSOCKET;
    }
    if (!packet_keeps_selectable(bound_label, socket)) return PACKETERRSOCKET;
    if (packet_bound_ip == 0) packet_bound_ip = ip;  // before the bind: the first address asked for stays

    if (!bind_to(socket.get(), ip, port)) {
        say::cannot_bind(shown.c_str(), port);
        return PACKETERRBIND;
    }
    if (port != 0) say::bound(socket.get(), shown.c_str(), port);  // a client's own port stays silent
    return socket.release();                                       // from here on it is the caller's
}

int packet_srv_socket(uint16_t port) { return packet_srv_bound_socket(0, port); }

int packet_srv_tcp_socket(uint32_t ip, uint16_t port, int reuse) {
    const std::string shown = address_text(ip);

    OwnedFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.is_open()) {
        say::no_tcp_socket();
        return PACKETERRSOCKET;
    }
    if (!packet_keeps_selectable(tcp_label, socket)) return PACKETERRSOCKET;
    const int on = 1;
    if (reuse != 0 && setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) say::no_reuse();
    if (!bind_to(socket.get(), ip, port)) {
        say::cannot_bind_tcp(shown.c_str(), port);
        return PACKETERRBIND;
    }
    if (listen(socket.get(), BACKLOG) != 0) {
        say::cannot_listen();
        return PACKETERRLISTEN;
    }
    say::listening(socket.get(), shown.c_str(), port);
    keep_reserve();
    return socket.release();
}

int packet_srv_listen_ip(uint32_t ip, uint16_t port) { return packet_srv_tcp_socket(ip, port, 0); }

int packet_srv_listen(uint16_t port) { return packet_srv_listen_ip(0, port); }

int packet_srv_accept(int listenSocket, uint32_t *ip, uint16_t *port, char **ipText) {
    keep_reserve();
    packet_clearSocketError(listenSocket, accept_label);
    errno = 0;

    PacketAddress peer{};
    socklen_t size = sizeof peer;
    OwnedFd socket(accept4(listenSocket, reinterpret_cast<sockaddr *>(&peer), &size, SOCK_CLOEXEC));
    if (!socket.is_open()) return after_failed_accept(listenSocket);
    if (!packet_keeps_selectable(accept_label, socket)) return PACKETERRINTR;

    if (ip != nullptr) *ip = ntohl(peer.sin_addr.s_addr);
    if (port != nullptr) *port = ntohs(peer.sin_port);
    if (ipText != nullptr) *ipText = packet_ip2str(peer.sin_addr.s_addr);
    return socket.release();
}
