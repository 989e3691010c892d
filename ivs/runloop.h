/* The run loop that every program of the platform turns: one thread, one datagram socket, one wait, one datagram at a
 * time. ivsrun and the RA server's raConnRun are this loop, each with its own way to wait and to idle.
 *
 * The clock is read once for each event, and the time is handed to whatever is called. The loop knows neither requests
 * nor sessions, ends when process_context.running is cleared, and closes nothing on the way out. */
#ifndef IVS_RUNLOOP_H
#define IVS_RUNLOOP_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "packet/packet.h"
#include "process/loopclock.h"

/** Where a loop reads its datagrams. Each has its own: a loop may run inside a callback of another. */
using RunLoopBuffer = unsigned char[PACKET_MAX_DATAGRAM + 1 + PACKET_ZERO_TAIL];

/** What a loop serves and calls. Null functions are left out. */
struct RunLoopCalls {
    const char *label;  // in front of the loop's own lines
    void *context;      // given to each function
    int socket;
    const timeval *interval;  // of the tick
    void (*periodic)(void *context, struct timeval *now);
    void (*packet)(void *context, struct timeval *now, unsigned char *packet, int length, void *address,
                   int addressSize);
    void (*hourly)(void *context, struct timeval *now);
};

class RunLoop {
public:
    RunLoop(const RunLoopCalls &calls, RunLoopBuffer &buffer) : calls_(calls), buffer_(buffer) {}
    virtual ~RunLoop() = default;
    RunLoop(const RunLoop &) = delete;
    RunLoop &operator=(const RunLoop &) = delete;

    void run();

protected:
    /** Called at the begin of each turn. */
    virtual void begin_turn() {}

    /** Waits for at most `wait`, which isn't zero. Returns whether the socket may be read; what is left of `wait` then
     *  goes to the read, so that a loop with nothing else to wait for leaves the waiting to it. */
    virtual bool wait_until_ready(timeval *) { return true; }

    /** A signal ended a wait; the process goes on. */
    virtual void interrupted() = 0;

    /** Somebody has set the wall clock by so many seconds. The loop's own waits go by the monotonic clock. */
    virtual void clock_was_set(time_t seconds) = 0;

    timeval *now() { return clock_.now(); }

    /** Lets a moment pass, up to the next tick: what is broken fails again at once, and the wait for it must be no
     *  busy loop that fills the log. */
    void pause_after_failure() const;

private:
    void turn();
    void read_clock();
    void call_hourly_when_due();
    bool find_wait(timeval *wait);
    void tick();
    void read_datagram(timeval *wait);
    void hand_over(int length, PacketAddress *peer, int peer_size);
    void after_failed_read(int rc, int error);

    const RunLoopCalls calls_;
    RunLoopBuffer &buffer_;
    LoopClock clock_;
    int64_t next_tick_ = 0;
    int budget_ = 0;  // datagrams still to be read without a wait and without a look at the tick
    int last_hour_ = -1;
};

#endif
