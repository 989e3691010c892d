/* A wall clock that a test can set. For one file of a test program: it brings the function, not only its name.
 * NOLINTBEGIN(misc-definitions-in-headers) */
#ifndef TESTS_SUPPORT_SETCLOCK_H
#define TESTS_SUPPORT_SETCLOCK_H

#include <sys/time.h>
#include <time.h>

namespace {
time_t clock_was_set_by = 0;
}

/** Stands in front of the system's own. */
extern "C" int gettimeofday(timeval *now, void *) noexcept {
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    *now = {real.tv_sec + clock_was_set_by, real.tv_nsec / 1000};
    return 0;
}

#endif /* NOLINTEND(misc-definitions-in-headers) */
