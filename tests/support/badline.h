/* One direction of a bad line: datagrams are lost, doubled or held back by chance. The time is the test's, in whatever
 * unit it counts. */
#ifndef TESTS_SUPPORT_BADLINE_H
#define TESTS_SUPPORT_BADLINE_H

#include <functional>
#include <map>
#include <random>
#include <string>

/** Per cent of the datagrams. What is held back, and the second copy of what is doubled, comes at any time up to
 *  `longest_hold` later; with 0 at once, so that all stays in order. */
struct Badness {
    unsigned lost, doubled, held;
    unsigned longest_hold;
};

class BadLine {
public:
    using Deliver = std::function<void(const std::string &datagram)>;
    BadLine(const Badness &badness, std::mt19937 &random, Deliver deliver)
        : badness_(badness), random_(random), deliver_(std::move(deliver)) {}

    void take(long now, const std::string &datagram) {
        const unsigned fate = random_() % 100;
        const bool is_doubled = fate >= badness_.lost && fate < badness_.lost + badness_.doubled;
        const bool is_held = fate >= badness_.lost && fate < badness_.lost + badness_.doubled + badness_.held;
        if (fate < badness_.lost) return;
        if (is_doubled || !is_held) deliver_(datagram);
        if (is_held) hold(now, datagram);
    }
    /** Delivers what has been held back long enough. */
    void release(long now) {
        while (!held_.empty() && held_.begin()->first <= now) deliver_(held_.extract(held_.begin()).mapped());
    }

private:
    void hold(long now, const std::string &datagram) {
        if (badness_.longest_hold == 0) return deliver_(datagram);
        held_.emplace(now + 1 + random_() % badness_.longest_hold, datagram);
    }
    const Badness badness_;
    std::mt19937 &random_;
    const Deliver deliver_;
    std::multimap<long, std::string> held_;
};

#endif
