/* The run loop: ticks, packets, bursts, the hour, signals, failed reads, and a wall clock that somebody sets. */
#include <signal.h>
#include <string.h>

#include "ivs/ivssrdpi.h"
#include "tests/packet/sockets.h"
#include "tests/support/setclock.h"

namespace {

class RunLoop : public SocketTest {
protected:
    RunLoop() { process_context.noAccessKeyCheck = 1; }  // no key file is looked for
    ~RunLoop() override { clock_was_set_by = 0; }

    const OwnedFd socket{packet_clt_socket_ip(LOOPBACK)};
    const PacketAddress self = name_of(socket.get());
    std::string events;  // T for a tick, p for a packet, H for the hour, i for an interruption
    int ticks = 0;       // still to come; the last one stops the loop
    std::function<void()> at_tick = [] {}, at_packet = [] {};

    void send(const std::string &packet) const {
        packet_sendto(socket.get(), packet.data(), static_cast<int>(packet.size()), &self, sizeof self);
    }
    void run(timeval interval, int count, int fd) {
        ticks = count;
        ivsrun(
            this, fd, &interval,
            [](void *context, timeval *) {
                auto &test = *static_cast<RunLoop *>(context);
                test.events += 'T';
                test.at_tick();
                if (--test.ticks == 0) process_context.running = 0;
            },
            [](void *context, timeval *, unsigned char *packet, int length, void *address, int size) {
                auto &test = *static_cast<RunLoop *>(context);
                test.events += 'p';
                EXPECT_EQ(packet[length], 0);
                EXPECT_EQ(size, 16);
                EXPECT_EQ(memcmp(address, &test.self, sizeof test.self), 0);
                test.at_packet();
            },
            [](void *context, timeval *, void *idle_arg) {
                auto &test = *static_cast<RunLoop *>(context);
                EXPECT_EQ(idle_arg, &test.events);
                test.events += 'i';
            },
            &events, [](void *context, timeval *) { static_cast<RunLoop *>(context)->events += 'H'; });
    }
    void run(timeval interval, int count) { run(interval, count, socket.get()); }
};

constexpr timeval SOON{0, 1000}, NEVER{1000, 0}, AT_ONCE{0, 0};

TEST_F(RunLoop, TicksAtOnceAndThenByItsInterval) {
    timeval begun{}, ended{};
    gettimeofday(&begun, nullptr);
    run({0, 20000}, 4);
    gettimeofday(&ended, nullptr);
    EXPECT_EQ(events, "THTTT");
    timersub(&ended, &begun, &ended);
    EXPECT_GE(ended.tv_sec * 1000000 + ended.tv_usec, 60000);
}

TEST_F(RunLoop, ReadsInBurstsWhenATickIsLate) {
    int left = 1030;
    const auto keep_on = [&] {
        if (left-- > 0) send("x");
    };
    at_tick = [&] {
        if (left == 1030) keep_on();
    };
    at_packet = keep_on;
    run(AT_ONCE, 4);
    EXPECT_EQ(events, "THT" + std::string(1024, 'p') + "T" + std::string(6, 'p') + "T");
}

TEST_F(RunLoop, ASignalEndsTheWaitAndCallsWhoeverIdles) {
    struct sigaction action {
    }, before{};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    const itimerval soon{{0, 0}, {0, 20000}}, often{{0, 20000}, {0, 20000}}, off{};
    at_tick = [&] { setitimer(ITIMER_REAL, ticks == 2 ? &soon : &often, nullptr); };
    run({0, 500000}, 2);
    EXPECT_EQ(events, "THiT");

    events.clear();
    process_context.running = 1;
    action.sa_handler = [](int) { process_context.running = 0; };
    sigaction(SIGALRM, &action, nullptr);
    run(NEVER, 2);
    EXPECT_EQ(events, "TH") << "no call any more when the process is to stop";
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST_F(RunLoop, GoesOnAfterAFailedRead) {
    const std::string lines = told([&] { run({0, 250000}, 3, -1); });
    EXPECT_EQ(events, "THTT");
    const std::string line = "ivsrun: packet_read failed! rc -1005, errmsg Bad file descriptor\n";
    size_t count = 0;
    for (size_t at = lines.find(line); at != std::string::npos; at = lines.find(line, at + 1)) ++count;
    EXPECT_GE(count, 2U);
    EXPECT_LE(count, 10U) << "it pauses, for the log's sake";
}

TEST_F(RunLoop, StepOfTheWallClockDisturbsNoWait) {
    ivs_srdp_packet_send(socket.get(), time(nullptr), 0, 7, 151, "", 0, &self, sizeof self);
    timespec begun{}, ended{};
    clock_gettime(CLOCK_MONOTONIC, &begun);
    for (const time_t step : {7200, -7200}) {
        process_context.running = 1;
        at_tick = [&] {
            if (ticks == 3) clock_was_set_by += step;
        };
        run({0, 50000}, 4);
        timeval now{};
        gettimeofday(&now, nullptr);
        ivs_srdp_packet_handle(socket.get(), &now);
        EXPECT_EQ(ivs::srdp_stats_at(now.tv_sec + 1, 60)[ivs::SRDP_TIM], 0U) << "what waits, waits on";
    }
    clock_gettime(CLOCK_MONOTONIC, &ended);
    EXPECT_EQ(events, "THpTHTTTHTHTT") << "an hour changes with it, and no tick comes early or late";
    EXPECT_LT(ended.tv_sec - begun.tv_sec, 3);
    ivs::srdp_reset();
}

}  // namespace
