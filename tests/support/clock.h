#pragma once
/* The wall clock as the log reads it. time() reads a coarser one, which can lag some milliseconds behind and so lie in
 * the second before. */
#include <time.h>

inline time_t clock_seconds() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}
