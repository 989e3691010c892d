/* How many lines of each kind pass in a second, and what is told about the others. */
#include "process/linelimit.h"

#include <utility>

#include "process/velproc.h"

LineLimit *LineLimit::first_ = nullptr;

bool LineLimit::passes() { return process_context.hardened == 0 || passes_at(time(nullptr)); }

bool LineLimit::passes_at(time_t now) {
    if (now != second_) {
        report();
        second_ = now;
        passed_ = 0;
    }
    if (passed_ < LINES_A_SECOND) {
        passed_++;
        return true;
    }
    held_++;
    return false;
}

void LineLimit::report() {
    const unsigned long held = std::exchange(held_, 0);
    if (held > 0) process_log("LineLimit: %lu more lines held back: %s\n", held, kind_);
}

void LineLimit::report_all(time_t now) {
    for (LineLimit *each = first_; each != nullptr; each = each->next_) {
        if (each->second_ != now) each->report();
    }
}
