/* The trace printer: what the line of each type of packet shows. That it never looks outside of the packet, and that no
 * control byte gets into the line, is tried by the fuzz target. */
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

#include "ivs/ivsi.h"
#include "tests/support/bytes.h"
#include "tests/support/captured.h"

namespace {

const std::string TIME = "20010203040506.000007 ", INNER_TIME = "20010203040507.123456 ";

class Trace : public testing::Test {
protected:
    Trace() {
        setenv("TZ", "UTC", 1);
        tzset();
        ivs::trace_clock = [](timeval *now) { *now = {981173107, 123456}; };
    }
    ~Trace() override { ivs::trace_clock = clockBefore; }

    std::string traced(const void *packet, int length, const char *prefix = nullptr, const void *peer = nullptr) {
        timeval when{981173106, 7};
        return printed([&](FILE *stream) { ivs_trace_packet(stream, &when, prefix, packet, length, peer); });
    }
    std::string traced(const Bytes &packet) { return traced(packet.data(), static_cast<int>(packet.size())); }

private:
    void (*const clockBefore)(timeval *) = ivs::trace_clock;
};

/** Types, what follows the type in a packet, and what follows the name in its line; "@" stands for the time of what is
 *  inside. Bytes that are missing are shown as zero. */
struct Row {
    const char *types, *packet, *shown;
};

const Row rows[] = {
    {"GETI", "80000001 0102 07 0000002a ff", "SID: 80000001 PKT: 201 ATTR 7 2a "},
    {"SETI", "00000005 00000074 'text'", "SID: 5 VER: 116 "},
    {"SETI", "80000005 0102 00000006 00000007", "SID: 80000005 PKT: 201 CID: 6 SCN: 7 "},
    {"GETX", "00000009 01 'text'", "CID: 9 TADR "},
    {"GETX", "00000009 06 0000000b", "CID: 9 TMEL GID b "},
    {"GETX", "00000009 7f", "CID: 9 383  "},
    {"SETX", "00000000 01 7f000001 0fa0", "CID: 0 "},
    {"SETX", "00000001 01 7f000001 0fa0", "CID: 1 TADR 127.0.0.1:4000 "},
    {"SETX", "00000001 80 01020304 ffff", "CID: 1 CBAD 1.2.3.4:65535 "},
    {"SETX", "00000001 81 01020304 0001", "CID: 1 CHID 1.2.3.4:1 "},
    {"SETX", "00000001 82 01020304 0001", "CID: 1 CSID "},
    {"SETX", "00000001 02 'http://x' 0a 'y'", "CID: 1 TURL http://x.y"},
    {"SETX", "00000001 03 'Ann' 00 'hidden'", "CID: 1 TNAM Ann"},
    {"SETX", "00000001 0a 'in' ff 'fo'", "CID: 1 TINF in.fo"},
    {"SETX", "00000001 04 ffffffff", "CID: 1 TVER 4294967295 "},
    {"SETX", "00000001 05 00000003 02", "CID: 1 TGRL NOF 3 N 2 "},
    {"SETX", "00000001 0d 00000003 02", "CID: 1 TCLL NOF 3 N 2 "},
    {"SETX", "00000001 14 00000003 02", "CID: 1 TSCL NOF 3 N 2 "},
    {"SETX", "00000001 15 00000003 02", "CID: 1 TNAL NOF 3 N 2 "},
    {"SETX", "00000001 24 00000003 02", "CID: 1 TSNL NOF 3 N 2 "},
    {"SETX", "00000001 06 0000000b 00000003 02", "CID: 1 TMEL GID b NOF 3 N 2 "},
    {"SETX", "00000001 07 0000000b 0000001f", "CID: 1 TGAT GID b ATTR 1f "},
    {"SETX", "00000001 08 0000000b 0000001f 01000000", "CID: 1 TGRP GID b AccessType 31 KEY 1 "},
    {"ACKX", "00000010 07 0000000b 0000001f", "CID: 10 TGAT GID b ATTR 10 "},
    {"ACKX", "00000010 08 0000000b 0000001f", "CID: 10 TGRP GID b AccessType 16 "},
    {"ACKX", "00000010 02 'text'", "CID: 10 TURL "},
    {"CUPD", "80000001 00000002 05 7e 8040 01020304 40 0809 ab0c",
     "SID: 80000001 CID: 2 P: 5 -1 64 O: 1 2 3 4 H -63 D 8 N 9 ab0c"},
    {"CUPD", "00000002 01 02 03 04 05 06", "CID: 2 P: 1 O: 2 3 4 5 D 6 "},
    {"CUPD", "00000002 01 02 03 04 05 c2 0000", "CID: 2 P: 1 2 3 O: 4 5 194 0 D 0 "},
    {"CUPD", "00000002 01 02 03 0a0b0c0d f0 000001", "CID: 2 P: 1 2 3 O: 10 11 12 13 "},
    {"CUPD", "00000002 01 02 03 0a0b0c0d c0 0001", "CID: 2 P: 1 2 3 O: 10 11 12 13 H 1 "},
    {"CUPD", "00000002 01 02 03 0a0b0c0d 0809", "CID: 2 P: 1 2 3 O: 10 11 12 13 D 8 N 9 "},
    {"CUPD", "00000002 0a0b0c", "CID: 2 O: 10 11 12 "},
    {"NUPD", "80000001 40000002 00", "SID: 80000001 CID: 40000002 "},
    {"COFA", "05", "BADD "},
    {"COFA", "ff 97 'x'", "0255 @  2 PING L: 1 \"x\""},
    {"COFA", "01 09 02 09 03", "UNCO @  4 COFA OORE @  2 COFA DUPL "},
    {"REDI", "03 7f000001 0fa0", "Code 3 127.0.0.1:4000 "},
    {"REDI", "00000001 0102 03 7f000001 0fa0", "CID: 1 PKT: 201 Code 3 127.0.0.1:4000 "},
    {"TEXT", "00000001 'Hello' 07", "CID: 1 Hello."},
    {"NOTI", "80000001 00000002", "SID: 80000001 CID: 2 "},
    {"SRDP", "0102 03", "SRD: 102 F: 3 \n"},
    {"SRDP", "0102 03 97", "SRD: 102 F: 3 @  1 PING L: 0 \"\"\n"},
    {"SRDP", "0102 03 0d 0405 06 c8", "SRD: 102 F: 3 @  5 SRDP SRD: 405 F: 6 @  1 200  200?\n\n"},
    {"SACK", "0102", "SRD: 201 "},
    {"SOFF", "80000001 00000002 0102", "SID: 80000001 CID: 2 PKT: 201 "},
    {"SOFF", "80000001 00000002 01", "SID: 80000001 CID: 2 "},
    {"SOFF", "80000001", "SID: 80000001 "},
    {"SOFF", "00000002", "CID: 2 "},
    {"SOFF", "80", ""},
    {"GGRP", "00000001 000000ff 02 'ab' 'cd' 0d", "CID: 1 AT: ff TL: 2 TPC: \"ab DL: 3 DES: \"cd.\""},
    {"GGRP", "40000001 0102 000000ff 02 'ab' 01 'cd'",
     "CID: 40000001 PKT: 201 AT: ff TL: 2 TPC: \"ab DL: 1 DES: \"c\""},
    {"SGRP", "00000001 0000000b 01000000 0000001f 'ab'", "CID: 1 GID: b KEY: 1 AT: 31  TPC: \"ab\""},
    {"SGRP", "40000001 0102 0000000b 01000000 0000001f 01 'ab'",
     "CID: 40000001 PKT: 201 GID: b KEY: 1 AT: 31  TL: 1 TPC: \"a\""},
    {"GTXT GHIS", "80000001 00000002 0000000b 'ab'", "SID: 80000001 CID: 2 GID: b ab"},
    {"LOGI ELGI", "00000074 0102 03 'A' 0a 'n' 01 05 '\"p' ff1b00 00000074",
     "VER: 116 PKT: 201 USERID \"A.n\" ENC 1 PASSWD \"\"p\xff..\" "},
    {"LOGA", "80000001 0102 00000074", "SID: 80000001 PKT: 201 VER: 116 "},
    {"KEEP", "00000001", "SID: 1 "},
    {"GETA", "80000001 0102 0d 0000000c", "SID: 80000001 PKT: 201 TCLL SCN c "},
    {"GETA", "80000001 0102 15 0000000c", "SID: 80000001 PKT: 201 TNAL SCN c "},
    {"GETA", "80000001 0102 1d 0000000c 00000002 01ff", "SID: 80000001 PKT: 201 TCLA SCN: c CID: 2 TYPE:  1  255 "},
    {"GETA", "80000001 0102 25 0000000c 01", "SID: 80000001 PKT: 201 TSCA SCN: c TYPE:  1 "},
    {"GETA", "80000001 0102 01 0000000c", "SID: 80000001 PKT: 201 TADR "},
    {"SETA", "80000001 0102 0d 0000000c 00000003 02", "SID: 80000001 PKT: 201 TCLL SCN c NOF 3 N 2 "},
    {"SETA", "80000001 0102 15 0000000c 00000003 02", "SID: 80000001 PKT: 201 TNAL SCN c NOF 3 N 2 "},
    {"SETA", "80000001 0102 14 00000003 02", "SID: 80000001 PKT: 201 TSCL NOF 3 N 2 "},
    {"SETA", "80000001 0102 24 00000003 02", "SID: 80000001 PKT: 201 TSNL NOF 3 N 2 "},
    {"SETA", "80000001 0102 1d 0000000c 00000002 01 01020304 0005",
     "SID: 80000001 PKT: 201 TCLA SCN: c CID: 2 TADR 1.2.3.4:5 "},
    {"SETA", "80000001 0102 1d 0000000c 00000002 04 00000074", "SID: 80000001 PKT: 201 TCLA SCN: c CID: 2 TVER 116 "},
    {"SETA", "80000001 0102 1d 0000000c 00000002 1e 07 0000002a",
     "SID: 80000001 PKT: 201 TCLA SCN: c CID: 2 TATT 7 2a "},
    {"SETA", "80000001 0102 25 0000000c 02", "SID: 80000001 PKT: 201 TSCA SCN: c TURL "},
    {"ACKA", "80000001 0102 05 0000000c", "SID: 80000001 PKT: 201 TYPE: 5 "},
    {"ACKA", "80000001 0102 1d 0000000c 00000002 01", "SID: 80000001 PKT: 201 TYPE: 29 SCN: c CID: 2 TYPE:  1 "},
    {"MGET MSET MACK TGET TSET TACK", "80000001 00000002 0102 05 'x'", "SID: 80000001 CID: 2 PKT: 201 TYPE: 5 "},
    {"GTOP", "00000002 0000000d 01020304 0005 02 'ab' 'more'", "CID: 2 PID: d 1.2.3.4:5 TL: 2 TPC: \"ab\" more"},
    {"USER", "00000002 0000000c 00000064 0000000d 00000003 02", "CID: 2 SCN: c TOT: 100 SCN: 13 NOF: 3 NEW 2 "},
    {"JOIN", "00000002 0000000b 00000003 02 0000001000000011 0000002000000021 01 00000030",
     "CID: 2 GID: b NOF: 3 NEW 2 ID: 10 AccessType 17 ID: 20 AccessType 33 LEFT 1 ID: 30 "},
    {"GWIS", "00000002 0000000d 0000000b 'ab'", "CID: 2 PID: d GID: b ab"},
    {"FORW", "00000002 0000000e", "CID: 2 RID: e "},
    {"FORW", "00000002 0000000e 97", "CID: 2 RID: e @  1 PING L: 0 \"\""},
    {"GNEW GDEL", "80000001 00000002 00000003 0000000b", "SID: 80000001 CID: 2 NOF: 3 GID: b "},
    {"RAUP", "01 02 0000000e 'DB' 00", "RACODE 1 VERSION 2 RID: e "},
    {"RAUA RAHC CGIA", "'x'", ""},
    {"FTFE FTRE", "01000000 02000000 03000000 00000004 00000005", "TID: 1 CID: 2 FID: 3 OFF: 4 LEN: 5 "},
    {"CLAL", "01000000 0000000f 0203", "1 f000000 "},
    {"CVER", "00000000 01020304 0005", "CID: 0 "},
    {"CVER", "00000002 01020304 0005", "CID: 2 1.2.3.4:5 "},
    {"AINT AREQ ACMD AACS ALOG AQER AACK AHND ACON", "0102", "PKT: 201 "},
    {"AFAI", "0102 07", "PKT: 201 7"},
    {"AUDA AUAN", "0102 1f 0405 2f 07", "1f-2f "},
    {"CGIR", "01", "USER"},
    {"CGIR", "02", "HOME"},
    {"PING", "'a' 00 'b'", "L: 3 \"a.b\""},
    {"PONG", "'ab'", "L: 2 \"ab\""},
    {"IGNO", "", "L: 0 \"\""},
    {"ACCK", "00112233445566778899aabbccddeeff", "\n"},
    {"ACCK", "00112233445566778899aabbccddeeff 0d 0102 03 09 01 97",
     "@  7 SRDP SRD: 102 F: 3 @  3 COFA UNCO @  1 PING L: 0 \"\"\n\n"},
    {"LOGI ELGI", "00000074 0102 04 'Ann'", "VER: 116 PKT: 201 USERID \"Ann.\" ENC 0 PASSWD \"\" "},
};

TEST_F(Trace, ShowsEachTypeInItsOwnWay) {
    std::set<int> shown;
    for (const Row &row : rows) {
        std::istringstream types(row.types);
        for (std::string name; types >> name;) {
            Bytes packet = bytes_of(row.packet);
            const auto *const *type = std::find(ivs_packet_names, ivs_packet_names + 256, name);
            packet.insert(packet.begin(), static_cast<uint8_t>(type - ivs_packet_names));
            std::string expected = std::to_string(packet.size());
            expected.insert(0, 3 - expected.size(), ' ').insert(0, TIME).append(" " + name + " ").append(row.shown);
            EXPECT_EQ(traced(packet), std::regex_replace(expected, std::regex("@"), INNER_TIME) + "\n") << row.packet;
            shown.insert(packet[0]);
        }
    }
    for (int type = 0; type < 256; type++) {
        if (shown.contains(type)) continue;
        const Bytes packet(5, static_cast<uint8_t>(type));
        EXPECT_EQ(traced(packet), TIME + "  5 " + ivs_packet_names[type] + " " + std::to_string(type) + "?\n");
    }
}

TEST_F(Trace, BeginsWithPrefixTimePeerAndLength) {
    sockaddr_in peer{};
    peer.sin_port = htons(4000);
    peer.sin_addr.s_addr = htonl(0x7f0000fe);
    EXPECT_EQ(traced("", 0, "TR ", &peer), "TR " + TIME + "127.0.0.254:4000   0 \n");
    EXPECT_EQ(traced(Bytes(1000, 0)), TIME + "1000 0    0?\n");
    EXPECT_EQ(traced(nullptr, -1), TIME + " -1 \n");
}

TEST_F(Trace, CutsLongTextAndShowsAllOfAQuote) {
    const Bytes packet(5000, 'x');
    const std::string name = "TEXT CID: 78787878 ", kept(548, 'x'), quoted(4999, 'x');
    Bytes long_text(packet), echo(packet);
    long_text[0] = 11;
    echo[0] = 151;
    EXPECT_EQ(traced(long_text), TIME + "5000 " + name + kept + "\n");
    EXPECT_EQ(traced(echo), TIME + "5000 PING L: 4999 \"" + quoted + "\"\n");
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "signals are let through again behind the line";
}

TEST_F(Trace, FollowsAnyDepthOfPackets) {
    const Bytes refusals(30000, 9);  // each wraps the next
    const std::string line = traced(refusals);
    EXPECT_TRUE(line.starts_with(TIME + "30000 COFA BADS " + INNER_TIME + "29998 COFA BADS ")) << line.substr(0, 100);
    EXPECT_TRUE(line.ends_with(INNER_TIME + "  2 COFA BADS \n")) << "the innermost";
    const Bytes reliable(32768, 13);
    const std::string lines = traced(reliable);
    EXPECT_TRUE(lines.ends_with("4 SRDP SRD: d0d F: 13 " + std::string(8193, '\n')));
}

}  // namespace
