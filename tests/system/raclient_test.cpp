/* The client program: its forms of output, scripts, keys, exit statuses, and the completion of its command line. */
#include <gtest/gtest.h>
#include <stdio.h>

#include "tests/support/serverprocess.h"

namespace {

/** What a command of the shell writes to standard output. */
std::string shell(const std::string &command) {
    FILE *pipe = popen(command.c_str(), "r");
    std::string output;
    for (int byte; (byte = getc(pipe)) != EOF;) output += static_cast<char>(byte);
    pclose(pipe);
    return output;
}

constexpr char KEY[] = "abcdefghijklmnopponmlkjihgfedcba", OTHER_KEY[] = "cccccccccccccccccccccccccccccccc";

class ClientProgram : public testing::Test {
protected:
    ServerProcess server{{.keys = std::string("127.0.0.1 encrypt ") + KEY + "\n"}};
    const std::string port = std::to_string(server.port());
    const std::string root = server.root().path();

    ClientProgram() {
        server.sql(
            "CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, NAME VARCHAR2(40), VISITS VARCHAR2(8));"
            "INSERT INTO USERS VALUES ('anna', 'Anna \"B.\"', '0000000f'), ('bj', 'Bj\u00f6rn', NULL),"
            "('lat', CAST(x'4BF60A095C1B5B' AS TEXT), '1')");
    }
    /** With options in front, HOST and PORT, and what follows; under the server's key. */
    ProgramEnd raclient(const Strings &options, const Strings &rest) const {
        const Strings words = joined({"raclient", "-i", "2"}, joined(options, {"127.0.0.1", port}));
        return run_program(joined(words, rest), {"VELROOT=" + root});
    }
    std::string file(const std::string &text) const {
        server.root().write("file", text);
        return server.root().path("file");
    }
    const Strings list{"DB", "L", "USERS", "ID", "", "10", "+", "*", "NAME", "VISITS"};
};

TEST_F(ClientProgram, ShowsAnswersInEachForm) {
    const std::string latin = "K\xf6\\n\\t\\\\\\x1b[";
    EXPECT_EQ(raclient({}, list).output, "0\nanna\nAnna \"B.\"\n0000000f\nbj\nBj\u00f6rn\n\nlat\n" + latin + "\n1\n");
    EXPECT_EQ(raclient({"--json"}, list).output,
              "[\"0\",\"anna\",\"Anna \\\"B.\\\"\",\"0000000f\",\"bj\",\"Bj\u00f6rn\",\"\",\"lat\","
              "\"K\\u00f6\\n\\t\\\\\\u001b[\",\"1\"]\n");
    const std::string rows = "anna  Anna \"B.\"      0000000f\nbj    Bj\u00f6rn\nlat   " + latin + "  1\n";
    EXPECT_EQ(raclient({"--table", "3"}, list).output, rows);
    EXPECT_EQ(raclient({"--table", "ID,N\u00e4me,V"}, list).output, "ID    N\u00e4me           V\n" + rows);
    const ProgramEnd refused = raclient({"--table", "3"}, {"DB", "G", "USERS", "ID", "x", "NAME"});
    EXPECT_EQ(refused.output, "101\n");
    EXPECT_EQ(refused.code, 0) << "an answer is a success, whatever it says";
    EXPECT_EQ(refused.errors, "");
    EXPECT_EQ(shell("VELROOT=" + root + " " VELMORA_BIN_DIR "/raclient 127.0.0.1 " + port +
                    " DB G USERS ID x 2>&1 > /dev/full; echo $?"),
              "raclient: the answer could not be written: No space left on device\n1\n");
}

TEST_F(ClientProgram, WritesJsonOfAnyBytes) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) all += static_cast<char>(byte);
    const Strings values{all,
                         all.substr(0, 127),
                         "\u00e9\u0085\u20ac\U0001f600\U0010ffff\ud7ff\ue000",
                         "over\xc0\xaf",
                         "half \xed\xa0\x80",
                         "high\xf4\x90\x80\x80",
                         "short \xe2\x82",
                         "plain %41"};
    server.sql("CREATE TABLE BYTES (ID VARCHAR2(1) PRIMARY KEY, TEXT VARCHAR2(4000))");
    std::string want = "0";
    for (size_t at = 0; at < values.size(); ++at) {
        const std::string id = std::to_string(at);
        ASSERT_EQ(raclient({"--encode"}, {"DB", "I", "BYTES", "ID", id, "TEXT", values[at]}).output, "0\n");
        want += '\0' + id + '\0' + values[at];
    }
    server.root().write("want", want);
    server.root().write("json", raclient({"--json"}, {"DB", "L", "BYTES", "ID", "", "10", "+", "*", "TEXT"}).output);
    server.root().write("check.py", R"(
import json
def decoded(value):
    try: return value.decode()
    except UnicodeDecodeError: return value.decode('latin-1')
text = open('json', 'rb').read().decode()
assert json.loads(text) == [decoded(value) for value in open('want', 'rb').read().split(b'\0')]
assert not any(c < ' ' or '\x7f' <= c < '\xa0' for c in text[:-1])
)");
    EXPECT_EQ(shell("cd " + root + " && python3 check.py && echo same"), "same\n");
}

