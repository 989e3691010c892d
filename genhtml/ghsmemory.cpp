/* The error slot of the ghs calls, and the calls that give memory, join strings and cut them. */
#include <errno.h>
#include <limits.h>
#include <stdio.h>

#include <algorithm>
#include <array>

#include "genhtml/ghstate.h"

using namespace genhtml;

int ghsErrno = 0;
char ghsErrMsg[2048];

namespace {

constexpr size_t REMEMBERED_LENGTHS = 64;

/** Room for a text of this length; null with code 10. */
char *text_room(const char *label, size_t length) {
    return static_cast<char *>(ghsMalloc(label, length < INT_MAX ? static_cast<int>(length) + 1 : -1));
}

void free_items(char **items, int count) {
    for (int index = 0; index < count; ++index) free(items[index]);
    items[0] = nullptr;
}

void tell(const char *format, ...) PROCESS_PRINTF(1, 2);
void tell(const char *format, ...) {
    va_list parts;
    va_start(parts, format);
    vsnprintf(ghsErrMsg, sizeof ghsErrMsg, format, parts);
    va_end(parts);
}

bool add_item(char **items, int &count, const char *text) {
    char *item = new_string("ghsSplit", text);
    items[count] = item;
    if (item == nullptr) return false;
    items[++count] = nullptr;
    return true;
}

}  // namespace

void genhtml::clear_error(std::string_view label) {
    static constexpr char ending[] = ": Ok.\n";
    const size_t length = std::min(label.size(), sizeof ghsErrMsg - sizeof ending);
    ghsErrno = 0;
    char *end = std::copy_n(label.data(), length, ghsErrMsg);  // memcpy would become a slow "rep movs" here
    memcpy(end, ending, sizeof ending);
}

void genhtml::set_error(int code, const char *label, const char *name) {
    const char *reason = strerror(errno);
    if (name == nullptr) name = "";
    ghsErrno = code;
    switch (code) {
        case NO_MEMORY:
            return tell("%s: Out of memory.\n", label);
        case LOOP_TOO_LONG:
            return tell("%s: Too many lines in loop \"%.127s\".\n", label, name);
        case LOOP_WITHOUT_END:
            return tell("%s: End of for loop \"%.127s\" not found.\n", label, name);
        case NO_FILE:
            return tell("%s: Cannot open file \"%.127s\": %s.\n", label, name, reason);
        case TWO_DOTS:
            return tell("%s: Path with \"..\", not allowed \"%.127s\".\n", label, name);
        default:
            ghsErrMsg[0] = '\0';
    }
}

char *genhtml::new_string(const char *label, std::string_view text) {
    char *copy = text_room(label, text.size());
    if (copy != nullptr && !text.empty()) memcpy(copy, text.data(), text.size());
    return copy;
}

char *genhtml::joined(const char *label, va_list pieces) {
    va_list again;
    va_copy(again, pieces);
    std::array<size_t, REMEMBERED_LENGTHS> lengths;
    size_t count = 0, total = 0;
    while (const char *piece = va_arg(pieces, const char *)) {
        const size_t length = strlen(piece);
        if (count < lengths.size()) lengths[count] = length;
        total += length;
        ++count;
    }

    char *const result = text_room(label, total);
    char *end = result;
    for (size_t index = 0; index < count && result != nullptr; ++index) {
        const char *piece = va_arg(again, const char *);
        const size_t length = index < lengths.size() ? lengths[index] : strlen(piece);
        end = std::copy_n(piece, length, end);
    }
    va_end(again);
    return result;
}

int genhtml::split(const char *text, const char *delimiters, char **items, int most) {
    const std::string_view whole = text_or_none(text), ending = text_or_none(delimiters);
    int count = 0;
    bool done = true;
    items[0] = nullptr;
    for (char *piece = process_strtok(whole.data(), ending.data()); piece != nullptr && done;
         piece = process_strtok(nullptr, ending.data())) {
        if (count >= most) {
            free_items(items, count);
            return -2;
        }
        done = add_item(items, count, piece);
    }
    // "a=" is a key with an empty value: what ends in the delimiter has something behind it.
    if (done && !ending.empty() && whole.ends_with(ending)) done = add_item(items, count, "");
    if (done) return count;
    free_items(items, count);
    return -1;
}

void *ghsMalloc(const char *label, int size) {
    return ghsMemdup(label != nullptr ? label : "ghsMalloc", nullptr, size);
}

void *ghsMemdup(const char *label, const void *source, int size) {
    if (label == nullptr) label = "ghsMemdup";
    clear_error(label);
    void *copy = size > 0 ? calloc(1, static_cast<size_t>(size)) : nullptr;  // process_memdup would print its failure
    if (copy == nullptr) {
        set_error(NO_MEMORY, label);
    } else if (source != nullptr) {
        memcpy(copy, source, static_cast<size_t>(size));
    }
    return copy;
}

char *ghsStrdup(const char *label, const char *text) {
    return new_string(label != nullptr ? label : "ghsStrdup", text_or_none(text));
}

char *ghsStrcat(const char *label, const char *first, const char *second) {
    const std::string_view left = text_or_none(first), right = text_or_none(second);
    char *result = text_room(label != nullptr ? label : "ghsStrcat", left.size() + right.size());
    if (result == nullptr) return nullptr;
    memcpy(result, left.data(), left.size());
    memcpy(result + left.size(), right.data(), right.size());
    return result;
}

char *ghsNStrcat(const char *label, ...) {
    va_list pieces;
    va_start(pieces, label);
    char *result = joined(label != nullptr ? label : "ghsNStrcat", pieces);
    va_end(pieces);
    return result;
}

int ghsSplit(const char *text, const char *delimiters, char **items) {
    clear_error("ghsSplit");
    return split(text, delimiters, items, INT_MAX);
}
