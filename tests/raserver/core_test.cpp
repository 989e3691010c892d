/* The server core without a program around it: hooks, sessions and time as the test gives them. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <climits>
#include <cstring>
#include <functional>
#include <map>

#include "process/velproc.h"
#include "raserver/raserveri.h"
#include "tests/support/addresses.h"
#include "tests/support/bytes.h"
#include "tests/support/captured.h"
#include "tests/support/testclient.h"

namespace {

constexpr char ANY_PEER[] = "127.0.0.1";

std::function<void(RA_SESSION_S *, int, char **)> hook;  // what the running test wants a request to do
void call_hook(RA_SESSION_S *session, int argc, char **argv) { hook(session, argc, argv); }

int periodic_calls;
void count_periodic(struct timeval *) { ++periodic_calls; }

/** The server record with one socket of ours; the peer's socket takes what is sent to any 127.x.x.x. */
class Core : public testing::Test {
protected:
    time_t start = next_epoch += 100000;  // each test lives in days of its own: the sweep remembers its last run
    int calls = 0;
    int peer = packet_clt_socket();
    const RA_LIMITS_S limits = ra_limits;

    void SetUp() override {
        process_context.running = 1;
        process_context.silent = 1;
        process_context.noAccessKeyCheck = 1;
        ra_server = RA_SERVER_S{};
        ra_server.isServer = 1;
        ra_server.periodicInterval.tv_sec = 60;
        ra_server.tcpSocket = -1;
        ra_server.udpSocket = packet_srv_bound_socket(htonl(INADDR_LOOPBACK), 0);
        ra_server.port = port_of(ra_server.udpSocket);
        ra_server.localIp = htonl(INADDR_LOOPBACK);
        ra_server.onUdpRequest = call_hook;
        hook = [this](RA_SESSION_S *session, int, char **) {
            ++calls;
            raSetResult(session, "done");
        };
        tick(0);
    }

    void TearDown() override {
        while (ra_server.sessions.head != nullptr) raserver_session_delete(&ra_server, ra_server.sessions.head);
        EXPECT_EQ(ra_server.sessionCount, 0u);
        EXPECT_EQ(ra_server.savedReplyBytes, 0u);
        EXPECT_EQ(ra_server.idleSessions.head, nullptr);
        paaDestroy(ra_server.sessionTable);
        close(ra_server.udpSocket);
        close(peer);
        ra_limits = limits;
    }

    void tick(time_t seconds) {
        timeval now{start + seconds, 0};
        raserver_periodic(&ra_server, &now);
    }

    /** Hands a datagram to the core as the run loop would; gives what came back to the peer. */
    std::string deliver(time_t seconds, std::string datagram, const char *from = ANY_PEER) {
        return deliver_from(address_of(from, port_of(peer)), seconds, std::move(datagram));
    }

    std::string deliver_from(PacketAddress from, time_t seconds, std::string datagram) {
        const int length = static_cast<int>(datagram.size());
        datagram.append(65, '\0');
        timeval now{start + seconds, 0};
        ra_reply(&ra_server, &now, reinterpret_cast<unsigned char *>(datagram.data()), length, &from, sizeof from);
        std::string reply(65536, '\0');
        const ssize_t got = recv(peer, reply.data(), reply.size(), MSG_DONTWAIT);
        reply.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return reply;
    }

    bool has_session(const char *ip) {
        const PacketAddress address = address_of(ip, port_of(peer));
        return raserver_session_find(&ra_server, 0, address.sin_addr.s_addr, address.sin_port) != nullptr;
    }

private:
    static inline time_t next_epoch = 1000000000;
};

// ---- Sessions and time --------------------------------------------------------------------------------------------

TEST_F(Core, StepOfTheWallClockMovesSessionsAndTheirSweepAndTheHook) {
    ra_server.onPeriodic = count_periodic;
    for (const time_t step : {60, -60, 7200}) {
        deliver(10, request_datagram(1, {"a"}));
        tick(20);
        periodic_calls = calls = 0;
        ra_clock_was_set(&ra_server, step);
        start += step;  // the same moment, as the new clock shows it
        for (time_t second = 21; second < 60; second++) tick(second);
        EXPECT_EQ(periodic_calls, 0) << step;
        deliver(59, request_datagram(1, {"a"}));
        EXPECT_EQ(calls, 0) << "the reply is still there";
        tick(61);
        EXPECT_EQ(periodic_calls, 1) << step;
        EXPECT_EQ(ra_server.sessionCount, 1u) << step;
        tick(122);
        EXPECT_EQ(ra_server.sessionCount, 0u) << step;
        start += 122;
    }
}

