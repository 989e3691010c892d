/* The platform's message protocol: what its packets mean, and the calls that send them.
 *
 * A packet is one datagram; its first byte is its type (packet/typecodes.h). Identifier words, addresses and ports
 * stay in network order from end to end. The top bit marks a session word (SID); a client word (CID) has it clear, and
 * the next bit set if the client is of the extended form, which adds fields to some packets. PKT is the number of a
 * request: copied into its answer as it stands. A peer is a PacketAddress with its size, 16. */
#ifndef IVS_IVS_H
#define IVS_IVS_H

#include <stdio.h>
#include <time.h>

#include "foundation/paa.h"
#include "packet/packet.h"
#include "packet/typecodes.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Bytes that a packet of the protocol may have; senders cut what they copy to it. Receivers take larger ones. */
enum { IVS_MAX_PACKET = 548 };

/* ---- Catalogue -------------------------------------------------------------------------------------------------- */

/** Names, four characters each: of the packet types by their code, of the attributes by IVS_TYPE_ATTRIBUTES plus
 *  their code. An index without a name has its own decimal number, padded with blanks ("33  "), so any byte of a
 *  packet can be looked up without a test. */
extern const char *const ivs_packet_names[IVS_TYPE_COUNT];

enum { IVS_LONGEST_INTEGER = 5 };

/** Integers of variable length, 1 to 5 bytes, the shortest form that holds the value. The put calls return the bytes
 *  written, the get calls the bytes read. Nothing is checked: the caller sees to 5 bytes of room, or of packet. */
int ivs_put_int(int32_t value, unsigned char *target);
int ivs_get_int(const unsigned char *source, int32_t *result);
int ivs_put_uint(uint32_t value, unsigned char *target);
int ivs_get_uint(const unsigned char *source, uint32_t *result);

/* ---- Trace ------------------------------------------------------------------------------------------------------ */

/** Writes one readable line for a packet, well-formed or not. What it wraps follows in the same line, each with the
 *  present time and its own length. Passwords are shown in the clear. Whether tracing is on is the caller's question;
 *  the stream is flushed, its errors are ignored, errno stays.
 *
 *  @param when    time to be shown; null for the present
 *  @param prefix  written in front of it ("TR ", "TS "), or null
 *  @param length  may be 0: the line then ends behind the length
 *  @param peer    PacketAddress, or null
 */
void ivs_trace_packet(FILE *stream, struct timeval *when, const char *prefix, const void *packet, int length,
                      const void *peer);

/* ---- Refusals --------------------------------------------------------------------------------------------------- */

/** Why a packet is refused: the second byte of a COFA packet. 13 and 14 have no name. */
#define IVS_COFA_REASONS(IVS_REASON) \
    IVS_REASON(1, UNCO)              \
    IVS_REASON(2, OORE)              \
    IVS_REASON(3, DUPL)              \
    IVS_REASON(4, INID)              \
    IVS_REASON(5, BADD)              \
    IVS_REASON(6, AUTH)              \
    IVS_REASON(7, UNCL)              \
    IVS_REASON(8, BADV)              \
    IVS_REASON(9, BADS)              \
    IVS_REASON(10, NEED)             \
    IVS_REASON(11, BADU)             \
    IVS_REASON(12, NOMO)             \
    IVS_REASON(15, BADN)             \
    IVS_REASON(16, BADI)             \
    IVS_REASON(17, BADA)

/** IVS_COFA_UNCO = 1 (a type without handler, or no bytes at all), IVS_COFA_BADD = 5 (unknown action),
 *  IVS_COFA_AUTH = 6 (sent from where it may not be sent), and so on. */
enum {
#define IVS_COFA_CONSTANT(code, name) IVS_COFA_##name = (code),
    IVS_COFA_REASONS(IVS_COFA_CONSTANT)
#undef IVS_COFA_CONSTANT
};

/* ---- Sending ------------------------------------------------------------------------------------------------- */

