/* The client library's blocking request, against a server that answers as each test tells it. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <errno.h>
#include <string.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "process/owned.h"
#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tests/support/addresses.h"
#include "tests/support/child.h"

namespace {
bool stops_at_the_end = false;
}

/** Stands in front of the system's own: the client holds signals back while it ends its wait, and the test lets one
 *  come just then. */
extern "C" int pthread_sigmask(int how, const sigset_t *set, sigset_t *before) noexcept {
    const int result = sigprocmask(how, set, before);
    if (how == SIG_BLOCK && stops_at_the_end) raise(SIGUSR1);
    return result;
}

namespace {

using Strings = std::vector<std::string>;
using namespace std::string_literals;

std::string repeat(int count, char character) { return std::string(static_cast<size_t>(count), character); }

std::string joined(const Strings &strings) {
    std::string all;
    for (const std::string &text : strings) all += text + '\0';
    return all;
}

/** A datagram under the sequence number of the request that it answers. */
std::string answer(const std::string &request, const std::string &strings, int function = RA_FUNCTION_RESULT,
                   int type = 61) {
    return std::string{static_cast<char>(type), static_cast<char>(function), '\0'} + request.substr(3, 4) + strings;
}

/** Serves on a port of its own, in a thread that leaves the library alone, until the test ends it. */
class FakeServer {
public:
    using Work = std::function<void(const FakeServer &self, const std::string &request, int number)>;

