/* The request: how it reaches the program, how it is cut into fields, and the input table that holds them. Uploads are
 * read in ghmultipart.cpp. */
#include "genhtml/genhtml.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "genhtml/ghi.h"

namespace {

constexpr char label[] = "ghReadParse";
constexpr int MOST_QUERY_BYTES = 1048575;
constexpr long long MOST_BODY_BYTES = 64LL << 20;
constexpr char debug_path[] = "/tmp/genhtmlc.log";
constexpr char no_head_key[] = "NOHTTPHEAD";

PAA_S *input = nullptr;
size_t bytes_stored = 0;
bool from_command_line = false;

/** The table takes no key of length 0. An empty name goes in with its terminator, and reads as the empty text. */
int key_length(const char *key) { return static_cast<int>(std::max<size_t>(strlen(key), 1)); }

/** Takes a pair that is stored, if it is, off the sum of lengths: it is about to be replaced or removed. */
void uncount(const char *key) {
    int value_length = 0;
    if (paaFindKey(input, key, key_length(key)) == nullptr) return;
    paaFind(input, key, key_length(key), &value_length);
    bytes_stored -= strlen(key) + static_cast<size_t>(value_length);
}

/** What ghSplit fills, freed at the end. */
class Items {
public:
    Items(const char *text, const char *delimiters) : count_(ghSplit(text, delimiters, items_.data())) {}
    ~Items() {
        for (int index = 0; index < count_; index++) free(items_[static_cast<size_t>(index)]);
    }
    Items(const Items &) = delete;
    Items &operator=(const Items &) = delete;

    int count() const { return count_; }
    char *operator[](int index) const { return items_[static_cast<size_t>(index)]; }

private:
    std::array<char *, 1024> items_;  // 1022 pieces, an empty one, the end
    int count_;
};

/** Null: there is no query, which is not the same as an empty one. */
using Query = OwnedBlock<char>;

/** The query of a test call, or of a program that another one started. */
Query argument_query(int argc, char **argv) {
    if (argc == 2) {
        from_command_line = true;
        return Query(ghStrdup(label, argv[1]));
    }
    ghPrintf("%s: No Request Method given. Assuming Test Mode.\n", label);
    ghPrintf("%s: test usage: %s querystring\n", label, argc > 0 && argv[0] != nullptr ? argv[0] : "");
    exit(0);
}

Query get_query() {
    const char *query = getenv("QUERY_STRING");
    if (query != nullptr) return Query(ghStrdup(label, query));
    ghDebug("%s: GET Method, but no QUERY_STRING given\n", label);
    return {};
}

/** The query with so many bytes of standard input behind it, or as many as there are. */
Query with_body(const char *query, int body_length) {
    const size_t query_length = strlen(query);
    const long long total = static_cast<long long>(query_length) + body_length;
    if (total > MOST_QUERY_BYTES) {
        genhtml::fail("%s: POST input too long, %d bytes\n", label,
                      static_cast<int>(std::min<long long>(total, INT_MAX)));
    }
    genhtml::refuse_large_body(label, body_length);
    Query whole(ghMalloc(label, static_cast<int>(total) + 1));
    memcpy(whole.get(), query, query_length);
    const size_t read = fread(whole.get() + query_length, 1, static_cast<size_t>(body_length), stdin);
    whole[query_length + read] = '\0';
    return whole;
}

Query post_query() {
    const char *in_url = getenv("QUERY_STRING");
    Query query(in_url != nullptr && *in_url != '\0' ? ghStrcat(label, in_url, "&") : ghStrdup(label, ""));
    if (ghProcess_Post_Method() == 1) return query;

    int length = 0;
    if (!genhtml::declared_length(&length)) {
        ghDebug("%s: No CONTENT_LENGTH given\n", label);
        return {};
    }
    return length > 0 ? with_body(query.get(), length) : std::move(query);
}

/** A server that asks without wanting a page gets a head. That the length is the process id is meant. */
[[noreturn]] void answer_other_method() {
    genhtml::print_last_modified(time(nullptr));
    printf("GMT\n");
    printf("Content-Length: %d\n", static_cast<int>(getpid()));
    printf("Content-Type: text/html\n\n");
    exit(0);
}

Query request_query(int argc, char **argv) {
    const bool is_sub_script = argc == 2 && argv[1] != nullptr && strstr(argv[1], "NOHTTPHEAD=") != nullptr;
    const char *method = is_sub_script ? nullptr : getenv("REQUEST_METHOD");
    if (method == nullptr) return argument_query(argc, argv);
    if (strcmp(method, "GET") == 0) return get_query();
    if (strcmp(method, "POST") == 0) return post_query();
    answer_other_method();
}

void store_item(const char *item) {
    const Items fields(item, "=");
    if (fields.count() < 2) return;
    const OwnedBlock<char> key(ghDecode(fields[0])), value(ghDecode(fields[1]));
    genhtml::store_received(genhtml::trimmed(key.get()), genhtml::trimmed(value.get()));
}

}  // namespace

