/* Counts what the process receives and sends, and reports it. Who counts what, and when, is told by the callers.
 *
 * Each packet is counted three times: in the totals, in the ring by the second, and in the table by type, the last
 * only while process_context.packetDiag is set. */
#include <algorithm>
#include <functional>
#include <utility>

#include "packet/packet.h"
#include "packet/stati.h"
#include "packet/typecodes.h"
#include "process/velproc.h"

namespace {

constexpr uint32_t HEADER_BYTES = 28;      // IP and UDP
constexpr uint32_t GIGABYTE = 0x3fffffff;  // one byte less than the usual one, and meant so
constexpr int LONGEST_WINDOW = 60;
constexpr int RING_SLOTS = LONGEST_WINDOW + 1;  // 60 whole seconds stay readable while the current one fills

constexpr int ATTRIBUTE_OFFSET = 5;   // of the attribute code in GETX and SETX
constexpr int FIELD_CODE_OFFSET = 7;  // of the same in GETA to TACK

using Columns = std::array<PacketTraffic, PACKET_SIDES>;

struct Slot {
    int32_t second;
    Columns counted;
};
std::array<uint32_t, PACKET_STAT_TOTALS> totals;
std::array<Slot, RING_SLOTS> ring;
std::array<Columns, IVS_TYPE_COUNT> types;

/** Texts of the totals, remote ones in full. The local ones are the same from "packets received" on. */
constexpr const char *total_texts[] = {
    " packet_read calls ", " packet_read fails ", " packets received  ", " gigabytes recvd   ", " bytes received    ",
    " sendto calls      ", " sendto fails      ", " packets sent      ", " gigabytes sent    ", " bytes sent        ",
};
constexpr int REMOTE_TOTALS = std::size(total_texts);
constexpr int LOCAL_SHIFT = PACKET_STAT_LOCAL_RECEIVED - PACKET_STAT_RECEIVED;
static_assert(REMOTE_TOTALS == PACKET_STAT_LOCAL_RECEIVED && REMOTE_TOTALS + LOCAL_SHIFT == PACKET_STAT_TOTALS);

struct Window {
    const char *name;
    int seconds;
};
constexpr Window windows[] = {{"second", 1}, {"10 seconds", 10}, {"60 seconds", 60}};

// ---- Counting

Slot &slot_of(time_t second) { return ring[static_cast<uint64_t>(second) % RING_SLOTS]; }

/** The slot of the present second, emptied if it still holds an earlier one. */
Slot &current_slot(time_t now) {
    Slot &slot = slot_of(now);
    const auto second = static_cast<int32_t>(now);
    if (slot.second != second) slot = {.second = second, .counted = {}};
    return slot;
}

void add_to(PacketFlow &flow, uint32_t size) {
    flow.packets++;
    flow.bytes += size;
}

void add_to_totals(PacketSide side, PacketDirection direction, uint32_t size) {
    const int first =
        (direction == PACKET_IN ? PACKET_STAT_RECEIVED : PACKET_STAT_SENT) + (side == PACKET_LOCAL ? LOCAL_SHIFT : 0);
    uint32_t *const total = &totals[first];
    auto &packets = total[0], &gigabytes = total[1], &bytes = total[2];
    packets++;
    bytes += size;
    if (bytes > GIGABYTE) {
        bytes -= GIGABYTE;
        gigabytes++;
    }
}

PacketSide side_of(uint32_t peer_ip) {
    return peer_ip != 0 && peer_ip == packet_bound_ip ? PACKET_LOCAL : PACKET_REMOTE;
}

// ---- Reading

void hand_out(const PacketTraffic &traffic, unsigned *packets_in, unsigned *bytes_in, unsigned *packets_out,
              unsigned *bytes_out) {
    if (packets_in != nullptr) *packets_in = traffic[PACKET_IN].packets;
    if (bytes_in != nullptr) *bytes_in = traffic[PACKET_IN].bytes;
    if (packets_out != nullptr) *packets_out = traffic[PACKET_OUT].packets;
    if (bytes_out != nullptr) *bytes_out = traffic[PACKET_OUT].bytes;
}

PacketTraffic take_type(int type, PacketSide side) {
    const int index = std::clamp<int>(type, 0, IVS_TYPE_UNKNOWN);
    return std::exchange(types[index][side], {});
}

void print_count(FILE *stream, const char *text, uint32_t count) {
    fprintf(stream, "%s%lu\n", text, static_cast<unsigned long>(count));
}

void print_totals(FILE *stream, PacketSide side) {
    const int first = side == PACKET_LOCAL ? PACKET_STAT_RECEIVED : 0;
    const int shift = side == PACKET_LOCAL ? LOCAL_SHIFT : 0;
    for (int total = first; total < REMOTE_TOTALS; total++) {
        print_count(stream, total_texts[total], totals[total + shift]);
    }
}

void print_rates(FILE *stream, PacketSide side, time_t (*clock)(time_t *)) {
    for (const auto &[name, seconds] : windows) {
        const auto [in, out] = packet_stat_window_at(clock(nullptr), side, seconds);
        const auto divisor = static_cast<uint32_t>(seconds);
        fprintf(stream, "\n%s statistics for last %s:\n", side == PACKET_LOCAL ? "Local packet" : "Packet", name);
        print_count(stream, total_texts[PACKET_STAT_RECEIVED], in.packets / divisor);
        print_count(stream, total_texts[PACKET_STAT_BYTES_RECEIVED], in.bytes / divisor);
        print_count(stream, total_texts[PACKET_STAT_SENT], out.packets / divisor);
        print_count(stream, total_texts[PACKET_STAT_BYTES_SENT], out.bytes / divisor);
    }
    fputs("\n", stream);
}

}  // namespace

