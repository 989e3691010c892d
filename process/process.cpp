/* Start and end of a process of the platform, step by step. Options, log file, daemon, instance slot, signals and the
 * giving up of root rights stand in files of their own. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "process/processi.h"

using namespace process;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"  // all others start as zero
constinit PROCESS_S process_context = {.lockFd = -1, .firstCall = 1};
#pragma GCC diagnostic pop

namespace {

constexpr int DEFAULT_MAX_DAEMONS = 512;
constexpr char ROOT_VARIABLE[] = "VELROOT";
constexpr char HARDEN_VARIABLE[] = "VELHARDEN";

/** Clears the context but for what a program may have set before, or what must outlive a refused second call. */
void clear_context() {
    PROCESS_S cleared{};
    cleared.logToFile = process_context.logToFile;
    cleared.silent = process_context.silent;
    cleared.exitHook = process_context.exitHook;
    cleared.lockFd = process_context.lockFd;
    cleared.running = 1;
    process_context = cleared;  // firstCall with it: from here on a call is the second
}

int set_name(char **argv) {
    const char *path = argv != nullptr && argv[0] != nullptr ? argv[0] : "";
    const char *slash = strrchr(path, '/');
    const char *name = slash != nullptr ? slash + 1 : path;

    process_context.name = strdup(name);
    if (process_context.name != nullptr) return 0;
    process_error("Cannot malloc %d bytes! errmsg: %s!\n", static_cast<int>(strlen(name)) + 1, strerror(errno));
    return PROCESSERRNAME;
}

int find_root() {
    if (process_context.rootDir == nullptr) process_context.rootDir = getenv(ROOT_VARIABLE);
    if (process_context.rootDir != nullptr) return 0;
    process_error("Environment variable %s not set!\n", ROOT_VARIABLE);
    return PROCESSERRROOT;
}

/** Checks that root, name and what a path adds to them fit into a path's room. */
int check_path_length(size_t added) {
    if (strlen(process_context.rootDir) + strlen(process_context.name) + added < PATH_SIZE) return 0;
    process_error("Path names too long ! rootdir %s name %s\n", process_context.rootDir, process_context.name);
    return PROCESSERRPATH;
}

int enter_mode(int argc, char **argv, bool is_daemon) {
    process_context.mode = is_daemon ? PROCESS_MODE_DAEMON : PROCESS_MODE_FOREGROUND;
    return is_daemon ? process_daemonize(argc, argv) : 0;
}

unsigned magnitude(unsigned word) { return static_cast<int>(word) < 0 ? 0U - word : word; }

/** Gives each process a random series of its own; the process id in it is that of the final child. */
void seed_random() {
    unsigned draws = 0;
    for (int shift = 24; shift >= 0; shift -= 8) draws ^= static_cast<unsigned>(rand()) << shift;

    struct timeval now {};
    gettimeofday(&now, nullptr);
    srand(static_cast<unsigned>(getpid()) ^ magnitude(draws) ^ static_cast<unsigned>(now.tv_sec) ^
          static_cast<unsigned>(now.tv_usec));
}

void log_start() {
    if (!process_context.logToFile) return;
    const TimeText started(process_context.startTime);
    process_log("STARTED at %s", started.text);
    if (process_context.trace) process_trace("STARTED tracing at %s", started.text);
}

}  // namespace

int process_init(int *argc, char **argv, int daemonFlag, int logFlag, int maxProcesses) {
    if (!process_context.firstCall) return PROCESSERRINSTANCE;
    clear_context();
    if (argc != nullptr && !take_options(argc, argv)) return PROCESSERRNAME;
    process_harden_by_environment();

    int result = 0;
    if ((result = set_name(argv)) != 0) return result;
    if ((result = find_root()) != 0) return result;
    if ((result = check_path_length(sizeof "/log/" + sizeof ".log" - 1)) != 0) return result;
    char logPath[PATH_SIZE];
    build_log_path(logPath);

    const bool is_daemon = daemonFlag != 0;
    if ((is_daemon || logFlag != 0) && (result = redirect_output(logPath)) != 0) return result;
    if ((result = enter_mode(argc != nullptr ? *argc : 0, argv, is_daemon)) != 0) return result;

    process_context.traceStream = stderr;
    process_context.startTime = time(nullptr);
    learn_time_zone();
    seed_random();
    log_start();

    if ((result = check_path_length(sizeof "/status/" + sizeof ".1" - 1)) != 0) return result;
    if (is_daemon && maxProcesses <= 0) maxProcesses = DEFAULT_MAX_DAEMONS;
    if ((result = take_instance_slot(maxProcesses, logPath)) != 0) return result;
    return install_handlers();
}

void process_harden_by_environment(void) {
    static const bool is_wanted = [] {
        const char *value = getenv(HARDEN_VARIABLE);
        return value != nullptr && strcmp(value, "1") == 0;
    }();
    if (is_wanted) process_context.hardened = 1;
}

void process_exit(int code) {
    const TimeText now(time(nullptr));
    release_instance_slot(now);

    if (process_context.logToFile && code == 0) process_log("GOING DOWN! exitcode %d at %s", code, now.text);
    if (process_context.logToFile && code != 0)
        process_error("Process going down with an error!; EXITCODE=%d;\n", code);

    process_context.exitCode = code;
    void (*hook)(int) = process_context.exitHook;
    process_context.exitHook = nullptr;  // called once, even if it comes back here
    if (hook != nullptr) hook(code);

    if (process_context.logToFile) {
        auto *const print = process_context.exitCode != 0 ? process_error : process_log;
        print("EXITING! exitcode %d at %s\n", code, now.text);
    }
    exit(process_context.exitCode);
}
