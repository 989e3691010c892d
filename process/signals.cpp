/* Signal handlers, and the one way to install one.
 *
 * A signal can arrive anywhere, also inside a printer, malloc or localtime. So every handler is entered through one
 * function that notes it, and what the handlers call then does without locks and memory: a printer formats on the
 * stack and writes once, times are reckoned with a known offset from Greenwich, the log is reopened by open and dup2,
 * a mail is sent by _Fork and exec. The handlers therefore do their work at once, in the handler: a signal that was
 * only marked for later would wait until a blocked call ends, and might come just before the call begins.
 *
 * Two steps that a handler must not come between, such as open and dup2, hold all signals back meanwhile. */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>

#include <iterator>
#include <span>

#include "process/processi.h"

namespace {

using Handler = void (*)(int);

volatile sig_atomic_t handler_depth = 0;
Handler installed_handlers[NSIG];

struct HandlerEntry {
    int number;
    Handler handler;
    const char *failure;
};

constexpr HandlerEntry handlers_of_all[] = {
    {SIGTERM, process_sigterm_handler, "signal( SIGTERM, process_sigterm_handler ) failed!\n"},
    {SIGINT, process_sigterm_handler, "signal( SIGINT, process_sigterm_handler ) failed!\n"},
    {SIGPIPE, process_sigpipe_handler, "signal( SIGPIPE, process_sigpipe_handler ) failed!\n"},
    {SIGUSR2, process_sigusr2_handler, "signal( SIGUSR2, process_sigusr2_handler ) failed!\n"},
};

constexpr HandlerEntry handlers_of_daemons[] = {
    {SIGALRM, process_sigalrm_handler, "signal( SIGALRM, process_sigalrm_handler ) failed!\n"},
    {SIGHUP, process_sighup_handler, "signal( SIGHUP, process_sighup_handler ) failed!\n"},
    {SIGCHLD, process_sigchld_handler, "signal( SIGCHLD, process_sigchld_handler ) failed!\n"},
};

void enter_handler(int number) {
    handler_depth = handler_depth + 1;
    installed_handlers[number](number);  // what it makes of errno stays: it is part of its work
    handler_depth = handler_depth - 1;
}

/** The signal's name, such as SIGTERM; its number where it has none. */
struct SignalName {
    explicit SignalName(int number) {
        const char *known = sigabbrev_np(number);
        if (known != nullptr) {
            snprintf(text, sizeof text, "SIG%s", known);
        } else {
            snprintf(text, sizeof text, "%d", number);
        }
    }
    char text[32];
};

bool install(int number, Handler handler) {
    if (number <= 0 || number >= static_cast<int>(std::size(installed_handlers))) {
        errno = EINVAL;
        return false;
    }
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    const bool is_function = handler != SIG_IGN && handler != SIG_DFL;
    action.sa_handler = is_function ? enter_handler : handler;

    const Handler before = installed_handlers[number];
    if (is_function) installed_handlers[number] = handler;  // first: the signal may come at once
    if (sigaction(number, &action, nullptr) == 0) return true;
    installed_handlers[number] = before;
    return false;
}

int install_all(std::span<const HandlerEntry> entries) {
    for (const HandlerEntry &entry : entries) {
        if (process_signal(entry.number, entry.handler) == 0) continue;
        process_error("%s", entry.failure);
        return PROCESSERRSIGNAL;
    }
    return 0;
}

}  // namespace

/* errno: no system call is restarted, and code that looks at errno is to see the signal even if it came outside of a
 * call. */

extern "C" {

void process_sigterm_handler(int) {
    if (process_context.trace) process_trace("Received SIGTERM/SIGINT\n");
    process_context.running = 0;
    errno = EINTR;
}

void process_sighup_handler(int) {
    if (!process_context.logToFile) return;
    process_log("Received a SIGHUP. Closing log!\n");
    process_log_reopen();
    errno = EINTR;
}

void process_sigusr2_handler(int) {
    if (process_context.trace) process_trace("Tracing turned off!\n");
    process_context.trace = !process_context.trace;
    if (process_context.trace) process_trace("Tracing turned on!\n");
    errno = EINTR;
}

void process_sigpipe_handler(int) {
    process_log("Received SIGPIPE\n");
    errno = EINTR;
}

void process_sigalrm_handler(int) { errno = EINTR; }

void process_sigchld_handler(int) {
    pid_t child = 0;
    while ((child = waitpid(-1, nullptr, WNOHANG)) > 0) process::child_was_reaped(child);
    errno = EINTR;
}

}  // extern "C"

int process_signal(int signalNumber, void (*handler)(int)) {
    if (install(signalNumber, handler)) return 0;
    const int cause = errno;
    process_error("sigaction( %s, handler ) failed! errmsg: %s!\n", SignalName(signalNumber).text, strerror(cause));
    return PROCESSERRSIGNAL;
}

int process::install_handlers() { return install_all(handlers_of_all); }

int process::install_daemon_handlers() { return install_all(handlers_of_daemons); }

bool process::in_signal_handler() { return handler_depth != 0; }

process::HeldSignals::HeldSignals() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before_);
}

process::HeldSignals::~HeldSignals() {
    const KeptErrno kept;
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void process::leave_handlers_behind() {
    for (int number = 1; number < static_cast<int>(std::size(installed_handlers)); number++) {
        struct sigaction now {};
        const bool is_ours = sigaction(number, nullptr, &now) == 0 && now.sa_handler == enter_handler;
        if (is_ours) signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}
