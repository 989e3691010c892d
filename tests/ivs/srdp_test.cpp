/* Reliable datagrams: what is sent when, what is handed up, what is forgotten, and what is counted. All times are
 * given; nothing here waits. */
#include <stdlib.h>
#include <string.h>
#include <algorithm>
#include <cmath>
#include <deque>
#include <set>
#include <sstream>

#include "ivs/ivssrdpi.h"
#include "tests/packet/sockets.h"
#include "tests/support/accesskey.h"

namespace {

using namespace ivs;

constexpr time_t T = 1000000;

using Totals = std::vector<unsigned long>;

/** Seconds after T as a time. */
timeval at(double seconds) {
    const int64_t microseconds = T * 1000000 + std::llround(seconds * 1e6);
    return {static_cast<time_t>(microseconds / 1000000), static_cast<suseconds_t>(microseconds % 1000000)};
}

class Srdp : public SocketTest {
protected:
    Srdp() {
        process_context.noAccessKeyCheck = 1;  // no key file is looked for
        packet_bound_ip = LOOPBACK;
        srdp_reset();
    }
    ~Srdp() override {
        srdp_reset();
        srdp_replay_limit = 262144;
    }

    const OwnedFd ours{packet_clt_socket_ip(LOOPBACK)}, peer{packet_clt_socket_ip(LOOPBACK)};
    const PacketAddress to = name_of(peer.get());

    /** What has arrived at the peer, in hex. */
    std::vector<std::string> arrived() const { return all_received(peer); }

    /** Sends TEXT with the given word and body; gives the packet as it came. */
    std::string send(double seconds, uint32_t owner = 0, const Bytes &body = {}) const {
        const timeval clock = at(seconds);
        srdp_send_at(clock, ours.get(), clock.tv_sec, htonl(owner), owner, IVS_TYPE_TEXT, body.data(),
                     static_cast<int>(body.size()), &to, sizeof to);
        return arrived().at(0);
    }
    void tick(double seconds) {
        const timeval now = at(seconds);
        srdp_handle_at(now.tv_sec, ours.get(), now);
    }
    /** What a tick sends again: the first words. */
    std::vector<int> resent(double seconds) {
        tick(seconds);
        std::vector<int> words;
        for (const std::string &packet : arrived()) words.push_back(std::stoi(packet.substr(10, 8), nullptr, 16));
        return words;
    }
    void acknowledge(double seconds, const std::string &packet, const PacketAddress &from) {
        const Bytes ack = bytes_of("0e" + packet.substr(2, 4));
        srdp_ack_at(at(seconds).tv_sec, ack.data(), static_cast<int>(ack.size()), &from);
    }
    int receive(double now, const std::string &packet, const PacketAddress &from) {
        const Bytes bytes = bytes_of(packet);
        const time_t second = at(now).tv_sec;
        return srdp_receive_at(second, ours.get(), second, bytes.data(), static_cast<int>(bytes.size()), &from,
                               sizeof from);
    }
    int receive(double now, const std::string &packet) { return receive(now, packet, to); }

