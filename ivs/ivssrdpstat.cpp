/* What the reliable datagrams count: totals since the start, and the last minute by the second. Who counts what, and
 * when, is told by the callers. */
#include <string.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "ivs/ivssrdpi.h"
#include "process/velproc.h"

namespace ivs {
namespace {

constexpr int LONGEST_WINDOW = 60;
constexpr int RING_SLOTS = LONGEST_WINDOW + 1;  // 60 whole seconds stay readable while the current one fills

using Slot = std::array<uint32_t, SRDP_WORDS>;

std::array<Slot, RING_SLOTS> ring;
Slot *current = ring.data();
std::array<unsigned long, SRDP_WORDS> totals;

/** Name in the report, and text in front of the running total; some have no total. */
struct Counter {
    const char *tag;
    const char *text;
};
constexpr Counter counters[] = {
    {"", nullptr},
    {"PAR", "  SRDPDataPackets received:     "},
    {"RER", "  SRDPDataReplays received:     "},
    {"ACR", "  SRDPAckPackets received:      "},
    {"ARR", "  SRDPAckReplays received:      "},
    {"PAS", "  SRDPDataPackets sent:         "},
    {"TIM", "  SRDPDataPackets timed out:    "},
    {"CAN", "  SRDPDataPackets cancelled:    "},
    {"RES", "  SRDPDataPackets resent:       "},
    {"PPE", "  SRDPDataPackets pending:      "},
    {"MPE", "  Max SRDPDataPackets pending:  "},
    {"RE1", nullptr},
    {"RE2", nullptr},
    {"RE3", nullptr},
    {"RE4", nullptr},
    {"RE5", nullptr},
};
static_assert(std::size(counters) == SRDP_WORDS);

/** Counters that share a line of the report. */
constexpr SrdpCounter report_lines[][5] = {
    {SRDP_PAR, SRDP_RER, SRDP_ACR, SRDP_ARR, SRDP_MPE},
    {SRDP_PAS, SRDP_RES, SRDP_TIM, SRDP_CAN, SRDP_PPE},
    {SRDP_RE1, SrdpCounter(SRDP_RE1 + 1), SrdpCounter(SRDP_RE1 + 2), SrdpCounter(SRDP_RE1 + 3), SRDP_RE5},
};

Slot &slot_of(time_t second) { return ring[static_cast<uint64_t>(second) % RING_SLOTS]; }

void report_line(const char *prefix, const uint32_t *sums, const SrdpCounter (&line)[5]) {
    if (std::all_of(std::begin(line), std::end(line), [&](SrdpCounter each) { return sums[each] == 0; })) return;
    const auto tag = [&](int place) { return counters[line[place]].tag; };
    const auto sum = [&](int place) { return static_cast<unsigned long>(sums[line[place]]); };
    process_log("%s.SP %s %lu %s %lu %s %lu %s %lu %s %lu\n", prefix, tag(0), sum(0), tag(1), sum(1), tag(2), sum(2),
                tag(3), sum(3), tag(4), sum(4));
}

}  // namespace

void srdp_count_at(time_t clock) {
    current = &slot_of(clock);
    const auto second = static_cast<uint32_t>(clock);
    if ((*current)[SRDP_SECOND] == second) return;
    current->fill(0);
    (*current)[SRDP_SECOND] = second;
}

void srdp_count(SrdpCounter counter) {
    (*current)[counter]++;
    totals[counter]++;
}

void srdp_count_removed(int resends) {
    if (resends > 0) srdp_count(SrdpCounter(std::min<int>(SRDP_RE1 + resends - 1, SRDP_RE5)));
}

void srdp_one_more_pending() {
    Slot &slot = *current;
    srdp_count(SRDP_PPE);
    if (slot[SRDP_PPE] > slot[SRDP_MPE]) slot[SRDP_MPE]++;
    totals[SRDP_MPE] = std::max(totals[SRDP_MPE], totals[SRDP_PPE]);
}

void srdp_one_less_pending() {
    totals[SRDP_PPE]--;
    uint32_t &in_slot = (*current)[SRDP_PPE];
    if (in_slot > 0) in_slot--;  // what became pending in an earlier second isn't in it
}

const uint32_t *srdp_stats_at(time_t clock, int seconds) {
    static Slot sums;
    sums.fill(0);
    for (int back = 1; back <= std::clamp(seconds, 1, LONGEST_WINDOW); back++) {
        const Slot &slot = slot_of(clock - back);
        if (time_t{slot[SRDP_SECOND]} <= clock - RING_SLOTS) continue;  // nothing was counted since
        for (int word = SRDP_SECOND + 1; word < SRDP_WORDS; word++) sums[word] += slot[word];
    }
    return sums.data();
}

void srdp_report_at(time_t clock, const char *prefix) {
    const uint32_t *const sums = srdp_stats_at(clock, LONGEST_WINDOW);
    for (const auto &line : report_lines) report_line(prefix, sums, line);
}

void srdp_reset_counters() {
    ring = {};
    totals = {};
}

}  // namespace ivs

extern "C" {

const uint32_t *ivs_srdp_stats(int seconds) { return ivs::srdp_stats_at(time(nullptr), seconds); }

void ivs_srdp_report(const char *prefix) { ivs::srdp_report_at(time(nullptr), prefix); }

void ivs_srdp_print(FILE *stream) {
    fputs("\nSRDP statistics:\n", stream);
    for (int counter = 0; counter < ivs::SRDP_WORDS; counter++) {
        const char *const text = ivs::counters[counter].text;
        if (text != nullptr) fprintf(stream, "%s%lu\n", text, ivs::totals[counter]);
    }
}

}  // extern "C"
