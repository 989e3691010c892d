/* The programs in docs/client.md, as they stand there. */
#include <gtest/gtest.h>

#include "tests/support/serverprocess.h"

namespace {

TEST(ClientPage, HoldsProgramsThatWork) {
    const ServerProcess server({.keys = "127.0.0.1 encrypt abcdefghijklmnopponmlkjihgfedcba\n"});
    server.sql(
        "CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, NAME VARCHAR2(40), CITY VARCHAR2(20));"
        "INSERT INTO USERS VALUES ('anna', 'Anna Berg', 'Rom'), ('bert', 'Bert', ''), ('cleo', 'Cleo', '')");
    for (const auto &[program, output] : std::initializer_list<std::pair<const char *, const char *>>{
             {"client_page_c", "0\nAnna Berg\nRom\n"},
             {"client_page_cpp", "0\nanna\nAnna Berg\nbert\nBert\ncleo\nCleo\n"},
             {"client_page_async", "anna: Anna Berg\nbert: Bert\ncleo: Cleo\n"}}) {
        const ProgramEnd end =
            run_program({program, "127.0.0.1", std::to_string(server.port())}, {"VELROOT=" + server.root().path()});
        EXPECT_EQ(end.code, 0) << program;
        EXPECT_EQ(end.output, output) << program;
        EXPECT_EQ(end.errors, "") << program;
    }
}

}  // namespace