TEST_F(Core, SweepsASessionAfterSixtyIdleSeconds) {
    deliver(0, request_datagram(1, {"a"}), "127.0.0.2");
    deliver(1, request_datagram(1, {"a"}), "127.0.0.3");
    deliver(0, request_datagram(1, {"a"}), "127.0.0.4");
    deliver(30, request_datagram(1, {"a"}), "127.0.0.4");  // a replay is a use
    EXPECT_EQ(calls, 3);
    tick(59);
    EXPECT_EQ(ra_server.sessionCount, 3u);
    tick(60);
    EXPECT_FALSE(has_session("127.0.0.2")) << "idle for 60 s";
    EXPECT_TRUE(has_session("127.0.0.3")) << "idle for 59 s";
    EXPECT_TRUE(has_session("127.0.0.4"));
    tick(119);
    EXPECT_EQ(ra_server.sessionCount, 2u) << "the sweep runs once a minute only";
    deliver(119, request_datagram(1, {"a"}), "127.0.0.3");
    EXPECT_EQ(calls, 3) << "until it is swept, the reply is still there";
    tick(120);
    EXPECT_TRUE(has_session("127.0.0.3"));
    EXPECT_FALSE(has_session("127.0.0.4"));
    deliver(121, request_datagram(1, {"a"}), "127.0.0.4");
    EXPECT_EQ(calls, 4) << "served anew";
    EXPECT_EQ(ra_server.sessionTotal, 4u);
}

