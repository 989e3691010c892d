/* HTTP requests in pieces, and the connections that bring them: hooks, sockets and time as the test gives them. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <sstream>

#include "process/owned.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

#include "tests/support/addresses.h"
#include "tests/support/captured.h"

namespace {

/** A request that is fed by hand, without a socket. */
class Request {
public:
    Request() { connection.socket = -1; }
    ~Request() {
        free(connection.input);
        free(connection.url);
    }
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    /** Gives what the last of the bytes made of it; no byte is taken behind the one that decides. */
    int take(std::string_view bytes) {
        int result = RA_HTTP_MORE;
        while (!bytes.empty() && result == RA_HTTP_MORE) {
            const size_t count = std::min(bytes.size(), static_cast<size_t>(ra_http_room(&connection)));
            memcpy(connection.input + connection.inputLength, bytes.data(), count);
            bytes.remove_prefix(count);
            result = ra_http_received(&connection, static_cast<int>(count));
        }
        return result;
    }
    /** What raConnGetHeader, raConnGetBody or raConnGetUrl gives. */
    template <class Get>
    std::string part(Get get) {
        int length = 0;
        const auto *start = reinterpret_cast<const char *>(get(&connection, &length));
        return start == nullptr ? "" : std::string(start, static_cast<size_t>(length));
    }

    RA_CONN_S connection{};
};

class HttpRequest : public testing::Test {
protected:
    const PROCESS_S before = process_context;
    HttpRequest() {
        process_context.name = name_;
        process_context.silent = 0;
    }
    ~HttpRequest() override { process_context = before; }

private:
    char name_[5] = "test";
};

struct Row {
    std::string header, body, url;
};
const Row requests[] = {
    {"GET /a HTTP/1.0\r\nHost: x\r\n\r\n", "", "/a"},
    {"get\t /b?x=1&y\n\n", "", "/b?x=1&y"},
    {"GET /c\n \t\v\r\n", "", "/c"},
    {"GET/d\n\n", "", "/d"},
    {"POST /e HTTP/1.0\r\nContent-length: 5\r\n\r\n", "hello", "/e"},
    {"pOsT /f\nContent-length: 4\n\n", "\n\n\n\n", "/f"},
    {"POST /g\nContent-length: 2 and more\nContent-length: 9\n\r\n", std::string("\0\n", 2), "/g"},
};

TEST_F(HttpRequest, IsTheSameHoweverItIsCut) {
    for (const Row &row : requests) {
        const std::string all = row.header + row.body;
        for (size_t piece = 1; piece <= all.size(); piece++) {
            SCOPED_TRACE(all + " in pieces of " + std::to_string(piece));
            Request request;
            size_t at = 0;
            for (; at + piece < all.size(); at += piece) ASSERT_EQ(request.take({&all[at], piece}), RA_HTTP_MORE);
            ASSERT_EQ(request.take(std::string_view(all).substr(at)), RA_HTTP_COMPLETE);

            std::string header = request.part(raConnGetHeader);
            if (!row.body.empty()) {
                EXPECT_EQ(std::exchange(header.back(), '\n'), 0) << "there it ends as a text";
            }
            EXPECT_EQ(header, row.header);
            EXPECT_EQ(request.connection.input[request.connection.inputLength], 0);
            EXPECT_EQ(request.part(raConnGetBody), row.body);
            EXPECT_EQ(request.part(raConnGetUrl), row.url + '\0');
        }
    }
}

