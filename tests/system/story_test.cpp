/* The whole way from the command line to the database and back, as somebody does it who tries the server out. */
#include <gtest/gtest.h>

#include "tests/support/serverprocess.h"

namespace {

class Story : public testing::Test {
protected:
    ServerProcess server;

    ProgramEnd raclient(const Strings &words) {
        Strings command{"raclient", "127.0.0.1", std::to_string(server.port())};
        command.insert(command.end(), words.begin(), words.end());
        return run_program(command);
    }

    void expect(const Strings &words, const std::string &output) {
        const ProgramEnd end = raclient(words);
        EXPECT_EQ(end.output, output) << testing::PrintToString(words);
        EXPECT_EQ(end.errors, "");
        EXPECT_EQ(end.code, 0) << "an answer is a success, whatever it says";
    }
};

TEST_F(Story, OfOneRecord) {
    server.sql("CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, NAME VARCHAR2(40), VISITS VARCHAR2(8))");
    expect({"DB", "I", "USERS", "ID", "anna", "NAME", "Anna", "VISITS", "0000000f"}, "0\n");
    expect({"DB", "I", "USERS", "ID", "anna", "NAME", "Anna"}, "2\n");
    expect({"DB", "G", "USERS", "ID", "anna", "NAME", "NOPE", "VISITS"}, "0\nAnna\n\n0000000f\n");
    expect({"DB", "U", "USERS", "ID", "anna", "NAME", "Anna B."}, "0\n");
    expect({"DB", "A", "USERS", "ID", "anna", "VISITS", "1"}, "0\n00000010\n");
    expect({"DB", "A", "USERS", "ID", "anna", "VISITS", "-1"}, "0\n0000000f\n");
    expect({"DB", "L", "USERS", "NAME", "", "10", "+", "A*", "ID"}, "0\nAnna B.\nanna\n");
    expect({"DB", "D", "USERS", "ID", "anna"}, "0\n");
    expect({"DB", "G", "USERS", "ID", "anna", "NAME"}, "101\n");
    expect({"DB", "L", "USERS", "NAME", ""}, "0\n");
    expect({"DB", "X", "USERS", "ID"}, "1\nFunction code not implemented\n");
}

TEST_F(Story, OfLinesThatValuesCanNotBreak) {
    server.sql(
        "CREATE TABLE T (ID VARCHAR2(5), A VARCHAR2(20)); INSERT INTO T VALUES ('1', 'a' || char(10, 9, 92, 27) || "
        "'b')");
    expect({"DB", "G", "T", "ID", "1", "A"}, "0\na\\n\\t\\\\\\x1bb\n");
}

TEST_F(Story, OfRequestsThatFail) {
    const ProgramEnd refused = raclient({"what"});
    EXPECT_EQ(refused.code, 3);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(refused.errors, "raclient: Request denied by server.\n");

    const std::string port = std::to_string(free_port());
    const ProgramEnd unheard = run_program({"raclient", "-i", "1", "-n", "1", "127.0.0.1", port, "DB"}, {"VELROOT="});
    EXPECT_EQ(unheard.code, 4);
    EXPECT_EQ(unheard.errors,
              "raclient: Timeout, raserver 127.0.0.1:" + port +
                  " does not answer.\nraclient: It was sent without an access key; a server that wants "
                  "one keeps silent: name its keys by -VELROOT DIR, its root directory, or by -k "
                  "KEYFILE.\n");

    Strings many(1501, "x");
    EXPECT_EQ(raclient(many).errors, "raclient: Too many arguments: 1501!\n");
    EXPECT_EQ(raclient({std::string(32000, 'x')}).errors, "raclient: Arguments to long: More than 32000 bytes!\n");
    EXPECT_EQ(raclient({std::string(31999, 'x')}).errors, "raclient: Request denied by server.\n")
        << "32000 bytes fit";

    for (const Strings &words : {Strings{},
                                 {"127.0.0.1"},
                                 {"127.0.0.1", "4000"},
                                 {"127.0.0.1", "0", "DB"},
                                 {"127.0.0.1", "many", "DB"},
                                 {"-x", "127.0.0.1", "4000", "DB"},
                                 {"-i", "0", "h", "1", "DB"}}) {
        Strings command{"raclient"};
        command.insert(command.end(), words.begin(), words.end());
        const ProgramEnd end = run_program(command);
        EXPECT_EQ(end.code, 2) << testing::PrintToString(words);
        EXPECT_NE(end.errors.find("Usage: raclient"), std::string::npos);
    }
}

TEST_F(Story, OfARestart) {
    server.sql("CREATE TABLE T (ID VARCHAR2(5) PRIMARY KEY, A VARCHAR2(5))");
    expect({"DB", "I", "T", "ID", "1", "A", "kept"}, "0\n");
    EXPECT_EQ(server.stop(), 0);
    server.start();
    expect({"DB", "G", "T", "ID", "1", "A"}, "0\nkept\n");
}

}  // namespace
