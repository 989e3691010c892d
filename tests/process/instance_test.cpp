/* Instance slots and the daemon form: who holds which status file, and how a process leaves its terminal. */
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <filesystem>

#include "process/owned.h"
#include "tests/process/start.h"
#include "tests/support/logwatch.h"

namespace fs = std::filesystem;

namespace {

class InstanceSlots : public testing::Test {
protected:
    RootFolder root;
    std::string status(int slot) const { return root.read("status/prog." + std::to_string(slot)); }
};

TEST_F(InstanceSlots, AreTakenInOrderAndShownInTheStatusFile) {
    Child first([&](Child &self) { return hold_slot(self, root, "prog"); });
    ASSERT_EQ(first.next_report(), "ready");
    Child second([&](Child &self) { return hold_slot(self, root, "prog"); });
    ASSERT_EQ(second.next_report(), "ready");
    EXPECT_TRUE(matches(status(1), eight_digits(first.pid()) + " " + form::CTIME));
    EXPECT_TRUE(matches(status(2), eight_digits(second.pid()) + " " + form::CTIME));
    EXPECT_TRUE(is_locked_by(root.path("status/prog.1"), first.pid()));
    EXPECT_TRUE(is_locked_by(root.path("status/prog.2"), second.pid()));

    Child other([&](Child &self) { return hold_slot(self, root, "another"); });
    ASSERT_EQ(other.next_report(), "ready");
    EXPECT_TRUE(is_locked_by(root.path("status/another.1"), other.pid())) << "slots are counted for each name";
    EXPECT_TRUE(fs::exists(root.path("log/another.log"))) << "a log file exists even where none is written";
}

TEST_F(InstanceSlots, OfAKilledProcessIsTakenAgain) {
    Child first([&](Child &self) { return hold_slot(self, root, "prog"); });
    ASSERT_EQ(first.next_report(), "ready");
    first.signal(SIGKILL);
    ASSERT_EQ(first.exit_code(), -SIGKILL);
    EXPECT_EQ(status(1).substr(0, 8), eight_digits(first.pid())) << "a crash leaves the text";

    Child next([&](Child &self) { return hold_slot(self, root, "prog"); });
    ASSERT_EQ(next.next_report(), "ready");
    EXPECT_EQ(status(1).substr(0, 8), eight_digits(next.pid()));
    EXPECT_TRUE(is_locked_by(root.path("status/prog.1"), next.pid()));
}

TEST_F(InstanceSlots, StaleFileIsReusedAndNotCut) {
    root.write("status/prog.1", "00000001 Thu Jan  1 00:00:00 1970\nremark of an operator\n");
    Child child([&](Child &self) { return hold_slot(self, root, "prog"); });
    ASSERT_EQ(child.next_report(), "ready");
    EXPECT_TRUE(matches(status(1), eight_digits(child.pid()) + " " + form::CTIME + "remark of an operator\n"));
}

TEST_F(InstanceSlots, RunOutAtTheLimit) {
    Child first([&](Child &self) { return hold_slot(self, root, "prog"); });
    Child second([&](Child &self) { return hold_slot(self, root, "prog"); });
    ASSERT_EQ(first.next_report(), "ready");
    ASSERT_EQ(second.next_report(), "ready");
    Child third([&](Child &) { return -start({"prog", "-VELROOT", root.path()}, {.log = 1, .processes = 2}); });
    EXPECT_EQ(third.exit_code(), 13);
    EXPECT_TRUE(without_mail(root.log("prog.log")).ends_with("ETEXT=Already 2 process(es) with this name running!\n"))
        << root.log("prog.log");
    EXPECT_FALSE(fs::exists(root.path("status/prog.3")));
}

TEST_F(InstanceSlots, AreLeftAloneByAProgramThatAsksForNone) {
    Child child([&](Child &) {
        start_or_die(root, {"prog"});
        return process_context.lockFd == -1 ? 0 : 1;
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_TRUE(fs::is_empty(root.path("status")));
}

TEST_F(InstanceSlots, DaemonWithoutALimitTakesOneAndDStaysInTheForeground) {
    Child child([&](Child &self) {
        signal(SIGHUP, SIG_DFL);
        start_or_die(root, {"prog", "a", "-D"}, {.daemon = 1});
        struct sigaction hangup {};
        sigaction(SIGHUP, nullptr, &hangup);
        self.report(std::to_string(getpid()) + " " + std::to_string(process_context.mode));
        return hangup.sa_handler == SIG_DFL ? 0 : 1;
    });
    EXPECT_EQ(child.next_report(), std::to_string(child.pid()) + " 1");
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_EQ(status(1).substr(0, 8), eight_digits(child.pid()));
    EXPECT_TRUE(root.log("prog.log").find("STARTED at ") != std::string::npos);
}

TEST_F(InstanceSlots, DStandsAnywhereAlsoAsTheProgramsName) {
    for (const Strings &arguments : {Strings{"-D"}, Strings{"prog", "x", "y", "-debug"}}) {
        Child child([&](Child &self) {
            start_or_die(root, arguments, {.daemon = 1});
            self.report(std::to_string(getpid()));
            return 0;
        });
        EXPECT_EQ(child.next_report(), std::to_string(child.pid()));
        EXPECT_EQ(child.exit_code(), 0);
    }
}

/** Waits for a process that is ours by adoption: its wait status, -1 if it does not end in time. */
int ended(pid_t pid) {
    int status = -1;
    for (int i = 0; i < 2000 && waitpid(pid, &status, WNOHANG) == 0; i++) usleep(5000);
    return status;
}

TEST_F(InstanceSlots, DaemonLeavesTheTerminalAndHoldsTheLockItself) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // so that the daemon is ours to wait for
    Child starter([&](Child &self) -> int {
        umask(022);
        start_or_die(root, {"prog"}, {.daemon = 1});
        struct sigaction hangup {};
        sigaction(SIGHUP, nullptr, &hangup);
        const OwnedBlock<char> directory(get_current_dir_name());
        self.report(std::to_string(getpid()));
        self.report(std::to_string(getpgrp()));
        self.report(std::string(directory.get()) + " " + std::to_string(umask(0)) + " " +
                    (hangup.sa_handler == SIG_DFL ? "dies of SIGHUP" : "stays"));
        const time_t end = time(nullptr) + 60;  // if the test itself comes to an end before
        while (process_context.running && time(nullptr) < end) usleep(20000);
        process_exit(0);
    });
    const pid_t daemon = std::stoi("0" + starter.next_report());
    const pid_t group = std::stoi("0" + starter.next_report());
    ASSERT_GT(daemon, 1);
    ASSERT_GT(group, 1);
    EXPECT_EQ(starter.next_report(), "/ 0 stays");
    EXPECT_EQ(starter.exit_code(), 0) << "the starter ends well at once";
    EXPECT_NE(daemon, starter.pid());
    EXPECT_NE(group, daemon) << "a group leader could get a terminal back";
    EXPECT_NE(group, getpgrp());
    EXPECT_EQ(ended(group), 0) << "the process between them has ended as well";

    EXPECT_TRUE(is_locked_by(root.path("status/prog.1"), daemon));
    EXPECT_EQ(status(1).substr(0, 8), eight_digits(daemon));
    LogWatch log(root.path("log/prog.log"));
    kill(daemon, SIGTERM);
    EXPECT_EQ(ended(daemon), 0);
    EXPECT_TRUE(log.saw("EXITING! exitcode 0 at "));
    EXPECT_EQ(status(1).substr(0, 9), "00000000 ");
}

/* ---- Giving up root rights ---------------------------------------------------------------------------------- */

struct Rights {
    const passwd *user = getpwnam("nobody");
    uid_t uid = user != nullptr ? user->pw_uid : 0;
    gid_t gid = user != nullptr ? user->pw_gid : 0;
};

std::string rights_now() {
    uid_t real, effective, saved;
    gid_t realGroup, effectiveGroup, savedGroup;
    getresuid(&real, &effective, &saved);
    getresgid(&realGroup, &effectiveGroup, &savedGroup);
    std::vector<gid_t> supplementary(64);
    supplementary.resize(static_cast<size_t>(std::max(0, getgroups(64, supplementary.data()))));
    std::erase(supplementary, effectiveGroup);
    struct stat log {
    }, status{};
    fstat(STDERR_FILENO, &log);
    fstat(process_context.lockFd, &status);
    std::string text;
    for (const unsigned number : {real, effective, saved, realGroup, effectiveGroup, savedGroup, log.st_uid,
                                  log.st_gid, status.st_uid, status.st_gid}) {
        text += std::to_string(number) + " ";
    }
    return text + "others " + std::to_string(supplementary.size());
}

TEST_F(InstanceSlots, RootRightsGoWithAllGroupsAndTheFilesChangeHands) {
    const Rights nobody;
    if (getuid() != 0 || nobody.uid == 0 || nobody.gid == 0) GTEST_SKIP() << "needs root and the user nobody";
    const std::string uid = std::to_string(nobody.uid), gid = std::to_string(nobody.gid);
    const group *named = getgrgid(nobody.gid);
    ASSERT_NE(named, nullptr);
    const std::string groupName = named->gr_name;
    struct Row {
        Strings options;
        std::string groupLine;
    };
    const Row rows[] = {
        {{"-setusername", "nobody"}, "Running as group " + gid + "\n"},
        {{"-setusernamenobody", "-setgroupname" + groupName}, "Running as group " + gid + " " + groupName + "\n"}};
    for (const Row &row : rows) {
        RootFolder own;
        Child child([&](Child &self) {
            const gid_t roots[] = {0, 1, 2};
            if (setgroups(3, roots) != 0) return 1;
            Strings arguments{"prog"};
            arguments.insert(arguments.end(), row.options.begin(), row.options.end());
            start_or_die(own, arguments, {.log = 1, .processes = 1});
            process_set_user();
            self.report(rights_now());
            return 0;
        });
        std::string expected;
        for (const std::string &number : {uid, uid, uid, gid, gid, gid, uid, gid, uid, gid}) expected += number + " ";
        EXPECT_EQ(child.next_report(), expected + "others 0");
        EXPECT_EQ(child.exit_code(), 0);
        EXPECT_TRUE(matches(own.log("prog.log"), {form::L, "STARTED at ", form::CTIME, form::L, row.groupLine,
                                                  form::L, "Running as user ", uid, " nobody\n"}));
    }
}

TEST_F(InstanceSlots, WithoutRootRightsThereIsNothingToGiveUp) {
    const Rights nobody;
    Child child([&](Child &) {
        if (getuid() == 0 && setuid(nobody.uid) != 0) return 77;
        if (start({"prog", "-setusername", "root", "-setgroupname", "root", "-VELROOT", "/nowhere"}) != 0) return 1;
        process_set_user();
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_EQ(child.output(), "");
}

}  // namespace
