/* Signals that come at any moment, and the log that is turned over meanwhile: nothing hangs, and every line stands whole
 * in exactly one file. */
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <filesystem>
#include <set>
#include <sstream>

#include "process/processi.h"
#include "tests/process/start.h"
#include "tests/support/logwatch.h"

namespace fs = std::filesystem;

namespace {

constexpr int HANDLED[] = {SIGTERM, SIGINT, SIGPIPE, SIGUSR2, SIGALRM, SIGHUP, SIGCHLD};
const std::string SINCE = form::L + "STARTED new log, running since " + form::CTIME;

class Signals : public testing::Test {
protected:
    RootFolder root;
    std::string logged() const { return without_mail(without_first_line(root.log("prog.log"))); }
    /** A process with its log and all the handlers of a daemon, in reach of the test. */
    void start_like_a_daemon(Strings arguments = {"prog"}) const {
        start_or_die(root, std::move(arguments), {.log = 1});
        if (process::install_daemon_handlers() != 0) _exit(98);
    }
};

std::string handled_signals() {
    std::string names;
    for (const int number : HANDLED) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        const bool is_ours = action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
        const bool interrupts = (action.sa_flags & SA_RESTART) == 0 && sigisemptyset(&action.sa_mask);
        if (is_ours && interrupts) names += std::string(sigabbrev_np(number)) + " ";
    }
    return names;
}

/** With -D a daemon stays in the foreground, but has its log and its slot. */
TEST_F(Signals, AreHandledAsTheFormOfTheProcessAsks) {
    const std::tuple<Strings, StartForm, std::string> rows[] = {
        // at last the signals, and the mode
        {{"prog"}, {.log = 1, .processes = 1}, "TERM INT PIPE USR2 2"},
        {{"-D"}, {.daemon = 1}, "TERM INT PIPE USR2 1"},
        {{"other", "a", "-D"}, {.daemon = 1}, "TERM INT PIPE USR2 1"},
        {{"third", "x", "y", "-debug"}, {.daemon = 1}, "TERM INT PIPE USR2 1"},
        {{"daemon"}, {.daemon = 1}, "TERM INT PIPE USR2 ALRM HUP CHLD 1"},
    };
    for (const auto &row : rows) {
        const auto &[arguments, form, handled] = row;
        Child child([&](Child &self) {
            for (const int number : HANDLED) signal(number, SIG_DFL);
            start_or_die(root, std::get<Strings>(row), std::get<StartForm>(row));
            self.report(handled_signals() + std::to_string(process_context.mode));
            self.report(eight_digits(getpid()));
            return 0;
        });
        EXPECT_EQ(child.next_report(), handled);
        const std::string pid = child.next_report(), &name = arguments[0];
        EXPECT_EQ(pid != eight_digits(child.pid()), name == "daemon");
        EXPECT_EQ(root.read("status/" + name + ".1").substr(0, 8), pid);
        EXPECT_NE(root.log(name + ".log").find("STARTED at "), std::string::npos);
    }
}

TEST_F(Signals, SwitchTheTraceAreToldAndLeaveEintrBehind) {
    EXPECT_EQ(
        outcome([&](Child &) {
            start_like_a_daemon();
            for (const int number : {SIGTERM, SIGUSR2, SIGINT, SIGPIPE, SIGALRM, SIGCHLD, SIGUSR2, SIGUSR2, SIGHUP}) {
                errno = 0;
                if (raise(number); errno != EINTR) return 100 + number;
            }
            process_context.logToFile = 0;
            errno = 0;
            if (raise(SIGHUP); errno != 0) return 2;  // a hang-up without a log has no effect
            return static_cast<int>(process_context.trace) + 10 * process_context.running;
        }),
        "1 ");
    EXPECT_TRUE(
        matches(logged(), {form::T, "Tracing turned on!\n", form::T, "Received SIGTERM/SIGINT\n", form::L,
                           "Received SIGPIPE\n", form::T, "Tracing turned off!\n", form::T, "Tracing turned on!\n",
                           form::L, "Received a SIGHUP. Closing log!\n", form::L, "Reopening log file ",
                           root.path("log/prog.log!\n"), SINCE, form::T, "STARTED new log, trace is on.\n"}));
}

TEST_F(Signals, OfABrokenPipeDoNotCallThemselves) {
    EXPECT_EQ(outcome([&](Child &) {
                  int ends[2];
                  start_or_die(root, {"prog"});
                  if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0 || close(ends[0]) != 0) return 1;
                  process_log("into the void\n");
                  return 0;
              }),
              "0 ");
}

TEST_F(Signals, OfEndedChildrenReapThemAll) {
    EXPECT_EQ(outcome([&](Child &) {
                  start_like_a_daemon();
                  for (const process::HeldSignals held; int i : {1, 2, 3}) {  // one signal stands for them all
                      const pid_t grandchild = fork();
                      if (grandchild == 0) _exit(i);
                      siginfo_t ended{};
                      waitid(P_PID, static_cast<id_t>(grandchild), &ended, WEXITED | WNOWAIT);
                  }
                  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 1;
              }),
              "0 ");
}

