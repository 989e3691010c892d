/* The server core's own records and calls: the one server context, sessions, connections, clients, and the run loop.
 *
 * Outside of raserver/ only main, the tests and programs that run the loop themselves need this header; a hook gets
 * along with raextern.h. */
#ifndef RASERVER_RASERVER_H
#define RASERVER_RASERVER_H

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>

#include "foundation/paa.h"
#include "raserver/raextern.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RA_VERSION "51010"

/** Exit codes of raserver_init; the negated code of process_init comes besides. */
enum { RAEXITPORT = 101, RAEXITMEM = 102, RAEXITSOCKET = 104 };

/** What the server remembers of a peer, so that a repeated request has its effect only once. */
struct RA_SESSION_S {
    uint32_t sessionId;        /* 0 for synchronous requests, else the sequence number */
    uint32_t peerIp;           /* network order */
    uint16_t peerPort;         /* network order */
    uint32_t sequence;         /* of the last request answered, in the client's own byte order */
    time_t created;            /* ra_server.now at creation */
    time_t lastUsed;           /* the same at the last reply or replay */
    long packets;              /* replies sent, replays not counted */
    unsigned char *reply;      /* while a request runs, the header position of the static reply buffer; afterwards
                                   an own copy of the last datagram sent; may be null */
    unsigned int replyLength;  /* bytes of result strings */
    unsigned int headerLength; /* bytes in front of them */
    int argc;                  /* strings of the running request, else 0 */
    char **argv;
    struct RA_SESSION_S *previous, *next; /* list of all sessions, newest first */
    /* Of our own, behind the published fields: */
    struct RA_SESSION_S *idlePrevious, *idleNext; /* list of all sessions by use, longest idle first */
    unsigned int savedLength;                     /* bytes of the own copy in reply; 0 while there is none */
    unsigned char requestDigest[32];              /* of the request answered; hardened only, as is: */
    struct RA_OLDER_REPLY_S *olderReplies;        /* to the requests before, newest first */
};

/** A reply that was sent before a session's last one, with the request that it answers. */
struct RA_OLDER_REPLY_S {
    struct RA_OLDER_REPLY_S *next;
    uint32_t sequence;
    unsigned char requestDigest[32];
    unsigned char *datagram; /* owned */
    unsigned int length;
};

/** A TCP connection: one HTTP request and its answer. Pointers into the input move along when that grows. */
struct RA_CONN_S {
    int socket;             /* non-blocking */
    char *peerName;         /* dotted address, or empty; owned */
    uint32_t peerIp;        /* host order */
    uint16_t peerPort;      /* host order */
    time_t created;         /* ra_server.now at the accept */
    time_t lastUsed;        /* the same when data last went in or out */
    unsigned char *input;   /* what has come, with a zero byte behind it; owned */
    unsigned int inputSize; /* allocated, less one */
    unsigned int inputLength;
    unsigned int inputLimit;    /* while inputLength is below it, more is read */
    int method;                 /* 0 until known, then 'G' or 'P' */
    unsigned int headerLength;  /* up to and with the line feed that ends the blank line */
    char *header;               /* the input's start, once the header is complete; a zero byte ends it */
    unsigned int urlLength;     /* with its terminator */
    char *url;                  /* owned */
    unsigned int contentLength; /* POST: what the header says */
    unsigned char *body;        /* POST: first byte behind the header, in the input */
    unsigned char *output;      /* the answer, with a zero byte behind it; owned */
    unsigned int outputSize;    /* allocated, less one */
    unsigned int outputSent;
    unsigned int outputLength;
    struct RA_CONN_S *next, *previous; /* in ra_server.connections, oldest first */
};

/** A count of bytes: `high` times 0x3fffffff, and `low`, which is never more than that. */
typedef struct RA_CONN_BYTES_S {
    unsigned int high, low;
} RA_CONN_BYTES_S;

/** Connections that were closed, and what went through them. */
typedef struct RA_CONN_STATS_S {
    time_t second; /* that the record stands for; of no meaning in a sum */
    unsigned long connections;
    RA_CONN_BYTES_S in, out;
} RA_CONN_STATS_S;

typedef struct RA_SESSION_LIST_S {
    RA_SESSION_S *head, *tail;
} RA_SESSION_LIST_S;
typedef struct RA_CONN_LIST_S {
    RA_CONN_S *head, *tail;
} RA_CONN_LIST_S;
typedef struct RA_CLIENT_LIST_S {
    RA_CLIENT_S *head, *tail;
} RA_CLIENT_LIST_S;
typedef struct RA_REQUEST_LIST_S {
    RA_REQUEST_S *head, *tail;
} RA_REQUEST_LIST_S;

