/* What the files of this folder share among themselves; nobody outside includes it.
 *
 * The template variables, the error slot of the ghs calls, and the text helpers that both layers use. What only the gh
 * layer needs stands in ghi.h. */
#ifndef GENHTML_GHSTATE_H
#define GENHTML_GHSTATE_H

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <string_view>

#include "genhtml/genhtml.h"
#include "process/owned.h"

namespace genhtml {

// ---- Hardened: rules that a template or a client can notice, off unless asked for ------------------------------------

/** True if the hardened rules hold. A CGI program may have gone without process_init: the environment is asked here. */
inline bool is_hardened() {
    process_harden_by_environment();
    return process_context.hardened != 0;
}

// ---- ghsvar.cpp: template variables ----------------------------------------------------------------------------------

struct Variables {
    PAA_S *table = nullptr;     // null until the first store
    PAA_S *handlers = nullptr;  // functions by name; null until the first is set
    bool noHtml = false;        // every value stored from now on is protected
    bool allProtected = false;  // all values present have been protected once
};
extern Variables variables;

/** The program's own names are neither filtered nor protected, and never come from a request. */
inline bool is_own_name(const char *name) { return strncmp(name, "g_", 2) == 0; }

/** The value of a key in a table of texts; null if there is none. A value stored as null counts as an empty text. */
const char *value_in(PAA_S *table, std::string_view key);

/** The same of a template variable. */
inline const char *variable(std::string_view name) { return value_in(variables.table, name); }

/** Walks over the variables, oldest first, with their names and values, which may be written to in place. */
template <class Action>
void for_each_variable(Action action) {
    if (variables.table == nullptr) return;
    for (void *key = paaFirst(variables.table, nullptr); key != nullptr; key = paaNext(variables.table, nullptr)) {
        void *value = paaCurrent(variables.table, nullptr);
        if (value != nullptr) action(static_cast<const char *>(key), static_cast<char *>(value));
    }
}

/** The handler of a name; null if there is none. */
GHS_VARIABLE_HANDLER handler_of(std::string_view name);

/** Asks the handler of a name. False: there is none, or it passes. */
bool ask_handler(std::string_view name, std::string &answer);

/** Sets the no-HTML mode and protects what is there. */
void enter_no_html();

// ---- ghsmemory.cpp: the error slot, and memory ------------------------------------------------------------------------

constexpr int NO_MEMORY = 10, LOOP_TOO_LONG = 20, LOOP_WITHOUT_END = 21, NO_FILE = 25, TWO_DOTS = 26;

/** Opens a call: no error, told as "<label>: Ok." */
void clear_error(std::string_view label);

/** Leaves a code of those above with its text. NO_FILE tells errno as well. */
void set_error(int code, const char *label, const char *name = nullptr);

/** Gives a text as a new string; null with code 10 without memory. */
char *new_string(const char *label, std::string_view text);

/** Does work that may run out of memory, and turns that into code 10 and a result of its own. */
template <class Result, class Work>
Result with_memory(const char *label, Result failed, Work work) {
    try {
        return work();
    } catch (const std::bad_alloc &) {
        set_error(NO_MEMORY, label);
        return failed;
    }
}

/** The texts up to a null pointer as one new string; null with code 10. */
char *joined(const char *label, va_list pieces);

/** Cuts a text as ghSplit does, into at most `most` items. The number; -1: no memory, code 10 is set; -2: there are
 *  more. After a failure no item is left. */
int split(const char *text, const char *delimiters, char **items, int most);

// ---- ghsscript.cpp ---------------------------------------------------------------------------------------------------

/** Reads a key file into a table. False with code 10, 25 or 26. */
bool read_key_file(const char *label, PAA_S *table, const char *path);

// ---- ghstext.cpp -----------------------------------------------------------------------------------------------------

/** A line never grows beyond this by a replacement, NUL included. */
constexpr size_t LINE_LIMIT = 131072;

void append_encoded(std::string &target, std::string_view text);
void append_protected(std::string &target, std::string_view text);

/** Replaces `old` by `fresh` in `text`, as ghsReplace does. `spare` lends its memory. */
void replace_in(std::string &text, std::string_view old, std::string_view fresh, int limit, std::string &spare);

/** A place in a text: where an opening begins, and what stands between it and its closing. */
struct Token {
    size_t start = std::string_view::npos;
    size_t length = 0;  // from the opening to the end of the closing
    std::string_view inside;
    explicit operator bool() const { return start != std::string_view::npos; }
    std::string_view whole(std::string_view text) const { return text.substr(start, length); }
    std::string_view behind(std::string_view text) const { return text.substr(start + length); }
};

Token find_token(std::string_view text, std::string_view open, std::string_view close);
Token find_last_token(std::string_view text, std::string_view open, std::string_view close);

inline std::string_view text_or_none(const char *text) { return text != nullptr ? text : ""; }

inline bool is_white(char character) { return process_isspace(static_cast<unsigned char>(character)) != 0; }

inline char *skip_white(char *text) {
    while (is_white(*text)) ++text;
    return text;
}

/** Cuts white space off the end, in place. Returns the length that is left. */
inline size_t trim_right(char *text) {
    size_t length = strlen(text);
    while (length > 0 && is_white(text[length - 1])) text[--length] = '\0';
    return length;
}

/** True for a path with ".." from its second character on. A path may begin with it: pages lie beside the programs'
 *  folder. */
inline bool has_two_dots(const char *path) { return *path != '\0' && strstr(path + 1, "..") != nullptr; }

/** A date and time as 14 digits, local time. Room for years of any length. */
struct DateText {
    explicit DateText(time_t when);
    char text[32];
};

}  // namespace genhtml

#endif
