/* Asynchronous requests: many open at once, answered, refused, timed out or destroyed, in time that the test gives. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <algorithm>
#include <functional>
#include <map>

#include "process/owned.h"
#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tests/support/accesskey.h"
#include "tests/support/addresses.h"
#include "tests/support/bytes.h"
#include "tests/support/child.h"
#include "tests/support/rootfolder.h"
#include "tests/support/testclient.h"

namespace {

using Callback = std::function<void(RA_REQUEST_S *request, int result)>;
void call(RA_REQUEST_S *request, void *user, int result) { (*static_cast<Callback *>(user))(request, result); }

class AsyncClient : public testing::Test {
protected:
    AsyncClient() {
        process_context.silent = 1;
        process_context.noAccessKeyCheck = 1;
        ra_server = RA_SERVER_S{};
        tick(0);
        client = raClientAdd("127.0.0.1", ntohs(peer.sin_port), 3, 5);
        client->socket = own.get();
    }
    ~AsyncClient() override {
        own.release();  // closed with the client
        while (ra_server.clients.head != nullptr) raClientRemove(ra_server.clients.head);
        ra_server = RA_SERVER_S{};
        process_context = before_;
    }

    void tick(time_t seconds) {
        timeval now{START + seconds, 0};
        raserver_periodic(&ra_server, &now);
    }
    int ask(Strings strings, Callback *callback) {
        std::vector<char *> words;
        for (std::string &text : strings) words.push_back(text.data());
        return raUdpRequest(-1, client, static_cast<int>(words.size()), words.data(),
                            callback != nullptr ? call : nullptr, callback);
    }
    /** What has arrived at the server since the last time. */
    Strings arrived() const {
        Strings datagrams;
        char bytes[40000];
        for (ssize_t length; (length = recv(server.get(), bytes, sizeof bytes, MSG_DONTWAIT)) >= 0;) {
            datagrams.emplace_back(bytes, static_cast<size_t>(length));
        }
        return datagrams;
    }
    static std::string answer(const std::string &request, const Strings &strings, int function = 2, int type = 62) {
        std::string datagram = request_datagram(0, strings, function);
        datagram[0] = static_cast<char>(type);
        return datagram.replace(3, 4, request, 3, 4);
    }
    void deliver(const std::string &datagram, const PacketAddress &from) {
        std::string room = datagram + std::string(65, '\0');
        timeval now{START, 0};
        PacketAddress address = from;
        ra_reply(&ra_server, &now, reinterpret_cast<unsigned char *>(room.data()), static_cast<int>(datagram.size()),
                 &address, sizeof address);
    }
    void deliver(const std::string &datagram) { deliver(datagram, peer); }

    static constexpr time_t START = 1000000000;
    const OwnedFd server{packet_clt_socket_ip(htonl(INADDR_LOOPBACK))};
    OwnedFd own{packet_clt_socket_ip(htonl(INADDR_LOOPBACK))};
    const PacketAddress peer = name_of(server.get());
    RA_CLIENT_S *client;

private:
    const PROCESS_S before_ = process_context;
};