TEST_F(ClientProgram, ShowsProgressOnATerminalOnly) {
    // The second line comes when the first was answered more than a second ago.
    const std::string line = "echo DB G USERS ID bj NAME; ", seen = root + "/seen ",
                      wait = "for i in $(seq 300); do grep -q Bj " + seen + "&& break; sleep 0.05; done; sleep 1.1; ",
                      raclient = "VELROOT=" + root + " " VELMORA_BIN_DIR "/raclient -f - 127.0.0.1 " + port,
                      command = "(" + line + wait + line + ") | " + raclient;
    EXPECT_EQ(shell(": > " + seen + "; " + command + " 2>&1 | tee " + seen), "0\nBj\u00f6rn\n0\nBj\u00f6rn\n");
    const std::string shown = shell(": > " + seen + "; script -qefc '" + command + "' " + seen + "< /dev/null");
    EXPECT_NE(shown.find("\r2 lines, 2 requests, "), std::string::npos) << shown;
    EXPECT_TRUE(shown.ends_with(" a second\x1b[K\r\x1b[K")) << "and leaves nothing behind: " << shown;
}

TEST_F(ClientProgram, RunsScriptsUpToTheFirstFailure) {
    const std::string script =
        file("# who\n\nDB G USERS ID anna NAME\nDB G USERS \"ID\" nobody NAME\nwhat\nDB D USERS ID anna\n");
    ProgramEnd end = raclient({}, {"-f", script});
    EXPECT_EQ(end.output, "0\nAnna \"B.\"\n101\n");
    EXPECT_EQ(end.errors, "raclient: " + script + ", line 5: Request denied by server.\n") << "and no progress";
    EXPECT_EQ(end.code, 3);

    end = raclient({"-e", "--json", "-f", script}, {});
    EXPECT_EQ(end.output, "[\"0\",\"Anna \\\"B.\\\"\"]\n[\"101\"]\n");
    EXPECT_EQ(end.code, 5);

    EXPECT_EQ(raclient({"-f", file("DB G" + std::string(40000, ' ') + "USERS ID bj NAME")}, {}).output,
              "0\nBj\u00f6rn\n");
    std::string many = "#\nx";
    for (int word = 0; word < 1500; ++word) many += " x";
    end = raclient({"-f", file(many)}, {});
    EXPECT_EQ(end.errors, "raclient: " + script + ", line 2: Too many arguments: 1501!\n");
    EXPECT_EQ(end.code, 1);
    end = raclient({"-f", file(std::string("DB D USERS\0ID", 13))}, {});
    EXPECT_EQ(end.errors, "raclient: " + script + ", line 1: there is a zero byte in it\n");
    EXPECT_EQ(raclient({"-f", root + "/nowhere"}, {}).errors,
              "raclient: cannot read " + root + "/nowhere: No such file or directory\n");
    EXPECT_EQ(raclient({"-f", root}, {}).code, 1);
}

