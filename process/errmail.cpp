/* Error mail: what a daemon reports as an error goes out to the platform's operator too, at most once an hour.
 *
 * bin/chmail below the root directory delivers it, as a child process; here it only gets subject and text. An error
 * may be reported in a signal handler: the parent's part runs with all signals held back, and on both sides of the
 * fork neither locks nor memory are taken, no stream is flushed and no exit hook runs. The hour is measured on a clock
 * that nobody sets. What goes wrong is written to standard error: process_error would come back here. */
#include <errno.h>
#include <linux/close_range.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "process/processi.h"

using namespace process;

namespace {

constexpr time_t HOUR = 3600;
constexpr char TOOL[] = "chmail";
constexpr size_t TEXT_SIZE = 2048;

// Both change only while signals are held back.
time_t last_try = -HOUR;  // so that the first error mails at once, however young the clock
volatile pid_t running_tool = 0;

namespace say {
void not_again() { print_bare("Process_mailout: Not sending a mail again!\n"); }
void paths_too_long() { print_bare("Process_mailout: Paths too long!\n"); }
void no_host() { print_bare("Process_mailout: Can't gethostname! %s\n", error_text(errno)); }
void no_tool(const char *path) { print_bare("Process_mailout: Can't stat %s! %s\n", path, error_text(errno)); }
void no_fork() { print_bare("Process_mailout: Can't fork! %s\n", error_text(errno)); }
void no_folder(const char *path) { print_bare("Process_mailout: Can't chdir %s! %s\n", path, error_text(errno)); }
void no_exec(const char *path) { print_bare("Process_mailout: Can't execl %s! %s\n", path, error_text(errno)); }
}  // namespace say

/** What the parent finds out before it forks. */
struct Sender {
    char tool[PATH_SIZE];
    char host[PATH_SIZE];
    pid_t reporter;
};

/** False, already told: no mail can be sent. */
bool prepare(Sender &sender) {
    const char *root = process_context.rootDir;
    if (strlen(root) + strlen(TOOL) + 16 >= PATH_SIZE) return say::paths_too_long(), false;
    snprintf(sender.tool, sizeof sender.tool, "%s%s%s%s", root, "/bin", "/", TOOL);

    if (gethostname(sender.host, sizeof sender.host) != 0) return say::no_host(), false;
    struct stat ignored {};
    if (stat(sender.tool, &ignored) != 0) return say::no_tool(sender.tool), false;
    sender.reporter = getpid();
    return true;
}

/** A text whose parts are cut so that the line feed at its end always has room. */
class MailText {
public:
    PROCESS_PRINTF(2, 0) void vadd(const char *format, va_list arguments) {
        const size_t used = strlen(text_);
        vsnprintf(text_ + used, TEXT_SIZE - 1 - used, format, arguments);
    }
    PROCESS_PRINTF(2, 3) void add(const char *format, ...) {
        va_list arguments;
        va_start(arguments, format);
        vadd(format, arguments);
        va_end(arguments);
    }
    const char *finished() {
        process_strlcat(text_, TEXT_SIZE, "\n");
        return text_;
    }

private:
    char text_[TEXT_SIZE] = "";
};

/** The child's part: the tool's standard error stays the log, no other descriptor of ours goes along. */
[[noreturn]] void become_tool(const Sender &sender, const char *subject, const char *text) {
    leave_handlers_behind();
    char folder[PATH_SIZE];
    snprintf(folder, sizeof folder, "%s%s", process_context.rootDir, "/bin");
    if (chdir(folder) != 0) {
        say::no_folder(folder);
        _exit(1);
    }
    close(STDOUT_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);  // also what a library opened without the flag
    execl(sender.tool, sender.tool, "-VELROOT", process_context.rootDir, "-s", subject, "-t", text, nullptr);
    say::no_exec(sender.tool);
    _exit(1);
}

[[noreturn]] PROCESS_PRINTF(4, 0) void send_in_child(const Sender &sender, const MailTime &now, int callers_errno,
                                                     const char *format, va_list arguments) {
    char subject[PATH_SIZE];
    snprintf(subject, sizeof subject, "Gathering Server Error at %s", TimeText(now.wall).text);

    MailText text;
    const char *name = process_context.name != nullptr ? process_context.name : "(null)";
    text.add("\nError message from Gathering Server process %s running on host %s\n\n", name, sender.host);
    text.add("PID %lu:\nETEXT=", static_cast<unsigned long>(sender.reporter));
    errno = callers_errno;  // for a %m in the format
    text.vadd(format, arguments);
    become_tool(sender, subject, text.finished());
}

}  // namespace

void process::mail_error(const MailTime &now, const char *format, va_list arguments) {
    const KeptErrno kept;
    if (process_context.rootDir == nullptr) return;
    const HeldSignals held;
    if (last_try + HOUR > now.steady) return say::not_again();
    last_try = now.steady;  // the try counts: a mail that fails costs the hour as well

    Sender sender;
    if (!prepare(sender)) return;
    const pid_t child = _Fork();  // unlike fork it may be called in a signal handler
    if (child == 0) send_in_child(sender, now, kept.value(), format, arguments);
    if (child < 0) return say::no_fork();
    running_tool = child;
}

void process::reap_mail_tool() {
    if (running_tool == 0) return;
    const KeptErrno kept;
    const HeldSignals held;
    if (running_tool != 0 && waitpid(running_tool, nullptr, WNOHANG) != 0) running_tool = 0;
}

void process::child_was_reaped(pid_t child) {
    if (child == running_tool) running_tool = 0;
}

void Process_vmailout(const char *format, va_list arguments) {
    const KeptErrno kept;
    struct timeval wall {};
    gettimeofday(&wall, nullptr);
    struct timespec steady {};
    clock_gettime(CLOCK_MONOTONIC, &steady);
    errno = kept.value();
    process::mail_error({wall.tv_sec, steady.tv_sec}, format, arguments);
}

void Process_mailout(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Process_vmailout(format, arguments);
    va_end(arguments);
}
