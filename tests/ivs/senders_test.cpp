/* Senders: the bytes of each packet, what is cut and where, the key in front, reliable forms, and lists in shares. */
#include <string.h>

#include "ivs/ivssrdpi.h"
#include "tests/packet/sockets.h"
#include "tests/support/accesskey.h"

namespace {

const uint32_t SID = htonl(0x81020304), CID = htonl(0x01020304), EXTENDED = htonl(0x41020304);
const uint32_t WORD = htonl(0xa1a2a3a4), OTHER = htonl(0xb1b2b3b4), IP = htonl(0x0a000001);
const uint16_t PKT = htons(0xc1c2), PORT = htons(4000);
constexpr int32_t PLACE[3] = {1, -1, 70000}, TURN[4] = {1, 255, -2, 0x304};

std::string x(size_t count) { return std::string(count, 'x'); }
std::string hex(const std::string &notation) { return hex_of(bytes_of(notation)); }
std::string hex_x(size_t count) { return hex_of(Bytes(count, 'x')); }

class Senders : public SocketTest {
protected:
    Senders() { process_context.noAccessKeyCheck = 1; }
    ~Senders() override { ivs::srdp_reset(); }

    const OwnedFd server{packet_clt_socket_ip(LOOPBACK)}, client{packet_clt_socket_ip(LOOPBACK)};
    const PacketAddress to = name_of(server.get());
    const Bytes key = bytes_of("123456789abcdef0123456789abcdef0");

