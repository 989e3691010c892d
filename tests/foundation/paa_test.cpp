/* Associative arrays: against a model with random operations, and the edges one by one. */
#include "foundation/paa.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/resource.h>
#include <algorithm>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/child.h"

using namespace std::string_literals;

namespace {

using Strings = std::vector<std::string>;
using Table = std::unique_ptr<PAA_S, int (*)(PAA_S *)>;
Table make(int flags = 0) { return {paaCreate(flags), paaDestroy}; }

constexpr int NOLENGTH = -77;
constexpr char NONE[] = "(null)";

int length(const std::string &text) { return static_cast<int>(text.size()); }
int insert(const Table &table, const std::string &key, const std::string &value = "") {
    return paaInsert(table.get(), key.data(), length(key), value.data(), length(value));
}
int remove(const Table &table, const std::string &key) { return paaRemove(table.get(), key.data(), length(key)); }

/** The bytes that a call returned, with the NUL behind them checked. */
std::string bytes(const void *block, int size) {
    if (block == nullptr) return NONE;
    const char *text = static_cast<const char *>(block);
    EXPECT_EQ(text[size], '\0') << "no NUL behind it";
    return {text, static_cast<size_t>(size)};
}

using Step = void *(*)(PAA_S *, int *);
Strings walk(const Table &table, Step first, Step next) {
    Strings keys;
    int size = 0;
    for (void *key = first(table.get(), &size); key != nullptr; key = next(table.get(), &size)) {
        keys.push_back(bytes(key, size));
    }
    EXPECT_EQ(paaerrno, PAAERRNOTFOUND);
    return keys;
}
Strings in_order(const Table &table) { return walk(table, paaFirst, paaNext); }
Strings sorted(const Table &table) { return walk(table, paaFirstSorted, paaNextSorted); }

/* ---- Against a model ------------------------------------------------------------------------------------------- */

/** A key of two words whose XOR is always the same: all such keys share one bucket, in tables of both sizes. */
std::string colliding_key(uint32_t number) {
    const uint32_t words[2] = {number, number ^ 0x5eedf00d};
    return {reinterpret_cast<const char *>(words), sizeof words};
}

/** The same, but that they differ only behind twelve bytes, or only in their length. */
std::string alike_at_first(uint32_t number) { return "twelve bytes" + colliding_key(number); }
std::string longer_by_zeros(uint32_t number) { return "abcd" + std::string(number, '\0'); }
constexpr std::string (*in_one_bucket[])(uint32_t) = {colliding_key, alike_at_first, longer_by_zeros};

class Model : public testing::TestWithParam<int> {
protected:
    Table table = make(GetParam() | 0x70);  // unknown flags are dropped
    const bool pointers = (GetParam() & PAAFLAGPOINTER) != 0;
    std::map<std::string, std::string> model;  // in byte order, as std::string compares unsigned
    Strings order;
    Seeded random;
    char targets[64];  // what stored pointers point to, if they aren't null

