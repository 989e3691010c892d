/* How a process leaves the terminal it was started from, and how it takes its instance slot.
 *
 * A slot is a status file under a write lock. The lock alone says that the slot is taken; the text in the file is
 * for operators. The lock falls with the first close of any descriptor of the file, so the process opens its own
 * status file once and works through process_context.lockFd from then on. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "process/processi.h"

using namespace process;

namespace {

struct IgnoredSignal {
    int number;
    const char *name;
};

constexpr IgnoredSignal terminal_signals[] = {
    {SIGTTOU, "SIGTTOU"},
    {SIGTTIN, "SIGTTIN"},
    {SIGTSTP, "SIGTSTP"},
};

bool stays_in_foreground(int argc, char **argv) {
    for (int i = 0; i < argc; i++) {
        const bool asked = argv[i] != nullptr && (strcmp(argv[i], "-D") == 0 || strcmp(argv[i], "-debug") == 0);
        if (asked) return true;
    }
    return false;
}

int ignore(const IgnoredSignal &which) {
    if (signal(which.number, SIG_IGN) != SIG_ERR) return 0;
    process_error("signal( %s, SIG_IGN ) failed!\n", which.name);
    return PROCESSERRSIGNAL;
}

/** Goes on in the child; the parent ends here. */
int go_on_in_child(const char *which) {
    const pid_t child = fork();
    if (child < 0) {
        process_error("%s fork failed! errmsg: %s!\n", which, strerror(errno));
        return PROCESSERRFORK;
    }
    if (child > 0) exit(0);
    return 0;
}

int lead_own_group() {
    if (setpgid(0, getpid()) == 0) return 0;
    process_error("setpgid( 0, %lu ) failed! errmsg: %s!\n", static_cast<unsigned long>(getpid()), strerror(errno));
    return PROCESSERRPGID;
}

void give_up_terminal() {
    const OwnedFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC));
    if (terminal.is_open()) ioctl(terminal.get(), TIOCNOTTY, nullptr);
}

bool lock_whole_file(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock) == 0;
}

/** Writes a status text over the start of the file. Both forms show a process id in eight digits. */
bool write_status(int fd, unsigned long processId, const TimeText &now) {
    char text[128];
    const int length = snprintf(text, sizeof text, "%08lu %s", processId, now.text);
    errno = 0;  // a short write leaves it alone
    return pwrite(fd, text, static_cast<size_t>(length), 0) == length;
}

/** The process id that the status file shows, 0 for none. */
long shown_process_id(int fd) {
    char text[PATH_SIZE];
    const ssize_t length = pread(fd, text, sizeof text - 1, 0);
    text[length > 0 ? length : 0] = '\0';
    text[strcspn(text, " ")] = '\0';
    return strtol(text, nullptr, 10);
}

enum class Slot { TAKEN, NOT_FREE, BROKEN };

Slot try_slot(int slot) {
    char path[STATUS_PATH_SIZE];
    snprintf(path, sizeof path, "%s%s%s%s.%d", process_context.rootDir, "/status", "/", process_context.name, slot);

    OwnedFd status = open_guarded(path, O_RDWR);
    if (!status.is_open()) {
        if (errno == EAGAIN) return Slot::NOT_FREE;
        process_error("Cannot open or create file %s ! errmsg: %s!\n", path, strerror(errno));
        return Slot::BROKEN;
    }
    if (!lock_whole_file(status.get())) return Slot::NOT_FREE;

    process_context.lockFd = status.release();
    if (!write_status(process_context.lockFd, static_cast<unsigned long>(getpid()), TimeText(time(nullptr)))) {
        process_error("Could not write to the lock file %s! errmsg: %s\n", path, strerror(errno));
    }
    return Slot::TAKEN;
}

}  // namespace

int process_daemonize(int argc, char **argv) {
    if (stays_in_foreground(argc, argv)) return 0;

    int result = 0;
    for (const IgnoredSignal &which : terminal_signals) {
        if ((result = ignore(which)) != 0) return result;
    }
    if ((result = go_on_in_child("first")) != 0) return result;
    if ((result = lead_own_group()) != 0) return result;
    give_up_terminal();
    if ((result = ignore({SIGHUP, "SIGHUP"})) != 0) return result;
    if ((result = go_on_in_child("second")) != 0) return result;
    learn_time_zone();  // the handlers print
    if ((result = install_daemon_handlers()) != 0) return result;

    [[maybe_unused]] const int ignored = chdir("/");  // so that no file system is kept busy; paths are full ones
    umask(0);
    return 0;
}

int process::take_instance_slot(int maxProcesses, const char *logPath) {
    OwnedFd log;  // leaves a log file behind even for a program that has no log of its own
    for (int slot = 1; slot <= maxProcesses; slot++) {
        if (!log.is_open()) log = open_guarded(logPath, O_WRONLY);
        const Slot outcome = try_slot(slot);
        if (outcome == Slot::TAKEN) return 0;
        if (outcome == Slot::BROKEN) return PROCESSERRSTATUS;
    }
    if (maxProcesses <= 0) return 0;
    process_error("Already %d process(es) with this name running!\n", maxProcesses);
    return PROCESSERRINSTANCE;
}

void process::release_instance_slot(const TimeText &now) {
    OwnedFd status(process_context.lockFd);
    if (!status.is_open()) return;

    const bool is_ours = shown_process_id(status.get()) == getpid();
    if (is_ours && !write_status(status.get(), 0, now)) {
        process_log("Could not write to the lock file! errmsg: %s\n", strerror(errno));
    }
    process_context.lockFd = -1;
}
