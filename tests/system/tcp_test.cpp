/* The TCP port of the real server: what opens it, and that no client of it disturbs the others or the datagrams. */
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "process/owned.h"
#include "tests/support/addresses.h"
#include "tests/support/serverprocess.h"

namespace {

using namespace std::chrono_literals;

/** A connection from some address of this machine; not open if the server did not take it. */
OwnedFd connected(uint16_t port, const char *from = "127.0.0.1") {
    OwnedFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in own = address_of(from, 0), server = address_of("127.0.0.1", port);
    EXPECT_EQ(bind(client.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own), 0);
    if (connect(client.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0) client.reset();
    const timeval patience{20, 0};
    setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return client;
}

/** Sends, and waits until the server has closed the connection: whether it did without a byte. */
bool is_closed_after(const OwnedFd &client, const std::string &bytes) {
    send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    char byte;
    const ssize_t got = recv(client.get(), &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

class TcpPort : public testing::Test {
protected:
    const uint16_t port = free_port();
    const std::string shown = std::to_string(port);
};

long open_descriptors(const ServerProcess &server) {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(server.pid()) + "/fd");
    return std::distance(begin(all), end(all));
}

bool comes_back_to(const ServerProcess &server, long count) {
    for (int left = 1000; left > 0 && open_descriptors(server) != count; left--) std::this_thread::sleep_for(10ms);
    return open_descriptors(server) == count;
}

TEST_F(TcpPort, IsOpenedByItsOption) {
    struct Row {
        Strings options;
        std::string bound;  // empty: there is none
    };
    for (const auto &[options, bound] : {
             Row{{"-tp", shown}, "127.0.0.1"},
             Row{{"-tp", shown, "-ta127.0.0.3"}, "127.0.0.3"},
             Row{{"-tp", shown, "-ta", "no.such.host.invalid"}, "127.0.0.1"},
             Row{{"-tp" + shown}, ""},
             Row{{"-ta", "127.0.0.1"}, ""},
         }) {
        const ServerProcess server{{.options = options}};
        const std::string log = server.log();
        EXPECT_EQ(log.find("TCPHOST   = ") != std::string::npos, options.back() != shown && options.size() > 1);
        if (bound.empty()) {
            EXPECT_EQ(log.find("TCPPORT"), std::string::npos) << log;
            EXPECT_FALSE(connected(port).is_open());
            continue;
        }
        const size_t ip = log.find(" TCPIP     = " + bound + "\n"), number = log.find(" TCPPORT   = " + shown + "\n");
        const size_t socket = log.find(" bound to " + bound + ":" + shown + "\n");
        EXPECT_TRUE(ip < number && number < socket && socket != std::string::npos) << log;
        EXPECT_EQ(connected(port).is_open(), bound == "127.0.0.1");
    }
}

TEST_F(TcpPort, ThatIsTakenEndsTheStart) {
    const ServerProcess first{{.options = {"-tp", shown}}};
    const std::string other = std::to_string(free_port());
    const ProgramEnd end = run_program(
        {"raserver", "-D", "-p", other, "-tp", shown, "-VELROOT", first.root().path(), "-BINDIP", "127.0.0.1"});
    EXPECT_EQ(end.code, 104);
    const std::string log = first.root().log("raserver." + other);
    EXPECT_NE(log.find("ETEXT=Can't create server listen socket for port " + shown + "!\n"), std::string::npos);
}

TEST_F(TcpPort, AnswersNobodyAndLetsNobodyForgeALine) {
    const ServerProcess server{{.options = {"-tp", shown, "-TRACE"}}};
    const LogWatch log = server.watch();
    EXPECT_TRUE(is_closed_after(connected(port), "GET /path\x1b[2J\x07 HTTP/1.0\r\nE2001 forged\r\n\r\n"));
    EXPECT_TRUE(is_closed_after(connected(port), "POST /p\nE2001 forged\nContent-length: 2\n\nab"));
    EXPECT_TRUE(is_closed_after(connected(port), "\nE2001 forged\n"));
    EXPECT_TRUE(log.wait_for("Strange HTTP request: \".E2001 forged.\"\n"));
    EXPECT_TRUE(log.saw("URL: /path.[2J.\n"));
    EXPECT_TRUE(log.saw("Header\nPOST /p.E2001 forged.Content-length: 2.\n")) << log.text();
    EXPECT_FALSE(log.saw("\nE2001 forged"));
    EXPECT_TRUE(is_closed_after(connected(port, "127.0.0.2"), "GET /x\n\n"));
    EXPECT_TRUE(log.wait_for("IP.LOG: Request from IP address \"127.0.0.2\" not allowed by configuration.\n"));
}

TEST_F(TcpPort, DisturbsNoDatagrams) {
    const ServerProcess server{{.options = {"-tp", shown}}};
    const LogWatch log = server.watch();
    TestClient client(server.port());
    const long before = open_descriptors(server);
    std::vector<OwnedFd> silent, busy;
    while (silent.size() < 100) silent.push_back(connected(port));
    const linger at_once{1, 0};
    for (int round = 0; round < 10; round++) {
        while (busy.size() < 400) busy.push_back(connected(port));
        for (size_t i = 0; i < busy.size(); i++) {  // cut at each place, the last of them complete
            const std::string request("GET /x HTTP/1.0\r\nHost: x\r\n\r\n", i % 28);
            send(busy[i].get(), request.data(), request.size(), MSG_NOSIGNAL);
            if (i % 2 == 0) setsockopt(busy[i].get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        }
        EXPECT_TRUE(client.is_served());
        busy.clear();
        EXPECT_TRUE(client.is_served());
    }
    silent.clear();
    EXPECT_TRUE(comes_back_to(server, before)) << open_descriptors(server) - before << " are left";
    EXPECT_TRUE(is_closed_after(connected(port), "GET /x\n\n"));
    EXPECT_EQ(log.count("ETEXT="), 0) << log.text();
}

/** Lets this process, or the server, have so many descriptors; whether it may. */
bool allow_descriptors(pid_t pid, rlim_t count) {
    rlimit limit{};
    prlimit(pid, RLIMIT_NOFILE, nullptr, &limit);
    limit.rlim_cur = count;
    return prlimit(pid, RLIMIT_NOFILE, &limit, nullptr) == 0;
}

TEST_F(TcpPort, DropsWhatItCantHold) {
    if (!allow_descriptors(0, 3000)) GTEST_SKIP() << "this machine does not allow so many descriptors";
    const struct {
        rlim_t allowed;
        long held;  // connections at most
        const char *line;
    } rows[] = {{64, 64, "accept( listenSocket, .. ) error: Too many open files!"},
                {3000, FD_SETSIZE, "closed, select can hold only those below 1024!"}};
    for (const auto &row : rows) {
        const ServerProcess server{{.options = {"-tp", shown}}};
        ASSERT_TRUE(allow_descriptors(server.pid(), row.allowed));
        const LogWatch log = server.watch();
        TestClient client(server.port());
        const long before = open_descriptors(server);
        std::vector<OwnedFd> clients;
        while (clients.size() < 2000) {
            clients.push_back(connected(port));
            if (clients.size() % 100 == 0) {
                EXPECT_TRUE(client.is_served());
            }
        }
        EXPECT_TRUE(is_closed_after(clients.back(), "")) << "taken and dropped";
        EXPECT_LE(open_descriptors(server), before + row.held);
        EXPECT_GE(log.count(row.line), 1) << log.text();
        const std::string text = log.text();
        EXPECT_LT(std::count(text.begin(), text.end(), '\n'), 100) << text;
        clients.clear();
        EXPECT_TRUE(comes_back_to(server, before)) << open_descriptors(server) - before << " are left";
        EXPECT_TRUE(is_closed_after(connected(port), "GET /x\n\n")) << "there is room again";
    }
}

}  // namespace
