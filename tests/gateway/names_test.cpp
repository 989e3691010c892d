/* Logical and physical names, what the log says about them, and other client libraries as the way to the database. */
#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>

#include "tests/support/serverprocess.h"

namespace {

constexpr char TABLE[] =
    "CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, NAME VARCHAR2(8)); INSERT INTO USERS VALUES ('anna', 'Anna')";
const Strings READ{"DB", "G", "USERS", "ID", "anna", "NAME"};
const Strings READ_RESULT{"0", "Anna"};

bool has_control_bytes(const std::string &log) {
    return std::any_of(log.begin(), log.end(), [](unsigned char byte) { return iscntrl(byte) && byte != '\n'; });
}

TEST(Names, GoThroughTheMap) {
    const std::string long_name(129, 'T');
    ServerProcess server{{.names = "# logical physical\n"
                                   "people   USERS\n"
                                   "  nick   NAME  \n"
                                   "key ID\n"
                                   "quoted   \"MY \"\"OWN\"\" TABLE\"\n"
                                   "dotted   main.USERS\n"
                                   "evil     USERS; DROP TABLE USERS\n"
                                   "joined   USERS,USERS\n"
                                   "comment  USERS--\n"
                                   "open     \"USERS\n"
                                   "odd      \"US\"ERS\"\n"
                                   "alias    \"USERS\"U\n"
                                   "empty\n"
                                   "long     " +
                                   long_name + "\n"}};
    server.sql(TABLE);
    server.sql("CREATE TABLE \"MY \"\"OWN\"\" TABLE\" AS SELECT * FROM USERS");
    TestClient client{server.port()};
    const auto read = [&](const std::string &table, const std::string &key, const std::string &attribute) {
        return client.ask({"DB", "G", table, key, "anna", attribute});
    };
    EXPECT_EQ(read("people", "key", "nick"), READ_RESULT);
    EXPECT_EQ(read("USERS", "ID", "NAME"), READ_RESULT) << "names without an entry stand for themselves";
    EXPECT_EQ(read("quoted", "ID", "NAME"), READ_RESULT);
    EXPECT_EQ(read("dotted", "ID", "nick"), READ_RESULT);
    EXPECT_EQ(client.ask({"DB", "L", "people", "nick", "", "5", "+", "", "key"}), Strings({"0", "Anna", "anna"}));
    EXPECT_EQ(client.ask({"DB", "U", "people", "key", "anna", "nick", "Ann"}), Strings{"0"});
    for (const std::string table :
         {"evil", "joined", "comment", "open", "odd", "alias", "empty", "long", "USERS WHERE 1=1",
          "(SELECT * FROM USERS)", "USERS;", "USERS'", "x\ny", "\"x\ny\""}) {
        const LogWatch log = server.watch();
        EXPECT_EQ(read(table, "ID", "NAME"), Strings{"1"}) << table;
        EXPECT_EQ(client.ask({"DB", "D", table, "ID", "anna"}), Strings{"1"}) << table;
        EXPECT_NE(log.text(), "") << table;
    }
    for (const std::string engines :
         {"sqlite_master", "main.sqlite_schema", "\"SQLITE_MASTER\"", "Pragma_optimize"}) {
        EXPECT_EQ(read(engines, "type", "name"), Strings{"1002"}) << engines;
    }
    EXPECT_EQ(server.value("SELECT count(*) FROM USERS"), "1");
    EXPECT_FALSE(has_control_bytes(server.log()));
}

TEST(Names, ThatNobodyKnowsAreReportedAtTheEnd) {
    ServerProcess server;
    server.sql(TABLE);
    TestClient client{server.port()};
    const LogWatch log = server.watch();
    client.ask({"DB", "G", "USERS", "ID", "anna", "NAME", "FIRST"});
    EXPECT_FALSE(log.saw("undefined attribute")) << "the first miss of a table is silent";
    client.ask({"DB", "G", "USERS", "ID", "anna", "NAME", "first", "Second"});
    EXPECT_EQ(log.count("[getVLcolumnByName] undefined attribute: \"first\".\n"), 1) << "later ones are not";
    for (int number = 0; number < 25; ++number) {
        client.ask({"DB", "G", "USERS", "ID", "anna", "NAME", "N" + std::to_string(number), "bad\n\x1b[1mline"});
    }
    const LogWatch end = server.watch();
    EXPECT_EQ(server.stop(), 0);
    EXPECT_TRUE(end.saw("[cleanup] undefined attributes for table = \"USERS\" undefined entries = 28\n"))
        << end.text();
    for (const char *name : {"FIRST", "Second", "N0", "N24", "bad..[1mline"}) {
        EXPECT_EQ(end.count("[cleanup] undefined attribute: \"" + std::string(name) + "\".\n"), 1) << name;
    }
    EXPECT_FALSE(has_control_bytes(server.log()));
}

TEST(Names, ThatNobodyKnowsAreKeptOnlyToALimit) {
    ServerProcess server;
    server.sql(TABLE);
    TestClient client{server.port()};
    for (int number = 0; number < 4200; ++number) {
        ASSERT_EQ(client.ask({"DB", "D", "T" + std::to_string(number), "ID", "x"}), Strings{"1002"});
    }
    int unknown = 0;
    for (int round = 0; round < 8; ++round) {
        Strings wide{"DB", "G", "USERS", "ID", "anna", "NAME"};
        while (wide.size() < 1400) wide.push_back("UNKNOWN" + std::to_string(unknown++));
        ASSERT_EQ(client.ask(wide).size(), 1396u);
    }
    ASSERT_GT(unknown, 10000);
    EXPECT_EQ(client.ask(READ), READ_RESULT);
    const LogWatch end = server.watch();
    server.stop();
    EXPECT_LE(end.count("[cleanup] undefined attributes for table = "), 4096 + 1);
    EXPECT_TRUE(end.saw("table = \"USERS\" undefined entries = 10000\n"));
    EXPECT_TRUE(end.saw("table = \"T4199\" undefined entries = 0\n"));
}

TEST(Log, ShowsNoControlBytesOfAClient) {
    ServerProcess server{{.options = {"-v", "-sqlv", "-TRACE"}}};
    server.sql(TABLE);
    server.sql("INSERT INTO USERS VALUES ('" + std::string("\x1b\n") + "', 'L2\nE3')");
    server.sql("ALTER TABLE USERS ADD COLUMN AGE NUMBER");
    TestClient client{server.port()};
    const std::string bad = "x\nL20010101000000 forged\r\t\x1b[31m\x7f\b";
    const LogWatch log = server.watch();
    client.ask({bad, "G", "USERS", "ID", "anna", "NAME"});
    client.ask({"DB", bad, bad, bad, bad});
    EXPECT_EQ(client.ask({"DB", "I", "USERS", "ID", bad, "AGE", bad}), Strings{"1"}) << "no number";
    for (const char *function : {"A", "D", "G", "I", "L", "U"}) {
        client.ask({"DB", function, bad, bad, bad, bad, bad});
        client.ask({"DB", function, "USERS", bad, bad, bad, bad});
        client.ask({"DB", function, "USERS", "ID", bad, bad, bad});
        client.ask({"DB", function, "USERS", "ID", "\1%0a%1b\1", "NAME", "\1%0aL2001%07\1"});
    }
    EXPECT_EQ(client.ask({"DB", "G", "USERS", "NAME", "Anna", "ID"}), Strings({"0", "anna"}));
    EXPECT_TRUE(log.saw("RA.LOG raEventUdpRequest 6 args.\n"));
    EXPECT_TRUE(log.saw("argv[ 5 ] = \"NAME\"\n"));
    EXPECT_TRUE(log.saw("sqlstmt=\"SELECT ID FROM USERS WHERE NAME=:1\".\n"));
    EXPECT_TRUE(log.saw("result     = \"anna\"\n"));
    server.stop();
    EXPECT_FALSE(log.saw("\nL20010101000000"));
    EXPECT_FALSE(has_control_bytes(server.log()));
}

TEST(Options, ComeJoinedOrApartAndAreListed) {
    ServerProcess server{{.options = {"-oidother", "-onlsGERMAN_GERMANY.WE8", "unknown", "-x"}}};
    server.sql(TABLE);
    EXPECT_EQ(TestClient(server.port()).ask(READ), READ_RESULT);
    const std::string log = server.log();
    for (const char *line : {"RA.LOG ARGV[ 1 ] \"-oidother\"\n", "RA.LOG ARGV[ 3 ] \"unknown\"\n",
                             "vlociInit: NLS_LANG environment set to: \"NLS_LANG=GERMAN_GERMANY.WE8\"\n",
                             "[vlociInit] OCI_NLS_LANGUAGE=\"", "[vlociInit] OCI_NLS_ABLANGUAGE=\"",
                             "[vlociInit] OCI_NLS_CHARACTER_SET=\"", "[vlociInit] OCI_NLS_LINGUISTIC_NAME=\""}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << log;
    }
    EXPECT_EQ(log.find("-NOACCESSKEYCHECK"), std::string::npos) << "the framework's options are taken out";
}

TEST(Options, NameAnotherClientLibrary) {
    RootFolder home;
    home.write("lib/README", "stands in for a vendor's library\n");
    std::filesystem::copy(VELMORA_LIB_DIR "/velmora-oci-sqlite.so", home.path("lib/libclntsh.so"));
    const std::string file = home.path("elsewhere.db");
    ServerProcess server{{.options = {"-ohom", home.path()},
                          .environment = {"VELMORA_OCI_SQLITE_FILE=" + file},
                          .database = "STANDIN"}};
    EXPECT_NE(server.log().find("ORACLE_HOME environment set to: \""), std::string::npos);
    EXPECT_NE(server.log().find("NLS_LANG environment set to: \"NLS_LANG = AMERICAN_AMERICA.US7ASCII\"\n"),
              std::string::npos);
    ASSERT_TRUE(std::filesystem::exists(file)) << server.log();
    TestClient client{server.port()};
    EXPECT_EQ(client.ask(READ), Strings{"1002"});
}

TEST(Options, WithoutALibraryLeaveTheServerWaiting) {
    ServerProcess server{{.options = {"-ohom", "/no/such/home"}, .database = "NOWHERE"}};
    TestClient client{server.port()};
    const LogWatch log = server.watch();
    EXPECT_TRUE(client.ask(1, READ).refused()) << "refused, not a time-out";
    EXPECT_TRUE(log.saw("raEventUdpRequest rejected since Oracle connection not yet initialized\n"));
    EXPECT_EQ(client.answer("\x97"), "\x98");
}

}  // namespace
