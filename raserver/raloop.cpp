/* The run loop: one thread, one wait, one datagram at a time.
 *
 * It reads the clock once for each event and hands the time to whatever it calls. It knows neither requests nor
 * sessions; those are its packet function's and its periodic function's affair. It ends when the process is told to
 * stop, and closes nothing on the way out. */
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "packet/packet.h"
#include "packet/typecodes.h"
#include "process/loopclock.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

constexpr char label[] = "raConnRun";
constexpr int READ_BUDGET = 1024;  // datagrams that may go before the tick once the loop has fallen behind

// Every datagram is read into this one; behind the data come the terminator and the zero tail.
unsigned char request_buffer[PACKET_MAX_DATAGRAM + 1 + PACKET_ZERO_TAIL];

/** What the loop was given to serve and to call. All functions may be null. */
struct LoopCalls {
    void *context;
    int udp_socket;
    struct timeval *tick;
    int (*select_set)(void *context, fd_set *readSet, fd_set *writeSet);
    int (*accept)(void *context, fd_set *readSet);
    void (*data)(int count, void *context, fd_set *readSet, fd_set *writeSet);
    void (*periodic)(void *context, struct timeval *now);
    void (*packet)(void *context, struct timeval *now, unsigned char *packet, int length, void *address,
                   int addressSize);
    void (*status)(void *context, struct timeval *now, FILE *stream);
    FILE *stream;
    void (*hourly)(void *context, struct timeval *now);
};

class Loop {
public:
    explicit Loop(const LoopCalls &calls) : calls_(calls) {}
    void run();

private:
    void turn();
    void start();
    void read_clock();
    void call_hourly_when_due();
    bool find_wait(struct timeval *wait);
    void tick();
    bool is_datagram_ready(struct timeval *wait);
    void read_datagram(struct timeval *wait);
    void hand_over(int length, PacketAddress *peer, int peer_size);
    void after_failed_read(int rc, int error);

    const LoopCalls calls_;
    LoopClock clock_;
    struct timeval deadline_ {};  // of the next tick
    int budget_ = 0;              // datagrams still to be read without a wait
    int last_hour_ = -1;
};

void Loop::run() {
    start();
    while (process_context.running) turn();
}

void Loop::start() {
    process_set_user();  // the sockets are bound: rights can go
    read_clock();
    tick();
}

void Loop::turn() {
    read_clock();
    call_hourly_when_due();

    struct timeval wait {};
    if (!find_wait(&wait)) return;
    if (calls_.select_set != nullptr && timerisset(&wait)) {
        if (!is_datagram_ready(&wait)) return;
        timerclear(&wait);
    }
    read_datagram(&wait);
}

void Loop::read_clock() {
    const time_t moved = clock_.read();
    if (moved == 0) return;
    process_trace("%s: the clock was set by %ld seconds\n", label, static_cast<long>(moved));
    ra_clock_was_set(&ra_server, moved);
    deadline_ = *clock_.now();  // it was meant for the clock as it was: the tick comes at once
}

void Loop::call_hourly_when_due() {
    if (calls_.hourly == nullptr) return;
    struct tm local {};
    localtime_r(&clock_.now()->tv_sec, &local);
    if (local.tm_hour == last_hour_) return;
    last_hour_ = local.tm_hour;
    calls_.hourly(calls_.context, clock_.now());
}

// Runs the tick when it is due, and finds how long to wait then. Returns false if the process is to stop.
bool Loop::find_wait(struct timeval *wait) {
    timerclear(wait);
    if (budget_ > 0) return true;
    if (!timercmp(clock_.now(), &deadline_, <)) {
        tick();
        if (!process_context.running) return false;
        read_clock();
    }
    if (!timercmp(clock_.now(), &deadline_, <)) {
        budget_ = READ_BUDGET;  // the tick took longer than a tick: what has piled up meanwhile goes first
    } else {
        timersub(&deadline_, clock_.now(), wait);
    }
    return true;
}

// The next tick counts from the begin of this one, however long it takes.
void Loop::tick() {
    const struct timeval begun = *clock_.now();
    struct timeval now = begun;
    if (calls_.periodic != nullptr) calls_.periodic(calls_.context, &now);
    timeradd(&begun, calls_.tick, &deadline_);
}

// Waits for all descriptors, and serves those of TCP. Returns whether a datagram waits to be read.
bool Loop::is_datagram_ready(struct timeval *wait) {
    fd_set read_set;
    fd_set write_set;
    FD_ZERO(&read_set);
    FD_ZERO(&write_set);
    const int highest = calls_.select_set(calls_.context, &read_set, &write_set);
    int count = select(highest + 1, &read_set, &write_set, nullptr, wait);
    const int error = errno;
    if (!process_context.running || count == 0) return false;
    if (count < 0) {
        if (error != EINTR) process_error("select error\n");
        return false;
    }

    if (calls_.accept != nullptr && calls_.accept(calls_.context, &read_set) != 0) count--;
    const bool is_ready = count > 0 && calls_.udp_socket >= 0 && FD_ISSET(calls_.udp_socket, &read_set);
    if (is_ready) count--;
    if (count > 0 && calls_.data != nullptr) calls_.data(count, calls_.context, &read_set, &write_set);
    return is_ready;
}

void Loop::read_datagram(struct timeval *wait) {
    PacketAddress peer;
    int peer_size = sizeof peer;
    const int length = packet_read(calls_.udp_socket, request_buffer, PACKET_MAX_DATAGRAM, &peer, &peer_size, wait);
    const int error = errno;
    if (length < 0) return after_failed_read(length, error);

    if (budget_ > 0) budget_--;
    read_clock();
    if (calls_.packet != nullptr) hand_over(length, &peer, peer_size);
}

void Loop::hand_over(int length, PacketAddress *peer, int peer_size) {
    memset(request_buffer + length, 0, 1 + PACKET_ZERO_TAIL);
    const bool has_prefix = request_buffer[0] == IVS_TYPE_ACCK && length > IVS_KEY_PREFIX;
    const int skipped = has_prefix ? IVS_KEY_PREFIX : 0;
    calls_.packet(calls_.context, clock_.now(), request_buffer + skipped, length - skipped, peer, peer_size);
}

void Loop::after_failed_read(int rc, int error) {
    if (rc == PACKETERRTIMEOUT) {
        budget_ = 0;
    } else if (rc == PACKETERRINTR) {
        if (!process_context.running || calls_.status == nullptr) return;
        read_clock();
        calls_.status(calls_.context, clock_.now(), calls_.stream);  // a signal may have asked for it
    } else if (error == ECONNREFUSED) {
        process_trace("%s: packet_read failed! rc %d, msg %s\n", label, rc, strerror(error));
    } else {
        process_error("%s: packet_read failed! rc %d, errmsg %s\n", label, rc, strerror(error));
    }
}

}  // namespace

extern "C" void raConnRun(void *context, int udpSocket, struct timeval *tick,
                          int (*selectSet)(void *context, fd_set *readSet, fd_set *writeSet),
                          int (*accept)(void *context, fd_set *readSet),
                          void (*data)(int count, void *context, fd_set *readSet, fd_set *writeSet),
                          void (*periodic)(void *context, struct timeval *now),
                          void (*packet)(void *context, struct timeval *now, unsigned char *packet, int length,
                                         void *address, int addressSize),
                          void (*status)(void *context, struct timeval *now, FILE *stream), FILE *stream,
                          void (*hourly)(void *context, struct timeval *now)) {
    Loop({context, udpSocket, tick, selectSet, accept, data, periodic, packet, status, stream, hourly}).run();
}
