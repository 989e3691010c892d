/* What the files of the gh layer share among themselves: failing, the request as it was received, and the output. The
 * template engine's side, which they use too, stands in ghstate.h. */
#ifndef GENHTML_GHI_H
#define GENHTML_GHI_H

#include <stdarg.h>
#include <stdio.h>
#include <time.h>

#include <cstddef>
#include <new>
#include <string>
#include <string_view>

#include "genhtml/genhtml.h"
#include "genhtml/ghstate.h"

namespace genhtml {

/* gherror.cpp */

/** Error page, log record, exit status 0: the end of a call that can't do its work. */
[[noreturn]] void fail(const char *format, ...) PROCESS_PRINTF(1, 2);

/** The same for want of memory. The label names the call. */
[[noreturn]] void fail_for_memory(const char *label);

/** Does work that may run out of memory. */
template <class Work>
auto or_fail(const char *label, Work work) {
    try {
        return work();
    } catch (const std::bad_alloc &) {
        fail_for_memory(label);
    }
}

/** At the first use of one of the paths to the debug file, looks whether debug output is wanted at all. */
void decide_debug(bool &is_first_use);

/** False if debug lines go nowhere: callers that write one for each variable ask first. */
bool may_debug();

/** Appends to the debug file, if there is to be one; what can't be written is lost without a word. */
void append_to_debug_file(const char *format, va_list arguments) PROCESS_PRINTF(1, 0);
void append_to_debug_file(const char *format, ...) PROCESS_PRINTF(1, 2);

/** A request's text as it is to stand in a debug line: as it is, but in a trace line, which shares a log with other
 *  lines, without control characters. */
class DebugText {
public:
    explicit DebugText(const char *text);
    const char *get() const { return shown_; }

private:
    std::string plain_;
    const char *shown_;
};

/* genhtml.cpp */

/** The input table; null before the first store. */
PAA_S *input_table();
/** Sum of the lengths of the keys and values in it. */
std::size_t input_bytes();
/** A value of the input table as it stands, or an empty text. */
const char *input_text(const char *key);
/** Takes a pair out of it. */
void remove_input(const char *key);

/** Stores a field of a request. Unlike ghInStore it leaves out what only a caller of the program may say. */
void store_received(const char *key, const char *value);
/** Stores the fields of a query. */
void parse_query(const char *query);
/** The number in CONTENT_LENGTH. False: there is none. */
bool declared_length(int *length);
/** Hardened: a request body of more bytes than this ends the program. */
void refuse_large_body(const char *label, long long bytes);
/** Cuts white space at both ends: right in place, left by the place that is returned. */
char *trimmed(char *text);
/** Forgets all input, for a program that looks at several requests: the fuzz targets. */
void forget_input();

/* ghmemory.cpp */

/** Gives a text as a new string. */
char *new_text(const char *label, std::string_view text);

/* ghmultipart.cpp */

/** Stores the fields of a multipart form. */
void read_form(FILE *stream, const char *boundary);
/** Forgets how much was read, as input is to come from elsewhere. */
void forget_reader();

/* ghoutput.cpp */

/** Prints "Last-Modified" with a local time, but for the zone that ends the line. */
void print_last_modified(time_t time);

/** Walks over a table of texts, oldest first. A value that was stored as null is an empty text. */
template <class Action>
void for_each_pair(PAA_S *table, Action action) {
    if (table == nullptr) return;
    for (void *key = paaFirst(table, nullptr); key != nullptr; key = paaNext(table, nullptr)) {
        const void *value = paaCurrent(table, nullptr);
        action(static_cast<const char *>(key), value != nullptr ? static_cast<const char *>(value) : "");
    }
}

}  // namespace genhtml

#endif
