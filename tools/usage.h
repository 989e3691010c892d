/* What the command-line tools say about their own command line, and about what failed: on standard error, under the tool's
 * name. The tool brings its name, its short usage text and the exit status that stands for wrong usage. */
#ifndef TOOLS_USAGE_H
#define TOOLS_USAGE_H

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <charconv>
#include <string_view>

struct Tool {
    const char *name;
    const char *short_usage;  // whole lines
    int wrong_usage_status;
};

extern const Tool this_tool;  // defined by each tool

inline void say_on_stderr(const char *format, va_list arguments) __attribute__((format(printf, 1, 0)));
inline void say_on_stderr(const char *format, va_list arguments) {
    fprintf(stderr, "%s: ", this_tool.name);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
}

/** Says what is wrong and how it is right, and ends the tool. */
[[noreturn]] inline void wrong_usage(const char *format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] inline void wrong_usage(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    say_on_stderr(format, arguments);
    va_end(arguments);
    fputs(this_tool.short_usage, stderr);
    exit(this_tool.wrong_usage_status);
}

/** Tells something, as one line. */
inline void tell(const char *format, ...) __attribute__((format(printf, 1, 2)));
inline void tell(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    say_on_stderr(format, arguments);
    va_end(arguments);
}

/** Tells a failure; gives back the exit status that goes with it. */
template <class Status>
__attribute__((format(printf, 2, 3))) Status fail(Status status, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    say_on_stderr(format, arguments);
    va_end(arguments);
    return status;
}

/** The whole number that a text is, all of it; ends the tool if it isn't one from `least` to `largest`. */
inline int number(const char *meaning, std::string_view text, int least, int largest) {
    int value = 0;
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end || value < least || value > largest) {
        wrong_usage("%s must be a whole number from %d to %d, not \"%s\"", meaning, least, largest, text.data());
    }
    return value;
}

#endif