    explicit FakeServer(Work work)
        : work_(std::move(work)),
          own_(loopback_socket()),
          strangers_{loopback_socket(), loopback_socket("127.0.0.2", port())} {
        const timeval often{0, 20000};
        setsockopt(own_.get(), SOL_SOCKET, SO_RCVTIMEO, &often, sizeof often);
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeServer() { stop(); }

    uint16_t port() const { return port_of(own_.get()); }
    /** Ends the thread and gives all datagrams that came. */
    const Strings &stop() {
        stopping_ = true;
        if (thread_.joinable()) thread_.join();
        return seen_;
    }
    void reply(const std::string &datagram) const { send_to(own_.get(), datagram, peer_); }
    /** From another port of this address, and from this port of another address. */
    void reply_as_strangers(const std::string &datagram) const {
        for (const OwnedFd &stranger : strangers_) send_to(stranger.get(), datagram, peer_);
    }

private:
    static OwnedFd loopback_socket(const char *ip = "127.0.0.1", uint16_t port = 0) {
        OwnedFd made(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = address_of(ip, port);
        if (bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) abort();
        return made;
    }
    void serve() {
        std::vector<char> buffer(65536);
        while (!stopping_) {
            socklen_t size = sizeof peer_;
            const ssize_t got =
                recvfrom(own_.get(), buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&peer_), &size);
            if (got < 0) continue;
            seen_.emplace_back(buffer.data(), static_cast<size_t>(got));
            work_(*this, seen_.back(), static_cast<int>(seen_.size()));
        }
    }
    Work work_;
    OwnedFd own_, strangers_[2];
    sockaddr_in peer_{};
    Strings seen_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

class Client : public testing::Test {
protected:
    Client() {
        process_context.running = 1;
        process_context.noAccessKeyCheck = 1;  // else the keys would be read, which is done once in a process
    }
    ~Client() override {
        raclient_udp_destroy(client);
        process_context = before_;
        signal(SIGUSR1, SIG_DFL);
    }
    RA_CLIENT_S *client = nullptr;

    void connect_to(const FakeServer &server, int interval = 10, int tries = 2) {
        client = raclient_udp_create("127.0.0.1", server.port(), interval, tries);
    }
    int ask(Strings strings) {
        std::vector<char *> vector;
        for (std::string &text : strings) vector.push_back(text.data());
        vector.push_back(nullptr);
        return raclient_udp_request(client, static_cast<int>(strings.size()), vector.data());
    }
    void stop_at_a_signal() {
        struct sigaction action {};
        action.sa_handler = [](int) { process_context.running = 0; };
        sigaction(SIGUSR1, &action, nullptr);
    }
    Strings results() const {
        Strings all;
        for (int i = 0; raclient_result(client, i) != nullptr; i++) all.emplace_back(raclient_result(client, i));
        return all;
    }

private:
    const PROCESS_S before_ = process_context;
};

void echo(const FakeServer &self, const std::string &request, int) { self.reply(answer(request, request.substr(7))); }

TEST_F(Client, SendsItsStringsAndTakesTheAnswer) {
    FakeServer server(echo);
    connect_to(server);
    EXPECT_EQ(ask({"DB", "", "two words"}), 3);
    EXPECT_EQ(results(), (Strings{"DB", "", "two words"}));
    EXPECT_EQ(raclient_result(client, -1), nullptr);
    EXPECT_STREQ(raclient_errmsg(client), "");
    EXPECT_EQ(process_context.running, 1) << "the caller's loop is to go on";
    process_context.hardened = 1;
    EXPECT_EQ(ask({}), 0) << "hardened, without a key of the server's it is as before";
    process_context.hardened = 0;
    EXPECT_EQ(results(), Strings{});

    const Strings sent = server.stop();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].substr(0, 3), "\x3d\x01\0"s);
    EXPECT_EQ(sent[0].substr(7), "DB\0\0two words\0"s);
    uint32_t first, second;
    memcpy(&first, sent[0].data() + 3, 4);
    memcpy(&second, sent[1].data() + 3, 4);
    EXPECT_EQ(second, first + 1);
    EXPECT_GE(static_cast<int32_t>(first), 1) << "drawn, and not negative";
    const int socket = client->socket;
    raclient_udp_destroy(std::exchange(client, nullptr));
    EXPECT_EQ(fcntl(socket, F_GETFD), -1) << "closed with its client";
}

TEST_F(Client, TakesAnswersOfEveryForm) {
    struct Row {
        std::string strings;
        int count;
        Strings shown;  // only checked for short ones
    };
    const Row rows[] = {
        {"a\0\0b"s, 3, {"a", "", "b"}},
        {"\0\0"s, 2, {"", ""}},
        {joined(Strings(1501, "x")), 1500, {}},
        {repeat(31998, 'y') + '\0', 1, {repeat(31998, 'y')}},
    };
    FakeServer server([&](const FakeServer &self, const std::string &request, int number) {
        self.reply(answer(request, rows[number - 1].strings));
    });
    connect_to(server);
    for (const Row &row : rows) {
        EXPECT_EQ(ask({"x"}), row.count);
        if (!row.shown.empty()) {
            EXPECT_EQ(results(), row.shown);
        }
        EXPECT_EQ(raclient_result(client, row.count), nullptr);
    }
}

TEST_F(Client, HoldsItsLimits) {
    FakeServer server(echo);
    connect_to(server);
    EXPECT_EQ(ask(Strings(1500, "s")), 1500);
    EXPECT_EQ(ask(Strings(1501, "s")), RAERRTOOMANY);
    EXPECT_STREQ(raclient_errmsg(client), "Too many arguments: 1501!");
    EXPECT_EQ(raclient_result(client, 0), nullptr);
    EXPECT_EQ(ask({repeat(15999, 'a'), repeat(15999, 'b')}), 2);
    EXPECT_EQ(ask({repeat(15999, 'a'), repeat(16000, 'b')}), RAERRTOOLONG);
    EXPECT_STREQ(raclient_errmsg(client), "Arguments to long: More than 32000 bytes!");
    EXPECT_EQ(ask({repeat(40000, 'a')}), RAERRTOOLONG);

    std::string a = "a", far = repeat(40000, 'f');
    char *ended[] = {a.data(), nullptr, far.data()};
    EXPECT_EQ(raclient_udp_request(client, 3, ended), 1) << "a null ends the list";
    EXPECT_EQ(results(), Strings{"a"});
    EXPECT_STREQ(raclient_errmsg(client), "") << "the text of the last failure is gone";
    EXPECT_EQ(server.stop().size(), 3U) << "what is refused is not sent";
}

TEST_F(Client, TellsARefusal) {
    FakeServer server([](const FakeServer &self, const std::string &request, int number) {
        self.reply(answer(request, "x\0"s, number == 1 ? RA_FUNCTION_RESULT : RA_FUNCTION_REFUSED));
    });
    connect_to(server);
    client->sequence = UINT32_MAX;  // a program's own number stays, and the next one is 0
    EXPECT_EQ(ask({"x"}), 1);
    EXPECT_EQ(client->sequence, 0U);
    EXPECT_EQ(ask({"x"}), RAERRDENIED);
    EXPECT_STREQ(raclient_errmsg(client), "Request denied by server.");
    EXPECT_EQ(raclient_result(client, 0), nullptr);
    EXPECT_EQ(process_context.running, 1);
}

TEST_F(Client, PassesOverWhatIsNoAnswerAndSendsAgain) {
    FakeServer server([](const FakeServer &self, const std::string &request, int number) {
        const std::string wrong = "wrong\0"s;
        std::string later = request, before = request;
        later[3]++;
        before[3]--;
        if (number == 1) {
            for (const std::string &other : {later, before}) self.reply(answer(other, wrong));
            self.reply(answer(request, wrong, RA_FUNCTION_RESULT, 62));
            for (const int function : std::initializer_list<int>{0, RA_FUNCTION_SYNC, RA_FUNCTION_ASYNC}) {
                self.reply(answer(request, wrong, function));
            }
            for (const size_t length : {0, 1, 2, 6}) self.reply(answer(request, "").substr(0, length));
            self.reply_as_strangers(answer(request, wrong));
            self.reply_as_strangers(answer(request, wrong, RA_FUNCTION_REFUSED));
        } else {
            self.reply(answer(request, "right\0"s));
        }
    });
    connect_to(server, 1, 5);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ask({"x"}), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
    EXPECT_EQ(results(), Strings{"right"});
    const Strings sent = server.stop();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0], sent[1]) << "the same request under the same number";
}

