/* The test client: plain socket calls, deadlines instead of fixed waits. */
#include "tests/support/testclient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstring>

#include "tests/support/addresses.h"

namespace {
constexpr size_t HEADER = 7;

std::string ping_of(uint32_t number) { return "\x97" + std::to_string(number); }
std::string pong_of(uint32_t number) { return "\x98" + std::to_string(number); }
}  // namespace

std::string request_datagram(uint32_t sequence, const Strings &strings, int function) {
    std::string datagram{61, static_cast<char>(function), 0};
    datagram.append(reinterpret_cast<const char *>(&sequence), sizeof sequence);
    for (const std::string &text : strings) datagram.append(text).push_back('\0');
    return datagram;
}

Strings reply_strings(const std::string &datagram) {
    Strings strings;
    size_t at = HEADER;
    while (at < datagram.size()) {
        const size_t end = std::min(datagram.find('\0', at), datagram.size());
        strings.push_back(datagram.substr(at, end - at));
        at = end + 1;
    }
    return strings;
}

TestClient::TestClient(uint16_t port, const char *host, const char *from)
    : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (from != nullptr) {
        const sockaddr_in own = address_of(from, 0);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&own), sizeof own), 0) << strerror(errno);
    }
    const sockaddr_in server = address_of(host, port);
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr *>(&server), sizeof server), 0) << strerror(errno);
}

TestClient::~TestClient() { close(socket_); }

void TestClient::send(const std::string &datagram) {
    // A refused port shows here once and clears the socket's error: the second try then really sends.
    for (int tries = 0; tries < 2; ++tries)
        if (::send(socket_, datagram.data(), datagram.size(), 0) >= 0) return;
}

std::optional<std::string> TestClient::receive(std::chrono::milliseconds deadline) {
    pollfd waited{socket_, POLLIN, 0};
    if (poll(&waited, 1, static_cast<int>(deadline.count())) <= 0) return std::nullopt;
    std::string datagram(65536, '\0');
    const ssize_t length = recv(socket_, datagram.data(), datagram.size(), 0);
    if (length < 0) return std::nullopt;
    datagram.resize(static_cast<size_t>(length));
    return datagram;
}

std::string TestClient::answer(const std::string &datagram) {
    send(datagram);
    return receive().value_or("");
}

Reply TestClient::ask(uint32_t sequence, const Strings &strings, int function) {
    const std::string request = request_datagram(sequence, strings, function);
    Reply reply;
    reply.datagram = answer(request);
    EXPECT_GE(reply.datagram.size(), HEADER) << "no reply to " << testing::PrintToString(strings);
    EXPECT_EQ(reply.datagram.compare(0, HEADER, reply.datagram.substr(0, 2) + request.substr(2, 5)), 0)
        << "not the reply to this request";
    reply.strings = reply_strings(reply.datagram);
    return reply;
}

std::optional<Strings> TestClient::try_ask(const Strings &strings) {
    const std::string request = request_datagram(next_++, strings);
    send(request);
    const std::optional<std::string> reply = receive(std::chrono::seconds(1));
    if (!reply || reply->size() < HEADER) return std::nullopt;
    return reply_strings(*reply);
}

bool TestClient::stays_silent(const std::string &datagram) {
    send(datagram);
    const uint32_t number = next_++;
    return answer(ping_of(number)) == pong_of(number);
}

bool TestClient::is_served() {
    const uint32_t number = next_++;
    send(ping_of(number));
    std::optional<std::string> datagram;
    do {
        datagram = receive();
    } while (datagram && *datagram != pong_of(number));
    return datagram.has_value();
}

std::string TestClient::name() const {
    const sockaddr_in own = name_of(socket_);
    char quad[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &own.sin_addr, quad, sizeof quad);
    return std::string(quad) + ":" + std::to_string(ntohs(own.sin_port));
}
