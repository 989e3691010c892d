/* What the gateway relies on, over every driver of ours: one suite, the drivers in a list. */
#include <gtest/gtest.h>
#include <cstdlib>
#include <random>
#include <thread>

#include "process/velproc.h"
#include "tests/oci/ocisession.h"
#include "tests/support/rootfolder.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;

/** A driver under test: the address of an empty database of its own for the running test. */
struct Driver {
    const char *name;
    std::string (*address)(const RootFolder &root);
};
const Driver drivers[] = {
    {"sqlite", [](const RootFolder &root) { return "sqlite:" + root.path("data.db"); }},
};

Done success() { return {}; }
Done no_data(Rows rows = {}) { return {OCI_NO_DATA, 0, "", std::move(rows)}; }
Done failure(sb4 number) { return {OCI_ERROR, number, "", {}}; }

class Drivers : public testing::TestWithParam<Driver> {
protected:
    RootFolder root;
    const std::string address = GetParam().address(root);
    OCI_CALLS_S calls = loaded(address);
    OciSession db{calls};

    static OCI_CALLS_S loaded(const std::string &address) {
        OCI_CALLS_S calls{};
        process_context.silent = 1;
        EXPECT_EQ(oci_load(address.c_str(), &calls), 0);
        return calls;
    }
    void SetUp() override {
        ASSERT_EQ(db.open(address), success());
        db.write(
            "CREATE TABLE T (ID VARCHAR2(4) PRIMARY KEY, NAME VARCHAR2(8) NOT NULL, N NUMBER, D DATE, C CHAR(3), "
            "NOTE VARCHAR2(4000))");
    }
    void TearDown() override { EXPECT_EQ(db.run("ALTER SESSION SET NLS_SORT = BINARY"), success()); }

    void fill(const std::vector<std::pair<std::string, std::string>> &names) {
        for (const auto &[id, name] : names) {
            ASSERT_EQ(db.write("INSERT INTO T(ID,NAME) VALUES (:1,:2)", {{"1", id}, {"2", name}}), success());
        }
    }
};
void PrintTo(const Driver &driver, std::ostream *out) { *out << driver.name; }
INSTANTIATE_TEST_SUITE_P(All, Drivers, testing::ValuesIn(drivers),
                         [](const auto &given) { return given.param.name; });

// ---- Values ---------------------------------------------------------------------------------------------------------

TEST_P(Drivers, KeepTheEmptyTextAsNull) {
    EXPECT_EQ(db.write("INSERT INTO T(ID,NAME,NOTE) VALUES (:1,:2,:3)", {{"1", "a"}, {"2", "x"}, {"3", ""}}),
              success());
    db.write("INSERT INTO T(ID,NAME,NOTE) VALUES ('b','y','')");
    EXPECT_EQ(db.query("SELECT ID,NOTE FROM T ORDER BY ID", 2), no_data({{"a", "<null>"}, {"b", "<null>"}}));
    EXPECT_EQ(db.query("SELECT ID FROM T WHERE NOTE=:0", 1, {{"1", ""}}), no_data());
    EXPECT_EQ(db.query("SELECT ID FROM T WHERE ID IS NOT NULL AND NOTE IS NULL AND ID=:0", 1, {{"1", "a"}}),
              no_data({{"a"}}));
    EXPECT_EQ(db.run("INSERT INTO T(ID,NAME) VALUES ('c',:1)", {{"1", ""}}), failure(1400));

    OciSession::Target target;
    db.prepare("SELECT NOTE FROM T WHERE ID='a'");
    db.define(1, target);
    EXPECT_EQ(db.execute().status, OCI_SUCCESS);
    EXPECT_EQ(target.indicator, -1);
    EXPECT_EQ(target.length, 0);
}

TEST_P(Drivers, CutWhatIsLongerThanItsBuffer) {
    fill({{"a", "12345678"}});
    OciSession::Target target;
    target.size = 5;
    memset(target.buffer, '#', sizeof target.buffer);
    db.prepare("SELECT NAME FROM T");
    db.define(1, target);
    const Done done = db.execute();
    EXPECT_TRUE(done.status == OCI_SUCCESS_WITH_INFO || done.error == 1406) << testing::PrintToString(done);
    EXPECT_EQ(std::string(target.buffer, 6), "12345#") << "not one byte beyond";
    EXPECT_EQ(target.length, 5);
    EXPECT_NE(target.indicator, -1);
}

