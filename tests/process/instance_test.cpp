/* Instance slots and the daemon form: who holds which status file, and how a process leaves its terminal. */
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>

#include "process/owned.h"
#include "tests/process/start.h"
#include "tests/support/logwatch.h"

namespace fs = std::filesystem;

namespace {

class InstanceSlots : public testing::Test {
protected:
    const RootFolder root;
    std::string status(int slot) const { return root.read("status/prog." + std::to_string(slot)); }
    void expect_held(const std::string &file, const Child &holder, const std::string &behind = "") const {
        EXPECT_TRUE(matches(root.read("status/" + file), {eight_digits(holder.pid()), " ", form::CTIME, behind}));
        EXPECT_TRUE(is_locked_by(root.path("status/" + file), holder.pid())) << file;
    }
};

TEST_F(InstanceSlots, AreTakenInOrderForEachNameUpToTheLimit) {
    const auto hold = [&](const char *name) {
        return [&, name](Child &self) { return hold_slot(self, root, name); };
    };
    Child first(hold("prog"));
    ASSERT_EQ(first.next_report(), "ready");
    Child second(hold("prog"));
    ASSERT_EQ(second.next_report(), "ready");
    Child other(hold("another"));
    ASSERT_EQ(other.next_report(), "ready");
    expect_held("prog.1", first);
    expect_held("prog.2", second);
    expect_held("another.1", other);
    EXPECT_EQ(fs::status(root.path("log/another.log")).permissions(), fs::perms(0664))
        << "none is written, but it exists";

    EXPECT_EQ(outcome([&](Child &) {
                  return -start({"prog", "-VELROOT", root.path()}, {.log = 1, .processes = 2});
              }),
              "13 ");
    EXPECT_TRUE(without_mail(root.log("prog.log")).ends_with("ETEXT=Already 2 process(es) with this name running!\n"))
        << root.log("prog.log");
    EXPECT_FALSE(fs::exists(root.path("status/prog.3")));

    first.signal(SIGKILL);
    ASSERT_EQ(first.exit_code(), -SIGKILL);
    EXPECT_EQ(status(1).substr(0, 8), eight_digits(first.pid())) << "a crash leaves the text";
    root.write("status/prog.1", status(1) + "remark of an operator\n");
    Child next(hold("prog"));
    ASSERT_EQ(next.next_report(), "ready");
    expect_held("prog.1", next, "remark of an operator\n");
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
        const OwnedBlock<char> directory(get_current_dir_name());
        for (const pid_t id : {getpid(), getpgrp()}) self.report(std::to_string(id));
        self.report(std::string(directory.get()) + " " + std::to_string(umask(0)));
        const time_t end = time(nullptr) + 60;  // if the test itself comes to an end before
        while (process_context.running && time(nullptr) < end) usleep(20000);
        process_exit(0);
    });
    const pid_t daemon = std::stoi("0" + starter.next_report());
    const pid_t group = std::stoi("0" + starter.next_report());
    ASSERT_GT(daemon, 1);
    ASSERT_GT(group, 1);
    EXPECT_EQ(starter.next_report(), "/ 0");
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

/** User, groups and supplementary groups, as the system shows them. */
std::string rights_now() {
    std::ifstream source("/proc/self/status");
    std::string rights;
    for (std::string line; std::getline(source, line);) {
        if (line.starts_with("Uid:") || line.starts_with("Gid:") || line.starts_with("Groups:"))
            rights.append(line) += " ";
    }
    return rights;
}

TEST_F(InstanceSlots, RootRightsGoWithAllGroupsAndTheFilesChangeHands) {
    const passwd *nobody = getpwnam("nobody");
    const group *named = nobody != nullptr ? getgrgid(nobody->pw_gid) : nullptr;
    if (getuid() != 0 || named == nullptr) GTEST_SKIP() << "needs root and the user nobody";
    const std::string uid = std::to_string(nobody->pw_uid), gid = std::to_string(nobody->pw_gid);
    const std::string group_name = named->gr_name;
    for (const auto &[options, group_line] :
         {std::pair{Strings{"prog", "-setusername", "nobody"}, "Running as group " + gid + "\n"},
          {{"prog", "-setusernamenobody", "-setgroupname" + group_name},
           "Running as group " + gid + " " + group_name + "\n"}}) {
        const RootFolder own;
        Child child([&, given = options](Child &self) {
            const gid_t roots[] = {0, 1, 2};
            if (setgroups(3, roots) != 0) return 1;
            start_or_die(own, given, {.log = 1, .processes = 1});
            process_set_user();
            self.report(rights_now());
            return 0;
        });
        EXPECT_TRUE(matches(child.next_report(), {"Uid:(\t", uid, "){4} Gid:(\t", gid, "){4} Groups:\\s*"}));
        EXPECT_EQ(child.exit_code(), 0);
        for (const char *file : {"log/prog.log", "status/prog.1"}) {
            struct stat found {};
            stat(own.path(file).c_str(), &found);
            EXPECT_EQ(found.st_uid, nobody->pw_uid) << file;
            EXPECT_EQ(found.st_gid, named->gr_gid) << file;
        }
        EXPECT_TRUE(matches(own.log("prog.log"), {form::L, "STARTED at ", form::CTIME, form::L, group_line, form::L,
                                                  "Running as user ", uid, " nobody\n"}));
    }
}

TEST_F(InstanceSlots, WithoutRootRightsThereIsNothingToGiveUp) {
    EXPECT_EQ(outcome([&](Child &) {
                  if (getuid() == 0 && setuid(getpwnam("nobody")->pw_uid) != 0) return 77;
                  start_or_die(root, {"prog", "-setusername", "root", "-setgroupname", "root"});
                  process_set_user();
                  return 0;
              }),
              "0 ");
}

}  // namespace