    std::string random_key() {
        if (random() % 2 == 0) return in_one_bucket[random() % 3](random() % 700);
        static const char bytes_used[] = {'\0', 'a', 'b', '\x7f', '\x80', '\xff'};
        std::string key(1 + random() % 9, 'x');
        for (char &byte : key) byte = bytes_used[random() % (random() % 4 == 0 ? 6 : 3)];
        return key;
    }
    /** A value as the model keeps it: bytes, or where a pointer leads to. */
    std::string kept(const void *value, int size) const {
        return pointers && value != nullptr ? std::to_string(static_cast<const char *>(value) - targets)
                                            : bytes(value, size);
    }
    void write(unsigned kind, const std::string &key) {
        enum { INSERT, REPLACE, APPEND };
        std::string value(random() % 3 == 0 ? 0 : random() % 12, 'v');
        for (char &byte : value) byte = static_cast<char>(random());
        const char *given = value.empty() ? nullptr : pointers ? &targets[random() % sizeof targets] : value.data();
        const int size = pointers && given != nullptr ? 99 : length(value);
        const bool refused = model.contains(key) && (kind == INSERT || (pointers && kind == APPEND));
        const auto call = kind == INSERT ? paaInsert : kind == REPLACE ? paaReplace : paaAppend;
        ASSERT_EQ(call(table.get(), key.data(), length(key), given, size), refused ? -1 : 0);
        ASSERT_EQ(paaerrno, refused ? PAAERREXISTS : 0);
        if (refused) return;
        const bool is_new = !model.contains(key);
        if (is_new) order.push_back(key);
        std::string &content = model[key];
        if (kind != APPEND || (content == NONE && !value.empty())) content.clear();
        content += pointers ? kept(given, 0) : value;
        if (kind == REPLACE && value.empty() && !is_new) content = NONE;  // a new key is inserted: empty
    }
    void erase(const std::string &key) {
        ASSERT_EQ(remove(table, key), model.contains(key) ? 0 : -1);
        ASSERT_EQ(paaerrno, model.contains(key) ? 0 : PAAERRNOTFOUND);
        model.erase(key);
        std::erase(order, key);
    }
    void look_up(const std::string &key) {
        const bool known = model.contains(key);
        int size = NOLENGTH;
        const void *value = paaFind(table.get(), key.data(), length(key), &size);
        ASSERT_EQ(paaerrno, known ? 0 : PAAERRNOTFOUND);
        ASSERT_EQ(kept(value, size), known ? model[key] : NONE);
        ASSERT_TRUE(!known || (!pointers && value != nullptr) || size == (pointers ? 4 : 0));
        ASSERT_EQ(bytes(paaFindKey(table.get(), key.data(), length(key)), length(key)), known ? key : NONE);
    }
    /** Reads some keys in the order in which they came, which lets the table guess the next. Returns that one. */
    std::string read_in_order() {
        size_t at = random() % order.size();
        for (const size_t end = std::min(at + 4, order.size() - 1); at < end; at++) look_up(order[at]);
        return order[at];
    }
    void check_all() {
        ASSERT_EQ(table->count, order.size());
        ASSERT_EQ(in_order(table), order);
        Strings ascending = order;
        std::sort(ascending.begin(), ascending.end());
        ASSERT_EQ(sorted(table), ascending);
        std::reverse(ascending.begin(), ascending.end());
        ASSERT_EQ(walk(table, paaLastSorted, paaPrevSorted), ascending);
        check_chains();
    }
    /** Each chain is in ascending order and linked both ways; together they hold all entries. */
    void check_chains() {
        size_t found = 0;
        for (uint32_t bucket = 0; bucket < ((GetParam() & PAAFLAGLARGE) != 0 ? 65521 : 1019); bucket++) {
            const PAA_ENTRY_S *before = nullptr;
            for (const PAA_ENTRY_S *entry = table->buckets[bucket]; entry != nullptr; entry = entry->chainNext) {
                ASSERT_EQ(entry->chainPrev, before);
                ASSERT_TRUE(before == nullptr || key_of(before) < key_of(entry));
                before = entry;
                found++;
            }
        }
        ASSERT_EQ(found, order.size());
    }
    static std::string key_of(const PAA_ENTRY_S *entry) {
        return bytes(entry->key, static_cast<int>(entry->keyLength));
    }
};

TEST_P(Model, AgreesAfterManyOperations) {
    ASSERT_EQ(paaClear(table.get()), 0) << "an empty table can be cleared";
    Strings seen;
    for (int round = 0; round < 6000 && !HasFatalFailure(); round++) {
        std::string key = seen.empty() || random() % 3 == 0 ? random_key() : seen[random() % seen.size()];
        if (seen.size() < 400) seen.push_back(key);
        const unsigned kind = random() % 5;
        if (!order.empty() && random() % 4 == 0) key = read_in_order();
        if (kind < 3) write(kind, key);
        if (kind == 3) erase(key);
        look_up(key);
        if (round % 500 == 499) check_all();
        if (round == 3000) {
            ASSERT_EQ(paaClear(table.get()), 0);
            model.clear();
            order.clear();
            ASSERT_EQ(static_cast<int>(table->flags), GetParam());
        }
    }
    check_all();
}
INSTANTIATE_TEST_SUITE_P(Forms, Model,
                         testing::Values(0, PAAFLAGPOINTER, PAAFLAGLARGE, PAAFLAGPOINTER | PAAFLAGLARGE));

/* ---- Codes ------------------------------------------------------------------------------------------------------ */

TEST(PaaErrors, OfArgumentsComeInTheirOrder) {
    const auto expect = [](bool has_failed, int code) {
        EXPECT_TRUE(has_failed);
        EXPECT_EQ(paaerrno, code);
    };
    const Table table = make();
    PAA_S stray{};
    struct Row {
        PAA_S *table;
        const char *key;
        int length, reading, writing;  // codes of the calls that read and that write
    };
    for (const auto &[handle, key, length, reading, writing] :
         {Row{&stray, nullptr, 0, PAAERRBADHANDLE, PAAERRBADHANDLE},
          Row{table.get(), nullptr, 0, PAAERRNOKEYLEN, PAAERRNOKEYLEN},
          Row{table.get(), nullptr, 1, PAAERRNOKEY, PAAERRNOKEY},
          Row{table.get(), "k", 1, PAAERRNOTFOUND, PAAERRNODATA}}) {
        for (const auto call : {paaInsert, paaReplace, paaAppend}) {
            expect(call(handle, key, length, nullptr, 1) == -1, writing);
        }
        expect(paaFind(handle, key, length, nullptr) == nullptr, reading);
        expect(paaFindKey(handle, key, length) == nullptr, reading);
        expect(paaRemove(handle, key, length) == -1, reading);
    }
    EXPECT_EQ(table->buckets, nullptr) << "nothing is allocated before the first insertion";
    for (const auto call : {paaClear, paaDestroy, paaDump}) expect(call(&stray) == -1, PAAERRBADHANDLE);
}

#if !defined(__SANITIZE_ADDRESS__)  // its own memory does not fit under the limit
std::string find(const Table &table, const std::string &key) {
    int size = NOLENGTH;
    const void *value = paaFind(table.get(), key.data(), length(key), &size);
    return bytes(value, size);
}

TEST(PaaErrors, OfMemoryLeaveTheTableAsItWas) {
    Child child([](Child &self) {
        constexpr int LARGE = 1 << 28;
        const std::string value(LARGE, 'x');
        const Table table = make();
        if (insert(table, "k", "old") != 0) return 1;
        const rlimit limit{LARGE + LARGE / 2, LARGE + LARGE / 2};
        setrlimit(RLIMIT_AS, &limit);
        std::string codes;
        for (const auto call : {paaReplace, paaAppend, paaInsert}) {
            const char *key = call == paaInsert ? "new" : "k";
            const int result = call(table.get(), key, static_cast<int>(strlen(key)), value.data(), LARGE);
            codes += std::to_string(result) + " " + std::to_string(paaerrno) + ",";
        }
        self.report(codes + find(table, "k") + "," + find(table, "new") + "," + in_order(table)[0]);
        return in_order(table).size() == 1 ? 0 : 2;
    });
    EXPECT_EQ(child.next_report(), "-1 25,-1 25,-1 25,old,(null),k");
    EXPECT_EQ(child.exit_code(), 0);
}
#endif

/* ---- Walks ------------------------------------------------------------------------------------------------------- */

constexpr Step starts[] = {paaFirst, paaFirstSorted, paaLastSorted};
constexpr Step steps[] = {paaNext, paaCurrent, paaNextSorted, paaPrevSorted, paaCurrentSorted};

/** What a step finds, or the code that it leaves. */
std::string at(Step step, PAA_S *table) {
    int size = NOLENGTH;
    const void *found = step(table, &size);
    return found != nullptr ? bytes(found, size) : std::to_string(paaerrno);
}

TEST(PaaWalks, NeedATableThatIsInOrder) {
    const std::string bad_handle = std::to_string(PAAERRBADHANDLE);
    PAA_S stray{};
    const Table empty = make();
    for (const Step step : starts) {
        EXPECT_EQ(at(step, &stray), bad_handle);
        EXPECT_EQ(at(step, empty.get()), std::to_string(PAAERRNOTFOUND));
    }
    for (const Step step : steps) {
        EXPECT_EQ(at(step, &stray), bad_handle);
        EXPECT_EQ(at(step, empty.get()), std::to_string(PAAERRNOCURRENT));
    }
    for (const Step step : {paaFirst, paaNext, paaCurrent}) EXPECT_EQ(at(step, nullptr), bad_handle);
    insert(empty, "k", "v");
    PAA_ENTRY_S *const first = std::exchange(empty->first, nullptr);
    EXPECT_EQ(at(paaFirst, empty.get()), std::to_string(PAAERRCORRUPT));
    empty->first = first;
}

TEST(PaaWalks, EndAtAChangeOfTheKeySetOnly) {
    const Table table = make();
    PAA_S *handle = table.get();
    for (const char *key : {"b", "c", "a"}) insert(table, key, "1");
    EXPECT_EQ(at(paaFirst, handle), "b");
    EXPECT_EQ(at(paaFirstSorted, handle), "a");
    EXPECT_EQ(paaReplace(handle, "b", 1, "22", 2), 0);
    EXPECT_EQ(paaAppend(handle, "b", 1, "3", 1), 0);
    EXPECT_EQ(insert(table, "b", "refused"), -1);
    EXPECT_EQ(remove(table, "x"), -1);
    EXPECT_EQ(at(paaCurrent, handle), "223");
    EXPECT_EQ(at(paaNext, handle), "c");
    EXPECT_EQ(at(paaNextSorted, handle), "b");
    EXPECT_EQ(at(paaCurrentSorted, handle), "223");

    EXPECT_EQ(in_order(table).back(), "a");
    EXPECT_EQ(paaNext(handle, nullptr), nullptr);
    EXPECT_EQ(at(paaCurrent, handle), "1") << "it stays on the last one";
    EXPECT_EQ(sorted(table).back(), "c");
    EXPECT_EQ(at(paaPrevSorted, handle), "b");
    EXPECT_EQ(at(paaCurrentSorted, handle), "223");

    for (const bool is_inserting : {true, false}) {
        for (const Step step : starts) step(handle, nullptr);
        EXPECT_EQ(is_inserting ? insert(table, "d") : remove(table, "d"), 0);
        for (const Step step : steps) EXPECT_EQ(at(step, handle), std::to_string(PAAERRNOCURRENT));
    }
}

/* ---- Buckets ----------------------------------------------------------------------------------------------------- */

std::string dump(const Table &table) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(paaDump(table.get()), 0);
    return testing::internal::GetCapturedStderr();
}