TEST_F(Client, GivesUpInTimeAndIgnoresTheLateAnswer) {
    FakeServer server([first = ""s](const FakeServer &self, const std::string &request, int number) mutable {
        if (first.empty()) first = request;
        if (request == first) return;
        EXPECT_GT(number, 1);
        self.reply(answer(first, "late\0"s));
        self.reply(answer(request, "in time\0"s));
    });
    connect_to(server, 1, 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ask({"x"}), RAERRTIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(950));
    EXPECT_LT(waited, std::chrono::seconds(4));
    EXPECT_EQ(raclient_errmsg(client),
              "Timeout, raserver 127.0.0.1:" + std::to_string(server.port()) + " does not answer.");
    EXPECT_EQ(ask({"y"}), 1);
    EXPECT_EQ(results(), Strings{"in time"});
}

TEST_F(Client, StopsWithItsProcess) {
    stop_at_a_signal();
    const pthread_t waiting = pthread_self();
    FakeServer server([&](const FakeServer &, const std::string &, int) { pthread_kill(waiting, SIGUSR1); });
    connect_to(server, 2, 5);
    for (const char *when : {"while it waits", "before it begins"}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ask({"x"}), RAERRKILLED) << when;
        EXPECT_STREQ(raclient_errmsg(client), "The process has been killed!") << when;
        EXPECT_EQ(process_context.running, 0) << when;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900)) << when;
    }
    EXPECT_EQ(server.stop().size(), 1U);
}

TEST_F(Client, AStopThatMeetsTheAnswerIsNotLost) {
    stop_at_a_signal();
    FakeServer server(echo);
    connect_to(server);
    stops_at_the_end = true;
    EXPECT_EQ(ask({"x"}), 1);
    stops_at_the_end = false;
    EXPECT_EQ(process_context.running, 0);
    EXPECT_EQ(ask({"x"}), RAERRKILLED);
}

TEST_F(Client, TellsWhyItCantBegin) {
    Child child([this](Child &self) {
        const std::string unknown = repeat(3000, 'x');  // longer than the text of an error may be
        process_context.silent = 1;
        client = raclient_udp_create(unknown.c_str(), 1, 1, 1);
        const int no_host = ask({"x"});
        self.report(std::to_string(no_host) + std::string(raclient_errmsg(client)).substr(0, 20) +
                    std::to_string(strlen(raclient_errmsg(client))));
        raclient_udp_destroy(client);

        client = raclient_udp_create("127.0.0.1", 1, 1, 1);
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        const int no_socket = ask({"x"});
        self.report(std::to_string(no_socket) + raclient_errmsg(client));
        return 0;
    });
    EXPECT_EQ(child.next_report(), std::to_string(RAERRHOST) + "gethostbyname(xxxxxx1023");
    EXPECT_EQ(child.next_report(),
              std::to_string(RAERRSOCKET) + "Failed to get client socket! error: Too many open files!");
}