TEST_F(AsyncClient, HasEachOfTwoHundredCallbacksCalledOnce) {
    constexpr size_t OPEN = 200;
    Seeded random;
    const std::string timeout =
        "-7Timeout, raserver 127.0.0.1:" + std::to_string(ntohs(peer.sin_port)) + " does not answer.";
    struct Sent {
        size_t number;
        std::string datagram;
    };
    std::vector<Sent> requests;
    std::map<size_t, Strings> outcomes, expected;  // by request: each callback's result, and the first string
    std::vector<Callback> callbacks;
    callbacks.reserve(OPEN);
    for (size_t number = 0; number < OPEN; ++number) {
        callbacks.emplace_back([&, number](RA_REQUEST_S *request, int result) {
            const char *first = raclient_request_result(request, 0);
            outcomes[number].push_back(std::to_string(result) +
                                       (first != nullptr ? first : raclient_errmsg(request)));
        });
        ASSERT_EQ(ask({std::to_string(number), "x"}, &callbacks[number]), 0);
        const Strings sent = arrived();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].substr(0, 3), (std::string{61, 4, 0}));
        requests.push_back({number, sent[0]});
        // Answered, refused, left to time out, still open at the end of the client.
        const Strings by_kind{"2" + std::to_string(number), "-10Request denied by server.", timeout, "-11"};
        expected[number] = {by_kind[number % 4]};
        if (number % 4 == 3) client->pending.tail->deadline += 100;
    }

    std::shuffle(requests.begin(), requests.end(), random);
    const auto stranger = name_of(own.get());
    for (const auto &[number, request] : requests) {
        deliver(answer(request, {"stranger"}), stranger);
        deliver(answer(request, {"other type"}, 2, 61));
        deliver(answer(request, {"other function"}, 4));
        deliver(answer(request, {}).substr(0, 6));
        for (int copy = 0; copy < 2; ++copy) {
            if (number % 4 == 0) deliver(answer(request, {std::to_string(number), "and more"}));
            if (number % 4 == 1) deliver(answer(request, {}, 3));
        }
    }
    tick(16);
    raClientRemove(client);
    own.release();
    EXPECT_EQ(outcomes, expected);
}

TEST_F(AsyncClient, SendsAgainAfterTheIntervalUntilTheDeadline) {
    Callback ignore = [](RA_REQUEST_S *, int) {};
    EXPECT_EQ(ask({"once"}, nullptr), 0);
    EXPECT_EQ(ask({"more"}, &ignore), 0);
    const Strings sent = arrived();
    ASSERT_EQ(sent.size(), 2U);
    for (const auto &[second, again] : std::map<time_t, bool>{{3, false}, {4, true}, {7, false}, {8, true}}) {
        tick(second);
        EXPECT_EQ(arrived(), again ? sent : Strings{}) << second;
    }
    tick(15);
    EXPECT_EQ(arrived(), sent);
    tick(16);
    EXPECT_EQ(client->pending.head, nullptr) << "also without a callback";
}

