/* What the files of this folder share among themselves; nobody outside includes it. */
#ifndef PROCESS_PROCESSI_H
#define PROCESS_PROCESSI_H

#include <cstddef>
#include <ctime>

#include "process/owned.h"
#include "process/velproc.h"

namespace process {

/** Room of a path. The length checks of process_init are made for it. */
constexpr std::size_t PATH_SIZE = 1024;
/** A slot number may take more digits than those checks count with. */
constexpr std::size_t STATUS_PATH_SIZE = PATH_SIZE + 16;

/* localtime.cpp: all of it serves in signal handlers too */

/** A local date and time; month and day count from 1, the week from Sunday as 0. */
struct Calendar {
    int year, month, day, hour, minute, second, weekday;
};

Calendar local_calendar(time_t when);

/** The same for the present time, whose offset from Greenwich is kept for signal handlers. */
Calendar local_calendar_now(time_t now);

/** Learns the time zone, and the offset that held at the process's start, for what signal handlers will print. */
void learn_time_zone();

/** A time as ctime shows it, with its line feed. */
struct TimeText {
    explicit TimeText(time_t when);
    char text[64];
};

/* options.cpp */

/** Takes the framework's options out of the vector. False, already reported: no memory for a value. */
bool take_options(int *argc, char **argv);

/* logfile.cpp */

/** Writes the path of this process's log into `path`, whose room was checked. */
void build_log_path(char (&path)[PATH_SIZE]);

/** Makes the log standard error, and standard output silent; closes what the starter left open. 0 or a code. */
int redirect_output(const char *logPath);

/* daemon.cpp */

/** Takes the first free instance slot up to maxProcesses, which may be 0 or less for none. 0 or a code. */
int take_instance_slot(int maxProcesses, const char *logPath);

/** Marks the status file as that of a process that has ended, and gives up the slot. */
void release_instance_slot(const TimeText &now);

/* signals.cpp */

/** Installs the handlers of every process. 0 or PROCESSERRSIGNAL. */
int install_handlers();

/** Installs the handlers that only a daemon has. 0 or PROCESSERRSIGNAL. */
int install_daemon_handlers();

/** True while a handler runs that process_signal installed. */
bool in_signal_handler();

/** Holds all signals back until the end of a scope: no handler comes between the steps in it. */
class HeldSignals {
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

private:
    sigset_t before_;
};

/** For a child on its way to another program: no handler of ours runs from here on, and no signal is held back. */
void leave_handlers_behind();

/* perrout.cpp */

/** Writes a line to standard error, without a prefix, in the safe way of the printers. */
void print_bare(const char *format, ...) PROCESS_PRINTF(1, 2);

/** The system's text for an error number. Unlike strerror it takes neither lock nor memory. */
const char *error_text(int error);

/* errmail.cpp */

/** When an error occurred: the time of day, and seconds of a clock that nobody sets. */
struct MailTime {
    time_t wall, steady;
};

/** Process_vmailout with the time given. */
void mail_error(const MailTime &now, const char *format, va_list arguments) PROCESS_PRINTF(2, 0);

/** Gives back the process entry of a mail tool that has ended; costs nothing while none runs. A daemon's handler
 *  does so by itself; in a process that has none the printers come by here. */
void reap_mail_tool();

/** To be told by whoever reaps children himself. */
void child_was_reaped(pid_t child);

}  // namespace process

extern "C" {
void process_sigterm_handler(int signalNumber);
void process_sighup_handler(int signalNumber);
void process_sigusr2_handler(int signalNumber);
void process_sigpipe_handler(int signalNumber);
void process_sigalrm_handler(int signalNumber);
void process_sigchld_handler(int signalNumber);
}

#endif
