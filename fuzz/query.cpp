/* Any text as the query of a CGI program, and what a page makes of the fields: queries, hidden fields, links, variables.
 *
 * Input: the query. One with more pieces than a program takes ends in the error page, so it is left out here. */
#include <algorithm>

#include "fuzz/fuzz.h"
#include "fuzz/variables.h"
#include "genhtml/ghi.h"

namespace {

using Text = OwnedBlock<char>;
constexpr int MOST_PIECES = 1000;

bool is_within_limits(const std::string &query) {
    return std::count(query.begin(), query.end(), '&') < MOST_PIECES &&
           std::count(query.begin(), query.end(), '=') < MOST_PIECES;
}

/** Walks over the input. Returns whether a key is empty, which no query can say. */
bool check_input() {
    size_t bytes = 0;
    bool has_empty_key = false;
    genhtml::for_each_pair(genhtml::input_table(), [&](const char *key, const char *value) {
        FUZZ_REQUIRE(!genhtml::is_own_name(key));
        FUZZ_REQUIRE(strcmp(genhtml::input_text(key), value) == 0);
        bytes += strlen(key) + strlen(value);
        has_empty_key = has_empty_key || *key == '\0';
    });
    FUZZ_REQUIRE(bytes == genhtml::input_bytes());
    return has_empty_key;
}

void show_fields() {
    genhtml::for_each_pair(genhtml::input_table(), [&](const char *key, const char *value) {
        std::string name = key;
        char *keys[] = {name.data(), name.data(), nullptr};
        const Text fields(ghIn2Hidden(keys)), links(ghReplaceHTMLLinks(value)), other(ghCaseReplace(value, key, "&"));
        FUZZ_REQUIRE(strchr(fields.get(), '<') != nullptr);
        FUZZ_REQUIRE(strlen(links.get()) >= strlen(value));
    });
    ghIn2Replace(1);
    ghT_2Replace();
    forget_variables();
    ghInRemoveAccess();
    FUZZ_REQUIRE(*genhtml::input_text("isOwner") == '\0');
    check_input();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    become_a_silent_process();
    const std::string query(reinterpret_cast<const char *>(data), size);
    if (!is_within_limits(query)) return 0;

    genhtml::parse_query(query.c_str());
    const bool has_empty_key = check_input();
    const Text again(ghIn2Query(nullptr));
    show_fields();

    genhtml::forget_input();
    genhtml::parse_query(again.get());
    const Text once_more(ghIn2Query(nullptr));
    FUZZ_REQUIRE(has_empty_key || strcmp(again.get(), once_more.get()) == 0);
    genhtml::forget_input();
    return 0;
}