/** The server context: time, sockets, counters, lists, hooks. */
typedef struct RA_SERVER_S {
    time_t now;        /* time of the current event; read instead of the clock */
    time_t lastReport; /* when the minute statistics were last logged */
    uint16_t port;     /* UDP port, host order */
    uint32_t localIp;  /* configured bind address, network order; 0 for none */
    int udpSocket;
    int isServer;                    /* status header, periodic hook, minute report */
    struct timeval periodicInterval; /* how often onPeriodic is called */
    struct timeval tick;             /* how often raserver_periodic runs */
    struct timeval nextPeriodic;     /* when onPeriodic is next due */
    volatile sig_atomic_t statusWanted;
    unsigned long zeroPackets;
    unsigned long unknownPackets;
    unsigned long udpRequests;
    unsigned long udpReplays;
    PAA_S *sessionTable; /* made at the first session */
    unsigned long sessionCount;
    unsigned long sessionTotal;
    RA_SESSION_LIST_S sessions;
    RA_CONN_LIST_S connections;
    long connCount, connTotal;
    RA_CLIENT_LIST_S clients; /* clients that live inside this server */
    void (*onUdpRequest)(RA_SESSION_S *session, int argc, char **argv);
    void (*onHttpRequest)(RA_CONN_S *connection);
    void (*onShutdown)(int code);
    void (*onPeriodic)(struct timeval *now);
    int tcpSocket;
    uint16_t tcpPort;
    const char *tcpHost; /* not owned */
    uint32_t tcpIp;
    /* Of our own, behind the published fields: */
    RA_SESSION_LIST_S idleSessions; /* sessions by use, longest idle first */
    unsigned long savedReplyBytes;  /* of all sessions together */
    time_t lastSweep;               /* when idle sessions were last swept away; 0: never */
    unsigned long droppedSessions;  /* sessions given up to keep within the limits, ever */
    time_t lastDropReport;          /* when that was last logged */
} RA_SERVER_S;

extern RA_SERVER_S ra_server;

/** A client object. */
struct RA_CLIENT_S {
    const char *tag;        /* "RA server client": the library's own text, told by its address */
    char *host;             /* owned */
    uint32_t ip;            /* resolved address, network order */
    uint16_t port;          /* host order */
    PacketAddress *address; /* owned; made at the first request */
    int addressLength;
    uint32_t sequence; /* next number; random start, unless the program sets one */
    time_t deadline;   /* of the running blocking request */
    int interval;      /* seconds between sends */
    int tries;         /* intervals to wait */
    int socket;        /* -1 until first use; closed with the client. A program may lend its own */
    int result;        /* outcome of the running request */
    char error[1024];
    unsigned char request[32044]; /* the datagram in full */
    int requestLength;
    int resultCount;
    char *resultVector[RA_MAX_STRINGS + 1];
    RA_REQUEST_LIST_S pending;
    RA_CLIENT_S *next, *previous; /* in ra_server.clients */
};

/** One asynchronous request. Its times are those of ra_server.now. */
struct RA_REQUEST_S {
    const char *tag; /* "RA server request", as above */
    int socket;      /* that it is sent from: the client's at the time of the first send */
    uint32_t sequence;
    time_t deadline;
    time_t lastSent;
    RA_CLIENT_S *client;           /* owner */
    RA_REQUEST_S *next, *previous; /* in the client's pending list */
    RA_CALLBACK callback;
    void *user;
    int resultCount;
    int requestLength;
    char *resultVector[RA_MAX_STRINGS + 1];
    unsigned char request[32045];
    char error[1024];
};

/* ---- Start and end ------------------------------------------------------------------------------------------ */

/** Reads the options, becomes a process of the platform, binds the sockets. Writes the usage text to standard error
 *  if there is no port. Returns 0 or an exit code: RAEXIT..., or the negated code of process_init. */
int raserver_init(int *argc, char **argv, RA_SERVER_S *context, void (*usage)(const char *program));

/** Prints the usage text, to standard error or to a stream of the caller's choice. */
void raserver_usage(const char *program);
void raserver_print_usage(FILE *stream, const char *program);

/** When this server was built, as "Oct 23 2001" and "15:58:23". */
const char *raserver_build_date(void);
const char *raserver_build_time(void);

/** Logs the shutdown status (once), calls the shutdown hook, closes the sockets. */
void raserver_exit(RA_SERVER_S *context, int code);

/** raserver_exit on the server context: for process_context.exitHook. */
void raserver_exit_hook(int code);

