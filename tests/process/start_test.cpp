/* Start of a process: which options are taken, which failures are told how, what becomes of the descriptors. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <sstream>

#include "tests/process/start.h"

namespace fs = std::filesystem;

namespace {

const StartForm WITH_BOTH{.log = 1, .processes = 1};

Strings words_of(const std::string &text) {
    std::istringstream source(text);
    return {std::istream_iterator<std::string>(source), {}};
}

std::string shown(const char *text) { return text != nullptr ? text : "-"; }

/** Name and arguments that are left, then user, group, bind address, root, and a letter for each flag. All the rest must
 *  be as in any process that begins. */
std::string context_after(const Arguments &arguments) {
    const PROCESS_S &context = process_context;
    const bool is_new = context.running == 1 && context.hold == 0 && context.exitCode == 0 && context.lockFd == -1 &&
                        context.mode == PROCESS_MODE_FOREGROUND && context.traceStream == stderr &&
                        context.logToFile == 0 && context.logReady == 0 && time(nullptr) - context.startTime < 60;
    if (!is_new) return "the context is not that of a new process";
    const std::string flags = std::string(context.packetDiag ? "P" : "") + (context.noAccessKeyCheck ? "N" : "") +
                              (context.trace ? "T" : "") + (context.verbose ? "V" : "") +
                              (context.hardened ? "H" : "");
    return arguments.left() + " | " + shown(context.userName) + " " + shown(context.groupName) + " " +
           shown(context.bindIp) + " " + shown(context.rootDir) + " " + flags;
}

TEST(StartOptions, AreTakenOutOfTheVectorOrStay) {
    struct Row {
        std::string given, expected;
        bool counted = true;
    };
    const Row rows[] = {
        {"a b", "a b | - - - /env "},
        {"-BINDIP 10.0.0.1 a", "a | - - 10.0.0.1 /env "},
        {"a -BINDIP", "a -BINDIP | - - - /env "},
        {"-BINDIP x -VELROOT /r -BINDIP y -VELROOT", "-VELROOT | - - y /r "},
        {"-PACKETDIAG -NOACCESSKEYCHECK -BINDIP z -PACKETDIAG a", "a | - - z /env PN"},
        {"-TRACE a -VERBOSE -D -debug", "-TRACE a -VERBOSE -D -debug | - - - /env TV"},
        {"-TRACE1 -VERBOS -PACKETDIAGX -bindip a", "-TRACE1 -VERBOS -PACKETDIAGX -bindip a | - - - /env "},
        {"-setusernamebob -setgroupnamestaff", "-setusernamebob -setgroupnamestaff | bob staff - /env "},
        {"-setusername bob -setgroupname staff", "-setusername bob -setgroupname staff | bob staff - /env "},
        {"-setusername -TRACE", "-setusername -TRACE | -TRACE - - /env T"},
        {"-setusername -BINDIP 10.1.1.1", "-setusername | -BINDIP - 10.1.1.1 /env "},
        {"-VERBOSE -setgroupname", "-VERBOSE -setgroupname | - - - /env V"},
        {"-HARDEN a -HARDENED -harden", "a -HARDENED -harden | - - - /env H"},
        {"-TRACE -VELROOT /r", "-TRACE -VELROOT /r | - - - /env ", false},
    };
    for (const Row &row : rows) {
        Child child([&](Child &self) {
            setenv("VELROOT", "/env", 1);
            process_context.hold = process_context.exitCode = 9;
            Arguments arguments(words_of("/usr/bin/prog " + row.given));
            int *count = row.counted ? &arguments.count : nullptr;
            if (process_init(count, arguments.vector.data(), 0, 0, 0) != 0) return 1;
            if (arguments.vector[arguments.count] != nullptr) return 2;  // the end must be marked
            arguments.vector[0] = process_context.name;
            self.report(context_after(arguments));
            return 0;
        });
        EXPECT_EQ(child.next_report(), "prog " + row.expected);
        EXPECT_EQ(child.exit_code(), 0);
    }
}

TEST(StartOptions, HardeningComesFromTheEnvironmentTooWhichIsReadOnce) {
    const std::pair<const char *, const char *> rows[] = {{"1", "11"}, {"0", "00"}, {"10", "00"}, {"", "00"}};
    for (const auto &row : rows) {
        const char *const value = row.first;
        Child child([&](Child &self) {
            setenv("VELHARDEN", value, 1);
            const int result = start({"prog", "-VELROOT", "/nowhere"});
            const int first = process_context.hardened;
            setenv("VELHARDEN", *value == '1' ? "0" : "1", 1);
            process_harden_by_environment();
            self.report(std::to_string(first) + std::to_string(process_context.hardened));
            return result;
        });
        EXPECT_EQ(child.next_report(), row.second) << value;
    }
}

