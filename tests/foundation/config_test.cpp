/* Configuration readers: tables of file text and what is read from it. */
#include "foundation/config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>
#include <memory>
#include <string>
#include <vector>

#include "process/owned.h"
#include "process/velproc.h"
#include "tests/support/rootfolder.h"

namespace {

using Strings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;
struct Ender {
    void operator()(PAA_S *table) const { config_free(table); }
};
using Table = std::unique_ptr<PAA_S, Ender>;

std::string repeat(int count, char character) { return std::string(static_cast<size_t>(count), character); }

/** What stands in the table, in order of insertion. */
Pairs content(const Table &table) {
    Pairs all;
    int size = 0;
    for (void *key = paaFirst(table.get(), &size); key != nullptr; key = paaNext(table.get(), &size)) {
        const std::string name(static_cast<char *>(key), static_cast<size_t>(size));
        void *value = paaCurrent(table.get(), &size);
        all.emplace_back(name, std::string(static_cast<char *>(value), static_cast<size_t>(size)));
    }
    return all;
}

int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 256; fd++) count += fcntl(fd, F_GETFD) >= 0;
    return count;
}

class ConfigFile : public testing::Test {
protected:
    RootFolder root;
    const std::string path = root.path("etc/test.cfg");
    char name[8] = "reader";
    const int descriptors = open_descriptors();

    void SetUp() override { process_context.name = name; }
    void TearDown() override {
        process_context.name = nullptr;
        EXPECT_EQ(open_descriptors(), descriptors) << "a file was left open";
    }
    using Reader = PAA_S *(*)(PAA_S *, const char *);
    Table read(Reader reader, const std::string &text, PAA_S *into = nullptr) {
        root.write("etc/test.cfg", text);
        return Table(reader(into, path.c_str()));
    }
};

/* ---- Lists ----------------------------------------------------------------------------------------------------- */

TEST_F(ConfigFile, IsReadAsListsOfValues) {
    struct Row {
        std::string text;
        Pairs expected;
    };
    const Row rows[] = {
        {"", {}},
        {"# only\n  \t# comments\n\n \t\r\n", {}},
        {"a 1\nb 2\na 3\n", {{"a", "1\n3"}, {"b", "2"}}},
        {"alone\n", {{"alone", ""}}},
        {"a\na x\na", {{"a", "\nx\n"}}},
        {" \t a \v\f\r value  with  blanks \t\r\n", {{"a", "value  with  blanks"}}},
        {"a value # no comment\n", {{"a", "value # no comment"}}},
        {"a = b\n", {{"a", "= b"}}},
        {"Key x\nkey y\n", {{"Key", "x"}, {"key", "y"}}},
        {"a x\\ny\\\nb z", {{"a", "x\\ny\\"}, {"b", "z"}}},
        {"k\xc3\xa4 \xff", {{"k\xc3\xa4", "\xff"}}},
        {"a " + repeat(4091, 'v') + "\nb x\n", {{"a", repeat(4091, 'v')}, {"b", "x"}}},
        {"a " + repeat(4998, 'v') + "\nb x\n", {{"a", repeat(4092, 'v')}, {repeat(906, 'v'), ""}, {"b", "x"}}},
    };
    for (const Row &row : rows) {
        const Table table = read(config_read, row.text);
        ASSERT_NE(table, nullptr);
        EXPECT_EQ(content(table), row.expected) << row.text.substr(0, 60);
    }
}

TEST_F(ConfigFile, GivesItsListsByIndex) {
    const Table table = read(config_read, "a one two\nb\na three\nempty\nempty\nlast x\nlast\n");
    struct Row {
        const char *key;
        int count;
        Strings values;
    };
    for (const Row &row : {Row{"a", 2, {"one two", "three"}}, Row{"b", 1, {""}}, Row{"empty", 2, {"", ""}},
                           Row{"last", 2, {"x", ""}}, Row{"none", 0, {}}}) {
        EXPECT_EQ(config_nvalues(table.get(), row.key), row.count) << row.key;
        for (int i = 0; i < row.count; i++)
            EXPECT_STREQ(config_value(table.get(), row.key, i), row.values[i].c_str());
        EXPECT_EQ(config_value(table.get(), row.key, row.count), nullptr) << row.key;
        EXPECT_EQ(config_value(table.get(), row.key, row.count + 5), nullptr) << row.key;
    }
}

