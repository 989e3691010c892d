/* How the server starts, shows its state and ends: exit codes, the lines that operators and tools read, and options. */
#include <gtest/gtest.h>
#include <csignal>
#include <cstdlib>

#include "tests/support/serverprocess.h"

namespace {

const std::string PROGRAM = VELMORA_BIN_DIR "/raserver";
const std::string NO_PORT = "No port given for RA server!\nUsage: " + PROGRAM +
                            " -p port -tp tcpport -ta tcpaddress [ -TRACE -D ]\n"
                            "       where\n"
                            "        -p port: is the port the RA server should work with\n"
                            "        -tp tcpport: is the tcp port the RA server should work with\n"
                            "        -ta tcpaddr: is the tcp ip address the RA server should work with\n"
                            "        -TRACE: enables the trace flag\n"
                            "        -D: is for debugging\n";

/** Fails unless the texts stand in the log in this order, each behind the one before. */
void expect_in_order(const std::string &log, const Strings &texts) {
    size_t at = 0;
    for (const std::string &text : texts) {
        const size_t found = log.find(text, at);
        ASSERT_NE(found, std::string::npos) << "missing, or too early: " << text << "\n" << log;
        at = found + text.size();
    }
}

TEST(Start, NeedsAPort) {
    for (const Strings &options :
         {Strings{}, {"-p"}, {"-p", "0"}, {"-pfoo"}, {"-p0"}, {"-tp4000"}, {"-tp", "4000"}}) {
        const ProgramEnd end = run_program(joined({"raserver", "-D"}, options));
        EXPECT_EQ(end.code, 101) << testing::PrintToString(options);
        EXPECT_EQ(end.errors, NO_PORT);
    }
}

TEST(Start, ShowsItsVersionWhateverElseIsAsked) {
    for (const Strings &words :
         {Strings{"raserver", "-giveversion"}, {"raserver", "-p", "4000", "x", "-giveversion"}}) {
        const ProgramEnd end = run_program(words);
        EXPECT_EQ(end.code, 0);
        EXPECT_EQ(end.output.rfind(PROGRAM + ": VERSION = 51010 DATE=", 0), 0u) << end.output;
        EXPECT_NE(end.output.find(" TIME="), std::string::npos);
    }
    EXPECT_EQ(run_program({"raserver", "-giveversions", "-D"}).code, 101) << "the whole word counts";
}

TEST(Start, WritesItsLinesInOrder) {
    ServerProcess server{{.joinedPort = true}};
    const std::string port = std::to_string(server.port());
    expect_in_order(server.log(), {" STARTED at ", " >>\n", " FILE      = " + PROGRAM + "\n", " VERSION   = 51010\n",
                                   " COMPILED  = ", " UDPSOCKET = ", " bound to 127.0.0.1:" + port + "\n",
                                   " PORT      = " + port + "\n", " RA.INIT rc: 0\n", " RA.EV raEventStartup argc ",
                                   " RA.LOG ARGV[ 0 ] \"", " RA.EV opening Oracle connection\n",
                                   " RA.EV Oracle connection established\n"});
    EXPECT_EQ(server.root().read("status/" + server.name() + ".1").substr(0, 9),
              (std::string(8, '0') + std::to_string(server.pid()) + " ").substr(std::to_string(server.pid()).size()));
}

TEST(Start, RefusesAPortInUse) {
    ServerProcess server;
    const Strings words{"raserver",           "-D",      "-p",       std::to_string(server.port()), "-VELROOT",
                        server.root().path(), "-BINDIP", "127.0.0.1"};
    const LogWatch log = server.watch();
    EXPECT_EQ(run_program(words).code, 104);
    EXPECT_TRUE(log.saw("ETEXT=Can't create server socket for port " + std::to_string(server.port()) + "!\n"));
    EXPECT_TRUE(log.saw("ETEXT=Process going down with an error!; EXITCODE=104;\n"));
    EXPECT_FALSE(TestClient(server.port()).ask({"DB", "G", "T", "ID", "1", "A"}).empty())
        << "the first one serves on";
}

TEST(Status, IsPrintedOnceForEachSignalAndCounts) {
    ServerProcess server;
    TestClient client(server.port());
    const LogWatch all = server.watch();
    const std::string port = std::to_string(server.port());
    for (const Strings &counts : {Strings{"0", "0", "0"}, Strings{"2", "2", "1"}}) {
        const LogWatch log = server.watch();
        server.wait_idle();
        server.signal(SIGUSR1);
        ASSERT_TRUE(log.wait_for(" Unknown  ")) << log.text();
        expect_in_order(
            log.text(),
            {" Caught signal USR1\n", "\nRA server status at ", "STARTED = ", "FILE    = " + server.name() + "\n",
             "VERSION = 51010\n", "COMPILED= ", "PORT USED:           " + port + "\n",
             "Total sessions ever: " + counts[0] + "\n", "Current sessions:    " + counts[0] + "\n",
             "Packets received:\n", " Length 0 packets    0\n", " UDP requests        " + counts[1] + "\n",
             " UDP replays         " + counts[2] + "\n", " Unknown             0\n"});
        const Strings request{"DB", "G", "T", "ID", "1", "A"};
        for (const uint32_t number : {7, 7}) client.ask(number, request);
        client.ask(8, request, 4);
    }
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(all.count("\nRA server status at "), 2);
}

TEST(End, WritesItsLastLinesInOrder) {
    for (const int number : {SIGTERM, SIGINT}) {
        ServerProcess server;
        const LogWatch log = server.watch();
        server.signal(number);
        EXPECT_EQ(server.stop(), 0);
        expect_in_order(log.text(), {" >> Killed!\n", " GOING DOWN! exitcode 0 at ", " RA.EXIT rc: 0\n",
                                     "\nRA server shutdown status\n", " RA.EV raEventShutdown exitcode 0\n",
                                     " RA.EXIT socketclose ret: 0\n", " EXITING! exitcode 0 at "});
        EXPECT_EQ(log.count("RA server shutdown status"), 1);
        EXPECT_EQ(log.count("ETEXT="), 0) << "an orderly end is no error";
    }
}

}  // namespace
