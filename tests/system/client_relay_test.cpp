/* The client library under loss: clients and the real server with a relay between them that loses, doubles and reorders.
 * Each request adds 1 to one counter, so the counter tells how many were carried out. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <chrono>
#include <map>
#include <memory>
#include <sstream>

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

OwnedFd loopback_socket() { return OwnedFd(packet_clt_socket_ip(htonl(INADDR_LOOPBACK))); }

/** Stands between clients and the server, in a process of its own. Each client has a socket of its own towards the
 *  server, as it would have without the relay. */
class Relay {
public:
    Relay(uint16_t server_port, const Badness &badness, Seeded &random)
        : badness_(badness), random_(random), server_(name_of(front_.get())), child_([=, this](Child &) {
              server_.sin_port = htons(server_port);
              for (;;) turn();
              return 0;
          }) {}
    uint16_t port() const { return port_of(front_.get()); }

private:
    struct Peer {
        OwnedFd back = loopback_socket();
        std::unique_ptr<BadLine> there, here;
    };

    static void send(int socket, const std::string &datagram, const PacketAddress &to) {
        sendto(socket, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    }
    static long milliseconds() {
        return static_cast<long>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1));
    }
    Peer &peer_at(const PacketAddress &address) {
        Peer &peer = peers_[address.sin_port];
        if (peer.there != nullptr) return peer;
        const int back = peer.back.get();
        peer.there = std::make_unique<BadLine>(badness_, random_, [=, this](auto &it) { send(back, it, server_); });
        peer.here =
            std::make_unique<BadLine>(badness_, random_, [=, this](auto &it) { send(front_.get(), it, address); });
        return peer;
    }
    void turn() {
        std::vector<pollfd> sources{{front_.get(), POLLIN, 0}};
        for (const auto &[port, peer] : peers_) sources.push_back({peer.back.get(), POLLIN, 0});
        poll(sources.data(), sources.size(), 5);

        const long now = milliseconds();
        drain(front_.get(), [&](const std::string &datagram, const PacketAddress &from) {
            peer_at(from).there->take(now, datagram);
        });
        for (auto &[port, peer] : peers_) {
            drain(peer.back.get(), [&, here = peer.here.get()](const std::string &datagram, const PacketAddress &) {
                here->take(now, datagram);
            });
            peer.there->release(now);
            peer.here->release(now);
        }
    }

    const Badness badness_;
    Seeded &random_;
    const OwnedFd front_ = loopback_socket();
    PacketAddress server_;
    std::map<uint16_t, Peer> peers_;  // by the client's port
    Child child_;
};

struct Outcome {
    int acknowledged = 0, timed_out = 0, strange = 0;

    void count(int result, const char *status) {
        const bool is_done = result == 2 && std::string(status) == "0";
        (is_done ? acknowledged : result == RAERRTIMEOUT ? timed_out : strange)++;
    }
    std::string text() const {
        return std::to_string(acknowledged) + " " + std::to_string(timed_out) + " " + std::to_string(strange);
    }
    void add(const std::string &line) {
        Outcome other;
        std::istringstream(line) >> other.acknowledged >> other.timed_out >> other.strange;
        acknowledged += other.acknowledged;
        timed_out += other.timed_out;
        strange += other.strange;
    }
};

char *words[] = {const_cast<char *>("DB"), const_cast<char *>("A"), const_cast<char *>("T"), const_cast<char *>("ID"),
                 const_cast<char *>("1"),  const_cast<char *>("N"), const_cast<char *>("1")};
constexpr int WORDS = std::size(words);

void become_a_client() {
    process_context.running = 1;
    process_context.silent = 1;
    process_context.noAccessKeyCheck = 1;
}

class ClientUnderLoss : public testing::Test {
protected:
    ServerProcess server{{.databaseOptions = "?synchronous=normal"}};
    Seeded random;
    Outcome outcome;

    ClientUnderLoss() {
        server.sql(
            "CREATE TABLE T (ID VARCHAR2(5) PRIMARY KEY, N VARCHAR2(8)); INSERT INTO T VALUES ('1', '00000000')");
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

/** What of the requests of a process that runs the RA loop is open, and what became of the others. */
struct OpenRequests {
    static constexpr int AT_ONCE = 400;
    RA_CLIENT_S *client = nullptr;
    int sent = 0;
    Outcome outcome;
    std::vector<int> answers = std::vector<int>(UPDATES);  // callbacks, by request

    int ended() const { return outcome.acknowledged + outcome.timed_out + outcome.strange; }
} open_requests;

void take_result(RA_REQUEST_S *request, void *user, int result) {
    ++*static_cast<int *>(user);
    open_requests.outcome.count(result, result > 0 ? raclient_request_result(request, 0) : "");
}

void send_more(void *context, timeval *now) {
    raserver_periodic(context, now);
    OpenRequests &all = open_requests;
    while (all.sent < UPDATES && all.sent - all.ended() < OpenRequests::AT_ONCE) {
        raUdpRequest(-1, all.client, WORDS, words, take_result, &all.answers[static_cast<size_t>(all.sent)]);
        ++all.sent;
    }
    if (all.ended() == UPDATES) process_context.running = 0;
}

TEST_F(ClientUnderLoss, HasEachBlockingRequestCarriedOutOnce) {
    constexpr int CLIENTS = 100;
    const Relay relay(server.port(), {.lost = 3, .doubled = 10, .held = 0, .longest_hold = 0}, random);
    std::vector<std::unique_ptr<Child>> children;
    children.reserve(CLIENTS);
    for (int number = 0; number < CLIENTS; ++number) {
        children.push_back(std::make_unique<Child>([&](Child &self) {
            become_a_client();
            RA_CLIENT_S *client = raclient_udp_create("127.0.0.1", relay.port(), 1, 2);
            Outcome own;
            for (int update = 0; update < UPDATES / CLIENTS; ++update) {
                const int result = raclient_udp_request(client, WORDS, words);
                own.count(result, result > 0 ? raclient_result(client, 0) : "");
            }
            self.report(own.text());
            return 0;
        }));
    }
    for (const auto &child : children) outcome.add(child->next_report(std::chrono::seconds(100)));
    check();
}

TEST_F(ClientUnderLoss, HasEachAsynchronousRequestCarriedOutOnceInAnyOrder) {
    const Relay relay(server.port(), {.lost = 6, .doubled = 10, .held = 20, .longest_hold = 300}, random);
    Child child([&](Child &self) {
        become_a_client();
        OpenRequests &all = open_requests;
        all.client = raClientAdd("127.0.0.1", relay.port(), 1, 4);
        all.client->socket = packet_clt_socket_ip(htonl(INADDR_LOOPBACK));
        timeval tick{0, 20000};
        raConnRun(&ra_server, all.client->socket, &tick, nullptr, nullptr, nullptr, send_more, ra_reply, nullptr,
                  nullptr, nullptr);
        self.report(all.outcome.text());
        for (const int times : all.answers) {
            if (times != 1) return 1;
        }
        return 0;
    });
    outcome.add(child.next_report(std::chrono::seconds(100)));
    EXPECT_EQ(child.exit_code(), 0) << "each callback comes once";
    check();
}

}  // namespace
