/* TCP: listening, accepting, connecting, reading, sending, closing; each failure with its code and its line. */
#undef _FORTIFY_SOURCE  // brings a recv of its own
#include <fcntl.h>
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
    int receive(const std::string &bytes, int size = 64) {
        EXPECT_EQ(write(peer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        char buffer[64];
        return packet_readTCP(ours.get(), buffer, size);
    }
    /** Calls, fails, packets and bytes of reads, then of sends, as the report has them. */
    static std::string counts() {
        return reported({"packet_read calls", "packet_read fails", "packets received", "bytes received",
                         "sendto calls", "sendto fails", "packets sent", "bytes sent"});
    }
};

TEST_F(Stream, IsTakenOnTheAddressAskedForWithItsPeer) {
    int made = -1;
    const std::string lines = told([&] { made = packet_srv_tcp_socket(LOOPBACK, 0, 1); });
    const OwnedFd socket(made);
    EXPECT_EQ(lines, "test: TCPSOCKET = " + std::to_string(made) + " bound to 127.0.0.1:0\n");
    EXPECT_EQ(name_of(made).sin_addr.s_addr, LOOPBACK);
    EXPECT_EQ(packet_bound_ip, 0U);

    const PacketAddress address = name_of(made);
    peer = OwnedFd(packet_clt_connect(0, &address));
    uint32_t ip = 0;
    uint16_t port = 0;
    char *text = nullptr;
    ours = OwnedFd(packet_srv_accept(made, &ip, &port, &text));
    EXPECT_EQ(ip, INADDR_LOOPBACK);
    EXPECT_EQ(port, port_of(peer.get()));
    EXPECT_STREQ(text, "127.0.0.1");
    for (const int each : {made, ours.get(), peer.get()}) EXPECT_EQ(fcntl(each, F_GETFD), FD_CLOEXEC);

    const std::string shown = std::to_string(port_of(made));
    EXPECT_EQ(told([&] { EXPECT_EQ(packet_srv_listen(port_of(made)), PACKETERRBIND); }),
              "test: packet TCP bind( sockfd, INADDR_ANY:" + shown + " ) errmsg: Address already in use!\n");
    EXPECT_EQ(told([] { EXPECT_EQ(packet_setNonBlocking(99999, 1), -1); }),
              "test: packet_setNonBlocking: fnctl_get on socket: 99999 failed! Bad file descriptor\n");
}

TEST_F(Stream, FailedCallsHaveTheirCodesAndLines) {
    connect_both();
    const std::string fd = std::to_string(ours.get());
    enum Call { ACCEPT, READ, SEND };
    const std::string lines[] = {"packet_srv_accept: accept( listenSocket, .. ) error: ",
                                 "packet_readTCP: recv on socket: " + fd + " failed! rc -1, ",
                                 "packet_sendTCP: send on socket: " + fd + " failed! len 1, rc -1, "};
    char byte = 'x';
    const struct {
        Call call;
        int error, result;
        bool told;
    } rows[] = {{ACCEPT, EINTR, PACKETERRINTR, false},
                {ACCEPT, EAGAIN, PACKETERRWOULDBLOCK, false},
                {ACCEPT, ECONNABORTED, PACKETERRINTR, true},
                {ACCEPT, EINVAL, PACKETERRACCEPT, true},
                {READ, EINTR, PACKETERRINTR, false},
                {READ, EAGAIN, PACKETERRWOULDBLOCK, false},
                {READ, ECONNRESET, 0, false},
                {READ, ESHUTDOWN, 0, false},
                {READ, EINVAL, PACKETERRRECV, true},
                {SEND, EINTR, PACKETERRINTR, false},
                {SEND, EAGAIN, PACKETERRWOULDBLOCK, false},
                {SEND, EPIPE, PACKETERRINTR, true},
                {SEND, EINVAL, PACKETERRINTR, true}};
    for (const auto &row : rows) {
        const std::string line = told([&] {
            next_failure = row.error;
            const int result = row.call == ACCEPT ? packet_srv_accept(listener.get(), nullptr, nullptr, nullptr)
                               : row.call == READ ? packet_readTCP(ours.get(), &byte, 1)
                                                  : packet_sendTCP(ours.get(), &byte, 1);
            EXPECT_EQ(result, row.result) << strerror(row.error);
            if (result < 0) {
                EXPECT_EQ(errno, row.error);
            }
        });
        const std::string wanted = lines[row.call] + strerror(row.error) + (row.call == ACCEPT ? "!\n" : "\n");
        EXPECT_TRUE(row.told ? line.ends_with(wanted) : line.empty()) << line;
    }
    EXPECT_EQ(counts(), "1 1 0 0 4 2 0 0 ");
    told([&] {
        EXPECT_EQ(packet_readTCP(-1, &byte, 1), PACKETERRBADSOCKET);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(packet_sendTCP(-1, &byte, 1), PACKETERRBADSOCKET);
    });
    EXPECT_EQ(counts(), "1 3 0 0 4 2 0 0 ");
}

TEST_F(Stream, ReadsAreCountedByThePacketOrByTheLine) {
    connect_both();
    EXPECT_EQ(receive("z"), 1);  // forgotten with the next
    EXPECT_EQ(receive("12345"), 5);
    EXPECT_EQ(counts(), "1 0 1 33 0 0 0 0 ");
    for (const char *byte : {"a", "b", "c", "d"}) EXPECT_EQ(receive(byte), 1);
    EXPECT_EQ(counts(), "1 0 1 33 0 0 0 0 ");
    EXPECT_EQ(receive("\n"), 1);
    EXPECT_EQ(counts(), "1 0 2 66 0 0 0 0 ") << "a line of 5 bytes and the header's 28";
    for (int read = 0; read < 129; read++) EXPECT_EQ(receive("1234", 4), 4);
    EXPECT_EQ(counts(), "1 0 3 610 0 0 0 0 ") << "at 516 bytes, since 512 are less than 513";
}

TEST_F(Stream, EndsQuietlyWhenThePeerResets) {
    connect_both();
    const linger at_once{1, 0};
    setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    peer.reset();
    char byte = 0;
    const std::string lines = told([&] {
        EXPECT_EQ(packet_readTCP(ours.get(), &byte, 1), PACKETERRINTR) << "the error waits";
        EXPECT_EQ(packet_readTCP(ours.get(), &byte, 1), 0);
    });
    EXPECT_EQ(lines.find("failed"), std::string::npos) << lines;
    EXPECT_EQ(counts(), "0 0 0 0 0 0 0 0 ");
}

TEST_F(Stream, SendsWhatGoesIn) {
    connect_both();
    EXPECT_EQ(packet_sendTCP(ours.get(), "x", 0), 0);
    EXPECT_EQ(packet_sendTCP(ours.get(), "hello", 5), 5);
    EXPECT_EQ(counts(), "0 0 0 0 1 0 1 33 ");
}

TEST_F(Stream, ThatCantBeConnectedIsReported) {
    const PacketAddress address = name_of(listener.get());
    const std::string begin = "test: packet_clt_connect: ", port = std::to_string(port_of(listener.get()));
    EXPECT_EQ(told([&] { EXPECT_EQ(packet_clt_connect(port_of(listener.get()), &address), PACKETERRBIND); }),
              begin + "bind( sockfd, INADDR_ANY:" + port + " ) errmsg: Address already in use!\n");
    listener.reset();
    EXPECT_EQ(told([&] { EXPECT_EQ(packet_clt_connect(0, &address), PACKETERRCONNECT); }),
              begin + "connect( sockfd, 127.0.0.1:" + port + " ) errmsg: Connection refused!\n");
}

TEST_F(Stream, SlowCloseIsLogged) {
    const struct {
        timeval begun, ended;
        const char *line;
    } rows[] = {{{5, 0}, {5, 100000}, ""},
                {{5, 950000}, {6, 50001}, "test: packet_closeSocket: took 0.100001 seconds\n"},
                {{5, 0}, {6, 0}, "test: packet_closeSocket: took 1.000000 seconds\n"},
                {{5, 0}, {3, 500000}, ""}};  // the clock was set meanwhile
    for (const auto &row : rows) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        clock_reading = {row.begun, row.ended};
        EXPECT_EQ(told([&] { packet_closeSocket(fd, 1); }), row.line);
        EXPECT_LT(fcntl(fd, F_GETFD), 0);
    }
}

}  // namespace
