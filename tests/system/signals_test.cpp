/* Signals to a real server in its daemon form: while requests pour in, and while it is blocked in the database. Every
 * request is answered, and every line stands whole in exactly one place.
 *
 * VELMORA_STORM_SECONDS makes the storm longer. */
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/child.h"
#include "tests/support/serverprocess.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr int HARMLESS[] = {SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGCHLD};
const std::string NUMBERED = "no such table: missing_";

class SignalledServer : public testing::Test {
protected:
    ServerProcess server{{.options = {"-TRACE"}, .daemon = true}};

    /** Asks for what is not there, which the server says in a line of its own; whether the answer is the right one. */
    static bool ask(TestClient &client, int number) {
        return client.try_ask({"DB", "G", "missing_" + std::to_string(number), "ID", "a", "NAME"}) == Strings{"1002"};
    }
    void expect_whole_lines_once(int requests) const;
};

/** A line with # for each number in it: there are few shapes of lines, and many lines. */
std::string shape_of(const std::string &line) {
    std::string shape;
    for (const char each : line) {
        const char shown = each >= '0' && each <= '9' ? '#' : each;
        if (shown != '#' || !shape.ends_with('#')) shape += shown;
    }
    return shape;
}

bool is_whole(const std::string &line) {
    static const std::regex known(
        R"(L\d{14} .*|T\d{14}\.\d{6} PID \d+: .*|T[RS] \d{14}\.\d{6} 127\.0\.0\.1:\d+ +\d+ (RAUP|PING|PONG) .*|)"
        R"(E\d{14}\.\d{6} PID \d+:|ETEXT=.*|Process_mailout: .*|\[cleanup\] .*|)"
        R"(|RA server (status at|shutdown status).*|(STARTED |FILE    |VERSION |COMPILED)= .*|[\w -]+(:| \d+|: +\d+))");
    static const std::regex another_begins(R"(.(L|E|T|T[RS] )\d{14})");
    return std::regex_match(line, known) && !std::regex_search(line, another_begins);
}

void SignalledServer::expect_whole_lines_once(int requests) const {
    std::set<std::string> shapes, numbers;
    for (const auto &entry : fs::directory_iterator(server.root().path("log"))) {
        std::istringstream text(server.root().log(entry.path().filename()));
        for (std::string line; std::getline(text, line);) {
            const bool is_new = shapes.insert(shape_of(line)).second;
            EXPECT_TRUE(!is_new || is_whole(line)) << "torn: " << line;
            const size_t at = line.find(NUMBERED);
            if (at == std::string::npos) continue;
            EXPECT_TRUE(numbers.insert(line.substr(at)).second) << "twice: " << line;
        }
    }
    EXPECT_EQ(static_cast<int>(numbers.size()), requests);
}

TEST_F(SignalledServer, AnswersAllInAStormAndKeepsItsLog) {
    const char *asked = getenv("VELMORA_STORM_SECONDS");
    const std::chrono::seconds duration(asked != nullptr ? atoi(asked) : 2);
    Child storm([&](Child &) {
        for (size_t i = 0;; i++, usleep(200)) server.signal(HARMLESS[i % std::size(HARMLESS)]);
        return 0;
    });
    TestClient client(server.port());
    int number = 0;
    for (const auto end = std::chrono::steady_clock::now() + duration; std::chrono::steady_clock::now() < end;) {
        ASSERT_TRUE(ask(client, ++number)) << number;
    }
    storm.signal(SIGKILL);
    storm.exit_code();

    const LogWatch log = server.watch();
    server.wait_idle();
    server.signal(SIGUSR1);
    EXPECT_TRUE(log.wait_for("Max SRDPDataPackets pending:"));
    EXPECT_EQ(server.stop(), 0);
    expect_whole_lines_once(number);
    for (const char *told : {"Received a SIGHUP. Closing log!\n", "Received SIGPIPE\n", "Tracing turned on!\n",
                             "STARTED new log, trace is on.\n", "\nRA server status at "}) {
        EXPECT_NE(server.log().find(told), std::string::npos) << "the test shows nothing without " << told;
    }
}

TEST_F(SignalledServer, ServesThemWhileItIsBlockedInTheDatabase) {
    server.sql("CREATE TABLE T (ID VARCHAR2(10) PRIMARY KEY, NAME VARCHAR2(10)); INSERT INTO T VALUES ('a', 'old')");
    TestClient client(server.port());
    ASSERT_EQ(client.ask({"DB", "G", "T", "ID", "a", "NAME"}), (Strings{"0", "old"}));

    sqlite3 *holder = nullptr;
    sqlite3_open(server.database_file().c_str(), &holder);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    const LogWatch log = server.watch();
    client.send(request_datagram(7, {"DB", "U", "T", "ID", "a", "NAME", "new"}));
    ASSERT_TRUE(log.wait_for(" RACODE 1 ")) << "the request has come";
    for (int round = 0; round < 100; round++) {  // more than the sleeps of which a wait for a lock consists
        for (const int number : HARMLESS) server.signal(number);
        usleep(1000);
    }
    EXPECT_TRUE(log.wait_for("Received SIGPIPE\n"));
    EXPECT_TRUE(log.wait_for("Caught signal USR1\n"));
    EXPECT_TRUE(log.wait_for("STARTED new log, running since "));
    EXPECT_FALSE(client.receive(0ms).has_value()) << "it isn't blocked";
    ASSERT_EQ(sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(holder);

    const auto reply = client.receive();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply_strings(*reply), Strings{"0"}) << "signals don't shorten the wait for a lock";
    server.wait_idle();
    server.signal(SIGUSR1);  // those that came with the request went with it
    EXPECT_TRUE(log.wait_for("RA server status at "));
    EXPECT_EQ(server.value("SELECT NAME FROM T"), "new");
    EXPECT_EQ(server.stop(), 0);
    expect_whole_lines_once(0);
}

}  // namespace