TEST_F(ConfigFile, CutsAListValueToTheLineBuffer) {
    const Table table(paaCreate(0));
    const std::string value = repeat(4095, 'v') + "CUT\nsecond";
    paaInsert(table.get(), "k", 1, value.data(), static_cast<int>(value.size()));
    EXPECT_EQ(config_value(table.get(), "k", 0), repeat(4095, 'v'));
    EXPECT_STREQ(config_value(table.get(), "k", 1), "second");
}

TEST_F(ConfigFile, IsReadIntoATableOfTheCaller) {
    const Table table(paaCreate(0));
    paaInsert(table.get(), "a", 1, "before", 6);
    Table same = read(config_read, "a behind\nb new\n", table.get());
    EXPECT_EQ(same.get(), table.get());
    EXPECT_EQ(content(table), (Pairs{{"a", "before\nbehind"}, {"b", "new"}}));
    static_cast<void>(same.release());  // one owner is enough
}

TEST_F(ConfigFile, FailuresAreReportedOnce) {
    PAA_S stray{};
    Table own(paaCreate(0));
    paaInsert(own.get(), "kept", 4, "x", 1);
    const std::string missing = root.path("etc/none"), folder = root.path("etc");
    testing::internal::CaptureStdout();
    EXPECT_EQ(config_read(nullptr, missing.c_str()), nullptr);
    EXPECT_EQ(config_read2paa(nullptr, missing.c_str()), nullptr);
    EXPECT_EQ(config_read(own.get(), missing.c_str()), nullptr);
    EXPECT_EQ(config_value(&stray, "k", 0), nullptr);
    EXPECT_EQ(config_nvalues(&stray, "k"), -1);
    errno = 0;
    EXPECT_EQ(config_free(&stray), -1);
    const std::string text = testing::internal::GetCapturedStdout();
    const std::string none = " errmsg No such file or directory\n";
    std::string expected = "reader: config_read: fopen " + missing + " failed!" + none;
    expected += "reader: config_read2paa: Cannot open config file \"" + missing + "\" No such file or directory\n";
    expected += "reader: config_read: fopen " + missing + " failed!" + none;
    EXPECT_EQ(text.substr(0, expected.size()), expected);
    const std::string rest = text.substr(expected.size());
    EXPECT_TRUE(rest.starts_with("reader: config_value: paaFind k failed! paaerrno 12, errmsg ")) << rest;
    EXPECT_NE(rest.find("\nreader: config_nvalues: paaFind k failed! paaerrno 12, errmsg "), std::string::npos)
        << rest;
    EXPECT_EQ(content(own), (Pairs{{"kept", "x"}}));
}

TEST_F(ConfigFile, ThatCantBeReadIsAFailureForListsOnly) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(config_read(nullptr, root.path("etc").c_str()), nullptr);  // a directory opens, but does not read
    const Table table(config_read2paa(nullptr, root.path("etc").c_str()));
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(text.starts_with("reader: config_key_value: fgets failed, errmsg Is a directory\n")) << text;
    ASSERT_NE(table, nullptr);
    EXPECT_TRUE(content(table).empty());
}

/* ---- One value a key ------------------------------------------------------------------------------------------- */

TEST_F(ConfigFile, IsReadAsSingleValues) {
    struct Row {
        std::string text;
        Pairs expected;
    };
    const Row rows[] = {
        {"a 1\n# no\n  #no\n \n\t b \t 2 # yes\r\n", {{"a", "1"}, {"b", "2 # yes"}}},
        {"alone\nx \t\nlast", {{"alone", ""}, {"x", ""}, {"last", ""}}},
        {"a x\\ny\n", {{"a", "x \ny"}}},
        {"a \\n\\n\\\\n\n", {{"a", " \n \n\\ \n"}}},
        {"a one\\\n   two\nb x\n", {{"a", "one   two"}, {"b", "x"}}},
        {"a one \\ \t\n# two\\\n3\n", {{"a", "one # two3"}}},
        {"a one\\\n \t\nb x\n", {{"a", "one"}, {"b", "x"}}},
        {"a one\\\n", {{"a", "one"}}},
        {"a one\\", {{"a", "one"}}},
        {"a \\\nnext v\n", {{"a", "next v"}}},
        {"a\\\nb x\n", {{"a\\", ""}, {"b", "x"}}},
        {"a " + repeat(4092, 'v') + "\nb x\n", {{"a", repeat(4092, 'v')}, {"b", "x"}}},
        {"a " + repeat(4100, 'v') + "\n", {{"a", repeat(4093, 'v')}, {repeat(7, 'v'), ""}}},
    };
    for (const Row &row : rows) {
        const Table table = read(config_read2paa, row.text);
        ASSERT_NE(table, nullptr);
        EXPECT_EQ(content(table), row.expected) << row.text.substr(0, 60);
    }
}

