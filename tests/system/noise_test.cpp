/* Noise: what anybody can send, and what an envelope under a wrong key turns into. Afterwards the real server still
 * serves, and each line of its log is one that it wrote itself.
 *
 * VELMORA_TEST_SEED repeats a run, VELMORA_TEST_PACKETS makes it longer. */
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <regex>
#include <sstream>

#include "tests/support/accesskey.h"
#include "tests/support/bytes.h"
#include "tests/support/clock.h"
#include "tests/support/serverprocess.h"

namespace {

const AccessKey server_key("abcdefghijklmnopponmlkjihgfedcba");
const AccessKey peer_key("bdfhjlnpbdfhjlnpbdfhjlnpbdfhjlnp");
constexpr char FORGED[] = "x\nL19990101000000 forged\nE19990101000000.000000 PID 1:\nETEXT=forged\r\x1b[2J\x7f";

std::string packet(int type, const std::string &rest = "") { return std::string(1, static_cast<char>(type)) + rest; }

/** Good datagrams of each kind; some bring along what would be lines of the log. */
Strings good_packets() {
    const Strings requests[] = {{"DB", "A", "USERS", "ID", "anna", "VISITS", "1"},
                                {"DB", "D", "USERS", "ID", "bert"},
                                {"DB", "G", "USERS", "ID", "anna", "NAME", "VISITS"},
                                {"DB", "G", FORGED, FORGED, "anna", FORGED},
                                {"DB", "I", "USERS", "ID", "bert", "NAME", "\1Bert%20B%2e\1"},
                                {"DB", "L", "USERS", "ID", "", "10", "+", "*", "NAME", FORGED},
                                {"DB", "U", "USERS", "ID", "anna", "NAME", FORGED},
                                {"DB", FORGED, "USERS", "ID"},
                                {FORGED},
                                {}};
    Strings packets;
    uint32_t sequence = 1;
    for (const int function : {1, 4}) {
        for (const Strings &request : requests) packets.push_back(request_datagram(sequence++, request, function));
    }
    const std::string session("\x80\0\0\1\0\1", 6), answer = request_datagram(1, {"0", "Anna"}, 2);
    const std::string login = session + packet(sizeof FORGED, FORGED) + packet(0) + packet(sizeof FORGED, FORGED);
    for (const int type : {151, 152, 153, 11, 18, 55, 57}) packets.push_back(packet(type, session + FORGED));
    for (const int type : {19, 156}) packets.push_back(packet(type, login));
    for (const int type : {1, 4, 6, 16, 23, 51, 56, 132, 133, 200}) {
        packets.push_back(packet(type, session + session + std::string(40, '\7')));
    }
    packets.push_back(packet(62, answer.substr(1)));
    packets.push_back(packet(9, "\1" + answer));
    packets.push_back(packet(13, std::string("\0\1\0", 3) + answer));
    packets.push_back(packet(14, std::string("\0\1", 2)));
    return packets;
}

std::string mutated(Seeded &random, std::string datagram) {
    switch (random.below(4)) {
        case 0:
            for (size_t flips = 1 + random.below(8); flips > 0 && !datagram.empty(); --flips) {
                char &byte = datagram[random.below(datagram.size())];
                byte = static_cast<char>(byte ^ 1 << random.below(8));
            }
            return datagram;
        case 1:
            return datagram.substr(0, random.below(datagram.size() + 1));
        case 2: {
            const std::string piece = datagram.substr(random.below(datagram.size() + 1), 1 + random.below(200));
            for (size_t times = 1 + random.below(8); times > 0; --times) datagram += piece;
            return datagram;
        }
        default:
            return datagram;  // a repeat
    }
}

std::string wrapped(Seeded &random, const std::string &datagram) {
    switch (random.below(4)) {
        case 0:
            return server_key.shown(datagram);
        case 1:
            return datagram.empty() ? datagram : server_key.sealed(datagram);
        case 2:
            return server_key.sealed(server_key.shown(datagram));
        default:
            return datagram;
    }
}

/** Now and then a long one, or one whose last block is cut. */
std::string random_envelope(Seeded &random) {
    const size_t blocks = random.below(random.below(50) == 0 ? 500 : 12);
    const Bytes bytes = random.bytes(32 + 16 * blocks + (random.below(20) == 0 ? random.below(16) : 0));
    return packet(165, std::string(bytes.begin(), bytes.end()));
}

/** Mutated in front of its envelope or behind it. */
std::string mutated_datagram(Seeded &random, const Strings &good) {
    const std::string &base = random.one_of(good);
    return random.below(2) == 0 ? mutated(random, wrapped(random, base)) : wrapped(random, mutated(random, base));
}

class Noise : public testing::Test {
protected:
    const unsigned packets = from_environment("VELMORA_TEST_PACKETS", 10000);
    Seeded random;
    const time_t begin = clock_seconds();
    ServerProcess server{
        {.options = {"-TRACE", "-PACKETDIAG", "-ipallow", "127.*"},
         .keys = "127.0.0.1 encrypt " + server_key.text() + "\n127.0.0.2 encrypt " + peer_key.text() + "\n"}};
    TestClient keyed{server.port(), "127.0.0.1", "127.0.0.2"};
    TestClient keyless{server.port(), "127.0.0.1", "127.0.0.3"};

