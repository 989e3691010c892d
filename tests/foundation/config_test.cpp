/* Configuration readers: tables of file text and what is read from it. */
#include "foundation/config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "process/owned.h"
#include "process/velproc.h"
#include "tests/support/captured.h"
#include "tests/support/rootfolder.h"

namespace {

using Strings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using Table = std::unique_ptr<PAA_S, int (*)(PAA_S *)>;
Table owned(PAA_S *table) { return {table, config_free}; }

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
    Table read(Reader reader, const std::string &text) const {
        root.write("etc/test.cfg", text);
        return owned(reader(nullptr, path.c_str()));
    }
    struct Row {
        std::string text;
        Pairs expected;
    };
    void expect_rows(Reader reader, std::initializer_list<Row> rows) const {
        for (const Row &row : rows) {
            const Table table = read(reader, row.text);
            ASSERT_NE(table, nullptr);
            EXPECT_EQ(content(table), row.expected) << row.text.substr(0, 60);
        }
    }
};

/* ---- Lists ----------------------------------------------------------------------------------------------------- */

TEST_F(ConfigFile, IsReadAsListsOfValues) {
    expect_rows(config_read, {
                                 {"", {}},
                                 {"# only\n  \t# comments\n\n \t\r\n", {}},
                                 {"a 1\nb 2\na 3\n", {{"a", "1\n3"}, {"b", "2"}}},
                                 {"a\na x\na", {{"a", "\nx\n"}}},
                                 {" \t a \v\f\r value  with  blanks \t\r\n", {{"a", "value  with  blanks"}}},
                                 {"a value # no comment\n", {{"a", "value # no comment"}}},
                                 {"Key = x\nkey y\n", {{"Key", "= x"}, {"key", "y"}}},
                                 {"a x\\ny\\\nb z", {{"a", "x\\ny\\"}, {"b", "z"}}},
                                 {"k\xc3\xa4 \xff", {{"k\xc3\xa4", "\xff"}}},
                                 {"a " + repeat(4091, 'v') + "\nb x\n", {{"a", repeat(4091, 'v')}, {"b", "x"}}},
                                 {"a " + repeat(4998, 'v') + "\nb x\n",
                                  {{"a", repeat(4092, 'v')}, {repeat(906, 'v'), ""}, {"b", "x"}}},
                             });
}

TEST_F(ConfigFile, GivesItsListsByIndex) {
    const Table table = read(config_read, "a one two\nb\na three\nlast x\nlast\n");
    const std::string longest = repeat(4095, 'v'), list = longest + "CUT\nsecond";
    paaInsert(table.get(), "long", 4, list.data(), static_cast<int>(list.size()));
    const std::pair<const char *, Strings> rows[] = {
        {"a", {"one two", "three"}}, {"b", {""}}, {"last", {"x", ""}}, {"long", {longest, "second"}}, {"none", {}},
    };
    for (const auto &[key, values] : rows) {
        const int count = static_cast<int>(values.size());
        EXPECT_EQ(config_nvalues(table.get(), key), count) << key;
        for (int i = 0; i < count; i++) EXPECT_EQ(config_value(table.get(), key, i), values[i]) << key;
        EXPECT_EQ(config_value(table.get(), key, count), nullptr) << key;
        EXPECT_EQ(config_value(table.get(), key, count + 5), nullptr) << key;
    }
}

TEST_F(ConfigFile, IsReadIntoATableOfTheCaller) {
    const Table table = read(config_read, "a before");
    root.write("etc/test.cfg", "a behind\nb new\n");
    EXPECT_EQ(config_read(table.get(), path.c_str()), table.get());
    EXPECT_EQ(content(table), (Pairs{{"a", "before\nbehind"}, {"b", "new"}}));
}

/* ---- One value a key ------------------------------------------------------------------------------------------- */

const std::string CONTINUED = repeat(4000, 'v') + "\\\n";
const std::string LONG = "a " + CONTINUED + CONTINUED + CONTINUED + CONTINUED;

TEST_F(ConfigFile, IsReadAsSingleValues) {
    expect_rows(config_read2paa,
                {
                    {"a 1\n# no\n  #no\n \n\t b \t 2 # yes\r\n", {{"a", "1"}, {"b", "2 # yes"}}},
                    {"alone\nx \t\nlast", {{"alone", ""}, {"x", ""}, {"last", ""}}},
                    {"a x\\ny\n", {{"a", "x \ny"}}},
                    {"a \\n\\n\\\\n\n", {{"a", " \n \n\\ \n"}}},
                    {"a one\\\n   two\nb x\n", {{"a", "one   two"}, {"b", "x"}}},
                    {"a one \\ \t\n# two\\\n3\n", {{"a", "one # two3"}}},
                    {"a one\\\n \t\nb x\n", {{"a", "one"}, {"b", "x"}}},
                    {"a one\\", {{"a", "one"}}},
                    {"a \\\nnext v\n", {{"a", "next v"}}},
                    {"a\\\nb x\n", {{"a\\", ""}, {"b", "x"}}},
                    {"a " + repeat(4100, 'v') + "\n", {{"a", repeat(4093, 'v')}, {repeat(7, 'v'), ""}}},
                    {LONG + repeat(382, 'v') + "\nb x\n", {{"a", repeat(16382, 'v')}, {"b", "x"}}},
                });
}