TEST_P(Drivers, StoreAnyByteOfAText) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) all += static_cast<char>(byte);
    EXPECT_EQ(db.write("INSERT INTO T(ID,NAME,NOTE) VALUES ('a','x',:1)", {{"1", all}}), success());
    EXPECT_EQ(db.query("SELECT NOTE FROM T WHERE NOTE=:1", 1, {{"1", all}}), no_data({{all}}));
    const std::string full(4000, 'f');
    EXPECT_EQ(db.write("UPDATE T SET NOTE=:1", {{"1", full}}), success());
    EXPECT_EQ(db.query("SELECT NOTE FROM T", 1), no_data({{full}}));
}

// ---- Results and error numbers --------------------------------------------------------------------------------------

TEST_P(Drivers, TellWhatWasNotThere) {
    fill({{"a", "x"}});
    OciSession::Target target;
    db.prepare("SELECT NAME FROM T WHERE ID='none'");
    db.define(1, target);
    EXPECT_EQ(db.execute(1), no_data());
    EXPECT_EQ(db.run("UPDATE T SET NAME='y' WHERE ID=:0", {{"1", "none"}}), no_data());
    EXPECT_EQ(db.run("DELETE FROM T WHERE ID=:0", {{"1", "none"}}), no_data());
    EXPECT_EQ(db.write("UPDATE T SET NAME='x' WHERE ID=:0", {{"1", "a"}}), success()) << "touched, though unchanged";
    EXPECT_EQ(db.write("DELETE FROM T WHERE ID=:0", {{"1", "a"}}), success());
}

TEST_P(Drivers, NumberTheirErrors) {
    fill({{"a", "x"}});
    db.write("CREATE TABLE NUMBERED (ID INTEGER PRIMARY KEY)");
    const std::vector<std::pair<std::string, sb4>> cases{
        {"INSERT INTO T(ID,NAME) VALUES ('a','y')", 1},
        {"UPDATE T SET NAME=NULL", 1400},
        {"SELECT X FROM NOTABLE", 942},
        {"INSERT INTO NOTABLE(X) VALUES (1)", 942},
        {"SELECT NOCOLUMN FROM T", 904},
        {"UPDATE T SET NOCOLUMN='x'", 904},
        {"INSERT INTO T(ID,NOCOLUMN) VALUES ('b','x')", 904},
        {"INSERT INTO NUMBERED(ID) VALUES ('many')", 1722},
        {"SELECT FROM WHERE", 600},
    };
    for (const auto &[sql, number] : cases) EXPECT_EQ(db.run(sql), failure(number)) << sql;
    EXPECT_EQ(db.run("INSERT INTO T(NAME,ID) VALUES (:1,'b')", {{"1", "123456789"}}), failure(12899));
    EXPECT_EQ(db.run("INSERT INTO T(ID,NAME,N) VALUES ('b','x',:1)", {{"1", "many"}}), failure(1722));
    EXPECT_EQ(db.run("UPDATE T SET NAME=:1 WHERE ID=:0", {{":0", "a"}, {"1", "123456789"}}), failure(12899));
    EXPECT_EQ(db.query("SELECT ID,NAME FROM T", 2), no_data({{"a", "x"}})) << "a failed statement left something";
}

TEST_P(Drivers, RefuseBadAddresses) {
    for (const char *bad : {"sqlite:/no/such/directory/data.db", "sqlite:/", "sqlite:"}) {
        OciSession other{calls};
        const Done done = other.open(bad);
        EXPECT_EQ(done.status, OCI_ERROR) << bad;
        EXPECT_NE(done.error, 0) << bad;
    }
}

