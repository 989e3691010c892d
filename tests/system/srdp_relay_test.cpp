/* Reliable datagrams over a bad line: a relay between two processes drops 30 % of the datagrams, doubles 10 % and holds
 * 10 % back for up to a second, in both directions.
 *
 * The time is the relay's: it tells both sides each tick and waits until all that was sent has been dealt with, so that
 * 100 seconds pass as fast as the machine allows and a slow one changes nothing. */
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <map>
#include <set>
#include <sstream>

#include "ivs/ivssrdpi.h"
#include "tests/packet/sockets.h"
#include "tests/support/badline.h"
#include "tests/support/bytes.h"

namespace {

constexpr time_t T = 1000000;
constexpr uint32_t PACKETS = 10000;
constexpr uint32_t PACKETS_A_TICK = 25;
constexpr int TICKS_A_SECOND = 10;
constexpr int TICKS_OF_SENDING = PACKETS / PACKETS_A_TICK;
constexpr int TICKS = TICKS_OF_SENDING + 70 * TICKS_A_SECOND;  // a life, and the sweep after it
constexpr int END = -1;                                        // stands for a tick: report and leave

timeval time_of(int tick) {
    return {T + tick / TICKS_A_SECOND, tick % TICKS_A_SECOND * (1000000 / TICKS_A_SECOND) + 50000};
}

/** The totals as the status print gives them. */
std::string totals() {
    const std::string text = printed(ivs_srdp_print);
    std::string numbers;
    for (const char *colon = text.c_str(); (colon = strstr(colon, ": ")) != nullptr; colon++) {
        numbers += std::to_string(strtoul(colon + 1, nullptr, 10)) + " ";
    }
    return numbers;
}

struct Totals {
    unsigned long received, replays, acks, unknownAcks, sent, givenUp, cancelled, resent, pending, mostPending;
    explicit Totals(const std::string &line) {
        std::istringstream(line) >> received >> replays >> acks >> unknownAcks >> sent >> givenUp >> cancelled >>
            resent >> pending >> mostPending;
    }
};

/** One side of the line: a process with a socket, driven tick by tick. */
class Side {
public:
    using Tick = std::function<void(int socket, int tick)>;
    Side(const Tick &work, const std::function<std::string()> &result)
        : ends_(made_ends()), socket_(packet_clt_socket_ip(LOOPBACK)), child_([&](Child &self) {
              for (int tick; read(ends_[1], &tick, sizeof tick) == sizeof tick;) {
                  if (tick == END) break;
                  work(socket_.get(), tick);
                  if (write(ends_[1], &tick, sizeof tick) != sizeof tick) return 1;
              }
              self.report(totals());
              self.report(result());
              return 0;
          }) {}
    ~Side() {
        for (const int end : ends_) close(end);
    }
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;

    PacketAddress address() const { return name_of(socket_.get()); }
    /** Has the side do its tick; when this returns, all that it sent has arrived. */
    void run(int tick) {
        ASSERT_EQ(write(ends_[0], &tick, sizeof tick), static_cast<ssize_t>(sizeof tick));
        if (tick == END) return;
        pollfd source{ends_[0], POLLIN, 0};
        ASSERT_EQ(poll(&source, 1, 20000), 1) << "no answer at tick " << tick;
        ASSERT_EQ(read(ends_[0], &tick, sizeof tick), static_cast<ssize_t>(sizeof tick));
    }
    std::string report() { return child_.next_report(); }

private:
    static std::array<int, 2> made_ends() {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()) != 0) abort();
        return ends;
    }
    std::array<int, 2> ends_;
    OwnedFd socket_;
    Child child_;
};