TEST_F(AsyncClient, RefusesWhatItCantSend) {
    EXPECT_EQ(ask(Strings(1501, "s"), nullptr), RAERRTOOMANY);
    EXPECT_EQ(ask({std::string(32000, 'x')}, nullptr), RAERRTOOLONG);
    EXPECT_STREQ(raclient_errmsg(client), "Arguments to long: More than 32000 bytes!");
    EXPECT_EQ(client->pending.head, nullptr);
    EXPECT_EQ(raUdpRequest(-1, nullptr, 0, nullptr, nullptr, nullptr), RAERRNOCLIENT);

    EXPECT_EQ(ask({"x"}, nullptr), 0);
    EXPECT_STREQ(raclient_errmsg(client), "");
    RA_REQUEST_S *sent = client->pending.head;
    EXPECT_GT(static_cast<int32_t>(sent->sequence), 9) << "drawn with a lent socket, too";
    RA_CLIENT_S *other = raClientAdd("127.0.0.1", 9, 3, 5);
    raclient_request_delete(other, sent);
    EXPECT_EQ(client->pending.head, sent) << "not the other's to delete";
    EXPECT_EQ(raUdpRequest(own.get(), other, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(other->socket, -1) << "a socket that is given only keeps it from opening one";
}

TEST_F(AsyncClient, HardenedPassesOverAnswersInClear) {
    const AccessKey key("abcdefghijklmnopponmlkjihgfedcba");
    const RootFolder root;
    root.write("etc/access.key", "127.0.0.1 encrypt " + key.text() + "\n");
    Child child([&](Child &self) {  // keys are read once in a process
        process_context.rootDir = root.path().c_str();
        process_context.noAccessKeyCheck = 0;
        process_context.hardened = 1;
        Callback report = [&](RA_REQUEST_S *, int result) { self.report(std::to_string(result)); };
        ask({"x"}, &report);
        const std::string request = request_datagram(client->pending.head->sequence, {"x"}, 4);
        const bool has_prefix = key.opened(arrived().at(0)) == key.shown(request);
        for (const auto &[function, is_under_a_key] : {std::pair(3, 0), {2, 0}, {2, 1}}) {
            keyAccepted = is_under_a_key;
            deliver(answer(request, {"0", "y"}, function));
        }
        return has_prefix ? 0 : 1;
    });
    EXPECT_EQ(child.next_report(), "2");
    EXPECT_EQ(child.exit_code(), 0) << "the envelope holds the key in front of the request";
}

#if !defined(__SANITIZE_ADDRESS__)  // its own memory does not fit under the limit
TEST_F(AsyncClient, TellsThatMemoryIsShort) {
    Child child([this](Child &self) {
        const rlimit limit{1 << 28, 1 << 28};
        setrlimit(RLIMIT_AS, &limit);
        int result = 0;
        while (result == 0) result = ask({"x"}, nullptr);
        self.report(std::to_string(result) + raclient_errmsg(client));
        return ask({"x"}, nullptr) == RAERRMEM ? 0 : 1;
    });
    EXPECT_EQ(child.next_report(), "-8Failed to malloc " + std::to_string(sizeof(RA_REQUEST_S)) +
                                       " bytes! error: Cannot allocate memory!");
    EXPECT_EQ(child.exit_code(), 0);
}
#endif

/** What a callback may do to what it is about, whatever ended its request. */
TEST_F(AsyncClient, SurvivesWhatCallbacksDo) {
    const std::map<std::string, Callback> deeds{
        {"destroy the client", [&](RA_REQUEST_S *, int) { raclient_udp_destroy(client); }},
        {"remove the client", [&](RA_REQUEST_S *request, int) { raClientRemove(request->client); }},
        {"destroy the request", [&](RA_REQUEST_S *request, int) { raclient_udp_destroy(request); }},
        {"delete the request", [&](RA_REQUEST_S *request, int) { raclient_request_delete(client, request); }},
        {"destroy the next", [&](RA_REQUEST_S *request, int) { raclient_udp_destroy(request->next); }},
        {"destroy the one before", [&](RA_REQUEST_S *request, int) { raclient_udp_destroy(request->previous); }},
        {"ask once more", [&](RA_REQUEST_S *request, int) { raUdpRequest(-1, request->client, 0, nullptr, {}, {}); }},
    };
    const std::map<std::string, std::function<void(const std::string &)>> ends{
        {"an answer", [&](const std::string &request) { deliver(answer(request, {"0"})); }},
        {"a refusal", [&](const std::string &request) { deliver(answer(request, {}, 3)); }},
        {"a time-out", [&](const std::string &) { tick(1000); }},
        {"the client's end", [&](const std::string &) { raClientRemove(client); }},
    };
    ask({"other"}, nullptr);  // of a client of the same server, in front of those that the answers are for
    for (const auto &[deed, callback] : deeds) {
        for (const auto &[end, work] : ends) {
            tick(0);
            arrived();
            client = raClientAdd("127.0.0.1", ntohs(peer.sin_port), 3, 5);
            int calls = 0;
            Callback counted = [&, act = callback](RA_REQUEST_S *request, int result) {
                calls++;
                act(request, result);
            };
            Callback none = [](RA_REQUEST_S *, int) {};
            ask({"before"}, &none);
            ask({"it"}, &counted);
            ask({"behind"}, &none);
            const Strings sent = arrived();
            ASSERT_EQ(sent.size(), 3U);
            work(sent[1]);
            EXPECT_EQ(calls, 1) << deed << " at " << end;
            if (ra_server.clients.tail == client && client != ra_server.clients.head) raClientRemove(client);
        }
    }
}

}  // namespace
