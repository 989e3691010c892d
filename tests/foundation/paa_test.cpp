/* Associative arrays: against a model with random operations, and the edges one by one. */
#include "foundation/paa.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/resource.h>
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/child.h"

using namespace std::string_literals;

namespace {

using Strings = std::vector<std::string>;
struct Ender {
    void operator()(PAA_S *table) const { paaDestroy(table); }
};
using Table = std::unique_ptr<PAA_S, Ender>;
Table make(int flags = 0) { return Table(paaCreate(flags)); }

constexpr int FORMS[] = {0, PAAFLAGPOINTER, PAAFLAGLARGE, PAAFLAGPOINTER | PAAFLAGLARGE};
constexpr int NOLENGTH = -77;

int length(const std::string &text) { return static_cast<int>(text.size()); }
int insert(const Table &table, const std::string &key, const std::string &value = "") {
    return paaInsert(table.get(), key.data(), length(key), value.data(), length(value));
}
int remove(const Table &table, const std::string &key) { return paaRemove(table.get(), key.data(), length(key)); }

/** The bytes that a call returned, with the NUL behind them checked; "(null)" for none. */
std::string bytes(const void *block, int size) {
    if (block == nullptr) return "(null)";
    const char *text = static_cast<const char *>(block);
    EXPECT_EQ(text[size], '\0') << "no NUL behind it";
    return {text, static_cast<size_t>(size)};
}
std::string find(const Table &table, const std::string &key) {
    int size = NOLENGTH;
    const void *value = paaFind(table.get(), key.data(), length(key), &size);
    return bytes(value, size);
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
    Table table = make(GetParam());
    const bool pointers = (GetParam() & PAAFLAGPOINTER) != 0;
    std::map<std::string, std::string> model;  // in byte order, as std::string compares unsigned
    Strings order;
    Seeded random;
    char targets[64];  // what stored pointers point to

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
        std::string value(random() % 12, 'v');
        for (char &byte : value) byte = static_cast<char>(random());
        if (kind == REPLACE && value.empty())
            value = "x";  // the null that replacing by nothing leaves is told elsewhere
        const char *given = pointers ? &targets[random() % sizeof targets] : value.data();
        const bool refused = model.contains(key) && (kind == INSERT || (pointers && kind == APPEND));
        const auto call = kind == INSERT ? paaInsert : kind == REPLACE ? paaReplace : paaAppend;
        ASSERT_EQ(call(table.get(), key.data(), length(key), given, pointers ? 99 : length(value)), refused ? -1 : 0);
        ASSERT_EQ(paaerrno, refused ? PAAERREXISTS : 0);
        if (refused) return;
        if (!model.contains(key)) order.push_back(key);
        if (kind != APPEND) model[key].clear();
        model[key] += kept(given, length(value));
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
        ASSERT_EQ(kept(value, size), known ? model[key] : "(null)");
        ASSERT_TRUE(!known || !pointers || size == 4);
        ASSERT_EQ(bytes(paaFindKey(table.get(), key.data(), length(key)), length(key)), known ? key : "(null)");
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
INSTANTIATE_TEST_SUITE_P(Forms, Model, testing::ValuesIn(FORMS));

/* ---- Codes ------------------------------------------------------------------------------------------------------ */

TEST(PaaErrors, OfArgumentsComeInTheirOrder) {
    for (const int flags : FORMS) {
        const Table table = make(flags);
        PAA_S stray{};
        struct Row {
            PAA_S *table;
            const char *key;
            int keyLength, reading, writing;  // codes of the calls that read and that write
        };
        for (const Row &row : {Row{&stray, nullptr, 0, PAAERRBADHANDLE, PAAERRBADHANDLE},
                               {table.get(), nullptr, 0, PAAERRNOKEYLEN, PAAERRNOKEYLEN},
                               {table.get(), nullptr, 1, PAAERRNOKEY, PAAERRNOKEY},
                               {table.get(), "k", 1, PAAERRNOTFOUND, PAAERRNODATA}}) {
            for (const auto call : {paaInsert, paaReplace, paaAppend}) {
                EXPECT_EQ(call(row.table, row.key, row.keyLength, nullptr, 1), -1);
                EXPECT_EQ(paaerrno, row.writing);
            }
            EXPECT_EQ(paaFind(row.table, row.key, row.keyLength, nullptr), nullptr);
            EXPECT_EQ(paaerrno, row.reading);
            EXPECT_EQ(paaFindKey(row.table, row.key, row.keyLength), nullptr);
            EXPECT_EQ(paaerrno, row.reading);
            EXPECT_EQ(paaRemove(row.table, row.key, row.keyLength), -1);
            EXPECT_EQ(paaerrno, row.reading);
        }
        EXPECT_EQ(table->buckets, nullptr) << "nothing is allocated before the first insertion";
    }
}

TEST(PaaErrors, OfHandlesAndWalks) {
    constexpr Step steps[] = {paaFirst,      paaNext,       paaCurrent,    paaFirstSorted,
                              paaLastSorted, paaNextSorted, paaPrevSorted, paaCurrentSorted};
    PAA_S stray{};
    const Table empty = make();
    for (const Step step : steps) {
        EXPECT_EQ(step(&stray, nullptr), nullptr);
        EXPECT_EQ(paaerrno, PAAERRBADHANDLE);
        EXPECT_EQ(step(empty.get(), nullptr), nullptr);
        const bool starts = step == paaFirst || step == paaFirstSorted || step == paaLastSorted;
        EXPECT_EQ(paaerrno, starts ? PAAERRNOTFOUND : PAAERRNOCURRENT);
    }
    for (const Step step : {paaFirst, paaNext, paaCurrent}) {
        EXPECT_EQ(step(nullptr, nullptr), nullptr);
        EXPECT_EQ(paaerrno, PAAERRBADHANDLE);
    }
    insert(empty, "k", "v");
    PAA_ENTRY_S *const first = std::exchange(empty->first, nullptr);
    EXPECT_EQ(paaFirst(empty.get(), nullptr), nullptr);
    EXPECT_EQ(paaerrno, PAAERRCORRUPT) << "its first entry is lost";
    empty->first = first;
    EXPECT_EQ(paaClear(&stray), -1);
    EXPECT_EQ(paaDestroy(&stray), -1);
    EXPECT_EQ(paaDump(&stray), -1);
    EXPECT_EQ(paaerrno, PAAERRBADHANDLE);
}

#if !defined(__SANITIZE_ADDRESS__)  // its own memory does not fit under the limit
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

/* ---- Entries and walks ------------------------------------------------------------------------------------------- */

TEST(PaaEntries, HaveThreeWaysToBeEmpty) {
    const Table table = make();
    int size = NOLENGTH;
    EXPECT_EQ(paaInsert(table.get(), "i", 1, nullptr, 0), 0);
    EXPECT_EQ(find(table, "i"), "");
    EXPECT_EQ(paaAppend(table.get(), "a", 1, nullptr, 0), 0);
    EXPECT_EQ(find(table, "a"), "");

    insert(table, "r", "value");
    EXPECT_EQ(paaAppend(table.get(), "r", 1, nullptr, 0), 0);
    EXPECT_EQ(find(table, "r"), "value");
    EXPECT_EQ(paaReplace(table.get(), "r", 1, nullptr, 0), 0);
    EXPECT_EQ(paaFind(table.get(), "r", 1, &size), nullptr) << "replaced by nothing: null, not an empty block";
    EXPECT_EQ(paaerrno, 0);
    EXPECT_EQ(size, 0);
    EXPECT_EQ(paaAppend(table.get(), "r", 1, "ab", 2), 0);
    EXPECT_EQ(find(table, "r"), "ab");
    EXPECT_EQ(paaReplace(table.get(), "n", 1, nullptr, 0), 0);
    EXPECT_EQ(find(table, "n"), "") << "a new key by replace is inserted";
}

TEST(PaaEntries, OfPointersMayBeNull) {
    const Table table = make(PAAFLAGPOINTER | 0x70);
    int size = NOLENGTH;
    EXPECT_EQ(paaInsert(table.get(), "null", 4, nullptr, 0), 0);
    EXPECT_EQ(paaFind(table.get(), "null", 4, &size), nullptr);
    EXPECT_EQ(paaerrno, 0);
    EXPECT_EQ(size, 4);
    EXPECT_EQ(table->flags, static_cast<uint32_t>(PAAFLAGPOINTER)) << "other bits are ignored";
}

TEST(PaaWalks, EndAtAChangeOfTheKeySetOnly) {
    const Table table = make();
    for (const char *key : {"b", "c", "a"}) insert(table, key, "1");
    PAA_S *handle = table.get();
    ASSERT_NE(paaFirst(handle, nullptr), nullptr);
    ASSERT_NE(paaFirstSorted(handle, nullptr), nullptr);
    EXPECT_EQ(paaReplace(handle, "b", 1, "22", 2), 0);
    EXPECT_EQ(paaAppend(handle, "b", 1, "3", 1), 0);
    EXPECT_EQ(insert(table, "b", "refused"), -1);
    EXPECT_EQ(remove(table, "x"), -1);
    int size = 0;
    EXPECT_EQ(bytes(paaCurrent(handle, &size), 3), "223");
    EXPECT_EQ(size, 3);
    EXPECT_STREQ(static_cast<char *>(paaNext(handle, &size)), "c");
    EXPECT_STREQ(static_cast<char *>(paaNextSorted(handle, &size)), "b");
    EXPECT_STREQ(static_cast<char *>(paaCurrentSorted(handle, &size)), "223");

    EXPECT_EQ(in_order(table).back(), "a");
    EXPECT_EQ(paaNext(handle, nullptr), nullptr);
    EXPECT_STREQ(static_cast<char *>(paaCurrent(handle, nullptr)), "1") << "it stays on the last one";
    EXPECT_EQ(sorted(table).back(), "c");
    EXPECT_STREQ(static_cast<char *>(paaPrevSorted(handle, nullptr)), "b");
    EXPECT_STREQ(static_cast<char *>(paaCurrentSorted(handle, nullptr)), "223");

    for (const bool inserting : {true, false}) {
        paaFirst(handle, nullptr);
        paaLastSorted(handle, nullptr);
        EXPECT_EQ(inserting ? insert(table, "d") : remove(table, "d"), 0);
        for (const Step step : {paaNext, paaCurrent, paaNextSorted, paaPrevSorted, paaCurrentSorted}) {
            EXPECT_EQ(step(handle, nullptr), nullptr);
            EXPECT_EQ(paaerrno, PAAERRNOCURRENT);
        }
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
                           {"abc", 379, 318},
                           {"abcd", 209, 56720},
                           {"abcdefgh", 766, 20855},
                           {"efghabcd", 766, 20855},
                           {"\x80", 133, 26718},
                           {"ab\xff", 455, 37946},
                           {"\xff\xfe\xfd", 311, 27736},
                           {"\0"s, 791, 39208},
                           {"a\0b"s, 45, 27800},
                           {"abcd\0\xe4"s, 762, 50090},
                           {"\xff\xff\xff\xff", 727, 26537},
                           {"\x80\x81\x82\x83\x84\x85\x86", 696, 14794},
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
    EXPECT_TRUE(text.starts_with("# total 301 entries\n## ")) << text;
    EXPECT_NE(text.find(" 300 entries\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
}

}  // namespace