/** A script that comes in pieces: "" stands for an interruption, "stop" for one because the process is to stop. */
OwnedFile script_of(Strings &pieces) {
    const auto read = [](void *pieces_left, char *buffer, size_t size) -> ssize_t {
        Strings &left = *static_cast<Strings *>(pieces_left);
        if (left.empty()) return 0;
        std::string &piece = left.front();
        const bool is_interrupted = piece.empty() || piece == "stop";
        if (piece == "stop") process_context.running = 0;
        const size_t taken = is_interrupted ? 0 : piece.copy(buffer, size);
        if (piece.erase(0, taken).empty() || is_interrupted) left.erase(left.begin());
        errno = EINTR;
        return is_interrupted ? -1 : static_cast<ssize_t>(taken);
    };
    return OwnedFile(fopencookie(&pieces, "r", {read, nullptr, nullptr, nullptr}));
}

TEST_F(Client, RunsAScriptAsItCanBeRead) {
    FakeServer server(echo);
    connect_to(server);
    std::string many;
    for (int word = 0; word < 1501; word++) many += "x ";
    struct Row {
        Strings pieces;
        int result;
        std::string printed;
    };
    const Row rows[] = {{{"# a comment\n\n  \t\nsay \"two words\" \"\"\n  #x \"not sent\"\n\"open end"},
                         4,
                         "say\ntwo words\n\nopen end\n"},
                        {{"say o", "", "", "ne\n#", "", " no\nmore"}, 3, "say\none\nmore\n"},
                        {{repeat(31997, ' ') + "abcdef\n"}, 2, "abc\ndef\n"},
                        {{repeat(32000, 'x')}, RAERRTOOLONG, ""},
                        {{many}, 1500, joined(Strings(1500, "x"))},
                        {{"one\n", "stop"}, RAERRKILLED, "one\n"}};
    for (auto [pieces, result, printed] : rows) {
        std::replace(printed.begin(), printed.end(), '\0', '\n');
        const OwnedFile stream = script_of(pieces);
        testing::internal::CaptureStdout();
        EXPECT_EQ(raclient_udp_script(client, stream.get()), result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), printed);
    }
    EXPECT_STREQ(raclient_errmsg(client), "The process has been killed!");
    EXPECT_EQ(server.stop().size(), 8U) << "one request a line";

    const OwnedFile unreadable(fopen("/", "re"));
    process_context.running = 1;
    EXPECT_EQ(raclient_udp_script(client, unreadable.get()), -1);
    EXPECT_EQ(raclient_udp_script(nullptr, unreadable.get()), RAERRNOCLIENT);
}

TEST(Words, FollowTheirRules) {
    const std::vector<std::pair<std::string, Strings>> rows{
        {"", {}},
        {" \t\v\f\r\n", {}},
        {"a  b\tc\n", {"a", "b", "c"}},
        {"a\"b\" c", {"a\"b\"", "c"}},
        {"\"a\"b", {"a", "b"}},
        {"\"a b\nc", {"a b", "c"}},
        {"\"\" \"", {""}},
        {"\"\n", {""}},
        {R"("a\"b" "c\d")", {R"(a"b)", R"(c\d)"}},
        {R"("\\" x")", {R"(\" x)"}},
        {R"("end\)", {R"(end\)"}},
        {"\xa0 \x01", {"\xa0", "\x01"}},
    };
    for (const auto &[line, expected] : rows) {
        std::string text = line;
        char *position = text.data();
        Strings words;
        while (const char *word = raclient_next_word(&position)) words.emplace_back(word);
        EXPECT_EQ(words, expected) << line;
        EXPECT_EQ(position, text.data() + text.size());
    }
}

TEST_F(Client, IsKnownByItsTag) {
    RA_CLIENT_S foreign{};
    foreign.tag = "RA server client ";
    char *none[] = {nullptr};
    EXPECT_EQ(raclient_udp_request(&foreign, 0, none), RAERRNOCLIENT);
    EXPECT_EQ(raclient_result(&foreign, 0), nullptr);
    EXPECT_STREQ(raclient_errmsg(&foreign), "Invalid client pointer.");
    EXPECT_STREQ(raclient_errmsg(nullptr), "Invalid client pointer.");
    raclient_udp_destroy(&foreign);

    client = raclient_udp_create("127.0.0.1", 9, 0, 0);
    EXPECT_STREQ(client->tag, "RA server client");
    EXPECT_EQ(client->interval, 3);
    EXPECT_EQ(client->tries, 5);
    EXPECT_EQ(client->socket, -1) << "nothing is opened before the first request";
}

}  // namespace