    void SetUp() override {
        server.sql(
            "CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, NAME VARCHAR2(200), VISITS VARCHAR2(8));"
            "INSERT INTO USERS VALUES ('anna', 'Anna', '0000000f');"
            "CREATE TABLE QUIET (ID VARCHAR2(20) PRIMARY KEY, NAME VARCHAR2(20)); INSERT INTO QUIET VALUES ('1', "
            "'kept')");
    }

    /** Sends all, in portions that no socket buffer loses, and goes on when the server has served a portion. */
    void flood(const std::function<std::string()> &next) {
        constexpr unsigned PORTION = 50;
        for (unsigned sent = 0; sent < packets && !HasFatalFailure(); ++sent) {
            (random.below(2) == 0 ? keyed : keyless).send(next());
            if (sent % PORTION == 0 || sent + 1 == packets) wait_until_served(sent);
        }
    }
    void wait_until_served(unsigned number) {
        ASSERT_TRUE(keyed.is_served() && keyless.is_served()) << "the server is silent after packet " << number;
    }
    void expect_good_service() {
        TestClient fresh(server.port(), "127.0.0.1", "127.0.0.2");
        const std::string request = request_datagram(7, {"DB", "G", "QUIET", "ID", "1", "NAME"});
        EXPECT_EQ(peer_key.opened(fresh.answer(server_key.sealed(request))), request_datagram(7, {"0", "kept"}, 2));
    }

    void expect_own_lines_only();
};

std::string stamp_of(time_t when) {
    tm local{};
    localtime_r(&when, &local);
    char text[16];
    strftime(text, sizeof text, "%Y%m%d%H%M%S", &local);
    return text;
}

/** A line begins as a printer begins it, with a time that it can be; behind the first line of an error stands its text,
 *  and there the error mail may say why it doesn't go out; behind a trace line there may be empty ones. */
void Noise::expect_own_lines_only() {
    const std::regex head(R"((L|E|T|TR |TS )(\d{14})( |\.\d{6} (PID \d+[: ])?).*)");
    const std::string first = stamp_of(begin), last = stamp_of(clock_seconds());
    std::istringstream written(server.log());
    std::string before;  // kind of the line before
    unsigned traced = 0, wrong = 0;
    for (std::string line; std::getline(written, line) && wrong < 10;) {
        std::smatch parts;
        const std::string start = line.substr(0, 60);  // the pattern needs no more, and long lines take it long
        std::string kind;
        if (before == "E") {
            if (line.starts_with("ETEXT=")) kind = "ETEXT";
        } else if (line.empty() && before.starts_with("T")) {
            kind = before;
        } else if (before == "ETEXT" && line.starts_with("Process_mailout: ")) {
            kind = "MAIL";
        } else if (std::regex_match(start, parts, head) && parts[2] >= first && parts[2] <= last) {
            kind = parts[1];
        }
        if (std::any_of(line.begin(), line.end(), [](unsigned char each) { return iscntrl(each); })) kind = "";
        EXPECT_NE(kind, "") << testing::PrintToString(line);
        wrong += kind.empty();
        traced += !line.empty() && kind == "TR ";
        before = kind;
    }
    EXPECT_GE(traced, packets) << "some got lost on the way: the portions are too large";
}

TEST_F(Noise, FromRandomEnvelopes) {
    flood([&] { return random_envelope(random); });
    expect_good_service();
    expect_own_lines_only();
}

TEST_F(Noise, FromMutatedDatagrams) {
    const Strings good = good_packets();
    flood([&] { return mutated_datagram(random, good); });
    expect_good_service();
    expect_own_lines_only();
}

}  // namespace
