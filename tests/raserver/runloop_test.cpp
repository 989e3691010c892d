/* What the server's run loop has beside the platform's: its wait for connections, the status, and a wall clock that is
 * set. */
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <csignal>
#include <functional>

#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tests/support/addresses.h"
#include "tests/support/setclock.h"
#include "tests/support/testclient.h"

namespace {

class RunLoop : public testing::Test {
protected:
    ~RunLoop() override {
        const itimerval none{};
        setitimer(ITIMER_REAL, &none, nullptr);
        close(udp);
    }
    const int udp = quiet_socket();
    TestClient client{port_of(udp)};
    int listening = -1;  // stands for the TCP port
    timeval tick{60, 0};
    std::string
        events;  // T for a tick, H for the first hour, p for a packet, S for the status, a for an accept, d for data
    std::function<void(char event)> at_event = [](char) {};
    Strings packets;  // each with 64 bytes behind it

    static void stop() { process_context.running = 0; }
    static void alarm_in(int microseconds, void (*handler)(int)) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigaction(SIGALRM, &action, nullptr);
        const itimerval timer{{0, microseconds}, {0, microseconds}};  // again and again: one may come too early
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    void run() {
        process_context.running = 1;
        const bool has_tcp = listening >= 0;
        raConnRun(this, udp, &tick, has_tcp ? select_set : nullptr, has_tcp ? accept : nullptr,
                  has_tcp ? data : nullptr, periodic, packet, status, stderr, hourly);
    }

private:
    static int quiet_socket() {
        process_context.silent = 1;
        return packet_srv_bound_socket(htonl(INADDR_LOOPBACK), 0);
    }
    static RunLoop &note(void *context, char event) {
        auto &self = *static_cast<RunLoop *>(context);
        self.events += event;
        self.at_event(event);
        return self;
    }
    static int select_set(void *context, fd_set *readSet, fd_set *) {
        const auto &self = *static_cast<RunLoop *>(context);
        for (const int socket : {self.udp, self.listening}) FD_SET(socket, readSet);
        return std::max(self.udp, self.listening);
    }
    static int accept(void *context, fd_set *readSet) {
        const RunLoop &self = note(context, 'a');
        return FD_ISSET(self.listening, readSet);
    }
    static void data(int, void *context, fd_set *, fd_set *) { note(context, 'd'); }
    static void periodic(void *context, timeval *) { note(context, 'T'); }
    static void hourly(void *context, timeval *) {  // the test may run across a full hour
        if (static_cast<RunLoop *>(context)->events.find('H') == std::string::npos) note(context, 'H');
    }
    static void packet(void *context, timeval *, unsigned char *packet, int length, void *, int) {
        static_cast<RunLoop *>(context)->packets.emplace_back(packet, packet + length + 64);
        note(context, 'p');
    }
    static void status(void *context, timeval *, FILE *stream) {
        EXPECT_EQ(stream, stderr);
        note(context, 'S');
    }
};

TEST_F(RunLoop, HandsOverDatagramsWithoutAShownKeyAndWithZerosBehind) {
    const std::string key = "\xa4" + std::string(16, 'k');
    Strings expected{std::string(500, 'x'), "abc", "", "y", key};
    for (std::string &datagram : expected) {
        client.send(datagram == "y" ? key + datagram : datagram);
        datagram.append(64, '\0');
    }
    at_event = [&](char) {
        if (packets.size() == expected.size()) stop();
    };
    run();
    EXPECT_EQ(packets, expected) << "an earlier datagram shows behind a shorter one";
    EXPECT_EQ(events, "THppppp");
}

TEST_F(RunLoop, MovesTheStoredTimesWhenTheWallClockIsSet) {
    tick = {0, 2000};
    for (const time_t step : {60, -60}) {
        ra_server.lastSweep = 1000000;
        int ticks = 0;
        at_event = [&](char event) {
            if (event != 'T') return;
            if (++ticks == 2) clock_was_set_by += step;
            if (ticks == 5) stop();
        };
        run();
        EXPECT_EQ(ra_server.lastSweep, 1000000 + step);
    }
}

TEST_F(RunLoop, AsksForTheStatusWhenAWaitIsInterrupted) {
    at_event = [&](char event) {
        if (event == 'S') stop();
    };
    alarm_in(5000, [](int) {});
    run();
    EXPECT_EQ(events, "THS");
}

TEST_F(RunLoop, LivesWithoutAnyFunction) {
    client.send("nobody reads this");
    alarm_in(20000, [](int) { stop(); });
    process_context.running = 1;
    raConnRun(nullptr, udp, &tick, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_FALSE(client.receive(std::chrono::milliseconds(0)));
    char byte;
    EXPECT_LT(recv(udp, &byte, 1, MSG_DONTWAIT), 0) << "it was read all the same";
}

TEST_F(RunLoop, TellsConnectionsOnlyOfWhatIsLeft) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    listening = ends[0];
    EXPECT_EQ(write(ends[1], "c", 1), 1);
    client.send("packet");
    pollfd arrival{udp, POLLIN, 0};
    ASSERT_EQ(poll(&arrival, 1, 10'000), 1);
    at_event = [&](char event) {
        if (event == 'p') stop();
    };
    run();
    EXPECT_EQ(events, "THap") << "listening socket and datagram were all that was ready";
    for (const int end : ends) close(end);
}

}  // namespace
