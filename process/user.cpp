/* How a process gives up root rights. In a file of its own: the names of users and groups are looked up through the
 * C library's loadable modules, which a program that stays who it is shall not have to bring along. */
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <unistd.h>

#include "process/processi.h"

namespace {

/** Whom the process is to run as; 0 means no change. */
struct Identity {
    uid_t user = 0;
    gid_t group = 0;
    bool is_known = true;  // what was asked for was found
};

Identity wanted_identity() {
    Identity wanted;
    if (process_context.userName != nullptr) {
        const struct passwd *entry = getpwnam(process_context.userName);
        wanted.is_known = entry != nullptr;
        if (entry != nullptr) wanted = {entry->pw_uid, entry->pw_gid, true};
    }
    if (process_context.groupName != nullptr) {
        const struct group *entry = getgrnam(process_context.groupName);
        if (entry != nullptr) wanted.group = entry->gr_gid;
        // With a known user the rights of root go all the same, and its own group serves.
        if (entry == nullptr && wanted.user == 0) wanted.is_known = false;
    }
    return wanted;
}

/** The log and the status file go over to the user. One that stays root's is still written through its descriptor:
 *  no reason to stop. */
void hand_over_files(const Identity &owner) {
    const gid_t group = owner.group != 0 ? owner.group : static_cast<gid_t>(-1);
    const int files[] = {process_context.lockFd, process_context.logToFile ? STDERR_FILENO : -1};
    for (const int fd : files) {
        [[maybe_unused]] const int ignored = fd >= 0 ? fchown(fd, owner.user, group) : 0;
    }
}

[[noreturn]] void end_with_rights_kept(const char *what) {
    process_error("process_set_user: %s failed! errmsg: %s!\n", what, strerror(errno));
    process_exit(-1);
}

void change_group(gid_t group) {
    if (process_context.groupName != nullptr) {
        process_log("Running as group %d %s\n", static_cast<int>(group), process_context.groupName);
    } else {
        process_log("Running as group %d\n", static_cast<int>(group));
    }
    if (setgid(group) != 0 || getegid() != group) end_with_rights_kept("setgid");
}

void change_user(uid_t user) {
    process_log("Running as user %d %s\n", static_cast<int>(user), process_context.userName);
    if (setuid(user) != 0) end_with_rights_kept("setuid");
    if (setuid(0) == 0) {  // the way back must be closed
        errno = EPERM;
        end_with_rights_kept("setuid");
    }
}

}  // namespace

void process_set_user(void) {
    if (getuid() != 0) return;

    const Identity wanted = wanted_identity();
    if (!wanted.is_known) {
        errno = ENOENT;
        end_with_rights_kept("look-up of user or group");
    }
    if (wanted.user != 0) hand_over_files(wanted);
    const bool changes = wanted.user != 0 || wanted.group != 0;
    if (changes && setgroups(0, nullptr) != 0) end_with_rights_kept("setgroups");
    if (wanted.group != 0) change_group(wanted.group);
    if (wanted.user != 0) change_user(wanted.user);
}