TEST_P(Drivers, RefuseInvalidHandles) {
    void *handle = nullptr;
    const auto text = reinterpret_cast<const OraText *>("x");
    OCIBind *bind = nullptr;
    OCIDefine *define = nullptr;
    char buffer[8];
    EXPECT_EQ(calls.OCIHandleAlloc(nullptr, &handle, OCI_HTYPE_ERROR, 0, nullptr), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIHandleFree(nullptr, OCI_HTYPE_STMT), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIServerAttach(nullptr, db.error, text, 1, 0), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCISessionBegin(nullptr, db.error, db.session, OCI_CRED_RDBMS, 0), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIStmtPrepare(nullptr, db.error, text, 1, OCI_NTV_SYNTAX, 0), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIStmtExecute(db.service, nullptr, db.error, 1, 0, nullptr, nullptr, 0), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIStmtFetch(nullptr, db.error, 1, OCI_FETCH_NEXT, 0), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIBindByPos(nullptr, &bind, db.error, 1, buffer, 1, SQLT_STR, nullptr, nullptr, nullptr, 0,
                                 nullptr, 0),
              OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIDefineByPos(nullptr, &define, db.error, 1, buffer, 8, SQLT_CHR, nullptr, nullptr, nullptr, 0),
              OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCITransCommit(nullptr, db.error, 0), OCI_INVALID_HANDLE);
    EXPECT_EQ(calls.OCIServerDetach(nullptr, db.error, 0), OCI_INVALID_HANDLE);

    OciSession closed{calls};  // handles that are fine but lead nowhere: any failure, but a failure
    EXPECT_NE(closed.run("SELECT 1 FROM T").status, OCI_SUCCESS);
    EXPECT_NE(closed.commit().status, OCI_SUCCESS);
    EXPECT_NE(db.fetch(1).status, OCI_SUCCESS) << "nothing was executed";
}

// ---- Placeholders ---------------------------------------------------------------------------------------------------

TEST_P(Drivers, BindByPositionAndByName) {
    fill({{"a", "x"}, {"b", "y"}, {"c", "x"}});
    EXPECT_EQ(db.write("UPDATE T SET NAME=:1,NOTE=:2 WHERE ID=:0", {{":0", "a"}, {"1", "new"}, {"2", "said"}}),
              success());
    EXPECT_EQ(db.query("SELECT NAME,NOTE FROM T WHERE ID=:1", 2, {{"1", "a"}}), no_data({{"new", "said"}}));
    const std::string repeated =
        "SELECT ID FROM T WHERE NAME LIKE :FILTER AND (NAME>:S OR (NAME=:S AND ID>:START)) ORDER BY NAME,ID";
    const Done found = no_data({{"c"}, {"b"}});
    EXPECT_EQ(db.query(repeated, 1, {{":FILTER", "%"}, {":S", "x"}, {":START", "a"}}), found);
    EXPECT_EQ(db.query(repeated, 1, {{"1", "%"}, {"2", "x"}, {"3", "a"}}), found)
        << "a repeated name has one position";
    EXPECT_EQ(db.query("SELECT ID FROM T WHERE ID||':1'=:1 AND ':X'<>NAME -- :2\n AND NAME=:2", 1,
                       {{"1", "c:1"}, {"2", "x"}}),
              no_data({{"c"}}))
        << "quoted and commented colons are text";
    EXPECT_EQ(db.query("SELECT ID FROM T WHERE ID=:1", 1, {{"1", "' OR 1=1 --"}}), no_data());

    std::string value = "x";
    db.prepare("SELECT ID FROM T WHERE ID=:1");
    EXPECT_NE(db.bind("2", value), OCI_SUCCESS) << "no such position";
    EXPECT_NE(db.bind(":NOBODY", value), OCI_SUCCESS);
    OciSession::Target target;
    db.define(1, target);
    EXPECT_EQ(db.execute(1).status, OCI_ERROR) << "the placeholder has no value";
}

TEST_P(Drivers, ReadTheBoundBufferWhenTheyExecute) {
    fill({{"a", "x"}, {"b", "y"}});
    std::string id = "a";
    OciSession::Target target;
    db.prepare("SELECT NAME FROM T WHERE ID=:0");
    db.bind("1", id);
    db.define(1, target);
    EXPECT_EQ(db.execute(1).status, OCI_SUCCESS);
    EXPECT_EQ(target.shown(), "x");
    id[0] = 'b';
    EXPECT_EQ(db.execute(1).status, OCI_SUCCESS);
    EXPECT_EQ(target.shown(), "y");
}

