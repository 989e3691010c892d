/* Error mail: what the mail tool is given, how often, and what it costs the process that reports the error. */
#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <filesystem>

#include "process/processi.h"
#include "tests/process/start.h"
#include "tests/support/logwatch.h"

namespace fs = std::filesystem;

namespace {

constexpr time_t WALL = 1'700'000'000;
const std::string NOT_AGAIN = "Process_mailout: Not sending a mail again!\n";

PROCESS_PRINTF(2, 3) void mail_at(process::MailTime now, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    process::mail_error(now, format, arguments);
    va_end(arguments);
}

class ErrorMail : public testing::Test {
protected:
    RootFolder root;

    const LogWatch mails{root.path("mails")};

    /** Stands in for the mail tool: writes down what it was given, one argument behind the other, ended by "|". */
    void SetUp() override {
        root.write("bin/chmail",
                   "#!/bin/sh\n"
                   "[ -e /proc/$$/fd/1 ] && out=open || out=closed\n"
                   "[ -e /proc/$$/fd/77 ] && high=open || high=closed\n"
                   "held=$(sed -n 's/^SigBlk:[[:space:]]*//p' /proc/$$/status)\n"
                   "printf '%s|' \"$0\" \"$@\" >>\"$2/mails\"\n"
                   "echo \"$out $high $held $MARK $(pwd -P) $PPID\" >\"$2/circumstances\"\n"
                   "echo a line of the tool >&2\n"
                   "echo END >>\"$2/mails\"\n");
        fs::permissions(root.path("bin/chmail"), fs::perms(0755));
    }
    /** Whether so many mails, and no more, have gone out. */
    bool wait_for_mails(int wanted) const {
        for (int i = 0; i < 2000 && mails.count("|END\n") < wanted; i++) usleep(5000);
        return mails.count("|END\n") == wanted;
    }
    std::string logged() const { return without_first_line(root.log("prog.log")); }
};

TEST_F(ErrorMail, GivesTheToolSubjectAndTextAndNothingElseOfTheProcess) {
    const std::string tail(5000, 'x');
    Child child([&](Child &self) {
        setenv("MARK", "inherited", 1);
        start_or_die(root, {"prog"}, {.log = 1, .processes = 1});
        if (dup2(STDIN_FILENO, 77) < 0) return 1;
        static const char *rest = tail.c_str();
        process_signal(SIGUSR1, [](int) {
            errno = ENOSPC;
            mail_at({WALL, 5000}, "%s %d%% %m %s\n", "full:", 99, rest);
            if (errno != ENOSPC) _exit(2);
        });
        raise(SIGUSR1);  // out of a handler, while the signal is held back
        self.report("mailed");
        wait_to_be_killed();
    });
    ASSERT_EQ(child.next_report(), "mailed");
    ASSERT_TRUE(wait_for_mails(1));
    const std::string pid = std::to_string(child.pid());
    char host[1024] = "";
    gethostname(host, sizeof host);
    const std::string text = "\nError message from Gathering Server process prog running on host " +
                             std::string(host) + "\n\nPID " + pid + ":\nETEXT=full: 99% No space left on device " +
                             tail;
    EXPECT_EQ(mails.text(), root.path("bin/chmail") + "|-VELROOT|" + root.path() + "|-s|Gathering Server Error at " +
                                ctime(&WALL) + "|-t|" + text.substr(0, 2046) + "\n|END\n");
    EXPECT_EQ(root.read("circumstances"), "closed closed 0000000000000000 inherited " +
                                              fs::canonical(root.path("bin")).string() + " " + pid + "\n");
    EXPECT_EQ(logged(), "a line of the tool\n");
    EXPECT_TRUE(is_locked_by(root.path("status/prog.1"), child.pid())) << "the slot was lost with the child";
}

TEST_F(ErrorMail, GoesOutOnceAnHourByAClockThatNobodySets) {
    struct Step {
        process::MailTime now;
        bool is_sent;
    };
    EXPECT_EQ(outcome([&](Child &) {
                  start_or_die(root, {"prog"}, {.log = 1});
                  int sent = 0;
                  for (const Step &step : {Step{{WALL, 7}, true}, Step{{WALL + 90'000, 3606}, false},
                                           Step{{WALL - 90'000, 3607}, true}, Step{{WALL, 7206}, false}}) {
                      const LogWatch log(root.path("log/prog.log"));
                      mail_at(step.now, "x\n");
                      sent += step.is_sent;
                      const std::string told = step.is_sent ? "a line of the tool\n" : NOT_AGAIN;
                      if (!wait_for_mails(sent) || log.text() != told) return 10 + sent;
                  }
                  return 0;
              }),
              "0 ")
        << "10: and mails sent until it failed";
}

bool has_no_child() { return waitpid(-1, nullptr, 0) == -1 && errno == ECHILD; }

TEST_F(ErrorMail, IsForErrorsInALogOnly) {
    EXPECT_EQ(outcome([&](Child &) {
                  start_or_die(root, {"prog"});
                  process_error("unmailed\n");
                  return has_no_child() ? 0 : 1;
              }),
              "0 prog: unmailed\n");
    EXPECT_EQ(outcome([&](Child &) {
                  start_or_die(root, {"prog"}, {.log = 1});
                  process_context.silent = 1;
                  process_error("unmailed\n");
                  process_context.silent = 0;
                  process_log("unmailed\n");
                  if (!has_no_child()) return 1;
                  process_error("first %d\n", 1);
                  process_exit(5);
                  return 0;
              }),
              "5 ");
    ASSERT_TRUE(wait_for_mails(1));
    EXPECT_TRUE(mails.saw("ETEXT=first 1\n\n|"));
    const std::string log = root.log("prog.log");
    EXPECT_NE(log.find("EXITCODE=5;\n" + NOT_AGAIN), std::string::npos) << log;
}

/* The tool is no zombie for long: a daemon hears of its end; any other process looks when it prints. */
TEST_F(ErrorMail, ToolIsReaped) {
    for (const bool is_daemon : {true, false}) {
        EXPECT_EQ(outcome([&](Child &) {
                      start_or_die(root, {"prog"}, {.log = 1});
                      if (is_daemon) process::install_daemon_handlers();
                      process_error("x\n");
                      siginfo_t ended;
                      for (int i = 0; i < 2000; i++, usleep(5000)) {
                          if (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD) return 0;
                          if (!is_daemon) process_log("y\n");
                      }
                      return 1;
                  }),
                  "0 ")
            << (is_daemon ? "daemon" : "foreground");
    }
    EXPECT_TRUE(wait_for_mails(2));
}

TEST_F(ErrorMail, OfAMissingToolCostsOneLineAndTheHour) {
    fs::remove(root.path("bin/chmail"));
    EXPECT_EQ(outcome([&](Child &) {
                  start_or_die(root, {"prog"}, {.log = 1});
                  mail_at({WALL, 7}, "x\n");
                  mail_at({WALL, 3606}, "x\n");
                  const std::string longer(1002, 'r');  // with the name and 16: 1024
                  process_context.rootDir = longer.c_str();
                  mail_at({WALL, 3607}, "x\n");
                  process_context.rootDir = nullptr;
                  mail_at({WALL, 7207}, "x\n");
                  return has_no_child() ? 0 : 1;
              }),
              "0 ");
    EXPECT_EQ(logged(), "Process_mailout: Can't stat " + root.path("bin/chmail") + "! No such file or directory\n" +
                            NOT_AGAIN + "Process_mailout: Paths too long!\n");
}

TEST_F(ErrorMail, OfAToolThatCannotRunLeavesTheProcessAlone) {
    fs::permissions(root.path("bin/chmail"), fs::perms(0644));
    EXPECT_EQ(outcome([&](Child &) {
                  static FILE *file;
                  start_or_die(root, {"prog"}, {.log = 1});
                  file = fopen(root.path("buffered").c_str(), "w");
                  fputs("once", file);
                  process_context.exitHook = [](int) { fputs(" hook", file); };
                  atexit([] { fputs(" exit", file); });
                  mail_at({WALL, 5000}, "x\n");
                  int status = 0;
                  if (waitpid(-1, &status, 0) < 0 || WEXITSTATUS(status) != 1) return 9;
                  process_exit(0);
                  return 0;
              }),
              "0 ");
    EXPECT_EQ(root.read("buffered"), "once hook exit") << "the child flushed a stream or ran an exit function";
    EXPECT_TRUE(
        logged().starts_with("Process_mailout: Can't execl " + root.path("bin/chmail") + "! Permission denied\n"));
}

}  // namespace
