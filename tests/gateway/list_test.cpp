/* Sorted pages with a pattern: both forms of the request, over the real server. */
#include <gtest/gtest.h>
#include <algorithm>

#include "tests/support/serverprocess.h"

namespace {

class Lists : public testing::Test {
protected:
    ServerProcess server;
    TestClient anna{server.port()};

    Strings list(const Strings &behind_function) {
        Strings request{"DB", "L"};
        request.insert(request.end(), behind_function.begin(), behind_function.end());
        return anna.ask(request);
    }
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
        " ('!:%'), (':%'), (':x'), ('!_'), ('\\%'), ('b\\x')");
    const std::vector<std::pair<std::string, Strings>> cases{{"a*", {"a", "a_b", "ab", "axb"}},
                                                             {"50%*", {"50%", "50%off"}},
                                                             {"!%", {"!%"}},
                                                             {"a_b", {"a_b"}},
                                                             {"a?b", {"a_b", "axb"}},
                                                             {"*%", {"!%", "!:%", "50%", ":%", "\\%"}},
                                                             {":%", {":%"}},
                                                             {"!_", {"!_"}},
                                                             {"\\%", {"\\%"}},
                                                             {"b\\x", {"b\\x"}},
                                                             {"!?", {"!%", "!_", "!x"}},
                                                             {"?", {"a"}},
                                                             {"A*", {}},
                                                             {"'*", {}}};
    for (const auto &[filter, found] : cases) {
        Strings expected{"0"};
        expected.insert(expected.end(), found.begin(), found.end());
        EXPECT_EQ(list({"MARKS", "ID", "", "99", "+", filter}), expected) << filter;
    }
}

TEST_F(Lists, EscapeWithAColonThatOccurs) {
    server.sql(
        "CREATE TABLE MARKS (ID VARCHAR2(20) PRIMARY KEY);"
        "INSERT INTO MARKS VALUES ('!:%x'), ('!::'), ('!'), ('!:'), ('!:\\y')");
    // A filter with ! and : is escaped by ":" all the same, so its own colon takes the escape of the % behind it.
    EXPECT_EQ(list({"MARKS", "ID", "", "9", "+", "!:%"}), (Strings{"0", "!:", "!:%x", "!::", "!:\\y"}));
    EXPECT_EQ(list({"MARKS", "ID", "", "9", "+", "!:\\%"}), (Strings{"0", "!:\\y"}))
        << "no escape is left: % is any text";
}

TEST_F(Lists, PageOverEqualValuesWithoutLossOrRepeat) {
    server.sql(
        "CREATE TABLE STOCK (ID VARCHAR2(10) PRIMARY KEY, KIND VARCHAR2(10), NOTE VARCHAR2(10));"
        "WITH RECURSIVE N(I) AS (SELECT 0 UNION ALL SELECT I + 1 FROM N WHERE I < 33)"
        " INSERT INTO STOCK SELECT 'id' || (I * 7 % 34), 'kind' || (I % 5), CASE I % 3 WHEN 0 THEN NULL ELSE I END "
        "FROM N");
    for (const std::string direction : {"+", "-"}) {
        const Strings all = list({"STOCK", "KIND", "", "99", direction, "", "ID", "NOTE"});
        ASSERT_EQ(all.size(), 1 + 34 * 3u);
        std::vector<std::pair<std::string, std::string>> order;
        for (size_t at = 1; at < all.size(); at += 3) order.emplace_back(all[at], all[at + 1]);
        EXPECT_TRUE(direction == "+" ? std::is_sorted(order.begin(), order.end())
                                     : std::is_sorted(order.rbegin(), order.rend()));

        for (const size_t rows : {1, 2, 7, 34}) {
            SCOPED_TRACE(direction + " by " + std::to_string(rows));
            const std::string count = std::to_string(rows);
            Strings paged = list({"STOCK", "KIND", "", count, direction, "", "ID", "NOTE"});
            for (;;) {
                const std::string last_id = paged[paged.size() - 2];
                const Strings page = list({"STOCK", "KIND", "", "ID", last_id, count, direction, "", "ID", "NOTE"});
                ASSERT_EQ(page.at(0), "0");
                ASSERT_LE(page.size(), 1 + rows * 3);
                if (page.size() == 1) break;
                paged.insert(paged.end(), page.begin() + 1, page.end());
                ASSERT_LE(paged.size(), all.size()) << "a row came twice";
            }
            EXPECT_EQ(paged, all);

            Strings by_id = list({"STOCK", "ID", "", count, direction});  // the short form, on a unique attribute
            for (Strings page = by_id; page.size() > 1;) {
                page = list({"STOCK", "ID", by_id.back(), count, direction});
                by_id.insert(by_id.end(), page.begin() + 1, page.end());
                ASSERT_LE(by_id.size(), 35u);
            }
            EXPECT_EQ(by_id.size(), 35u);
            EXPECT_TRUE(direction == "+" ? std::is_sorted(by_id.begin() + 1, by_id.end())
                                         : std::is_sorted(by_id.rbegin(), by_id.rend() - 1));
        }
    }
}

TEST_F(Lists, OfTheShortFormSkipEqualValues) {
    server.sql(
        "CREATE TABLE STOCK (ID VARCHAR2(10) PRIMARY KEY, KIND VARCHAR2(10));"
        "INSERT INTO STOCK VALUES ('1', 'a'), ('2', 'a'), ('3', 'b')");
    EXPECT_EQ(list({"STOCK", "KIND", "", "1", "+", "", "ID"}), (Strings{"0", "a", "1"}));
    EXPECT_EQ(list({"STOCK", "KIND", "a", "1", "+", "", "ID"}), (Strings{"0", "b", "3"}));
}

}  // namespace