/** What ivs_pending_key_flags says about the pending key. */
enum {
    IVS_KEY_FLAG_PREFIX = 1,  /* the sender puts IVS_TYPE_ACCK and the key in front of its packet */
    IVS_KEY_FLAG_ENCIPHER = 2 /* ivs_sendto enciphers the packet */
};

/** Access key, IVS_KEY_SIZE bytes, for the next packet sent, or null. The sender that has looked it up sets both;
 *  the next call of ivs_sendto clears both, whatever becomes of the packet. */
extern const unsigned char *ivs_pending_key;
extern uint32_t ivs_pending_key_flags;

/** The one door for packets of the protocol: enciphers under the pending key, traces, sends. A failed send is reported
 *  and absorbed: to the caller a lost send is no other thing than a lost packet. Returns 0. */
int ivs_sendto(int socket, const void *packet, int length, const void *address, int addressSize);

/** Non-zero: ivs_sendto measures what compression would save on the bulk text it sends, and logs it each 300 s. The
 *  packets and the byte values counted since the last such line, and its time. */
extern int ivs_compression_stats;
extern uint32_t ivs_measured_packets;
extern uint32_t ivs_byte_counts[256];
extern time_t ivs_last_measure;

/** Refuses a packet: sends COFA with the reason (IVS_COFA_...) and the start of the packet, at most IVS_MAX_PACKET
 *  bytes of it. Returns 0. */
int ivs_snd_cofa(int socket, int reason, const void *packet, int length, const void *address, int addressSize);

/* ---- Reliable datagrams -------------------------------------------------------------------------------------------
 * A packet wrapped in SRDP is kept and sent again until the peer acknowledges it with SACK or its life of 64 seconds
 * ends: 4, 10, 19, 32 and 51 seconds after the first send. The receiver acknowledges every copy and takes the first.
 * Each packet stands for itself: there is no order and no connection, and the sender isn't told what became of it.
 * Times handed in are the wall clock's. */

/** Takes an SRDP packet: acknowledges it, and remembers it for 64 seconds. What came in an envelope is acknowledged
 *  in one, if the peer's key is known.
 *
 *  @param now  the current second
 *  @return 1 if the packet inside, from offset 4 on, is to be processed; 0 for a copy of one that came before
 */
int ivs_srdp_packet(int socket, time_t now, const void *packet, int length, const void *address, int addressSize);

/** Takes a SACK packet: the packet that it acknowledges is not sent again. */
void ivs_srdp_packet_ack(const void *packet, int length, const void *address);

/** Sends a packet reliably.
 *
 *  @param firstWord  the first word of the packet inside, as it is to travel: the body lacks it
 *  @param owner      tag for the cancel calls; the senders give the CID
 *  @param type       IVS_TYPE_... of the packet inside
 *  @param body       what follows the first word; at most 539 bytes of it travel
 *  @return what ivs_sendto returns. A packet that can't be kept is sent once all the same: already in the log
 */
int ivs_srdp_packet_send(int socket, time_t now, uint32_t firstWord, uint32_t owner, int type, const void *body,
                         int bodyLength, const void *address, int addressSize);

/** The same for a whole SRDP packet, which gets an id of ours, written into it. Repeats leave through this `socket`,
 *  those of ivs_srdp_packet_send through that of the timer. Sent whole, but at most IVS_MAX_PACKET bytes of it again;
 *  without a whole head, as it is and once. */
int ivs_srdp_packet_forward(int socket, time_t now, uint32_t owner, void *packet, int length, const void *address,
                            int addressSize);

/** The timer: repeats what is due, and forgets what is too old. To be called several times a second. A call looks at
 *  those packets that were first sent in the same tenth of a second, one in 3 seconds at all of them. */
void ivs_srdp_packet_handle(int socket, struct timeval *now);

/** Drops the packets of an owner that are not acknowledged yet; the second call only those whose packet inside is of
 *  `type` and, unless `subType` is 0, has that attribute byte behind a word and a PKT. */
void ivs_srdp_cancel(uint32_t owner);
void ivs_srdp_cancel_type(uint32_t owner, int type, int subType);

