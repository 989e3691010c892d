/* Datagrams in and out: the only place where the system receives and sends them.
 *
 * An error that an earlier send left at the socket (a peer that is gone) must not disturb a call. It would be in the way
 * of the first attempt, which takes it off: so errors are looked after when an attempt fails, and a datagram that
 * waits costs one system call, as does one that goes out. errno comes back to the caller as the failing call set it,
 * whatever was logged since. */
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "packet/accessi.h"
#include "packet/packet.h"
#include "packet/packeti.h"
#include "packet/stati.h"
#include "process/linelimit.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr char read_label[] = "packet_read";
constexpr char read_udp_label[] = "packet_readUDP";
constexpr char sendto_label[] = "packet_sendto";

constexpr int QUERY_FAILED = -1;

namespace say {
void bad_read_socket(const char *label, int socket) {
    process_error("%s: Attempt to read from illegal socket: %d\n", label, socket);
}
void bad_send_socket(int socket) {
    process_error("%s: Attempt to send to illegal socket: %d\n", sendto_label, socket);
}
void query_failed(const char *label) {
    const KeptErrno error;
    process_error("%s: getsockopt failed! errmsg %s\n", label, strerror(error.value()));
}
void cleared(const char *label, int pending, int socket) {
    if (process_context.trace != 0) {
        process_trace("%s: cleared error %s for socket %d\n", label, strerror(pending), socket);
    }
}
void select_failed(int socket) {
    const KeptErrno error;
    process_error("%s: select on socket: %d failed! %s\n", read_label, socket, strerror(error.value()));
}
void receive_failed(const char *label, int socket, int result) {
    const KeptErrno error;
    constexpr char format[] = "%s: recvfrom on socket: %d failed! rc %d, %s\n";
    if (error.value() == ECONNREFUSED) {
        process_trace(format, label, socket, result, strerror(error.value()));
    } else {
        process_error(format, label, socket, result, strerror(error.value()));
    }
}
void send_failed(int socket, const void *address, int result, int length) {
    const KeptErrno error;
    static LineLimit lines("sendto failed");  // to the address that a stranger chose
    if (!lines.passes()) return;
    constexpr char format[] = "%s: sendto socket %d %s:%u failed! rc %d, len %d errmsg: %s!\n";
    uint32_t ip = 0;
    uint16_t port_net = 0;
    packet_adr_get(address, &ip, &port_net);
    const unsigned port = ntohs(port_net);
    const char *reason = strerror(error.value());
    if (error.value() == ECONNREFUSED) {
        process_trace(format, sendto_label, socket, packet_ip2str(ip), port, result, length, reason);
    } else {
        process_error(format, sendto_label, socket, packet_ip2str(ip), port, result, length, reason);
    }
}
}  // namespace say

/** Takes the pending error off a socket: its number, 0 for none, or QUERY_FAILED with errno. */
int take_pending_error(int socket) {
    int pending = 0;
    socklen_t size = sizeof pending;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &pending, &size) == 0 ? pending : QUERY_FAILED;
}

/** The same, reported under `label`. */
int clear_pending_error(const char *label, int socket) {
    const int pending = take_pending_error(socket);
    if (pending == QUERY_FAILED) {
        say::query_failed(label);
    } else if (pending != 0) {
        say::cleared(label, pending, socket);
    }
    return pending;
}

/** After an attempt that failed: true if a pending error may have been the reason, which is off now. A descriptor that
 *  is no socket has none, and is reported. */
bool may_have_been_pending(const char *label, int socket) {
    if (take_pending_error(socket) != QUERY_FAILED) return true;
    say::query_failed(label);
    return false;
}

bool is_running() { return process_context.running != 0; }

/** Waits until the socket is readable, or `timeout` is over: the count of select. */
int select_readable(int socket, timeval *timeout) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    const int ready = select(socket + 1, &readable, nullptr, nullptr, timeout);

    const KeptErrno kept;
    while (is_running() && process_context.hold != 0) sleep(1);
    return ready;
}

/** Returns 0 when a datagram can be read, or a code. */
int wait_for_datagram(int socket, timeval *timeout) {
    while (is_running()) {
        const int ready = select_readable(socket, timeout);
        if (!is_running()) break;
        if (ready < 0) {
            if (errno == EINTR) return PACKETERRINTR;
            say::select_failed(socket);
            packet_stat_count(PACKET_STAT_READ_FAIL);
            return PACKETERRSELECT;
        }
        if (ready == 0) return PACKETERRTIMEOUT;

        // An error makes a socket readable as well. Once it is off, the wait simply starts over.
        const int pending = clear_pending_error(read_label, socket);
        if (pending == QUERY_FAILED) return PACKETERRRECV;
        if (pending == 0) return 0;
    }
    return PACKETERRINTR;
}

int receive(int socket, void *buffer, int size, void *address, int *address_size, int flags = 0) {
    memset(address, 0, static_cast<size_t>(*address_size));
    auto room = static_cast<socklen_t>(*address_size);
    const ssize_t length =
        recvfrom(socket, buffer, static_cast<size_t>(size), flags, static_cast<sockaddr *>(address), &room);
    *address_size = static_cast<int>(room);
    return static_cast<int>(length);
}

/** Receives a datagram that waits already; negative if none does, or if it isn't time to read. */
int receive_at_once(int socket, void *buffer, int size, void *address, int *address_size) {
    if (!is_running() || process_context.hold != 0) return -1;
    const int length = receive(socket, buffer, size, address, address_size, MSG_DONTWAIT);
    if (length < 0 && errno != EAGAIN) {
        const int taken = errno;
        if (may_have_been_pending(read_label, socket)) say::cleared(read_label, taken, socket);
    }
    return length;
}

