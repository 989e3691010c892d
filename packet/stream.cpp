/* Connections once they stand: the only calls of recv and send for the system's traffic, and the close. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <utility>

#include "packet/packet.h"
#include "packet/packeti.h"
#include "packet/stati.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr char close_label[] = "packet_closeSocket";
constexpr char blocking_label[] = "packet_setNonBlocking";
constexpr char read_label[] = "packet_readTCP";
constexpr char send_label[] = "packet_sendTCP";

constexpr long SECOND = 1000000;  // microseconds
constexpr long SLOW_CLOSE = 100000;

namespace say {
void linger_stays(int socket) {
    if (process_context.trace != 0)
        process_trace("%s: setopt on socket: %d failed! %s\n", close_label, socket, strerror(errno));
}
void slow_close(long microseconds) {
    process_log("%s: took %ld.%06ld seconds\n", close_label, microseconds / SECOND, microseconds % SECOND);
}
void no_flags(const char *call, int socket) {
    const KeptErrno error;
    process_error("%s: %s on socket: %d failed! %s\n", blocking_label, call, socket, strerror(error.value()));
}
void bad_read_socket(int socket) {
    process_error("%s: Attempt to read from  illegal TCP socket: %d\n", read_label, socket);
}
void bad_send_socket(int socket) {
    process_error("%s: Attempt to send to illegal TCP socket: %d\n", send_label, socket);
}
void receive_failed(int socket, int result, int error) {
    process_error("%s: recv on socket: %d failed! rc %d, %s\n", read_label, socket, result, strerror(error));
}
void send_failed(int socket, int length, int result, int error) {
    constexpr char format[] = "%s: send on socket: %d failed! len %d, rc %d, %s\n";
    if (error == EPIPE) {
        process_trace(format, send_label, socket, length, result, strerror(error));
    } else {
        process_log(format, send_label, socket, length, result, strerror(error));
    }
}
}  // namespace say

void stop_lingering(int socket) {
    const linger off{0, 0};
    errno = 0;
    const int result = setsockopt(socket, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    if (result != 0 && !packet_peer_is_gone(errno)) say::linger_stays(socket);
}

long microseconds_now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_sec * SECOND + now.tv_usec;
}

/* ---- Statistics of reads: whoever takes a text byte by byte has not received a packet with each ---- */

constexpr int SMALL_READ = 4;
constexpr int SMALL_READS_COUNTED = 513;

int small_reads = 0;  // bytes gathered, of all connections together

void count_small_read(const char *bytes, int length) {
    small_reads += length;
    if (small_reads < SMALL_READS_COUNTED && bytes[0] != '\n') return;
    packet_stat_received(0, nullptr, std::exchange(small_reads, 0));
}

void count_read(const void *buffer, int length) {
    if (length <= SMALL_READ) return count_small_read(static_cast<const char *>(buffer), length);
    small_reads = 0;
    packet_stat_count(PACKET_STAT_READ_CALL);
    packet_stat_received(0, nullptr, length);
}

int after_failed_read(int socket, int size, int result) {
    const KeptErrno error;
    packet_clearSocketError(socket, read_label);
    if (error.value() == EINTR) return PACKETERRINTR;
    if (error.value() == EAGAIN) return PACKETERRWOULDBLOCK;
    if (error.value() == ECONNRESET || error.value() == ESHUTDOWN) return 0;

    say::receive_failed(socket, result, error.value());
    if (size != SMALL_READ) packet_stat_count(PACKET_STAT_READ_CALL);
    packet_stat_count(PACKET_STAT_READ_FAIL);
    return PACKETERRRECV;
}

int after_failed_send(int socket, int length, int result) {
    const KeptErrno error;
    packet_clearSocketError(socket, send_label);
    if (error.value() == EINTR) return PACKETERRINTR;
    if (error.value() == EAGAIN) return PACKETERRWOULDBLOCK;

    say::send_failed(socket, length, result, error.value());
    packet_stat_count(PACKET_STAT_SEND_FAIL);
    return PACKETERRINTR;  // there is no code of its own for it
}

int refuse_socket(void (&tell)(int socket), int socket) {
    tell(socket);
    packet_stat_count(PACKET_STAT_READ_FAIL);  // also of a send, as with datagrams
    errno = EBADF;
    return PACKETERRBADSOCKET;
}

}  // namespace

void packet_closeSocket(int socket, int clearLinger) {
    if (clearLinger != 0) stop_lingering(socket);

    const long begun = microseconds_now();
    close(socket);
    const long taken = microseconds_now() - begun;
    if (taken > SLOW_CLOSE) say::slow_close(taken);
}

int packet_setNonBlocking(int socket, int on) {
    errno = 0;
    const int flags = fcntl(socket, F_GETFL);
    if (flags < 0) {
        say::no_flags("fnctl_get", socket);
        return -1;
    }
    errno = 0;
    if (fcntl(socket, F_SETFL, on != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) < 0) {
        say::no_flags("fnctl_set", socket);
        return -1;
    }
    return 0;
}

int packet_readTCP(int socket, void *buffer, int size) {
    if (socket < 0) return refuse_socket(say::bad_read_socket, socket);
    if (packet_clearSocketError(socket, read_label) != 0) return PACKETERRINTR;

    const auto length = static_cast<int>(recv(socket, buffer, static_cast<size_t>(size), 0));
    if (length < 0) return after_failed_read(socket, size, length);
    if (length > 0) count_read(buffer, length);
    return length;
}

int packet_sendTCP(int socket, const void *buffer, int length) {
    if (socket < 0) return refuse_socket(say::bad_send_socket, socket);
    packet_clearSocketError(socket, send_label);
    if (length <= 0) return 0;

    packet_stat_count(PACKET_STAT_SEND_CALL);
    const auto sent = static_cast<int>(send(socket, buffer, static_cast<size_t>(length), 0));
    if (sent < 0) return after_failed_send(socket, length, sent);
    if (sent > 0) packet_stat_sent(0, nullptr, sent);
    return sent;
}