/** Moves all stored times, when somebody has set the wall clock by so many seconds. */
void ivs_srdp_clock_was_set(time_t seconds);

/** Sums what was counted in the last `seconds` complete seconds, held to 1..60: 16 words, in a static record until the
 *  next call. 1 to 15 are PAR RER ACR ARR PAS TIM CAN RES PPE MPE RE1 RE2 RE3 RE4 RE5, as ivs_srdp_report writes
 *  them; word 0 is 0. */
const uint32_t *ivs_srdp_stats(int seconds);

/** Logs the sums of the last minute: up to three lines, "<prefix>.SP ...", none of them all zeros. */
void ivs_srdp_report(const char *prefix);

/** Writes the totals since the start. */
void ivs_srdp_print(FILE *stream);

/* ---- Compression: for programs that agree on a table of byte frequencies. Nothing on the wire is compressed. -- */

enum {
    IV_COMPRESSION_LEAVES = 257, /* the byte values, and the end mark */
    IV_COMPRESSION_NODES = 2 * IV_COMPRESSION_LEAVES - 1,
    IV_COMPRESSION_END = 256, /* symbol of the end mark */
    IV_COMPRESSION_INNER = -1 /* "symbol" of an inner node */
};

typedef struct IV_COMPRESSION_NODE_S {
    uint32_t weight;                           /* frequency; of an inner node, the sum of its children's */
    int32_t symbol;                            /* byte value, IV_COMPRESSION_END or IV_COMPRESSION_INNER */
    int32_t length;                            /* of the code, in bits */
    unsigned char code[33];                    /* path from the root, first bit in the top bit of the first byte */
    struct IV_COMPRESSION_NODE_S *prev, *next; /* the list of nodes without a parent, while the tree is built */
    struct IV_COMPRESSION_NODE_S *child0, *child1; /* behind a bit 0, behind a bit 1 */
} IV_COMPRESSION_NODE_S;

/** A prefix code. One block that points into itself: not to be copied, released with free(). */
typedef struct IV_COMPRESSION_S {
    IV_COMPRESSION_NODE_S nodes[IV_COMPRESSION_NODES]; /* leaves by symbol, then inner nodes, the oldest first */
    IV_COMPRESSION_NODE_S *root;
} IV_COMPRESSION_S;

/** Makes the code for byte frequencies. Every value gets a code, also one that never occurs; equal frequencies always
 *  lead to the same codes.
 *
 *  @param counts         256 frequencies
 *  @param endWeight      frequency of the end mark: the number of packets
 *  @param bitsOut        receives the size of what was counted, in bits; may be null, as the next two
 *  @param compressedOut  receives its size in this code, in bits
 *  @param savingsOut     receives what is saved, in percent; 0 where nothing is
 *  @return a new table, the caller's to free; null without memory: already in the log
 */
IV_COMPRESSION_S *iv_init_compression(const uint32_t *counts, uint32_t endWeight, uint32_t *bitsOut,
                                      uint32_t *compressedOut, uint32_t *savingsOut);

/** Compresses: the codes of the bytes, then that of the end mark, in whole bytes.
 *
 *  @param target        null: a block is made, the caller's to free. Else `targetSize` bytes, all of them overwritten
 *  @param resultLength  receives the length of the result; untouched without one
 *  @return the target; null if the result doesn't fit, or without memory (that is already in the log)
 */
void *Biv_compress(IV_COMPRESSION_S *table, const void *source, int length, void *target, int targetSize,
                   int *resultLength);

/** Expands, up to the end mark or else to the end of the source, with the conventions of Biv_compress. A source that
 *  was cut short or damaged gives what it still holds: wrong bytes, but no failure. */
void *iv_decompress(IV_COMPRESSION_S *table, const void *source, int length, void *target, int targetSize,
                    int *resultLength);