TEST_F(HttpRequest, IsRefusedWithItsLineOrWaitsForMore) {
    const std::string strange = "Strange HTTP request: ", bad = "Post method with bad header\n";
    const struct {
        std::string bytes, line;
    } refused[] = {
        {"PUT /x\r\nE20010101 forged\x1b[2J\x80\n", strange + "\"PUT /x..E20010101 forged.[2J..\"\n"},
        {std::string("\0\0\0\0", 4), strange + "\"....\"\n"},
        {"POST /x\r\nContent-Length: 5\r\nL2001 forged\r\n\r\nhello",
         bad + "POST /x..Content-Length: 5..L2001 forged...\n"},
        {"POST /x\nContent-length: 0\n\n", bad + "POST /x.Content-length: 0.\n"},
        {"POST /x\nContent-length: -1\n\n", bad + "POST /x.Content-length: -1.\n"},
        {"POST /x\n\nContent-length: 5\n\n", bad + "POST /x.\n"},
        {"GET\n\n", ""},
        {"GET \r\n\r\n", ""},
        {std::string("GET \0/x\n\n", 9), ""},
    };
    for (const auto &row : refused) {
        const std::string line = told([&] { EXPECT_EQ(Request().take(row.bytes), RA_HTTP_BAD) << row.bytes; });
        EXPECT_EQ(line, row.line.empty() ? "" : "test: raConnData: " + row.line);
    }
    for (const char *bytes : {"", "G", "pu", "POS", "GET", "GET /x\n", "GET /x\r\n\r", "GET /x\n\nmore\n", "GET\n",
                              "POST /x\n", "POST /x\nContent-length: 99999999999999999999\n\nhello"}) {
        EXPECT_EQ(Request().take(bytes), RA_HTTP_MORE) << bytes;
    }
}

TEST_F(HttpRequest, MayBeSoLargeAndNoLarger) {
    const std::string header = "POST /x\nContent-length: 262111\n\n";
    std::string body(262143 - header.size(), 'b');
    for (size_t at = 0; at < body.size(); at += 2621) body[at] = static_cast<char>(at);
    Request largest, larger;
    EXPECT_EQ(largest.take(header + body), RA_HTTP_COMPLETE);
    EXPECT_EQ(largest.part(raConnGetBody), body) << "it moves along when the buffer grows";
    EXPECT_EQ(largest.part(raConnGetHeader).substr(0, 7), "POST /x");
    EXPECT_EQ(told([&] { EXPECT_EQ(larger.take("POST /x\nContent-length: 262112\n\nx" + body), RA_HTTP_BAD); }),
              "test: raConnData: maximum request size exceeded, 262144 bytes\n");
}

// ---- Connections -----------------------------------------------------------------------------------------------------

std::function<void(RA_CONN_S *)> hook;  // what the running test wants a request to do
void call_hook(RA_CONN_S *connection) { hook(connection); }

class Connections : public HttpRequest {
protected:
    Connections() {
        process_context.silent = 1;
        ra_server = RA_SERVER_S{};
        ra_server.udpSocket = -1;
        ra_server.tcpSocket = packet_srv_listen_ip(htonl(INADDR_LOOPBACK), 0);
        ra_server.onHttpRequest = call_hook;
        packet_setNonBlocking(ra_server.tcpSocket, 1);
    }
    ~Connections() override {
        while (ra_server.connections.head != nullptr)
            raConnCloseConnection(&ra_server, ra_server.connections.head, 1);
        EXPECT_EQ(ra_server.connections.tail, nullptr);
        EXPECT_EQ(ra_server.connCount, 0);
        packet_closeSocket(ra_server.tcpSocket, 1);
    }

