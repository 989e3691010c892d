/* What the server does by the clock, and the status print.
 *
 * raserver_periodic is the tick of the run loop, ten times a second, so what it does at each tick are a few
 * comparisons. Here nobody asks the clock: the time is handed in. */
#include <cstdio>
#include <ctime>

#include "ivs/ivs.h"
#include "packet/packet.h"
#include "process/linelimit.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

constexpr time_t SWEEP_SECONDS = 60;
constexpr time_t REPORT_SECONDS = 60;
constexpr time_t SESSION_IDLE_SECONDS = 60;

// ---- Hook and sweep -----------------------------------------------------------------------------------------------

void call_periodic_hook(RA_SERVER_S &server, struct timeval *now) {
    if (!timercmp(now, &server.nextPeriodic, >)) return;
    if (server.onPeriodic != nullptr) server.onPeriodic(now);
    timeradd(now, &server.periodicInterval, &server.nextPeriodic);
}

void sweep_idle_sessions(RA_SERVER_S &server) {
    RA_SESSION_S *next = nullptr;
    for (RA_SESSION_S *session = server.sessions.head; session != nullptr; session = next) {
        next = session->next;
        if (server.now >= session->lastUsed + SESSION_IDLE_SECONDS) raserver_session_delete(&server, session);
    }
}

// Each of them, served or not: a connection lives for a minute at most.
void close_connections(RA_SERVER_S &server) {
    while (server.connections.head != nullptr) raConnCloseConnection(&server, server.connections.head, 1);
}

void write_report(RA_SERVER_S &server) {
    if (server.now < server.lastReport + REPORT_SECONDS) return;
    ivs_bandwidth_report("RA");
    raConnLogStats("RA");
    server.lastReport = server.now;
}

void work_of_the_minute(RA_SERVER_S &server) {
    if (server.now < server.lastSweep + SWEEP_SECONDS) return;
    server.lastSweep = server.now;
    sweep_idle_sessions(server);
    close_connections(server);
    if (server.isServer) write_report(server);
}

// ---- Status ---------------------------------------------------------------------------------------------------------

void print_server_header(const RA_SERVER_S &server, const struct timeval *now, FILE *stream) {
    if (now != nullptr) {
        fprintf(stream, "\nRA server status at %s", ctime(&now->tv_sec));
    } else {
        fprintf(stream, "\nRA server shutdown status\n");
    }
    fprintf(stream, "STARTED = %s", ctime(&process_context.startTime));
    fprintf(stream, "FILE    = %s\n", process_context.name != nullptr ? process_context.name : "");
    fprintf(stream, "VERSION = %s\n", RA_VERSION);
    fprintf(stream, "COMPILED= %s, %s\n", raserver_build_time(), raserver_build_date());
    fprintf(stream, "PORT USED:           %d\n", server.port);
}

struct Counter {
    const char *label;
    unsigned long RA_SERVER_S::*field;
};

constexpr Counter session_counters[] = {
    {"Total sessions ever: ", &RA_SERVER_S::sessionTotal},
    {"Current sessions:    ", &RA_SERVER_S::sessionCount},
};

constexpr Counter packet_counters[] = {
    {" Length 0 packets    ", &RA_SERVER_S::zeroPackets},
    {" UDP requests        ", &RA_SERVER_S::udpRequests},
    {" UDP replays         ", &RA_SERVER_S::udpReplays},
    {" Unknown             ", &RA_SERVER_S::unknownPackets},
};

template <size_t SIZE>
void print_counters(const RA_SERVER_S &server, const Counter (&counters)[SIZE], FILE *stream) {
    for (const Counter &counter : counters) fprintf(stream, "%s%lu\n", counter.label, server.*counter.field);
}

// ---- Clock ----------------------------------------------------------------------------------------------------------

// A time of 0 means "never" or "at once", and stays.
void move(time_t &time, time_t seconds) {
    if (time != 0) time += seconds;
}

}  // namespace

extern "C" {

void raserver_periodic(void *context, struct timeval *now) {
    RA_SERVER_S &server = *static_cast<RA_SERVER_S *>(context);
    server.now = now->tv_sec;
    LineLimit::report_all(server.now);
    if (server.isServer) raserver_status(&server, now, stderr);
    ra_serve_pending_requests(&server);
    if (server.isServer) {
        ivs_srdp_packet_handle(server.udpSocket, now);
        call_periodic_hook(server, now);
    }
    work_of_the_minute(server);
}

void raserver_status(void *context, struct timeval *now, FILE *stream) {
    RA_SERVER_S &server = *static_cast<RA_SERVER_S *>(context);
    if (!server.statusWanted) return;
    server.statusWanted = 0;

    if (server.isServer) {
        print_server_header(server, now, stream);
    } else {
        fprintf(stream, "\nRemote Access Statistics\n");
    }
    print_counters(server, session_counters, stream);
    fprintf(stream, "Packets received:\n");
    print_counters(server, packet_counters, stream);
    if (server.isServer) {
        packet_statistics(stream);
        ivs_srdp_print(stream);
    }
    fflush(stream);
}

void ra_clock_was_set(RA_SERVER_S *context, time_t seconds) {
    ivs_srdp_clock_was_set(seconds);
    move(context->now, seconds);
    move(context->lastReport, seconds);
    move(context->lastSweep, seconds);
    move(context->lastDropReport, seconds);
    move(context->nextPeriodic.tv_sec, seconds);
    for (RA_SESSION_S *session = context->sessions.head; session != nullptr; session = session->next) {
        move(session->created, seconds);
        move(session->lastUsed, seconds);
    }
    for (RA_CONN_S *connection = context->connections.head; connection != nullptr; connection = connection->next) {
        move(connection->created, seconds);
        move(connection->lastUsed, seconds);
    }
    for (RA_CLIENT_S *client = context->clients.head; client != nullptr; client = client->next) {
        for (RA_REQUEST_S *request = client->pending.head; request != nullptr; request = request->next) {
            move(request->deadline, seconds);
            move(request->lastSent, seconds);
        }
    }
}

}  // extern "C"
