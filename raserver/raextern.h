/* What a concrete server and a client program see of the Remote Access library.
 *
 * For a server: the hooks raEvent... that it defines, and the calls by which a hook reads a request and writes its
 * result. For a client: a client object and a blocking request. For both: the framed encoding by which a value that
 * plain text can't carry travels as text. */
#ifndef RASERVER_RAEXTERN_H
#define RASERVER_RAEXTERN_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "packet/packet.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct RA_SESSION_S RA_SESSION_S;
typedef struct RA_CONN_S RA_CONN_S;
typedef struct RA_CLIENT_S RA_CLIENT_S;
typedef struct RA_REQUEST_S RA_REQUEST_S;

/** Limits of a request and of a reply. */
enum {
    RA_MAX_STRINGS = 1500,        /* strings in a request or a reply; a receiver stops reading there */
    RA_MAX_REQUEST_TEXT = 32000,  /* bytes of a request's strings, zero bytes included */
    RA_MAX_REPLY_TEXT = 31999,    /* the same of a reply */
    RA_MAX_DATAGRAM = 32768,      /* largest datagram that is read */
    RA_HEADER_SIZE = 7            /* type, function, 0, sequence number (4 bytes in the client's own order) */
};

/** The function byte of a datagram. */
enum { RA_FUNCTION_SYNC = 1, RA_FUNCTION_RESULT = 2, RA_FUNCTION_REFUSED = 3, RA_FUNCTION_ASYNC = 4 };

/** Result codes of requests; 0 and above is the number of result strings. */
enum {
    RAERRFULL = -5,        /* raSetResult: the string does not fit into the reply any more */
    RAERRHOST = -1,        /* the server's name could not be resolved */
    RAERRSOCKET = -2,      /* no socket */
    RAERRKILLED = -3,      /* the process was told to stop while it waited */
    RAERRTOOLONG = -5,     /* the strings take more than RA_MAX_REQUEST_TEXT bytes */
    RAERRTOOMANY = -6,     /* more than RA_MAX_STRINGS strings */
    RAERRTIMEOUT = -7,     /* no answer */
    RAERRMEM = -8,         /* no memory */
    RAERRNOCLIENT = -9,    /* not a client object */
    RAERRDENIED = -10,     /* the server refused */
    RAERRDESTROYED = -11   /* the client was destroyed with the request pending */
};

/* ---- Hooks: a server defines them, main stores all but the first in the server record ----------------------- */

/** Reads the concrete server's options out of the vector that process_init left. Non-zero ends the process. */
int raEventStartup(int argc, char **argv);

/** Serves one request: argv holds argc strings and a null. They may be rewritten in place but not grow. A request
 *  that gets no result is answered as refused. */
void raEventUdpRequest(RA_SESSION_S *session, int argc, char **argv);

/** Serves one complete HTTP request: an answer is what it appends with raSetHttpResult. Without one the connection is
 *  closed. */
void raEventHttpRequest(RA_CONN_S *connection);

/** Called once when the process ends. */
void raEventShutdown(int code);

/** Called at the first tick and then each periodic interval (60 s). */
void raEventPeriodic(struct timeval *now);

/* ---- Calls for a hook ----------------------------------------------------------------------------------------- */

/** The request's string at `index`, or null outside of 0 to argc-1. */
char *raGetArg(RA_SESSION_S *session, int index);

/** Peer address and port, both in network order. */
uint32_t raGetPeerIp(RA_SESSION_S *session);
uint16_t raGetPeerPort(RA_SESSION_S *session);

/** Appends a result string. Returns the new length of the results, or RAERRFULL: it did not fit, is null, or no request
 *  is running. Nothing of the string was then written, earlier ones stay. */
int raSetResult(RA_SESSION_S *session, const char *text);

/** Drops all results of the running request. Returns 0. */
int raClearResult(RA_SESSION_S *session);

/** The server's configured address (network order, 0 for none) and its UDP port (host order). */
uint32_t raGetLocalIp(void);
uint16_t raGetPort(void);

