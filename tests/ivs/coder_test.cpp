/* The coder: its codes, held against a small model of the rules, and what it does where space or input ends. That any
 * bytes come back as they were is tried by the fuzz target. */
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>
#include <algorithm>
#include <array>

#include "ivs/ivs.h"
#include "process/owned.h"
#include "tests/support/bytes.h"

namespace {

using Counts = std::vector<uint32_t>;  // of the 256 byte values and of the end mark
using Table = OwnedBlock<IV_COMPRESSION_S>;

Table made(const Counts &counts) {
    return Table(iv_init_compression(counts.data(), counts[256], nullptr, nullptr, nullptr));
}

/** The codes as the rules give them: the earliest of the lightest trees becomes the branch 0, the earliest of the
 *  lightest that are left the branch 1, and both together go to the end of the list. */
std::vector<std::string> codes_by_rule(const Counts &weights) {
    struct Tree {
        uint32_t weight = 0;
        std::vector<size_t> symbols;
    };
    std::vector<Tree> list;
    for (size_t symbol = 0; symbol < weights.size(); symbol++) list.push_back({weights[symbol], {symbol}});
    std::vector<std::string> codes(weights.size());
    while (list.size() > 1) {
        Tree joined;
        for (const char bit : {'0', '1'}) {
            const auto lightest = std::ranges::min_element(list, {}, &Tree::weight);
            for (const size_t symbol : lightest->symbols) codes[symbol].insert(0, 1, bit);
            joined.weight += lightest->weight;
            joined.symbols.insert(joined.symbols.end(), lightest->symbols.begin(), lightest->symbols.end());
            list.erase(lightest);
        }
        list.push_back(std::move(joined));
    }
    return codes;
}

std::string code_of(const IV_COMPRESSION_NODE_S &node) {
    std::string code;
    for (int bit = 0; bit < node.length; bit++) code += (node.code[bit / 8] & 0x80 >> bit % 8) != 0 ? '1' : '0';
    return code;
}

const Counts HEAVIEST(257, UINT_MAX);  // the sums wrap to ever lighter ones: the deepest tree that there is

TEST(Codes, FollowTheRules) {
    Seeded source;
    std::vector<Counts> cases = {Counts(257, 0), HEAVIEST};
    for (const uint32_t different : {2, 100, 65535}) {
        cases.emplace_back(257);
        for (uint32_t &count : cases.back()) count = static_cast<uint32_t>(source()) % different;
    }
    for (const Counts &counts : cases) {
        const Table table = made(counts);
        const std::vector<std::string> codes = codes_by_rule(counts);
        for (size_t symbol = 0; symbol < codes.size(); symbol++) {
            ASSERT_EQ(code_of(table->nodes[symbol]), codes[symbol]) << "symbol " << symbol;
        }
    }
}

TEST(Codes, SavingsAreAPercentage) {
    struct Row {
        uint32_t a, b, end, bits, compressed, savings;
    };
    // "a" and "b" far above the rest have codes of 1 and 2 bits, all others share the third.
    for (const Row &row : {Row{0, 0, 0, 0, 0, 0}, Row{1000, 0, 0, 8000, 1000, 88}, Row{1000, 999, 0, 15992, 2998, 82},
                           Row{0x80000000, 0, 0, 0, 0x80000000, 0}, Row{0x20000001, 0, 0, 8, 0x20000001, 0},
                           Row{1000, 0, 1, 8008, 1002, 88}}) {
        Counts counts(256, 0);
        counts['a'] = row.a;
        counts['b'] = row.b;
        uint32_t bits = 1, compressed = 1, savings = 1;
        const Table table(iv_init_compression(counts.data(), row.end, &bits, &compressed, &savings));
        EXPECT_EQ((std::array{bits, compressed, savings}), (std::array{row.bits, row.compressed, row.savings}));
    }
    uint32_t savings = 1;
    const Table flat(iv_init_compression(Counts(256, 1).data(), 1, nullptr, nullptr, &savings));
    EXPECT_EQ(savings, 0U) << "more than 8 bits each";
}

/* ---- Compressing and expanding: in the deepest table, 255 is 01, 254 is 001, and the end mark is 1 ---------------- */

/** Both ways into a target with 4 bytes behind it that stay as they are: hex of the result, or "null". */
template <class Call>
std::string into(Call call, const Table &table, const std::string &source, size_t room) {
    const Bytes bytes = bytes_of(source);
    Bytes target(room + 4, 0x77);
    int length = -1;
    const void *result = call(table.get(), bytes.data(), static_cast<int>(bytes.size()), target.data(),
                              static_cast<int>(room), &length);
    EXPECT_EQ(hex_of(target.data() + room, 4), "77777777") << "written beyond the target";
    if (result == nullptr) return "null";
    EXPECT_EQ(result, target.data());
    for (auto at = static_cast<size_t>(length); at < room; at++) EXPECT_EQ(target[at], 0) << "not cleared";
    return hex_of(target.data(), static_cast<size_t>(length));
}

TEST(Compression, EndsWhereTheTargetOrTheInputDoes) {
    const Table table = made(HEAVIEST);
    struct Row {
        const char *source;
        size_t room;
        const char *result;
    };
    for (const Row &row :  // "ff ff fe" takes 8 bits with the end mark, "ff ff ff ff" takes 9
         {Row{"", 1, "80"}, Row{"", 0, "null"}, Row{"ffffff fe", 2, "54c0"}, Row{"ffff fe", 1, "53"},
          Row{"ffffffff", 1, "null"}, Row{"ffffffff", 2, "5580"}, Row{"ffffffffff", 1, "null"},
          Row{"feffff", 7, "2b"}}) {
        EXPECT_EQ(into(Biv_compress, table, row.source, row.room), row.result) << row.source << " in " << row.room;
    }
    for (const Row &row :  // behind the mark nothing counts, and a leaf at the very last bit isn't seen any more
         {Row{"80", 5, ""}, Row{"", 5, ""}, Row{"53", 3, "fffffe"}, Row{"53", 2, "null"}, Row{"53 5555", 3, "fffffe"},
          Row{"55", 4, "ffffff"}, Row{"55 80", 4, "ffffffff"}, Row{"55 80", 3, "null"}, Row{"0000", 4, ""},
          Row{"80", 0, ""}}) {
        EXPECT_EQ(into(iv_decompress, table, row.source, row.room), row.result) << row.source << " in " << row.room;
    }
}

}  // namespace
