/* Checked allocation, the tokeniser, and small helpers for text and characters. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "process/processi.h"

namespace {

/** One series of tokens: a copy of its text, in which each delimiter that ends a token becomes a zero byte. */
struct TokenSeries {
    char *copy = nullptr;
    char *cursor = nullptr;
    char *end = nullptr;
};
TokenSeries series;

void start_series(const char *text) {
    const auto length = strlen(text);
    // Copied before the old copy goes: the text may be one of its tokens.
    auto *copy = static_cast<char *>(process_memdup("process_strtok", text, static_cast<int>(length) + 1));
    free(series.copy);
    series = copy != nullptr ? TokenSeries{copy, copy, copy + length} : TokenSeries{};
}

bool is_delimiter(char character, const char *delimiters) {
    return delimiters != nullptr && character != '\0' && strchr(delimiters, character) != nullptr;
}

bool is_between(int character, int first, int last) { return character >= first && character <= last; }

}  // namespace

void *process_malloc(const char *label, int size) {
    return process_memdup(label != nullptr ? label : "process_malloc", nullptr, size);
}

void *process_memdup(const char *label, const void *source, int size) {
    if (label == nullptr) label = "process_memdup";
    if (size == 0) {
        process_error("%s: malloc 0 bytes is illegal.\n", label);
        return nullptr;
    }
    void *block = size > 0 ? calloc(1, static_cast<size_t>(size)) : nullptr;
    if (block == nullptr) {
        if (size < 0) errno = ENOMEM;
        process_error("%s: malloc %d bytes failed! errmsg %s\n", label, size, strerror(errno));
        return nullptr;
    }
    if (source != nullptr) memcpy(block, source, static_cast<size_t>(size));
    return block;
}

char *process_strtok(const char *text, const char *delimiters) {
    if (text != nullptr) start_series(text);

    auto &[copy, cursor, end] = series;
    while (cursor < end && (*cursor == '\0' || is_delimiter(*cursor, delimiters))) cursor++;
    if (cursor == end) return nullptr;

    char *const token = cursor;
    while (cursor < end && !is_delimiter(*cursor, delimiters)) cursor++;
    *cursor = '\0';  // at the end it is one already
    return token;
}

char *process_strrstr(const char *text, const char *needle) {
    if (text == nullptr || *text == '\0') return nullptr;
    if (needle == nullptr || *needle == '\0') return const_cast<char *>(text);

    const auto text_length = strlen(text);
    const auto needle_length = strlen(needle);
    if (needle_length > text_length) return nullptr;
    for (const char *place = text + (text_length - needle_length);; place--) {
        if (memcmp(place, needle, needle_length) == 0) return const_cast<char *>(place);
        if (place == text) return nullptr;
    }
}

int process_strlcpy(char *dest, int size, const char *source) {
    if (size <= 0) return -1;
    const auto length = source != nullptr ? strnlen(source, static_cast<size_t>(size) - 1) : 0;
    if (length > 0) memcpy(dest, source, length);
    dest[length] = '\0';
    return static_cast<int>(length);
}

int process_strlcat(char *dest, int size, const char *source) {
    if (size <= 0) return -1;
    const int used = static_cast<int>(strlen(dest));
    if (used < size - 1) return process_strlcpy(dest + used, size - used, source);
    dest[size - 1] = '\0';
    return used;
}

int process_isupper(int character) { return is_between(character, 'A', 'Z'); }
int process_islower(int character) { return is_between(character, 'a', 'z'); }
int process_isdigit(int character) { return is_between(character, '0', '9'); }
int process_isalpha(int character) { return process_isupper(character) || process_islower(character); }
int process_isalnum(int character) { return process_isalpha(character) || process_isdigit(character); }
int process_isspace(int character) { return is_between(character, 9, 13) || character == ' '; }
