/* The log printers and the way out: exact line forms, whole lines whatever their length and whatever signals come. */
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>
#include <sstream>

#include "process/printable.h"
#include "tests/process/start.h"
#include "tests/support/clock.h"

namespace {

std::string stamp(time_t when) {
    char text[32];
    struct tm parts {};
    localtime_r(&when, &parts);
    strftime(text, sizeof text, "%Y%m%d%H%M%S", &parts);
    return text;
}

class LogPrinters : public testing::Test {
protected:
    RootFolder root;
    StartForm withLog{.log = 1};
    /** What the log holds behind the line that tells the start. */
    std::string logged() const { return without_mail(without_first_line(root.log("prog.log"))); }
};

TEST_F(LogPrinters, WriteThreeKindsOfLines) {
    Child child([&](Child &) {
        start_or_die(root, {"prog"}, withLog);
        process_log("text %d %s\n", 5, "five");
        process_error("bad: %s\n", "thing");
        if (process_trace("unseen\n") != 0) return 1;
        process_context.trace = 1;
        return process_trace("seen %c\n", 'x');
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_TRUE(matches(logged(), form::L + "text 5 five\n" + form::E + "bad: thing\n" + form::T + "seen x\n"));
    EXPECT_NE(logged().find(" PID " + std::to_string(child.pid()) + ":\nETEXT="), std::string::npos);
    EXPECT_NE(logged().find(" PID " + std::to_string(child.pid()) + ": seen"), std::string::npos);
}

TEST_F(LogPrinters, StampLocalTime) {
    Child child([&](Child &self) {
        setenv("TZ", "XYZ-11:37", 1);
        tzset();
        start_or_die(root, {"prog", "-TRACE"}, withLog);
        self.report(stamp(clock_seconds()));
        process_log("x\n");
        process_error("x\n");
        process_trace("x\n");
        self.report(stamp(clock_seconds()));
        return 0;
    });
    const std::string before = child.next_report(), after = child.next_report();
    ASSERT_EQ(child.exit_code(), 0);
    std::istringstream lines(without_first_line(logged()));  // and without the line that tells the trace
    int stamped = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("ETEXT=")) continue;
        stamped++;
        EXPECT_GE(line.substr(1, 14), before);
        EXPECT_LE(line.substr(1, 14), after);
    }
    EXPECT_EQ(stamped, 3);
}

TEST_F(LogPrinters, WriteToStandardOutputWithoutALog) {
    Child child([&](Child &) {
        process_error("early %d\n", 1);
        start_or_die(root, {"path/prog", "-TRACE"});
        process_log("log\n");
        process_error("error\n");
        return process_trace("trace\n");
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_TRUE(matches(child.output(), "\\(null\\): early 1\nprog: log\nprog: error\n" + form::T + "trace\n"));
}

TEST_F(LogPrinters, SendTracesToTheirOwnStream) {
    Child child([&](Child &) {
        start_or_die(root, {"prog"}, withLog);
        process_context.trace = 1;
        FILE *elsewhere = fopen(root.path("trace").c_str(), "w");
        process_context.traceStream = elsewhere;
        process_trace("first\n");
        process_context.traceStream = nullptr;
        process_trace("second\n");
        kill(getpid(), SIGKILL);  // what was printed is in the files already
        return 0;
    });
    EXPECT_EQ(child.exit_code(), -SIGKILL);
    EXPECT_TRUE(matches(root.read("trace"), form::T + "first\n"));
    EXPECT_TRUE(matches(logged(), form::T + "second\n"));
}

TEST_F(LogPrinters, PrintNothingWhileSilent) {
    Child child([&](Child &) {
        start_or_die(root, {"prog"}, withLog);
        process_context.trace = process_context.silent = 1;
        process_log("no\n");
        process_error("no\n");
        if (process_trace("no\n") != 0) return 1;
        process_context.silent = 0;
        process_log("yes\n");
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_TRUE(matches(logged(), form::L + "yes\n"));
}

TEST_F(LogPrinters, KeepLongLinesWhole) {
    const std::string text = std::string(70000, 'a') + std::string(70000, 'b');
    Child child([&](Child &) {
        start_or_die(root, {"prog"}, withLog);
        process_context.trace = 1;
        process_log("%s.\n", text.c_str());
        process_error("%s.\n", text.c_str());
        process_trace("%s.\n", text.c_str());
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 0);
    std::istringstream lines(logged());
    Strings tails;
    for (std::string line; std::getline(lines, line);) {
        if (line.size() > 140000) tails.push_back(line.substr(line.find('a')));
    }
    EXPECT_EQ(tails, Strings(3, text + "."));
}

/* Signals rain on a process that does nothing but print; each of its handlers prints as well. */
TEST_F(LogPrinters, LoseAndTearNoLineWhenSignalsCome) {
    constexpr int LINES = 3000;
    Child child([&](Child &) {
        start_or_die(root, {"prog"}, withLog);
        process_context.trace = 1;
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGTERM;
        timer_t timer;
        if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0) return 1;
        const itimerspec often{{0, 50'000}, {0, 50'000}};
        timer_settime(timer, 0, &often, nullptr);
        const std::string filler(300, '.');
        for (int i = 0; i < LINES; i++) {
            if (i % 3 == 0) process_log("line %d %s\n", i, filler.c_str());
            if (i % 3 == 1) process_error("line %d %s\n", i, filler.c_str());
            if (i % 3 == 2) process_trace("line %d %s\n", i, filler.c_str());
        }
        timer_delete(timer);
        return 0;
    });
    ASSERT_EQ(child.exit_code(), 0) << "-1000: it hangs";
    const std::regex whole("(" + form::L + "|ETEXT=|" + form::T + R"()line (\d+) \.{300})");
    const std::regex handler("(" + form::T + R"(Received SIGTERM/SIGINT)|E\d{14}\.\d{6} PID \d+:)");
    std::istringstream lines(logged());
    std::smatch parts;
    int next = 0, signals = 0;
    bool errorBegun = false;
    for (std::string line; std::getline(lines, line);) {
        ASSERT_EQ(line.starts_with("ETEXT="), errorBegun) << "torn: " << line;
        errorBegun = line[0] == 'E' && !errorBegun;
        if (std::regex_match(line, parts, whole)) {
            ASSERT_EQ(std::stoi(parts[2]), next++);
        } else {
            ASSERT_TRUE(std::regex_match(line, handler)) << "torn: " << line;
            if (line[0] == 'T') signals++;
        }
    }
    EXPECT_EQ(next, LINES);
    EXPECT_GT(signals, 0) << "the test shows nothing: no signal came through";
}

TEST(Printable, ShowsControlBytesAsPoints) {
    EXPECT_EQ(printable(std::string_view("a\nL2024\r\0b\x1b[0m\x7f", 15)), "a.L2024..b.[0m.");
    EXPECT_EQ(printable("gr\xc3\xbc\xc3\x9f ~"), "gr\xc3\xbc\xc3\x9f ~");
    EXPECT_EQ(printable(""), "");
}

/* ---- The way out ------------------------------------------------------------------------------------------------ */

class ProcessExit : public LogPrinters {
protected:
    StartForm withBoth{.log = 1, .processes = 1};
};

TEST_F(ProcessExit, InOrderIsLoggedAndShownInTheStatusFile) {
    Child child([&](Child &) {
        start_or_die(root, {"prog"}, withBoth);
        process_exit(0);
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_TRUE(matches(logged(), form::L + "GOING DOWN! exitcode 0 at " + form::CTIME + form::L +
                                      "EXITING! exitcode 0 at " + form::CTIME + "\n"));
    EXPECT_TRUE(matches(root.read("status/prog.1"), "0{8} " + form::CTIME));
}

TEST_F(ProcessExit, WithAnErrorIsReported) {
    Child child([&](Child &) {
        start_or_die(root, {"prog"}, withBoth);
        process_exit(3);
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 3);
    EXPECT_TRUE(matches(logged(), form::E + "Process going down with an error!; EXITCODE=3;\n" + form::E +
                                      "EXITING! exitcode 3 at " + form::CTIME + "\n"));
}

TEST_F(ProcessExit, WithoutALogIsSilent) {
    Child child([&](Child &) {
        start_or_die(root, {"prog"});
        process_exit(4);
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 4);
    EXPECT_EQ(child.output(), "");
}

int hookCalls = 0;

TEST_F(ProcessExit, HookSeesTheCodeAndMayChangeIt) {
    struct Row {
        int given, changed;
        const std::string &lastKind;
    };
    for (const Row &row : {Row{0, 7, form::E}, Row{5, 0, form::L}}) {
        static Row current{row};
        static const Child *reporter;
        current.given = row.given;
        current.changed = row.changed;
        RootFolder own;
        Child child([&](Child &self) {
            reporter = &self;
            start_or_die(own, {"prog"}, withBoth);
            process_context.exitHook = [](int code) {
                reporter->report(std::to_string(++hookCalls) + " " + std::to_string(code) + " " +
                                 std::to_string(process_context.exitCode) + " " +
                                 std::to_string(process_context.lockFd));
                process_context.exitCode = current.changed;
            };
            process_exit(row.given);
            return 0;
        });
        const std::string code = std::to_string(row.given);
        EXPECT_TRUE(matches(child.next_report(), {"1 ", code, " ", code, " -1"}));
        EXPECT_EQ(child.exit_code(), row.changed);
        const std::string log = without_mail(own.log("prog.log"));
        EXPECT_TRUE(
            matches(log.substr(log.rfind('\n', log.rfind("EXITING!")) + 1),
                    {row.changed != 0 ? "ETEXT=" : form::L, "EXITING! exitcode ", code, " at ", form::CTIME, "\n"}));
    }
}

TEST_F(ProcessExit, LeavesAStatusFileOfAnotherProcessAlone) {
    for (const std::string &text : {std::string("00000001 somebody else\n"), std::string(5000, '7'), std::string()}) {
        Child child([&](Child &) {
            start_or_die(root, {"prog"}, withBoth);
            if (ftruncate(process_context.lockFd, 0) != 0) return 1;
            if (pwrite(process_context.lockFd, text.data(), text.size(), 0) < 0) return 2;
            process_exit(0);
            return 3;
        });
        EXPECT_EQ(child.exit_code(), 0);
        EXPECT_EQ(root.read("status/prog.1"), text);
    }
}

}  // namespace