TEST(StartFailure, IsToldOnStandardOutputUntilThereIsALog) {
    const RootFolder root;
    const auto start_with_root = [&](StartForm form) { return -start({"prog", "-VELROOT", root.path()}, form); };
    EXPECT_EQ(outcome([](Child &) {
                  unsetenv("VELROOT");
                  return -start({"bin/prog", "-VELROOT"});
              }),
              "10 prog: Environment variable VELROOT not set!\n");
    EXPECT_EQ(outcome([&](Child &) {
                  if (start_with_root({}) != 0) return 1;
                  return -start({"prog", "-TRACE"});
              }),
              "13 ")
        << "a second start";

    const std::string failure = "Cannot open or create file " + root.path();
    fs::remove_all(root.path("status"));
    EXPECT_EQ(outcome([&](Child &) { return start_with_root(WITH_BOTH); }), "12 ");
    EXPECT_TRUE(without_mail(root.log("prog.log"))
                    .ends_with("ETEXT=" + failure + "/status/prog.1 ! errmsg: No such file or directory!\n"))
        << root.log("prog.log");
    fs::remove_all(root.path("log"));
    EXPECT_EQ(outcome([&](Child &) { return start_with_root({.log = 1}); }),
              "11 prog: " + failure + "/log/prog.log ! errmsg: No such file or directory!\n");
}

TEST(StartFailure, OfALongPathComesAtTheExactLength) {
    struct Row {
        size_t lengthOfBoth;
        StartForm form;
        std::string told, behind;
    };
    const std::string open = " prog: Cannot open or create file ", no_open = " ! errmsg: File name too long!\n";
    for (const Row &row : {Row{1013, {.log = 1}, "11" + open, "/log/prog.log" + no_open},
                           Row{1014, {.log = 1}, "14 prog: Path names too long ! rootdir ", " name prog\n"},
                           Row{1012, {.processes = 1}, "12" + open, "/status/prog.1" + no_open},
                           Row{1013, {.processes = 1}, "14 prog: Path names too long ! rootdir ", " name prog\n"}}) {
        const std::string folder(row.lengthOfBoth - 4, 'd');
        EXPECT_EQ(outcome([&](Child &) {
                      return -start({"prog", "-VELROOT", folder}, row.form);
                  }),
                  row.told + folder + row.behind);
    }
}

TEST(StartLog, TakesStandardErrorAndDropsLowDescriptors) {
    const RootFolder root;
    root.write("log/prog.log", "from the last run\n");
    const std::string ended = outcome([&](Child &) {
        umask(0);
        if (dup2(STDIN_FILENO, 9) < 0 || dup2(STDIN_FILENO, 15) < 0 || dup2(STDIN_FILENO, 16) < 0) return 1;
        start_or_die(root, {"/usr/bin/prog", "-TRACE"}, WITH_BOTH);
        fputs("written by hand\n", stderr);
        fputs("lost", stdout);
        if (fcntl(9, F_GETFD) >= 0 || fcntl(15, F_GETFD) >= 0 || fcntl(16, F_GETFD) < 0) return 2;
        if (fcntl(process_context.lockFd, F_GETFD) != FD_CLOEXEC) return 3;
        return process_context.logToFile == 1 && process_context.logReady == 1 ? 0 : 4;
    });
    EXPECT_EQ(ended, "0 ") << "2: descriptors, 3: not close-on-exec";
    EXPECT_TRUE(matches(root.log("prog.log"), {"from the last run\n", form::L, "STARTED at ", form::CTIME, form::T,
                                               "STARTED tracing at ", form::CTIME, "written by hand\n"}));
    EXPECT_EQ(fs::status(root.path("status/prog.1")).permissions(), fs::perms(0664));
}

/* A log or status file that somebody else laid out so that a daemon of root would write elsewhere. */
TEST(StartFiles, AreNotOpenedThroughLinks) {
    for (const auto &[path, result] : {std::pair{"log/prog.log", 11}, {"status/prog.1", 12}}) {
        for (const std::string kind : {"symbolic", "dangling", "hard", "fifo"}) {
            const bool only_for_root = kind == "hard" || kind == "fifo";
            if (only_for_root && getuid() != 0) continue;
            const RootFolder root;
            root.write("victim", "precious");
            if (kind == "symbolic") fs::create_symlink(root.path("victim"), root.path(path));
            if (kind == "dangling") fs::create_symlink(root.path("planted"), root.path(path));
            if (kind == "hard") fs::create_hard_link(root.path("victim"), root.path(path));
            const int piped = kind == "fifo" ? mkfifo(root.path(path).c_str(), 0666) : 0;
            ASSERT_EQ(piped, 0);
            Child child([&](Child &) { return -start({"prog", "-VELROOT", root.path()}, WITH_BOTH); });
            EXPECT_EQ(child.exit_code(), result) << path << " " << kind;
            EXPECT_EQ(root.read("victim"), "precious");
            EXPECT_FALSE(fs::exists(root.path("planted")));
        }
    }
}

}  // namespace
