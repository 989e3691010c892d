/* A server's own address, and the orders of its administrator: who may give them, and what becomes of each. */
#include <fcntl.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include "ivs/ivs.h"
#include "tests/packet/sockets.h"
#include "tests/support/accesskey.h"

namespace {

const uint32_t OWN_IP = htonl(0x0a000001), FOREIGN_IP = htonl(0x7f000002);

class Administration : public SocketTest {
protected:
    Administration() {
        ivs_local_ip = OWN_IP;
        keyAccepted = 1;
    }
    ~Administration() override {
        ivs_local_ip = 0;
        ivs_local_port = 0;
        keyAccepted = 0;
    }

    const OwnedFd server{packet_clt_socket_ip(LOOPBACK)}, client{packet_clt_socket_ip(LOOPBACK)};
    const OwnedFd stranger{packet_clt_socket_ip(FOREIGN_IP)};
    PacketAddress peer = name_of(client.get());
    volatile int reread = 0;

    /** The lines that a packet leads to; `code` is its byte at offset 7. */
    std::string order(int code) { return order(hex_of(packet(code))); }
    std::string order(const std::string &notation) {
        const Bytes bytes = bytes_of(notation);
        return told([&] {
            ivs_admin_packet(server.get(), &reread, bytes.data(), static_cast<int>(bytes.size()), &peer, sizeof peer);
        });
    }
    static Bytes packet(int code) {
        Bytes bytes = bytes_of("84 010203040506 00 'rest'");
        bytes[7] = static_cast<uint8_t>(code);
        return bytes;
    }
    std::string from() const {
        return std::string(packet_ip2str(peer.sin_addr.s_addr)) + ":" + std::to_string(ntohs(peer.sin_port));
    }
};

TEST_F(Administration, ObeysEachActionAndSendsItBack) {
    const std::string from_here = " packet from " + from(), trace_on = "T.*: Tracing turned on!\n",
                      trace_off = "T.*: Tracing turned off!\n";
    for (const auto &[code, lines] :
         {std::pair{IVS_ADMIN_REREAD, "REREAD" + from_here + "\n"},
          {IVS_ADMIN_NEWLOG, "NEWLOG" + from_here + " Closing log\ntest: Reopening log file .*\ntest: Cannot .*\n"},
          {IVS_ADMIN_TRACEON, "TRACEON" + from_here + "\n" + trace_on},
          {IVS_ADMIN_TRACEON, "TRACEON" + from_here + "\n" + trace_off}}) {
        const std::string told = order(code);
        EXPECT_TRUE(std::regex_match(told, std::regex("test: Received IVS_ADMIN_" + lines))) << told;
        EXPECT_EQ(process_context.trace != 0, lines.ends_with(trace_on));
        EXPECT_EQ(received(client), hex_of(packet(code)));
    }
    EXPECT_EQ(process_context.running, 1);
    EXPECT_EQ(reread, 1);
    const Bytes again = packet(IVS_ADMIN_REREAD);
    told([&] { ivs_admin_packet(server.get(), nullptr, again.data(), 12, &peer, sizeof peer); });
    EXPECT_EQ(received(client), hex_of(again));
}

TEST_F(Administration, StopMarksTheStatusFile) {
    root.write("status/test.1", "00012345 some time or other, and a longer text\n");
    process_context.lockFd = open(root.path("status/test.1").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(order(IVS_ADMIN_STOP), "test: Received IVS_ADMIN_STOP packet from " + from() + "\n");
    EXPECT_EQ(received(client), hex_of(packet(IVS_ADMIN_STOP)));
    EXPECT_EQ(process_context.running, 0);
    EXPECT_EQ(process_context.lockFd, -1);
    tm at{};
    const std::string text = root.read("status/test.1");
    ASSERT_NE(strptime(text.c_str(), "00000000 %a %b %d %H:%M:%S %Y\n", &at), nullptr) << text;
    at.tm_isdst = -1;
    EXPECT_LE(abs(mktime(&at) - time(nullptr)), 2);
}

TEST_F(Administration, StopsWhateverBecomesOfTheStatusFile) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const OwnedFd reader(ends[0]);
    const std::string full = "test: Could not write to the lock file! errmsg: No space left on device\n";
    for (const auto &[status, line] : {std::pair{ends[1], std::string()}, {open("/dev/full", O_RDWR), full}}) {
        process_context.running = 1;
        process_context.lockFd = status;
        EXPECT_EQ(order(IVS_ADMIN_STOP), "test: Received IVS_ADMIN_STOP packet from " + from() + "\n" + line);
        EXPECT_EQ(process_context.running, 0);
        EXPECT_LT(fcntl(status, F_GETFD), 0) << "the descriptor is closed";
    }
    char byte;
    EXPECT_EQ(read(reader.get(), &byte, 1), 0) << "nothing is written where there is no start to seek to";
}

TEST_F(Administration, RefusesStrangeActionsAndPassesOverWhatIsNoOrder) {
    for (const auto &[notation, code] :
         {std::pair{"84 010203040506 05", 5}, {"84 010203040506 ff 01", 255}, {"84", 0}}) {
        EXPECT_EQ(order(notation),
                  "test: Received strange IVS_ADMIN_CODE from " + from() + " action " + std::to_string(code) + "\n");
        EXPECT_EQ(received(client), hex_of(bytes_of(std::string("09 05") + notation)));
    }
    const Bytes bytes = bytes_of("84 000000000000 01");  // what lies behind a short packet doesn't count
    told([&] { ivs_admin_packet(server.get(), &reread, bytes.data(), 7, &peer, sizeof peer); });
    EXPECT_EQ(received(client), "0905" + hex_of(bytes.data(), 7));

    for (const char *notation : {"97 010203040506 01", ""}) EXPECT_EQ(order(notation), "");
    EXPECT_EQ(received(client), "nothing");
    EXPECT_EQ(process_context.running, 1);
}

TEST_F(Administration, NeedsTheKeyAndSaysNothingWithoutIt) {
    keyAccepted = 0;
    EXPECT_EQ(order(IVS_ADMIN_STOP), "test: ADMIN: Received request 1 without access key from " + from() + "\n");
    EXPECT_EQ(order(9), "test: ADMIN: Received request 9 without access key from " + from() + "\n");
    EXPECT_EQ(received(client), "nothing");
    EXPECT_EQ(process_context.running, 1);
    process_context.noAccessKeyCheck = 1;
    order(IVS_ADMIN_STOP);
    EXPECT_EQ(received(client), hex_of(packet(IVS_ADMIN_STOP)));
    EXPECT_EQ(process_context.running, 0);
}

TEST_F(Administration, ObeysThisHostOnly) {
    peer = name_of(stranger.get());
    for (const int accepted : {0, 1}) {
        keyAccepted = accepted;
        EXPECT_NE(order(IVS_ADMIN_STOP).find("Received illegal ADMIN PACKET from " + from() + "\n"),
                  std::string::npos);
        EXPECT_EQ(received(stranger), "0906" + hex_of(packet(IVS_ADMIN_STOP)));
        EXPECT_EQ(process_context.running, 1);
    }
    ivs_local_ip = FOREIGN_IP;  // now it is our own
    order(IVS_ADMIN_REREAD);
    EXPECT_EQ(received(stranger), hex_of(packet(IVS_ADMIN_REREAD)));
}

TEST_F(Administration, AnswersNothingThatClaimsToComeFromItself) {
    for (const uint32_t ip : {LOOPBACK, OWN_IP}) {
        peer.sin_addr.s_addr = ip;
        ivs_local_port = peer.sin_port;
        order(IVS_ADMIN_REREAD);
        order(9);
        EXPECT_EQ(received(client), "nothing");
    }
}

TEST_F(Administration, AnswersInAnEnvelopeWhatCameInOne) {
    Child child([this](Child &self) {
        const AccessKey key("abcdefghijklmnopabcdefghijklmnop");
        root.write("etc/access.key", "127.0.0.1 encrypt " + key.text() + "\n");
        process_context.silent = 1;
        packet_own_ip = LOOPBACK;
        for (const auto &[socket, code] : {std::pair{&client, 3}, {&client, 9}, {&stranger, 3}, {&stranger, 3}}) {
            const Bytes order = packet(code);
            const PacketAddress to = name_of(server.get());
            const std::string sealed = key.sealed(std::string(order.begin(), order.end()));
            packet_sendto(socket->get(), sealed.data(), static_cast<int>(sealed.size()), &to, sizeof to);
            uint8_t bytes[100];
            int size = sizeof peer;
            const int length = packet_read(server.get(), bytes, sizeof bytes, &peer, &size, nullptr);
            ivs_admin_packet(server.get(), nullptr, bytes, length, &peer, size);
            const std::string back = received(*socket);
            self.report(back.size() < 10 ? back : back.substr(0, 2) + " " + std::to_string(back.size() / 2));
            if (socket == &stranger) ivs_local_ip = FOREIGN_IP;
        }
        return 0;
    });
    EXPECT_EQ(child.next_report(), "a5 33") << "12 bytes under the peer's key";
    EXPECT_EQ(child.next_report(), "a5 33") << "a refusal as well";
    EXPECT_EQ(child.next_report(), "0906") << "a peer without a key sees nothing of it";
    EXPECT_EQ(child.next_report(), "84");
}

TEST_F(Administration, ServerLearnsItsOwnAddress) {
    process_context.bindIp = "127.0.0.9";
    EXPECT_EQ(told([] { EXPECT_EQ(ivs_startup(4711), 0); }), "test: RUNNING ON 127.0.0.9:4711\n");
    EXPECT_EQ(ivs_local_ip, htonl(0x7f000009));
    EXPECT_EQ(ivs_local_port, htons(4711));
}

TEST_F(Administration, ServerThatHasNoAddressEnds) {
    Child child([](Child &) {
        const std::string unknown(64, 'x');  // no label of a name may be so long: fails without a question
        if (unshare(CLONE_NEWUSER | CLONE_NEWUTS) != 0 || sethostname(unknown.data(), unknown.size()) != 0) return 77;
        return ivs_startup(4711);
    });
    if (child.exit_code() == 77) GTEST_SKIP() << "this machine lets nobody change a name of his own";
    EXPECT_EQ(child.exit_code(), 1);
    EXPECT_NE(child.output().find("\ntest: Cannot get address of local host! "), std::string::npos) << child.output();
}

}  // namespace