void ghReadParse(int argc, char **argv) {
    static bool is_read = false;
    if (is_read) return;
    is_read = true;

    const Query query = request_query(argc, argv);
    if (!query) return;
    genhtml::parse_query(query.get());

    char *debug = nullptr;
    if (!ghInFetch("GHDEBUG", &debug)) return;
    ghDebugFile(debug_path);
    ghDebug("%s: \"%s\"\n", label, genhtml::DebugText(query.get()).get());
}

void genhtml::parse_query(const char *query) {
    const Items items(query, "&");
    for (int index = 0; index < items.count(); index++) store_item(items[index]);
}

bool genhtml::declared_length(int *length) {
    const char *text = getenv("CONTENT_LENGTH");
    if (text == nullptr || *text == '\0') return false;
    *length = static_cast<int>(std::clamp<long>(strtol(text, nullptr, 10), INT_MIN, INT_MAX));
    return true;
}

void genhtml::refuse_large_body(const char *caller, long long bytes) {
    if (!is_hardened()) return;
    char *limit = nullptr;
    const long long most = ghsVarFetch("g_MaxPost", &limit) ? strtoll(limit, nullptr, 10) : MOST_BODY_BYTES;
    if (bytes <= most) return;
    fail("%s: POST input too long, %d bytes\n", caller, static_cast<int>(std::min<long long>(bytes, INT_MAX)));
}

char *genhtml::trimmed(char *text) {
    ghTrimRight(text);
    return ghSkipBlanks(&text);
}

PAA_S *genhtml::input_table() { return input; }

size_t genhtml::input_bytes() { return bytes_stored; }

const char *genhtml::input_text(const char *key) {
    char *value = nullptr;
    ghInFetch(key, &value);
    return value;
}

void genhtml::forget_input() {
    if (input != nullptr) paaDestroy(input);
    input = nullptr;
    bytes_stored = 0;
    from_command_line = false;
    forget_reader();
}

void genhtml::remove_input(const char *key) {
    if (input == nullptr) return;
    uncount(key);
    paaRemove(input, key, key_length(key));
}

void genhtml::store_received(const char *key, const char *value) {
    if (is_hardened() && !from_command_line && strcmp(key, no_head_key) == 0) return;
    ghInStore(key, value);
}

void ghInStore(const char *key, const char *value) {
    constexpr char caller[] = "ghInStore";
    if (key == nullptr) genhtml::fail("%s: Invalid parameter\n", caller);
    if (value == nullptr) value = "";
    if (genhtml::is_own_name(key)) {
        process_trace("%s: NOT STORED key = \"%s\" val = \"%s\"\n", caller, genhtml::DebugText(key).get(),
                      genhtml::DebugText(value).get());
        return;
    }
    if (input == nullptr) input = paaCreate(0);

    const size_t value_length = strlen(value);
    if (input != nullptr) uncount(key);
    if (input == nullptr || value_length > INT_MAX ||
        paaReplace(input, key, key_length(key), value, static_cast<int>(value_length)) != 0) {
        genhtml::fail("%s: Out of resources\n", caller);
    }
    bytes_stored += strlen(key) + value_length;
}

int ghHashFetch(PAA_S *table, const char *key, char **value) {
    if (key == nullptr || value == nullptr) genhtml::fail("%s: Invalid parameter\n", "ghHashFetch");
    const char *found = genhtml::value_in(table, {key, static_cast<size_t>(key_length(key))});
    if (found == nullptr) return ghsHashFetch(nullptr, key, value);
    *value = const_cast<char *>(found);
    return 1;
}

int ghInFetch(const char *key, char **value) { return ghHashFetch(input, key, value); }

void ghInDump() {
    constexpr char line[] = "---------------------------\n";
    ghDebug("%s", line);
    ghDebug("CGI Parameters (total %d)\n", input != nullptr ? static_cast<int>(input->count) : 0);
    ghDebug("%s", line);
    genhtml::for_each_pair(input, [](const char *key, const char *value) {
        ghDebug("%-10s => [%s]\n", genhtml::DebugText(key).get(), genhtml::DebugText(value).get());
    });
    ghDebug("%s", line);
}
