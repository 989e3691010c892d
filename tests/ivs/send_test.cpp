/* The one door out: the pending key, the trace line, failed sends, the measurement, and refusals. */
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <map>

#include "ivs/ivsi.h"
#include "tests/packet/sockets.h"

extern time_t given_time;  // what time() says, from report_test.cpp

namespace {
int refusal = 0;  // what sending fails with instead of being tried
}

/** Stands in front of the system's own: the library takes pending errors off a socket before it sends, so that a peer
 *  that is gone can't be brought about by sockets alone. */
extern "C" ssize_t sendto(int socket, const void *data, size_t length, int flags, const sockaddr *address,
                          socklen_t size) {
    if (refusal == 0) return syscall(SYS_sendto, socket, data, length, flags, address, size);
    errno = refusal;
    return -1;
}

namespace {

class Sending : public SocketTest {
protected:
    Sending() {
        setenv("TZ", "UTC", 1);
        tzset();
        ivs::trace_clock = [](timeval *now) { *now = {981173107, 123456}; };
        process_context.noAccessKeyCheck = 1;  // no key file is looked for
        packet_bound_ip = LOOPBACK;
    }
    ~Sending() override {
        ivs::trace_clock = clockBefore_;
        refusal = 0;
        given_time = 0;
        ivs_pending_key = nullptr;
        ivs_pending_key_flags = 0;
        ivs_compression_stats = 0;
        ivs_measured_packets = 0;
        ivs_last_measure = 0;
        memset(ivs_byte_counts, 0, sizeof ivs_byte_counts);
    }

    const Bytes key = bytes_of("123456789abcdef0123456789abcdef0");
    const OwnedFd server{packet_clt_socket_ip(LOOPBACK)}, client{packet_clt_socket_ip(LOOPBACK)};
    const PacketAddress to = name_of(server.get());

