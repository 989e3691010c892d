/* The error page, debug output, the logs of errors and events, and the time limit of a program.
 *
 * Logs and the debug file are opened anew for each record, and never through a link. What can't be opened or written is
 * silence: no page changes for it, but for the debug file that ghDebug was told to write. */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>

#include "genhtml/chfilel.h"
#include "genhtml/genhtml.h"
#include "genhtml/ghi.h"
#include "process/printable.h"

namespace {

constexpr int VALUE_BYTES_A_LINE = 60;

bool debug_on = true;
char debug_file[1024 + 1];

bool has_debug_file() { return debug_on && debug_file[0] != '\0'; }

bool has_two_dots_anywhere(const char *path) { return strstr(path, "..") != nullptr; }

/** Opens a file to append to. A pipe in its place doesn't hold us up. */
OwnedFd open_log(const char *path) { return process::open_guarded(path, O_WRONLY | O_APPEND | O_NONBLOCK); }

[[noreturn]] void refuse_debug_file(const char *reason) {
    ghPrintf("Cannot open debug file \"%s\" %s\n", debug_file, reason);
    exit(0);
}

PROCESS_PRINTF(1, 0)
void write_debug(const char *format, va_list arguments) {
    static bool is_first_use = true;
    if (process_context.trace) {
        process_vtrace(format, arguments);
        return;
    }
    if (process_context.logToFile || !debug_on) return;
    genhtml::decide_debug(is_first_use);
    if (!has_debug_file()) return;
    if (has_two_dots_anywhere(debug_file)) refuse_debug_file("\"..\" in path not allowed");
    const OwnedFd file = open_log(debug_file);
    if (!file) refuse_debug_file(strerror(errno));
    vdprintf(file.get(), format, arguments);
}

/** A record in a log that other processes write to as well: locked, with the time in front, until the end of scope. */
class LogRecord {
public:
    explicit LogRecord(OwnedFd file) : file_(file ? fdopen(file.get(), "a") : nullptr) {
        if (!file_) return;
        file.release();
        chfilel_lock(fileno(stream()));
        const genhtml::DateText now(time(nullptr));
        fprintf(stream(), "L%s ", now.text);
    }
    ~LogRecord() {
        if (!file_) return;
        fflush(stream());
        chfilel_unlock(fileno(stream()));
    }
    LogRecord(const LogRecord &) = delete;
    LogRecord &operator=(const LogRecord &) = delete;

    FILE *stream() const { return file_.get(); }
    explicit operator bool() const { return file_.is_open(); }

private:
    OwnedFile file_;
};

/** The program's own address, in two pieces that need no memory: what ghSelfUrl joins. */
struct OwnUrl {
    const char *slash = "", *rest = "Scriptname not set";

