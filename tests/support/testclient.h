/* A client that a test holds in its hand: one UDP socket, datagrams as they go over the wire.
 *
 * It knows the layout of requests and replies from the outside and shares no code with the library's own client, so
 * that a fault in one does not hide behind the same fault in the other. */
#ifndef TESTS_SUPPORT_TESTCLIENT_H
#define TESTS_SUPPORT_TESTCLIENT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

using Strings = std::vector<std::string>;

inline Strings joined(Strings words, const Strings &more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/** What came back for a request. */
struct Reply {
    std::string datagram;  // empty: nothing came
    Strings strings;

    int type() const { return byte(0); }
    int function() const { return byte(1); }
    bool refused() const { return function() == 3 && datagram.size() == 7; }

private:
    int byte(size_t at) const { return at < datagram.size() ? static_cast<unsigned char>(datagram[at]) : -1; }
};

/** The datagram of a request: header, then each string with its zero byte. */
std::string request_datagram(uint32_t sequence, const Strings &strings, int function = 1);

/** The part of a reply behind its header, string by string. */
Strings reply_strings(const std::string &datagram);

class TestClient {
public:
    /** Sends to the server at `host`; from the address `from` if that is given, any address of 127.0.0.0/8. */
    explicit TestClient(uint16_t port, const char *host = "127.0.0.1", const char *from = nullptr);
    ~TestClient();
    TestClient(const TestClient &) = delete;
    TestClient &operator=(const TestClient &) = delete;

    /** Sends a request and waits for its reply. No reply is a failure of the test, unless the server may be gone. */
    Reply ask(uint32_t sequence, const Strings &strings, int function = 1);

    /** The strings of the reply, under a new sequence number. A refusal has none. */
    Strings ask(const Strings &strings) { return ask(next_++, strings).strings; }

    /** As above, but a server that does not answer, or is gone, is no failure. */
    std::optional<Strings> try_ask(const Strings &strings);

    void send(const std::string &datagram);
    std::optional<std::string> receive(std::chrono::milliseconds deadline = std::chrono::seconds(20));

    /** Sends a datagram, then a ping: whether the pong is the first that comes back. */
    bool stays_silent(const std::string &datagram);

    /** Sends a ping and passes over all that comes before its pong: whether that came. */
    bool is_served();

    /** The answer to one datagram; empty if none came. */
    std::string answer(const std::string &datagram);

    /** Address and port as the server sees them: "127.0.0.2:40000". */
    std::string name() const;

private:
    int socket_;
    uint32_t next_ = 1000;
};

#endif
