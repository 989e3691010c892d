/* TCP: listening, accepting, connecting, reading, sending, closing; each failure with its code and its line. */
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <deque>

#include "packet/stati.h"
#include "tests/packet/sockets.h"

namespace {
int next_failure = 0;               // errno of the next accept, receive or send; 0: it is carried out
std::deque<timeval> clock_reading;  // what the clock shows next; empty: the true time

int take_failure() {
    errno = next_failure;
    return std::exchange(next_failure, 0);
}
}  // namespace

/* Stand in front of the system's own. */
extern "C" int gettimeofday(timeval *now, void *) noexcept {
    if (clock_reading.empty()) return static_cast<int>(syscall(SYS_gettimeofday, now, nullptr));
    *now = clock_reading.front();
    clock_reading.pop_front();
    return 0;
}
extern "C" int accept4(int fd, sockaddr *address, socklen_t *size, int flags) {
    return take_failure() != 0 ? -1 : static_cast<int>(syscall(SYS_accept4, fd, address, size, flags));
}
extern "C" ssize_t recv(int fd, void *buffer, size_t size, int flags) {
    return take_failure() != 0 ? -1 : syscall(SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
}
extern "C" ssize_t send(int fd, const void *buffer, size_t size, int flags) {
    return take_failure() != 0 ? -1 : syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0);
}

namespace {

class Stream : public SocketTest {
protected:
    OwnedFd listener;
    OwnedFd ours, peer;  // both ends of a connection

    Stream() {
        process_context.trace = 1;
        told([&] { listener = OwnedFd(packet_srv_listen_ip(LOOPBACK, 0)); });
        packet_stat_reset();
    }
    ~Stream() override { packet_stat_reset(); }

