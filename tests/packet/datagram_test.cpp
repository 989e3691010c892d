/* Sockets and datagrams: binding, waiting, reading, sending; each failure with its code and its line. */
#include <fcntl.h>
#include <signal.h>
#include <string.h>

#include "tests/packet/sockets.h"

namespace {

class BoundSocket : public SocketTest {};

TEST_F(BoundSocket, OfAClientIsSilentAndTheFirstAddressStays) {
    const std::string lines = told([] {
        const OwnedFd any(packet_clt_socket()), one(packet_clt_socket_ip(0)), server(packet_srv_socket(0));
        for (const OwnedFd *socket : {&any, &one, &server}) {
            EXPECT_EQ(name_of(socket->get()).sin_addr.s_addr, INADDR_ANY);
            EXPECT_NE(port_of(socket->get()), 0);
            EXPECT_EQ(fcntl(socket->get(), F_GETFD), FD_CLOEXEC);
        }
        EXPECT_EQ(packet_bound_ip, 0U);
        const OwnedFd first(packet_clt_socket_ip(LOOPBACK)), second(packet_clt_socket_ip(htonl(0x7f000002)));
        EXPECT_EQ(name_of(second.get()).sin_addr.s_addr, htonl(0x7f000002));
        EXPECT_EQ(packet_bound_ip, LOOPBACK);
    });
    EXPECT_EQ(lines, "");
}

TEST_F(BoundSocket, OnAPortOfItsOwnIsLogged) {
    for (const uint32_t ip : {LOOPBACK, 0U}) {
        int made = -1;
        uint16_t port = 0;
        std::string lines;
        for (int attempt = 0; attempt < 20 && made < 0; attempt++) {  // somebody else may take the free port first
            OwnedFd free(packet_clt_socket());
            port = port_of(free.get());
            free.reset();
            lines = told([&] { made = ip != 0 ? packet_srv_bound_socket(ip, port) : packet_srv_socket(port); });
        }
        const OwnedFd socket(made);
        EXPECT_EQ(port_of(made), port);
        EXPECT_EQ(lines, "test: UDPSOCKET = " + std::to_string(made) + " bound to " +
                             (ip != 0 ? "127.0.0.1" : "INADDR_ANY") + ":" + std::to_string(port) + "\n");
    }
}

TEST_F(BoundSocket, ThatCantBeBoundIsReportedAndClosed) {
    const OwnedFd taken(packet_clt_socket());
    const uint16_t port = port_of(taken.get());
    const int next = dup(taken.get());
    close(next);
    const std::string lines = told([&] {
        EXPECT_EQ(packet_srv_socket(port), PACKETERRBIND);
        EXPECT_EQ(packet_srv_bound_socket(htonl(0xc0000201), 5), PACKETERRBIND);
        EXPECT_EQ(errno, EADDRNOTAVAIL);
    });
    const std::string begin = "test: packet_srv_bound_socket: bind( sockfd, ";
    EXPECT_EQ(lines, begin + "INADDR_ANY:" + std::to_string(port) + " ) errmsg: Address already in use!\n" + begin +
                         "192.0.2.1:5 ) errmsg: Cannot assign requested address!\n");
    EXPECT_EQ(packet_bound_ip, htonl(0xc0000201)) << "set before the attempt";
    const OwnedFd reused(dup(taken.get()));
    EXPECT_EQ(reused.get(), next) << "a descriptor was left open";
}

TEST_F(BoundSocket, WithoutDescriptorsIsReported) {
    Child child([](Child &) {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        return packet_clt_socket() == PACKETERRSOCKET ? 0 : 1;
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_EQ(child.output(),
              "test: packet_srv_bound_socket: socket( AF_INET, SOCK_DGRAM ) errmsg: Too many open files!\n");
}

TEST_F(BoundSocket, BeyondWhatSelectHoldsIsNotUsed) {
    Child child([](Child &) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        if (limit.rlim_max < 1100) return 77;
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        const OwnedFd low(packet_clt_socket_ip(LOOPBACK));
        const int high = fcntl(low.get(), F_DUPFD, FD_SETSIZE);
        char byte;
        PacketAddress peer;
        int size = sizeof peer;
        timeval now{};
        if (packet_read(high, &byte, 1, &peer, &size, &now) != PACKETERRBADSOCKET) return 1;
        close(high);
        while (fcntl(low.get(), F_DUPFD, 0) < FD_SETSIZE - 1) {
        }
        if (packet_clt_socket() != PACKETERRSOCKET) return 2;
        return fcntl(FD_SETSIZE, F_GETFD) < 0 ? 0 : 3;
    });
    if (child.exit_code() == 77) GTEST_SKIP() << "this machine does not allow so many descriptors";
    EXPECT_EQ(child.exit_code(), 0) << "1: read from, 2: made, 3: left open";
}

/* ---- Reading ----------------------------------------------------------------------------------------------------- */

class Datagrams : public SocketTest {
protected:
    OwnedFd server{packet_clt_socket_ip(LOOPBACK)}, client{packet_clt_socket_ip(LOOPBACK)};
    const PacketAddress serverAddress = name_of(server.get()), clientAddress = name_of(client.get());
    PacketAddress peer{};
    int peerSize = sizeof peer;
    std::string received;

    int read(int socket, int size = 64, long milliseconds = 5000) {
        timeval timeout{milliseconds / 1000, milliseconds % 1000 * 1000};
        received.assign(static_cast<size_t>(size), '#');
        peerSize = sizeof peer;
        return packet_read(socket, received.data(), size, &peer, &peerSize, &timeout);
    }
    int send(const std::string &text) {
        return packet_sendto(client.get(), text.data(), static_cast<int>(text.size()), &serverAddress, 16);
    }
};

TEST_F(Datagrams, ArriveWithTheirSender) {
    const uint16_t port = ntohs(clientAddress.sin_port);
    ASSERT_EQ(send(std::string("ab\0c", 4)), 0);
    EXPECT_EQ(read(server.get()), 4);
    EXPECT_EQ(received.substr(0, 5), std::string("ab\0c#", 5)) << "nothing is written behind what came";
    EXPECT_EQ(peerSize, 16);
    EXPECT_EQ(peer.sin_family, AF_INET);
    EXPECT_EQ(ntohs(peer.sin_port), port);
    EXPECT_EQ(peer.sin_addr.s_addr, LOOPBACK);

    ASSERT_EQ(send(""), 0);
    EXPECT_EQ(read(server.get()), 0) << "an empty datagram is no failure";
    ASSERT_EQ(packet_sendto_ip(client.get(), "longer", 6, INADDR_LOOPBACK, ntohs(serverAddress.sin_port)), 0);
    EXPECT_EQ(read(server.get(), 4), 4);
    EXPECT_EQ(received, "long");

    for (const char *text : {"x", "y"}) ASSERT_EQ(send(text), 0);
    char byte;
    uint32_t ip = 0;
    uint16_t from = 0;
    EXPECT_EQ(packet_read(server.get(), &byte, 1, &peer, &peerSize, nullptr), 1) << "no limit";
    EXPECT_EQ(packet_readUDP(server.get(), &byte, 1, &ip, &from), 1);
    EXPECT_EQ(byte, 'y');
    EXPECT_EQ(ip, static_cast<uint32_t>(INADDR_LOOPBACK));
    EXPECT_EQ(from, port);
}

TEST_F(Datagrams, WaitEndsQuietly) {
    const std::string lines = told([&] {
        EXPECT_EQ(read(server.get(), 64, 0), PACKETERRTIMEOUT);
        EXPECT_EQ(read(server.get(), 64, 20), PACKETERRTIMEOUT);
        process_context.running = 0;
        EXPECT_EQ(read(server.get()), PACKETERRINTR);
        ASSERT_EQ(send("x"), 0);
        EXPECT_EQ(read(server.get()), PACKETERRINTR);
    });
    EXPECT_EQ(lines, "");
}

volatile sig_atomic_t alarms = 0;

TEST_F(Datagrams, SignalInterruptsTheWaitAndAHoldKeepsWhatHasArrived) {
    struct sigaction action {
    }, before{};
    action.sa_handler = [](int) {  // two of them end a hold
        alarms = alarms + 1;
        if (alarms >= 2) process_context.hold = 0;
    };
    sigaction(SIGALRM, &action, &before);
    const itimerval often{{0, 30000}, {0, 30000}}, never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(told([&] { EXPECT_EQ(read(server.get()), PACKETERRINTR); }), "");
    ASSERT_EQ(send("x"), 0);
    alarms = 0;
    process_context.hold = 1;
    EXPECT_EQ(read(server.get()), 1);
    EXPECT_GE(alarms, 2) << "it was read while the hold lasted";
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST_F(Datagrams, ErrorOfAnEarlierSendIsOnlyTraced) {
    process_context.trace = 1;
    char byte;
    struct Row {
        std::string label;
        int result;
        std::function<int(int)> call;
    };
    const Row rows[] = {
        {"packet_read", PACKETERRTIMEOUT, [&](int socket) { return read(socket, 64, 50); }},
        {"packet_readUDP", PACKETERRINTR,
         [&](int socket) { return packet_readUDP(socket, &byte, 1, nullptr, nullptr); }},
        {"packet_sendto", 0, [&](int socket) { return packet_sendto(socket, "x", 1, &serverAddress, 16); }},
    };
    for (const Row &row : rows) {
        const OwnedFd socket = refused_socket();
        const std::string lines = told([&] { EXPECT_EQ(row.call(socket.get()), row.result) << row.label; });
        EXPECT_TRUE(lines.ends_with(": " + row.label + ": cleared error Connection refused for socket " +
                                    std::to_string(socket.get()) + "\n"))
            << lines;
    }
    EXPECT_EQ(read(server.get()), 1) << "what was sent has gone out";
    const OwnedFd socket = refused_socket();
    told([&] { EXPECT_EQ(packet_clearSocketError(socket.get(), "label"), -1); });
    EXPECT_EQ(told([&] { EXPECT_EQ(packet_clearSocketError(socket.get(), "label"), 0); }), "");
}

TEST_F(Datagrams, FailuresAreReported) {
    const int closed = 60;  // nothing here opens so many; the kernel looks at no number above 63 for certain
    const std::string number = std::to_string(closed);
    const std::string there = "127.0.0.1:" + std::to_string(ntohs(serverAddress.sin_port)), much(70000, 'x');
    const std::string cant_send = "test: packet_sendto: sendto socket ";
    PacketAddress nowhere = serverAddress;
    nowhere.sin_port = 0;
    uint32_t ip;
    char byte;
    struct Row {
        int code;
        std::function<int()> call;
        std::string lines;
    };
    const std::string query = "getsockopt failed! errmsg Bad file descriptor\n";
    const Row rows[] = {
        {PACKETERRBADSOCKET, [&] { return read(-1); },
         "test: packet_read: Attempt to read from illegal socket: -1\n"},
        {PACKETERRBADSOCKET, [&] { return packet_readUDP(-5, &byte, 1, &ip, nullptr); },
         "test: packet_readUDP: Attempt to read from illegal socket: -5\n"},
        {PACKETERRBADSOCKET, [&] { return packet_sendto(-2, "x", 1, &serverAddress, 16); },
         "test: packet_sendto: Attempt to send to illegal socket: -2\n"},
        {PACKETERRSELECT, [&] { return read(closed); },
         "test: packet_read: " + query + "test: packet_read: select on socket: " + number +
             " failed! Bad file descriptor\n"},
        {PACKETERRSEND, [&] { return packet_sendto(closed, "x", 1, &serverAddress, 16); },
         "test: packet_sendto: " + query + cant_send + number + " " + there +
             " failed! rc -1, len 1 errmsg: Bad file descriptor!\ntest: packet_sendto: " + query},
        {PACKETERRINVAL, [&] { return packet_sendto(client.get(), "x", 1, &nowhere, 16); },
         cant_send + std::to_string(client.get()) + " 127.0.0.1:0 failed! rc -1, len 1 errmsg: Invalid argument!\n"},
        {PACKETERRSEND, [&] { return send(much); },
         cant_send + std::to_string(client.get()) + " " + there +
             " failed! rc -1, len 70000 errmsg: Message too long!\n"},
        {PACKETERRRECV, [&] { return packet_readUDP(closed, &byte, 1, &ip, nullptr); },
         "test: packet_readUDP: " + query + "test: packet_readUDP: " + query +
             "test: packet_readUDP: recvfrom on socket: " + number + " failed! rc -1, Bad file descriptor\n"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(told([&] { EXPECT_EQ(row.call(), row.code) << row.lines; }), row.lines);
    }
}

}  // namespace
