/* The log file: its path, how it is opened safely, how it becomes standard error, at the start and after each
 * rotation, and its dated copy. What stands in it is the printers' affair.
 *
 * Reopening goes on in a signal handler too: system calls and printers only, no stream and no memory. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "process/processi.h"

namespace {

constexpr mode_t FILE_MODE = 0664;
constexpr int LAST_INHERITED = 15;  // descriptors above are not looked for

/** dup2 that also leaves the target open across exec when source and target are the same descriptor. */
bool move_to(OwnedFd &source, int target) {
    if (source.get() != target) return dup2(source.get(), target) >= 0;
    source.release();
    return fcntl(target, F_SETFD, 0) == 0;
}

const char *text_or_none(const char *text) { return text != nullptr ? text : ""; }

/** Checks that the root directory, a name and what a path adds to them fit into a path's room. */
bool fits_into_path(const char *name, size_t added) {
    const char *root = text_or_none(process_context.rootDir);
    if (strlen(root) + strlen(name) + added < process::PATH_SIZE) return true;
    process_error("Path names too long ! rootdir %s name %s\n", root, name);
    return false;
}

bool is_plain_file(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return false;
    if (!S_ISREG(status.st_mode)) {
        errno = EPERM;
        return false;
    }
    if (status.st_nlink != 1) {
        errno = EMLINK;
        return false;
    }
    return true;
}

/** Standard error can't be had any more: what is left to say goes straight to the new file. */
void tell_lost_stderr(int fd, int cause) {
    constexpr char text[] = "Got a SIGHUP, but could not dup2 to stderr, going down\n";
    const char *const reason = process::error_text(cause);
    for (const char *part : {text, reason, text}) {
        [[maybe_unused]] const ssize_t ignored = write(fd, part, strlen(part));
    }
}

/** Makes the file at the path standard error, and says so in its first line: signals are held back, so that no
 *  handler writes a line before it, nor reopens the log between the two steps. False: standard error is lost. */
bool change_over(const char *path) {
    const process::HeldSignals held;
    // O_NONBLOCK: a pipe that nobody reads must not hold us up now that no signal can end the wait
    OwnedFd log = process::open_guarded(path, O_WRONLY | O_APPEND | O_NONBLOCK);
    if (!log.is_open()) {
        process_error("Tried to reopen log file. But open %s failed! errmsg %s\n", path, process::error_text(errno));
        return true;
    }
    fcntl(log.get(), F_SETFL, O_APPEND);
    if (!move_to(log, STDERR_FILENO)) {
        tell_lost_stderr(log.get(), errno);
        return false;
    }
    log.reset();
    const process::TimeText since(process_context.startTime);
    process_log("STARTED new log, running since %s", since.text);
    if (process_context.trace) process_trace("STARTED new log, trace is on.\n");
    return true;
}

constexpr char COPY_NAME[] = "ch123456.log";  // the form of a copy's name, and its length
constexpr int COPY_BLOCK = 16384;
enum { NO_COPY = -1, NO_SEEK = -2, COPY_BROKEN = -3 };

void build_copy_path(char (&path)[process::PATH_SIZE]) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    const process::Calendar today = process::local_calendar(now.tv_sec);
    snprintf(path, sizeof path, "%s%s%sch%02d%02d%02d.log", text_or_none(process_context.rootDir), "/log", "/",
             today.year % 100, today.month, today.day);
}

/** Copies what is left to read. 0, or the code of the failure. */
int copy_rest(int fd, int copy, const char *path) {
    char block[COPY_BLOCK];
    for (;;) {
        const ssize_t got = read(fd, block, sizeof block);
        if (got == 0) return 0;
        if (got < 0) {
            process_error("process_log_reopen: Read %s, %d bytes failed, %s\n", path, COPY_BLOCK, strerror(errno));
            return COPY_BROKEN;
        }
        errno = 0;  // a short write leaves it alone
        if (write(copy, block, static_cast<size_t>(got)) < got) {
            process_error("process_log_reopen: Write %s, %d bytes failed, %s\n", path, static_cast<int>(got),
                          strerror(errno));
            return COPY_BROKEN;
        }
    }
}

}  // namespace

void process::build_log_path(char (&path)[PATH_SIZE]) {
    const char *name = text_or_none(process_context.name);
    const char *ending = strchr(name, '.') == nullptr ? ".log" : "";
    snprintf(path, sizeof path, "%s%s%s%s%s", text_or_none(process_context.rootDir), "/log", "/", name, ending);
}

OwnedFd process::open_guarded(const char *path, int flags) {
    const bool is_root = geteuid() == 0;
    const int patience = is_root ? O_NONBLOCK : 0;  // a pipe in the file's place must not hold us up
    OwnedFd file(open(path, flags | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | patience, FILE_MODE));
    if (!file.is_open() || !is_root) return file;
    if (!is_plain_file(file.get())) return {};
    fcntl(file.get(), F_SETFL, flags & O_APPEND);
    return file;
}

int process::redirect_output(const char *logPath) {
    fflush(stdout);  // what the program has said so far goes where it was meant to go
    OwnedFd log = open_guarded(logPath, O_WRONLY | O_APPEND);
    if (!log.is_open()) {
        process_error("Cannot open or create file %s ! errmsg: %s!\n", logPath, strerror(errno));
        return PROCESSERRLOG;
    }
    if (!move_to(log, STDERR_FILENO)) {
        process_error("Cannot dup2 stderr ! errmsg: %s!\n", strerror(errno));
        return PROCESSERRDUP;
    }
    log.reset();  // before the next open: it may stand on descriptor 0 or 1 if the starter closed those

    OwnedFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (nowhere.is_open() && !move_to(nowhere, STDOUT_FILENO)) {
        process_error("Cannot dup2 stdout ! errmsg: %s!\n", strerror(errno));
        return PROCESSERRDUP;
    }
    nowhere.reset();

    for (int fd = STDERR_FILENO + 1; fd <= LAST_INHERITED; fd++) close(fd);
    process_context.logToFile = 1;
    process_context.logReady = 1;
    return 0;
}

/* The messages of process_log_copy bear the name of its neighbour: this is meant, log readers know them so. */
int process_log_copy(int fd) {
    if (!fits_into_path(COPY_NAME, sizeof "/log/" - 1)) return PROCESSERRPATH;
    char path[process::PATH_SIZE];
    build_copy_path(path);
    process_log("Copying log file to %s!\n", path);

    const OwnedFd copy = process::open_guarded(path, O_WRONLY | O_APPEND);
    if (!copy.is_open()) {
        process_error("process_log_reopen: Could not open %s, %s\n", path, strerror(errno));
        return NO_COPY;
    }
    if (lseek(fd, 0, SEEK_SET) < 0) {
        process_error("process_log_reopen: Could not seek in logfile, %s\n", strerror(errno));
        return NO_SEEK;
    }
    return copy_rest(fd, copy.get(), path);
}

int process_log_reopen() {
    if (!fits_into_path(text_or_none(process_context.name), sizeof "/log/" + sizeof ".log" - 1))
        return PROCESSERRPATH;
    char path[process::PATH_SIZE];
    process::build_log_path(path);
    process_log("Reopening log file %s!\n", path);
    if (!process_context.logToFile) {
        process_log("Cannot reopen log file, not a file!\n");
        return 0;
    }
    if (!change_over(path)) process_exit(-1);  // in a handler too: there is nowhere left to report to
    return 0;
}
