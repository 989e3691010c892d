/* Lines that strangers can cause: hardened, at most so many a second of one kind, and then one that says how many were
 * held back. Otherwise all pass. Each kind is a static object where its line is printed:
 *
 *     static LineLimit lines("Illegal packet");
 *     if (lines.passes()) process_log(...);
 *
 * Not for signal handlers. */
#ifndef PROCESS_LINELIMIT_H
#define PROCESS_LINELIMIT_H

#include <time.h>

class LineLimit {
public:
    static constexpr int LINES_A_SECOND = 20;

    /** `kind` is what the line about the others calls them. */
    explicit LineLimit(const char *kind) : kind_(kind), next_(first_) { first_ = this; }
    LineLimit(const LineLimit &) = delete;
    LineLimit &operator=(const LineLimit &) = delete;

    /** Whether the next line of this kind may be printed; time(nullptr) is when. */
    bool passes();
    bool passes_at(time_t now);

    /** Tells what was held back in seconds that are over, of all kinds; for the tick of a loop. */
    static void report_all(time_t now);

private:
    void report();

    static LineLimit *first_;
    const char *const kind_;
    LineLimit *const next_;  // of all kinds
    time_t second_ = 0;
    int passed_ = 0;
    unsigned long held_ = 0;
};

#endif