TEST_F(Core, DropsTheLongestIdleSessionWhenThereAreTooMany) {
    ra_limits.sessions = 3;
    for (const char *ip : {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.2"})
        deliver(1, request_datagram(1, {}), ip);
    EXPECT_EQ(calls, 3);
    deliver(2, request_datagram(1, {}), "127.0.0.5");
    EXPECT_EQ(ra_server.sessionCount, 3u);
    EXPECT_FALSE(has_session("127.0.0.3")) << "127.0.0.2 was used after it";
    EXPECT_TRUE(has_session("127.0.0.2"));
}

TEST_F(Core, BoundsTheMemoryOfSavedReplies) {
    ra_limits.savedReplyBytes = 10000;
    hook = [this](RA_SESSION_S *session, int, char **) {
        ++calls;
        raSetResult(session, std::string(3000, 'r').c_str());
    };
    for (uint32_t id = 1; id <= 20; ++id) {
        deliver(1, request_datagram(id, {}, 4));
        EXPECT_LE(ra_server.savedReplyBytes, 10000u);
    }
    EXPECT_EQ(ra_server.sessionCount, 3u);
    EXPECT_EQ(deliver(1, request_datagram(18, {}, 4)).size(), 7u + 3001u);
    EXPECT_EQ(calls, 20) << "the last ones are still there";
    ra_limits.savedReplyBytes = 100;
    deliver(2, request_datagram(21, {}, 4));
    deliver(2, request_datagram(21, {}, 4));
    EXPECT_EQ(calls, 21) << "the one just served stays, even if it is too large alone";
}

TEST_F(Core, HardenedRemembersEightRequestsOfAPeer) {
    process_context.hardened = 1;
    const auto served = [this](uint32_t sequence, const char *text) {
        const int before = calls;
        deliver(1, request_datagram(sequence, {text}));
        return calls > before;
    };
    for (uint32_t sequence = 1; sequence <= 9; ++sequence) EXPECT_TRUE(served(sequence, "a"));
    for (uint32_t sequence = 9; sequence > 1; --sequence) EXPECT_FALSE(served(sequence, "a")) << sequence;
    EXPECT_TRUE(served(9, "b")) << "the same number, another content";
    EXPECT_FALSE(served(9, "a"));
    EXPECT_FALSE(served(9, "b"));
    EXPECT_TRUE(served(2, "a")) << "eight are remembered";
    EXPECT_EQ(ra_server.sessionCount, 1u);
    EXPECT_EQ(ra_server.udpReplays, 10u);
    process_context.hardened = 0;
    EXPECT_FALSE(served(2, "b")) << "by the number alone";
}

TEST_F(Core, ReportsDroppedSessionsOnceAMinute) {
    ra_limits.sessions = 2;
    process_context.silent = 0;
    const auto lines_of_flood = [this](time_t seconds) {
        const std::string text = told([&] {
            for (uint32_t id = 0; id < 50; ++id) deliver(seconds, request_datagram(id + 100 * seconds, {}, 4));
        });
        return std::count(text.begin(), text.end(), '\n');
    };
    EXPECT_EQ(lines_of_flood(1), 1);
    EXPECT_EQ(lines_of_flood(30), 0);
    EXPECT_EQ(lines_of_flood(61), 1);
}

TEST_F(Core, CallsThePeriodicHookAtItsInterval) {
    ra_server.onPeriodic = count_periodic;
    ra_server.nextPeriodic = timeval{};
    periodic_calls = 0;
    tick(100);
    EXPECT_EQ(periodic_calls, 1) << "due at the first tick";
    tick(159);
    EXPECT_EQ(periodic_calls, 1);
    tick(161);
    EXPECT_EQ(periodic_calls, 2);
    raSetPeriodicInterval(5, 500000);
    tick(222);
    tick(227);
    EXPECT_EQ(periodic_calls, 3) << "5.5 s are not over";
    tick(228);
    EXPECT_EQ(periodic_calls, 4);
}

/** What a status print writes. */
std::string status_text(timeval *now) {
    return printed([now](FILE *stream) { raserver_status(&ra_server, now, stream); });
}

TEST_F(Core, PrintsTheStatusOnceForEachWish) {
    timeval now{start, 0};
    EXPECT_EQ(status_text(&now), "") << "nobody asked";
    ra_server.statusWanted = 1;
    EXPECT_EQ(status_text(&now).rfind("\nRA server status at ", 0), 0u);
    EXPECT_EQ(status_text(&now), "");
    ra_server.statusWanted = 1;
    EXPECT_EQ(status_text(nullptr).rfind("\nRA server shutdown status\nSTARTED = ", 0), 0u);
    ra_server.isServer = 0;
    ra_server.statusWanted = 1;
    EXPECT_EQ(status_text(&now),
              "\nRemote Access Statistics\nTotal sessions ever: 0\nCurrent sessions:    0\nPackets received:\n"
              " Length 0 packets    0\n UDP requests        0\n UDP replays         0\n Unknown             0\n");
    ra_server.statusWanted = 1;
    deliver(1, "\x97");
    EXPECT_EQ(ra_server.statusWanted, 0) << "a wish that comes with a packet is dropped with it";
}

TEST_F(Core, GivesNoAnswerToItself) {
    const PacketAddress own = address_of(ANY_PEER, ra_server.port);
    for (const std::string &datagram :
         {std::string("\xc8x"), std::string(), std::string("\x97"), request_datagram(1, {"a"})}) {
        deliver_from(own, 1, datagram);
        pollfd waiting{ra_server.udpSocket, POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, 0), 0) << "it answered itself: type " << (datagram.empty() ? 0 : datagram[0]);
    }
    EXPECT_EQ(deliver_from(address_of(ANY_PEER, port_of(peer)), 1, "\xc8x"), "\x09\x01\xc8x");
}

// ---- Requests and their hook --------------------------------------------------------------------------------------

TEST_F(Core, HandsTheHookItsStrings) {
    Strings seen;
    hook = [&](RA_SESSION_S *session, int argc, char **argv) {
        seen.assign(argv, argv + argc);
        EXPECT_EQ(argv[argc], nullptr);
        EXPECT_EQ(raGetArg(session, argc), nullptr);
        EXPECT_EQ(raGetArg(session, -1), nullptr);
        EXPECT_EQ(raGetArg(session, INT_MAX), nullptr);
        EXPECT_STREQ(raGetArg(session, argc - 1), argc > 0 ? argv[argc - 1] : nullptr);
        EXPECT_EQ(raGetPeerIp(session), htonl(INADDR_LOOPBACK));
        EXPECT_EQ(ntohs(raGetPeerPort(session)), port_of(peer));
        EXPECT_EQ(raGetPort(), ra_server.port);
    };
    uint32_t sequence = 0;
    for (const size_t count : {0, 1, 3, 1499, 1500, 1501, 4000}) {
        Strings sent(count, "s");
        if (count > 1) sent[1].clear();
        deliver(1, request_datagram(++sequence, sent));
        sent.resize(std::min<size_t>(count, 1500));
        EXPECT_EQ(seen, sent) << count;
    }
    deliver(1, request_datagram(++sequence, {"", ""}) + "open end");
    EXPECT_EQ(seen, (Strings{"", "", "open end"}));
}

TEST_F(Core, BoundsResults) {
    hook = [](RA_SESSION_S *session, int, char **) {
        EXPECT_EQ(raSetResult(session, std::string(31990, 'a').c_str()), 31991);
        EXPECT_EQ(raSetResult(session, std::string(8, 'b').c_str()), -5) << "one byte too many";
        EXPECT_EQ(raSetResult(session, std::string(7, 'c').c_str()), 31999);
        EXPECT_EQ(raSetResult(session, ""), -5);
    };
    const std::string full = deliver(1, request_datagram(1, {}));
    EXPECT_EQ(reply_strings(full), (Strings{std::string(31990, 'a'), "ccccccc"}));
    EXPECT_EQ(full.size(), 7u + 31999u);

    hook = [](RA_SESSION_S *session, int, char **) {
        raSetResult(session, "first");
        EXPECT_EQ(raClearResult(session), 0);
        EXPECT_EQ(raSetResult(session, std::string(32000, 'x').c_str()), -5);
        EXPECT_EQ(raSetResult(session, "second"), 7);
    };
    EXPECT_EQ(reply_strings(deliver(1, request_datagram(2, {}))), (Strings{"second"}));
    RA_SESSION_S without_buffer{};
    EXPECT_EQ(raSetResult(&without_buffer, "x"), -5);
}

TEST(Split, EndsTheLastStringItself) {
    char text[] = "one\0\0twoXX";
    char *vector[RA_MAX_STRINGS + 1];
    ASSERT_EQ(ra_split_strings(text, 8, vector), 3);
    EXPECT_EQ(Strings(vector, vector + 3), (Strings{"one", "", "two"}));
    EXPECT_EQ(vector[3], nullptr);
    EXPECT_EQ(text[9], 'X') << "not one byte beyond";
    EXPECT_EQ(ra_split_strings(text, 0, vector), 0);
}

// ---- Escapes ------------------------------------------------------------------------------------------------------

TEST(EscapePair, ConvertsTheFirstByteOnly) {
    const std::map<std::string, std::string> pairs{
        {"a", "a"}, {std::string(1, '\0'), "\2\3"}, {"\1", "\2\4"}, {"\2", "\2\5"}, {"%", "%"}};
    for (const auto &[plain, escaped] : pairs) {
        EXPECT_EQ(raMem2Net((plain + "bc").data(), 3), escaped);
        int length = -1;
        const char *back = raNet2Mem((escaped + "rest").data(), &length);
        EXPECT_EQ(length, 1);
        EXPECT_EQ(std::string(back, 2), plain.substr(0, 1) + std::string(1, '\0'));
    }
    EXPECT_STREQ(raMem2Net("q", 0), "q") << "length 0 still reads the first byte";
    EXPECT_STREQ(raNet2Mem("\2", nullptr), "\2") << "a 2 with anything else behind it is a 2";
    EXPECT_STREQ(raNet2Mem(nullptr, nullptr), "");
}

/** orDecode on a text of its own; "(null)" for null. */
std::string decoded(std::string text) {
    char *result = orDecode(text.data());
    std::string copy = result != nullptr ? result : "(null)";
    if (result != text.data()) free(result);
    return copy;
}

TEST(FramedValue, IsUndone) {
    const std::map<std::string, std::string> cases{{"\1a%41\1", "aA"},       {"\1\1", ""},
                                                   {"\1", "(null)"},         {"", ""},
                                                   {"plain%41", "plain%41"}, {"\1half", "\1half"},
                                                   {"half\1", "half\1"},     {"\1%zz%4\1", "%zz%4"},
                                                   {"\1ab%00cd\1", "ab"},    {"\1%c3%A4\1", "\xc3\xa4"},
                                                   {"\1ab\1cd\1", "ab"},     {"\1%01%25\1", "\1%"},
                                                   {"\1%\1", "%"},           {"\1% 1\1", "% 1"},
                                                   {"\1%+1\1", "%+1"}};
    for (const auto &[framed, plain] : cases) EXPECT_EQ(decoded(framed), plain) << testing::PrintToString(framed);
    EXPECT_EQ(orDecode(nullptr), nullptr);
    EXPECT_EQ(orEncode(nullptr), nullptr);
}

TEST(FramedValue, CarriesAnyText) {
    Seeded random;
    for (int round = 0; round < 500; ++round) {
        std::string text(random() % 50, 'x');
        for (char &byte : text) byte = static_cast<char>(1 + random() % 255);
        char *framed = orEncode(text.c_str());
        for (const char *byte = framed + 1; byte[1] != 0; ++byte) {
            EXPECT_TRUE(isalnum(static_cast<unsigned char>(*byte)) || *byte == '%') << framed;
        }
        EXPECT_EQ(decoded(framed), text);
        free(framed);
    }
    char *framed = orEncode("a \xe4");
    EXPECT_STREQ(framed, "\1a%20%e4\1");
    free(framed);
}

}  // namespace
