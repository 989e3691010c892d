/* Checked memory and strings of the gh layer: calls that give what they are asked for, or end the program with the
 * error page. Their twins of the template engine, which return null instead, stand in ghsmemory.cpp. */
#include <stdarg.h>

#include "genhtml/genhtml.h"
#include "genhtml/ghi.h"

namespace {

constexpr int MOST_ITEMS = 1022;

/** Gives on what the engine's twin made, or fails. */
template <class Result>
Result *checked(const char *label, Result *made) {
    if (made == nullptr) genhtml::fail_for_memory(label);
    return made;
}

}  // namespace

char *genhtml::new_text(const char *label, std::string_view text) { return checked(label, new_string(label, text)); }

void *ghMalloc(const char *label, int size) { return ghMemdup(label != nullptr ? label : "ghMalloc", nullptr, size); }

void *ghMemdup(const char *label, const void *source, int size) {
    if (label == nullptr) label = "ghMemdup";
    return checked(label, process_memdup(label, source, size));
}

char *ghStrdup(const char *label, const char *text) {
    if (label == nullptr) label = "ghStrdup";
    return checked(label, ghsStrdup(label, text));
}

char *ghStrcat(const char *label, const char *first, const char *second) {
    if (label == nullptr) label = "ghStrcat";
    return checked(label, ghsStrcat(label, first, second));
}

char *ghNStrcat(const char *label, ...) {
    if (label == nullptr) label = "ghNStrcat";
    va_list pieces;
    va_start(pieces, label);
    char *const whole = genhtml::joined(label, pieces);
    va_end(pieces);
    return checked(label, whole);
}

int ghSplit(const char *text, const char *delimiters, char **items) {
    constexpr char label[] = "ghSplit";
    const int count = genhtml::split(text, delimiters, items, MOST_ITEMS);
    if (count == -1) genhtml::fail_for_memory(label);
    if (count < 0) genhtml::fail("%s: Too many items in line to split, %d\n", label, MOST_ITEMS);
    return count;
}

char *ghTrimRight(char *text) {
    if (text != nullptr) genhtml::trim_right(text);
    return text;
}

char *ghSkipBlanks(char **text) { return ghsSkipBlanks(text); }

int ghIsBlank(const char *text) {
    if (text == nullptr) return 1;
    while (genhtml::is_white(*text)) text++;
    return *text == '\0';
}