// ---- Description, order, patterns -----------------------------------------------------------------------------------

TEST_P(Drivers, DescribeAsDeclared) {
    db.write(
        "CREATE TABLE WIDE (a VARCHAR2(20), \"Mixed\" VARCHAR(7), C CHAR(20), N NUMBER, P NUMBER(8,2), I INTEGER, D "
        "DATE, X TEXT, Y VARCHAR2(4000))");
    ASSERT_EQ(db.prepare("SELECT * FROM WIDE"), success());
    ASSERT_EQ(db.execute(1, OCI_DESCRIBE_ONLY), success());
    ub4 count = 0;
    EXPECT_EQ(calls.OCIAttrGet(db.statement, OCI_HTYPE_STMT, &count, nullptr, OCI_ATTR_PARAM_COUNT, db.error),
              OCI_SUCCESS);
    std::string shown;
    for (ub4 position = 1; position <= count; ++position) {
        void *parameter = nullptr;
        ub2 type = 0, size = 0;
        OraText *name = nullptr;
        ub4 length = 0;
        EXPECT_EQ(calls.OCIParamGet(db.statement, OCI_HTYPE_STMT, db.error, &parameter, position), OCI_SUCCESS);
        calls.OCIAttrGet(parameter, OCI_DTYPE_PARAM, &type, nullptr, OCI_ATTR_DATA_TYPE, db.error);
        calls.OCIAttrGet(parameter, OCI_DTYPE_PARAM, &size, nullptr, OCI_ATTR_DATA_SIZE, db.error);
        calls.OCIAttrGet(parameter, OCI_DTYPE_PARAM, &name, &length, OCI_ATTR_NAME, db.error);
        shown += std::string(reinterpret_cast<char *>(name), length) + " " + std::to_string(type) + " " +
                 std::to_string(size) + ",";
    }
    EXPECT_EQ(shown, "A 1 20,MIXED 1 7,C 96 20,N 2 22,P 2 22,I 2 22,D 12 7,X 1 4000,Y 1 4000,");
    void *none = nullptr;
    EXPECT_NE(calls.OCIParamGet(db.statement, OCI_HTYPE_STMT, db.error, &none, count + 1), OCI_SUCCESS);
    EXPECT_NE(calls.OCIParamGet(db.statement, OCI_HTYPE_STMT, db.error, &none, 0), OCI_SUCCESS);

    db.prepare("SELECT * FROM NOTABLE");
    EXPECT_EQ(db.execute(1, OCI_DESCRIBE_ONLY), failure(942));
}

TEST_P(Drivers, CompareByByte) {
    fill({{"1", "b"}, {"2", "B"}, {"3", "a"}, {"4", "_"}, {"5", "\xc3\xa4"}, {"6", "Z"}});
    EXPECT_EQ(db.query("SELECT NAME FROM T ORDER BY NAME", 1),
              no_data({{"B"}, {"Z"}, {"_"}, {"a"}, {"b"}, {"\xc3\xa4"}}));
    EXPECT_EQ(db.query("SELECT NAME FROM T WHERE NAME>:1 ORDER BY NAME DESC", 1, {{"1", "_"}}),
              no_data({{"\xc3\xa4"}, {"b"}, {"a"}}));
    EXPECT_EQ(db.query("SELECT ID FROM T WHERE NAME=:1", 1, {{"1", "B"}}), no_data({{"2"}}));
}

TEST_P(Drivers, OrderNullLastAscending) {
    fill({{"1", "x"}, {"2", "x"}, {"3", "x"}});
    db.write("UPDATE T SET NOTE='n',N=1 WHERE ID='2'");
    EXPECT_EQ(db.query("SELECT ID FROM T ORDER BY NOTE,ID", 1), no_data({{"2"}, {"1"}, {"3"}}));
    EXPECT_EQ(db.query("SELECT ID FROM T ORDER BY NOTE DESC,ID DESC", 1), no_data({{"3"}, {"1"}, {"2"}}));
    EXPECT_EQ(db.query("SELECT N,ID FROM T ORDER BY 1 DESC", 2).rows.back().back(), "2");
    EXPECT_EQ(db.query("SELECT N,ID FROM T ORDER BY 1", 2).rows.front().back(), "2");
}

