/* Sessions: what the server remembers of each peer, so that a repeated request has its effect only once.
 *
 * A session hangs in the table (to be found), in the list of all (to be swept) and in the list by use (to be given up
 * when memory runs short): in all three or in none. It owns its saved reply. Time is context->now throughout. */
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "packet/packet.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

RA_LIMITS_S ra_limits = {1000000, 0};

namespace {

constexpr unsigned long MIN_REPLY_LIMIT = 64UL * 1024 * 1024;
constexpr time_t DROP_REPORT_SECONDS = 60;

// ---- Lists: one pair of functions for both, told apart by the members that link them -----------------------------

struct Links {
    RA_SESSION_S *RA_SESSION_S::*previous;
    RA_SESSION_S *RA_SESSION_S::*next;
};
constexpr Links ALL = {&RA_SESSION_S::previous, &RA_SESSION_S::next};
constexpr Links BY_USE = {&RA_SESSION_S::idlePrevious, &RA_SESSION_S::idleNext};

void link_between(RA_SESSION_LIST_S &list, const Links &links, RA_SESSION_S *before, RA_SESSION_S *session,
                  RA_SESSION_S *behind) {
    session->*links.previous = before;
    session->*links.next = behind;
    (before != nullptr ? before->*links.next : list.head) = session;
    (behind != nullptr ? behind->*links.previous : list.tail) = session;
}

void unlink_from(RA_SESSION_LIST_S &list, const Links &links, RA_SESSION_S *session) {
    RA_SESSION_S *before = session->*links.previous;
    RA_SESSION_S *behind = session->*links.next;
    (before != nullptr ? before->*links.next : list.head) = behind;
    (behind != nullptr ? behind->*links.previous : list.tail) = before;
}

// ---- Table --------------------------------------------------------------------------------------------------------

// All 12 bytes take part in the comparison, the two behind the port included.
struct SessionKey {
    uint32_t id;
    uint32_t ip;
    uint16_t port;
    uint16_t zero;
};
static_assert(sizeof(SessionKey) == 12);

SessionKey key_of(const RA_SESSION_S &session) { return {session.sessionId, session.peerIp, session.peerPort, 0}; }

// Table and list disagree: whatever was done next would be wrong.
[[noreturn]] void end_with_table_error(const char *label, const char *what) {
    process_error("%s: %s failed! paaerrno %d, errmsg %s\n", label, what, paaerrno, strerror(errno));
    process_exit(1);
}

bool have_table(RA_SERVER_S &server, const char *label) {
    if (server.sessionTable == nullptr) server.sessionTable = paaCreate(PAAFLAGPOINTER);
    if (server.sessionTable == nullptr) {
        process_error("%s: Malloc failed in paaCreate! errmsg: %s!\n", label, strerror(errno));
    }
    return server.sessionTable != nullptr;
}

bool insert_into_table(RA_SERVER_S &server, RA_SESSION_S *session, const char *label) {
    const SessionKey key = key_of(*session);
    if (paaInsert(server.sessionTable, &key, sizeof key, session, sizeof(void *)) == 0) return true;
    if (paaerrno != PAAERRNOMEM) end_with_table_error(label, "paaInsert session");
    process_error("%s: paaInsert session failed! out of memory\n", label);
    return false;
}

// ---- Limits -------------------------------------------------------------------------------------------------------

unsigned long reply_limit() {
    if (ra_limits.savedReplyBytes == 0) {
        const long pages = sysconf(_SC_PHYS_PAGES);
        const long page_size = sysconf(_SC_PAGESIZE);
        const unsigned long memory = pages > 0 && page_size > 0
                                         ? static_cast<unsigned long>(pages) * static_cast<unsigned long>(page_size)
                                         : 0;
        ra_limits.savedReplyBytes = std::max(memory / 4, MIN_REPLY_LIMIT);
    }
    return ra_limits.savedReplyBytes;
}

void report_drops(RA_SERVER_S &server) {
    const bool reported_lately =
        server.lastDropReport != 0 && server.now < server.lastDropReport + DROP_REPORT_SECONDS;
    if (reported_lately) return;
    server.lastDropReport = server.now;
    process_log("RA.SE limit reached: %lu sessions, %lu bytes of replies, %lu idle sessions dropped so far\n",
                server.sessionCount, server.savedReplyBytes, server.droppedSessions);
}

void drop_longest_idle(RA_SERVER_S &server) {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): it can't see that the list's head moves, through the links above
    raserver_session_delete(&server, server.idleSessions.head);
    server.droppedSessions++;
    report_drops(server);
}

void make_room_for_session(RA_SERVER_S &server) {
    while (server.sessionCount >= ra_limits.sessions && server.idleSessions.head != nullptr) {
        drop_longest_idle(server);
    }
}

// ---- Older replies ------------------------------------------------------------------------------------------------

void drop_older(RA_SERVER_S &server, RA_OLDER_REPLY_S *older) {
    while (older != nullptr) {
        RA_OLDER_REPLY_S *next = older->next;
        server.savedReplyBytes -= older->length;
        free(older->datagram);
        free(older);
        older = next;
    }
}

