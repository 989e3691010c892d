/* The run loop alone: what it calls, when, and with which bytes. */
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <csignal>

#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tests/support/addresses.h"
#include "tests/support/setclock.h"
#include "tests/support/testclient.h"

namespace {

struct Seen {
    int periodic = 0, hourly = 0, status = 0, data = 0, accepts = 0;
    std::vector<std::string> packets;
    std::vector<int> periodicAtPacket;
    bool tailWasZero = true;
    // What ends the loop; 0: never.
    int stopAtPeriodic = 0;
    size_t stopAtPackets = 0;
    useconds_t periodicTakes = 0;
    time_t clockStepAtPeriodic = 0;  // at the second one
    int udp = -1, other = -1;
};

Seen *seen_in(void *context) { return static_cast<Seen *>(context); }

void on_periodic(void *context, struct timeval *) {
    Seen *seen = seen_in(context);
    if (seen->periodicTakes != 0) usleep(seen->periodicTakes);
    if (++seen->periodic == seen->stopAtPeriodic) process_context.running = 0;
    if (seen->periodic == 2) clock_was_set_by += seen->clockStepAtPeriodic;
}
void on_packet(void *context, struct timeval *, unsigned char *packet, int length, void *, int) {
    Seen *seen = seen_in(context);
    seen->packets.emplace_back(reinterpret_cast<char *>(packet), static_cast<size_t>(length));
    seen->periodicAtPacket.push_back(seen->periodic);
    for (int at = 0; at < 64; ++at) seen->tailWasZero = seen->tailWasZero && packet[length + at] == 0;
    if (seen->packets.size() == seen->stopAtPackets) process_context.running = 0;
}
void on_status(void *context, struct timeval *, FILE *stream) {
    ++seen_in(context)->status;
    EXPECT_EQ(stream, stderr);
    process_context.running = 0;
}
void on_hour(void *context, struct timeval *) { ++seen_in(context)->hourly; }
int on_select_set(void *context, fd_set *readSet, fd_set *) {
    FD_SET(seen_in(context)->udp, readSet);
    FD_SET(seen_in(context)->other, readSet);
    return std::max(seen_in(context)->udp, seen_in(context)->other);
}
int on_accept(void *context, fd_set *readSet) {
    Seen *seen = seen_in(context);
    const bool ready = FD_ISSET(seen->other, readSet);
    char byte;
    if (ready && read(seen->other, &byte, 1) == 1) ++seen->accepts;
    return ready;
}
void on_data(int, void *context, fd_set *, fd_set *) { ++seen_in(context)->data; }

void stop_running(int) { process_context.running = 0; }
void only_interrupt(int) {}

class RunLoop : public testing::Test {
protected:
    Seen seen;
    timeval tick{0, 100000};
    std::unique_ptr<TestClient> client;

    void SetUp() override {
        process_context.running = 1;
        process_context.silent = 1;
        seen.udp = packet_srv_bound_socket(htonl(INADDR_LOOPBACK), 0);
        client = std::make_unique<TestClient>(port_of(seen.udp));
    }
    void TearDown() override { close(seen.udp); }

    static void alarm_in(int microseconds, void (*handler)(int)) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigaction(SIGALRM, &action, nullptr);
        const itimerval timer{{0, microseconds}, {0, microseconds}};  // again and again: one may come too early
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    static void no_alarm() {
        const itimerval none{};
        setitimer(ITIMER_REAL, &none, nullptr);
    }
    void run() {
        raConnRun(&seen, seen.udp, &tick, nullptr, nullptr, nullptr, on_periodic, on_packet, on_status, stderr,
                  on_hour);
    }
};

TEST_F(RunLoop, HandsOverDatagramsWithZerosBehind) {
    const std::string prefix = "\xa4" + std::string(16, 'k');
    for (const std::string &datagram :
         {std::string(500, 'x'), std::string("abc"), std::string(), prefix + "y", prefix}) {
        client->send(datagram);
    }
    seen.stopAtPackets = 5;
    run();
    EXPECT_EQ(seen.packets, (Strings{std::string(500, 'x'), "abc", "", "y", prefix}));
    EXPECT_TRUE(seen.tailWasZero) << "an earlier datagram shows behind a shorter one";
    EXPECT_EQ(seen.periodicAtPacket.front(), 1) << "the first tick comes before the first datagram";
}

TEST_F(RunLoop, TicksAndTellsTheHourOnce) {
    tick.tv_usec = 2000;
    seen.stopAtPeriodic = 5;
    run();
    EXPECT_EQ(seen.periodic, 5);
    EXPECT_LE(seen.hourly, 2) << "once, or twice around the full hour";
    EXPECT_GE(seen.hourly, 1);
}

TEST_F(RunLoop, MovesTheStoredTimesWhenTheWallClockIsSet) {
    for (const time_t step : {60, -60}) {
        ra_server.lastSweep = 1000000;
        tick.tv_usec = 2000;
        seen.periodic = 0;
        seen.stopAtPeriodic = 5;
        seen.clockStepAtPeriodic = step;
        process_context.running = 1;
        run();
        EXPECT_EQ(ra_server.lastSweep, 1000000 + step);
    }
    clock_was_set_by = 0;
}

TEST_F(RunLoop, ServesWhatWaitsWhenTheTickIsLate) {
    tick.tv_usec = 1000;
    seen.periodicTakes = 3000;
    seen.stopAtPackets = 100;
    for (int number = 0; number < 100; ++number) client->send(std::to_string(number));
    run();
    EXPECT_EQ(seen.packets.back(), "99");
    EXPECT_EQ(seen.periodicAtPacket.front(), seen.periodicAtPacket.back()) << "a late tick held up the datagrams";
}

TEST_F(RunLoop, AsksForTheStatusWhenAWaitIsInterrupted) {
    tick.tv_sec = 60;
    alarm_in(5000, only_interrupt);
    run();
    no_alarm();
    EXPECT_EQ(seen.status, 1);
}

TEST_F(RunLoop, LivesWithoutAnyFunction) {
    client->send("nobody reads this");
    alarm_in(20000, stop_running);
    raConnRun(nullptr, seen.udp, &tick, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    no_alarm();
    EXPECT_FALSE(client->receive(std::chrono::milliseconds(0)));
    char byte;
    EXPECT_LT(recv(seen.udp, &byte, 1, MSG_DONTWAIT), 0) << "it was read all the same";
}

TEST_F(RunLoop, TellsConnectionsOnlyOfWhatIsLeft) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    seen.other = ends[0];
    seen.stopAtPackets = 1;
    EXPECT_EQ(write(ends[1], "c", 1), 1);
    client->send("packet");
    raConnRun(&seen, seen.udp, &tick, on_select_set, on_accept, on_data, on_periodic, on_packet, nullptr, stderr,
              nullptr);
    EXPECT_EQ(seen.accepts, 1);
    EXPECT_EQ(seen.packets, (Strings{"packet"}));
    EXPECT_EQ(seen.data, 0) << "listening socket and datagram were all that was ready";
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