/** Handler of SIGUSR1: asks for a status print. */
void raserver_sigusr1_handler(int signalNumber);

/* ---- Run loop -------------------------------------------------------------------------------------------------- */

/** Runs until process_context.running is cleared. All but context, socket and tick may be null.
 *
 *  @param selectSet  fills both sets, returns the highest descriptor; null: the loop waits for the socket alone
 *  @param accept     serves the listening socket, returns non-zero if it used a ready descriptor
 *  @param data       serves ready connections, given the number of ready descriptors left
 *  @param periodic   called at the start and at each tick
 *  @param packet     called for each datagram; a zero byte and 64 more lie behind it
 *  @param status     called with `stream` when a wait was interrupted
 *  @param hourly     called at the first turn and whenever the local hour changes
 */
void raConnRun(void *context, int udpSocket, struct timeval *tick,
               int (*selectSet)(void *context, fd_set *readSet, fd_set *writeSet),
               int (*accept)(void *context, fd_set *readSet),
               void (*data)(int count, void *context, fd_set *readSet, fd_set *writeSet),
               void (*periodic)(void *context, struct timeval *now),
               void (*packet)(void *context, struct timeval *now, unsigned char *packet, int length, void *address,
                              int addressSize),
               void (*status)(void *context, struct timeval *now, FILE *stream), FILE *stream,
               void (*hourly)(void *context, struct timeval *now));

/* ---- TCP connections ---------------------------------------------------------------------------------------------
 * The first three are the steps of raConnRun for a server with a TCP port; their context is the RA_SERVER_S. ---------- */

/** Fills both sets with the open sockets: the UDP socket, the listening one, and the connections that have something
 *  to read or to write. Returns the highest descriptor, or -1. */
int raConnSelectSet(void *context, fd_set *readSet, fd_set *writeSet);

/** Takes a connection if one waits. Returns 1 if the listening socket was ready, else 0. */
int raConnAccept(void *context, fd_set *readSet);

/** Writes and reads what is ready, at most `count` events. A complete request goes to the hook onHttpRequest. Nothing
 *  but an answer of the hook is ever sent: who errs, asks for too much (262143 bytes) or gets no answer is cut off. */
void raConnData(int count, void *context, fd_set *readSet, fd_set *writeSet);

/** Accepts a connection, if its address may be served, and links it into the list. Failures are in the log. */
void raConnNewConnection(RA_SERVER_S *context);

/** Counts, closes, unlinks and frees a connection; `hard` is clearLinger of packet_closeSocket. */
void raConnCloseConnection(RA_SERVER_S *context, RA_CONN_S *connection, int hard);

/** Sums over the last `seconds` complete seconds, held to 1..60, by ra_server.now. In static storage, until the next
 *  call; not to be written to. */
RA_CONN_STATS_S *raConnStats(int seconds);

/** Logs the last minute's connections and bytes, as "<name>.CO last minute ...". */
void raConnLogStats(const char *name);

/** Sorts a datagram by its first byte and serves it. The byte behind it must be writable, as the run loop sees to. */
void ra_reply(void *context, struct timeval *now, unsigned char *packet, int length, void *address, int addressSize);

/** Serves an RA request: checks, session, replay, hook, reply. */
void raserver_udp_request(RA_SERVER_S *context, unsigned char *packet, int length, void *address, int addressSize);

/** Takes the answer to an asynchronous request of a client in `clients`, calls its callback and deletes it. A datagram
 *  that is none (another peer, another number, cut short, neither result nor refusal) is passed over. */
void raclient_udp_reply(RA_SERVER_S *context, unsigned char *packet, int length, void *address);

/** The tick: status, resends and time-outs of clients' requests, the periodic hook, and once a minute the sweeps and the
 *  report. */
void raserver_periodic(void *context, struct timeval *now);

/** Prints the status to `stream` if one is wanted; `now` null means the shutdown form. */
void raserver_status(void *context, struct timeval *now, FILE *stream);

/* ---- Sessions: address and port in network order ------------------------------------------------------------------ */

/** Makes a session. Null without memory (reported). A disagreement of table and list ends the process. */
RA_SESSION_S *raserver_session_create(RA_SERVER_S *context, uint32_t id, uint32_t ip, uint16_t port);

/** Finds a session, or gives null. */
RA_SESSION_S *raserver_session_find(RA_SERVER_S *context, uint32_t id, uint32_t ip, uint16_t port);

/** Removes a session with its saved reply. */
void raserver_session_delete(RA_SERVER_S *context, RA_SESSION_S *session);

#ifdef __cplusplus
}
#endif

#endif