/* Bucket numbers were reckoned apart from the code: words are joined by XOR, the bytes left over are signed factors,
 * zero bytes among them are passed over. */
TEST(PaaHash, PutsEachKeyIntoItsBucket) {
    struct Row {
        std::string key;
        int small, large;
    };
    for (const Row &row : {Row{"A", 465, 58722},
                           {"abcdefgh", 766, 20855},
                           {"efghabcd", 766, 20855},
                           {"\x80", 133, 26718},
                           {"\xff\xfe\xfd", 311, 27736},
                           {"\0"s, 791, 39208},
                           {"a\0b"s, 45, 27800},
                           {"abcd\0\xe4"s, 762, 50090},
                           {"\xff\xff\xff\xff", 727, 26537},
                           {"localhost", 528, 24334}}) {
        for (const auto &[flags, bucket] : {std::pair{0, row.small}, {PAAFLAGLARGE, row.large}}) {
            const Table table = make(flags);
            insert(table, row.key);
            const std::string number = (bucket < 100 ? "0" : "") + std::to_string(bucket);
            EXPECT_EQ(dump(table), "# total 1 entries\n## " + number + " 1 entries\n") << row.key;
        }
    }
}

TEST(PaaHash, DumpsManyKeysOfOneBucketInOneLine) {
    const Table table = make();
    EXPECT_EQ(dump(table), "# total 0 entries\n");
    for (uint32_t i = 0; i < 300; i++) insert(table, colliding_key(i));
    insert(table, "A");
    insert(table, "B");
    remove(table, "B");
    const std::string text = dump(table);
    EXPECT_TRUE(std::regex_match(text, std::regex("# total 301 entries\n(## \\d+ (1|300) entries\n){2}"))) << text;
}

}  // namespace