/* ---- Under load --------------------------------------------------------------------------------------------- */

/** Logs, allocates and asks for local times until the file "stop" is there: what a signal may come into. */
int work_under_signals(const Child &self, const RootFolder &root) {
    self.report("ready");
    std::vector<OwnedBlock<>> blocks(16);
    int line = 0;
    for (; access(root.path("stop").c_str(), F_OK) != 0; line++) {
        process_log("line %d %s\n", line, std::string(200, '.').c_str());
        if (line % 40 == 0) process_error("line %d.\n", line);
        for (auto &block : blocks) block.reset(malloc(static_cast<size_t>(rand() % 3000)));
        for (time_t when = line; when < line + 20; when++) localtime(&when);
    }
    process_context.silent = 1;
    self.report(std::to_string(line));
    return 0;
}

/** Sends a process signals of all kinds, from a process of its own. */
int storm(const Child &target, size_t start) {
    for (size_t i = start; i < start + 5000; i++, usleep(20)) target.signal(HANDLED[3 * i % std::size(HANDLED)]);
    return 0;
}

/** Reads all log files: each line must be one that somebody wrote, each numbered line must be there once. */
void expect_whole_lines_once(const RootFolder &root, int lines) {
    const std::regex known(
        "(" + form::L +
        R"((STARTED .*|Re(ceived|opening) .*|line \d+ \.{200}))|(E\d{14}\.\d{6} PID \d+:)|(ETEXT=.*\.)|)"
        "(" +
        form::T + "(Tracing turned o(n|ff)!|Received SIGTERM/SIGINT|STARTED .*))");
    std::set<std::string> seen;
    std::string all;
    for (const auto &entry : fs::directory_iterator(root.path("log"))) {
        const std::string log = without_mail(root.log(entry.path().filename()));
        std::istringstream text(log);
        bool errorBegun = false;
        int number = 0;
        for (std::string line; std::getline(text, line);) {
            ASSERT_TRUE(std::regex_match(line, known)) << "torn: " << line;
            ASSERT_EQ(line.starts_with("ETEXT="), errorBegun) << "torn: " << line;
            errorBegun = line.starts_with("E2");
            ASSERT_TRUE(number++ > 0 || line.find(" STARTED ") == 15) << entry << " begins: " << line;
            const size_t at = line.find(" line ");
            ASSERT_TRUE(at == std::string::npos || seen.insert(line.substr(at)).second) << "twice: " << line;
        }
        all += log;
    }
    EXPECT_EQ(static_cast<int>(seen.size()), lines);
    for (const char *told : {"Received SIGPIPE\n", "Tracing turned on!\n", "STARTED new log, trace is on.\n"}) {
        EXPECT_NE(all.find(told), std::string::npos) << "the test shows nothing without " << told;
    }
}

TEST_F(Signals, InAStormLoseAndTearNoLineWhileTheLogIsTurnedOver) {
    constexpr int TURNS = 50;
    Child child([&](Child &self) {
        start_like_a_daemon({"prog", "-TRACE"});
        return work_under_signals(self, root);
    });
    ASSERT_EQ(child.next_report(), "ready");
    Child first([&](Child &) { return storm(child, 0); }), second([&](Child &) { return storm(child, 5); });
    for (int turn = 0; turn < TURNS; turn++) {
        fs::rename(root.path("log/prog.log"), root.path("log/old." + std::to_string(turn)));
        child.signal(SIGHUP);
        for (int i = 0; i < 10000 && root.log("prog.log").empty(); i++) usleep(1000);
        ASSERT_FALSE(root.log("prog.log").empty()) << "no new log after turn " << turn;
    }
    EXPECT_EQ(first.exit_code(), 0);
    EXPECT_EQ(second.exit_code(), 0);
    root.write("stop", "");
    const std::string lines = child.next_report();
    ASSERT_NE(lines, "(nothing)") << "it hangs";
    ASSERT_EQ(child.exit_code(), 0);
    expect_whole_lines_once(root, std::stoi(lines));
    EXPECT_TRUE(matches(root.log("old.7").substr(0, root.log("old.7").find('\n') + 1), {SINCE}));
}

/* ---- The log file ------------------------------------------------------------------------------------------- */

TEST_F(Signals, ReportALogThatCannotBeReopenedInTheOldOne) {
    EXPECT_EQ(outcome([&](Child &) {
                  start_like_a_daemon();
                  fs::rename(root.path("log"), root.path("gone"));
                  raise(SIGHUP);
                  process_log("goes on\n");
                  return 0;
              }),
              "0 ");
    const std::string path = root.path("log/prog.log");
    EXPECT_TRUE(matches(without_mail(without_first_line(root.read("gone/prog.log"))),
                        {form::L, "Received a SIGHUP. Closing log!\n", form::L, "Reopening log file ", path, "!\n",
                         form::E, "Tried to reopen log file. But open ", path,
                         " failed! errmsg No such file or directory\n", form::L, "goes on\n"}));
}

