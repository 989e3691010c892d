/* Requests and replies as a client sees them, byte by byte, over the real server. The hook behind it is the gateway;
 * what it answers matters here only as something to be repeated or to be too long. */
#include <gtest/gtest.h>

#include "process/linelimit.h"
#include "tests/support/serverprocess.h"

namespace {

/** A type byte and what lies behind it. */
std::string packet(int type, const std::string &rest = "") { return std::string(1, static_cast<char>(type)) + rest; }

class Requests : public testing::Test {
protected:
    ServerProcess server;
    TestClient anna{server.port()};
    const Strings one_visit{"DB", "A", "USERS", "ID", "anna", "VISITS", "1"};

    void SetUp() override {
        server.sql(
            "CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, VISITS VARCHAR2(8), NOTE VARCHAR2(20));"
            "INSERT INTO USERS VALUES ('anna', '0000000f', NULL)");
    }
    std::string visits() const { return server.value("SELECT VISITS FROM USERS"); }
};

TEST_F(Requests, AnswersARepeatedRequestFromTheSavedReply) {
    const Reply first = anna.ask(7, one_visit);
    EXPECT_EQ(first.strings, (Strings{"0", "00000010"}));
    EXPECT_EQ(first.datagram, request_datagram(7, {"0", "00000010"}, 2));

    server.sql("UPDATE USERS SET VISITS = '000000aa'");
    EXPECT_EQ(anna.ask(7, one_visit).datagram, first.datagram) << "the saved reply counts, not the table";
    EXPECT_EQ(visits(), "000000aa") << "the counter moved twice";
    EXPECT_EQ(anna.ask(8, one_visit).strings, (Strings{"0", "000000ab"}));
    EXPECT_EQ(anna.ask(7, one_visit).strings, (Strings{"0", "000000ac"})) << "only the last reply is kept";
}

TEST_F(Requests, KeepsASessionForEachPortAndEachAsynchronousRequest) {
    TestClient bert{server.port()};
    const struct {
        TestClient &client;
        uint32_t sequence;
        int function, type;
        const char *visits;
    } rows[] = {{anna, 7, 1, 61, "00000010"},
                {bert, 7, 1, 61, "00000011"},
                {anna, 7, 4, 62, "00000012"},
                {anna, 8, 4, 62, "00000013"}};
    for (const char *round : {"new", "repeated: all stand side by side"}) {
        for (const auto &row : rows) {
            const Reply reply = row.client.ask(row.sequence, one_visit, row.function);
            EXPECT_EQ(reply.strings, (Strings{"0", row.visits})) << round;
            EXPECT_EQ(reply.type(), row.type);
            EXPECT_EQ(reply.function(), 2);
        }
    }
    const Reply refused = anna.ask(9, {"what"}, 4);
    EXPECT_TRUE(refused.refused());
    EXPECT_EQ(refused.type(), 62);
}

TEST_F(Requests, DropsOtherFunctionBytesWithoutALine) {
    const LogWatch log = server.watch();
    for (const int function : {0, 2, 3, 5, 255}) {
        EXPECT_TRUE(anna.stays_silent(request_datagram(1, one_visit, function))) << function;
    }
    EXPECT_EQ(visits(), "0000000f");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Requests, RefusesWhatGetsNoResult) {
    for (const Strings &strings :
         {Strings{}, {"x"}, {"DB"}, {"db", "G", "USERS", "ID", "anna", "VISITS"}, {"", "DB"}}) {
        const Reply reply = anna.ask(1, strings);
        EXPECT_TRUE(reply.refused()) << testing::PrintToString(strings) << testing::PrintToString(reply.strings);
        EXPECT_EQ(reply.type(), 61);
        anna.ask(2, one_visit);  // another sequence: the next round is no replay
    }
    EXPECT_EQ(anna.answer(packet(61, "\1")), request_datagram(0, {}, 3)) << "missing header fields read as zero";
}

TEST_F(Requests, AnswersAPingWithTheSameBytes) {
    for (const std::string &body : {std::string(), std::string("\0\1payload", 9), std::string(30000, 'p')}) {
        EXPECT_EQ(anna.answer(packet(151, body)), packet(152, body));
    }
    EXPECT_TRUE(anna.stays_silent(packet(152, "pong")));
    EXPECT_TRUE(anna.stays_silent(packet(153, "ignored")));
}

TEST_F(Requests, RefusesUnknownTypesWithACopy) {
    const LogWatch log = server.watch();
    const std::string prefix = packet(164, std::string(16, 'k'));
    const std::string unknown[] = {
        packet(63, "hc"), packet(0, "zero"), packet(255), packet(200, std::string(2000, 'x')), prefix, packet(164)};
    for (const std::string &datagram : unknown) {
        EXPECT_EQ(anna.answer(datagram), "\x09\x01" + datagram.substr(0, 548));
    }
    EXPECT_EQ(anna.answer(""), "\x09\x01") << "no bytes: nothing to copy";
    EXPECT_TRUE(anna.stays_silent("\x09\x05\x07"));

    EXPECT_EQ(log.count("ra_reply: Illegal packet from 127.0.0.1:"), 6);
    EXPECT_EQ(log.count(", code 63\n") + log.count(", code 255\n") + log.count(", code 164\n"), 4);
    EXPECT_EQ(log.count("ra_reply: Packet of lenth 0 from 127.0.0.1:"), 1);
    EXPECT_EQ(log.count(" Reason 5 Code 7\n"), 1);
    server.wait_idle();
    server.signal(SIGUSR1);
    EXPECT_TRUE(log.wait_for(" Unknown             6\n"));
    EXPECT_TRUE(log.saw(" Length 0 packets    1\n"));
}

TEST(RequestsOfStrangers, GetALineAndNoReply) {
    const ServerProcess server;
    TestClient foreign{server.port(), "127.0.0.1", "127.0.0.2"};
    const LogWatch log = server.watch();
    EXPECT_TRUE(foreign.stays_silent(request_datagram(1, {"DB", "G", "T", "ID", "1", "A"})));
    EXPECT_EQ(log.count("IP.LOG: Request from IP address \"127.0.0.2\" not allowed by configuration.\n"), 1);
    EXPECT_EQ(log.count("\n"), 1) << log.text();
}

TEST(RequestsOfStrangers, HardenedGetNoAnswerOfAnyKind) {
    const ServerProcess server{{.options = {"-HARDEN"}}};
    TestClient foreign{server.port(), "127.0.0.1", "127.0.0.2"}, friendly{server.port()};
    const LogWatch log = server.watch();
    for (const std::string &datagram : {packet(151), packet(63), std::string(), packet(13, "\1\2\3"), packet(132),
                                        packet(13, "\1\2\3" + packet(151))}) {
        foreign.send(datagram);
        EXPECT_FALSE(friendly.stays_silent(datagram)) << testing::PrintToString(datagram);
    }
    EXPECT_TRUE(friendly.is_served());
    EXPECT_FALSE(foreign.receive(std::chrono::milliseconds(0)));
    while (!log.saw(" more lines held back: Request from IP address not allowed\n")) {
        for (int count = 0; count < 100; ++count) foreign.send(packet(151));
        ASSERT_TRUE(friendly.is_served());
    }
    EXPECT_GE(log.count(" not allowed by configuration.\n"), LineLimit::LINES_A_SECOND);
}

}  // namespace