    void connect_both() {
        const PacketAddress address = name_of(listener.get());
        peer = OwnedFd(packet_clt_connect(0, &address));
        ours = OwnedFd(packet_srv_accept(listener.get(), nullptr, nullptr, nullptr));
        ASSERT_TRUE(ours.is_open());
    }
    void peer_resets() {
        const linger at_once{1, 0};
        setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        peer.reset();
    }
    int receive(const std::string &bytes, int size = 64) {
        EXPECT_EQ(write(peer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        char buffer[64];
        return packet_readTCP(ours.get(), buffer, size);
    }
    /** The numbers of the report behind these labels. */
    static std::string counted(std::initializer_list<const char *> labels) {
        char *text = nullptr;
        size_t size = 0;
        FILE *stream = open_memstream(&text, &size);
        packet_statistics(stream);
        fclose(stream);
        const OwnedBlock<char> owned(text);
        std::string numbers;
        for (const char *label : labels) numbers += std::to_string(atol(strstr(text, label) + 19)) + " ";
        return numbers;
    }
    static std::string read_counts() {
        return counted({" packet_read calls ", " packet_read fails ", " packets received  ", " bytes received    "});
    }
    static std::string send_counts() {
        return counted({" sendto calls      ", " sendto fails      ", " packets sent      ", " bytes sent        "});
    }
};

TEST_F(Stream, IsListenedForOnTheAddressAskedFor) {
    int made = -1;
    const std::string lines = told([&] { made = packet_srv_tcp_socket(LOOPBACK, 0, 1); });
    const OwnedFd socket(made);
    EXPECT_EQ(lines, "test: TCPSOCKET = " + std::to_string(made) + " bound to 127.0.0.1:0\n");
    EXPECT_EQ(name_of(made).sin_addr.s_addr, LOOPBACK);
    EXPECT_EQ(fcntl(made, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(packet_bound_ip, 0U);

    const uint16_t taken = port_of(made);
    const std::string refusal = told([&] { EXPECT_EQ(packet_srv_listen(taken), PACKETERRBIND); });
    EXPECT_EQ(refusal, "test: packet TCP bind( sockfd, INADDR_ANY:" + std::to_string(taken) +
                           " ) errmsg: Address already in use!\n");
}

TEST_F(Stream, IsAcceptedWithItsPeer) {
    const PacketAddress address = name_of(listener.get());
    peer = OwnedFd(packet_clt_connect(0, &address));
    uint32_t ip = 0;
    uint16_t port = 0;
    char *text = nullptr;
    ours = OwnedFd(packet_srv_accept(listener.get(), &ip, &port, &text));
    EXPECT_EQ(ip, INADDR_LOOPBACK);
    EXPECT_EQ(port, port_of(peer.get()));
    EXPECT_STREQ(text, "127.0.0.1");
    for (const OwnedFd *end : {&ours, &peer}) EXPECT_EQ(fcntl(end->get(), F_GETFD), FD_CLOEXEC);

    EXPECT_EQ(packet_setNonBlocking(listener.get(), 1), 0);
    EXPECT_EQ(told([&] { EXPECT_EQ(packet_srv_accept(listener.get(), &ip, &port, &text), PACKETERRWOULDBLOCK); }),
              "");
    EXPECT_EQ(told([] { EXPECT_EQ(packet_setNonBlocking(99999, 1), -1); }),
              "test: packet_setNonBlocking: fnctl_get on socket: 99999 failed! Bad file descriptor\n");
}

TEST_F(Stream, FailedCallsHaveTheirCodesAndLines) {
    connect_both();
    enum Call { ACCEPT, READ, SEND };
    struct Row {
        Call call;
        int error, result;
        const char *line;
    };
    const std::string fd = std::to_string(ours.get());
    const std::string recv_failed = "packet_readTCP: recv on socket: " + fd + " failed! rc -1, Invalid argument\n";
    const std::string send_failed = "packet_sendTCP: send on socket: " + fd + " failed! len 1, rc -1, ";
    const std::string pipe_line = send_failed + "Broken pipe\n", other_line = send_failed + "Invalid argument\n";
    const Row rows[] = {
        {ACCEPT, EINTR, PACKETERRINTR, ""},
        {ACCEPT, EAGAIN, PACKETERRWOULDBLOCK, ""},
        {ACCEPT, ECONNABORTED, PACKETERRINTR,
         "packet_srv_accept: accept( listenSocket, .. ) error: Software caused connection abort!\n"},
        {ACCEPT, EINVAL, PACKETERRACCEPT, "packet_srv_accept: accept( listenSocket, .. ) error: Invalid argument!\n"},
        {READ, EINTR, PACKETERRINTR, ""},
        {READ, EAGAIN, PACKETERRWOULDBLOCK, ""},
        {READ, ECONNRESET, 0, ""},
        {READ, ESHUTDOWN, 0, ""},
        {READ, EINVAL, PACKETERRRECV, recv_failed.c_str()},
        {SEND, EINTR, PACKETERRINTR, ""},
        {SEND, EAGAIN, PACKETERRWOULDBLOCK, ""},
        {SEND, EPIPE, PACKETERRINTR, pipe_line.c_str()},
        {SEND, EINVAL, PACKETERRINTR, other_line.c_str()},
    };
    char byte = 'x';
    for (const Row &row : rows) {
        const std::string line = told([&] {
            next_failure = row.error;
            const int result = row.call == ACCEPT ? packet_srv_accept(listener.get(), nullptr, nullptr, nullptr)
                               : row.call == READ ? packet_readTCP(ours.get(), &byte, 1)
                                                  : packet_sendTCP(ours.get(), &byte, 1);
            EXPECT_EQ(result, row.result) << row.line;
            if (result < 0) {
                EXPECT_EQ(errno, row.error);
            }
        });
        EXPECT_TRUE(line.ends_with(row.line) && (*row.line != 0 || line.empty())) << line;
    }
    EXPECT_EQ(read_counts(), "1 1 0 0 ");
    EXPECT_EQ(send_counts(), "4 2 0 0 ");
    told([&] {
        EXPECT_EQ(packet_readTCP(-1, &byte, 1), PACKETERRBADSOCKET);
        EXPECT_EQ(packet_sendTCP(-1, &byte, 1), PACKETERRBADSOCKET);
    });
    EXPECT_EQ(read_counts(), "1 3 0 0 ");
}

TEST_F(Stream, DropsConnectionsThatNoDescriptorIsLeftFor) {
    const PacketAddress address = name_of(listener.get());
    Child child([&](Child &self) {
        packet_setNonBlocking(listener.get(), 1);
        const OwnedFd first(packet_clt_connect(0, &address)), second(packet_clt_connect(0, &address));
        const rlimit few{64, 64};
        setrlimit(RLIMIT_NOFILE, &few);
        while (dup(listener.get()) >= 0) {
        }
        for (const OwnedFd *client : {&first, &second}) {
            char byte = 0;
            const int result = packet_srv_accept(listener.get(), nullptr, nullptr, nullptr);
            self.report(std::to_string(result) + " " + std::to_string(read(client->get(), &byte, 1)));
        }
        return 0;
    });
    for (int connection = 0; connection < 2; connection++) EXPECT_EQ(child.next_report(), "-1006 0");
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_LE(child.output().size(), 2 * strlen("test: packet_srv_accept: accept( listenSocket, .. ) error: Too "
                                                "many open files!\n"));
}

TEST_F(Stream, ReadsAreCountedByThePacketOrByTheLine) {
    connect_both();
    EXPECT_EQ(receive("12345"), 5);
    EXPECT_EQ(read_counts(), "1 0 1 33 ");
    for (const char *byte : {"a", "b", "c", "d"}) EXPECT_EQ(receive(byte), 1);
    EXPECT_EQ(read_counts(), "1 0 1 33 ");
    EXPECT_EQ(receive("\n"), 1);
    EXPECT_EQ(read_counts(), "1 0 2 66 ") << "a line of 5 bytes and the header's 28";
    for (int read = 0; read < 129; read++) EXPECT_EQ(receive("1234", 4), 4);
    EXPECT_EQ(read_counts(), "1 0 3 610 ") << "at 516 bytes, since 512 are less than 513";
}

TEST_F(Stream, EndsQuietlyWhenThePeerCloses) {
    for (const bool reset : {false, true}) {
        connect_both();
        if (reset) peer_resets();
        peer.reset();
        char byte = 0;
        const std::string lines = told([&] {
            if (reset) {
                EXPECT_EQ(packet_readTCP(ours.get(), &byte, 1), PACKETERRINTR) << "the error waits";
            }
            EXPECT_EQ(packet_readTCP(ours.get(), &byte, 1), 0);
        });
        EXPECT_EQ(lines.find("failed"), std::string::npos) << lines;
    }
    EXPECT_EQ(read_counts(), "0 0 0 0 ");
}

TEST_F(Stream, SendsWhatGoesIn) {
    connect_both();
    EXPECT_EQ(packet_sendTCP(ours.get(), "x", 0), 0);
    EXPECT_EQ(send_counts(), "0 0 0 0 ");
    EXPECT_EQ(packet_sendTCP(ours.get(), "hello", 5), 5);
    EXPECT_EQ(send_counts(), "1 0 1 33 ");
    packet_setNonBlocking(ours.get(), 1);
    const std::string much(1 << 24, 'x');
    const int taken = packet_sendTCP(ours.get(), much.data(), 1 << 24);
    EXPECT_TRUE(taken > 0 && taken < 1 << 24) << taken;
}

TEST_F(Stream, ThatCantBeConnectedIsReported) {
    const PacketAddress address = name_of(listener.get());
    const std::string port = std::to_string(port_of(listener.get()));
    EXPECT_EQ(told([&] { EXPECT_EQ(packet_clt_connect(port_of(listener.get()), &address), PACKETERRBIND); }),
              "test: packet_clt_connect: bind( sockfd, INADDR_ANY:" + port + " ) errmsg: Address already in use!\n");
    listener.reset();
    EXPECT_EQ(told([&] { EXPECT_EQ(packet_clt_connect(0, &address), PACKETERRCONNECT); }),
              "test: packet_clt_connect: connect( sockfd, 127.0.0.1:" + port + " ) errmsg: Connection refused!\n");
}

TEST_F(Stream, SlowCloseIsLogged) {
    const struct {
        timeval begun, ended;
        const char *line;
    } rows[] = {
        {{5, 0}, {5, 100000}, ""},
        {{5, 950000}, {6, 50001}, "test: packet_closeSocket: took 0.100001 seconds\n"},
        {{5, 0}, {6, 0}, "test: packet_closeSocket: took 1.000000 seconds\n"},
        {{5, 0}, {3, 500000}, ""},  // the clock was set meanwhile
    };
    for (const auto &row : rows) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        clock_reading = {row.begun, row.ended};
        EXPECT_EQ(told([&] { packet_closeSocket(fd, 1); }), row.line);
        EXPECT_LT(fcntl(fd, F_GETFD), 0);
    }
}

}  // namespace
