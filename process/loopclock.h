/* The clock of a run loop. Wall time for those whom the loop calls, monotonic time for what the loop itself waits for;
 * and the two watch each other, so that a loop learns when somebody has set the wall clock and stored times must move
 * along. */
#ifndef PROCESS_LOOPCLOCK_H
#define PROCESS_LOOPCLOCK_H

#include <stdint.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

class LoopClock {
public:
    LoopClock() {
        take();
        offset_ = offset();
    }

    /** Takes the time anew. Returns by how many seconds the wall clock was set since the last time; 0 if it was not,
     *  or by no more than it may drift. */
    time_t read() {
        take();
        const int64_t moved = offset() - offset_;
        offset_ += moved;
        if (llabs(moved) <= LARGEST_DRIFT) return 0;
        return static_cast<time_t>((moved + (moved > 0 ? SECOND : -SECOND) / 2) / SECOND);  // to the nearest second
    }

    /** The wall clock's time, as last taken. */
    timeval *now() { return &wall_; }

    /** Monotonic microseconds at the same moment. */
    int64_t ticks() const { return ticks_; }

    static int64_t in_ticks(const timeval &time) { return time.tv_sec * SECOND + time.tv_usec; }
    static timeval in_time(int64_t ticks) {
        timeval time{};
        time.tv_sec = ticks / SECOND;
        time.tv_usec = ticks % SECOND;
        return time;
    }

private:
    static constexpr int64_t SECOND = 1000000;
    static constexpr int64_t LARGEST_DRIFT = 5 * SECOND;

    void take() {
        timespec monotonic{};
        gettimeofday(&wall_, nullptr);
        clock_gettime(CLOCK_MONOTONIC, &monotonic);
        ticks_ = monotonic.tv_sec * SECOND + monotonic.tv_nsec / 1000;
    }
    int64_t offset() const { return in_ticks(wall_) - ticks_; }

    timeval wall_{};
    int64_t ticks_ = 0;
    int64_t offset_ = 0;
};

#endif