/* ---- Senders: one for each packet that can be sent ------------------------------------------------------------------
 * They cut what doesn't fit into IVS_MAX_PACKET bytes, without a word; texts in counted fields may carry a packet
 * beyond that. Identifier words, addresses and ports are given in network order, numbers, versions and heights in host
 * order. A session word `sid` of 0 is left out where a packet may do without. Where a length goes with a counted text,
 * its low byte counts; a null text is an empty one. A pending key is shown in front of a packet by ivs_snd_cofa,
 * ivs_snd_setx and ivs_snd_typed; within the limit, except for a refusal. Of `d`, `n`, `u`, `sb` and `at` this library
 * knows the place alone. All return what ivs_sendto returns. */

/** Asks for an identity: in the long form with a session, else in the short one, `number` and `text1`. */
int ivs_snd_geti(int socket, uint32_t number, uint32_t sid, uint16_t pkt, int attribute, uint32_t word, int length1,
                 const char *text1, int length2, const char *text2, int length3, const char *text3, int length4,
                 const char *text4, const void *address, int addressSize);

/** The long form with more behind it. */
int ivs_snd_geti2(int socket, uint32_t sid, uint16_t pkt, int attribute, uint32_t word, int length1,
                  const char *text1, int length2, const char *text2, int length3, const char *text3, int length4,
                  const char *text4, uint32_t number, uint32_t rawWord, uint16_t rawHalf, int length5,
                  const char *text5, int byte, int length6, const char *text6, const void *address, int addressSize);

/** Answers it: with a session `pkt`, `cid` and `scn`, else `cid`, `version` and the payload. */
int ivs_snd_seti(int socket, uint32_t sid, uint16_t pkt, uint32_t cid, uint32_t scn, uint32_t version,
                 const void *payload, int length, const void *address, int addressSize);

/** An attribute of a client: asked for, set, acknowledged. */
int ivs_snd_getx(int socket, uint32_t cid, int attribute, const void *payload, int length, const void *address,
                 int addressSize);
int ivs_snd_setx(int socket, uint32_t cid, int attribute, const void *payload, int length, const void *address,
                 int addressSize);
int ivs_snd_ackx(int socket, uint32_t cid, int attribute, int length, const void *payload, const void *address,
                 int addressSize);

/** The state of a client, for readers below version 109 and from there on. `sb` travels from version 116 on. */
int ivs_snd_cupd_old(int socket, uint32_t sid, uint32_t cid, const int32_t position[3], const int32_t orientation[4],
                     int32_t height, int d, int n, const void *address, int addressSize);
int ivs_snd_cupd(int socket, int version, uint32_t sid, uint32_t cid, const int32_t position[3],
                 const int32_t orientation[4], int32_t height, int d, int n, uint32_t sb, const void *address,
                 int addressSize);

/** A neighbour, as ivs_snd_nupd tells of it. */
typedef struct IVS_NEIGHBOUR_S {
    uint32_t client; /* its word, network order */
    int32_t position[3];
    int32_t orientation[4]; /* the low bytes travel */
    uint32_t sb;            /* travels from version 116 on */
} IVS_NEIGHBOUR_S;

/** Tells a client its neighbours, their positions relative to a base. Of long lists the end is left out: entries as
 *  long as they are not fewer than the words, else words. `cid` travels only if it is of the extended form.
 *
 *  @param words    raw words, wordCount of them
 *  @param entries  pointers to entryCount neighbours
 */
int ivs_snd_nupd(int socket, uint32_t sid, uint32_t cid, int version, const int32_t base[3], int d,
                 const uint32_t *words, int wordCount, int u, const IVS_NEIGHBOUR_S *const *entries, int entryCount,
                 const void *address, int addressSize);

/** Sends a client elsewhere. `cid` and `pkt` travel only if `cid` isn't 0. Reliably if `reliable` isn't 0. */
int ivs_snd_redi(int socket, int reliable, uint32_t sid, uint32_t cid, uint16_t pkt, int code, uint32_t ip,
                 uint16_t port, const void *address, int addressSize);

