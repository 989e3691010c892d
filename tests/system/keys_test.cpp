/* Access keys end to end: the real server, its key file, and clients at other addresses of this machine that have
 * keys of their own. */
#include <gtest/gtest.h>

#include "raserver/raserver.h"
#include "tests/support/accesskey.h"
#include "tests/support/child.h"
#include "tests/support/serverprocess.h"

namespace {

const AccessKey server_key("abcdefghijklmnopponmlkjihgfedcba");
const AccessKey clear_key("kkkkllllmmmmnnnnkkkkllllmmmmnnnn");
const AccessKey cipher_key("bdfhjlnpbdfhjlnpbdfhjlnpbdfhjlnp");
const AccessKey other_key("cccccccccccccccccccccccccccccccc");
constexpr const char *CLEAR_PEER = "127.0.0.2", *CIPHER_PEER = "127.0.0.3", *KEYLESS_PEER = "127.0.0.4";

std::string line(const std::string &host, const AccessKey &key, bool enciphers) {
    return host + (enciphers ? " encrypt " : " ") + key.text() + "\n";
}
std::string packet(int type, const std::string &rest = "") { return std::string(1, static_cast<char>(type)) + rest; }

/** A server with a key file, for all addresses of this machine. */
class KeyedServer : public ServerProcess {
public:
    explicit KeyedServer(const std::string &keys, const char *host = "127.0.0.1", bool hardened = false)
        : ServerProcess({.options = {"-ipallow", "127.*"},
                         .environment = {hardened ? "VELHARDEN=1" : "VELHARDEN=0"},
                         .keys = keys,
                         .host = host}) {
        sql("CREATE TABLE USERS (ID VARCHAR2(20) PRIMARY KEY, VISITS VARCHAR2(8));"
            "INSERT INTO USERS VALUES ('anna', '0000000f')");
    }
    std::string visits() const { return value("SELECT VISITS FROM USERS"); }
};

const Strings one_visit{"DB", "A", "USERS", "ID", "anna", "VISITS", "1"};
const Strings look{"DB", "G", "USERS", "ID", "anna", "VISITS"};
const std::string found = request_datagram(7, {"0", "0000000f"}, 2);

class Keys : public testing::Test {
protected:
    const KeyedServer server{"# one host a line\n" + line("127.0.0.1", server_key, true) +
                             line(CLEAR_PEER, clear_key, false) + line(CIPHER_PEER, cipher_key, true)};
    TestClient clear_peer{server.port(), "127.0.0.1", CLEAR_PEER};
    TestClient cipher_peer{server.port(), "127.0.0.1", CIPHER_PEER};
    TestClient keyless_peer{server.port(), "127.0.0.1", KEYLESS_PEER};

