/* Reliable datagrams over a bad line: a relay between two processes drops 30 % of the datagrams, doubles 10 % and holds
 * 10 % back for up to a second, in both directions.
 *
 * The time is the relay's: it tells both sides each tick and waits until all that was sent has been dealt with, so that
 * 100 seconds pass as fast as the machine allows and a slow one changes nothing. */
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
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
    using Work = std::function<std::string(int socket, int tick)>;
    explicit Side(const Work &work)
        : child_([&](Child &self) {
              for (int tick; recv(ticks_.get(), &tick, sizeof tick, 0) == sizeof tick && tick != END;) {
                  self.report(work(socket_.get(), tick));
              }
              self.report(totals());
              return 0;
          }) {}

    PacketAddress address() const { return name_of(socket_.get()); }
    /** Has the side do its tick; when this returns, all that it sent has arrived. Gives what the work says. */
    std::string run(int tick) {
        send_to(ticks_.get(), std::string(reinterpret_cast<const char *>(&tick), sizeof tick), name_of(ticks_.get()));
        return child_.next_report();
    }

private:
    const OwnedFd socket_{packet_clt_socket_ip(LOOPBACK)}, ticks_{packet_clt_socket_ip(LOOPBACK)};
    Child child_;
};

/** One direction of the line, with a count of what went in and came out. */
class Line {
public:
    Line(const OwnedFd &socket, PacketAddress to, Seeded &random)
        : line_({30, 10, 10, TICKS_A_SECOND}, random, [this, &socket, to](const std::string &datagram) {
              send_to(socket.get(), datagram, to);
              delivered++;
              uint32_t number = 0;
              if (datagram.size() >= 9) memcpy(&number, datagram.data() + 5, sizeof number);
              numbers.insert(number);
          }) {}

    void take(int tick, const std::string &datagram) {
        taken++;
        line_.take(tick, datagram);
    }
    void release(int tick) { line_.release(tick); }

    unsigned long taken = 0, delivered = 0;
    std::set<uint32_t> numbers;  // of the packets of which a copy got through

private:
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
    Side sender([&](int socket, int tick) {
        timeval now = time_of(tick);
        drain(socket, [&](const std::string &ack, const PacketAddress &from) {
            ivs_srdp_packet_ack(ack.data(), static_cast<int>(ack.size()), &from);
        });
        for (uint32_t k = 0; k < PACKETS_A_TICK && tick < TICKS_OF_SENDING; k++) {
            timeval moment = now;
            moment.tv_usec -= 1000L * (k + 1);  // in the same tenth, so that a repeat comes in the tick it is due
            const uint32_t number = static_cast<uint32_t>(tick) * PACKETS_A_TICK + k;
            ivs::srdp_send_at(moment, socket, now.tv_sec, number, 1, IVS_TYPE_TEXT, "text", 4, &relay, sizeof relay);
        }
        ivs_srdp_packet_handle(socket, &now);
        return std::string();
    });
    std::set<uint32_t> handed_up;
    int wrong = 0;
    Side receiver([&](int socket, int tick) {
        timeval now = time_of(tick);
        drain(socket, [&](const std::string &packet, const PacketAddress &from) {
            const auto length = static_cast<int>(packet.size());
            if (ivs_srdp_packet(socket, now.tv_sec, packet.data(), length, &from, sizeof from) == 0) return;
            uint32_t number = 0;
            memcpy(&number, packet.data() + IVS_SRDP_HEAD + 1, sizeof number);
            wrong += number >= PACKETS || !handed_up.insert(number).second;
        });
        ivs_srdp_packet_handle(socket, &now);
        return std::to_string(handed_up.size()) + " and wrong or twice " + std::to_string(wrong);
    });

    Line there(nearReceiver, receiver.address(), random), back(nearSender, sender.address(), random);
    std::string result;
    for (int tick = 0; tick < TICKS && result != "(nothing)"; tick++) {
        ASSERT_EQ(sender.run(tick), "");
        drain(nearSender.get(), [&](const std::string &packet, const PacketAddress &) { there.take(tick, packet); });
        there.release(tick);
        result = receiver.run(tick);
        drain(nearReceiver.get(), [&](const std::string &ack, const PacketAddress &) { back.take(tick, ack); });
        back.release(tick);
    }
    EXPECT_EQ(result, std::to_string(there.numbers.size()) + " and wrong or twice 0");
    const Totals sent(sender.run(END)), received(receiver.run(END));
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
