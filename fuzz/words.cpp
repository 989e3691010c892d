/* Any line of a script as words. They lie in the line, one behind the other; the walk ends; and a word that is put in
 * quotes comes back as it was.
 *
 * Input: the line. */
#include "fuzz/fuzz.h"
#include "raserver/raextern.h"

namespace {

/** Quotes a word; not for one in which a backslash stands in front of a quote or of the end, which no quoting keeps. */
std::string quoted(const std::string &word) {
    std::string text = "\"";
    for (const char character : word) text += character == '"' ? std::string("\\\"") : std::string(1, character);
    return text + "\" next";
}

bool can_be_quoted(const std::string &word) {
    return word.find("\\\"") == std::string::npos && word.find('\n') == std::string::npos &&
           (word.empty() || word.back() != '\\');
}

void check_quoting(const std::string &word) {
    std::string line = quoted(word);
    char *position = line.data();
    FUZZ_REQUIRE(word == raclient_next_word(&position));
    FUZZ_REQUIRE(std::string("next") == raclient_next_word(&position));
    FUZZ_REQUIRE(raclient_next_word(&position) == nullptr);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Bytes line(data, data + size);
    line.push_back(0);
    line.shrink_to_fit();
    char *position = reinterpret_cast<char *>(line.data());
    const char *const end = position + strlen(position);

    std::vector<std::string> words;
    const char *behind = position;
    while (const char *word = raclient_next_word(&position)) {
        FUZZ_REQUIRE(word >= behind && word + strlen(word) <= position && position <= end);
        behind = position;
        words.emplace_back(word);
    }
    FUZZ_REQUIRE(position == end && raclient_next_word(&position) == nullptr);
    for (const std::string &word : words) {
        if (can_be_quoted(word)) check_quoting(word);
    }
    return 0;
}