int packet_stat_type(const unsigned char *packet, int length) {
    const auto code_at = [&](int offset) {
        return length > offset ? IVS_TYPE_ATTRIBUTES + packet[offset] : IVS_TYPE_UNKNOWN;
    };
    const auto step = [&](int bytes) {
        length -= bytes;
        if (length > 0) packet += bytes;
    };
    while (packet != nullptr && length > 0) {
        const int type = *packet;
        if (type == IVS_TYPE_SRDP) {
            step(IVS_SRDP_HEAD);
        } else if (type == IVS_TYPE_ACCK) {
            step(IVS_KEY_PREFIX);
        } else if (type == IVS_TYPE_SETX) {
            const bool of_all = length > ATTRIBUTE_OFFSET && std::all_of(packet + 1, packet + 5, std::logical_not{});
            return of_all ? type : code_at(ATTRIBUTE_OFFSET);
        } else if (type == IVS_TYPE_GETX) {
            return code_at(ATTRIBUTE_OFFSET);
        } else if (type >= IVS_TYPE_GETA && type <= IVS_TYPE_TACK) {
            return code_at(FIELD_CODE_OFFSET);
        } else {
            return type;
        }
    }
    return IVS_TYPE_UNKNOWN;
}

void packet_stat_count(PacketTotal total) { totals[total]++; }

void packet_stat_count_at(time_t now, PacketDirection direction, uint32_t peerIp, const void *packet, int length) {
    const uint32_t size = static_cast<uint32_t>(length) + HEADER_BYTES;
    const PacketSide side = side_of(peerIp);
    add_to_totals(side, direction, size);
    add_to(current_slot(now).counted[side][direction], size);
    if (process_context.packetDiag != 0 && packet != nullptr) {
        const int type = packet_stat_type(static_cast<const unsigned char *>(packet), length);
        add_to(types[type][side][direction], size);
    }
}

void packet_stat_received(uint32_t peerIp, const void *packet, int length) {
    packet_stat_count_at(time(nullptr), PACKET_IN, peerIp, packet, length);
}

void packet_stat_sent(uint32_t peerIp, const void *packet, int length) {
    packet_stat_count_at(time(nullptr), PACKET_OUT, peerIp, packet, length);
}

PacketTraffic packet_stat_window_at(time_t now, PacketSide side, int seconds) {
    PacketTraffic sum{};
    for (int back = 1; back <= std::clamp(seconds, 1, LONGEST_WINDOW); back++) {
        const Slot &slot = slot_of(now - back);
        if (slot.second <= static_cast<int32_t>(now - RING_SLOTS)) continue;  // stale
        for (const auto direction : {PACKET_IN, PACKET_OUT}) {
            const PacketFlow &flow = slot.counted[side][direction];
            sum[direction].packets += flow.packets;
            sum[direction].bytes += flow.bytes;
        }
    }
    return sum;
}

void packet_stat_window(int seconds, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                        unsigned *bytesOut) {
    hand_out(packet_stat_window_at(time(nullptr), PACKET_REMOTE, seconds), packetsIn, bytesIn, packetsOut, bytesOut);
}

void packet_stat_window_local(int seconds, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                              unsigned *bytesOut) {
    hand_out(packet_stat_window_at(time(nullptr), PACKET_LOCAL, seconds), packetsIn, bytesIn, packetsOut, bytesOut);
}

void packet_stat_type_take(int type, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                           unsigned *bytesOut) {
    hand_out(take_type(type, PACKET_REMOTE), packetsIn, bytesIn, packetsOut, bytesOut);
}

void packet_stat_type_take_local(int type, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                                 unsigned *bytesOut) {
    hand_out(take_type(type, PACKET_LOCAL), packetsIn, bytesIn, packetsOut, bytesOut);
}

void packet_stat_report(FILE *stream, time_t (*clock)(time_t *)) {
    fputs("\nPacket Statistics:\n\nRemote Packets:\n", stream);
    print_totals(stream, PACKET_REMOTE);
    print_rates(stream, PACKET_REMOTE, clock);
    fputs("\nLocal Packets:\n", stream);
    print_totals(stream, PACKET_LOCAL);
    print_rates(stream, PACKET_LOCAL, clock);
}

void packet_statistics(FILE *stream) { packet_stat_report(stream, time); }

void packet_stat_reset() {
    totals = {};
    ring = {};
    types = {};
}
