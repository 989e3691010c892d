/* What a concrete server and a client program see of the Remote Access library.
 *
 * For a server: the hooks raEvent... that it defines, and the calls by which a hook reads a request and writes its
 * result. For a client: a client object, a blocking request, asynchronous ones, a script runner. For both: the framed
 * encoding by which a value that plain text can't carry travels as text. docs/client.md shows whole programs. */
#ifndef RASERVER_RAEXTERN_H
#define RASERVER_RAEXTERN_H

#include <stdint.h>
#include <stdio.h>
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
    RA_MAX_STRINGS = 1500,       /* strings in a request or a reply; a receiver stops reading there */
    RA_MAX_REQUEST_TEXT = 32000, /* bytes of a request's strings, zero bytes included */
    RA_MAX_REPLY_TEXT = 31999,   /* the same of a reply */
    RA_MAX_DATAGRAM = 32768,     /* largest datagram that is read */
    RA_HEADER_SIZE = 7           /* type, function, 0, sequence number (4 bytes in the client's own order) */
};

/** The function byte of a datagram. */
enum { RA_FUNCTION_SYNC = 1, RA_FUNCTION_RESULT = 2, RA_FUNCTION_REFUSED = 3, RA_FUNCTION_ASYNC = 4 };

/** Result code of raSetResult: the string does not fit into the reply any more. */
enum { RAERRFULL = -5 };

/** Result codes of requests; 0 and above is the number of result strings. With each goes the text that raclient_errmsg
 *  gives. In hardened mode a request under a key is too long with more than 31992 bytes, which are all that an envelope takes. */
