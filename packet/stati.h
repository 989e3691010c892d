/* Statistics as the files of packet/ see them: the counters that go up where calls are made, and the calls that are
 * given the time instead of asking for it. packet.h has the rest. */
#ifndef PACKET_STATI_H
#define PACKET_STATI_H

#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <array>

/** The totals, in the order of the report. The local send calls and fails are reported but never counted. */
enum PacketTotal {
    PACKET_STAT_READ_CALL,
    PACKET_STAT_READ_FAIL,
    PACKET_STAT_RECEIVED,
    PACKET_STAT_GIGABYTES_RECEIVED,
    PACKET_STAT_BYTES_RECEIVED,
    PACKET_STAT_SEND_CALL,
    PACKET_STAT_SEND_FAIL,
    PACKET_STAT_SENT,
    PACKET_STAT_GIGABYTES_SENT,
    PACKET_STAT_BYTES_SENT,
    PACKET_STAT_LOCAL_RECEIVED,
    PACKET_STAT_LOCAL_GIGABYTES_RECEIVED,
    PACKET_STAT_LOCAL_BYTES_RECEIVED,
    PACKET_STAT_LOCAL_SEND_CALL,
    PACKET_STAT_LOCAL_SEND_FAIL,
    PACKET_STAT_LOCAL_SENT,
    PACKET_STAT_LOCAL_GIGABYTES_SENT,
    PACKET_STAT_LOCAL_BYTES_SENT,
    PACKET_STAT_TOTALS
};

/** Counts a call or a failed one. Packets and bytes are for packet_stat_received and packet_stat_sent. */
void packet_stat_count(PacketTotal total);

/** Both sides of the traffic, both directions of each. */
enum PacketSide { PACKET_REMOTE, PACKET_LOCAL, PACKET_SIDES };
enum PacketDirection { PACKET_IN, PACKET_OUT, PACKET_DIRECTIONS };

struct PacketFlow {
    uint32_t packets;
    uint32_t bytes;
};
using PacketTraffic = std::array<PacketFlow, PACKET_DIRECTIONS>;

void packet_stat_count_at(time_t now, PacketDirection direction, uint32_t peerIp, const void *packet, int length);
PacketTraffic packet_stat_window_at(time_t now, PacketSide side, int seconds);

/** Writes the report; `clock` is asked once for each of its six windows. */
void packet_stat_report(FILE *stream, time_t (*clock)(time_t *));

#endif
