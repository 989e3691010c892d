/* What the files of the server core share among themselves; nothing outside of raserver/ but its tests reads it. */
#ifndef RASERVER_RASERVERI_H
#define RASERVER_RASERVERI_H

#include <stdint.h>
#include <time.h>

#include "raserver/raserver.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Bounds that keep a flood of requests from taking the machine's memory. Beyond them the longest idle session goes. */
typedef struct RA_LIMITS_S {
    unsigned long sessions;
    unsigned long savedReplyBytes; /* 0: not worked out yet; a quarter of the memory, 64 MB at least */
} RA_LIMITS_S;

extern RA_LIMITS_S ra_limits;

/** Splits zero-terminated strings that lie one behind the other; the last needs no zero byte, since one is written
 *  behind the data. At most RA_MAX_STRINGS are taken.
 *
 *  @param text    the strings; text[length] must be writable
 *  @param vector  room for RA_MAX_STRINGS + 1 pointers; a null follows the last string
 *  @return number of strings
 */
int ra_split_strings(char *text, int length, char **vector);

/** Learns the addresses of this machine's interfaces, for ra_is_own_address. Called once, at the start. */
void ra_learn_own_addresses(void);

/** Tells whether a datagram claims to come from the server's own socket (network order). Such a datagram is forged,
 *  and an answer to it would come back as the next one. */
int ra_is_own_address(const RA_SERVER_S *context, uint32_t ip, uint16_t port);

/** Gives a session a private copy of its datagram of `length` bytes. Sessions that were used longer ago go if that
 *  passes the limit. Returns 0, or -1 without memory (reported; the session then has no reply). */
int ra_session_save_reply(RA_SERVER_S *context, RA_SESSION_S *session, const unsigned char *datagram, int length);

/** Frees a session's saved reply, if it has one. */
void ra_session_drop_reply(RA_SERVER_S *context, RA_SESSION_S *session);

/** Keeps a session's saved reply as the newest of the older ones, of which the oldest goes beyond RA_OLDER_REPLIES. The
 *  session then has none. */
enum { RA_OLDER_REPLIES = 7 };
void ra_session_age_reply(RA_SERVER_S *context, RA_SESSION_S *session);

/** Notes that a session was used now. */
void ra_session_touch(RA_SERVER_S *context, RA_SESSION_S *session);

/** What there is of an HTTP request. */
enum {
    RA_HTTP_BAD =
        -1, /* nothing that can be served: the connection is to be closed; in the log, if it is told there */
    RA_HTTP_MORE = 0,    /* not all of it yet */
    RA_HTTP_COMPLETE = 1 /* all of it: header, URL, and the body of a POST */
};

/** Sees to it that more of a request can be written at input + inputLength. Returns how many bytes, at least 1; 0
 *  without memory (reported). */
int ra_http_room(RA_CONN_S *connection);

/** Takes `count` bytes, more than 0, that were written there into the request. Returns RA_HTTP_.... The request may
 *  come in pieces of any size. */
int ra_http_received(RA_CONN_S *connection, int count);

/** All connections that were closed since the start. */
extern RA_CONN_STATS_S ra_conn_total;

/** Counts a connection that is closed at `now`. */
void ra_conn_count(time_t now, unsigned int bytesIn, unsigned int bytesOut);

/** Goes through the asynchronous requests of all clients in the server record: what is due goes out again, what has
 *  waited too long ends. */
void ra_serve_pending_requests(RA_SERVER_S *context);

/** The wall clock was set by `seconds`: moves all stored times along, so that nothing comes due early or late. */
void ra_clock_was_set(RA_SERVER_S *context, time_t seconds);

#ifdef __cplusplus
}
#endif

#endif