TEST_F(ConfigFile, LastLineOfAKeyWinsAndMovesToTheEnd) {
    const std::string text = told([this] {
        EXPECT_EQ(content(read(config_read2paa, "a old\nb x\na new\n")), (Pairs{{"b", "x"}, {"a", "new"}}));
    });
    EXPECT_EQ(text, "reader: config_read2paa: file " + path + ", Overwrite key = \"a\" val =\"new\"\n");
}

TEST_F(ConfigFile, ValueOfMoreThan16382CharactersFailsTheFile) {
    root.write("etc/test.cfg", "first 1\n" + LONG + repeat(383, 'v') + "\n");
    const Table own = owned(paaCreate(0));
    const std::string line = "reader: config_read2paa: file " + path + ", value for key \"a\" is too long\n";
    for (PAA_S *table : {static_cast<PAA_S *>(nullptr), own.get()}) {
        EXPECT_EQ(told([&] { EXPECT_EQ(config_read2paa(table, path.c_str()), nullptr); }), line);
    }
    EXPECT_EQ(content(own), (Pairs{{"first", "1"}})) << "a table of the caller is not taken away";
}

/* ---- Line by line, and failures -------------------------------------------------------------------------------- */

TEST_F(ConfigFile, IsReadLineByLine) {
    root.write("etc/test.cfg", "# head\n\nalone\n  key \t some value \n#\nz 1");
    const OwnedFile file(fopen(path.c_str(), "r"));
    char *key = nullptr, *value = nullptr;
    int size = -7, lines = 10;
    const auto next = [&](int *size_wanted, int *lines_wanted) {
        const int result = config_key_value(file.get(), &key, &value, size_wanted, lines_wanted);
        std::ostringstream shown;
        shown << result << " " << (key ? key : "-") << "=" << (value ? value : "-") << " " << size << " " << lines;
        return shown.str();
    };
    EXPECT_EQ(next(&size, &lines), "5 alone=- -7 13") << "without a value its length is left alone";
    EXPECT_EQ(next(&size, &lines), "3 key=some value 10 14");
    EXPECT_EQ(next(nullptr, nullptr), "1 z=1 10 14");
    EXPECT_EQ(next(&size, &lines), "0 -=- 10 14");
}

TEST_F(ConfigFile, IsReadByParagraphs) {
    root.write("etc/test.cfg", "\n# c\n first line \nsecond\n \nthird\n#\n\nfourth 4567890\nfifth");
    const OwnedFile file(fopen(path.c_str(), "r"));
    const std::pair<int, std::string> rows[] = {
        {32, " first line \nsecond\n"}, {1, ""}, {32, "third\n"}, {8, "fourth "}, {32, "fifth"}, {32, ""},
    };
    for (const auto &[size, text] : rows) {
        char buffer[33] = "################################";
        EXPECT_EQ(config_paragraph(file.get(), buffer, size), static_cast<int>(text.size()));
        EXPECT_EQ(std::string(buffer, size > 1 ? strlen(buffer) : 0), text);
    }
}

TEST_F(ConfigFile, FailuresAreReportedAndLeaveTheCallersTable) {
    const std::string missing = root.path("etc/none"), folder = root.path("etc");  // which opens, but does not read
    const OwnedFile unreadable(fopen(folder.c_str(), "r"));
    const Table own = read(config_read, "kept x");
    PAA_S stray{};
    char text[] = "x", *key = text, *value = text;
    const std::string lines = told([&] {
        EXPECT_EQ(config_read(nullptr, missing.c_str()), nullptr);
        EXPECT_EQ(config_read(own.get(), missing.c_str()), nullptr);
        EXPECT_EQ(config_read2paa(nullptr, missing.c_str()), nullptr);
        EXPECT_EQ(config_value(&stray, "k", 0), nullptr);
        EXPECT_EQ(config_nvalues(&stray, "k"), -1);
        EXPECT_EQ(config_free(&stray), -1);
        EXPECT_EQ(config_read(own.get(), folder.c_str()), nullptr);
        EXPECT_EQ(config_key_value(unreadable.get(), &key, &value, nullptr, nullptr), -1);
        EXPECT_EQ(config_paragraph(unreadable.get(), text, sizeof text), -1);
        EXPECT_NE(owned(config_read2paa(nullptr, folder.c_str())), nullptr) << "it takes this for the end";
    });
    const std::string none = "No such file or directory\n", is_folder = "errmsg Is a directory\n",
                      not_read = "reader: config_read: fopen " + missing + " failed! errmsg " + none;
    EXPECT_EQ(lines, not_read + not_read + "reader: config_read2paa: Cannot open config file \"" + missing + "\" " +
                         none + "reader: config_value: paaFind k failed! paaerrno 12, errmsg " + none +
                         "reader: config_nvalues: paaFind k failed! paaerrno 12, errmsg " + none +
                         "reader: config_key_value: fgets failed, " + is_folder +
                         "reader: config_read: paaFind (null) failed! paaerrno 13, " + is_folder +
                         "reader: config_key_value: fgets failed, " + is_folder +
                         "reader: config_paragraph: fgets failed, " + is_folder);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(content(own), (Pairs{{"kept", "x"}}));
}

}  // namespace
