/* The operator's tool against real servers: orders under the host's key, pings, readiness, and the list. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <regex>

#include "tests/support/child.h"
#include "tests/support/serverprocess.h"

namespace {

constexpr char key[] = "abcdefghijklmnopponmlkjihgfedcba", other_key[] = "cccccccccccccccccccccccccccccccc";

/** The tool's exit status and its first line, wherever that went; "*" for each number in it. */
std::string outcome(const Strings &words, const std::string &root = "") {
    const Strings command = root.empty() ? Strings{"ractl"} : Strings{"ractl", "-VELROOT", root};
    const ProgramEnd end = run_program(joined(command, words), {"VELROOT="});
    const std::string text = end.output + end.errors;
    return std::to_string(end.code) + " " +
           std::regex_replace(text.substr(0, text.find('\n')), std::regex("[0-9]+"), "*");
}

struct Server {
    const char *name;
    const char *mark;  // in front of the key
    Strings options;
};
void PrintTo(const Server &server, std::ostream *out) { *out << server.name; }
class Tool : public testing::TestWithParam<Server> {
protected:
    ServerProcess server{{.options = GetParam().options, .keys = std::string("127.0.0.1 ") + GetParam().mark + key}};
    const std::string port = std::to_string(server.port());
    const std::string path = server.root().path();

    std::string tool(const std::string &command) const {
        return outcome(joined(GetParam().options, {port, command, "--wait", "5"}), path);
    }
};
INSTANTIATE_TEST_SUITE_P(Keys, Tool,
                         testing::Values(Server{"Shown", "", {}}, Server{"Encrypting", "encrypt ", {}},
                                         Server{"Hardened", "encrypt ", {"-HARDEN"}}),
                         [](const auto &server) { return server.param.name; });

TEST_P(Tool, GivesOrdersUnderTheHostsKey) {
    EXPECT_EQ(tool("ready"), "0 the server at *.*.*.*:* serves requests");
    const LogWatch log = server.watch();
    EXPECT_EQ(tool("trace"), "0 the server at *.*.*.*:* has turned its trace on, or off if it was on");
    EXPECT_TRUE(log.saw(": Tracing turned on!\n"));
    EXPECT_FALSE(log.saw("turned off"));
    EXPECT_EQ(tool("trace").front(), '0');
    EXPECT_EQ(log.count(": Tracing turned off!\n"), 1);
    EXPECT_EQ(tool("reread"), "0 the server at *.*.*.*:* was told to read its settings again");
    EXPECT_EQ(tool("newlog"), "0 the server at *.*.*.*:* has opened its log file anew");
    EXPECT_TRUE(log.saw(" Received IVS_ADMIN_NEWLOG packet from 127.0.0.1:"));
    EXPECT_EQ(tool("stop"), "0 the server at *.*.*.*:* has stopped");
    EXPECT_EQ(server.root().read("status/" + server.name() + ".1").substr(0, 9), "00000000 ");
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(outcome({port, "stop", "--wait", "1"}, path), "1 ractl: no server answers on port * of this host");
}

TEST_P(Tool, TellsThatTheKeyIsWrong) {
    RootFolder stranger;
    stranger.write("etc/access.key", std::string("127.0.0.1 ") + GetParam().mark + other_key + "\n");
    for (const std::string &root : {stranger.path(), std::string()}) {
        EXPECT_EQ(outcome({port, "stop", "--wait", "1"}, root).substr(0, 35), "1 ractl: the server at *.*.*.*:* li");
        EXPECT_EQ(outcome({port, "ready", "--wait", "1"}, root).substr(0, 35), "1 ractl: the server at *.*.*.*:* li");
    }
    EXPECT_EQ(tool("ready").front(), '0') << "it still runs";
}

TEST(ToolWithoutKeys, TellsThatTheDatabaseIsClosed) {
    ServerProcess server({.database = "sqlite:/no/such/folder/data.db"});
    const std::string port = std::to_string(server.port());
    EXPECT_EQ(outcome({port, "ready"}),
              "2 ractl: the server at *.*.*.*:* refuses requests: is its database open? Its log tells");
    const ProgramEnd ping = run_program({"ractl", port, "ping", "-c", "2", "--wait", "5"});
    EXPECT_EQ(ping.code, 0);
    EXPECT_TRUE(std::regex_search(ping.output, std::regex("seq=2 time=[0-9.]+ ms\n\n--- 127.0.0.1:" + port +
                                                          " ping statistics ---\n2 packets transmitted, 2 received, "
                                                          "0% packet loss, time \\d+ms\nrtt min/avg/max/mdev = ")))
        << ping.output;
}

TEST(ToolWithoutKeys, ListsInstancesAndLeavesTheirLocks) {
    ServerProcess server;
    const RootFolder &root = server.root();
    const std::string status = "status/" + server.name() + ".1";
    root.write("status/killed.1", "00004711 Sat Feb  3 04:05:07 2001\n");
    root.write("status/stopped.4000.2", "00000000 Sat Feb  3 04:05:08 2001\n");
    const ProgramEnd list = run_program({"ractl", "list", "-VELROOT", root.path()});
    EXPECT_EQ(list.code, 0) << list.errors;
    for (const std::string &row : {std::string("killed.1 +4711 +ended without order +Sat Feb  3 04:05:07 2001\n"),
                                   std::string("stopped.4000.2 +0 +stopped +Sat Feb  3 04:05:08 2001\n"),
                                   server.name() + ".1 +" + std::to_string(server.pid()) + " +running "}) {
        EXPECT_TRUE(std::regex_search(list.output, std::regex(row))) << row << list.output;
    }
    EXPECT_TRUE(is_locked_by(root.path(status), server.pid()));
    EXPECT_EQ(run_program({"ractl", "4000", "list", "-VELROOT", root.path()}).output.find("killed"),
              std::string::npos);
    EXPECT_EQ(outcome({"4001", "list"}, root.path()).front(), '1');
}

TEST(ToolWithoutKeys, RefusesWrongUsage) {
    for (const Strings &words : {Strings{},
                                 {"4000"},
                                 {"0", "stop"},
                                 {"65536", "stop"},
                                 {"4000", "halt"},
                                 {"stop"},
                                 {"4000", "stop", "now"},
                                 {"4000", "stop", "--wait"},
                                 {"4000", "stop", "--wait", "0"},
                                 {"4000", "stop", "--wait", "1x"},
                                 {"-x", "4000", "stop"},
                                 {"list"}}) {
        EXPECT_EQ(outcome(words).substr(0, 9), "2 ractl: ") << testing::PrintToString(words);
    }
    EXPECT_EQ(outcome({"--help"}).substr(0, 14), "0 Usage: ractl");
}

}  // namespace