/** Sets how often the periodic hook is called. Returns 0. */
int raSetPeriodicInterval(int seconds, int microseconds);

/** Dotted text of an address in network order; good until the next such call. */
char *raIpString(uint32_t address);

/* For the hook of HTTP requests. The request stays readable and in its place until the hook returns. */

/** Appends to the answer, which is sent as it stands when the hook has returned: status line and header are the hook's
 *  own. Returns the length of the answer so far; it has not grown if memory is short (in the log). */
int raSetHttpResult(RA_CONN_S *connection, const char *text);

/** Drops the answer. Returns 0. */
int raClearHttpResult(RA_CONN_S *connection);

/** Peer address and port, both in network order. */
uint32_t raConnGetIp(RA_CONN_S *connection);
uint16_t raConnGetPort(RA_CONN_S *connection);

/** Header (from the method on, to the end of the blank line), body, and URL. The body of a GET is null, and nothing
 *  ends a body but its length. `length` may be null; that of the URL counts its terminator. */
char *raConnGetHeader(RA_CONN_S *connection, int *length);
unsigned char *raConnGetBody(RA_CONN_S *connection, int *length);
char *raConnGetUrl(RA_CONN_S *connection, int *length);

/** Makes a client that lives inside this server: raclient_udp_create, linked into the server record. Null without
 *  memory. raClientRemove unlinks it and destroys it. */
RA_CLIENT_S *raClientAdd(const char *host, uint16_t port, int interval, int tries);
void raClientRemove(RA_CLIENT_S *client);

/** Escape pair for the bytes 0, 1 and 2 (as 2,3 and 2,4 and 2,5). Published as they stand: only the first byte of
 *  the input is converted, whatever its length. The result is good until the next call of the same function; null
 *  without memory. raNet2Mem stores the bytes written (1, or 0 without memory) in *length unless that is null. */
char *raMem2Net(const char *data, int length);
char *raNet2Mem(const char *text, int *length);

/* ---- Framed values ----------------------------------------------------------------------------------------------- */

/** Frames a text so that any byte but 0 can travel: byte 1, then letters and digits as they stand and %xx for the
 *  rest, then byte 1. A new block, released with free(); null without memory or for null. */
char *orEncode(const char *text);

/** Undoes the frame. Gives `text` itself if it has none, otherwise a new block (free), never longer than the text;
 *  null without memory, for null, and for the text that is the single byte 1. */
char *orDecode(char *text);

/* ---- Client -------------------------------------------------------------------------------------------------------- */

/** Makes a client object. Nothing is resolved or opened yet.
 *
 *  @param port      the server's port, host order
 *  @param interval  seconds between sends; below 1: 3
 *  @param tries     number of intervals to wait; below 1: 5
 *  @return the object, or null without memory
 */
RA_CLIENT_S *raclient_udp_create(const char *host, uint16_t port, int interval, int tries);

/** For a client: calls each pending callback with RAERRDESTROYED, closes the socket, frees everything. For a request
 *  object: frees it. Anything else is left alone. */
void raclient_udp_destroy(void *object);

/** Sends a request and waits for the answer, sending again every interval. Ends early when process_context.running
 *  is cleared; a program that doesn't call process_init sets it to 1 itself before its first request.
 *
 *  @param argv  argc strings; a null among them ends the list early
 *  @return number of result strings, or a code from RAERRHOST to RAERRDENIED; raclient_errmsg has the text
 */
int raclient_udp_request(RA_CLIENT_S *client, int argc, char **argv);

/** Error text of a client or a request; "Invalid client pointer." for anything else. Not to be written to. */
char *raclient_errmsg(void *object);

/** The result string at `index` of a client's last request, or of a request in its callback; null outside of the
 *  results. Good until the next request. */
char *raclient_result(void *object, int index);
char *raclient_request_result(RA_REQUEST_S *request, int index);

/** Unlinks a pending request from its client and frees it. Does nothing if either is no such object. */
void raclient_request_delete(RA_CLIENT_S *client, RA_REQUEST_S *request);

#ifdef __cplusplus
}
#endif

#endif
