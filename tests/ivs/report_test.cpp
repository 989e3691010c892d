/* The minute report at a given time; and the small services: global settings, ids in URLs, counted keys, words. */
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "foundation/config.h"
#include "ivs/ivs.h"
#include "packet/stati.h"
#include "tests/packet/sockets.h"

time_t given_time = 0;  // 0: the system's

/** Stands in front of the system's own, so that a report is about a given time. */
extern "C" time_t time(time_t *target) noexcept {
    timespec real{};
    clock_gettime(CLOCK_REALTIME_COARSE, &real);
    const time_t now = given_time != 0 ? given_time : real.tv_sec;
    if (target != nullptr) *target = now;
    return now;
}

namespace {

const uint32_t PEER = htonl(0x0a000001), OWN = htonl(0x0a000002);
constexpr time_t NOW = 1000000000;

class Report : public SocketTest {
protected:
    Report() {
        packet_bound_ip = OWN;
        given_time = NOW;
        packet_stat_reset();
    }
    ~Report() override {
        given_time = 0;
        packet_stat_reset();
    }
    static void count(time_t when, PacketDirection direction, uint32_t peer, int bytes, int type = 151) {
        const unsigned char packet[16] = {static_cast<unsigned char>(type)};
        packet_stat_count_at(when, direction, peer, packet, bytes - 28);
    }
    static std::string report() {
        return told([] { ivs_bandwidth_report("RA"); });
    }
};

const std::string quiet =
    "test: RA.BW last second PR 0 BR 0 PS 0 BS 0\n"
    "test: RA.BW last 10-sec PR 0 BR 0 PS 0 BS 0\n"
    "test: RA.BW last minute PR 0 BR 0 PS 0 BS 0\n"
    "test: RA.LW last second PR 0 BR 0 PS 0 BS 0\n"
    "test: RA.LW last 10-sec PR 0 BR 0 PS 0 BS 0\n"
    "test: RA.LW last minute PR 0 BR 0 PS 0 BS 0\n";

TEST_F(Report, ShowsRatesOfBothSidesInBits) {
    EXPECT_EQ(report(), quiet);
    for (int second = 1; second <= 60; second++) {
        count(NOW - second, PACKET_IN, PEER, 100);
        count(NOW - second, PACKET_IN, PEER, 50);
        if (second <= 5) count(NOW - second, PACKET_OUT, PEER, 1001);
        if (second == 1) count(NOW - second, PACKET_OUT, OWN, 29);
    }
    count(NOW, PACKET_IN, PEER, 10000);
    EXPECT_EQ(report(),
              "test: RA.BW last second PR 2 BR 1200 PS 1 BS 8008\n"
              "test: RA.BW last 10-sec PR 2 BR 1200 PS 0 BS 4004\n"
              "test: RA.BW last minute PR 2 BR 1200 PS 0 BS 667\n"
              "test: RA.LW last second PR 0 BR 0 PS 1 BS 232\n"
              "test: RA.LW last 10-sec PR 0 BR 0 PS 0 BS 23\n"
              "test: RA.LW last minute PR 0 BR 0 PS 0 BS 3\n");
}

TEST_F(Report, ListsTypesByRisingVolumeSinceTheLastReport) {
    const PacketAddress nobody{};
    process_context.packetDiag = 1;
    count(1, PACKET_IN, PEER, 1000, 61);
    count(1, PACKET_OUT, PEER, 500, 61);
    count(1, PACKET_OUT, PEER, 1499, 151);
    count(1, PACKET_IN, PEER, 1500, 33);
    count(1, PACKET_IN, OWN, 536870912, 132);
    EXPECT_EQ(report(), quiet +
                            "test: RA.PD \"PING\" PR        0 BR        0 PS        1 BS    11992\n"
                            "test: RA.PD \"33  \" PR        1 BR    12000 PS        0 BS        0\n"
                            "test: RA.PD \"RAUP\" PR        1 BR     8000 PS        1 BS     4000\n"
                            "test: RA.LD \"ADMN\" PR        1 BR 4294967296 PS        0 BS        0\n");
    EXPECT_EQ(report(), quiet) << "what was reported is taken";
    ivs_srdp_packet_ack("\x0e", 1, &nobody);
    given_time++;
    EXPECT_EQ(report(), quiet + "test: RA.SP PAR 0 RER 0 ACR 1 ARR 1 MPE 0\n") << "with the reliable packets";
}

/* ---- Small services -------------------------------------------------------------------------------------------------- */

class Services : public SocketTest {
protected:
    ~Services() override {
        if (ivs_globalcfg != nullptr) config_free(ivs_globalcfg);
        ivs_globalcfg = nullptr;
    }
    static std::string id(const std::string &url) {
        const char *found = ivs_url_id(url.c_str());
        return found != nullptr ? found : "none";
    }
};

TEST_F(Services, GlobalSettingsComeFromSeveralFiles) {
    const auto lines = told([] { EXPECT_EQ(ivs_globalcfg_value("a"), nullptr); });
    EXPECT_NE(lines.find("ivs_globalcfg_value: called but global config file not opened!\n"), std::string::npos);
    const std::string usual = "gsbin/gathering/config/global.cfg";
    root.write(usual, "a 1\na 2\n");
    root.write("more.cfg", "b 3\n");
    for (const auto &[name, path] : {std::pair<const char *, std::string>{nullptr, root.path(usual)},
                                     {"more.cfg", root.path("more.cfg")},
                                     {"/none.cfg", "/none.cfg"},
                                     {"\\none.cfg", "\\none.cfg"},
                                     {"c:/x", "c:/x"},
                                     {"c:/", root.path("c:/")}}) {
        const int result = access(path.c_str(), R_OK) == 0 ? 0 : -2;
        const std::string opened = told([&, wanted = name] { EXPECT_EQ(ivs_globalcfg_open(wanted), result); });
        EXPECT_TRUE(opened.starts_with("test: Gathering config file " + path + "\n")) << opened;
    }
    EXPECT_STREQ(ivs_globalcfg_value("a"), "1") << "a failure leaves what there is";
    EXPECT_STREQ(ivs_globalcfg_value("b"), "3");
    EXPECT_EQ(ivs_globalcfg_value("c"), nullptr);
}

TEST_F(Services, UrlNamesAnIdDirectlyOrByPlace) {
    const std::string long_id(504, 'i'), too_long(505, 'i');
    EXPECT_EQ(ivs_url_id(nullptr), nullptr);
    EXPECT_EQ(id("x?plc=oslo"), "none") << "without settings";
    root.write("more.cfg", "g_osloID 4711\n");
    told([] { ivs_globalcfg_open("more.cfg"); });
    using Row = std::pair<std::string, std::string>;
    for (const auto &[url, expected] :
         {Row{"/a?ID=17&b=1", "17"}, Row{"/a?b=1&ID=17", "17"}, Row{"/a?xID=1&ID=2?ID=3", "3"}, Row{"/a?xID=1", "1"},
          Row{"", "none"}, Row{"?ID=" + long_id, long_id}, Row{"?ID=" + too_long + "&plc=oslo", "none"},
          Row{"/a?ID=&plc=oslo", "4711"}, Row{"/a?ID=&ID=5", "none"}, Row{"/a?plc=&plc=oslo", "none"},
          Row{"/a?plc=bern", "none"}, Row{"?plc=" + too_long, "none"}}) {
        EXPECT_EQ(id(url), expected) << url;
    }
}

TEST_F(Services, KeysLiveAsLongAsTheyAreInUse) {
    const char text[] = "a\0b";
    void *own = ivs_key_ref(text, 3);
    ASSERT_NE(own, nullptr);
    EXPECT_NE(own, text);
    EXPECT_EQ(memcmp(own, text, 3), 0);
    EXPECT_EQ(ivs_key_ref(text, 3), own);
    EXPECT_NE(ivs_key_ref(text, 1), own);
    ivs_key_unref(text, 3);
    EXPECT_EQ(paaFindKey(ivs_key_table, text, 3), own);
    ivs_key_unref(text, 3);
    EXPECT_EQ(paaFindKey(ivs_key_table, text, 3), nullptr);
    ivs_key_unref(text, 3);
    ivs_key_unref(nullptr, 3);
    ivs_key_unref(text, 0);
    EXPECT_EQ(ivs_key_table->count, 1U);
    EXPECT_EQ(ivs_key_ref(text, 0), nullptr);
    ivs_key_unref(text, 1);
}

TEST_F(Services, WordsEndAtWhiteSpace) {
    struct Row {
        std::string text;
        int word, rest;  // where the rest begins; -1 for none
    };
    for (const Row &row : {Row{"one two three", 3, 4}, Row{"one \t\n two", 3, 7}, Row{"one", 3, -1},
                           Row{"one  ", 3, -1}, Row{" two", 0, 1}, Row{"", 0, -1}}) {
        int rest_length = -1;
        const char *rest = "";
        EXPECT_EQ(ivs_split_word(static_cast<int>(row.text.size()), row.text.data(), &rest_length, &rest), row.word);
        EXPECT_EQ(rest, row.rest < 0 ? nullptr : row.text.data() + row.rest) << row.text;
        EXPECT_EQ(rest_length, row.rest < 0 ? 0 : static_cast<int>(row.text.size()) - row.rest);
        EXPECT_EQ(ivs_split_word(static_cast<int>(row.text.size()), row.text.data(), nullptr, nullptr), row.word);
    }
    EXPECT_EQ(ivs_split_word(2, "one two", nullptr, nullptr), 2) << "the length counts, not the text's end";
}

}  // namespace
