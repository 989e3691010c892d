/* The log printers and the way out: exact line forms, whole lines whatever their length and whatever signals come. */
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include "process/linelimit.h"
#include "process/printable.h"
#include "tests/process/start.h"
#include "tests/support/clock.h"
#include "tests/support/logwatch.h"

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

TEST_F(LogPrinters, WriteEachKindOfLineAtOnceWithTheLocalTime) {
    Child child([&](Child &self) {
        setenv("TZ", "XYZ-11:37", 1);
        tzset();
        self.report(stamp(clock_seconds()));
        start_or_die(root, {"prog"}, withLog);
        process_log("text %d %s\n", 5, "five");
        process_error("bad: %s\n", "thing");
        process_trace("untraced\n");
        process_context.trace = process_context.silent = 1;
        process_log("silent\n");
        process_error("silent\n");
        process_trace("silent\n");
        process_context.silent = 0;
        process_trace("seen %c\n", 'x');
        process_context.traceStream = fopen(root.path("trace").c_str(), "w");
        if (process_trace("elsewhere\n") != 0) return 1;
        process_context.traceStream = nullptr;
        process_trace("back\n");
        self.report(stamp(clock_seconds()));
        return kill(getpid(), SIGKILL);  // what was printed is in the files already
    });
    const std::string before = child.next_report(), after = child.next_report(), log = logged();
    EXPECT_EQ(child.exit_code(), -SIGKILL);
    EXPECT_TRUE(matches(root.read("trace"), {form::T, "elsewhere\n"}));
    const std::string pid = " PID " + std::to_string(child.pid()) + ":";
    EXPECT_TRUE(matches(log, {form::L, "text 5 five\nE[0-9.]*", pid, "\nETEXT=bad: thing\nT[0-9.]*", pid, " seen x\n",
                              form::T, "back\n"}));
    for (const char kind : {'L', 'E', 'T'}) {
        const std::string time = log.substr(log.find(std::string(1, kind) + "2") + 1, before.size());
        EXPECT_TRUE(before <= time && time <= after) << kind << time;
    }
}

TEST(LineLimits, HoldBackWhatIsTooMuchForASecond) {
    EXPECT_EQ(
        outcome([](Child &) {
            start({"prog", "-VELROOT", "/nowhere"});
            static LineLimit lines("flood"), others("trickle");
            int passed = 0;
            for (int line = 0; line < 1000; line++) passed += lines.passes();
            for (int line = 0; line < 30; line++) passed += 1000 * (lines.passes_at(50) + others.passes_at(50));
            LineLimit::report_all(50);  // the second is not over
            LineLimit::report_all(51);
            LineLimit::report_all(51);
            return passed == 41000 && lines.passes_at(51) ? 0 : 1;
        }),
        "0 prog: LineLimit: 10 more lines held back: trickle\nprog: LineLimit: 10 more lines held back: flood\n");
}

TEST_F(LogPrinters, WriteToStandardOutputWithoutALog) {
    const std::string written = outcome([&](Child &) {
        process_error("early %d\n", 1);
        start_or_die(root, {"path/prog", "-TRACE"});
        fputs("by hand\n", stdout);
        process_log("log\n");
        process_error("error\n");
        process_trace("trace\n");
        process_exit(4);  // of which it tells nothing
        return 5;
    });
    EXPECT_TRUE(matches(written, {"4 \\(null\\): early 1\nby hand\nprog: log\nprog: error\n", form::T, "trace\n"}));
}

TEST_F(LogPrinters, KeepLongLinesWhole) {
    const std::string text = std::string(70000, 'a') + std::string(70000, 'b');
    const LogWatch log(root.path("log/prog.log"));
    EXPECT_EQ(outcome([&](Child &) {
                  start_or_die(root, {"prog", "-TRACE"}, withLog);
                  process_log("%s.\n", text.c_str());
                  process_error("%s.\n", text.c_str());
                  return process_trace("%s.\n", text.c_str());
              }),
              "0 ");
    EXPECT_EQ(log.count(text + ".\n"), 3);
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

TEST_F(ProcessExit, IsToldAndTheHookMayChangeItsCode) {
    struct Row {
        int given, changed;
        std::string first, line, last;
    };
    const std::string down = "GOING DOWN! exitcode 0 at " + form::CTIME;
    for (const Row &row : {Row{0, 7, form::L, down, form::E},
                           {5, 0, form::E, "Process going down with an error!; EXITCODE=5;\n", form::L}}) {
        const RootFolder own;
        static const Child *reporter;
        static int changed;
        Child child([&](Child &self) {
            reporter = &self;
            changed = row.changed;
            start_or_die(own, {"prog"}, withBoth);
            process_context.exitHook = [](int code) {
                reporter->report(std::to_string(code) + " " + std::to_string(process_context.exitCode) + " " +
                                 std::to_string(process_context.lockFd));
                process_context.exitCode = changed;
            };
            process_exit(row.given);
            return 0;
        });
        const std::string code = std::to_string(row.given);
        EXPECT_EQ(child.next_report(), code + " " + code + " -1");
        EXPECT_EQ(child.exit_code(), row.changed);
        EXPECT_EQ(child.next_report(), "(nothing)") << "the hook is called once";
        EXPECT_TRUE(matches(without_mail(without_first_line(own.log("prog.log"))),
                            {row.first, row.line, row.last, "EXITING! exitcode ", code, " at ", form::CTIME, "\n"}));
        EXPECT_TRUE(matches(own.read("status/prog.1"), {"0{8} ", form::CTIME}));
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
