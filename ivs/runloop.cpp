/* The run loop: ticks, waits, reads, and what becomes of a failed read. */
#include "ivs/runloop.h"

#include <errno.h>
#include <string.h>
#include <sys/select.h>

#include <algorithm>

#include "ivs/ivs.h"
#include "packet/typecodes.h"
#include "process/velproc.h"

namespace {
constexpr int READ_BUDGET = 1024;          // datagrams that may go before the tick once the loop has fallen behind
constexpr int64_t FAILURE_PAUSE = 100000;  // microseconds
}  // namespace

void RunLoop::run() {
    process_set_user();  // the sockets are bound: rights can go
    read_clock();
    tick();
    while (process_context.running) turn();
}

void RunLoop::turn() {
    read_clock();
    begin_turn();
    call_hourly_when_due();

    timeval wait{};
    if (!find_wait(&wait)) return;
    if (timerisset(&wait) && !wait_until_ready(&wait)) return;
    read_datagram(&wait);
}

void RunLoop::read_clock() {
    const time_t moved = clock_.read();
    if (moved != 0) clock_was_set(moved);
}

void RunLoop::call_hourly_when_due() {
    if (calls_.hourly == nullptr) return;
    struct tm local {};
    localtime_r(&now()->tv_sec, &local);
    if (local.tm_hour == last_hour_) return;
    last_hour_ = local.tm_hour;
    calls_.hourly(calls_.context, now());
}

/** Runs the tick when it is due, and finds how long to wait then. Returns false if the process is to stop. */
bool RunLoop::find_wait(timeval *wait) {
    timerclear(wait);
    if (budget_ > 0) return true;
    if (clock_.ticks() >= next_tick_) {
        tick();
        if (!process_context.running) return false;
        read_clock();
    }
    const int64_t left = next_tick_ - clock_.ticks();
    if (left > 0) {
        *wait = LoopClock::in_time(left);
    } else {
        budget_ = READ_BUDGET;  // the tick took longer than a tick: what has piled up meanwhile goes first
    }
    return true;
}

/** The next tick counts from the begin of this one, however long it takes. */
void RunLoop::tick() {
    next_tick_ = clock_.ticks() + LoopClock::in_ticks(*calls_.interval);
    if (calls_.periodic != nullptr) calls_.periodic(calls_.context, now());
}

void RunLoop::read_datagram(timeval *wait) {
    PacketAddress peer;
    int peer_size = sizeof peer;
    const int length = packet_read(calls_.socket, buffer_, PACKET_MAX_DATAGRAM, &peer, &peer_size, wait);
    const int error = errno;
    if (length < 0) return after_failed_read(length, error);

    if (budget_ > 0) budget_--;
    read_clock();
    if (calls_.packet != nullptr) hand_over(length, &peer, peer_size);
}

void RunLoop::hand_over(int length, PacketAddress *peer, int peer_size) {
    memset(buffer_ + length, 0, 1 + PACKET_ZERO_TAIL);
    const bool has_prefix = buffer_[0] == IVS_TYPE_ACCK && length > IVS_KEY_PREFIX;
    const int skipped = has_prefix ? IVS_KEY_PREFIX : 0;
    calls_.packet(calls_.context, now(), buffer_ + skipped, length - skipped, peer, peer_size);
}

void RunLoop::after_failed_read(int rc, int error) {
    if (rc == PACKETERRTIMEOUT) {
        budget_ = 0;
    } else if (rc == PACKETERRINTR) {
        if (!process_context.running) return;
        read_clock();
        interrupted();
    } else if (error == ECONNREFUSED) {
        process_trace("%s: packet_read failed! rc %d, msg %s\n", calls_.label, rc, strerror(error));
    } else {
        process_error("%s: packet_read failed! rc %d, errmsg %s\n", calls_.label, rc, strerror(error));
        pause_after_failure();
    }
}

void RunLoop::pause_after_failure() const {
    timeval wait = LoopClock::in_time(std::clamp<int64_t>(next_tick_ - clock_.ticks(), 0, FAILURE_PAUSE));
    select(0, nullptr, nullptr, nullptr, &wait);
}
