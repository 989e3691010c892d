/* The client library under loss: clients and the real server with a relay between them that loses, doubles and reorders.
 * Each request adds 1 to one counter, so the counter tells how many were carried out. */
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <atomic>
#include <chrono>
#include <memory>

#include "process/owned.h"
#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tests/support/addresses.h"
#include "tests/support/badline.h"
#include "tests/support/bytes.h"
#include "tests/support/child.h"
#include "tests/support/serverprocess.h"

namespace {

constexpr int UPDATES = 5000;
constexpr auto PATIENCE = std::chrono::seconds(100);

OwnedFd loopback_socket() { return OwnedFd(packet_clt_socket_ip(htonl(INADDR_LOOPBACK))); }

/** Stands between clients and the server, in a process of its own. Each client has a port of it for itself, and a socket
 *  of its own towards the server, as it would have without the relay. */
class Relay {
public:
    Relay(uint16_t server_port, size_t clients, const Badness &badness, Seeded &random) : peers_(clients) {
        for (Peer &peer : peers_) {
            peer.there = std::make_unique<BadLine>(
                badness, random, [&peer, server = address_of("127.0.0.1", server_port)](const std::string &datagram) {
                    send_to(peer.back.get(), datagram, server);
                });
            peer.here = std::make_unique<BadLine>(badness, random, [&peer](const std::string &datagram) {
                send_to(peer.front.get(), datagram, peer.client);
            });
        }
        child_ = std::make_unique<Child>([this](Child &) {
            for (;;) turn();
            return 0;
        });
    }
    uint16_t port_for(size_t client) const { return port_of(peers_[client].front.get()); }

private:
    struct Peer {
        OwnedFd front = loopback_socket(), back = loopback_socket();
        sockaddr_in client{};
        std::unique_ptr<BadLine> there, here;
    };

    void turn() {
        std::vector<pollfd> sources;
        for (const Peer &peer : peers_) {
            for (const OwnedFd *socket : {&peer.front, &peer.back}) sources.push_back({socket->get(), POLLIN, 0});
        }
        poll(sources.data(), sources.size(), 5);
        const auto now =
            static_cast<long>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1));
        for (Peer &peer : peers_) {
            drain(peer.front.get(), [&](const std::string &datagram, const sockaddr_in &from) {
                peer.client = from;
                peer.there->take(now, datagram);
            });
            drain(peer.back.get(),
                  [&](const std::string &datagram, const sockaddr_in &) { peer.here->take(now, datagram); });
            peer.there->release(now);
            peer.here->release(now);
        }
    }

    std::vector<Peer> peers_;
    std::unique_ptr<Child> child_;
};

/** What became of the requests, counted by all processes of a test. */
struct Outcome {
    std::atomic<int> acknowledged, timed_out, strange;

    static Outcome &shared() {
        return *new (mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
            Outcome{};
    }
    void count(int result, const char *status) {
        const bool is_done = result == 2 && std::string(status) == "0";
        (is_done ? acknowledged : result == RAERRTIMEOUT ? timed_out : strange)++;
    }
    int ended() const { return acknowledged + timed_out + strange; }
};

char *words[] = {const_cast<char *>("DB"), const_cast<char *>("A"), const_cast<char *>("T"), const_cast<char *>("ID"),
                 const_cast<char *>("1"),  const_cast<char *>("N"), const_cast<char *>("1")};
constexpr int WORDS = std::size(words);

class ClientUnderLoss : public testing::Test {
protected:
    ServerProcess server{{.databaseOptions = "?synchronous=normal"}};
    Seeded random;
    Outcome &outcome = Outcome::shared();

    ClientUnderLoss() {
        server.sql(
            "CREATE TABLE T (ID VARCHAR2(5) PRIMARY KEY, N VARCHAR2(8)); INSERT INTO T VALUES ('1', '00000000')");
    }
    ~ClientUnderLoss() override { munmap(&outcome, sizeof outcome); }

    static void become_a_client() {
        process_context.running = 1;
        process_context.silent = 1;
        process_context.noAccessKeyCheck = 1;
    }
    void check() {
        const auto counter = static_cast<int>(std::stoul(server.value("SELECT N FROM T"), nullptr, 16));
        EXPECT_EQ(outcome.acknowledged + outcome.timed_out, UPDATES);
        EXPECT_EQ(outcome.strange, 0);
        EXPECT_GE(counter, outcome.acknowledged);
        EXPECT_LE(counter, outcome.acknowledged + outcome.timed_out);
        EXPECT_LT(outcome.timed_out, UPDATES / 50);
    }
};

TEST_F(ClientUnderLoss, HasEachBlockingRequestCarriedOutOnce) {
    constexpr size_t CLIENTS = 100;
    const Relay relay(server.port(), CLIENTS, {.lost = 3, .doubled = 10, .held = 0, .longest_hold = 0}, random);
    std::vector<std::unique_ptr<Child>> children;
    for (size_t number = 0; number < CLIENTS; ++number) {
        children.push_back(std::make_unique<Child>([&](Child &) {
            become_a_client();
            RA_CLIENT_S *client = raclient_udp_create("127.0.0.1", relay.port_for(number), 1, 2);
            for (size_t update = 0; update < UPDATES / CLIENTS; ++update) {
                const int result = raclient_udp_request(client, WORDS, words);
                outcome.count(result, result > 0 ? raclient_result(client, 0) : "");
            }
            return 0;
        }));
    }
    for (const auto &child : children) EXPECT_EQ(child->exit_code(PATIENCE), 0);
    check();
}

/** The requests of a process that runs the RA loop. */
struct OpenRequests {
    static constexpr int AT_ONCE = 400;
    RA_CLIENT_S *client = nullptr;
    Outcome *outcome = nullptr;
    int sent = 0;
    std::vector<int> answers = std::vector<int>(UPDATES);  // callbacks, by request
} open_requests;

void take_result(RA_REQUEST_S *request, void *user, int result) {
    ++*static_cast<int *>(user);
    open_requests.outcome->count(result, result > 0 ? raclient_request_result(request, 0) : "");
}

void send_more(void *context, timeval *now) {
    raserver_periodic(context, now);
    OpenRequests &all = open_requests;
    for (; all.sent < UPDATES && all.sent - all.outcome->ended() < OpenRequests::AT_ONCE; ++all.sent) {
        raUdpRequest(-1, all.client, WORDS, words, take_result, &all.answers[static_cast<size_t>(all.sent)]);
    }
    if (all.outcome->ended() == UPDATES) process_context.running = 0;
}

TEST_F(ClientUnderLoss, HasEachAsynchronousRequestCarriedOutOnceInAnyOrder) {
    const Relay relay(server.port(), 1, {.lost = 6, .doubled = 10, .held = 20, .longest_hold = 300}, random);
    Child child([&](Child &) {
        become_a_client();
        OpenRequests &all = open_requests;
        all.outcome = &outcome;
        all.client = raClientAdd("127.0.0.1", relay.port_for(0), 1, 4);
        all.client->socket = packet_clt_socket_ip(htonl(INADDR_LOOPBACK));
        timeval tick{0, 20000};
        raConnRun(&ra_server, all.client->socket, &tick, nullptr, nullptr, nullptr, send_more, ra_reply, nullptr,
                  nullptr, nullptr);
        return all.answers == std::vector<int>(UPDATES, 1) ? 0 : 1;
    });
    EXPECT_EQ(child.exit_code(PATIENCE), 0) << "each callback comes once";
    check();
}

}  // namespace