TEST_F(ClientProgram, FindsTheKeyOrTellsHow) {
    const Strings get{"127.0.0.1", port, "DB", "G", "USERS", "ID", "bj", "NAME"};
    const auto ask = [&](const Strings &options, const std::string &environment = "") {
        return run_program(joined(joined({"raclient", "-i", "1", "-n", "1"}, options), get),
                           {"VELROOT=" + environment});
    };
    const std::string keys = root + "/etc/access.key";
    EXPECT_EQ(ask({"-VELROOT", root}, "/nowhere").code, 0);
    EXPECT_EQ(ask({"-k", keys}).code, 0);
    EXPECT_EQ(ask({"-k", keys}, "/nowhere").code, 0);
    EXPECT_EQ(ask({"-k", root + "/none"}).errors,
              "raclient: cannot read " + root + "/none: No such file or directory\n");

    const std::string other = file(std::string("127.0.0.9 ") + OTHER_KEY + "\n");
    server.root().write("wrong", std::string("127.0.0.1 ") + OTHER_KEY + "\n");
    for (const auto &[words, hint] : std::vector<std::pair<Strings, std::string>>{
             {{}, "without an access key; a server that wants one keeps silent: name its keys by -VELROOT DIR"},
             {{"-VELROOT", "/nowhere"}, "silent: /nowhere/etc/access.key can't be read: No such file"},
             {{"-k", other}, "silent: " + other + " has none for 127.0.0.1."},
             {{"-k", root + "/wrong"},
              "under the key of 127.0.0.1 in " + root + "/wrong. Is that the server's key"}}) {
        const ProgramEnd end = ask(words);
        EXPECT_EQ(end.code, 4);
        EXPECT_TRUE(end.errors.starts_with("raclient: Timeout, raserver 127.0.0.1:" + port + " does not answer.\n"));
        EXPECT_NE(end.errors.find(hint), std::string::npos) << end.errors;
    }
}

TEST(ClientCommandLine, RefusesWhatIsMissingWrongOrContradictsItself) {
    for (const Strings &words : {Strings{},
                                 {"h"},
                                 {"h", "1"},
                                 {"h", "0", "DB"},
                                 {"h", "many", "DB"},
                                 {"-x", "h", "1", "DB"},
                                 {"-i", "0", "h", "1", "DB"},
                                 {"h", "1", "-f", "x", "DB"},
                                 {"--json", "--table", "2", "h", "1", "DB"},
                                 {"--table", "0", "h", "1", "DB"},
                                 {"--table"},
                                 {"h", "1", "--none", "DB"},
                                 {"--", "--json", "1"}}) {
        const ProgramEnd end = run_program(joined({"raclient"}, words));
        EXPECT_EQ(end.code, 2) << testing::PrintToString(words);
        EXPECT_NE(end.errors.find("Usage: raclient"), std::string::npos);
    }
}

/** What bash offers for the last of the words. */
std::string completion_of(const std::string &words) {
    const std::string command =
        "bash -c '. " VELMORA_SOURCE_DIR "/packaging/completion/raclient.bash; set -- raclient " + words +
        "; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _raclient; echo \"${COMPREPLY[*]}\"'";
    return shell(command);
}

TEST(ClientCommandLine, IsCompleted) {
    const std::string source = VELMORA_SOURCE_DIR "/";
    for (const auto &[words, offered] :
         std::vector<std::pair<std::string, std::string>>{{"--j", "--json\n"},
                                                          {"h 1 --e", "--encode\n"},
                                                          {"h 1 D", "DB\n"},
                                                          {"--json -i 3 h 1 DB \"\"", "A D G I L U\n"},
                                                          {"h 1 DB L USERS ID \"\" 10 \"\"", "+ -\n"},
                                                          {"h 1 DB --j", "\n"},
                                                          {"-- --j", "\n"},
                                                          {"h 1 -f " + source + "READM", source + "README.md\n"},
                                                          {"-VELROOT " + source + "READM", "\n"}}) {
        EXPECT_EQ(completion_of(words), offered) << words;
    }
}

}  // namespace
