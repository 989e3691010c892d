/* The printers: error, log and trace lines.
 *
 * A line, prefix and text, leaves in one write: lines of several processes or of a signal handler fall between
 * other lines, never into them. In a signal handler no lock and no memory is taken; a long line is then cut.
 * errno stays as it was. A line that can't be written is lost without a word: there is nobody left to tell. What is
 * an error in a log goes out as mail as well (errmail.cpp). */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>

#include "process/processi.h"

namespace {

constexpr size_t USUAL_LINE = 4096;  // longer ones are rare and take memory

enum class Prefix { NONE, NAME, ERROR, LOG, TRACE };

/** What stands in front of the caller's text, with the time taken once, however often it is written. */
struct LineHead {
    Prefix kind;
    process::Calendar at{};
    long microseconds = 0;

    explicit LineHead(Prefix prefix) : kind(prefix) {
        if (kind == Prefix::NONE || kind == Prefix::NAME) return;
        struct timeval now {};
        gettimeofday(&now, nullptr);
        at = process::local_calendar_now(now.tv_sec);
        microseconds = now.tv_usec;
    }

    /** Like snprintf: writes what fits, returns the full length. */
    int write(char *target, size_t room) const {
        if (kind == Prefix::NONE) return 0;
        if (kind == Prefix::NAME) {
            const char *name = process_context.name;
            return snprintf(target, room, "%s: ", name != nullptr ? name : "(null)");
        }
        if (kind == Prefix::LOG) {
            return snprintf(target, room, "L%04d%02d%02d%02d%02d%02d ", at.year, at.month, at.day, at.hour, at.minute,
                            at.second);
        }
        const bool is_error = kind == Prefix::ERROR;
        return snprintf(target, room, "%c%04d%02d%02d%02d%02d%02d.%06ld PID %lu:%s", is_error ? 'E' : 'T', at.year,
                        at.month, at.day, at.hour, at.minute, at.second, microseconds,
                        static_cast<unsigned long>(getpid()), is_error ? "\nETEXT=" : " ");
    }
};

/** Formats head and text into a buffer. Returns the length that the whole line has, fitting or not. */
PROCESS_PRINTF(5, 0)
size_t format_line(char *target, size_t room, const LineHead &head, int callers_errno, const char *format,
                   va_list arguments) {
    const auto head_length = static_cast<size_t>(std::max(head.write(target, room), 0));
    const size_t used = std::min(head_length, room - 1);

    va_list copy;  // a line may be formatted twice, and the mail of an error takes the arguments once more
    va_copy(copy, arguments);
    errno = callers_errno;  // for a %m in the format
    const int text_length = vsnprintf(target + used, room - used, format, copy);
    va_end(copy);
    return head_length + static_cast<size_t>(std::max(text_length, 0));
}

/** In the handler of SIGPIPE a write to a broken pipe would call that handler again as soon as it is left, for ever. */
void forget_broken_pipe() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    const struct timespec at_once {};
    sigtimedwait(&pipe, nullptr, &at_once);
}

void write_whole(FILE *stream, const char *line, size_t length) {
    const bool in_handler = process::in_signal_handler();
    if (!in_handler && __fpending(stream) > 0) fflush(stream);  // what the program wrote before comes before

    int fd = fileno(stream);
    if (fd < 0 && in_handler) fd = STDERR_FILENO;
    if (fd < 0) {  // a stream into memory, which the code under a handler may be busy with
        fwrite(line, 1, length, stream);
        fflush(stream);
        return;
    }
    while (length > 0) {
        const ssize_t written = write(fd, line, length);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EPIPE && in_handler) forget_broken_pipe();
        if (written <= 0) return;
        line += written;
        length -= static_cast<size_t>(written);
    }
}

PROCESS_PRINTF(3, 0)
void print_line(FILE *stream, Prefix kind, const char *format, va_list arguments) {
    const KeptErrno kept;
    process::reap_mail_tool();
    const LineHead head(kind);

    char usual[USUAL_LINE];
    const size_t length = format_line(usual, sizeof usual, head, kept.value(), format, arguments);
    if (length < sizeof usual) return write_whole(stream, usual, length);

    const OwnedBlock<char> large(process::in_signal_handler() ? nullptr : malloc(length + 1));
    if (large) {
        const process::HeldSignals held;  // a pipe may take a line of this length in pieces
        format_line(large.get(), length + 1, head, kept.value(), format, arguments);
        return write_whole(stream, large.get(), length);
    }
    usual[sizeof usual - 1] = '\n';  // cut, but still a line
    write_whole(stream, usual, sizeof usual);
}

}  // namespace

void process::print_bare(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_line(stderr, Prefix::NONE, format, arguments);
    va_end(arguments);
}

const char *process::error_text(int error) {
    const char *known = strerrordesc_np(error);
    return known != nullptr ? known : "Unknown error";
}

void process_verror(const char *format, va_list arguments) {
    if (process_context.silent) return;
    if (!process_context.logToFile) return print_line(stdout, Prefix::NAME, format, arguments);
    print_line(stderr, Prefix::ERROR, format, arguments);
    Process_vmailout(format, arguments);
}

void process_vlog(const char *format, va_list arguments) {
    if (process_context.silent) return;
    if (!process_context.logToFile) return print_line(stdout, Prefix::NAME, format, arguments);
    print_line(stderr, Prefix::LOG, format, arguments);
}

int process_vtrace(const char *format, va_list arguments) {
    if (process_context.silent || !process_context.trace) return 0;
    FILE *const chosen = process_context.traceStream != nullptr ? process_context.traceStream : stderr;
    print_line(process_context.logToFile ? chosen : stdout, Prefix::TRACE, format, arguments);
    return 0;
}

void process_error(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    process_verror(format, arguments);
    va_end(arguments);
}

void process_log(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    process_vlog(format, arguments);
    va_end(arguments);
}

int process_trace(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    process_vtrace(format, arguments);
    va_end(arguments);
    return 0;
}