    OwnUrl() {
        const char *name = getenv("SCRIPT_NAME");
        if (name == nullptr) return;
        slash = "/";
        rest = name + strspn(name, "/");
    }
};

/** What the error page shows comes from requests too. The page's own rule is to show it as it is. */
std::string for_page(std::string_view text) {
    if (!genhtml::is_hardened()) return std::string(text);
    std::string shown;
    genhtml::append_protected(shown, text);
    return shown;
}

PROCESS_PRINTF(1, 0)
std::string formatted(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

void print_error_page(const std::string &text) {
    const OwnUrl url;
    ghPrintf("<h1>An error occured</h1>\n");
    ghPrintf("<P>While accessing the script %s%s\n", url.slash, for_page(url.rest).c_str());
    ghPrintf("<P><B>\n");
    ghPrintf("%s", for_page(text).c_str());
    ghPrintf("</B>\n");
    const char *admin = getenv("SERVER_ADMIN");
    if (admin != nullptr) {
        ghPrintf("<P>Please inform the server administrator %s of the error\n", for_page(admin).c_str());
    }
}

/** The toolkit's own messages are a line each: other line feeds in them come from a request. */
std::string one_line(std::string_view text) {
    const bool has_end = text.ends_with('\n');
    if (has_end) text.remove_suffix(1);
    return printable(text) + (has_end ? "\n" : "");
}

void log_error(const std::string &text) {
    constexpr const char *told[] = {"REQUEST_METHOD",  "REQUEST_URI", "HTTP_REFERER",
                                    "HTTP_USER_AGENT", "REMOTE_HOST", "REMOTE_ADDR"};
    const LogRecord record(open_log("./logs/gherror.log"));
    if (!record) return;
    const OwnUrl url;
    fprintf(record.stream(), "Script %s%s: \n", url.slash, printable(url.rest).c_str());
    fprintf(record.stream(), "%s\n", text.c_str());
    for (const char *name : told) {
        const char *value = getenv(name);
        fprintf(record.stream(), " %s = \"%s\"\n", name, printable(value != nullptr ? value : "").c_str());
    }
    ghInLog(record.stream());
}

PROCESS_PRINTF(1, 0)
void report(const char *format, va_list arguments, std::string (*for_log)(std::string_view)) {
    try {
        const std::string text = formatted(format, arguments);
        print_error_page(text);
        log_error(for_log(text));
    } catch (const std::bad_alloc &) {
        return;  // not even memory for saying so
    }
}

void out_of_time(int) { _exit(0); }

/** Ends the program in order. A page that its reader doesn't take, or a signal in the midst of an allocation, may stop
 *  exit on its way: one second later the program ends all the same. */
void self_destruct(int) {
    process_signal(SIGALRM, out_of_time);
    sigset_t alarm_signal;
    sigemptyset(&alarm_signal);
    sigaddset(&alarm_signal, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &alarm_signal, nullptr);
    alarm(1);
    if (ghDebugEnabled()) ghDebug("Zero seconds to self destruction!\n");
    exit(0);
}

}  // namespace

void genhtml::decide_debug(bool &is_first_use) {
    if (!is_first_use) return;
    is_first_use = false;
    struct stat status {};
    debug_on = stat("./ghdebug", &status) == 0;
}

bool genhtml::may_debug() { return process_context.trace || (debug_on && !process_context.logToFile); }

void genhtml::append_to_debug_file(const char *format, va_list arguments) {
    if (!has_debug_file() || has_two_dots_anywhere(debug_file)) return;
    const OwnedFd file = open_log(debug_file);
    if (file) vdprintf(file.get(), format, arguments);
}

void genhtml::append_to_debug_file(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    append_to_debug_file(format, arguments);
    va_end(arguments);
}

genhtml::DebugText::DebugText(const char *text) : shown_(text != nullptr ? text : "(null)") {
    if (!process_context.trace) return;
    plain_ = or_fail("ghDebug", [this] { return printable(shown_); });
    shown_ = plain_.c_str();
}

void genhtml::fail(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    report(format, arguments, one_line);
    va_end(arguments);
    exit(0);
}

void genhtml::fail_for_memory(const char *label) { fail("%s: Out of memory.\n", label); }

void ghError(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    report(format, arguments, [](std::string_view text) { return std::string(text); });
    va_end(arguments);
}

char *ghSelfUrl() {
    const OwnUrl url;
    return ghStrcat("ghSelfUrl", url.slash, url.rest);
}

void ghDebug(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_debug(format, arguments);
    va_end(arguments);
}

void ghDebugFile(const char *path) {
    process_strlcpy(debug_file, sizeof debug_file, path);
    const time_t now = time(nullptr);
    ghDebug("\n\nSTARTED AT %s", ctime(&now));
}

int ghDebugEnabled() {
    static bool is_first_use = true;
    genhtml::decide_debug(is_first_use);
    return has_debug_file() ? 1 : 0;
}

void ghLogEvent(const char *name, const char *format, ...) {
    const auto open_below = [name](const char *directory) {
        const OwnedBlock<char> path(
            ghNStrcat("ghLogEvent", directory, "/logs/", name, ".log", static_cast<char *>(nullptr)));
        return has_two_dots_anywhere(path.get()) ? OwnedFd() : open_log(path.get());
    };
    if (name == nullptr) return;
    OwnedFd file = open_below(".");
    const char *directory = genhtml::variable("g_cgiDirectory");
    if (!file && directory != nullptr && *directory != '\0') file = open_below(directory);

    const LogRecord record(std::move(file));
    if (!record) return;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(record.stream(), format, arguments);
    va_end(arguments);
    fputc('\n', record.stream());
}

void ghInLog(FILE *stream) {
    genhtml::for_each_pair(genhtml::input_table(), [stream](const char *key, const char *value) {
        fprintf(stream, " %s = \"", printable(key).c_str());
        int written = 0;
        for (const char *next = value; *next != '\0'; next++) {
            const bool is_printable = *next >= ' ' && *next <= '~';
            putc_unlocked(is_printable ? *next : ',', stream);
            if (++written % VALUE_BYTES_A_LINE == 0) fputs("\"\n \"", stream);
        }
        fputs("\"\n", stream);
    });
}

void ghSelfDestruct(int seconds) {
    process_signal(SIGALRM, self_destruct);
    alarm(static_cast<unsigned>(std::max(seconds, 0)));
}