// Cuts the list behind so many.
void keep_newest(RA_SERVER_S &server, RA_SESSION_S &session, int count) {
    RA_OLDER_REPLY_S **end = &session.olderReplies;
    for (; *end != nullptr && count > 0; count--) end = &(*end)->next;
    drop_older(server, *end);
    *end = nullptr;
}

// The session that is being served stays, even if its reply alone is more than all may have.
void make_room_for_replies(RA_SERVER_S &server, const RA_SESSION_S *served) {
    while (server.savedReplyBytes > reply_limit() && server.idleSessions.head != served) drop_longest_idle(server);
}

}  // namespace

extern "C" {

RA_SESSION_S *raserver_session_create(RA_SERVER_S *context, uint32_t id, uint32_t ip, uint16_t port) {
    constexpr char label[] = "raserver_session_create";
    if (!have_table(*context, label)) return nullptr;
    make_room_for_session(*context);

    auto *session = static_cast<RA_SESSION_S *>(process_malloc(label, sizeof(RA_SESSION_S)));
    if (session == nullptr) return nullptr;
    session->created = context->now;
    session->sessionId = id;
    session->peerIp = ip;
    session->peerPort = port;
    if (!insert_into_table(*context, session, label)) {
        free(session);
        return nullptr;
    }

    link_between(context->sessions, ALL, nullptr, session, context->sessions.head);
    link_between(context->idleSessions, BY_USE, context->idleSessions.tail, session, nullptr);
    context->sessionCount++;
    context->sessionTotal++;
    if (process_context.trace) process_trace("RA.SE NEW %s:%d\n", packet_ip2str(ip), ntohs(port));
    return session;
}

RA_SESSION_S *raserver_session_find(RA_SERVER_S *context, uint32_t id, uint32_t ip, uint16_t port) {
    if (context->sessionTable == nullptr) return nullptr;
    const SessionKey key = {id, ip, port, 0};
    void *found = paaFind(context->sessionTable, &key, sizeof key, nullptr);
    if (found == nullptr && paaerrno != PAAERRNOTFOUND) end_with_table_error("raserver_session_find", "paaFind");
    return static_cast<RA_SESSION_S *>(found);
}

void raserver_session_delete(RA_SERVER_S *context, RA_SESSION_S *session) {
    if (process_context.trace) {
        process_trace("RA.SE DEL %s:%d %ld packets %ld seconds\n", packet_ip2str(session->peerIp),
                      ntohs(session->peerPort), session->packets, static_cast<long>(context->now - session->created));
    }
    const SessionKey key = key_of(*session);
    if (paaRemove(context->sessionTable, &key, sizeof key) != 0) {
        end_with_table_error("raserver_session_delete", "paaRemove session");
    }
    unlink_from(context->sessions, ALL, session);
    unlink_from(context->idleSessions, BY_USE, session);
    context->sessionCount--;
    ra_session_drop_reply(context, session);
    keep_newest(*context, *session, 0);
    free(session);
}

void ra_session_drop_reply(RA_SERVER_S *context, RA_SESSION_S *session) {
    // Without a saved length, reply is null or points into the buffer that all requests share.
    if (session->savedLength != 0) free(session->reply);
    context->savedReplyBytes -= session->savedLength;
    session->savedLength = 0;
    session->reply = nullptr;
}

void ra_session_age_reply(RA_SERVER_S *context, RA_SESSION_S *session) {
    auto *older =
        session->savedLength == 0
            ? nullptr
            : static_cast<RA_OLDER_REPLY_S *>(process_malloc("raserver_udp_request", sizeof(RA_OLDER_REPLY_S)));
    if (older == nullptr) return ra_session_drop_reply(context, session);
    *older = {.next = session->olderReplies,
              .sequence = session->sequence,
              .requestDigest = {},
              .datagram = session->reply,
              .length = session->savedLength};
    memcpy(older->requestDigest, session->requestDigest, sizeof older->requestDigest);
    session->olderReplies = older;
    session->savedLength = 0;
    session->reply = nullptr;
    keep_newest(*context, *session, RA_OLDER_REPLIES);
}

int ra_session_save_reply(RA_SERVER_S *context, RA_SESSION_S *session, const unsigned char *datagram, int length) {
    session->reply = nullptr;
    auto *copy = static_cast<unsigned char *>(process_memdup("raserver_udp_request", datagram, length));
    if (copy == nullptr) return -1;
    session->reply = copy;
    session->savedLength = static_cast<unsigned>(length);
    context->savedReplyBytes += session->savedLength;
    make_room_for_replies(*context, session);
    return 0;
}

void ra_session_touch(RA_SERVER_S *context, RA_SESSION_S *session) {
    session->lastUsed = context->now;
    if (context->idleSessions.tail == session) return;
    unlink_from(context->idleSessions, BY_USE, session);
    link_between(context->idleSessions, BY_USE, context->idleSessions.tail, session, nullptr);
}

}  // extern "C"
