/* Record operations and the dispatcher over the real server: what each request answers, and what it leaves behind. */
#include <gtest/gtest.h>

#include "tests/support/serverprocess.h"

namespace {

struct Step {
    Strings request;  // without the leading "DB"
    Strings expected;
    std::string check = "";  // a query on the table, and
    std::string value = "";  // what it gives afterwards
};

const std::string MISSING_NAME = "Table name not defined", MISSING_KEY = "Key name not defined",
                  NO_FUNCTION = "Function code not implemented";

class Records : public testing::Test {
protected:
    ServerProcess server;
    TestClient anna{server.port()};

    void SetUp() override {
        server.sql(
            "CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, NAME VARCHAR2(8) NOT NULL, VISITS VARCHAR2(8),"
            " POINTS VARCHAR2(8), AGE NUMBER, BORN DATE, NOTE TEXT);"
            "INSERT INTO USERS VALUES ('anna', 'Anna', '0000000f', NULL, 42, '23-OCT-01', NULL);"
            "INSERT INTO USERS VALUES ('cleo', 'Cleo', 'zz', 'fffffffe', 1.5, NULL, '');");
    }

    void expect(const std::vector<Step> &steps) {
        for (const Step &step : steps) {
            const Strings request = joined({"DB"}, step.request);
            EXPECT_EQ(anna.ask(request), step.expected) << testing::PrintToString(request);
            if (!step.check.empty()) {
                EXPECT_EQ(server.value("SELECT " + step.check), step.value) << testing::PrintToString(request);
            }
        }
    }
};

TEST_F(Records, AreRead) {
    expect({{{"G", "USERS", "ID", "anna", "NAME"}, {"0", "Anna"}},
            {{"G", "users", "id", "anna", "name", "AGE", "Born"}, {"0", "Anna", "42", "23-OCT-01"}},
            {{"G", "USERS", "NAME", "Cleo", "ID", "AGE"}, {"0", "cleo", "1.5"}},
            {{"G", "USERS", "ID", "anna", "VISITS", "POINTS", "NAME"}, {"0", "0000000f", "", "Anna"}},
            {{"G", "USERS", "ID", "anna", "NAME", "NAME"}, {"0", "Anna", "Anna"}},
            {{"G", "USERS", "ID", "cleo", "NOTE", "BORN"}, {"0", "", ""}},
            {{"G", "USERS", "ID", "anna", "NOPE", "NAME", "NEITHER", "VISITS"}, {"0", "", "Anna", "", "0000000f"}},
            {{"G", "USERS", "ID", "anna", "NAME", "", "VISITS"}, {"0", "Anna", ""}},
            {{"G", "USERS", "ID", "nobody", "NAME"}, {"101"}},
            {{"G", "USERS", "ID", "ANNA", "NAME"}, {"101"}},
            {{"G", "USERS", "ID", "", "NAME"}, {"101"}},
            {{"G", "USERS", "ID", "anna' OR '1'='1", "NAME"}, {"101"}},
            {{"G", "USERS", "ID", "anna"}, {"1"}},
            {{"G", "USERS", "ID", "anna", ""}, {"1"}},
            {{"G", "USERS", "ID", "anna", "NOPE"}, {"1"}},
            {{"G", "USERS", "NOPE", "anna", "NAME"}, {"1"}},
            {{"G", "NOTABLE", "ID", "anna", "NAME"}, {"1002"}},
            {{"G", "NOTABLE", "ID", "anna", "NAME"}, {"1002"}},
            {joined({"G", "USERS", "ID", "anna"}, Strings(1495, "NAME")), joined({"0"}, Strings(1495, "Anna"))}});
}

TEST_F(Records, AreInserted) {
    const auto name = [](const std::string &id) { return "NAME FROM USERS WHERE ID = '" + id + "'"; };
    const std::string eve = "AGE || ifnull(NOTE, '-') FROM USERS WHERE ID = 'eve'", all = "count(*) FROM USERS";
    expect({{{"I", "USERS", "ID", "bert", "NAME", "Bert"}, {"0"}, name("bert"), "Bert"},
            {{"I", "USERS", "ID", "bert", "NAME", "Other"}, {"2"}, name("bert"), "Bert"},
            {{"I", "USERS", "id", "dora", "NOPE", "x", "name", "Dora"}, {"0"}, name("dora"), "Dora"},
            {{"I", "USERS", "ID", "chris", "NAME", "Christopher"}, {"0"}, name("chris"), "Christop"},
            {{"I", "USERS", "ID", "eve", "NAME", "Eve", "AGE", "7", "NOTE", ""}, {"0"}, eve, "7-"},
            {{"I", "USERS", "ID", "fred"}, {"1"}, all, "6"},
            {{"I", "USERS", "ID", "fred", "NAME", ""}, {"1"}, all, "6"},
            {{"I", "USERS", "ID"}, {"1"}, all, "6"},
            {{"I", "USERS", "ID", "gil", "NAME"}, {"1"}, all, "6"},
            {{"I", "USERS", "NOPE", "x", "NEITHER", "y"}, {"1"}},
            {{"I", "NOTABLE", "ID", "x"}, {"1002"}},
            {{"I", "USERS", ""}, {"1", MISSING_KEY}}});
}

TEST_F(Records, AreUpdated) {
    const std::string name = "NAME FROM USERS WHERE ID = 'anna'", note = "NOTE FROM USERS WHERE ID = 'anna'";
    expect({{{"U", "USERS", "ID", "anna", "NAME", "Anne"}, {"0"}, name, "Anne"},
            {{"U", "users", "id", "anna", "name", "Annabella", "Nope", "x", "note", "hi"}, {"0"}, name, "Annabell"},
            {{"U", "USERS", "ID", "anna", "NOTE", ""}, {"0"}, note, "NULL"},
            {{"U", "USERS", "ID", "anna", "NAME", "", "NOTE", "kept?"}, {"1"}, note, "NULL"},
            {{"U", "USERS", "ID", "nobody", "NAME", "X"}, {"101"}, "count(*) FROM USERS", "2"},
            {{"U", "USERS", "ID", "anna", "NOPE", "x", "NAME", "Y"}, {"1"}, name, "Annabell"},
            {{"U", "USERS", "ID", "anna", "NAME", "Z", "NOTE"}, {"1"}, name, "Annabell"},
            {{"U", "USERS", "ID", "anna", "NAME"}, {"1"}, name, "Annabell"},
            {{"U", "USERS", "ID", "anna"}, {"1"}},
            {{"U", "USERS", "NOPE", "anna", "NAME", "X"}, {"1"}},
            {{"U", "NOTABLE", "ID", "anna", "NAME", "X"}, {"1002"}},
            {{"U", "USERS", "ID", "anna", "ID", "ann"}, {"0"}, "ID FROM USERS WHERE NAME = 'Annabell'", "ann"}});
    EXPECT_EQ(server.value("SELECT NAME FROM USERS WHERE ID = 'cleo'"), "Cleo") << "another record was touched";
}

TEST_F(Records, CountInEightHexadecimalDigits) {
    const std::string visits = "VISITS FROM USERS WHERE ID = 'anna'", points = "POINTS FROM USERS WHERE ID = 'anna'";
    const auto add = [](const Strings &more) { return joined({"A", "USERS", "ID", "anna"}, more); };
    expect({{add({"VISITS", "1"}), {"0", "00000010"}, visits, "00000010"},
            {add({"VISITS", "-1"}), {"0", "0000000f"}},
            {add({"VISITS", "-16"}), {"0", "ffffffff"}, visits, "ffffffff"},
            {add({"VISITS", "+17"}), {"0", "00000010"}},
            {add({"VISITS", "0x5"}), {"0", "00000010"}},
            {add({"VISITS", ""}), {"0", "00000010"}},
            {add({"visits", "2147483647"}), {"0", "8000000f"}},
            {add({"POINTS", "5"}), {"0", "00000005"}, points, "00000005"},
            {add({"VISITS", "1", "POINTS", "2"}), {"0"}, visits, "80000010"},
            {add({"VISITS", "1", "NOPE", "9", "POINTS", "-7"}), {"0"}, points, "00000000"},
            {add({"POINTS", "300", "NOPE", "9"}), {"0", "0000012c"}, points, "0000012c"},
            {add({"VISITS", "1", "POINTS"}), {"1"}, visits, "80000011"},
            {add({"VISITS"}), {"1"}, visits, "80000011"},
            {add({}), {"1"}},
            {add({"NOPE", "1", "VISITS", "1"}), {"1"}, visits, "80000011"},
            {{"A", "USERS", "ID", "nobody", "VISITS", "1"}, {"101"}},
            {{"A", "USERS", "NOPE", "anna", "VISITS", "1"}, {"1"}},
            {{"A", "NOTABLE", "ID", "anna", "VISITS", "1"}, {"1002"}},
            {{"A", "USERS", "ID", "cleo", "VISITS", "1"}, {"0", "00000001"}},
            {{"A", "USERS", "ID", "cleo", "POINTS", "3"}, {"0", "00000001"}}});
}

TEST_F(Records, AreDeleted) {
    expect({{{"D", "USERS", "ID", "anna"}, {"0"}, "count(*) FROM USERS", "1"},
            {{"D", "USERS", "ID", "anna"}, {"1"}},
            {{"D", "USERS", "ID", ""}, {"1"}},
            {{"D", "USERS", "ID"}, {"1"}},
            {{"D", "USERS", "NOPE", "cleo"}, {"1"}},
            {{"D", "NOTABLE", "ID", "cleo"}, {"1002"}},
            {{"D", "users", "name", "Cleo", "ignored"}, {"0"}, "count(*) FROM USERS", "0"}});
}

TEST_F(Records, AreReachedThroughTheDispatcher) {
    expect({{{"G"}, {"1", MISSING_NAME}},
            {{"X", "", "ID"}, {"1", MISSING_NAME}},
            {{"", ""}, {"1", MISSING_NAME}},
            {{"G", "USERS"}, {"1", MISSING_KEY}},
            {{"X", "USERS", ""}, {"1", MISSING_KEY}},
            {{"L", "USERS", "", "x", "y"}, {"1", MISSING_KEY}},
            {{"g", "USERS", "ID", "anna", "NAME"}, {"1", NO_FUNCTION}},
            {{"GET", "USERS", "ID", "anna", "NAME"}, {"1", NO_FUNCTION}},
            {{"", "USERS", "ID", "anna", "NAME"}, {"1", NO_FUNCTION}},
            {{"X", "NOTABLE", "ID", "anna"}, {"1", NO_FUNCTION}}});
    EXPECT_NE(server.log().find("ETEXT=vlociRequest: Table name not defined.\n"), std::string::npos);
    EXPECT_NE(server.log().find("ETEXT=vlociRequest: Key name not defined.\n"), std::string::npos);
}

TEST_F(Records, TakeFramedValues) {
    const LogWatch log = server.watch();
    const std::string note = "NOTE FROM USERS WHERE ID = 'anna'", name = "hex(NAME) FROM USERS WHERE ID = 'be/b'";
    expect({{{"I", "USERS", "ID", "\1b%65%2fb\1", "NAME", "\1%c3%a4%0A\1"}, {"0"}, name, "C3A40A"},
            {{"G", "USERS", "ID", "\1%61nna\1", "\1%4eAME\1"}, {"0", "Anna"}},
            {{"G", "USERS", "\1ID\1", "anna", "NAME"}, {"1"}},
            {{"U", "USERS", "ID", "anna", "NOTE", "\1ab%00cd\1"}, {"0"}, note, "ab"},
            {{"U", "USERS", "ID", "anna", "NOTE", "\1\1"}, {"0"}, note, "NULL"},
            {{"U", "USERS", "ID", "anna", "NOTE", "\1"}, {"1"}, note, "NULL"}});
    EXPECT_TRUE(log.saw("raEventUdpRequest argument 6 cannot be decoded\n")) << log.text();
}

TEST_F(Records, LeaveNoLockBehindARefusal) {
    expect({{{"I", "USERS", "ID", "anna", "NAME", "x"}, {"2"}},
            {{"I", "USERS", "ID", "new", "NAME", ""}, {"1"}},
            {{"U", "USERS", "ID", "anna", "NAME", ""}, {"1"}},
            {{"D", "USERS", "ID", "nobody"}, {"1"}},
            {{"L", "USERS", "ID", "", "1"}, {"0", "anna"}}});
    EXPECT_EQ(server.value("PRAGMA busy_timeout = 0; BEGIN IMMEDIATE; ROLLBACK"), "0");
    EXPECT_EQ(server.value("PRAGMA wal_checkpoint(TRUNCATE)"), "0") << "a page that was not read to its end is open";
}

TEST_F(Records, SurviveAChangeOfTheTable) {
    const Strings read{"DB", "G", "USERS", "ID", "anna", "NAME", "VISITS"};
    const Strings list{"DB", "L", "USERS", "ID", "", "1", "+", "", "NAME"};
    const Strings record{"0", "Anna", "0000000f"};
    EXPECT_EQ(anna.ask(read), record);
    anna.ask(list);
    for (const std::string change :
         {"ALTER TABLE USERS ADD COLUMN LATER VARCHAR2(9)", "CREATE INDEX BY_NAME ON USERS (NAME)",
          "CREATE TABLE T AS SELECT VISITS, NAME, 1 AS X, ID FROM USERS; DROP TABLE USERS; ALTER TABLE T RENAME TO "
          "USERS"}) {
        server.sql(change);
        anna.ask(read);  // this one may fail
        EXPECT_EQ(anna.ask(list), (Strings{"0", "anna", "Anna"})) << change;
        EXPECT_EQ(anna.ask(read), record) << change;
    }
    server.sql("ALTER TABLE USERS RENAME TO GONE");
    for (const Strings &request : {read, read, Strings{"DB", "D", "USERS", "ID", "anna"}}) {
        EXPECT_NE(anna.ask(request).at(0), "0");
    }
    server.sql("ALTER TABLE GONE RENAME COLUMN X TO Y; ALTER TABLE GONE RENAME TO USERS");
    anna.ask(read);
    EXPECT_EQ(anna.ask(read), record);
    EXPECT_EQ(anna.ask({"DB", "G", "USERS", "ID", "anna", "Y"}), (Strings{"0", "1"})) << "columns are looked at anew";
}

}  // namespace