int send_once(int socket, const void *buffer, int length, const void *address, int address_size) {
    return static_cast<int>(sendto(socket, buffer, static_cast<size_t>(length), 0,
                                   static_cast<const sockaddr *>(address), static_cast<socklen_t>(address_size)));
}

/** What each datagram passes on its way in, whoever reads it. */
int admit(const char *label, const void *address, void *packet, int length) {
    uint32_t sender_ip = 0;
    packet_adr_get(address, &sender_ip, nullptr);
    length = packet_access_step(packet, length, label);
    packet_stat_received(sender_ip, packet, length);
    return length;
}

}  // namespace

int packet_clearSocketError(int socket, const char *label) {
    const int pending = take_pending_error(socket);
    if (pending == QUERY_FAILED) {
        if (!packet_peer_is_gone(errno)) say::query_failed(label);
        return 0;
    }
    if (pending == 0) return 0;
    say::cleared(label, pending, socket);
    return -1;
}

int packet_read(int socket, void *buffer, int size, void *address, int *addressSize, struct timeval *timeout) {
    packet_stat_count(PACKET_STAT_READ_CALL);
    if (!packet_selectable(socket)) {
        say::bad_read_socket(read_label, socket);
        packet_stat_count(PACKET_STAT_READ_FAIL);
        errno = EBADF;
        return PACKETERRBADSOCKET;
    }
    int length = receive_at_once(socket, buffer, size, address, addressSize);
    if (length < 0) {
        const int result = wait_for_datagram(socket, timeout);
        if (result != 0) return result;
        length = receive(socket, buffer, size, address, addressSize);
    }
    if (length >= 0) return admit(read_label, address, buffer, length);
    if (errno == EINTR) return PACKETERRINTR;
    say::receive_failed(read_label, socket, length);
    packet_stat_count(PACKET_STAT_READ_FAIL);
    return PACKETERRRECV;
}

int packet_readUDP(int socket, void *buffer, int size, uint32_t *ip, uint16_t *port) {
    if (socket < 0) {
        say::bad_read_socket(read_udp_label, socket);
        packet_stat_count(PACKET_STAT_READ_FAIL);
        errno = EBADF;
        return PACKETERRBADSOCKET;
    }
    if (packet_clearSocketError(socket, read_udp_label) != 0) return PACKETERRINTR;

    PacketAddress address;
    int address_size = sizeof address;
    const int length = receive(socket, buffer, size, &address, &address_size);
    if (length < 0) {
        const KeptErrno error;
        packet_clearSocketError(socket, read_udp_label);
        if (error.value() == EINTR) return PACKETERRINTR;
        errno = error.value();
        say::receive_failed(read_udp_label, socket, length);
        packet_stat_count(PACKET_STAT_READ_CALL);
        packet_stat_count(PACKET_STAT_READ_FAIL);
        return PACKETERRRECV;
    }
    packet_stat_count(PACKET_STAT_READ_CALL);
    if (ip != nullptr) *ip = ntohl(address.sin_addr.s_addr);
    if (port != nullptr) *port = ntohs(address.sin_port);
    return admit(read_udp_label, &address, buffer, length);
}

int packet_sendto(int socket, const void *buffer, int length, const void *address, int addressSize) {
    if (socket < 0) {
        say::bad_send_socket(socket);
        packet_stat_count(PACKET_STAT_READ_FAIL);  // not a failed send: that total is meant for the system's answers
        errno = EBADF;
        return PACKETERRBADSOCKET;
    }
    packet_stat_count(PACKET_STAT_SEND_CALL);
    int sent = send_once(socket, buffer, length, address, addressSize);
    if (sent < 0) {
        const int taken = errno;
        if (may_have_been_pending(sendto_label, socket)) {
            sent = send_once(socket, buffer, length, address, addressSize);
            if (sent == length) say::cleared(sendto_label, taken, socket);
        }
    }
    if (sent == length) {
        uint32_t peer_ip = 0;
        packet_adr_get(address, &peer_ip, nullptr);
        packet_stat_sent(peer_ip, buffer, length);
        return 0;
    }

    const KeptErrno error;
    say::send_failed(socket, address, sent, length);
    if (take_pending_error(socket) == QUERY_FAILED) say::query_failed(sendto_label);
    packet_stat_count(PACKET_STAT_SEND_FAIL);
    return error.value() == EINVAL ? PACKETERRINVAL : PACKETERRSEND;
}

int packet_sendto_ip(int socket, const void *buffer, int length, uint32_t ip, uint16_t port) {
    PacketAddress address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(ip);
    return packet_sendto(socket, buffer, length, &address, sizeof address);
}

void packet_put_u32(uint32_t value, unsigned char **cursor) {
    const uint32_t word = htonl(value);
    memcpy(*cursor, &word, sizeof word);
    *cursor += sizeof word;
}

void packet_put_u16(uint16_t value, unsigned char **cursor) {
    const uint16_t word = htons(value);
    memcpy(*cursor, &word, sizeof word);
    *cursor += sizeof word;
}

void packet_get_u32(uint32_t *target, unsigned char **cursor) {
    uint32_t word = 0;
    memcpy(&word, *cursor, sizeof word);
    *target = ntohl(word);
    *cursor += sizeof word;
}

void packet_get_u16(uint16_t *target, unsigned char **cursor) {
    uint16_t word = 0;
    memcpy(&word, *cursor, sizeof word);
    *target = ntohs(word);
    *cursor += sizeof word;
}
