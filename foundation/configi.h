/* Configuration files, the inner side: what config.cpp and config2paa.cpp share. Not for other folders. */
#ifndef FOUNDATION_CONFIGI_H
#define FOUNDATION_CONFIGI_H

#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "foundation/paa.h"
#include "process/printable.h"
#include "process/velproc.h"

namespace config {

/** The one line buffer. Results point into it, and each call of the library may overwrite it. */
inline constexpr int LINE_SIZE = 4096;
extern char line[LINE_SIZE];

inline char *skip_white(char *text) {
    while (process_isspace(static_cast<unsigned char>(*text)) != 0) ++text;
    return text;
}

inline char *skip_word(char *text) {
    while (*text != '\0' && process_isspace(static_cast<unsigned char>(*text)) == 0) ++text;
    return text;
}

/** Takes the white space off the end. Returns the length that is left. */
inline int strip_end(char *text) {
    std::size_t length = strlen(text);
    while (length > 0 && process_isspace(static_cast<unsigned char>(text[length - 1])) != 0) text[--length] = '\0';
    return static_cast<int>(length);
}

/** Ends the word that begins at `text` and returns what comes behind the white space after it. */
inline char *cut_word(char *text) {
    char *end = skip_word(text);
    char *rest = skip_white(end);
    *end = '\0';
    return rest;
}

/** What a line of a file holds, from its first character that isn't white. */
inline bool is_blank_or_comment(const char *content) { return *content == '\0' || *content == '#'; }

/** Text of a file or of a peer for a log line. No exception, for it also tells of failures by lack of memory. */
inline std::string shown(const char *text) noexcept {
    try {
        return printable(text != nullptr ? text : "(null)");
    } catch (const std::bad_alloc &) {
        return "?";
    }
}

struct EndTable {
    void operator()(PAA_S *table) const { paaDestroy(table); }
};
/** A table that a reader has made: it ends with the reader's failure. */
using OwnedTable = std::unique_ptr<PAA_S, EndTable>;

/** The table to read into: the caller's, or without one a new table, which `made` owns. Null without memory. */
inline PAA_S *table_or_new(PAA_S *table, OwnedTable &made) {
    if (table != nullptr) return table;
    made.reset(paaCreate(0));
    return made.get();
}

}  // namespace config

#endif
