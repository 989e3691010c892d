/* Allocation calls, the tokeniser, and the small text helpers. */
#include <locale.h>
#include <string.h>

#include "process/owned.h"
#include "tests/process/start.h"

namespace {

TEST(Allocation, GivesZeroedBlocksAndCopies) {
    const OwnedBlock<char> zeros(process_malloc("label", 1000)), blank(process_memdup("label", nullptr, 3)),
        copy(process_memdup("label", "ab\0cd", 5));
    EXPECT_EQ(std::string(zeros.get(), 1000), std::string(1000, '\0'));
    EXPECT_EQ(std::string(blank.get(), 3), std::string(3, '\0'));
    EXPECT_EQ(std::string(copy.get(), 5), std::string("ab\0cd", 5));
}

TEST(Allocation, OfNothingIsAnErrorUnderTheCallersName) {
    const std::string told = outcome([](Child &) {
        start({"prog", "-VELROOT", "/nowhere"});
        return (process_malloc("mine", 0) == nullptr) + (process_malloc(nullptr, 0) == nullptr) +
               (process_memdup("yours", "x", 0) == nullptr) + (process_memdup(nullptr, nullptr, 0) == nullptr) +
               (process_malloc("less", -1) == nullptr);
    });
    const std::string end = ": malloc 0 bytes is illegal.\n";
    EXPECT_TRUE(told.starts_with("5 prog: mine" + end + "prog: process_malloc" + end + "prog: yours" + end +
                                 "prog: process_memdup" + end + "prog: less: malloc -1 bytes failed! errmsg "))
        << told;
}

TEST(Tokeniser, CutsAPrivateCopy) {
    struct Step {
        const char *delimiters, *token;
    };
    struct Row {
        const char *text;
        std::vector<Step> steps;
    };
    for (const Row &row : {
             Row{"a,b", {{",", "a"}, {",", "b"}, {",", nullptr}, {",", nullptr}}},
             Row{",,a,,b,", {{",", "a"}, {",", "b"}, {",", nullptr}}},
             Row{",;,", {{",;", nullptr}, {",;", nullptr}}},
             Row{"", {{",", nullptr}}},
             Row{"one two;three", {{" ", "one"}, {";", "two"}, {";", "three"}, {";", nullptr}}},
             Row{" lead", {{nullptr, " lead"}, {" ", nullptr}}},
             Row{"a b", {{" ", "a"}, {"", "b"}, {nullptr, nullptr}}},
             Row{"a,,b", {{",", "a"}, {"", ",b"}, {",", nullptr}}},
             Row{"\xfc,\xe4", {{",", "\xfc"}, {",", "\xe4"}}},
         }) {
        std::string text = row.text;
        const char *given = text.c_str();
        std::vector<const char *> tokens;
        for (const Step &step : row.steps) {
            tokens.push_back(process_strtok(given, step.delimiters));
            EXPECT_EQ(text, row.text) << "the caller's text was changed";
            given = nullptr;
        }
        text.assign(text.size(), '-');
        for (size_t at = 0; at < tokens.size(); at++) {
            EXPECT_STREQ(tokens[at], row.steps[at].token) << "in \"" << row.text << "\"";
        }
    }
}

TEST(TextHelpers, CopyAndAppendWithinTheBuffer) {
    struct Row {
        std::string before, source, afterCopy, afterAppend;
        int size, copied, appended;
    };
    const Row rows[] = {
        {"ab", "cd", "cd", "abcd", 8, 2, 2},   {"ab", "cdef", "cdef", "abcd", 5, 4, 2},
        {"ab", "cdef", "cde", "abc", 4, 3, 1}, {"ab", "cdef", "cd", "ab", 3, 2, 2},
        {"abcdef", "x", "x", "abc", 4, 1, 6},  {"", "x", "", "", 1, 0, 0},
        {"ab", "cd", "ab", "ab", 0, -1, -1},   {"ab", "", "", "ab", 8, 0, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.before + " + " + row.source + " in " + std::to_string(row.size));
        char buffer[16];
        memset(buffer, '#', sizeof buffer);
        memcpy(buffer, row.before.c_str(), row.before.size() + 1);
        EXPECT_EQ(process_strlcpy(buffer, row.size, row.source.c_str()), row.copied);
        EXPECT_EQ(buffer, row.afterCopy);
        memcpy(buffer, row.before.c_str(), row.before.size() + 1);
        EXPECT_EQ(process_strlcat(buffer, row.size, row.source.c_str()), row.appended);
        EXPECT_EQ(buffer, row.afterAppend);
        EXPECT_EQ(std::string(buffer + 8, 8), "########") << "written beyond the end";
    }
}

TEST(TextHelpers, FindTheLastOccurrence) {
    struct Row {
        const char *text, *needle;
        int at;  // -1: null
    };
    for (const Row &row :
         {Row{"abcabc", "abc", 3}, Row{"aaaa", "aa", 2}, Row{"abc", "abcd", -1}, Row{"abc", "x", -1},
          Row{"abc", "", 0}, Row{"abc", nullptr, 0}, Row{"", "a", -1}, Row{"", "", -1}, Row{nullptr, "a", -1},
          Row{nullptr, nullptr, -1}, Row{"abc", "c", 2}, Row{"abc", "abc", 0}}) {
        const char *expected = row.at < 0 ? nullptr : row.text + row.at;
        EXPECT_EQ(process_strrstr(row.text, row.needle), expected)
            << (row.text ? row.text : "null") << " " << (row.needle ? row.needle : "null");
    }
}

TEST(TextHelpers, CharacterClassesKnowAsciiOnly) {
    setlocale(LC_ALL, "C.UTF-8");
    const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ", lower = "abcdefghijklmnopqrstuvwxyz",
                      letters = upper + lower, digits = "0123456789";
    struct Row {
        int (*is_one)(int);
        std::string members;
    };
    for (const Row &row : {Row{process_isupper, upper}, Row{process_islower, lower}, Row{process_isdigit, digits},
                           Row{process_isalpha, letters}, Row{process_isalnum, letters + digits},
                           Row{process_isspace, " \t\n\v\f\r"}}) {
        for (int code = -128; code < 300; code++) {
            const bool is_member =
                code > 0 && code < 128 && row.members.find(static_cast<char>(code)) != std::string::npos;
            EXPECT_EQ(row.is_one(code) != 0, is_member) << code << " in " << row.members;
        }
    }
}

}  // namespace