TEST_F(ConfigFile, LastLineOfAKeyWinsAndMovesToTheEnd) {
    testing::internal::CaptureStdout();
    const Table table = read(config_read2paa, "a old\nb x\na new\n");
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(content(table), (Pairs{{"b", "x"}, {"a", "new"}}));
    EXPECT_EQ(text, "reader: config_read2paa: file " + path + ", Overwrite key = \"a\" val =\"new\"\n");
}

TEST_F(ConfigFile, ValueMayHave16382Characters) {
    const std::string continued = "a " + repeat(4000, 'v') + "\\\n" + repeat(4000, 'v') + "\\\n" + repeat(4000, 'v') +
                                  "\\\n" + repeat(4000, 'v') + "\\\n";
    const Table passes = read(config_read2paa, continued + repeat(382, 'w') + "\nb x\n");
    EXPECT_EQ(content(passes), (Pairs{{"a", repeat(16000, 'v') + repeat(382, 'w')}, {"b", "x"}}));

    Table own(paaCreate(0));
    for (const Table *into : {static_cast<const Table *>(nullptr), static_cast<const Table *>(&own)}) {
        testing::internal::CaptureStdout();
        const Table fails =
            read(config_read2paa, "first 1\n" + continued + repeat(383, 'w') + "\n", into ? into->get() : nullptr);
        const std::string text = testing::internal::GetCapturedStdout();
        EXPECT_EQ(fails, nullptr);
        EXPECT_EQ(text, "reader: config_read2paa: file " + path + ", value for key \"a\" is too long\n");
    }
    EXPECT_EQ(content(own), (Pairs{{"first", "1"}})) << "a table of the caller is not taken away";
}

/* ---- Line by line -------------------------------------------------------------------------------------------------- */

TEST_F(ConfigFile, IsReadLineByLine) {
    root.write("etc/test.cfg", "# head\n\nalone\n  key \t some value \n#\nz 1");
    const OwnedFile file(fopen(path.c_str(), "r"));
    char *key = nullptr, *value = nullptr;
    int size = -7, lines = 10;
    EXPECT_EQ(config_key_value(file.get(), &key, &value, &size, &lines), 5);
    EXPECT_STREQ(key, "alone");
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(size, -7) << "without a value its length is left alone";
    EXPECT_EQ(lines, 13);
    EXPECT_EQ(config_key_value(file.get(), &key, &value, &size, &lines), 3);
    EXPECT_STREQ(key, "key");
    EXPECT_STREQ(value, "some value");
    EXPECT_EQ(size, 10);
    EXPECT_EQ(lines, 14);
    EXPECT_EQ(config_key_value(file.get(), &key, &value, nullptr, nullptr), 1);
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(config_key_value(file.get(), &key, &value, &size, &lines), 0);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(lines, 14);
}

TEST_F(ConfigFile, LineThatCantBeReadIsReported) {
    const OwnedFile file(fopen(root.path("etc").c_str(), "r"));
    char text[] = "x", *key = text, *value = text, buffer[10];
    testing::internal::CaptureStdout();
    EXPECT_EQ(config_key_value(file.get(), &key, &value, nullptr, nullptr), -1);
    EXPECT_EQ(config_paragraph(file.get(), buffer, sizeof buffer), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "reader: config_key_value: fgets failed, errmsg Is a directory\n"
              "reader: config_paragraph: fgets failed, errmsg Is a directory\n");
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(value, nullptr);
}

TEST_F(ConfigFile, IsReadByParagraphs) {
    root.write("etc/test.cfg", "\n# c\n first line \nsecond\n \nthird\n#\n\nfourth 4567890\nfifth");
    const OwnedFile file(fopen(path.c_str(), "r"));
    char buffer[32];
    struct Row {
        int size;
        const char *text;
    };
    for (const Row &row : {Row{32, " first line \nsecond\n"}, Row{1, nullptr}, Row{32, "third\n"}, Row{8, "fourth "},
                           Row{32, "fifth"}, Row{32, ""}}) {
        memset(buffer, '#', sizeof buffer);
        const std::string expected = row.text != nullptr ? row.text : "";
        EXPECT_EQ(config_paragraph(file.get(), buffer, row.size), static_cast<int>(expected.size()));
        if (row.text != nullptr) {
            EXPECT_STREQ(buffer, row.text);
        }
    }
}

}  // namespace
