/* Local time for log lines, also in signal handlers.
 *
 * The conversion of the C library takes a lock, which the code under a signal handler may hold for good. So a
 * handler reckons with an offset from Greenwich that was learned outside: that of the last line printed there, or,
 * for the time of the process's start, which may lie in another season, the one that held then. */
#include <errno.h>
#include <stdio.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "process/processi.h"

using namespace process;

namespace {

/** Written outside of handlers, read inside: without a lock, or this would be no help. */
std::atomic<time_t> start_time{0};
std::atomic<long> offset_at_start{0};
std::atomic<long> latest_offset{0};
static_assert(std::atomic<time_t>::is_always_lock_free);
static_assert(std::atomic<long>::is_always_lock_free);

long learned_offset(time_t when) { return when == start_time ? offset_at_start : latest_offset; }

Calendar calendar_by_offset(time_t when, long offset) {
    using namespace std::chrono;
    constexpr time_t CALENDAR_ENDS = 900'000'000'000;  // within the years that <chrono> knows
    const sys_seconds local{seconds{std::clamp(when, -CALENDAR_ENDS, CALENDAR_ENDS) + offset}};
    const auto midnight = floor<days>(local);
    const year_month_day date{midnight};
    const hh_mm_ss clock{local - midnight};
    return {int{date.year()},
            static_cast<int>(unsigned{date.month()}),
            static_cast<int>(unsigned{date.day()}),
            static_cast<int>(clock.hours().count()),
            static_cast<int>(clock.minutes().count()),
            static_cast<int>(clock.seconds().count()),
            static_cast<int>(weekday{midnight}.c_encoding())};
}

/** The library's conversion, and the offset that it used. */
Calendar calendar_by_library(time_t when, long *offset) {
    struct tm local {};
    if (localtime_r(&when, &local) == nullptr) return calendar_by_offset(when, latest_offset);
    *offset = local.tm_gmtoff;
    return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
            local.tm_min,         local.tm_sec,     local.tm_wday};
}

}  // namespace

Calendar process::local_calendar(time_t when) {
    if (in_signal_handler()) return calendar_by_offset(when, learned_offset(when));
    long ignored = 0;
    return calendar_by_library(when, &ignored);
}

Calendar process::local_calendar_now(time_t now) {
    if (in_signal_handler()) return calendar_by_offset(now, latest_offset);
    long offset = latest_offset;
    const Calendar calendar = calendar_by_library(now, &offset);
    latest_offset = offset;
    return calendar;
}

void process::learn_time_zone() {
    const KeptErrno kept;
    tzset();
    local_calendar_now(time(nullptr));
    long offset = latest_offset;
    calendar_by_library(process_context.startTime, &offset);
    offset_at_start = offset;
    start_time = process_context.startTime;
}

process::TimeText::TimeText(time_t when) {
    static constexpr char days[][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr char months[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const Calendar at = local_calendar(when);
    snprintf(text, sizeof text, "%s %s%3d %02d:%02d:%02d %d\n", days[at.weekday], months[at.month - 1], at.day,
             at.hour, at.minute, at.second, at.year);
}
