/* Reliable datagrams, the inner side: what the files ivssrdp*.cpp share, and the calls that are given the present time
 * instead of asking for it. ivs.h has the rest.
 *
 * Two times go in. `now` is the caller's second, from which lifetimes count. The clock's time decides when a packet is
 * sent again, and in which second the counters count. */
#ifndef IVS_IVSSRDPI_H
#define IVS_IVSSRDPI_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "foundation/paa.h"
#include "ivs/ivs.h"

namespace ivs {

constexpr int SRDP_ID_OFFSET = 1;  // of the id, in SRDP as in SACK
constexpr time_t SRDP_LIFETIME = 64;
constexpr int SRDP_FIRST_INTERVAL = 4;

/** Records that a tick of the timer takes out of a store at most. What is too old counts as gone at once; only the
 *  memory of many that end together comes back over several ticks. */
constexpr int SRDP_FREED_A_TICK = 2048;

/** Packets that a tick of the timer sends again before it leaves the rest to the next one: many that fall due together
 *  don't keep the loop from its other work. */
constexpr int SRDP_SENT_A_TICK = 4096;

struct SrdpRun;

/** Puts a record behind the last one of a doubly linked list, or takes it out. */
template <class Node>
void srdp_link(Node **head, Node **tail, Node *node) {
    node->next = nullptr;
    node->prev = *tail;
    (*tail != nullptr ? (*tail)->next : *head) = node;
    *tail = node;
}
template <class Node>
void srdp_unlink(Node **head, Node **tail, Node *node) {
    (node->prev != nullptr ? node->prev->next : *head) = node->next;
    (node->next != nullptr ? node->next->prev : *tail) = node->prev;
}

}  // namespace ivs

extern "C" {

/** A packet in one of the stores. One block: its bytes and the peer's address stand behind it. */
typedef struct IVS_SRDP_PACKET_S {
    uint32_t owner;      /* tag for the cancel calls; 0 in the replay store */
    uint16_t srdId;      /* as it travels */
    int32_t slot;        /* bucket, 0 to 9: the tenth of a second of the first send; 0 in the replay store */
    int32_t socket;      /* for the repeats; -1: the timer's */
    unsigned char *data; /* the whole SRDP packet; null in the replay store */
    int32_t dataLen;
    int32_t resends;  /* so far */
    int32_t interval; /* seconds to the next send */
    time_t expires;   /* the last second of its life */
    void *addr;       /* PacketAddress of the peer */
    int32_t addrLen;
    time_t nextSec; /* time of the next send */
    int32_t nextUsec;
    struct IVS_SRDP_PACKET_S *next, *prev;
    struct ivs::SrdpRun *run; /* its place in the index of its bucket; null: pending no more, or a replay record */
} IVS_SRDP_PACKET_S;

/* ---- The shared store (ivssrdpstore.cpp): records in a table by peer and id, and in a list --------------------- */

/** Finds a record; null if there is none, or no table yet. A table that isn't sound ends the process. */
IVS_SRDP_PACKET_S *ivs_srdp_packet_find(PAA_S *table, const void *address, uint16_t id);

/** Makes a record with copies of packet (cut to IVS_MAX_PACKET; may be empty) and address, and puts it into table and
 *  list, at the list's end. Makes the table. Null without memory or if the id is taken: already in the log. */
IVS_SRDP_PACKET_S *ivs_srdp_packet_save(PAA_S **table, IVS_SRDP_PACKET_S **head, IVS_SRDP_PACKET_S **tail, int slot,
                                        uint16_t id, uint32_t owner, int socket, time_t expires, const void *data,
                                        int dataLength, const void *address, int addressSize);

/** Takes a record out of table and list and frees it. Counts how often it had been sent again. */
void ivs_srdp_packet_delete(PAA_S *table, IVS_SRDP_PACKET_S **head, IVS_SRDP_PACKET_S **tail,
                            IVS_SRDP_PACKET_S *record);
}

namespace ivs {

/** The id in an SRDP or SACK packet. Bytes that are missing read as zero. */
uint16_t srdp_id(const void *packet, int length);

/** Hands a packet to ivs_sendto; a failure would be traced under `label`. */
int srdp_sendto(const char *label, int socket, const void *packet, int length, const void *address, int addressSize);

/* ---- The sender's part (ivssrdp.cpp) ---- */

int srdp_send_at(const struct timeval &clock, int socket, time_t now, uint32_t firstWord, uint32_t owner, int type,
                 const void *body, int bodyLength, const void *address, int addressSize);
int srdp_forward_at(const struct timeval &clock, int socket, time_t now, uint32_t owner, void *packet, int length,
                    const void *address, int addressSize);
void srdp_ack_at(time_t clock, const void *packet, int length, const void *address);
void srdp_handle_at(time_t clock, int socket, const struct timeval &now);
void srdp_cancel_at(time_t clock, uint32_t owner);
void srdp_cancel_type_at(time_t clock, uint32_t owner, int type, int subType);

/** Empties both stores and all counters, as at the start of the process: for tests. */
void srdp_reset();

/** Four draws of rand() in one word that isn't negative: what the generator of the process is stirred with. */
uint32_t srdp_draw_word();

/* ---- The receiver's part (ivssrdprecv.cpp) ---- */

int srdp_receive_at(time_t clock, int socket, time_t now, const void *packet, int length, const void *address,
                    int addressSize);

/** Replay records at most: then the oldest goes for each new one. A test may lower it. */
extern unsigned long srdp_replay_limit;

/** One tick: frees some of what has been forgotten. A full sweep first forgets what is too old. */
void srdp_sweep_replays(time_t now, bool full);

void srdp_move_replays(time_t seconds);
void srdp_reset_replays();

/* ---- Counters (ivssrdpstat.cpp) ---- */

/** The words of a slot, and of the sums, in their order. */
enum SrdpCounter {
    SRDP_SECOND,  // that the slot holds
    SRDP_PAR,     // data packets received, replays included
    SRDP_RER,     // replays received
    SRDP_ACR,     // acknowledgements received
    SRDP_ARR,     // of these, for an unknown id
    SRDP_PAS,     // data packets sent, first sends only
    SRDP_TIM,     // given up
    SRDP_CAN,     // cancelled
    SRDP_RES,     // sent again
    SRDP_PPE,     // pending
    SRDP_MPE,     // most of them at a time
    SRDP_RE1,     // records removed after one repeat, two, three, four, more
    SRDP_RE5 = SRDP_RE1 + 4,
    SRDP_WORDS
};

/** Opens a call that counts: the slot of this second is the current one from here on. */
void srdp_count_at(time_t clock);

void srdp_count(SrdpCounter counter);
void srdp_count_removed(int resends);
void srdp_one_more_pending();
void srdp_one_less_pending();

const uint32_t *srdp_stats_at(time_t clock, int seconds);
void srdp_report_at(time_t clock, const char *prefix);
void srdp_reset_counters();

}  // namespace ivs

#endif
