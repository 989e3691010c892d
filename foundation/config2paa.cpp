/* Configuration files with one value a key: continued lines, line feeds within a value, later lines win.
 *
 * The key files of the platform are read here. What passes through the buffers, the stream's own among them, is wiped
 * when a file is done; who asked for the table sees to what is in it. */
#include <cerrno>
#include <cstring>

#include "foundation/config.h"
#include "foundation/configi.h"
#include "process/owned.h"

namespace config {
namespace {

constexpr char label[] = "config_read2paa";
constexpr int LONGEST_VALUE = 16382;

struct Scratch {
    char key[LINE_SIZE];
    char value[LONGEST_VALUE + 1];
    int valueLength;
    char stream[LINE_SIZE];  // what stdio has read ahead
};
Scratch scratch;

struct WipeAtEnd {
    ~WipeAtEnd() {
        wipe(&scratch, sizeof scratch);
        wipe(line, sizeof line);
    }
};

namespace say {
void no_table() { process_error("%s: Out of resources\n", label); }
void cannot_open(const char *path) {
    process_error("%s: Cannot open config file \"%s\" %s\n", label, path, strerror(errno));
}
void too_long(const char *path) {
    process_error("%s: file %s, value for key \"%s\" is too long\n", label, path, shown(scratch.key).c_str());
}
void overwritten(const char *path) {
    process_log("%s: file %s, Overwrite key = \"%s\" val =\"%s\"\n", label, path, shown(scratch.key).c_str(),
                shown(scratch.value).c_str());
}
void no_memory(const char *path) { process_error("%s: reading file %s, out of resources\n", label, path); }
}  // namespace say

bool append_to_value(const char *piece) {
    const int length = static_cast<int>(strlen(piece));
    if (scratch.valueLength + length > LONGEST_VALUE) return false;
    memcpy(scratch.value + scratch.valueLength, piece, length + 1);
    scratch.valueLength += length;
    return true;
}

/** Puts the value together from the rest of its key's line and the lines that go on with it. False: too long. */
bool collect_value(FILE *file, const char *rest) {
    scratch.valueLength = 0;
    scratch.value[0] = '\0';
    for (const char *piece = rest; *piece != '\0'; piece = line) {
        if (!append_to_value(piece)) return false;
        char *last = &scratch.value[scratch.valueLength - 1];
        if (*last != '\\') break;
        *last = '\0';
        --scratch.valueLength;
        if (fgets(line, sizeof line, file) == nullptr) break;
        strip_end(line);
    }
    return true;
}

/** Turns each backslash with an "n" into a blank and a line feed: as long as before, so it is done in place. */
void expand_line_feeds(char *text) {
    while ((text = strstr(text, "\\n")) != nullptr) {
        *text++ = ' ';
        *text++ = '\n';
    }
}

bool store_entry(PAA_S *table, const char *path) {
    const int keyLength = static_cast<int>(strlen(scratch.key));
    int result = paaInsert(table, scratch.key, keyLength, scratch.value, scratch.valueLength);
    if (result != 0 && paaerrno == PAAERREXISTS) {
        say::overwritten(path);
        paaRemove(table, scratch.key, keyLength);
        result = paaInsert(table, scratch.key, keyLength, scratch.value, scratch.valueLength);
    }
    if (result != 0) say::no_memory(path);
    return result == 0;
}

bool read_entries(PAA_S *table, FILE *file, const char *path) {
    while (fgets(line, sizeof line, file) != nullptr) {
        strip_end(line);
        char *key = skip_white(line);
        if (is_blank_or_comment(key)) continue;
        const char *rest = cut_word(key);
        process_strlcpy(scratch.key, sizeof scratch.key, key);

        if (!collect_value(file, rest)) {
            say::too_long(path);
            return false;
        }
        expand_line_feeds(scratch.value);
        if (!store_entry(table, path)) return false;
    }
    return true;
}

}  // namespace
}  // namespace config

using namespace config;

PAA_S *config_read2paa(PAA_S *table, const char *path) {
    OwnedTable made;
    table = table_or_new(table, made);
    if (table == nullptr) {
        say::no_table();
        return nullptr;
    }
    const WipeAtEnd wiping;  // outlives the stream, whose buffer it wipes
    const OwnedFile file(fopen(path, "re"));
    if (!file.is_open()) {
        say::cannot_open(path);
        return nullptr;
    }
    setvbuf(file.get(), scratch.stream, _IOFBF, sizeof scratch.stream);
    if (!read_entries(table, file.get(), path)) return nullptr;
    static_cast<void>(made.release());  // from here on it is the caller's
    return table;
}
