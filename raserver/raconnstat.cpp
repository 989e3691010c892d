/* Counts the connections that were closed and their bytes: a record for each second of the last minute. */
#include <algorithm>
#include <array>

#include "process/velproc.h"
#include "raserver/raserveri.h"

RA_CONN_STATS_S ra_conn_total;

namespace {

constexpr int LONGEST_WINDOW = 60;
constexpr int RING_SLOTS = LONGEST_WINDOW + 1;  // 60 whole seconds stay readable while the current one fills
constexpr unsigned int CARRY = 0x3fffffff;      // one byte less than a gigabyte, and meant so

std::array<RA_CONN_STATS_S, RING_SLOTS> ring;

RA_CONN_STATS_S &slot_of(time_t second) { return ring[static_cast<uint64_t>(second) % RING_SLOTS]; }

void add_bytes(RA_CONN_BYTES_S &sum, unsigned int bytes) {
    uint64_t low = uint64_t{sum.low} + bytes;
    for (; low > CARRY; low -= CARRY) sum.high++;
    sum.low = static_cast<unsigned int>(low);
}

void count(RA_CONN_STATS_S &record, unsigned int bytes_in, unsigned int bytes_out) {
    record.connections++;
    add_bytes(record.in, bytes_in);
    add_bytes(record.out, bytes_out);
}

void add(RA_CONN_STATS_S &sum, const RA_CONN_STATS_S &record) {
    sum.connections += record.connections;
    sum.in.high += record.in.high;
    sum.out.high += record.out.high;
    add_bytes(sum.in, record.in.low);
    add_bytes(sum.out, record.out.low);
}

}  // namespace

extern "C" {

void ra_conn_count(time_t now, unsigned int bytesIn, unsigned int bytesOut) {
    RA_CONN_STATS_S &slot = slot_of(now);
    if (slot.second != now) slot = {.second = now, .connections = 0, .in = {}, .out = {}};
    count(slot, bytesIn, bytesOut);
    count(ra_conn_total, bytesIn, bytesOut);
}

RA_CONN_STATS_S *raConnStats(int seconds) {
    static RA_CONN_STATS_S sum;
    sum = {};
    const int window = std::clamp(seconds, 1, LONGEST_WINDOW);
    for (int back = 1; back <= window; back++) {
        const time_t second = ra_server.now - back;
        if (slot_of(second).second == second) add(sum, slot_of(second));
    }
    return &sum;
}

void raConnLogStats(const char *name) {
    const RA_CONN_STATS_S &sum = *raConnStats(LONGEST_WINDOW);
    process_log("%s.CO last minute C %lu I %lu O %lu\n", name, sum.connections,
                static_cast<unsigned long>(sum.in.low), static_cast<unsigned long>(sum.out.low));
}

}  // extern "C"