TEST_P(Drivers, MatchPatterns) {
    fill({{"1", "ab"}, {"2", "AB"}, {"3", "a%"}, {"4", "a_c"}, {"5", "!%"}});
    const auto match = [&](const std::string &pattern, const std::string &escape = "") {
        Binds binds{{":FILTER", pattern}};
        if (!escape.empty()) binds[":ESCAPE"] = escape;
        std::string ids;
        const std::string clause = escape.empty() ? "" : " ESCAPE :ESCAPE";
        for (const auto &row :
             db.query("SELECT ID FROM T WHERE NAME LIKE :FILTER" + clause + " ORDER BY ID", 1, binds).rows)
            ids += row[0];
        return ids;
    };
    EXPECT_EQ(match("%"), "12345");
    EXPECT_EQ(match("a%"), "134") << "case counts";
    EXPECT_EQ(match("A_"), "2");
    EXPECT_EQ(match("_%_c"), "4");
    EXPECT_EQ(match("a!%", "!"), "3");
    EXPECT_EQ(match("a!_%", "!"), "4");
    EXPECT_EQ(match("!:%", ":"), "5");
    EXPECT_EQ(match(""), "") << "no text is no pattern";
}

TEST_P(Drivers, MatchNumbersAsTheyAreShown) {
    int id = 0;
    for (const char *number : {"12", "-3", "1.5", "0.25", "1e20", "123456789012", "0"}) {
        db.write("INSERT INTO T(ID,NAME,N) VALUES (:1,'x',:2)", {{"1", std::to_string(++id)}, {"2", number}});
    }
    const Rows all = db.query("SELECT N,ID FROM T ORDER BY ID", 2).rows;
    ASSERT_EQ(all.size(), 7u);
    EXPECT_EQ(all[0][0], "12");
    EXPECT_EQ(all[2][0], "1.5");
    EXPECT_EQ(all[5][0], "123456789012");
    for (const auto &row : all) {
        EXPECT_EQ(db.query("SELECT ID FROM T WHERE N LIKE :1", 1, {{"1", row[0]}}), no_data({{row[1]}})) << row[0];
        EXPECT_EQ(db.query("SELECT ID FROM T WHERE N=:1", 1, {{"1", row[0]}}), no_data({{row[1]}})) << row[0];
    }
    EXPECT_EQ(db.query("SELECT ID FROM T WHERE N LIKE '12%' ORDER BY N", 1), no_data({{"1"}, {"6"}}));
    EXPECT_EQ(db.query("SELECT ID FROM T WHERE N>:1 ORDER BY N", 1, {{"1", "9"}}), no_data({{"1"}, {"6"}, {"5"}}))
        << "numbers compare as numbers";
}

// ---- Transactions and neighbours --------------------------------------------------------------------------------------

TEST_P(Drivers, ShowAWriteOnlyWhenItIsCommitted) {
    OciSession other{calls};
    ASSERT_EQ(other.open(address), success());
    EXPECT_EQ(db.run("INSERT INTO T(ID,NAME) VALUES ('a','x')"), success());
    EXPECT_EQ(other.query("SELECT ID FROM T", 1), no_data());
    EXPECT_EQ(db.query("SELECT ID FROM T", 1), no_data({{"a"}}));
    EXPECT_EQ(db.commit(), success());
    EXPECT_EQ(other.query("SELECT ID FROM T", 1), no_data({{"a"}}));

    EXPECT_EQ(db.run("DELETE FROM T"), success());
    EXPECT_EQ(db.run("ROLLBACK"), success());
    EXPECT_EQ(db.query("SELECT ID FROM T", 1), no_data({{"a"}}));
    EXPECT_EQ(other.write("UPDATE T SET NAME='z'"), success()) << "the lock is gone";
    EXPECT_EQ(db.commit(), success()) << "nothing to commit is no error";

    other.run("DELETE FROM T");
    other.close();
    EXPECT_EQ(db.query("SELECT NAME FROM T", 1), no_data({{"z"}})) << "what was not committed goes with its session";
}

