/* Sorted pages with a pattern: both forms of the request, over the real server. */
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>

#include "tests/support/serverprocess.h"

namespace {

class Lists : public testing::Test {
protected:
    ServerProcess server;
    TestClient anna{server.port()};

    Strings list(const Strings &behind_function) { return anna.ask(joined({"DB", "L"}, behind_function)); }
};

class FruitLists : public Lists {
protected:
    void SetUp() override {
        server.sql(
            "CREATE TABLE FRUIT (ID VARCHAR2(10) PRIMARY KEY, NAME VARCHAR2(20), PRICE NUMBER);"
            "INSERT INTO FRUIT VALUES ('a', 'plum', 12), ('b', 'Pear', 1.5), ('c', 'apple', 120),"
            " ('d', 'fig', NULL), ('e', NULL, 3);"
            "CREATE TABLE NOID (NAME VARCHAR2(20), PRICE NUMBER); INSERT INTO NOID VALUES ('x', 1), ('y', 2);"
            "CREATE TABLE EMPTY (ID VARCHAR2(10))");
    }
};

TEST_F(FruitLists, TakeTheShortForm) {
    const std::vector<std::pair<Strings, Strings>> cases{
        {{"FRUIT", "ID", ""}, {"0", "a", "b", "c", "d", "e"}},
        {{"FRUIT", "ID", "", "2"}, {"0", "a", "b"}},
        {{"fruit", "id", "b", "2", "+"}, {"0", "c", "d"}},
        {{"FRUIT", "ID", "b", "9", "-"}, {"0", "a"}},
        {{"FRUIT", "ID", "", "2", "-", "", "NAME"}, {"0", "e", "", "d", "fig"}},
        {{"FRUIT", "NAME", "", "9", "+", "", "ID"}, {"0", "Pear", "b", "apple", "c", "fig", "d", "plum", "a"}},
        {{"FRUIT", "NAME", "", "1", "+", "", "NOPE", "name", "ID", "NAME"}, {"0", "Pear", "", "Pear", "b", "Pear"}},
        {{"FRUIT", "NAME", "apple", "9", "+", "?i*"}, {"0", "fig"}},
        {{"FRUIT", "NAME", "", "9", "+", "P*"}, {"0", "Pear"}},
        {{"FRUIT", "PRICE", "", "9", "+", "12*"}, {"0", "12", "120"}},
        {{"FRUIT", "PRICE", "", "9", "-", "1.?", "ID"}, {"0", "1.5", "b"}},
        {{"FRUIT", "ID", "e", "9"}, {"0"}},
        {{"FRUIT", "ID", "", "0"}, {"0"}},
        {{"FRUIT", "ID", "", "-3"}, {"0"}},
        {{"FRUIT", "ID", "", "many"}, {"0"}},
        {{"FRUIT", "ID", "", "2 rows"}, {"0", "a", "b"}},
        {{"EMPTY", "ID", ""}, {"0"}},
        {{"NOID", "NAME", ""}, {"1"}},
        {{"FRUIT", "ID"}, {"1"}},
        {{"FRUIT", "NOPE", ""}, {"1"}},
        {{"NOTABLE", "ID", ""}, {"1002"}},
        {{"FRUIT", "ID", "\1%62\1", "\1%31\1", "+", "\1%2a\1"}, {"0", "c"}},
    };
    for (const auto &[request, expected] : cases)
        EXPECT_EQ(list(request), expected) << testing::PrintToString(request);
    const Strings ten{"FRUIT", "ID", ""};
    server.sql("INSERT INTO FRUIT (ID) VALUES ('f'), ('g'), ('h'), ('i'), ('j'), ('k'), ('l')");
    EXPECT_EQ(list(ten).size(), 11u) << "ten rows when no count is given";
}

TEST_F(FruitLists, TakeTheLongForm) {
    const std::vector<std::pair<Strings, Strings>> cases{
        // behind (apple, c): fig, then plum; upper case sorts first
        {{"FRUIT", "NAME", "ignored", "ID", "c", "9", "+", "", "ID"}, {"0", "fig", "d", "plum", "a"}},
        {{"FRUIT", "NAME", "", "ID", "c", "9", "-", "", "ID"}, {"0", "Pear", "b"}},
        {{"FRUIT", "NAME", "", "ID", "bb", "9", "+"}, {"0", "fig", "plum"}},  // the next row there is: c
        {{"FRUIT", "NAME", "", "ID", "c", "9", "+", "p*"}, {"0", "plum"}},
        {{"FRUIT", "NAME", "", "ID", "", "9", "+"}, {"0"}},     // behind (plum, a), the first by ID
        {{"FRUIT", "NAME", "", "ID", "e", "9", "+"}, {"0"}},    // the row there has no NAME
        {{"FRUIT", "NAME", "", "ID", "zzz", "9", "+"}, {"0"}},  // no row there
        {{"NOID", "NAME", "", "PRICE", "1", "9", "+"}, {"0", "y"}},
        {{"FRUIT", "NAME", "", "NOPE", "c", "9", "+"}, {"1"}},
        {{"FRUIT", "NAME", "", "ID", "c", "9", "up"}, {"1"}},
        {{"FRUIT", "NAME", "", "ID", "c"}, {"0", "fig", "plum"}},
    };
    for (const auto &[request, expected] : cases)
        EXPECT_EQ(list(request), expected) << testing::PrintToString(request);
}

TEST_F(Lists, EscapeWhatIsNoWildcardOfTheClient) {
    server.sql(
        "CREATE TABLE MARKS (ID VARCHAR2(20) PRIMARY KEY);"
        "INSERT INTO MARKS VALUES ('a'), ('ab'), ('50%'), ('50%off'), ('500'), ('!%'), ('!x'), ('a_b'), ('axb'),"
        " ('!:%'), (':%'), (':x'), ('!_'), ('\\%'), ('b\\x'), ('!\\%'), ('!\\x'), ('!:%x'), ('!::'), ('!'), ('!:'),"
        " ('!:\\y')");
    const std::vector<std::pair<std::string, Strings>> cases{
        {"a*", {"a", "a_b", "ab", "axb"}},
        {"50%*", {"50%", "50%off"}},
        {"!%", {"!%"}},
        {"a_b", {"a_b"}},
        {"a?b", {"a_b", "axb"}},
        {"*%", {"!%", "!:%", "!\\%", "50%", ":%", "\\%"}},
        {":%", {":%"}},
        {"!_", {"!_"}},
        {"\\%", {"\\%"}},
        {"b\\x", {"b\\x"}},
        {"!?", {"!%", "!:", "!_", "!x"}},
        {"?", {"!", "a"}},
        {"A*", {}},
        {"'*", {}},
        {"!\\%", {"!\\%"}},  // escaped by a colon
        // With ! and : in it the colon is the escape all the same, so its own colon takes the escape of the % behind it.
        {"!:%", {"!:", "!:%", "!:%x", "!::", "!:\\y"}},
        {"!:\\%", {"!:\\y"}},  // no escape is left: % is any text
    };
    for (const auto &[filter, found] : cases) {
        EXPECT_EQ(list({"MARKS", "ID", "", "99", "+", filter}), joined({"0"}, found)) << filter;
    }
}

TEST_F(Lists, PageOverEqualValuesWithoutLossOrRepeat) {
    server.sql(
        "CREATE TABLE STOCK (ID VARCHAR2(10) PRIMARY KEY, KIND VARCHAR2(10));"
        "WITH RECURSIVE N(I) AS (SELECT 0 UNION ALL SELECT I + 1 FROM N WHERE I < 33)"
        " INSERT INTO STOCK SELECT 'id' || (I * 7 % 34), 'kind' || (I % 5) FROM N");
    const auto go_on = [&](Strings &rows, const Strings &request) {
        const Strings page = list(request);
        if (page.size() <= 1) return false;
        rows.insert(rows.end(), page.begin() + 1, page.end());
        return rows.size() < 100;  // else a row came twice
    };
    const auto expected = [&](const std::string &columns, const std::string &order) {
        std::istringstream words(server.value("SELECT '0 ' || group_concat(" + columns +
                                              ", ' ') FROM (SELECT * FROM STOCK ORDER BY " + order + ")"));
        return Strings(std::istream_iterator<std::string>(words), {});
    };
    for (const auto &[direction, suffix] : {std::pair<std::string, std::string>("+", ""), {"-", " DESC"}}) {
        for (const std::string count : {"1", "2", "7", "99"}) {
            SCOPED_TRACE(direction + " by " + count);
            Strings by_kind = list({"STOCK", "KIND", "", count, direction, "", "ID"});
            ASSERT_GT(by_kind.size(), 1U);
            while (go_on(by_kind, {"STOCK", "KIND", "", "ID", by_kind.back(), count, direction, "", "ID"})) continue;
            EXPECT_EQ(by_kind, expected("KIND || ' ' || ID", "KIND" + suffix + ", ID" + suffix));
            Strings by_id = list({"STOCK", "ID", "", count, direction});
            ASSERT_GT(by_id.size(), 1U);
            while (go_on(by_id, {"STOCK", "ID", by_id.back(), count, direction})) continue;
            EXPECT_EQ(by_id, expected("ID", "ID" + suffix)) << "the short form, on a unique attribute";
        }
    }
    EXPECT_EQ(list({"STOCK", "KIND", "kind0", "1"}), (Strings{"0", "kind1"})) << "the short form skips equal values";
}

}  // namespace
