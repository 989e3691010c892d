/* Statistics: the classifier, totals, the ring of seconds, the table by type, and the report. Times are given. */
#include "packet/stati.h"

#include "tests/packet/sockets.h"

namespace {

constexpr time_t NOW = 1000000000;
const uint32_t PEER = htonl(0x0a000001), OWN = htonl(0x0a000002);
constexpr unsigned char PING[] = {151};

using Counts = std::array<unsigned, 4>;  // packets and bytes in, packets and bytes out
constexpr Counts NOTHING{};

class Statistics : public SocketTest {
protected:
    Statistics() {
        process_context.packetDiag = 1;
        packet_bound_ip = OWN;
        packet_stat_reset();
    }
    ~Statistics() override { packet_stat_reset(); }
};

void count(time_t now, PacketDirection direction, int length, uint32_t peer = PEER, const void *packet = nullptr) {
    packet_stat_count_at(now, direction, peer, packet, length);
}

Counts window(time_t now, int seconds, PacketSide side = PACKET_REMOTE) {
    const auto [in, out] = packet_stat_window_at(now, side, seconds);
    return {in.packets, in.bytes, out.packets, out.bytes};
}

Counts take(int type, PacketSide side = PACKET_REMOTE) {
    Counts counts{};
    auto &call = side == PACKET_LOCAL ? packet_stat_type_take_local : packet_stat_type_take;
    call(type, &counts[0], &counts[1], &counts[2], &counts[3]);
    return counts;
}

TEST_F(Statistics, ClassifyByTheFirstBytes) {
    const std::string key = "a4" + std::string(32, '7');
    const std::vector<std::pair<int, std::vector<std::string>>> rows = {
        {512, {"", "03 00000000", "04 01000000", "16 00000000 0000", "0d 0000 00", key}},  // of no type
        {0, {"00"}},
        {255, {"ffff"}},
        {4, {"04 00000000 2a"}},
        {5, {"05 00000001 2a"}},
        {21, {"15 00000000 0000 2a"}},
        {31, {"1f 00000000 0000 2a"}},
        {151, {"0d 0000 00 0d 0000 00 97", key + "97"}},  // behind heads and a key
        {256, {"1e 00000000 0000 00"}},
        {257, {key + "0d 0000 00 03 00000000 01"}},
        {298, {"03 00000000 2a", "04 00000001 2a", "16 00000000 0000 2a"}},
        {384, {"0d 0000 00 04 00000001 80"}},
        {511, {"04 01000000 ff"}}};
    for (const auto &[expected, packets] : rows) {
        for (const std::string &notation : packets) {
            const Bytes packet = bytes_of(notation);
            EXPECT_EQ(packet_stat_type(packet.data(), static_cast<int>(packet.size())), expected) << notation;
        }
    }
    EXPECT_EQ(packet_stat_type(nullptr, 5), 512);
    EXPECT_EQ(packet_stat_type(PING, -1), 512);
}

TEST_F(Statistics, KeepSidesAndDirectionsApart) {
    count(NOW, PACKET_IN, 1, PEER, PING);
    for (const int length : {2, 3}) count(NOW, PACKET_OUT, length, PEER, PING);
    count(NOW, PACKET_IN, 4, OWN, PING);
    count(NOW, PACKET_OUT, 5, OWN, PING);
    for (const auto &[side, expected] :
         {std::pair{PACKET_REMOTE, Counts{1, 29, 2, 61}}, {PACKET_LOCAL, Counts{1, 32, 1, 33}}}) {
        EXPECT_EQ(window(NOW + 1, 1, side), expected);
        EXPECT_EQ(take(151, side), expected);
        EXPECT_EQ(take(151, side), NOTHING) << "taken is taken";
    }
    packet_bound_ip = 0;
    for (const uint32_t peer : {uint32_t{0}, OWN}) count(NOW, PACKET_IN, 1, peer, PING);
    EXPECT_EQ(take(151), (Counts{2, 58, 0, 0})) << "without an address of our own all is remote";
}

TEST_F(Statistics, TableIsKeptOnRequestOnly) {
    count(NOW, PACKET_IN, 0, PEER, PING);
    count(NOW, PACKET_IN, 500);
    EXPECT_EQ(take(600), (Counts{1, 28, 0, 0})) << "no type: the last place; no packet: none";
    count(NOW, PACKET_OUT, 1, PEER, "");
    packet_stat_type_take(-1, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(take(0), NOTHING) << "-1 is 0";
    process_context.packetDiag = 0;
    count(NOW, PACKET_IN, 1, PEER, PING);
    EXPECT_EQ(take(151), NOTHING);
    EXPECT_EQ(window(NOW + 1, 1), (Counts{3, 28 + 528 + 29, 1, 29})) << "the ring is always kept";
}

TEST_F(Statistics, WindowsHoldWholeSecondsOnly) {
    const Counts one{1, 128, 0, 0};
    for (const time_t start : {NOW, NOW - NOW % 61, NOW - NOW % 61 + 60}) {
        packet_stat_reset();
        count(start, PACKET_IN, 100);
        EXPECT_EQ(window(start, 60), NOTHING) << "the second in progress";
        for (const auto &[seconds, held] : {std::pair{-5, 1}, {0, 1}, {1, 1}, {10, 10}, {60, 60}, {100, 60}}) {
            EXPECT_EQ(window(start + held, seconds), one) << seconds;
            EXPECT_EQ(window(start + held + 1, seconds), NOTHING) << seconds;
        }
        EXPECT_EQ(window(start + 62, 60), NOTHING) << "the slot still holds it, but it is old";

        for (int second = 1; second <= 61; second++) count(start + second, PACKET_OUT, second);
        EXPECT_EQ(window(start + 61, 60), (Counts{0, 0, 60, 60 * 28 + 60 * 61 / 2})) << "the slot was emptied";
        EXPECT_EQ(window(start + 62, 1), (Counts{0, 0, 1, 28 + 61}));
        EXPECT_EQ(window(start + 55, 60)[2], 60U) << "after the clock was set back, newer seconds are not stale";
    }
}

TEST_F(Statistics, BytesCarryIntoGigabytesThatLackAByte) {
    count(NOW, PACKET_IN, 0x3fffffff - 28);
    EXPECT_EQ(reported({"gigabytes recvd", "bytes received"}), "0 1073741823 ");
    count(NOW, PACKET_IN, 1 - 28);
    EXPECT_EQ(reported({"gigabytes recvd", "bytes received"}), "1 1 ");
    EXPECT_EQ(window(NOW + 1, 1), (Counts{2, 0x40000000, 0, 0})) << "the ring carries nothing";
    for (int turn = 0; turn < 3; turn++) count(NOW, PACKET_OUT, 0x3fffffff);
    EXPECT_EQ(reported({"gigabytes sent", "bytes sent"}), "3 84 ");
}

TEST_F(Statistics, ReportShowsTotalsAndRates) {
    for (const PacketTotal total :
         {PACKET_STAT_READ_CALL, PACKET_STAT_READ_CALL, PACKET_STAT_READ_FAIL, PACKET_STAT_SEND_CALL,
          PACKET_STAT_SEND_CALL, PACKET_STAT_SEND_CALL, PACKET_STAT_SEND_FAIL}) {
        packet_stat_count(total);
    }
    for (int back = 0; back <= 60; back++) {
        count(NOW - 1 - back, PACKET_IN, back);
        count(NOW - 1 - back, PACKET_OUT, back + 100);
        if (back < 20) count(NOW - 1 - back, PACKET_OUT, 1000, OWN);
    }
    count(NOW + 2, PACKET_IN, 0x3fffffff, OWN);
    const auto rates = [](const char *of, const char *in, const char *bytes_in, const char *out,
                          const char *bytes_out) {
        return std::string("\n") + of + ":\n packets received  " + in + "\n bytes received    " + bytes_in +
               "\n packets sent      " + out + "\n bytes sent        " + bytes_out + "\n";
    };
    static time_t next;
    next = NOW;
    const std::string report = printed([](FILE *stream) {
        packet_stat_report(stream, [](time_t *) { return next++; });  // each window asks for the time
    });
    EXPECT_EQ(report,
              "\nPacket Statistics:\n\nRemote Packets:\n"
              " packet_read calls 2\n packet_read fails 1\n packets received  61\n gigabytes recvd   0\n"
              " bytes received    3538\n sendto calls      3\n sendto fails      1\n packets sent      61\n"
              " gigabytes sent    0\n bytes sent        9638\n" +
                  rates("Packet statistics for last second", "1", "28", "1", "128") +
                  rates("Packet statistics for last 10 seconds", "0", "28", "0", "118") +
                  rates("Packet statistics for last 60 seconds", "0", "54", "0", "151") +
                  "\n\nLocal Packets:\n packets received  1\n gigabytes recvd   1\n bytes received    28\n"
                  " sendto calls      0\n sendto fails      0\n packets sent      20\n gigabytes sent    0\n"
                  " bytes sent        20560\n" +
                  rates("Local packet statistics for last second", "1", "1073741851", "0", "0") +
                  rates("Local packet statistics for last 10 seconds", "0", "107374185", "0", "616") +
                  rates("Local packet statistics for last 60 seconds", "0", "17895697", "0", "342") + "\n");
}

TEST_F(Statistics, CountWhatSocketsReadAndSend) {
    packet_bound_ip = LOOPBACK;
    const OwnedFd server(packet_clt_socket_ip(LOOPBACK)), client(packet_clt_socket_ip(LOOPBACK));
    const PacketAddress to = name_of(server.get());
    char byte;
    for (const int length : {1, 0}) {
        EXPECT_EQ(packet_sendto(client.get(), PING, length, &to, sizeof to), 0);
        EXPECT_EQ(packet_readUDP(server.get(), &byte, 1, nullptr, nullptr), length);
    }
    told([&] {
        packet_sendto(-1, "", 0, &to, sizeof to);
        packet_readUDP(-1, &byte, 1, nullptr, nullptr);
    });
    EXPECT_EQ(take(151, PACKET_LOCAL), (Counts{1, 29, 1, 29}));
    EXPECT_EQ(take(512, PACKET_LOCAL), (Counts{1, 28, 1, 28})) << "an empty datagram is one";
    EXPECT_EQ(reported({"packet_read calls", "packet_read fails", "sendto calls", "sendto fails"}), "2 2 2 0 ");
}

}  // namespace