TEST_F(Signals, EndAProcessWhoseStandardErrorIsLost) {
    Child child([&](Child &) {
        start_like_a_daemon();
        fs::rename(root.path("log/prog.log"), root.path("log/old"));
        static rlimit usual;
        getrlimit(RLIMIT_NOFILE, &usual);
        const rlimit tight{STDERR_FILENO, usual.rlim_max};  // the new file finds room below, but dup2 none
        close(STDIN_FILENO);
        setrlimit(RLIMIT_NOFILE, &tight);
        process_context.exitHook = [](int) { setrlimit(RLIMIT_NOFILE, &usual); };
        return process_log_reopen();
    });
    EXPECT_EQ(child.exit_code(), 255);
    const std::string line = "Got a SIGHUP, but could not dup2 to stderr, going down\n";
    EXPECT_EQ(root.log("prog.log"), line + "Bad file descriptor" + line);
    EXPECT_NE(root.log("old").find("EXITCODE=-1;"), std::string::npos);
}

TEST_F(Signals, TellTheStartInTheTimeOfItsSeason) {
    constexpr time_t JULY = 1720000000, DECEMBER = JULY + 15'000'000;  // one of them is not of the present season
    const auto hour = [] { return std::string(process::TimeText(time(nullptr)).text).substr(11, 2); };
    Child child([&](Child &) {
        setenv("TZ", "XYZ-3ABC,M3.5.0,M10.5.0", 1);
        start_like_a_daemon();
        for (const time_t when : {time_t{0}, JULY, DECEMBER, time_t{951'782'400}}) {
            if (std::string(process::TimeText(when).text) != ctime(&when)) return 1;
        }
        for (const time_t when : {JULY, DECEMBER}) {
            const LogWatch log(root.path("log/prog.log"));
            process_context.startTime = when;
            process::learn_time_zone();
            const std::string before = hour();
            raise(SIGHUP);
            if (!log.saw(std::string("running since ") + ctime(&when))) return 2;
            const std::string told = log.text().substr(9, 2);
            if (told != before && told != hour()) return 3;
        }
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 0) << "1: times, 2: time of the start, 3: time of a handler's line";
}

TEST_F(Signals, ReopeningKnowsLongPathsAndProcessesWithoutALog) {
    const std::string longest(1009, 'r'), longer(1010, 'r');  // with "prog" and 10: 1023, and one too many
    const auto told = [](const std::string &folder) {
        return "prog: Reopening log file " + folder + "/log/prog.log!\nprog: Cannot reopen log file, not a file!\n";
    };
    EXPECT_EQ(
        outcome([&](Child &) {
            start_or_die(root, {"prog"});
            if (process_log_reopen() != 0) return 1;
            process_context.rootDir = longest.c_str();
            if (process_log_reopen() != 0) return 2;
            process_context.rootDir = longer.c_str();
            return -process_log_reopen();
        }),
        "14 " + told(root.path()) + told(longest) + "prog: Path names too long ! rootdir " + longer + " name prog\n");
}

std::string name_of_a_copy() {
    char name[32];
    const time_t now = time(nullptr);
    strftime(name, sizeof name, "%Y%m%d.log", localtime(&now));
    return std::string("ch") + (name + 2);
}

TEST_F(Signals, DatedCopiesOfADayPileUpInOneFile) {
    const std::string content = std::string(40000, 'x') + "end\n", longer(1007, 'r'), before = name_of_a_copy();
    root.write("source", content);
    const std::string told = outcome([&](Child &) {
        start_or_die(root, {"prog"});
        const OwnedFd source(open(root.path("source").c_str(), O_RDONLY));
        const OwnedFd write_only(open(root.path("source").c_str(), O_WRONLY));
        int ends[2];
        if (process_log_copy(source.get()) != 0 || process_log_copy(source.get()) != 0) return 1;
        if (pipe(ends) != 0 || process_log_copy(ends[0]) != -2 || process_log_copy(write_only.get()) != -3) return 2;
        fs::rename(root.path("log"), root.path("kept"));
        if (process_log_copy(source.get()) != -1) return 3;
        process_context.rootDir = longer.c_str();
        return -process_log_copy(source.get());
    });
    const std::string name = fs::exists(root.path("kept/" + before)) ? before : name_of_a_copy();
    EXPECT_EQ(root.read("kept/" + name), content + content);
    const std::string path = root.path("log/" + name), copying = "prog: Copying log file to " + path + "!\n",
                      failed = "prog: process_log_reopen: ";
    EXPECT_EQ(told, "14 " + copying + copying + copying + failed + "Could not seek in logfile, Illegal seek\n" +
                        copying + failed + "Read " + path + ", 16384 bytes failed, Bad file descriptor\n" + copying +
                        failed + "Could not open " + path + ", No such file or directory\n" +
                        "prog: Path names too long ! rootdir " + longer + " name ch123456.log\n");
}

}  // namespace