    static std::string no_key_line(int function, const TestClient &peer) {
        return " RA.LOG raUdpRequest " + std::to_string(function) + " without access key from " + peer.name() + "\n";
    }
};

TEST_F(Keys, OpenTheServerInEachFormOfRequest) {
    const std::string request = request_datagram(7, look);
    for (const std::string &datagram :
         {server_key.shown(request), server_key.sealed(request), server_key.sealed(server_key.shown(request))}) {
        TestClient fresh(server.port(), "127.0.0.1", KEYLESS_PEER);  // no replay
        EXPECT_EQ(fresh.answer(datagram), found);
    }
}

TEST_F(Keys, OfThePeerSealTheReply) {
    for (const int function : {1, 4}) {
        const std::string request = server_key.shown(request_datagram(7, look, function));
        std::string reply = found;
        reply[0] = function == 4 ? 62 : 61;
        EXPECT_EQ(clear_key.opened(clear_peer.answer(request)), clear_key.shown(reply)) << "shown, inside";
        EXPECT_EQ(cipher_key.opened(cipher_peer.answer(request)), reply) << "not shown";
        EXPECT_EQ(keyless_peer.answer(request), reply) << "no key: in the clear, also for what came in an envelope";
    }
    EXPECT_EQ(cipher_key.opened(cipher_peer.answer(server_key.sealed(request_datagram(9, {"what"})))),
              request_datagram(9, {}, 3));
}

TEST_F(Keys, SealTheLargestReplyAndNoLargerOne) {
    Strings columns{"C1", "C2", "C3", "C4", "C5", "C6", "C7", "C8"};
    std::string declared, values;
    for (const std::string &column : columns) {  // 2 bytes for "0", then 7 * 4001 and 3990: 31999
        declared += ", " + column + " TEXT";
        values += ", substr(hex(zeroblob(2000)), 1, " + std::string(column == "C8" ? "3989)" : "4000)");
    }
    server.sql("CREATE TABLE WIDE (ID TEXT PRIMARY KEY" + declared + "); INSERT INTO WIDE VALUES (1" + values + ")");
    const auto datagram = [&](uint32_t sequence, const Strings &request) {
        return server_key.sealed(request_datagram(sequence, joined(request, columns)));
    };
    const Strings get{"DB", "G", "WIDE", "ID", "1"}, page{"DB", "L", "WIDE", "ID", "", "10", "+", ""};
    EXPECT_EQ(clear_key.opened(clear_peer.answer(datagram(7, get))).value_or("").size(), 17u + 7u + 31999u);
    const std::string sealed = cipher_peer.answer(datagram(7, get));
    const std::string reply = cipher_key.opened(sealed).value_or("");
    EXPECT_EQ(reply.size(), 7u + 31999u);
    EXPECT_EQ(reply_strings(reply).back(), std::string(3989, '0'));
    EXPECT_EQ(cipher_peer.answer(datagram(7, get)), sealed) << "and is kept whole for a replay";

    server.sql("UPDATE WIDE SET C8 = C8 || '0'");
    EXPECT_EQ(cipher_key.opened(cipher_peer.answer(datagram(8, get))), request_datagram(8, {"1012"}, 2));
    EXPECT_EQ(cipher_key.opened(cipher_peer.answer(datagram(9, page))), request_datagram(9, {"1012"}, 2))
        << "a page is lost whole";
}

TEST_F(Keys, LeaveAReplayTheIdenticalDatagram) {
    const std::string request = request_datagram(7, one_visit);
    const std::string first = cipher_peer.answer(server_key.sealed(request));
    EXPECT_EQ(cipher_key.opened(first), request_datagram(7, {"0", "00000010"}, 2));
    EXPECT_EQ(cipher_peer.answer(server_key.sealed(request)), first) << "another envelope, the same request";
    EXPECT_EQ(cipher_peer.answer(server_key.shown(request)), first);
    EXPECT_EQ(server.visits(), "00000010");

    const std::string next = cipher_peer.answer(server_key.sealed(request_datagram(8, one_visit)));
    EXPECT_NE(next.substr(1, 16), first.substr(1, 16)) << "each envelope has a session key of its own";
}

TEST_F(Keys, ThatAreWrongOrMissingGetNoReply) {
    const std::string request = request_datagram(7, one_visit);
    std::string nearly = server_key.shown(request);
    nearly[16] ^= 1;
    LogWatch log = server.watch();
    for (const std::string &datagram : {nearly, other_key.shown(request), clear_key.shown(request), request}) {
        EXPECT_TRUE(clear_peer.stays_silent(datagram)) << "the sender's own key opens nothing either";
    }
    EXPECT_EQ(log.count(no_key_line(1, clear_peer)), 4) << log.text();
    EXPECT_TRUE(keyless_peer.stays_silent(request_datagram(7, one_visit, 4)));
    EXPECT_TRUE(log.wait_for(no_key_line(4, keyless_peer)));
    EXPECT_EQ(server.visits(), "0000000f");

    EXPECT_EQ(clear_key.opened(clear_peer.answer(server_key.shown(request))).value_or("").size(), 17u + 7u + 11u)
        << "and the peer isn't worse off for it";
}

TEST(KeysHardened, MustStandInEachEnvelope) {
    const KeyedServer server(line("127.0.0.1", server_key, true) + line(CIPHER_PEER, cipher_key, true), "127.0.0.1",
                             true);
    TestClient peer(server.port(), "127.0.0.1", CIPHER_PEER);
    const std::string request = request_datagram(7, look);
    for (const std::string &inside : {request, other_key.shown(request)}) {
        EXPECT_TRUE(peer.stays_silent(server_key.sealed(inside)));
    }
    EXPECT_EQ(cipher_key.opened(peer.answer(server_key.sealed(server_key.shown(request)))), cipher_key.shown(found));
    EXPECT_EQ(cipher_key.opened(peer.answer(server_key.sealed(packet(151)))), cipher_key.shown(packet(152)));
}

TEST_F(Keys, KeepWhatCameInAnEnvelopeOutOfTheClear) {
    const std::string secret = "a secret, longer than a block", ping = packet(151, secret);
    const std::string unknown = packet(200, secret), refusal = "\x09\x01" + unknown;
    for (const auto &[key, peer] : {std::pair(&cipher_key, &cipher_peer), {&clear_key, &clear_peer}}) {
        EXPECT_EQ(key->opened(peer->answer(server_key.sealed(ping))), packet(152, secret));
        EXPECT_EQ(key->opened(peer->answer(server_key.sealed(unknown))), refusal);
    }
    EXPECT_EQ(keyless_peer.answer(server_key.sealed(ping)), packet(152));
    EXPECT_EQ(keyless_peer.answer(server_key.sealed(unknown)), "\x09\x01");

    const std::string emptied = server_key.sealed(std::string(5, '\xa5'));  // nothing is left of it but padding
    EXPECT_EQ(cipher_key.opened(cipher_peer.answer(emptied)), "\x09\x01");
    EXPECT_EQ(keyless_peer.answer(emptied), "\x09\x01");
    EXPECT_EQ(keyless_peer.answer(server_key.sealed(server_key.shown(unknown))), "\x09\x01");
}

TEST_F(Keys, LeaveWhatCameInClearInClear) {
    EXPECT_EQ(cipher_key.opened(cipher_peer.answer(server_key.sealed(packet(151)))), packet(152));
    EXPECT_EQ(cipher_peer.answer(packet(151, "open")), packet(152, "open"));
    EXPECT_EQ(cipher_peer.answer(packet(200, "open")), "\x09\x01\xc8open");
    EXPECT_EQ(cipher_peer.answer(server_key.shown(packet(200, "open"))), "\x09\x01\xc8open");

    LogWatch log = server.watch();
    const std::string misshapen = server_key.sealed("some packet") + "x";  // no envelope has such a size
    EXPECT_EQ(cipher_peer.answer(misshapen), "\x09\x01" + misshapen) << "never opened: still enciphered as it came";
    EXPECT_TRUE(log.wait_for("ra_reply: Illegal packet from " + cipher_peer.name() + ", code 165\n"));
}

TEST(NoKeys, WithoutAKeyFile) {
    ServerProcess server({.checkKeys = true});
    TestClient peer(server.port());
    const std::string request = request_datagram(1, look);
    for (const std::string &datagram : {request, server_key.shown(request)}) EXPECT_TRUE(peer.stays_silent(datagram));
    const std::string envelope = server_key.sealed(request);
    EXPECT_EQ(peer.answer(envelope), "\x09\x01" + envelope) << "nothing to open it with";

    const std::string log = server.log();
    EXPECT_NE(log.find(" packet_accesskey_by_ip: Cannot open config file \"" + server.root().path("etc/access.key") +
                       "\" No such file or directory\n"),
              std::string::npos);
    EXPECT_NE(log.find(" RA.LOG raUdpRequest 1 without access key from " + peer.name() + "\n"), std::string::npos);
}

/** The platform's own client at 127.0.0.1 and a server at 127.0.0.2, each with a key of one kind or the other. */
class KeysOfBothSides : public testing::TestWithParam<std::tuple<bool, bool>> {
protected:
    const std::string keys = line("127.0.0.1", cipher_key, std::get<0>(GetParam())) +
                             line("127.0.0.2", server_key, std::get<1>(GetParam()));
};

TEST_P(KeysOfBothSides, ServeAHardenedClient) {
    const KeyedServer server(keys, "127.0.0.2", true);
    const auto raclient = [&](const Strings &words) {
        const Strings command{"raclient", "-HARDEN", "127.0.0.2", std::to_string(server.port())};
        return run_program(joined(command, words), {"VELROOT=" + server.root().path()});
    };
    EXPECT_EQ(raclient(look).output, "0\n0000000f\n");
    const std::string most(31991, 'x');  // and a zero byte
    EXPECT_EQ(raclient({most}).errors, "raclient: Request denied by server.\n");
    EXPECT_EQ(raclient({most, ""}).errors, "raclient: Arguments to long: More than 31992 bytes!\n");
}

TEST_P(KeysOfBothSides, ServeTheBlockingCall) {
    const KeyedServer server(keys, "127.0.0.2");
    const std::string folder = server.root().path();
    Child child([&](Child &self) {
        process_context.rootDir = folder.c_str();
        process_context.running = process_context.silent = 1;
        RA_CLIENT_S *client = raclient_udp_create("127.0.0.2", server.port(), 5, 3);
        for (const Strings &words : {one_visit, look, Strings{std::string(31999, 'x')}}) {
            std::vector<char *> argv;
            for (const std::string &word : words) argv.push_back(const_cast<char *>(word.c_str()));
            const int count = raclient_udp_request(client, static_cast<int>(argv.size()), argv.data());
            const char *last = raclient_result(client, 1);
            self.report(std::to_string(count) + " " + (last != nullptr ? last : raclient_errmsg(client)));
        }
        self.report(std::to_string(client->request[0]) + " " + std::to_string(client->requestLength));
        raclient_udp_destroy(client);
        return 0;
    });
    EXPECT_EQ(child.next_report(), "2 00000010");
    EXPECT_EQ(child.next_report(), "2 00000010");
    EXPECT_EQ(child.next_report(), "-10 Request denied by server.") << "the largest request";
    const bool has_envelope = std::get<1>(GetParam());
    EXPECT_EQ(child.next_report(), has_envelope ? "165 32033" : "164 32024")
        << "with the prefix no envelope takes it";
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(HardenedClient, PassesOverAnAnswerInClear) {
    const KeyedServer server(line("127.0.0.2", server_key, true), "127.0.0.2");  // the client's key isn't listed
    const auto ask = [&](const char *interval, const char *hardened) {
        const Strings command{"raclient", "-i", interval, "-n", "1", "127.0.0.2", std::to_string(server.port())};
        return run_program(joined(command, look), {"VELROOT=" + server.root().path(), hardened});
    };
    EXPECT_EQ(ask("10", "VELHARDEN=0").output, "0\n0000000f\n");
    const ProgramEnd end = ask("1", "VELHARDEN=1");
    EXPECT_EQ(end.code, 4);
    EXPECT_NE(end.errors.find("Hardened, only an answer under a key counts"), std::string::npos) << end.errors;
}

std::string both_kinds(const testing::TestParamInfo<std::tuple<bool, bool>> &side) {
    const auto [client, server] = side.param;
    return std::string(client ? "CipherClient" : "ClearClient") + (server ? "CipherServer" : "ClearServer");
}
INSTANTIATE_TEST_SUITE_P(Keys, KeysOfBothSides, testing::Combine(testing::Bool(), testing::Bool()), both_kinds);

}  // namespace
