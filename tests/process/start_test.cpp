/* Start of a process: which options are taken, which failures are told how, what becomes of the descriptors. */
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>

#include "tests/process/start.h"

namespace fs = std::filesystem;

namespace {

std::string shown(const char *text) { return text != nullptr ? text : "-"; }

TEST(StartOptions, AreTakenOutOfTheVectorOrStay) {
    struct Row {
        Strings given;
        const char *left, *user, *group, *bind;
        const char *flags;  // P: PACKETDIAG, N: NOACCESSKEYCHECK, T: TRACE, V: VERBOSE, H: HARDEN
    };
    const Row rows[] = {
        {{"a", "b"}, "prog a b", "-", "-", "-", ""},
        {{"-BINDIP", "10.0.0.1", "a"}, "prog a", "-", "-", "10.0.0.1", ""},
        {{"a", "-BINDIP"}, "prog a -BINDIP", "-", "-", "-", ""},
        {{"-BINDIP", "x", "-BINDIP", "y"}, "prog", "-", "-", "y", ""},
        {{"-PACKETDIAG", "-NOACCESSKEYCHECK", "-BINDIP", "z", "-PACKETDIAG", "a"}, "prog a", "-", "-", "z", "PN"},
        {{"-TRACE", "a", "-VERBOSE"}, "prog -TRACE a -VERBOSE", "-", "-", "-", "TV"},
        {{"-TRACE1", "-VERBOS", "-PACKETDIAGX", "-bindip", "a"},
         "prog -TRACE1 -VERBOS -PACKETDIAGX -bindip a",
         "-",
         "-",
         "-",
         ""},
        {{"-setusernamebob", "-setgroupnamestaff"},
         "prog -setusernamebob -setgroupnamestaff",
         "bob",
         "staff",
         "-",
         ""},
        {{"-setusername", "bob", "-setgroupname", "staff"},
         "prog -setusername bob -setgroupname staff",
         "bob",
         "staff",
         "-",
         ""},
        {{"-setusername", "-TRACE"}, "prog -setusername -TRACE", "-TRACE", "-", "-", "T"},
        {{"-setusername", "-BINDIP", "10.1.1.1"}, "prog -setusername", "-BINDIP", "-", "10.1.1.1", ""},
        {{"-VERBOSE", "-setgroupname"}, "prog -VERBOSE -setgroupname", "-", "-", "-", "V"},
        {{"-HARDEN", "a", "-HARDENED", "-harden"}, "prog a -HARDENED -harden", "-", "-", "-", "H"},
        {{"-D", "-debug"}, "prog -D -debug", "-", "-", "-", ""},
    };
    for (const Row &row : rows) {
        Child child([&](Child &self) {
            setenv("VELROOT", "/from/environment", 1);
            Strings all{"/usr/bin/prog"};
            all.insert(all.end(), row.given.begin(), row.given.end());
            Arguments arguments(all);
            const int before = arguments.count;
            const int result = process_init(&arguments.count, arguments.vector.data(), 0, 0, 0);
            const PROCESS_S &context = process_context;
            arguments.vector[0] = context.name;
            self.report(arguments.left());
            self.report(shown(context.userName) + " " + shown(context.groupName) + " " + shown(context.bindIp));
            self.report(std::string(context.packetDiag ? "P" : "") + (context.noAccessKeyCheck ? "N" : "") +
                        (context.trace ? "T" : "") + (context.verbose ? "V" : "") + (context.hardened ? "H" : ""));
            self.report(shown(context.rootDir));
            for (int i = arguments.count; i <= before; i++) {
                if (arguments.vector[i] != nullptr && i == arguments.count) return 50;  // the end must be marked
            }
            return result;
        });
        SCOPED_TRACE(row.left);
        EXPECT_EQ(child.next_report(), row.left);
        EXPECT_EQ(child.next_report(), std::string(row.user) + " " + row.group + " " + row.bind);
        EXPECT_EQ(child.next_report(), row.flags);
        EXPECT_EQ(child.next_report(), "/from/environment");
        EXPECT_EQ(child.exit_code(), 0);
    }
}

TEST(StartOptions, RootOfTheVectorBeatsTheEnvironmentAndANullCountLooksAtNothing) {
    Child given([](Child &self) {
        setenv("VELROOT", "/from/environment", 1);
        const int result = start({"prog", "-VELROOT", "/from/option"});
        self.report(process_context.rootDir);
        return result;
    });
    EXPECT_EQ(given.next_report(), "/from/option");
    Child uncounted([](Child &self) {
        setenv("VELROOT", "/from/environment", 1);
        Arguments arguments({"prog", "-TRACE", "-VELROOT", "/from/option"});
        const int result = process_init(nullptr, arguments.vector.data(), 0, 0, 0);
        self.report(std::string(process_context.rootDir) + (process_context.trace ? " traced" : ""));
        return result;
    });
    EXPECT_EQ(uncounted.next_report(), "/from/environment");
}

TEST(StartOptions, HardeningComesFromTheEnvironmentTooWhichIsReadOnce) {
    const std::pair<const char *, const char *> rows[] = {{"1", "11"}, {"0", "00"}, {"10", "00"}, {"", "00"}};
    for (const auto &[value, expected] : rows) {
        Child child([&](Child &self) {
            setenv("VELHARDEN", value, 1);
            const int result = start({"prog", "-VELROOT", "/nowhere"});
            const int first = process_context.hardened;
            setenv("VELHARDEN", *value == '1' ? "0" : "1", 1);
            process_harden_by_environment();
            self.report(std::to_string(first) + std::to_string(process_context.hardened));
            return result;
        });
        EXPECT_EQ(child.next_report(), expected) << value;
    }
}

TEST(StartContext, IsReadyForWork) {
    Child child([](Child &self) {
        process_context.hold = process_context.exitCode = 9;
        const time_t before = time(nullptr);
        const int result = start({"prog", "-VELROOT", "/nowhere"});
        const PROCESS_S &context = process_context;
        self.report(std::to_string(context.running) + std::to_string(context.hold) +
                    std::to_string(context.exitCode) + " " + std::to_string(context.mode) + " " +
                    std::to_string(context.lockFd) + " " + std::to_string(context.logToFile) +
                    std::to_string(context.logReady));
        return result != 0 || context.traceStream != stderr || context.startTime < before;
    });
    EXPECT_EQ(child.next_report(), "100 2 -1 00");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(StartFailure, WithoutARootIsToldOnStandardOutput) {
    Child child([](Child &) {
        unsetenv("VELROOT");
        return -start({"bin/prog", "-VELROOT"});
    });
    EXPECT_EQ(child.exit_code(), 10);
    EXPECT_EQ(child.output(), "prog: Environment variable VELROOT not set!\n");
}

TEST(StartFailure, OfTheSecondCallIsSilent) {
    Child child([](Child &) {
        if (start({"prog", "-VELROOT", "/nowhere"}) != 0) return 1;
        return -start({"prog", "-TRACE"});
    });
    EXPECT_EQ(child.exit_code(), 13);
    EXPECT_EQ(child.output(), "");
}

TEST(StartFailure, OfLogOrStatusFileNamesThePath) {
    RootFolder root;
    fs::remove_all(root.path("status"));
    Child status([&](Child &) { return -start({"prog", "-VELROOT", root.path()}, {.log = 1, .processes = 1}); });
    EXPECT_EQ(status.exit_code(), 12);
    const std::string failure = "Cannot open or create file " + root.path();
    EXPECT_TRUE(without_mail(root.log("prog.log"))
                    .ends_with("ETEXT=" + failure + "/status/prog.1 ! errmsg: No such file or directory!\n"))
        << root.log("prog.log");

    fs::remove_all(root.path("log"));
    Child log([&](Child &) { return -start({"prog", "-VELROOT", root.path()}, {.log = 1}); });
    EXPECT_EQ(log.exit_code(), 11);
    EXPECT_EQ(log.output(), "prog: " + failure + "/log/prog.log ! errmsg: No such file or directory!\n");
}

TEST(StartFailure, OfALongPathComesAtTheExactLength) {
    RootFolder root;
    struct Row {
        int lengthOfBoth, result;
        bool logged;
    };
    for (const Row &row : {Row{1012, 0, true}, Row{1013, 14, true}, Row{1014, 14, false}}) {
        std::string deep = root.path();
        while (static_cast<int>(deep.size()) < row.lengthOfBoth - 4) {
            const size_t missing = row.lengthOfBoth - 4 - deep.size();
            deep += "/" + std::string(missing > 250 ? 200 : missing - 1, 'd');
        }
        fs::create_directories(deep + "/log");
        fs::create_directories(deep + "/status");
        Child child([&](Child &) { return -start({"prog", "-VELROOT", deep}, {.log = 1, .processes = 1}); });
        SCOPED_TRACE(row.lengthOfBoth);
        EXPECT_EQ(child.exit_code(), row.result);
        EXPECT_EQ(fs::exists(deep + "/log/prog.log"), row.logged);
        if (!row.logged) {
            EXPECT_EQ(child.output(), "prog: Path names too long ! rootdir " + deep + " name prog\n");
        }
    }
}

TEST(StartLog, TakesStandardErrorAndDropsLowDescriptors) {
    RootFolder root;
    root.write("log/prog.log", "from the last run\n");
    Child child([&](Child &self) {
        umask(0);
        if (dup2(STDIN_FILENO, 9) < 0 || dup2(STDIN_FILENO, 15) < 0 || dup2(STDIN_FILENO, 16) < 0) return 1;
        start_or_die(root, {"prog"}, {.log = 1, .processes = 1});
        fputs("written by hand\n", stderr);
        fputs("lost", stdout);
        const bool closed = fcntl(9, F_GETFD) < 0 && fcntl(15, F_GETFD) < 0 && fcntl(16, F_GETFD) >= 0;
        const bool secured = (fcntl(process_context.lockFd, F_GETFD) & FD_CLOEXEC) != 0;
        self.report(closed ? "closed" : "open");
        self.report(secured ? "close-on-exec" : "inherited");
        return process_context.logToFile == 1 && process_context.logReady == 1 ? 0 : 2;
    });
    EXPECT_EQ(child.next_report(), "closed");
    EXPECT_EQ(child.next_report(), "close-on-exec");
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_EQ(child.output(), "");
    EXPECT_TRUE(matches(root.log("prog.log"),
                        "from the last run\n" + form::L + "STARTED at " + form::CTIME + "written by hand\n"));
    EXPECT_EQ(fs::status(root.path("status/prog.1")).permissions(), fs::perms(0664));
}

TEST(StartLog, IsNamedAfterTheProgram) {
    struct Row {
        const char *program, *file;
    };
    for (const Row &row : {Row{"/usr/bin/prog", "prog.log"}, Row{"raserver.4000", "raserver.4000"}}) {
        RootFolder root;
        Child child([&](Child &) {
            umask(0);
            start_or_die(root, {row.program, "-TRACE"}, {.log = 1});
            return 0;
        });
        EXPECT_EQ(child.exit_code(), 0);
        EXPECT_TRUE(matches(root.log(row.file),
                            {form::L, "STARTED at ", form::CTIME, form::T, "STARTED tracing at ", form::CTIME}));
        EXPECT_EQ(fs::status(root.path(std::string("log/") + row.file)).permissions(), fs::perms(0664));
    }
}

/* A log or status file that somebody else laid out so that a daemon of root would write elsewhere. */
TEST(StartFiles, AreNotOpenedThroughLinks) {
    struct Row {
        const char *path;
        int result;
    };
    for (const Row &row : {Row{"log/prog.log", 11}, Row{"status/prog.1", 12}}) {
        for (const char *kind : {"symbolic", "dangling", "hard", "fifo"}) {
            const std::string what = kind;
            const bool onlyForRoot = what == "hard" || what == "fifo";
            if (onlyForRoot && getuid() != 0) continue;
            RootFolder root;
            root.write("victim", "precious");
            if (what == "symbolic") fs::create_symlink(root.path("victim"), root.path(row.path));
            if (what == "dangling") fs::create_symlink(root.path("planted"), root.path(row.path));
            if (what == "hard") fs::create_hard_link(root.path("victim"), root.path(row.path));
            if (what == "fifo" && mkfifo(root.path(row.path).c_str(), 0666) != 0) FAIL() << "no fifo";
            Child child([&](Child &) {
                return -start({"prog", "-VELROOT", root.path()}, {.log = 1, .processes = 1});
            });
            SCOPED_TRACE(std::string(row.path) + " " + kind);
            EXPECT_EQ(child.exit_code(std::chrono::seconds(5)), row.result);
            EXPECT_EQ(root.read("victim"), "precious");
            EXPECT_FALSE(fs::exists(root.path("planted")));
        }
    }
}

TEST(StopSignals, ClearTheRunningFlagAndInterrupt) {
    for (const int number : {SIGTERM, SIGINT}) {
        Child child([&](Child &self) {
            if (start({"prog", "-VELROOT", "/nowhere"}) != 0) return 1;
            self.report("ready");
            while (process_context.running) {
                if (pause() == 0 || errno != EINTR) return 2;
            }
            return 42;
        });
        ASSERT_EQ(child.next_report(), "ready");
        for (int i = 0; i < 500 && child.exit_code(std::chrono::milliseconds(10)) == -1000; i++) child.signal(number);
        EXPECT_EQ(child.exit_code(), 42);
    }
}

}  // namespace