    void set_key(uint32_t flags) {
        ivs_pending_key = key.data();
        ivs_pending_key_flags = flags;
    }
    int send(const std::string &packet) {
        const Bytes bytes = bytes_of(packet);
        return ivs_sendto(client.get(), bytes.data(), static_cast<int>(bytes.size()), &to, sizeof to);
    }
    /** The datagram that has arrived, as it came or out of its envelope; and no key is pending any more. */
    std::string arrived(bool enciphered = false) const {
        EXPECT_EQ(ivs_pending_key, nullptr);
        EXPECT_EQ(ivs_pending_key_flags, 0U);
        std::string datagram = received(server);
        if (!enciphered) return datagram;
        const Bytes envelope = bytes_of(datagram);
        Bytes opened(envelope.size());
        int length = static_cast<int>(envelope.size());
        const unsigned char *plain = packet_decrypt(key.data(), envelope.data(), length, opened.data(), &length);
        return plain == nullptr ? "no envelope" : hex_of(plain, static_cast<size_t>(length));
    }

private:
    void (*const clockBefore_)(timeval *) = ivs::trace_clock;
};

TEST_F(Sending, UsesThePendingKeyOnce) {
    for (const uint32_t flags : {0U, 1U, 2U, 3U}) {
        set_key(flags);
        EXPECT_EQ(send("97 'hello'"), 0);
        EXPECT_EQ(arrived((flags & 2) != 0), "9768656c6c6f") << flags;
        EXPECT_EQ(send("97 'hello'"), 0);
        EXPECT_EQ(arrived(), "9768656c6c6f");
    }
    ivs_pending_key_flags = IVS_KEY_FLAG_ENCIPHER;  // flags without a key
    send("97");
    EXPECT_EQ(arrived(), "97");
}

TEST_F(Sending, FailureIsToldAndForgotten) {
    struct Row {
        int error, trace;
        std::string begins;  // "-" for no line at all
    };
    for (const Row &row : {Row{EHOSTUNREACH, 0, "test: "}, Row{EHOSTUNREACH, 1, "test: "}, Row{ECONNREFUSED, 0, "-"},
                           Row{ECONNREFUSED, 1, "T\\d+\\.\\d+ PID \\d+: "}}) {
        refusal = row.error;
        process_context.trace = row.trace;
        set_key(IVS_KEY_FLAG_ENCIPHER);
        const std::string lines = told([&] { EXPECT_EQ(send("97"), 0); });
        const std::string expected = "(.*\n)*" + row.begins + "ivs_sendto: packet_sendto socket " +
                                     std::to_string(client.get()) + " failed! errmsg: " + strerror(row.error) + "!\n";
        EXPECT_TRUE(row.begins == "-" ? lines.empty() : std::regex_match(lines, std::regex(expected))) << lines;
        EXPECT_EQ(arrived(), "nothing");
    }
}

TEST_F(Sending, IsTraced) {
    const std::string lines = printed([&](FILE *stream) {
        told([&] {
            process_context.traceStream = stream;
            send("97 'unseen'");
            process_context.trace = 1;
            set_key(IVS_KEY_FLAG_ENCIPHER);
            send("97 'x'");  // shown as it is before it is enciphered
            send("");
            process_context.traceStream = nullptr;
            send("97 'unseen'");
        });
    });
    const std::string head = "TS 20010203040507.123456 127.0.0.1:" + std::to_string(ntohs(to.sin_port)) + " ";
    EXPECT_EQ(lines, head + "  2 PING L: 1 \"x\"\n" + head + "  0 \n");
}

TEST_F(Sending, MeasuresTheBulkTextOnly) {
    for (const int on : {0, 1}) {
        ivs_compression_stats = on;
        for (const char *bulk : {"12 'ab'", "17 'a'", "37", "39 'a'", "0d 616161 97 'b'", "0d 61"}) send(bulk);
        for (const char *passed_over : {"", "97 'a'", "13 'a'", "38 'a'"}) send(passed_over);
        std::map<int, uint32_t> counted;
        for (int value = 0; value < 256; value++) {
            if (ivs_byte_counts[value] != 0) counted[value] = ivs_byte_counts[value];
        }
        EXPECT_EQ(ivs_measured_packets, on != 0 ? 6U : 0U);
        EXPECT_EQ(ivs_last_measure != 0, on != 0);
        const std::map<int, uint32_t> expected = {{0x12, 1}, {0x17, 1}, {0x37, 1}, {0x39, 1},
                                                  {0x97, 1}, {'a', 3},  {'b', 2}};
        EXPECT_EQ(counted, on != 0 ? expected : decltype(expected){});
    }
}

TEST_F(Sending, ReportsTheMeasurementEach300Seconds) {
    ivs_compression_stats = 1;
    ivs_last_measure = given_time = 1000000;
    struct Row {
        uint32_t counted[3], packets, scaled[3];
    };
    for (const Row &row : {Row{{1000, 10, 0}, 7, {1000, 10, 0}}, Row{{65534, 65534, 5}, 3, {65534, 65534, 5}},
                           Row{{65535, 10, 1}, 3, {32767, 5, 0}}, Row{{400000, 3, 140000}, 3, {50000, 0, 17500}},
                           Row{{10, 9, 70000}, 3, {5, 4, 35000}}}) {
        memcpy(ivs_byte_counts + 'a', row.counted, sizeof row.counted);
        ivs_measured_packets = row.packets;
        given_time += 300;
        EXPECT_EQ(told([&] { send("97"); }), "") << "too early";

        uint32_t scaled[256] = {}, bits = 0, compressed = 0, savings = 0;
        memcpy(scaled + 'a', row.scaled, sizeof row.scaled);
        free(iv_init_compression(scaled, row.packets, &bits, &compressed, &savings));
        char line[200];
        snprintf(line, sizeof line, "test: IV.CMP packets %u bytes %u, compressed %u, savings %u\n", row.packets,
                 bits, compressed, savings);
        given_time++;
        EXPECT_EQ(told([&] { send("12 'b'"); }), line);
        EXPECT_EQ(ivs_last_measure, given_time);
        EXPECT_EQ(ivs_measured_packets, 1U) << "the packet itself opens the next period";
        EXPECT_EQ(std::exchange(ivs_byte_counts[0x12], 0), 1U);
        EXPECT_EQ(ivs_byte_counts['a'], 0U);
    }
    ivs_measured_packets = 0;
    for (const int step : {301, -301}) {  // the latter is a clock that was set back
        given_time += step;
        EXPECT_EQ(told([&] { send("97"); }), "") << "nothing was measured";
        EXPECT_EQ(ivs_last_measure, given_time);
    }
}

TEST_F(Sending, RefusalShowsTheStartOfThePacketUnderTheKey) {
    struct Row {
        uint32_t flags;
        size_t length, copied;
    };
    for (const Row &row : {Row{0, 0, 0}, Row{0, 548, 548}, Row{0, 549, 548}, Row{1, 900, 548}, Row{2, 3, 3}}) {
        const Bytes packet(row.length, 'x');
        if (row.flags != 0) set_key(row.flags);
        EXPECT_EQ(ivs_snd_cofa(client.get(), IVS_COFA_BADD, packet.data(), static_cast<int>(row.length), &to, 16), 0);
        EXPECT_EQ(arrived(row.flags == 2),
                  (row.flags == 1 ? "a4" + hex_of(key) : "") + "0905" + hex_of(packet.data(), row.copied));
    }
}

}  // namespace
