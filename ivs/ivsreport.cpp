/* The minute report of traffic: lines .BW (traffic with other hosts) and .LW (with this one) for three spans of time,
 * and .PD and .LD for each type of packet. What is counted, and when, is told in packet/stat.cpp. */
#include <stdio.h>
#include <string.h>

#include "foundation/paa.h"
#include "ivs/ivs.h"
#include "process/velproc.h"

namespace {

PAA_S *ivs_report_table = nullptr;

constexpr int VOLUME_DIGITS = 8;  // in front of a key of that table

unsigned long bits(unsigned bytes) { return 8UL * bytes; }

using WindowCall = void(int seconds, unsigned *packets_in, unsigned *bytes_in, unsigned *packets_out,
                        unsigned *bytes_out);
using TakeCall = void(int type, unsigned *packets_in, unsigned *bytes_in, unsigned *packets_out, unsigned *bytes_out);

struct WindowLine {
    WindowCall *window;
    const char *tag;
    int seconds;
    const char *span;
};
constexpr WindowLine window_lines[] = {
    {packet_stat_window, "BW", 1, "second"},        {packet_stat_window, "BW", 10, "10-sec"},
    {packet_stat_window, "BW", 60, "minute"},       {packet_stat_window_local, "LW", 1, "second"},
    {packet_stat_window_local, "LW", 10, "10-sec"}, {packet_stat_window_local, "LW", 60, "minute"},
};

void report_window(const char *prefix, const WindowLine &line) {
    unsigned packets_in = 0, bytes_in = 0, packets_out = 0, bytes_out = 0;
    line.window(line.seconds, &packets_in, &bytes_in, &packets_out, &bytes_out);
    const auto seconds = static_cast<unsigned long>(line.seconds);
    process_log("%s.%s last %s PR %lu BR %lu PS %lu BS %lu\n", prefix, line.tag, line.span, packets_in / seconds,
                bits(bytes_in) / seconds, packets_out / seconds, bits(bytes_out) / seconds);
}

/* ---- By type ------------------------------------------------------------------------------------------------------ */

/** A row of the table; its key is its volume and the type's name, so that the table's order is that of the report. */
struct TypeCounts {
    uint32_t unused;
    uint32_t packets_in, bytes_in, packets_out, bytes_out;
};

bool clear_table() {
    if (ivs_report_table != nullptr) return paaClear(ivs_report_table) == 0;
    ivs_report_table = paaCreate(0);
    return ivs_report_table != nullptr;
}

void note_type(int type, const TypeCounts &counts) {
    char key[32];
    const uint32_t volume = counts.bytes_in + counts.bytes_out;
    const int length =
        snprintf(key, sizeof key, "%08lx%s", static_cast<unsigned long>(volume), ivs_packet_names[type]);
    paaInsert(ivs_report_table, key, length, &counts, sizeof counts);
}

void take_types(TakeCall &take) {
    for (int type = 0; type < IVS_TYPE_COUNT; ++type) {
        TypeCounts counts{};
        take(type, &counts.packets_in, &counts.bytes_in, &counts.packets_out, &counts.bytes_out);
        if ((counts.packets_in | counts.bytes_in | counts.packets_out | counts.bytes_out) != 0)
            note_type(type, counts);
    }
}

void report_types(const char *prefix, const char *tag) {
    for (void *key = paaFirstSorted(ivs_report_table, nullptr); key != nullptr;
         key = paaNextSorted(ivs_report_table, nullptr)) {
        TypeCounts counts;
        memcpy(&counts, paaCurrentSorted(ivs_report_table, nullptr), sizeof counts);
        process_log("%s.%s \"%s\" PR %8ld BR %8ld PS %8ld BS %8ld\n", prefix, tag,
                    static_cast<const char *>(key) + VOLUME_DIGITS, static_cast<long>(counts.packets_in),
                    static_cast<long>(bits(counts.bytes_in)), static_cast<long>(counts.packets_out),
                    static_cast<long>(bits(counts.bytes_out)));
    }
}

}  // namespace

void ivs_bandwidth_report(const char *prefix) {
    for (const WindowLine &line : window_lines) report_window(prefix, line);
    ivs_srdp_report(prefix);
    if (process_context.packetDiag == 0) return;

    if (!clear_table()) return;
    take_types(packet_stat_type_take);
    report_types(prefix, "PD");
    if (!clear_table()) return;
    take_types(packet_stat_type_take_local);
    report_types(prefix, "LD");
}
