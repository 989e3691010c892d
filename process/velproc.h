/* Process framework: what every daemon of the platform is made of.
 *
 * A program calls process_init first thing, works while process_context.running is set, and leaves through
 * process_exit. Between them stand the three log printers, the checked allocation calls, and small text helpers.
 * Everything here is for one thread. */
#ifndef PROCESS_VELPROC_H
#define PROCESS_VELPROC_H

#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

#ifdef __GNUC__
#define PROCESS_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define PROCESS_PRINTF(formatIndex, firstArgument)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** What process_context.mode says about the way the process runs. */
enum { PROCESS_MODE_DAEMON = 1, PROCESS_MODE_FOREGROUND = 2, PROCESS_MODE_LOCAL_CONFIG = 4 };

/** Results of process_init. Each failure but a second call is already reported. */
enum {
    PROCESSERRFORK = -1,      /* a fork failed */
    PROCESSERRPGID = -2,      /* setpgid failed */
    PROCESSERRNAME = -3,      /* no memory for the process name, or for the value of an option */
    PROCESSERRDUP = -4,       /* standard error or standard output could not be redirected */
    PROCESSERRSIGNAL = -5,    /* a signal handler could not be installed */
    PROCESSERRROOT = -10,     /* no root directory: neither -VELROOT nor the environment names one */
    PROCESSERRLOG = -11,      /* the log file could not be opened */
    PROCESSERRSTATUS = -12,   /* a status file could not be opened */
    PROCESSERRINSTANCE = -13, /* second call (silent), or every instance slot is taken */
    PROCESSERRPATH = -14      /* a path would be longer than 1023 bytes */
};

/** State of the process, public to all subsystems. process_init clears the fields from name to verbose. */
typedef struct PROCESS_S {
    char *name;                    /* last path component of argv[0]; heap */
    time_t startTime;              /* taken just after daemonising */
    const char *rootDir;           /* the platform's root directory; not owned */
    const char *bindIp;            /* text behind -BINDIP, or null; not owned */
    uint32_t localIp;              /* the host's own address, network order; 0 until the first look-up */
    volatile sig_atomic_t running; /* 1 while the process is to go on; every loop polls it */
    int hold;                      /* while set, packet_read sleeps instead of serving */
    FILE *traceStream;             /* where trace lines go; null means standard error */
    volatile sig_atomic_t trace;   /* trace lines are written */
    int exitCode;                  /* what process_exit hands to the system; the exit hook may change it */
    char *userName;                /* text of -setusername; heap */
    char *groupName;               /* text of -setgroupname; heap */
    int packetDiag;                /* -PACKETDIAG: statistics by packet type */
    int noAccessKeyCheck;          /* -NOACCESSKEYCHECK: requests need no access key */
    int logReady;                  /* a log exists: configuration readers may report to it */
    int mode;                      /* PROCESS_MODE_... bits */
    int verbose;                   /* -VERBOSE */
    int logToFile;                 /* standard error is the log file */
    int silent;                    /* while set, the printers print nothing and send no mail */
    void (*exitHook)(int code);    /* called once by process_exit; set by the program */
    int lockFd;                    /* descriptor of the status file, -1 without one */
    int firstCall;                 /* 1 until process_init was called */
    int hardened;                  /* -HARDEN, VELHARDEN=1: stricter rules, which a peer may notice */
} PROCESS_S;

extern PROCESS_S process_context;

/* ---- Start and end ---------------------------------------------------------------------------------------- */

/** Turns the program into a process of the platform: takes the framework's options out of the vector, finds the
 *  root directory, opens the log, leaves the terminal, takes an instance slot, installs the signal handlers.
 *
 *  @param argc          count of argv, updated as options are taken out; null: no option is looked at
 *  @param argv          vector, changed in place; option values are kept by reference
 *  @param daemonFlag    non-zero: become a daemon (unless -D or -debug is in the vector)
 *  @param logFlag       non-zero: standard error becomes the log file; a daemon always has one
 *  @param maxProcesses  instances of this name that may run; 0 or less means 512 for a daemon, none tried otherwise
 *  @return 0 or a PROCESSERR... code. The caller decides what a failure means; nothing exits here.
 */
int process_init(int *argc, char **argv, int daemonFlag, int logFlag, int maxProcesses);

/** The step of process_init that leaves the terminal: two forks, a process group of its own, signals, "/" as
 *  working directory. Does nothing if -D or -debug stands anywhere in the vector. Returns 0 or a code. */
int process_daemonize(int argc, char **argv);

/** Gives up root rights for the user of -setusername and the group of -setgroupname, if run by root. To be called
 *  when the sockets are bound. Ends the process if the rights could not be given up, also because nobody of the
 *  name given is known. */