/** Text of a client; a notice; the end of a session. */
int ivs_snd_text(int socket, uint32_t cid, const char *text, int length, const void *address, int addressSize);
int ivs_snd_noti(int socket, uint32_t sid, uint32_t cid, const void *address, int addressSize);
int ivs_snd_soff(int socket, uint32_t sid, uint32_t cid, uint16_t pkt, const void *address, int addressSize);

/** A group: asked for, set. A `cid` of the extended form adds `pkt` and makes the last text a counted one. */
int ivs_snd_ggrp(int socket, uint32_t sid, uint32_t cid, uint16_t pkt, uint32_t at, const char *topic,
                 const char *description, const void *address, int addressSize);
int ivs_snd_sgrp(int socket, int reliable, uint32_t sid, uint32_t cid, uint16_t pkt, uint32_t gid, uint32_t key,
                 uint32_t at, int length, const char *topic, const void *address, int addressSize);

/** Log-in, its answer, and what keeps a session alive. User and password count with the low byte of their length. */
int ivs_snd_logi(int socket, uint32_t version, uint16_t pkt, const char *user, const char *password,
                 const void *address, int addressSize);
int ivs_snd_loga(int socket, uint32_t sid, uint16_t pkt, uint32_t version, const void *address, int addressSize);
int ivs_snd_keep(int socket, uint32_t sid, const void *address, int addressSize);

/** Any of MGET, MSET, MACK, TGET, TSET, TACK. */
int ivs_snd_typed(int socket, int type, uint32_t sid, uint32_t cid, uint16_t pkt, int attribute, const void *payload,
                  int length, const void *address, int addressSize);

/** Sent under the peer's access key, which they look up: CVER, whose address travels only if `cid` isn't 0, and the
 *  client list, at most 136 words a packet. */
int ivs_snd_cver(int socket, uint32_t cid, uint32_t ip, uint16_t port, const void *address, int addressSize);
int ivs_snd_clal(int socket, const uint32_t *words, int count, const void *address, int addressSize);

/* ---- A server's own address, and orders from its administrator ----------------------------------------------------- */

/** This server's address, network order, as ivs_startup has worked it out. */
extern uint32_t ivs_local_ip;
extern uint16_t ivs_local_port;

/** Works out this server's address and logs it: the configured bind address, or that of the host's name. To be called
 *  once, when the sockets are bound. Without an address it ends the process.
 *
 *  @param port  host order
 *  @return 0
 */
int ivs_startup(uint16_t port);

/** Actions of an ADMN packet: its byte at IVS_ADMIN_ACTION_AT. */
enum {
    IVS_ADMIN_STOP = 1,
    IVS_ADMIN_TRACEON = 2, /* turns the trace off as well, if it is on */
    IVS_ADMIN_REREAD = 3,
    IVS_ADMIN_NEWLOG = 4,
    IVS_ADMIN_ACTION_AT = 7
};

/** Obeys an ADMN packet, if it comes from this host and under this host's key; sends it back to say so.
 *
 *  @param rereadFlag  set to 1 by IVS_ADMIN_REREAD; may be null
 */
void ivs_admin_packet(int socket, volatile int *rereadFlag, const void *packet, int length, const void *peer,
                      int peerSize);

/* ---- Whom to serve ----------------------------------------------------------------------------------------------- */

/** Reads the options -ipallow and -ipdeny from the vector and marks them there as read. Their values, joined or in the
 *  next argument, are addresses, host names, or beginnings of addresses that end in "*", one or several. The vector is
 *  referred to from then on. Without any the local host alone is served. To be called once. Returns 0. */
int ivsIpCheckInit(int argc, char **argv);

/** Returns 1 if the address, network order, may be served, else 0: already in the log. */
int ivsIpCheck(uint32_t ip);

/** Returns 1 if an address, network order, may get an answer of any kind: 0 is for the hardened process alone, which
 *  keeps silent towards an address that it doesn't serve. */
int ivs_may_answer(uint32_t ip);

/* ---- A map of addresses and ports --------------------------------------------------------------------------------- */