    /** What a sender sends when it is given these arguments between socket and address. */
    template <class... Parameters, class... Arguments>
    std::string sent(int (*sender)(int, Parameters...), Arguments... arguments) const {
        EXPECT_EQ(sender(client.get(), arguments..., &to, static_cast<int>(sizeof to)), 0);
        return received(server);
    }
    void show_key() const {
        ivs_pending_key = key.data();
        ivs_pending_key_flags = IVS_KEY_FLAG_PREFIX;
    }
};

TEST_F(Senders, WriteTheFieldsOfTheirPackets) {
    const void *none = nullptr;
    const char *nothing = nullptr;
    EXPECT_EQ(sent(ivs_snd_geti, 5U, SID, PKT, 7, 9U, 2, "ab", 0, "x", 3, nothing, 1, "c"),
              hex("01 81020304 c1c2 07 00000009 02'ab' 00 00 01'c'"));
    EXPECT_EQ(sent(ivs_snd_geti, 5U, 0U, PKT, 7, 9U, 2, "ab", 1, "x", 1, "y", 1, "c"), hex("01 00000005 'ab'"));
    EXPECT_EQ(
        sent(ivs_snd_geti2, SID, PKT, 7, 9U, 1, "a", 1, "b", 1, "c", 1, "d", 10U, WORD, PORT, 1, "e", 11, 1, "f"),
        hex("01 81020304 c1c2 07 00000009 01'a' 01'b' 01'c' 01'd' 0000000a a1a2a3a4 0fa0 01'e' 0b 01'f'"));
    EXPECT_EQ(sent(ivs_snd_seti, SID, PKT, CID, WORD, 110U, "payload", 7), hex("02 81020304 c1c2 01020304 a1a2a3a4"));
    EXPECT_EQ(sent(ivs_snd_seti, 0U, PKT, CID, WORD, 110U, "payload", 7), hex("02 01020304 0000006e 'payload'"));
    EXPECT_EQ(sent(ivs_snd_getx, CID, 6, "ab", 2), hex("03 01020304 06 'ab'"));
    EXPECT_EQ(sent(ivs_snd_getx, CID, 6, none, 0), hex("03 01020304 06"));
    EXPECT_EQ(sent(ivs_snd_setx, CID, 258, "ab", 2), hex("04 01020304 02 'ab'"));
    EXPECT_EQ(sent(ivs_snd_ackx, CID, 6, 2, "ab"), hex("05 01020304 06 'ab'"));
    EXPECT_EQ(sent(ivs_snd_cupd_old, SID, CID, PLACE, TURN, -2, 3, 4),
              hex("06 81020304 01020304 00000001 ffffffff 00011170 01fffe04 fffffffe 03 04"));
    EXPECT_EQ(sent(ivs_snd_cupd, 115, 0U, CID, PLACE, TURN, -2, 3, 4, 200U),
              hex("06 01020304 01 7e c11170 01fffe04 7d 03 04"));
    EXPECT_EQ(sent(ivs_snd_cupd, 116, 0U, CID, PLACE, TURN, -2, 3, 4, 200U),
              hex("06 01020304 01 7e c11170 01fffe04 7d 03 04 80c8"));
    EXPECT_EQ(sent(ivs_snd_redi, 0, SID, CID, PKT, 3, IP, PORT), hex("0a 81020304 01020304 c1c2 03 0a000001 0fa0"));
    EXPECT_EQ(sent(ivs_snd_redi, 0, 0U, 0U, PKT, 3, IP, PORT), hex("0a 03 0a000001 0fa0"));
    EXPECT_EQ(sent(ivs_snd_text, CID, "hello", 5), hex("0b 01020304 'hello'"));
    EXPECT_EQ(sent(ivs_snd_noti, SID, CID), hex("0c 81020304 01020304"));
    EXPECT_EQ(sent(ivs_snd_soff, SID, CID, PKT), hex("0f 81020304 01020304 c1c2"));
    EXPECT_EQ(sent(ivs_snd_ggrp, SID, EXTENDED, PKT, 9U, "top", "des"),
              hex("10 81020304 41020304 c1c2 00000009 03'top' 03'des'"));
    EXPECT_EQ(sent(ivs_snd_ggrp, 0U, CID, PKT, 9U, "top", "des"), hex("10 01020304 00000009 03'top' 'des'"));
    EXPECT_EQ(sent(ivs_snd_ggrp, 0U, CID, PKT, 9U, nothing, nothing), hex("10 01020304 00000009 00"));
    EXPECT_EQ(sent(ivs_snd_sgrp, 0, SID, EXTENDED, PKT, WORD, OTHER, 9U, 3, "top"),
              hex("11 81020304 41020304 c1c2 a1a2a3a4 b1b2b3b4 00000009 03'top'"));
    EXPECT_EQ(sent(ivs_snd_sgrp, 0, 0U, CID, PKT, WORD, OTHER, 9U, 3, "top"),
              hex("11 01020304 a1a2a3a4 b1b2b3b4 00000009 'top'"));
    EXPECT_EQ(sent(ivs_snd_logi, 110U, PKT, "anna", nothing),
              hex("13 0000006e c1c2 04'anna' 00 00 0000006e 0000006e"));
    EXPECT_EQ(sent(ivs_snd_loga, SID, PKT, 110U), hex("14 81020304 c1c2 0000006e"));
    EXPECT_EQ(sent(ivs_snd_keep, SID), hex("15 81020304"));
    EXPECT_EQ(sent(ivs_snd_typed, 25, SID, CID, PKT, 6, "ab", 2), hex("19 81020304 01020304 c1c2 06 'ab'"));
    EXPECT_EQ(sent(ivs_snd_cver, CID, IP, PORT), hex("81 01020304 0a000001 0fa0"));
    EXPECT_EQ(sent(ivs_snd_cver, 0U, IP, PORT), hex("81 00000000"));
}

TEST_F(Senders, CutWhatDoesNotFit) {
    const std::string much = x(700);
    const char *text = much.c_str();
    EXPECT_EQ(sent(ivs_snd_getx, CID, 6, text, 700), hex("03 01020304 06") + hex_x(542));
    EXPECT_EQ(sent(ivs_snd_setx, CID, 6, text, 543), hex("04 01020304 06") + hex_x(542));
    EXPECT_EQ(sent(ivs_snd_ackx, CID, 6, 542, text), hex("05 01020304 06") + hex_x(541));
    EXPECT_EQ(sent(ivs_snd_ggrp, 0U, CID, PKT, 9U, "t", text), hex("10 01020304 00000009 01't'") + hex_x(537));
    EXPECT_EQ(sent(ivs_snd_ggrp, 0U, EXTENDED, PKT, 9U, "t", text),
              hex("10 41020304 c1c2 00000009 01't' 16") + hex_x(534))
        << "534 is 0x216: its low byte counts";
    EXPECT_EQ(sent(ivs_snd_ggrp, 0U, CID, PKT, 9U, text, "d"), hex("10 01020304 00000009 1a") + hex_x(538));
    EXPECT_EQ(sent(ivs_snd_sgrp, 0, 0U, EXTENDED, PKT, WORD, OTHER, 9U, 259, text),
              hex("11 41020304 c1c2 a1a2a3a4 b1b2b3b4 00000009 03'xxx'"));
    EXPECT_EQ(sent(ivs_snd_logi, 1U, PKT, x(256).c_str(), x(255).c_str()),
              hex("13 00000001 c1c2 00 00 ff") + hex_x(255) + hex("00000001 00000001"));
    const std::string counted = hex("ff") + hex_x(255);
    EXPECT_EQ(sent(ivs_snd_geti2, SID, PKT, 7, 9U, 255, text, 511, text, 255, text, 255, text, 1U, WORD, PORT, 255,
                   text, 1, 255, text),
              hex("01 81020304 c1c2 07 00000009") + counted + counted + counted + counted +
                  hex("00000001 a1a2a3a4 0fa0") + counted + hex("01") + counted);
}

TEST_F(Senders, ShowThePendingKeyWithinTheirLimit) {
    const std::string much = x(700), shown = "a4" + hex_of(key);
    const auto under_key = [&](auto... call) { return show_key(), sent(call...); };
    EXPECT_EQ(under_key(ivs_snd_setx, CID, 6, much.c_str(), 700), shown + hex("04 01020304 06") + hex_x(525));
    EXPECT_EQ(under_key(ivs_snd_typed, 25, 0U, CID, PKT, 6, much.c_str(), 700),
              shown + hex("19 01020304 c1c2 06") + hex_x(523));
    EXPECT_EQ(under_key(ivs_snd_keep, SID), hex("15 81020304")) << "shows none, but takes it";
    EXPECT_EQ(sent(ivs_snd_setx, CID, 6, "ab", 2), hex("04 01020304 06 'ab'"));
}

TEST_F(Senders, LookTheKeyUpForEachOfTheirPackets) {
    Child child([&](Child &self) {
        process_context.noAccessKeyCheck = 0;
        process_context.silent = 1;
        const AccessKey shown("bcdefghijklmnopabcdefghijklmnopa");
        root.write("etc/access.key", "127.0.0.1 " + shown.text() + "\n");
        const std::vector<uint32_t> words(137, WORD);
        self.report(sent(ivs_snd_cver, 0U, IP, PORT));
        self.report(sent(ivs_snd_clal, words.data(), 137).substr(0, 36));
        self.report(received(server));
        return 0;
    });
    const std::string shown = "a4" + hex_of(key);
    EXPECT_EQ(child.next_report(), shown + hex("81 00000000"));
    EXPECT_EQ(child.next_report(), shown + "80");
    EXPECT_EQ(child.next_report(), shown + hex("80 a1a2a3a4"));
}

TEST_F(Senders, ReliablePacketsCarryTheFirstWordInTheirHead) {
    const auto reliable = [&](auto... call) {
        const std::string packet = sent(call...);
        EXPECT_EQ(packet.substr(0, 2) + packet.substr(6, 2), "0d00");
        return packet.substr(8);
    };
    EXPECT_EQ(reliable(ivs_snd_redi, 1, SID, CID, PKT, 3, IP, PORT),
              hex("0a 81020304 01020304 c1c2 03 0a000001 0fa0"));
    EXPECT_EQ(reliable(ivs_snd_redi, 1, 0U, CID, PKT, 3, IP, PORT), hex("0a 01020304 c1c2 03 0a000001 0fa0"));
    EXPECT_EQ(reliable(ivs_snd_redi, 1, 0U, 0U, PKT, 3, IP, PORT), hex("0a 00000000 01 0fa0"));
    EXPECT_EQ(reliable(ivs_snd_sgrp, 1, 0U, CID, PKT, WORD, OTHER, 9U, 3, "top"),
              hex("11 01020304 a1a2a3a4 b1b2b3b4 00000009 'top'"));
    const auto pending = [] { return ivs_srdp_stats(60), ivs::srdp_stats_at(time(nullptr) + 1, 60)[ivs::SRDP_CAN]; };
    ivs_srdp_cancel(SID);
    EXPECT_EQ(pending(), 0U) << "the owner is the client";
    ivs_srdp_cancel(CID);
    EXPECT_EQ(pending(), 3U);
    ivs_srdp_cancel(0);
    EXPECT_EQ(pending(), 4U);
}

/* ---- Lists --------------------------------------------------------------------------------------------------------- */

TEST_F(Senders, ClientListTakes136WordsAPacket) {
    const std::vector<uint32_t> words(273, WORD);
    for (const auto &[count, lengths] :
         {std::pair{0, ""}, {-1, ""}, {136, "545 "}, {137, "545 5 "}, {273, "545 545 5 "}}) {
        EXPECT_EQ(ivs_snd_clal(client.get(), words.data(), count, &to, sizeof to), 0);
        std::string seen;
        for (const std::string &each : all_received(server)) seen += std::to_string(each.size() / 2) + " ";
        EXPECT_EQ(seen, lengths) << count;
    }
    EXPECT_EQ(sent(ivs_snd_clal, words.data(), 2), hex("80 a1a2a3a4 a1a2a3a4"));
}

class NeighbourUpdate : public Senders {
protected:
    std::string update(int version, const IVS_NEIGHBOUR_S &entry, int entries, int words = 0, uint32_t cid = CID,
                       uint32_t sid = 0) const {
        const std::vector<uint32_t> list(600, WORD);
        const std::vector<const IVS_NEIGHBOUR_S *> pointers(600, &entry);
        const int32_t base[3] = {1, 70000, INT32_MIN};
        return sent(ivs_snd_nupd, sid, cid, version, base, 2, list.data(), words, 3, pointers.data(), entries);
    }
    const IVS_NEIGHBOUR_S near = {WORD, {0, 69999, INT32_MAX}, {1, 2, 3, -1}, 200};
};

TEST_F(NeighbourUpdate, WritesEachVersionsCoding) {
    const std::string old_base = "00000001 00011170 80000000", base = "01 c11170 f080000000";
    EXPECT_EQ(update(108, near, 1, 2),
              hex("07" + old_base + "02 02 a1a2a3a4 a1a2a3a4 03 01 a1a2a3a4 ffff ffff ffff 010203ff"));
    for (const int version : {109, 115}) {
        EXPECT_EQ(update(version, near, 1), hex("07" + base + "02 00 03 01 a1a2a3a4 7e 7e 7e 010203ff"));
    }
    EXPECT_EQ(update(116, near, 1), hex("07" + base + "02 00 03 01 a1a2a3a4 7e 7e 7e 010203ff 80c8"));
    EXPECT_EQ(update(116, near, 0, 0, EXTENDED, SID), hex("07 81020304 41020304" + base + "02 00 03 00"));
    process_context.trace = 1;
    const std::string lines = told([&] { update(116, near, 1, 2); });
    EXPECT_NE(lines.find(": POS: 1 70000 -2147483648 D 2 N 2 U 3\n"), std::string::npos) << lines;
    EXPECT_NE(lines.find(": DELTA -1 -1 -1 ORI 1 2 3 -1 SB c8\n"), std::string::npos) << lines;
}

TEST_F(NeighbourUpdate, SharesItsRoomBetweenEntriesAndWords) {
    struct Row {
        int entries, words, entries_sent, words_sent;
    };
    for (const Row &row : {Row{40, 0, 35, 0}, Row{0, 200, 0, 131}, Row{30, 20, 29, 20}, Row{10, 100, 10, 94},
                           Row{INT32_MAX, INT32_MAX, 27, 28}, Row{-1, -1, 0, 0}}) {
        const std::string packet = update(108, near, row.entries, row.words);
        const auto words = static_cast<size_t>(row.words_sent);
        EXPECT_EQ(std::stoi(packet.substr(28, 2), nullptr, 16), row.words_sent);
        EXPECT_EQ(std::stoi(packet.substr(32 + 8 * words, 2), nullptr, 16), row.entries_sent);
        EXPECT_EQ(packet.size() / 2, 17 + 4 * words + 14 * static_cast<size_t>(row.entries_sent));
    }
}

TEST_F(NeighbourUpdate, LeavesTheEntryThatPassedTheLimitUncounted) {
    constexpr int HEAD = 1 + 9 + 4;
    const auto told_of = [&](int entries, uint32_t sb) {
        const IVS_NEIGHBOUR_S far = {WORD, {INT32_MIN, INT32_MIN, 0}, {}, sb};
        const std::string packet = update(116, far, entries);
        return std::pair(std::stoi(packet.substr(2 * (HEAD - 1), 2), nullptr, 16), packet.size() / 2 - HEAD);
    };
    EXPECT_EQ(told_of(19, UINT32_MAX), std::pair(19, size_t{19 * 28}));
    EXPECT_EQ(told_of(20, UINT32_MAX), std::pair(19, size_t{20 * 28})) << "546 bytes, then 574";
    EXPECT_EQ(told_of(35, UINT32_MAX), std::pair(19, size_t{20 * 28})) << "nothing more behind it";

    const IVS_NEIGHBOUR_S middling = {WORD, {0, 69999, INT32_MIN + 100000}, {}, 0xfffffff};
    for (const auto &[entries, length] : {std::pair{30, 548}, {31, 565}}) {
        const std::string packet = update(116, middling, entries, 6);
        EXPECT_EQ(packet.substr(2 * (HEAD + 6 * 4 - 1), 2), "1e") << "what ends at the limit counts";
        EXPECT_EQ(packet.size() / 2, static_cast<size_t>(length));
    }
}

}  // namespace