void process_set_user(void);

/** Leaves in order: gives up the instance slot, writes the last log lines, calls the exit hook, exits with
 *  process_context.exitCode, which is `code` unless the hook changes it. */
#ifdef __GNUC__
__attribute__((noreturn))
#endif
void process_exit(int code);

/** Sets process_context.hardened if the environment variable VELHARDEN is "1"; the environment is looked at once in
 *  the life of the process. process_init does so by itself, a program that goes without it calls this. */
void process_harden_by_environment(void);

/** Installs a signal handler with an empty mask and without restart: a system call that it interrupts fails with
 *  EINTR. While it runs, the printers take no lock and no memory, so a handler may print. SIG_IGN and SIG_DFL serve
 *  as well. Returns 0, or PROCESSERRSIGNAL: already in the log. */
int process_signal(int signalNumber, void (*handler)(int));

/* ---- Log printers: the one way in which subsystems report. The caller supplies the line feed. --------------- */

/** Writes an error: two lines, "E<time>.<microseconds> PID <id>:" and "ETEXT=<text>"; in a log it is mailed too. */
void process_error(const char *format, ...) PROCESS_PRINTF(1, 2);
void process_verror(const char *format, va_list arguments) PROCESS_PRINTF(1, 0);

/** Writes a log line, "L<time> <text>". */
void process_log(const char *format, ...) PROCESS_PRINTF(1, 2);
void process_vlog(const char *format, va_list arguments) PROCESS_PRINTF(1, 0);

/** Writes a trace line, "T<time>.<microseconds> PID <id>: <text>", if process_context.trace is set. Callers whose
 *  arguments cost something test the flag first. Returns 0. */
int process_trace(const char *format, ...) PROCESS_PRINTF(1, 2);
int process_vtrace(const char *format, va_list arguments) PROCESS_PRINTF(1, 0);

/* ---- Log file and error mail ----------------------------------------------------------------------------------- */

/** Opens the log path anew and makes it standard error: the second half of a rotation, whose first half, moving the
 *  old file away, is an outside job's. SIGHUP does the same in a daemon. If the file can't be opened, the old one
 *  stays in use: already in the log. Safe in a signal handler.
 *  @return 0, or PROCESSERRPATH: already in the log
 */
int process_log_reopen(void);

/** Appends what the descriptor holds, from its start, to log/ch<yymmdd>.log below the root directory. The descriptor
 *  stays open and its file as it is: emptying it is the caller's affair.
 *  @return 0; PROCESSERRPATH; -1: the copy could not be opened; -2: no seek; -3: a read or write failed. Each is in
 *          the log already.
 */
int process_log_copy(int fd);

/** Mails an error to the platform's operator through bin/chmail below the root directory, at most once an hour,
 *  without waiting for it. process_error does so by itself. What goes wrong is told on standard error only. */
void Process_mailout(const char *format, ...) PROCESS_PRINTF(1, 2);
void Process_vmailout(const char *format, va_list arguments) PROCESS_PRINTF(1, 0);

/* ---- Memory ------------------------------------------------------------------------------------------------ */

/** Gives a zero-filled block, released with free(). Null, already reported, without memory or for size 0 or less.
 *  The label names the caller in that report; null means the call's own name. */
void *process_malloc(const char *label, int size);

/** Gives a copy of `size` bytes of `source` (zeros for a null source), released with free(). Null as above. */
void *process_memdup(const char *label, const void *source, int size);

/* ---- Text ---------------------------------------------------------------------------------------------------- */

/** Tokeniser on a private copy of the text, so the caller's stays intact. A non-null text starts a new series and
 *  ends the life of the tokens of the last; null goes on. Null when no token is left. One series per process. */
char *process_strtok(const char *text, const char *delimiters);

/** Finds the last occurrence of needle. Null for an empty or null text or none found; text for an empty needle. */
char *process_strrstr(const char *text, const char *needle);

/** Copies at most size-1 bytes and terminates. Returns the bytes copied, or -1 for size 0. */
int process_strlcpy(char *dest, int size, const char *source);

/** Appends what fits and terminates. Returns the bytes appended, or -1 for size 0. A dest that already fills the
 *  buffer is cut at size-1, and its former length is returned. */
int process_strlcat(char *dest, int size, const char *source);

/* Character classes in plain ASCII, whatever the locale. Non-zero if the character belongs to the class. */
int process_isupper(int character);
int process_islower(int character);
int process_isdigit(int character);
int process_isalpha(int character);
int process_isalnum(int character);
int process_isspace(int character); /* codes 9 to 13 and 32 */

#ifdef __cplusplus
}
#endif

#endif