/** One direction of the line, with a count of what went in and came out. */
class Line {
public:
    Line(int socket, PacketAddress to, Seeded &random)
        : line_({30, 10, 10, TICKS_A_SECOND}, random, [this, socket, to](const std::string &datagram) {
              sendto(socket, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
              note(datagram);
          }) {}

    void take(int tick, const std::string &datagram) {
        taken++;
        line_.take(tick, datagram);
    }
    void release(int tick) { line_.release(tick); }

    unsigned long taken = 0, delivered = 0;
    std::set<uint32_t> numbers;  // of the packets of which a copy got through

private:
    void note(const std::string &datagram) {
        delivered++;
        uint32_t number = 0;
        if (datagram.size() >= 9) memcpy(&number, datagram.data() + 5, sizeof number);
        numbers.insert(number);
    }
    BadLine line_;
};

class OverABadLine : public SocketTest {
protected:
    OverABadLine() {
        process_context.noAccessKeyCheck = 1;
        packet_bound_ip = LOOPBACK;
    }
    // The relay's sockets: one that the sender takes for its peer, one that the receiver does.
    const OwnedFd nearSender{packet_clt_socket_ip(LOOPBACK)}, nearReceiver{packet_clt_socket_ip(LOOPBACK)};
    const PacketAddress relay = name_of(nearSender.get());
};

TEST_F(OverABadLine, EveryPacketOfWhichACopyGetsThroughIsHandedUpOnce) {
    Seeded random;
    Side sender(
        [&](int socket, int tick) {
            timeval now = time_of(tick);
            drain(socket, [&](const std::string &ack, const PacketAddress &from) {
                ivs_srdp_packet_ack(ack.data(), static_cast<int>(ack.size()), &from);
            });
            for (uint32_t k = 0; k < PACKETS_A_TICK && tick < TICKS_OF_SENDING; k++) {
                timeval moment = now;
                moment.tv_usec -= 1000L * (k + 1);  // in the same tenth, so that a repeat comes in the tick it is due
                const uint32_t number = static_cast<uint32_t>(tick) * PACKETS_A_TICK + k;
                ivs::srdp_send_at(moment, socket, now.tv_sec, number, 1, IVS_TYPE_TEXT, "text", 4, &relay,
                                  sizeof relay);
            }
            ivs_srdp_packet_handle(socket, &now);
        },
        [] { return std::string(); });

    std::map<uint32_t, int> handed_up;
    Side receiver(
        [&](int socket, int tick) {
            timeval now = time_of(tick);
            drain(socket, [&](const std::string &packet, const PacketAddress &from) {
                const auto length = static_cast<int>(packet.size());
                if (ivs_srdp_packet(socket, now.tv_sec, packet.data(), length, &from, sizeof from) == 0) return;
                uint32_t number = 0;
                memcpy(&number, packet.data() + IVS_SRDP_HEAD + 1, sizeof number);
                handed_up[number]++;
            });
            ivs_srdp_packet_handle(socket, &now);
        },
        [&] {
            uint32_t twice = 0, wrong = 0;
            for (const auto &[number, times] : handed_up) {
                twice += times > 1;
                wrong += number >= PACKETS;
            }
            return std::to_string(handed_up.size()) + " " + std::to_string(twice) + " " + std::to_string(wrong);
        });

    Line there(nearReceiver.get(), receiver.address(), random), back(nearSender.get(), sender.address(), random);
    for (int tick = 0; tick < TICKS && !HasFatalFailure(); tick++) {
        sender.run(tick);
        drain(nearSender.get(), [&](const std::string &packet, const PacketAddress &) { there.take(tick, packet); });
        there.release(tick);
        receiver.run(tick);
        drain(nearReceiver.get(), [&](const std::string &ack, const PacketAddress &) { back.take(tick, ack); });
        back.release(tick);
    }
    sender.run(END);
    receiver.run(END);
    const Totals sent(sender.report()), received(receiver.report());

    EXPECT_EQ(receiver.report(), std::to_string(there.numbers.size()) + " 0 0");
    EXPECT_GT(there.numbers.size(), PACKETS * 995 / 1000) << "all six sends of a packet are seldom lost";

    EXPECT_EQ(received.received, there.delivered);
    EXPECT_EQ(received.replays, there.delivered - there.numbers.size());
    EXPECT_EQ(sent.sent, PACKETS);
    EXPECT_EQ(sent.sent + sent.resent, there.taken);
    EXPECT_EQ(back.taken, received.received) << "each copy is acknowledged";
    EXPECT_EQ(sent.acks, back.delivered);
    EXPECT_EQ(sent.acks - sent.unknownAcks + sent.givenUp, PACKETS);
    EXPECT_EQ(sent.pending, 0U);
    EXPECT_GE(sent.givenUp, PACKETS - there.numbers.size());
}

}  // namespace