    /** The id of a packet, as the library counts. */
    static uint16_t id_of(const std::string &packet) {
        uint16_t word;
        memcpy(&word, bytes_of(packet.substr(2, 4)).data(), sizeof word);
        return word;
    }
    /** The running totals in their order: PAR RER ACR ARR, PAS TIM CAN RES, PPE MPE. */
    static Totals totals() {
        Totals numbers;
        std::istringstream words(printed(ivs_srdp_print));
        for (std::string word; words >> word;) {
            if (isdigit(word[0]) != 0) numbers.push_back(std::stoul(word));
        }
        return numbers;
    }
    static unsigned long total(SrdpCounter counter) { return totals().at(static_cast<size_t>(counter) - 1); }
    static std::string report(time_t clock) {
        return told([&] { srdp_report_at(clock, "RA"); });
    }
};

// ---- Sending ------------------------------------------------------------------------------------------------------

TEST_F(Srdp, WrapsAPacketAndCutsIt) {
    const std::string first = send(0, 0x12345678, {'h', 'i'});
    EXPECT_EQ(first.substr(0, 2) + first.substr(6), hex_of(bytes_of("0d 00 0b 12345678 'hi'")));
    const std::string next = send(0, 1, Bytes(540, 'x'));
    EXPECT_EQ(next.size(), 2 * 548U);
    EXPECT_EQ(id_of(next), (id_of(first) + 1) & 0x7fff);
    EXPECT_EQ(resent(4.1), std::vector<int>({0x12345678, 1})) << "kept with what was sent";
}

TEST_F(Srdp, RepeatsOnItsScheduleAndGivesUp) {
    const std::string packet = send(0.25);
    std::vector<int> schedule;
    double now = 0.26;
    for (; total(SRDP_PPE) > 0 && now < 70; now += 0.1) {
        tick(now);
        for (const std::string &again : arrived()) {
            schedule.push_back(static_cast<int>(now - 0.25));
            EXPECT_EQ(again, packet);
        }
    }
    EXPECT_EQ(schedule, std::vector<int>({4, 10, 19, 32, 51}));
    EXPECT_EQ(static_cast<int>(now), 65) << "its last second is the 64th";
    EXPECT_EQ(totals(), Totals({0, 0, 0, 0, 1, 1, 0, 5, 0, 1}));
    EXPECT_EQ(report(T + 66),
              "test: RA.SP PAS 0 RES 4 TIM 1 CAN 0 PPE 0\ntest: RA.SP RE1 0 RE2 0 RE3 0 RE4 0 RE5 1\n")
        << "the first send and the first repeat lie more than a minute back";
}

TEST_F(Srdp, SweepsATenthAndAllOfThemEveryThreeSeconds) {
    send(0.25, 1);
    send(0.55, 2);
    send(0.249999, 3);
    EXPECT_EQ(resent(4.25), std::vector<int>({3})) << "the first sweep is a full one, but exactly due is too early";
    EXPECT_EQ(resent(5.30), std::vector<int>()) << "not its tenth";
    EXPECT_EQ(resent(5.24), std::vector<int>({1})) << "its tenth, whatever of it is over";
    EXPECT_EQ(resent(7.249999), std::vector<int>()) << "the full sweep isn't due";
    EXPECT_EQ(resent(7.25), std::vector<int>({2}));
}

TEST_F(Srdp, ManyDueTogetherAreRepeatedInOrderOverSeveralTicks) {
    const int many = 2 * SRDP_SENT_A_TICK;
    for (int number = 0; number < many; number++)
        send(number < many / 4 ? 0.35 : 0.75, static_cast<uint32_t>(number));
    send(0.15, many);
    tick(0.9);
    const std::vector<int> first = resent(4.95);  // a full sweep
    const auto sent = static_cast<int>(total(SRDP_RES));
    EXPECT_EQ(first.front(), many) << "the bucket of the least tenth";
    EXPECT_GE(sent, SRDP_SENT_A_TICK);
    EXPECT_LT(sent, SRDP_SENT_A_TICK + 100) << "a run at most is too many";
    send(0.151, many + 1);
    EXPECT_EQ(resent(5.15).front(), sent - 1) << "goes on where it stopped, whatever else is due";
    ivs_srdp_clock_was_set(60);
    tick(65.25);
    EXPECT_EQ(total(SRDP_RES), many + 2U) << "and nothing twice";
}

TEST_F(Srdp, RepeatsOnTheTimersSocketOrThatOfAForwardedPacket) {
    const OwnedFd other(packet_clt_socket_ip(LOOPBACK));
    Bytes packet = bytes_of("0d ffff 07 0b 00000001");
    packet.resize(600, 'x');
    const time_t ahead = T + 3;  // lifetimes go by the caller's second, repeats by the clock
    srdp_send_at(at(0), other.get(), ahead, 0, 9, IVS_TYPE_TEXT, nullptr, 0, &to, sizeof to);
    srdp_forward_at(at(0), other.get(), ahead, 9, packet.data(), 600, &to, sizeof to);
    EXPECT_NE(hex_of(packet).substr(2, 4), "ffff");
    EXPECT_EQ(arrived().back(), hex_of(packet));
    tick(4.1);
    for (const OwnedFd *from : {&ours, &other}) {
        PacketAddress sender{};
        Bytes again(600);
        int size = sizeof sender;
        timeval wait{10, 0};
        const int length = packet_read(peer.get(), again.data(), 600, &sender, &size, &wait);
        EXPECT_EQ(ntohs(sender.sin_port), port_of(from->get()));
        EXPECT_EQ(length, from == &ours ? 9 : 548);
        EXPECT_TRUE(from == &ours || memcmp(again.data(), packet.data(), 548) == 0);
    }
    tick(67.9);
    EXPECT_EQ(total(SRDP_PPE), 2U);
    tick(71);
    EXPECT_EQ(total(SRDP_PPE), 0U);

    Bytes stump = bytes_of("0d 55");  // has no place for an id
    srdp_forward_at(at(0), other.get(), T, 9, stump.data(), 2, &to, sizeof to);
    EXPECT_EQ(arrived().back(), "0d55");
}

TEST_F(Srdp, AcknowledgementEndsThePacketOfItsPeerOnly) {
    const Bytes cut = bytes_of("0e");
    srdp_ack_at(T, cut.data(), 1, &to);
    EXPECT_EQ(totals(), Totals({0, 0, 1, 1, 0, 0, 0, 0, 0, 0})) << "before anything was sent";
    const std::string packet = send(0, 1);
    send(0, 2);
    acknowledge(1, packet, name_of(ours.get()));
    EXPECT_EQ(totals(), Totals({0, 0, 2, 2, 2, 0, 0, 0, 2, 2}));
    acknowledge(1, packet, to);
    acknowledge(1, packet, to);
    EXPECT_EQ(totals(), Totals({0, 0, 4, 3, 2, 0, 0, 0, 1, 2}));
    EXPECT_EQ(resent(4.1), std::vector<int>({2}));
}

TEST_F(Srdp, CancelsByOwnerTypeAndAttribute) {
    const auto send_inner = [&](uint32_t owner, int type, const char *body) {
        const Bytes bytes = bytes_of(body);
        srdp_send_at(at(owner / 10.0), ours.get(), T, htonl(owner), owner, type, bytes.data(),
                     static_cast<int>(bytes.size()), &to, sizeof to);
    };
    send_inner(1, IVS_TYPE_SETA, "0001 05 99");  // PKT, attribute
    send_inner(2, IVS_TYPE_SETA, "0002 05 99");
    send_inner(2, IVS_TYPE_SETA, "0003 06");
    send_inner(2, IVS_TYPE_SETA, "0004");
    send_inner(2, IVS_TYPE_TEXT, "0005 05");
    arrived();
    const auto pending_after = [](auto cancel, auto... call) { return cancel(T, call...), total(SRDP_PPE); };
    EXPECT_EQ(pending_after(srdp_cancel_type_at, 2, IVS_TYPE_SETA, 5), 4U);
    EXPECT_EQ(pending_after(srdp_cancel_type_at, 2, IVS_TYPE_SETA, 5), 4U);
    EXPECT_EQ(pending_after(srdp_cancel_type_at, 2, IVS_TYPE_SETA, 0), 2U);
    EXPECT_EQ(pending_after(srdp_cancel_at, 2), 1U);
    EXPECT_EQ(totals(), Totals({0, 0, 0, 0, 5, 0, 4, 0, 1, 5}));
    EXPECT_EQ(resent(5), std::vector<int>({1}));
}

TEST_F(Srdp, IdsAreFreeOnesAndWhenThereAreNoneThePacketGoesUnprotected) {
    std::set<std::string> ids;
    const std::string held = send(0).substr(2, 4);
    std::string last;
    for (int more = 1; more < 32768; more++) ids.insert((last = send(0)).substr(2, 4));
    EXPECT_EQ(ids.size(), 32767U);
    EXPECT_FALSE(ids.contains(held)) << "it was still pending when the ids began anew";

    acknowledge(0, last, to);
    EXPECT_EQ(send(0), last) << "a single free one is found, however long it takes";

    std::string unprotected;
    const std::string lines = told([&] { unprotected = send(0); });
    const std::string key =
        "127.0.0.1:" + std::to_string(ntohs(to.sin_port)) + ' ' + std::to_string(id_of(unprotected));
    EXPECT_EQ(lines.find("test: ivs_srdp_packet_save: paaInsert failed! PAAERREXISTS " + key + "\n"), 0U) << lines;
    EXPECT_NE(lines.find("\ntest: ivs_srdp_packet_send: ivs_srdp_packet_save failed! errmsg "), std::string::npos);
    EXPECT_EQ(totals(), Totals({0, 0, 1, 0, 32770, 0, 0, 0, 32768, 32768}));
}

// ---- Against a plain walk over everything ---------------------------------------------------------------------------

TEST_F(Srdp, SweepsAsAWalkOverAllPacketsWould) {
    constexpr int64_t SECOND = 1000000;  // all times in microseconds
    struct Kept {
        int word;
        int64_t sent, next, interval;
        std::string packet;
    };
    Seeded random;
    std::deque<Kept> model;  // in the order of their sending
    int64_t now = 0, next_full = 0;
    int word = 0;
    for (int turn = 0; turn < 3000; turn++) {
        now += random() % 200 * 1000;
        for (unsigned burst = turn < 2000 ? random() % 4 : 0; burst > 0; burst--) {
            const int64_t moment = now + random() % 1000;
            const std::string packet = send(static_cast<double>(moment) / 1e6, static_cast<uint32_t>(++word));
            model.push_back({word, moment, moment + 4 * SECOND, 4, packet});
        }
        if (random() % 3 == 0 && !model.empty()) {
            const auto gone = model.begin() + static_cast<long>(random() % std::min<size_t>(model.size(), 20));
            acknowledge(0, gone->packet, to);
            model.erase(gone);
        }
        std::vector<int> expected;
        const bool is_full = next_full <= now;
        if (is_full) next_full = now + 3 * SECOND;
        for (int tenth = 0; tenth < 10; tenth++) {
            if (!is_full && tenth != now % SECOND / 100000) continue;
            const auto is_swept = [&](const Kept &each) { return each.sent % SECOND / 100000 == tenth; };
            const auto is_over = [&](const Kept &each) { return each.sent / SECOND + 64 < now / SECOND; };
            std::erase_if(model, [&](const Kept &each) { return is_swept(each) && is_over(each); });
            for (Kept &each : model) {
                if (!is_swept(each) || each.next >= now) continue;
                expected.push_back(each.word);
                each.interval = each.interval * 3 / 2;
                each.next = (now / SECOND + each.interval) * SECOND + each.sent % SECOND;
            }
        }
        ASSERT_EQ(resent(static_cast<double>(now) / 1e6), expected) << "at " << now;
        ASSERT_EQ(total(SRDP_PPE), model.size()) << "pending at " << now;
    }
    EXPECT_GT(total(SRDP_TIM), 100U) << "too few were given up to tell anything";
}

// ---- Receiving ------------------------------------------------------------------------------------------------------

TEST_F(Srdp, AcknowledgesEachCopyAndHandsUpTheFirst) {
    const std::string packet = "0d abcd 00 97";
    EXPECT_EQ(receive(0, packet), 1);
    EXPECT_EQ(receive(0, "0d abcd 80 97 01"), 0) << "the id decides";
    EXPECT_EQ(arrived(), std::vector<std::string>({"0eabcd", "0eabcd"}));
    EXPECT_EQ(receive(0, "0d abce 00 97"), 1);
    EXPECT_EQ(receive(0, packet, name_of(ours.get())), 1) << "another port is another peer";
    EXPECT_EQ(totals(), Totals({4, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(receive(0, "0d 7f"), 1);
    arrived();
    EXPECT_EQ(receive(0, "0d 7f00"), 0) << "a missing byte of the id is zero";
}

TEST_F(Srdp, RemembersAPacketUntilAFullSweepAfterItsTime) {
    const std::string packet = "0d 0001 00 97";
    tick(0);
    EXPECT_EQ(receive(1, packet), 1);
    EXPECT_EQ(receive(60, packet), 0) << "which makes the memory no younger";
    tick(65.5);
    EXPECT_EQ(receive(65, packet), 0) << "in its last second";
    tick(68.4);
    EXPECT_EQ(receive(68, packet), 0) << "no full sweep";
    tick(68.5);
    EXPECT_EQ(receive(68, packet), 1);
    EXPECT_EQ(receive(68, packet), 0);
}

TEST_F(Srdp, ForgetsTheOldestWhenTheMemoryIsFull) {
    srdp_replay_limit = 3;
    const auto packet = [](int number) { return "0d 000" + std::to_string(number) + " 00 97"; };
    const std::string lines = told([&] {
        for (int number = 1; number <= 5; number++) EXPECT_EQ(receive(0, packet(number)), 1);
    });
    EXPECT_EQ(lines, "test: ivs_srdp_packet: limit reached: 3 replay records, 1 dropped so far\n") << "one a minute";
    for (int number = 3; number <= 5; number++) EXPECT_EQ(receive(59, packet(number)), 0);
    EXPECT_EQ(told([&] { EXPECT_EQ(receive(60, packet(1)), 1); }),
              "test: ivs_srdp_packet: limit reached: 3 replay records, 3 dropped so far\n");
    tick(90);
    EXPECT_EQ(told([&] { EXPECT_EQ(receive(121, packet(2)), 1); }), "") << "those of the first second were outdated";
}

TEST_F(Srdp, ManyThatEndTogetherAreGoneAtOnce) {
    const int many = 3 * SRDP_FREED_A_TICK;
    const auto id = [](int number) {
        return "0d" + hex_of(Bytes{static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)}) + "00";
    };
    std::string last;
    for (int number = 0; number < many; number++) {
        last = send(0);
        receive(0, id(number));
        arrived();
    }
    tick(4.1);  // more than a tick repeats: when they end, this sweep is still under way
    arrived();
    tick(65);
    const auto all = static_cast<unsigned long>(many), repeats = total(SRDP_RES);
    EXPECT_LT(repeats, all);
    EXPECT_EQ(totals(), Totals({all, 0, 0, 0, all, all, 0, repeats, 0, all}));
    EXPECT_EQ(srdp_stats_at(T + 66, 1)[SRDP_RE1], repeats) << "repeats are counted with the end, not with the memory";
    acknowledge(65, last, to);
    EXPECT_EQ(total(SRDP_ARR), 1U) << "a packet given up is unknown";
    srdp_replay_limit = all;
    EXPECT_EQ(told([&] {
                  for (int number = many; number <= many + SRDP_FREED_A_TICK; number++) receive(65, id(number));
              }),
              "")
        << "room is made by those that were forgotten already";
    arrived();
    EXPECT_EQ(receive(65, id(many - 1)), 1);
    for (int more = 0; more < 8; more++) tick(65.1 + more / 10.0);
    EXPECT_EQ(receive(66, id(many - 1)), 0) << "the new memory went with the old one";
}

TEST_F(Srdp, WhatCameInAnEnvelopeIsAcknowledgedInOne) {
    const AccessKey key(std::string("abcdefghijklmnop") + "ponmlkjihgfedcba");
    const std::string packet("\x0d\x12\x34\0\x97", 5);
    Child child([&](Child &self) {
        process_context.noAccessKeyCheck = 0;
        root.write("etc/access.key", "127.0.0.1 encrypt " + key.text() + "\n");
        const std::string envelope = key.sealed(packet);
        const PacketAddress our_name = name_of(ours.get());
        packet_sendto(peer.get(), envelope.data(), static_cast<int>(envelope.size()), &our_name, sizeof our_name);
        char buffer[200];
        const int length = packet_readUDP(ours.get(), buffer, sizeof buffer, nullptr, nullptr);
        self.report(std::to_string(ivs_srdp_packet(ours.get(), T, buffer, length, &to, sizeof to)));
        const ssize_t back = recv(peer.get(), buffer, sizeof buffer, 0);
        const std::string plain = key.opened({buffer, buffer + std::max<ssize_t>(back, 0)}).value_or("in clear");
        self.report(hex_of(plain.data(), plain.size()));
        return 0;
    });
    EXPECT_EQ(child.next_report(), "1");
    EXPECT_EQ(child.next_report(), "0e1234");
}

// ---- Figures and the clock ------------------------------------------------------------------------------------------

TEST_F(Srdp, ReportsTheMinuteWithoutTheSecondInProgress) {
    EXPECT_EQ(report(T), "") << "no line without a figure";
    acknowledge(0, send(0), to);
    const std::string packet = send(0.1);
    send(0.2);
    receive(0, "0d 0001 00");
    receive(0, "0d 0001 00");
    EXPECT_EQ(report(T), "");
    acknowledge(1, packet, to);
    const std::string received = "test: RA.SP PAR 2 RER 1 ACR 1 ARR 0 MPE 2\n";
    const std::string sent = "test: RA.SP PAS 3 RES 0 TIM 0 CAN 0 PPE 2\n";
    EXPECT_EQ(report(T + 1), received + sent);
    EXPECT_EQ(report(T + 60), "test: RA.SP PAR 2 RER 1 ACR 2 ARR 0 MPE 2\n" + sent);
    EXPECT_EQ(report(T + 61), "test: RA.SP PAR 0 RER 0 ACR 1 ARR 0 MPE 0\n") << "PPE of that second stays 0";
    EXPECT_EQ(report(T + 100), "") << "those of a minute ago stand where those of now will";
    EXPECT_EQ(srdp_stats_at(T + 2, 1)[SRDP_PAS], 0U);
    EXPECT_EQ(srdp_stats_at(T + 2, 2)[SRDP_PAS], 3U);
    EXPECT_EQ(srdp_stats_at(T + 2, 2)[SRDP_SECOND], 0U);
    EXPECT_EQ(srdp_stats_at(T + 1, -5)[SRDP_PAS], 3U) << "held to one second";

    EXPECT_EQ(printed(ivs_srdp_print),
              "\nSRDP statistics:\n"
              "  SRDPDataPackets received:     2\n  SRDPDataReplays received:     1\n"
              "  SRDPAckPackets received:      2\n  SRDPAckReplays received:      0\n"
              "  SRDPDataPackets sent:         3\n  SRDPDataPackets timed out:    0\n"
              "  SRDPDataPackets cancelled:    0\n  SRDPDataPackets resent:       0\n"
              "  SRDPDataPackets pending:      1\n  Max SRDPDataPackets pending:  2\n");
}

TEST_F(Srdp, ClockThatWasSetMovesEverythingStored) {
    for (const int step : {-3600, 60}) {
        srdp_reset();
        srdp_replay_limit = 1;
        told([&] { receive(-1, "0d 0009 00"), receive(0, "0d 0001 00"); });
        send(0.1, 7);
        arrived();
        tick(0);
        ivs_srdp_clock_was_set(step);
        EXPECT_EQ(receive(step + 1, "0d 0001 00"), 0) << step;
        arrived();
        EXPECT_EQ(resent(step + 3.9), std::vector<int>()) << step;
        EXPECT_EQ(resent(step + 4.15), std::vector<int>({7})) << step;
        tick(step + 7);
        EXPECT_EQ(receive(step + 7, "0d 0001 00"), 0) << step;
        EXPECT_EQ(told([&] { receive(step + 58, "0d 0002 00"); }), "") << "less than a minute after the last line";
        arrived();
        tick(step + 64.9);
        EXPECT_EQ(total(SRDP_TIM), 0U) << step;
        EXPECT_EQ(receive(step + 64, "0d 0002 00"), 0);
        tick(step + 68);
        EXPECT_EQ(total(SRDP_TIM), 1U) << step;
    }
}

}  // namespace