TEST_P(Drivers, LeaveNoLockBehindAFailure) {
    fill({{"a", "x"}});
    OciSession other{calls};
    ASSERT_EQ(other.open(address), success());
    EXPECT_EQ(db.run("INSERT INTO T(ID,NAME) VALUES ('a','y')"), failure(1));
    EXPECT_EQ(other.write("INSERT INTO T(ID,NAME) VALUES ('b','y')"), success());
    EXPECT_EQ(db.run("UPDATE T SET NAME='q' WHERE ID='none'"), no_data());
    EXPECT_EQ(other.write("INSERT INTO T(ID,NAME) VALUES ('c','y')"), success());
}

TEST_P(Drivers, TellThatTheDatabaseIsBusy) {
    OciSession other{calls};
    ASSERT_EQ(other.open(address), success());
    EXPECT_EQ(db.run("INSERT INTO T(ID,NAME) VALUES ('a','x')"), success());
    EXPECT_EQ(other.run("INSERT INTO T(ID,NAME) VALUES ('b','x')"), failure(54));
    EXPECT_EQ(other.query("SELECT ID FROM T", 1), no_data()) << "reading goes on";
    EXPECT_EQ(db.commit(), success());
    EXPECT_EQ(other.write("INSERT INTO T(ID,NAME) VALUES ('b','x')"), success());
}

// ---- The time that a statement may take ---------------------------------------------------------------------------------

constexpr ub4 AMPLE = 60'000;  // milliseconds, for a statement that is to come to its end
const std::string endless = "WITH RECURSIVE E(X) AS (SELECT 1 UNION ALL SELECT X+1 FROM E) ";

TEST_P(Drivers, LimitAStatementOnlyWhereTheProcessIsHardened) {
    EXPECT_EQ(db.limit(), 0u);
    process_context.hardened = 1;
    loaded(address);
    EXPECT_EQ(OciSession(calls).limit(), 5000u);
    process_context.hardened = 0;
    unsetenv("VELHARDEN");
}

TEST_P(Drivers, EndAStatementThatTakesTooLong) {
    OciSession other{calls};
    ASSERT_EQ(other.open(address), success());
    fill({{"a", "x"}});
    const std::string count = endless + "SELECT COUNT(*) FROM E";
    const std::string fill_up = "INSERT INTO T(ID,NAME) " + endless + "SELECT 'n' || X, 'x' FROM E";
    for (const std::string &sql : {count, fill_up, std::string("UPDATE T SET NOTE=(" + count + ")")}) {
        db.limit(200);
        const Done ended = db.run(sql);
        EXPECT_EQ(ended, failure(600)) << sql;
        db.limit(AMPLE);
        EXPECT_NE(ended.text.find("took longer"), std::string::npos) << ended.text;
        EXPECT_EQ(db.query("SELECT ID,NOTE FROM T", 2), no_data({{"a", "<null>"}}));
        EXPECT_EQ(other.write("UPDATE T SET NAME='y'"), success()) << "a lock stayed: " << sql;
        EXPECT_EQ(db.query(endless + "SELECT MAX(X) FROM (SELECT X FROM E LIMIT 300)", 1), no_data({{"300"}}))
            << "the next statement has its own time";
    }

    EXPECT_EQ(db.run("DELETE FROM T"), success());
    db.limit(200);
    EXPECT_EQ(db.run(fill_up), failure(600));
    db.limit(AMPLE);
    EXPECT_EQ(db.commit().status, OCI_ERROR) << "what came before in the transaction went with it";
    EXPECT_EQ(db.query("SELECT ID FROM T", 1), no_data({{"a"}}));
}

TEST_P(Drivers, CountAllFetchesOfAStatement) {
    db.limit(50);
    OciSession::Target target;
    db.prepare(endless + "SELECT X FROM E");
    db.define(1, target);
    Done done = db.execute(0);
    while (done.status == OCI_SUCCESS) done = db.fetch(1);
    EXPECT_EQ(done, failure(600));
    db.limit(AMPLE);
    EXPECT_EQ(db.query("SELECT 1 FROM T", 1), no_data());
}