enum {
    RAERRHOST = -1,     /* "gethostbyname(HOST) failed! error: REASON!": the server's name is not known */
    RAERRSOCKET = -2,   /* "Failed to get client socket! error: REASON!" */
    RAERRKILLED = -3,   /* "The process has been killed!": it was told to stop before an answer came */
    RAERRTOOLONG = -5,  /* "Arguments to long: More than 32000 bytes!": RA_MAX_REQUEST_TEXT, zero bytes included */
    RAERRTOOMANY = -6,  /* "Too many arguments: COUNT!": more than RA_MAX_STRINGS */
    RAERRTIMEOUT = -7,  /* "Timeout, raserver HOST:PORT does not answer." */
    RAERRMEM = -8,      /* "Failed to malloc SIZE bytes! error: REASON!" */
    RAERRNOCLIENT = -9, /* what was given is no client object; raclient_errmsg says "Invalid client pointer." of it */
    RAERRDENIED = -10,  /* "Request denied by server.": it answered that it does not carry the request out */
    RAERRDESTROYED = -11 /* no text: the client was destroyed with the request pending */
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

/** Makes a client that lives inside this server, or inside any program that runs the RA loop: raclient_udp_create, and
 *  linked into the server record, where the loop finds it. Only such a client gets answers to raUdpRequest. Null without
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

/* ---- Client --------------------------------------------------------------------------------------------------------
 * An object is told by its first field, which points to a constant text of the library; what has another is "no client
 * object", and is left alone. All calls are for one thread. */

/** Makes a client object. Nothing is resolved or opened yet: the first request does that, once in the client's life.
 *
 *  @param port      the server's port, host order
 *  @param interval  seconds between sends; below 1: 3
 *  @param tries     number of intervals to wait; below 1: 5
 *  @return the object, released with raclient_udp_destroy (or raClientRemove); or null, without memory (in the log) or
 *          for a null host
 */
RA_CLIENT_S *raclient_udp_create(const char *host, uint16_t port, int interval, int tries);

/** For a client: takes it out of the server record if it is linked there, calls the callback of each pending request
 *  with RAERRDESTROYED, closes the socket in its field (a program that lent it one sets the field to -1 before), and
 *  frees everything. For a request: unlinks and frees it, its callback is not called. Anything else, null among it, is
 *  left alone. May be called in any callback, also for the client or the request that the callback is about: both are
 *  gone when it returns, and no callback is called twice. */
void raclient_udp_destroy(void *object);

/** Sends a request and waits for the answer, sending again every interval. A process runs one at a time. While it waits
 *  the process's other loops stand still. It ends early when process_context.running is cleared; a program that doesn't
 *  call process_init sets that to 1 itself before its first request.
 *
 *  @param argv  argc strings; a null among them ends the list early
 *  @return number of result strings, read with raclient_result; or one of RAERRHOST to RAERRDENIED (RAERRNOCLIENT among
 *          them, but never RAERRMEM), told by raclient_errmsg. The log has only what packet.h says of names and sockets
 */
int raclient_udp_request(RA_CLIENT_S *client, int argc, char **argv);

/** Called once for each asynchronous request.
 *
 *  @param request  freed when the callback returns; its results are read here, with raclient_request_result
 *  @param user     as given to raUdpRequest
 *  @param result   number of result strings, RAERRTIMEOUT, RAERRDENIED, or RAERRDESTROYED: then its client is going, and
 *                  takes no further request
 */
typedef void (*RA_CALLBACK)(RA_REQUEST_S *request, void *user, int result);

/** Sends a request and comes back at once. The answer, the resends and the end of the wait come through the RA loop
 *  (raConnRun with raserver_periodic and ra_reply, see raserver.h), for clients of raClientAdd. Any number of requests
 *  may be open.
 *
 *  @param socket    -1: the client opens a socket at its first request. 0 or above: it opens none; the request goes out on
 *                   client->socket all the same, which the program has set: to the socket that its loop reads
 *  @param argv      argc strings; a null among them ends the list early
 *  @param callback  null: nobody is told
 *  @return 0: the callback will be called (or, for a null callback, the request is sent until its time is over); or
 *          RAERRHOST, RAERRSOCKET, RAERRTOOLONG, RAERRTOOMANY, RAERRMEM, RAERRNOCLIENT: it will not, and the client's
 *          raclient_errmsg tells why. That the first send failed is no error: the next may not
 */
int raUdpRequest(int socket, RA_CLIENT_S *client, int argc, char **argv, RA_CALLBACK callback, void *user);

/** Error text of a client or a request: "" if its last request had no error; "Invalid client pointer." for anything
 *  else. Good as long as the object, up to its next request. Not to be written to. */
char *raclient_errmsg(void *object);

/** The result string at `index` of a client's last blocking request, or of a request in its callback; null outside of
 *  the results. A client's are good until the next blocking request of any client, a request's until its callback
 *  returns or waits for another request. raclient_request_result takes a request only. */
char *raclient_result(void *object, int index);
char *raclient_request_result(RA_REQUEST_S *request, int index);

/** Gives a pending request up: unlinks it from its client and frees it, without calling its callback. Does nothing if
 *  either is no such object, or the request is another client's. */
void raclient_request_delete(RA_CLIENT_S *client, RA_REQUEST_S *request);

/** Runs a script: sends each line of the stream as a request, one after the other, and prints each result string as a
 *  line on standard output. A line holds words as raclient_next_word finds them, at most RA_MAX_STRINGS: more are left
 *  out. Empty lines are passed over, and those whose first word begins with "#". Lines of more than 32000 characters,
 *  their line feed included, are taken for several.
 *
 *  @return the number of all result strings when the stream ends; the code of the first request that fails;
 *          RAERRNOCLIENT; RAERRKILLED (with its text) if a read is interrupted because the process is to stop; -1, without
 *          a text, if the stream can't be read
 */
int raclient_udp_script(RA_CLIENT_S *client, FILE *stream);

/** Takes the next word off a line, which is written into. White space is skipped. A word runs to the next white space. One
 *  that begins with a double quote runs to the next double quote, the end of the line or of the text; \" in it stands for
 *  a double quote, and a backslash anywhere else for itself; "" is the empty word.
 *
 *  @param position  where to look; moved behind the word
 *  @return the word, in the line itself; null if there is none (also for a single double quote that ends the text)
 */
char *raclient_next_word(char **position);

#ifdef __cplusplus
}
#endif

#endif
