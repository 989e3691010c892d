/* Configuration files: lines, lists of values, paragraphs. Files of single values are in config2paa.cpp. */
#include "foundation/config.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include "foundation/configi.h"
#include "process/owned.h"

const char *(*config_variable_source)(const char *name) = nullptr;

namespace config {

char line[LINE_SIZE];

namespace {

constexpr int READ_SIZE = LINE_SIZE - 1;  // so at most 4094 characters: the rest of a longer line is the next line

namespace say {
void cannot_read(const char *caller) {
    const KeptErrno kept;  // config_read tells it once more
    process_error("%s: fgets failed, errmsg %s\n", caller, strerror(errno));
}
void no_table() {
    process_error("config_read: paaCreate failed! paaerrno %d, errmsg %s\n", paaerrno, strerror(errno));
}
void cannot_open(const char *path) {
    process_error("config_read: fopen %s failed! errmsg %s\n", path, strerror(errno));
}
void cannot_append(const char *key) {
    process_error("config_read: paaAppend %s failed! paaerrno %d, errmsg %s\n", shown(key).c_str(), paaerrno,
                  strerror(errno));
}
void cannot_find(const char *caller, const char *key) {
    process_error("%s: paaFind %s failed! paaerrno %d, errmsg %s\n", caller, shown(key).c_str(), paaerrno,
                  strerror(errno));
}
void not_at_end() { process_error("config_read: fgets failed! errmsg %s\n", strerror(errno)); }
}  // namespace say

enum class LineRead { DONE, AT_END, FAILED };

/** Reads a line into the line buffer, again if a signal came in between. */
LineRead read_line(const char *caller, FILE *file) {
    for (;;) {
        line[0] = '\0';
        if (fgets(line, READ_SIZE, file) != nullptr) return LineRead::DONE;
        if (feof(file) != 0) return LineRead::AT_END;
        if (errno != EINTR) {
            say::cannot_read(caller);
            return LineRead::FAILED;
        }
        errno = 0;
        clearerr(file);
    }
}

/** Adds a value to the list of its key. */
bool add_to_list(PAA_S *table, const char *key, int keyLength, const char *value, int valueLength) {
    paaFind(table, key, keyLength, nullptr);
    const bool is_known = paaerrno == 0;
    if (!is_known && paaerrno != PAAERRNOTFOUND) {
        say::cannot_find("config_read", key);
        return false;
    }
    if ((is_known && paaAppend(table, key, keyLength, "\n", 1) != 0) ||
        paaAppend(table, key, keyLength, value, valueLength) != 0) {
        say::cannot_append(key);
        return false;
    }
    return true;
}

bool read_lists(PAA_S *table, FILE *file) {
    for (;;) {
        char *key;
        char *value;
        int valueLength = 0;
        const int keyLength = config_key_value(file, &key, &value, &valueLength, nullptr);
        if (keyLength == 0) break;
        if (!add_to_list(table, key, keyLength, value, valueLength)) return false;  // a failed read is a null key
    }
    if (feof(file) != 0) return true;
    say::not_at_end();
    return false;
}

/** Looks a list up. Returns 0 or what paaerrno says; only an unknown key stays unreported. */
int find_list(const char *caller, PAA_S *table, const char *key, std::string_view *list) {
    int length = 0;
    const auto *text =
        static_cast<const char *>(paaFind(table, key, key != nullptr ? static_cast<int>(strlen(key)) : 0, &length));
    const int code = paaerrno;
    if (code == 0) *list = text != nullptr ? std::string_view(text, strnlen(text, length)) : std::string_view();
    if (code != 0 && code != PAAERRNOTFOUND) say::cannot_find(caller, key);
    return code;
}

}  // namespace
}  // namespace config

using namespace config;

int config_key_value(FILE *file, char **key, char **value, int *valueLength, int *lineNumber) {
    *key = nullptr;
    *value = nullptr;
    for (;;) {
        switch (read_line("config_key_value", file)) {
            case LineRead::AT_END:
                return 0;
            case LineRead::FAILED:
                return -1;
            case LineRead::DONE:
                break;
        }
        if (lineNumber != nullptr) ++*lineNumber;

        char *content = skip_white(line);
        if (is_blank_or_comment(content)) continue;
        char *rest = cut_word(content);
        if (*rest != '\0') {
            const int length = strip_end(rest);
            if (valueLength != nullptr) *valueLength = length;
            *value = rest;
        }
        *key = content;
        return static_cast<int>(strlen(content));
    }
}

PAA_S *config_read(PAA_S *table, const char *path) {
    OwnedTable made;
    table = table_or_new(table, made);
    if (table == nullptr) {
        say::no_table();
        return nullptr;
    }
    const OwnedFile file(fopen(path, "re"));
    if (!file.is_open()) {
        say::cannot_open(path);
        return nullptr;
    }
    if (!read_lists(table, file.get())) return nullptr;
    static_cast<void>(made.release());  // from here on it is the caller's
    return table;
}

char *config_value(PAA_S *table, const char *key, int index) {
    line[0] = '\0';
    std::string_view list;
    if (find_list("config_value", table, key, &list) != 0) return nullptr;

    for (; index > 0; --index) {
        const size_t end = list.find('\n');
        if (end == std::string_view::npos) return nullptr;
        list.remove_prefix(end + 1);
    }
    const std::string_view value = list.substr(0, list.find('\n'));
    line[value.copy(line, LINE_SIZE - 1)] = '\0';
    return line;
}

int config_nvalues(PAA_S *table, const char *key) {
    std::string_view list;
    const int code = find_list("config_nvalues", table, key, &list);
    if (code != 0) return code == PAAERRNOTFOUND ? 0 : -1;
    int values = 1;
    for (const char character : list) values += character == '\n' ? 1 : 0;
    return values;
}

int config_free(PAA_S *table) { return paaDestroy(table); }

int config_paragraph(FILE *file, char *buffer, int size) {
    if (size < 2) return 0;
    buffer[0] = '\0';
    int length = 0;
    while (length < size - 1) {
        switch (read_line("config_paragraph", file)) {
            case LineRead::AT_END:
                return length;
            case LineRead::FAILED:
                return -1;
            case LineRead::DONE:
                break;
        }
        if (!is_blank_or_comment(skip_white(line)))
            length += process_strlcpy(buffer + length, size - length, line);
        else if (length > 0)
            break;
    }
    return length;
}