TEST_P(Drivers, WaitForALockNoLongerThanAStatementMayTake) {
    OciSession patient{calls}, limited{calls};
    ASSERT_EQ(patient.open(address), success());
    ASSERT_EQ(limited.open(address), success());
    limited.limit(50);
    EXPECT_EQ(db.run("INSERT INTO T(ID,NAME) VALUES ('a','x')"), success());
    std::thread waiting([&] { EXPECT_EQ(patient.write("UPDATE T SET NAME='y'"), success()); });
    for (const char *sql : {"UPDATE T SET NAME='z'", "DELETE FROM T"}) EXPECT_EQ(limited.run(sql), failure(54));
    EXPECT_EQ(db.commit(), success()) << "while the other one still waits";
    waiting.join();
    limited.limit(AMPLE);
    EXPECT_EQ(limited.query("SELECT NAME FROM T", 1), no_data({{"y"}}));
}

TEST_P(Drivers, EndAQueryEarly) {
    fill({{"a", "x"}, {"b", "y"}, {"c", "z"}});
    OciSession::Target target;
    db.prepare("SELECT ID FROM T ORDER BY ID");
    db.define(1, target);
    EXPECT_EQ(db.execute(0).status, OCI_SUCCESS);
    EXPECT_EQ(db.fetch(1).status, OCI_SUCCESS);
    EXPECT_EQ(target.shown(), "a");
    const sword ended = db.fetch(0).status;
    EXPECT_TRUE(ended == OCI_SUCCESS || ended == OCI_NO_DATA) << ended;
    EXPECT_NE(db.fetch(1).status, OCI_SUCCESS);
    EXPECT_EQ(db.query("SELECT ID FROM T ORDER BY ID", 1), no_data({{"a"}, {"b"}, {"c"}}))
        << "and from the start again";
}

TEST_P(Drivers, SurviveAChangeByANeighbour) {
    fill({{"a", "x"}});
    OciSession other{calls};
    ASSERT_EQ(other.open(address), success());
    const std::string read = "SELECT NAME FROM T WHERE ID=:1";
    const Done expected = no_data({{"x"}});
    for (const char *change :
         {"ALTER TABLE T ADD COLUMN MORE VARCHAR2(5)", "CREATE INDEX NAMES ON T(NAME)", "DROP INDEX NAMES"}) {
        EXPECT_EQ(db.query(read, 1, {{"1", "a"}}), expected);
        ASSERT_EQ(other.write(change), success()) << change;
        db.query(read, 1, {{"1", "a"}});  // may fail once
        EXPECT_EQ(db.query(read, 1, {{"1", "a"}}), expected) << change;
    }
    EXPECT_EQ(other.write("DROP TABLE T"), success()) << "a finished query holds no lock";
    EXPECT_EQ(db.query(read, 1, {{"1", "a"}}).status, OCI_ERROR);
    EXPECT_EQ(db.query(read, 1, {{"1", "a"}}), failure(942));
    ASSERT_EQ(other.write("CREATE TABLE T (NAME VARCHAR2(8), ID VARCHAR2(4))"), success());
    EXPECT_EQ(db.query(read, 1, {{"1", "a"}}), no_data());
}

TEST_P(Drivers, ServeMoreStatementsThanTheyKeep) {
    fill({{"a", "x"}});
    std::minstd_rand random(7);  // fixed: the order only has to be none in particular
    for (int round = 0; round < 1500; ++round) {
        const std::string number = std::to_string(random() % 500);
        ASSERT_EQ(db.query("SELECT NAME,'" + number + "' FROM T WHERE ID=:1", 2, {{"1", "a"}}),
                  no_data({{"x", number}}));
    }
    std::string many;
    for (int column = 1; column < 1000; ++column) many += ",NAME";
    for (int round = 0; round < 30; ++round) {
        const std::string number = std::to_string(random() % 15);
        std::vector<std::string> row(1000, "x");
        row[0] = number;
        ASSERT_EQ(db.query("SELECT '" + number + "'" + many + " FROM T WHERE ID=:1", 1000, {{"1", "a"}}),
                  no_data({row}));
        ASSERT_EQ(db.query("SELECT NAME FROM T WHERE ID=:1", 1, {{"1", "a"}}), no_data({{"x"}}));
    }
}

}  // namespace
