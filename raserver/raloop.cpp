/* The server's run loop: the platform's loop, with a wait for the listening socket and the connections as well. */
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>

#include "ivs/runloop.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

constexpr char label[] = "raConnRun";

RunLoopBuffer request_buffer;  // every datagram is read into this one

/** The steps that other loops don't have. All functions may be null. */
struct ServerSteps {
    int (*select_set)(void *context, fd_set *readSet, fd_set *writeSet);
    int (*accept)(void *context, fd_set *readSet);
    void (*data)(int count, void *context, fd_set *readSet, fd_set *writeSet);
    void (*status)(void *context, struct timeval *now, FILE *stream);
    FILE *stream;
};

class ServerLoop : public RunLoop {
public:
    ServerLoop(const RunLoopCalls &calls, const ServerSteps &steps)
        : RunLoop(calls, request_buffer), context_(calls.context), socket_(calls.socket), steps_(steps) {}

private:
    bool wait_until_ready(timeval *wait) override;
    bool serve_ready(int count, fd_set *read_set, fd_set *write_set) const;
    void interrupted() override;
    void clock_was_set(time_t seconds) override;

    void *const context_;
    const int socket_;
    const ServerSteps steps_;
};

// Without a select step the socket is all there is, so the wait is left to the read: one system call less.
bool ServerLoop::wait_until_ready(timeval *wait) {
    if (steps_.select_set == nullptr) return true;
    fd_set read_set;
    fd_set write_set;
    FD_ZERO(&read_set);
    FD_ZERO(&write_set);
    const int highest = steps_.select_set(context_, &read_set, &write_set);
    const int count = select(highest + 1, &read_set, &write_set, nullptr, wait);
    const int error = errno;
    if (!process_context.running || count == 0) return false;
    if (count < 0) {
        if (error == EINTR) return false;
        process_error("select error\n");
        pause_after_failure();
        return false;
    }
    timerclear(wait);
    return serve_ready(count, &read_set, &write_set);
}

// Serves what is ready of TCP. Returns whether a datagram waits to be read.
bool ServerLoop::serve_ready(int count, fd_set *read_set, fd_set *write_set) const {
    if (steps_.accept != nullptr && steps_.accept(context_, read_set) != 0) count--;
    const bool is_ready = count > 0 && socket_ >= 0 && FD_ISSET(socket_, read_set);
    if (is_ready) count--;
    if (count > 0 && steps_.data != nullptr) steps_.data(count, context_, read_set, write_set);
    return is_ready;
}

void ServerLoop::interrupted() {
    if (steps_.status != nullptr) steps_.status(context_, now(), steps_.stream);  // a signal may have asked for it
}

void ServerLoop::clock_was_set(time_t seconds) {
    process_trace("%s: the clock was set by %ld seconds\n", label, static_cast<long>(seconds));
    ra_clock_was_set(&ra_server, seconds);
}

}  // namespace

extern "C" void raConnRun(void *context, int udpSocket, struct timeval *tick,
                          int (*selectSet)(void *context, fd_set *readSet, fd_set *writeSet),
                          int (*accept)(void *context, fd_set *readSet),
                          void (*data)(int count, void *context, fd_set *readSet, fd_set *writeSet),
                          void (*periodic)(void *context, struct timeval *now),
                          void (*packet)(void *context, struct timeval *now, unsigned char *packet, int length,
                                         void *address, int addressSize),
                          void (*status)(void *context, struct timeval *now, FILE *stream), FILE *stream,
                          void (*hourly)(void *context, struct timeval *now)) {
    ServerLoop({label, context, udpSocket, tick, periodic, packet, hourly}, {selectSet, accept, data, status, stream})
        .run();
}