    /** One turn of the run loop. */
    static void turn() {
        fd_set readable, writable;
        timeval patience{0, 20000};
        const int highest = raConnSelectSet(&ra_server, &readable, &writable);
        int count = select(highest + 1, &readable, &writable, nullptr, &patience);
        if (count > 0 && raConnAccept(&ra_server, &readable) != 0) count--;
        if (count > 0) raConnData(count, &ra_server, &readable, &writable);
    }
    /** Turns until the condition holds; at most for some seconds. */
    static bool turn_until(const std::function<bool()> &holds) {
        for (int left = 1000; left > 0 && !holds(); left--) turn();
        return holds();
    }
    static OwnedFd connected() {
        const PacketAddress address = name_of(ra_server.tcpSocket);
        return OwnedFd(packet_clt_connect(0, &address));
    }
    static OwnedFd sent(const std::string &bytes) {
        OwnedFd client = connected();
        EXPECT_EQ(packet_sendTCP(client.get(), bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
        return client;
    }
};

TEST_F(Connections, AnswerWhatTheHookAppends) {
    std::string answer;
    hook = [&](RA_CONN_S *connection) {
        EXPECT_EQ(raConnGetIp(connection), htonl(INADDR_LOOPBACK));
        EXPECT_NE(raConnGetPort(connection), 0);
        EXPECT_EQ(raSetHttpResult(connection, "dropped"), 7);
        EXPECT_EQ(raClearHttpResult(connection), 0);
        EXPECT_EQ(raSetHttpResult(connection, ""), 0);
        for (int line = 0; line < 60000; line++) {
            const std::string text = "line " + std::to_string(line) + "\r\n";
            answer += text;
            ASSERT_EQ(raSetHttpResult(connection, text.c_str()), static_cast<int>(answer.size()));
        }
    };
    const OwnedFd client = sent("GET /x\n\n"), other = sent("GET");
    std::string got(2000000, 0);
    size_t length = 0;
    EXPECT_TRUE(turn_until([&] {
        const ssize_t count = recv(client.get(), &got[length], got.size() - length, MSG_DONTWAIT);
        length += static_cast<size_t>(std::max<ssize_t>(count, 0));
        return count == 0;
    })) << "an answer longer than the socket's buffers goes out bit by bit";
    got.resize(length);
    EXPECT_EQ(got, answer);
    EXPECT_EQ(ra_server.connCount, 1) << "the other one, which has not said what it wants";
}

TEST_F(Connections, EndWhenThePeerResetsInTheMiddleOfItsAnswer) {
    signal(SIGPIPE, SIG_IGN);
    const std::string much(1 << 23, 'x');
    hook = [&](RA_CONN_S *connection) { raSetHttpResult(connection, much.c_str()); };
    OwnedFd client = sent("GET /x\n\n");
    const RA_CONN_S *const &connection = ra_server.connections.head;
    EXPECT_TRUE(turn_until([&] { return connection != nullptr && connection->outputSent > 0; }));
    EXPECT_EQ(packet_sendTCP(client.get(), "more", 4), 4);
    for (int more = 0; more < 3; more++) turn();
    EXPECT_EQ(connection->inputLength, 8U) << "no more is read";
    client.reset();  // with bytes unread: a reset
    EXPECT_TRUE(turn_until([] { return ra_server.connCount == 0; }));
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(Connections, TakeARequestThatFillsTheBufferExactly) {
    bool served = false;
    hook = [&](RA_CONN_S *) { served = true; };
    const OwnedFd client = sent("POST /x\nContent-length: 40000\n\n" + std::string(40000, 'b'));
    EXPECT_TRUE(turn_until([&] { return served; })) << "nobody would read on";
}

TEST_F(Connections, AreAllClosedByTheSweep) {
    const OwnedFd silent = connected(), busy = sent("POST /x\nContent-length: 100\n\nhello");
    EXPECT_TRUE(turn_until([] { return ra_server.connCount == 2 && ra_server.connections.tail->inputLength > 0; }));
    timeval now{ra_server.now, 0};
    raserver_periodic(&ra_server, &now);
    EXPECT_EQ(ra_server.connCount, 0) << "however young";
}

TEST_F(Connections, AreCountedByTheSecond) {
    const time_t now = ra_server.now = 1000000000;
    ra_conn_count(now - 61, 1, 1);  // too old
    ra_conn_count(now - 60, 10, 20);
    ra_conn_count(now - 2, 100, 200);
    ra_conn_count(now - 1, 0x3fffffff, 0x40000000);
    ra_conn_count(now - 1, 5, 0);
    ra_conn_count(now, 1, 1);  // not over yet
    for (const auto &[seconds, expected] : {std::pair{1, "2 1:5 1:1"},
                                            {-1, "2 1:5 1:1"},
                                            {2, "3 1:105 1:201"},
                                            {60, "4 1:115 1:221"},
                                            {999, "4 1:115 1:221"}}) {
        const RA_CONN_STATS_S &sum = *raConnStats(seconds);
        std::ostringstream shown;
        shown << sum.connections << ' ' << sum.in.high << ':' << sum.in.low << ' ' << sum.out.high << ':'
              << sum.out.low;
        EXPECT_EQ(shown.str(), expected) << seconds;
    }
    ra_conn_count(now + 99, 0x3fffffff, 0);
    ra_server.now = now + 100;
    EXPECT_EQ(raConnStats(1)->in.low, 0x3fffffffU) << "the most that a low word holds";
    ra_server.now = now;
    process_context.silent = 0;
    EXPECT_EQ(told([] { raConnLogStats("RA"); }), "test: RA.CO last minute C 4 I 115 O 221\n");
}

}  // namespace
