/* Scripts: requests out of a text file, one a line, and the rule by which a line falls into words. */
#include <errno.h>
#include <stdio.h>

#include "process/velproc.h"
#include "raserver/raclienti.h"

namespace {

constexpr int LINE_SIZE = 32001;  // 32000 characters, and the zero byte

enum class LineEnd { READ, END_OF_FILE, FAILED };

/** As fgets reads a line, but an interruption takes nothing away from it. Stops at one if the process is to stop. */
LineEnd read_line(FILE *stream, char (&line)[LINE_SIZE]) {
    int length = 0;
    while (length < LINE_SIZE - 1) {
        const int character = getc(stream);
        if (character == EOF && ferror(stream) != 0) {
            if (errno != EINTR || process_context.running == 0) return LineEnd::FAILED;
            clearerr(stream);
            continue;
        }
        if (character == EOF) break;
        line[length++] = static_cast<char>(character);
        if (character == '\n') break;
    }
    line[length] = 0;
    return length > 0 ? LineEnd::READ : LineEnd::END_OF_FILE;
}

int split_into_words(char *line, char *(&words)[RA_MAX_STRINGS + 1]) {
    int count = 0;
    while (count < RA_MAX_STRINGS && (words[count] = raclient_next_word(&line)) != nullptr) ++count;
    words[count] = nullptr;
    return count;
}

bool is_space(char character) { return process_isspace(static_cast<unsigned char>(character)) != 0; }

/** The rest of a word behind its opening quote. It can only become shorter, so it is written where it is read. */
char *quoted_word(char *source, char **position) {
    if (*source == 0) {
        *position = source;
        return nullptr;
    }
    char *const word = source;
    char *target = source;
    while (*source != 0 && *source != '"' && *source != '\n') {
        if (source[0] == '\\' && source[1] == '"') ++source;
        *target++ = *source++;
    }
    *position = *source != 0 ? source + 1 : source;
    *target = 0;
    return word;
}

char *plain_word(char *source, char **position) {
    char *const word = source;
    while (*source != 0 && !is_space(*source)) ++source;
    *position = *source != 0 ? source + 1 : source;
    *source = 0;
    return word;
}

void print_results(RA_CLIENT_S *client, int count) {
    for (int index = 0; index < count; ++index) printf("%s\n", raclient_result(client, index));
}

}  // namespace

char *raclient_next_word(char **position) {
    char *source = *position;
    if (source == nullptr) return nullptr;
    while (*source != 0 && is_space(*source)) ++source;
    if (*source == '"') return quoted_word(source + 1, position);
    if (*source != 0) return plain_word(source, position);
    *position = source;
    return nullptr;
}

int raclient_udp_script(RA_CLIENT_S *client, FILE *stream) {
    if (ra::as_client(client) == nullptr) return RAERRNOCLIENT;
    int total = 0;
    for (;;) {
        char line[LINE_SIZE];
        const LineEnd end = read_line(stream, line);
        if (end == LineEnd::END_OF_FILE) return total;
        if (end == LineEnd::FAILED) return process_context.running == 0 ? ra::say::killed(client) : -1;

        char *words[RA_MAX_STRINGS + 1];
        const int count = split_into_words(line, words);
        if (count == 0 || words[0][0] == '#') continue;
        const int result = raclient_udp_request(client, count, words);
        if (result < 0) return result;
        print_results(client, result);
        total += result;
    }
}
