/* The gateway's session over time: a database that comes late, settings that are missing, statistics of a minute.
 * The hooks are called directly, each test in a process of its own, since the session is one for a process. */
#include <gtest/gtest.h>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "gateway/vlsql.h"
#include "raserver/raserver.h"
#include "tests/support/captured.h"
#include "tests/support/child.h"
#include "tests/support/logwatch.h"
#include "tests/support/rootfolder.h"
#include "tests/support/testclient.h"

namespace {

/** Runs the work in a process of its own; its failures are the test's. */
void in_a_process(const std::function<void()> &work) {
    Child child([&](Child &) {
        process_context.noAccessKeyCheck = 1;
        process_context.running = 1;
        work();
        raEventShutdown(0);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.exit_code(std::chrono::seconds(60)), 0) << child.output();
}

void start(Strings options) {
    options.insert(options.begin(), "server");
    std::vector<char *> argv;
    for (std::string &option : options) argv.push_back(strdup(option.c_str()));  // kept by reference
    argv.push_back(nullptr);
    EXPECT_EQ(raEventStartup(static_cast<int>(options.size()), argv.data()), 0);
}

/** What a minute brings, and what it wrote. */
std::string minute() {
    timeval now{};
    return told([&] { raEventPeriodic(&now); });
}

/** Serves a request without a socket; no strings mean that it was refused. */
Strings ask(Strings strings) {
    static unsigned char buffer[32100];
    RA_SESSION_S session{};
    session.reply = buffer;
    std::vector<char *> argv;
    for (std::string &text : strings) argv.push_back(text.data());
    argv.push_back(nullptr);
    session.argc = static_cast<int>(strings.size());
    session.argv = argv.data();
    raEventUdpRequest(&session, session.argc, session.argv);
    return reply_strings(std::string(reinterpret_cast<char *>(buffer), 7 + session.replyLength));
}

class GatewaySession : public testing::Test {
protected:
    RootFolder root;
    const std::string database = "sqlite:" + root.path("data.db");
    const Strings read{"DB", "G", "T", "ID", "1", "A"};

    void SetUp() override { root.write("map", ""); }

    Strings options(const std::string &address) const {
        return {"-odb", address, "-oid", "me", "-opw", "secret", "-f", root.path("map")};
    }
};

TEST_F(GatewaySession, OpensWhenTheDatabaseAppears) {
    in_a_process([&] {
        start(options("sqlite:" + root.path("later/data.db")));
        for (int tries = 0; tries < 3; ++tries) {
            const std::string log = minute();
            EXPECT_EQ(occurrences(log, "RA.EV opening Oracle connection\n"), 1) << log;
            EXPECT_EQ(occurrences(log, "ERROR: [OCI"), 1) << "the reason stands in the log: " << log;
            EXPECT_EQ(ask(read), Strings{});
        }
        std::filesystem::create_directory(root.path("later"));
        EXPECT_EQ(occurrences(minute(), "RA.EV Oracle connection established\n"), 1);
        EXPECT_EQ(ask(read), Strings{"1002"});
        EXPECT_EQ(occurrences(minute(), "Oracle connection"), 0) << "once open, it stays open";
    });
}

TEST_F(GatewaySession, WaitsForThePasswordFile) {
    in_a_process([&] {
        Strings words = options(database);
        words[5] = "file:" + root.path("secret");
        start(words);
        EXPECT_EQ(occurrences(minute(), "established"), 0);
        EXPECT_EQ(ask(read), Strings{});
        root.write("secret", "hush\n");
        EXPECT_EQ(occurrences(minute(), "established"), 1);
        EXPECT_EQ(ask(read), Strings{"1002"});
    });
}

TEST_F(GatewaySession, NeedsMapUserAndPassword) {
    for (const int missing : {2, 4, 6}) {
        in_a_process([&] {
            Strings words = options(database);
            words.erase(words.begin() + missing, words.begin() + missing + 2);
            start(words);
            EXPECT_EQ(occurrences(minute(), "established"), 0) << missing;
            EXPECT_EQ(occurrences(minute(), "opening Oracle connection"), 1) << "it keeps trying";
            EXPECT_EQ(ask(read), Strings{});
        });
    }
    in_a_process([&] {
        const std::string map = root.path("map");
        EXPECT_EQ(vlociInit(map.c_str(), nullptr, database.c_str(), nullptr, "p", nullptr), -2);
        EXPECT_EQ(vlociInit(map.c_str(), nullptr, database.c_str(), "u", nullptr, nullptr), -2);
        EXPECT_EQ(vlociInit(nullptr, nullptr, database.c_str(), "u", "p", nullptr), -2);
        EXPECT_EQ(vlociInit("", nullptr, database.c_str(), "u", "p", nullptr), -2);
        EXPECT_EQ(vlociInit(map.c_str(), nullptr, "sqlite:/no/such/place", "u", "p", nullptr), -1);
        EXPECT_EQ(vlociInit(map.c_str(), nullptr, database.c_str(), "u", "p", nullptr), 0);
        vlociShutdown();
        EXPECT_EQ(vlociInit(map.c_str(), nullptr, database.c_str(), "u", "p", nullptr), 0)
            << "and again after its end";
        vlociShutdown();
    });
}

TEST_F(GatewaySession, TakesOptionsInBothForms) {
    in_a_process([&] {
        start({"-opwsecret", "-f" + root.path("map"), "-odb" + database, "-oid"});
        EXPECT_EQ(occurrences(minute(), "established"), 0) << "nothing stands behind the last -oid";
    });
    in_a_process([&] {
        start({"-f", root.path("map"), "-oid", "-opwsecret", "-odb" + database});
        EXPECT_EQ(occurrences(minute(), "established"), 1)
            << "-opw is the user's name, and an option of its own as well";
    });
}

TEST_F(GatewaySession, AnswersOneWithoutAReadableMap) {
    in_a_process([&] {
        Strings words = options(database);
        words[7] = root.path("no-such-map");
        start(words);
        EXPECT_EQ(occurrences(minute(), "established"), 1) << "that does not stop the start";
        EXPECT_EQ(ask(read), Strings{"1"});
        EXPECT_EQ(ask({"DB", "L", "T", "ID", ""}), Strings{"1"});
    });
}

TEST_F(GatewaySession, CountsRequestsByTheirLastString) {
    in_a_process([&] {
        start(options(database));
        minute();
        for (const Strings &request : std::vector<Strings>{{"DB", "D", "T", "ID"},
                                                           {"DB", "D", "T"},
                                                           {"DB", "x"},
                                                           read,
                                                           {"DB", "G", "T", "ID", "1", "\1%41rt\1"},
                                                           {"DB", "G", "T", "ID", "1", "\xff"},
                                                           {"DB", "G", "T", "ID", ""},
                                                           {"db", "z"},
                                                           {"DB"}}) {
            ask(request);
        }
        const std::string log = minute();
        for (const char *line :
             {"DB.RE Type D, Requests 2, ", "DB.RE Type x, Requests 1, ", "DB.RE Type A, Requests 2, ",
              "DB.RE Type ff, Requests 1, ", "DB.RE Type 00, Requests 1, "}) {
            EXPECT_EQ(occurrences(log, line), 1) << line << "\n" << log;
        }
        EXPECT_EQ(occurrences(log, "DB.RE Type "), 5) << log;
        EXPECT_EQ(occurrences(log, " usecs per request.\n"), 5);
        EXPECT_EQ(occurrences(minute(), "DB.RE"), 0) << "each minute counts anew";
    });
}

// ---- A driver that lies, and one that is strict -----------------------------------------------------------------------

OCI_CALLS_S honest;

sword lying_execute(OCISvcCtx *service, OCIStmt *statement, OCIError *error, ub4 iterations, ub4 offset,
                    const OCISnapshot *in, OCISnapshot *out, ub4 mode) {
    const sword status = honest.OCIStmtExecute(service, statement, error, iterations, offset, in, out, mode);
    for (int slot = 1; mode == OCI_DEFAULT && slot < columnList.count; ++slot) columnList.entries[slot]->rlen = 65535;
    return status;
}

sword failing_commit(OCISvcCtx *, OCIError *, ub4) { return OCI_ERROR; }

int strict_binds;

/** A bind call that looks at what it is given: the value is at that place among the arguments, size and type behind. */
template <auto OCI_CALLS_S::*Call, size_t VALUE>
sword strict_bind(auto... arguments) {
    const auto all = std::tie(arguments...);
    ++strict_binds;
    EXPECT_EQ(std::get<VALUE + 2>(all), SQLT_STR);
    EXPECT_EQ(static_cast<size_t>(std::get<VALUE + 1>(all)), strlen(static_cast<char *>(std::get<VALUE>(all))) + 1)
        << "the zero byte belongs to it";
    return (honest.*Call)(arguments...);
}

class GatewayDriver : public GatewaySession {
protected:
    void with_a_table(const std::function<void()> &work) {
        in_a_process([&] {
            start(options(database));
            minute();
            gateway::prepare_text("test",
                                  "CREATE TABLE T (ID VARCHAR2(4) PRIMARY KEY, A VARCHAR2(8), N VARCHAR2(8))");
            ASSERT_TRUE(gateway::execute_prepared(1, OCI_DEFAULT).is_done());
            honest = gateway::oci;
            work();
            gateway::oci = honest;
        });
    }
};

TEST_F(GatewayDriver, IsNotBelievedAboutLengths) {
    with_a_table([&] {
        EXPECT_EQ(ask({"DB", "I", "T", "ID", "1", "A", "12345678", "N", "0000000f"}), Strings{"0"});
        gateway::oci.OCIStmtExecute = lying_execute;
        EXPECT_EQ(ask({"DB", "G", "T", "ID", "1", "A"}), (Strings{"0", "12345678"}));
        EXPECT_EQ(ask({"DB", "A", "T", "ID", "1", "N", "1"}), (Strings{"0", "00000010"}));
    });
}

TEST_F(GatewayDriver, TakesAChangeBackThatIsNotCommitted) {
    with_a_table([&] {
        EXPECT_EQ(ask({"DB", "I", "T", "ID", "1", "N", "0000000f"}), Strings{"0"});
        gateway::oci.OCITransCommit = failing_commit;
        for (const Strings &change : std::vector<Strings>{{"DB", "I", "T", "ID", "2"},
                                                          {"DB", "U", "T", "ID", "1", "N", "x"},
                                                          {"DB", "A", "T", "ID", "1", "N", "1"},
                                                          {"DB", "D", "T", "ID", "1"}}) {
            EXPECT_EQ(ask(change), Strings{"1"});
            EXPECT_EQ(ask({"DB", "L", "T", "ID", "", "9", "+", "", "N"}), (Strings{"0", "1", "0000000f"}))
                << change[1];
        }
    });
}

TEST_F(GatewayDriver, GetsEachValueWithItsEnd) {
    with_a_table([&] {
        gateway::oci.OCIBindByPos = strict_bind<&OCI_CALLS_S::OCIBindByPos, 4>;
        gateway::oci.OCIBindByName = strict_bind<&OCI_CALLS_S::OCIBindByName, 5>;
        EXPECT_EQ(ask({"DB", "I", "T", "ID", "1", "A", "too long for it", "N", ""}), Strings{"0"});
        EXPECT_EQ(ask({"DB", "U", "T", "ID", "1", "A", "too long again", "N", "1"}), Strings{"0"});
        EXPECT_EQ(ask({"DB", "A", "T", "ID", "1", "N", "1"}), (Strings{"0", "00000002"}));
        EXPECT_EQ(ask({"DB", "L", "T", "A", "", "ID", "0", "5", "+", "too%*"}), Strings{"0"});
        EXPECT_EQ(ask({"DB", "L", "T", "A", "t", "5", "+", "too*"}), (Strings{"0", "too long"}));
        EXPECT_EQ(ask({"DB", "D", "T", "ID", "1"}), Strings{"0"});
        EXPECT_EQ(strict_binds, 3 + 4 + 4 + 5 + 2 + 1) << "update and add look for the record first";
    });
}

}  // namespace