/** One side of a mapping. Lives as long as the process. */
typedef struct IVS_IPMAP_S {
    char *hostText; /* as written in the file; heap, as the next */
    char *portText;
    uint32_t ip;   /* host order */
    uint16_t port; /* host order */
    struct IVS_IPMAP_S *other;
    struct IVS_IPMAP_S *next, *prev;
} IVS_IPMAP_S;

/** Adds the mappings of a file, lines "host:port host:port".
 *
 *  @param fileName  a full path, or relative to the root directory; null or empty: "etc/gpserver.cfg", which may be
 *                   missing
 *  @return how many were read; what is wrong with the others is in the log
 */
int ivsReadIpMapFile(const char *fileName);

/** Makes one side out of "host:port", which it cuts at the colon. The caller's to free, texts and record. Null if the
 *  text is none, its host is unknown, or without memory. */
IVS_IPMAP_S *ivsStr2IpMap(char *text);

/** Look a mapping up by its first side, or by its second. Addresses and ports in host order; either target may be
 *  null. Return 1 with the other side's address and port, or 0. */
int ivsIpMapFrom(uint32_t ip, uint16_t port, uint32_t *outIp, uint16_t *outPort);
int ivsIpMapTo(uint32_t ip, uint16_t port, uint32_t *outIp, uint16_t *outPort);

/* ---- Run loop -------------------------------------------------------------------------------------------------------- */

/** Serves one socket until process_context.running is cleared. Any function may be null; the times they get are the
 *  wall clock's, but the interval keeps to itself when somebody sets that.
 *
 *  @param interval  between calls of `periodic`; the first one comes at once
 *  @param onPacket  gets each packet, without a key shown in front of it. It may write to it and to one byte behind it.
 *                   What it leaves there stays until the next packet is read.
 *  @param onIdle    is called when a signal ends the wait
 *  @param hourly    is called at first and at each change of the local hour
 */
void ivsrun(void *context, int socket, struct timeval *interval, void (*periodic)(void *context, struct timeval *now),
            void (*onPacket)(void *context, struct timeval *now, unsigned char *packet, int length, void *address,
                             int addressSize),
            void (*onIdle)(void *context, struct timeval *now, void *idleArg), void *idleArg,
            void (*hourly)(void *context, struct timeval *now));

/* ---- Reports, settings, helpers ----------------------------------------------------------------------------------- */

/** Logs the traffic of the last second, 10 and 60 seconds, and of reliable datagrams; with process_context.packetDiag
 *  also that of each packet type since the last report. Lines begin with the prefix; bytes are shown in bits. */
void ivs_bandwidth_report(const char *prefix);

/** The platform's global settings; null until the first file was read. */
extern struct PAA_S *ivs_globalcfg;

/** Reads a file of global settings, in addition to those read before.
 *
 *  @param name  a full path, or relative to the root directory; null: the platform's usual one
 *  @return 0; -1 without memory for the path; -2 if the file can't be read. Both are in the log
 */
int ivs_globalcfg_open(const char *name);

/** Returns the first value of a setting, good until the next call of any configuration reader; null if there is none. */
char *ivs_globalcfg_value(const char *key);

/** Returns the id that a URL names by its field ID, or by its field plc and the global setting for it; null if it names
 *  none, or one of more than 504 characters. Good until the next call. */
char *ivs_url_id(const char *url);

/** Counts how often keys are in use: 32-bit counts by key. Null until the first use. */
extern struct PAA_S *ivs_key_table;

/** Counts one use. Returns the table's own copy of the key, good until its last use ends; null without memory,
 *  or for a key without bytes. */
void *ivs_key_ref(const void *key, int keyLength);

/** Ends one use. The last one removes the key. */
void ivs_key_unref(const void *key, int keyLength);

/** Splits a text at its first white space.
 *
 *  @param restLength  receives the length of what follows that white space, else 0; may be null
 *  @param rest        receives where it begins, else null; may be null
 *  @return length of the first word
 */
int ivs_split_word(int length, const char *text, int *restLength, const char **rest);

#ifdef __cplusplus
}
#endif

#endif
