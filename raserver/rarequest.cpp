/* One RA request, from the datagram to the reply: checks, session, replay, strings, hook, answer.
 *
 * Requests never overlap, so all of their data stand in static buffers; the one allocation is the copy of the reply
 * that answers a repeated request. Hardened, a session keeps its last eight replies with their requests, so that one
 * that the network delivers late is still known. What a request means is the hook's affair. */
#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ivs/ivs.h"
#include "packet/bytereader.h"
#include "packet/crypto.h"
#include "packet/packet.h"
#include "packet/typecodes.h"
#include "process/linelimit.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

// A reply is built in place: room for the key prefix, header, strings. An envelope is made of the whole.
constexpr int MAX_PLAIN_REPLY = int{IVS_KEY_PREFIX} + int{RA_HEADER_SIZE} + int{RA_MAX_REPLY_TEXT};
unsigned char reply_buffer[MAX_PLAIN_REPLY];
unsigned char envelope_buffer[MAX_PLAIN_REPLY + int{PACKET_ENVELOPE_ROOM}];
unsigned char *const reply_header = reply_buffer + IVS_KEY_PREFIX;

char *argument_buffer[RA_MAX_STRINGS + 1];

struct Peer {
    uint32_t ip;
    uint16_t port_net;
    void *address;
    int address_size;
};

struct Request {
    int function;
    uint32_t sequence;  // the client's number, never interpreted
    char *text;
    int text_length;
    unsigned char digest[PACKET_SHA256_DIGEST];  // of the whole; hardened only

    bool is_asynchronous() const { return function == RA_FUNCTION_ASYNC; }
    uint32_t session_id() const { return is_asynchronous() ? sequence : 0; }
};

Request read_request(unsigned char *packet, int length) {
    ByteReader reader(packet, length);
    Request request{};
    reader.u8();  // type
    request.function = reader.u8();
    reader.u8();  // reserved
    request.sequence = reader.raw32();
    request.text = reinterpret_cast<char *>(packet) + RA_HEADER_SIZE;
    request.text_length = length - RA_HEADER_SIZE;
    if (process_context.hardened != 0) memcpy(request.digest, packet_sha256(packet, length), sizeof request.digest);
    return request;
}

bool came_under_a_key() { return process_context.noAccessKeyCheck || keyAccepted; }

void refuse_without_key(const Request &request, const Peer &peer) {
    static LineLimit lines("raUdpRequest without access key");
    if (!lines.passes()) return;
    process_log("RA.LOG raUdpRequest %d without access key from %s:%d\n", request.function, packet_ip2str(peer.ip),
                ntohs(peer.port_net));
}

// ---- Session --------------------------------------------------------------------------------------------------

/** Where a datagram lies, and how long it is. */
struct Datagram {
    const unsigned char *bytes;
    int length;
};

/** Whether a pair of number and content is that of a request. Hardened, the content counts as well. */
bool is_same(const Request &request, uint32_t sequence, const unsigned char *digest) {
    if (sequence != request.sequence) return false;
    return process_context.hardened == 0 || memcmp(digest, request.digest, sizeof request.digest) == 0;
}

/** The reply that was sent to a request before; null bytes if there is none. */
Datagram saved_reply(const RA_SESSION_S *session, const Request &request) {
    if (session == nullptr) return {};
    if (session->reply != nullptr && is_same(request, session->sequence, session->requestDigest)) {
        return {session->reply, static_cast<int>(session->savedLength)};
    }
    for (const RA_OLDER_REPLY_S *older = session->olderReplies; older != nullptr; older = older->next) {
        if (is_same(request, older->sequence, older->requestDigest)) {
            return {older->datagram, static_cast<int>(older->length)};
        }
    }
    return {};
}

void answer_again(RA_SERVER_S &server, RA_SESSION_S *session, const Datagram &reply, const Peer &peer) {
    ra_session_touch(&server, session);
    server.udpReplays++;
    packet_sendto(server.udpSocket, reply.bytes, reply.length, peer.address, peer.address_size);
}

RA_SESSION_S *session_for_new_request(RA_SERVER_S &server, RA_SESSION_S *session, const Request &request,
                                      const Peer &peer) {
    if (session == nullptr) return raserver_session_create(&server, request.session_id(), peer.ip, peer.port_net);
    (process_context.hardened != 0 ? ra_session_age_reply : ra_session_drop_reply)(&server, session);
    return session;
}

// ---- Hook and reply ---------------------------------------------------------------------------------------------

void run_hook(RA_SERVER_S &server, RA_SESSION_S *session, const Request &request) {
    session->reply = reply_header;
    session->argv = argument_buffer;
    session->argc = ra_split_strings(request.text, request.text_length, argument_buffer);
    session->replyLength = 0;
    session->headerLength = 0;

    server.udpRequests++;
    if (server.onUdpRequest != nullptr) server.onUdpRequest(session, session->argc, session->argv);
    session->argc = 0;
}

/** The reply as it goes out to a peer: a key that the peer is listed with is shown in front of it if it is one to be
 *  shown, or in each case when hardened, and enciphers the whole. */
Datagram wrap_reply(const RA_SESSION_S *session, const Peer &peer) {
    Datagram plain{reply_header, static_cast<int>(RA_HEADER_SIZE + session->replyLength)};
    int flags = PACKETKEYNONE;
    const unsigned char *key = packet_accesskey_by_ip(peer.ip, &flags);
    if (key == nullptr) return plain;

    if ((flags & PACKETKEYCLEAR) != 0 || process_context.hardened != 0) {
        reply_buffer[0] = IVS_TYPE_ACCK;
        memcpy(reply_buffer + 1, key, IVS_KEY_SIZE);
        plain = {reply_buffer, IVS_KEY_PREFIX + plain.length};
    }
    return {envelope_buffer, packet_encrypt(key, plain.bytes, plain.length, envelope_buffer)};
}

void write_header(RA_SESSION_S *session, const Request &request) {
    unsigned char *header = reply_header;
    header[0] = request.is_asynchronous() ? IVS_TYPE_RAUA : IVS_TYPE_RAUP;
    header[1] = session->replyLength != 0 ? RA_FUNCTION_RESULT : RA_FUNCTION_REFUSED;
    header[2] = 0;
    memcpy(header + 3, &request.sequence, sizeof request.sequence);
    session->sequence = request.sequence;
    memcpy(session->requestDigest, request.digest, sizeof session->requestDigest);
}

void send_reply(RA_SERVER_S &server, RA_SESSION_S *session, const Request &request, const Peer &peer) {
    write_header(session, request);
    const Datagram datagram = wrap_reply(session, peer);
    session->headerLength = static_cast<unsigned>(datagram.length) - session->replyLength;

    packet_sendto(server.udpSocket, datagram.bytes, datagram.length, peer.address, peer.address_size);
    session->packets++;
    ra_session_touch(&server, session);
    // Without a copy a repeated request could not be told from a new one that has the same number.
    if (ra_session_save_reply(&server, session, datagram.bytes, datagram.length) != 0)
        raserver_session_delete(&server, session);
}

}  // namespace

extern "C" {

int ra_split_strings(char *text, int length, char **vector) {
    int count = 0;
    if (length > 0) text[length] = 0;
    for (int position = 0; position < length && count < RA_MAX_STRINGS;) {
        vector[count++] = text + position;
        position += static_cast<int>(strlen(text + position)) + 1;
    }
    vector[count] = nullptr;
    return count;
}

void raserver_udp_request(RA_SERVER_S *context, unsigned char *packet, int length, void *address, int addressSize) {
    Peer peer{0, 0, address, addressSize};
    packet_adr_get(address, &peer.ip, &peer.port_net);
    if (ra_is_own_address(context, peer.ip, peer.port_net)) return;

    if (ivsIpCheck(peer.ip) == 0) return;
    const Request request = read_request(packet, length);
    if (!came_under_a_key()) return refuse_without_key(request, peer);
    if (request.function != RA_FUNCTION_SYNC && request.function != RA_FUNCTION_ASYNC) return;

    RA_SESSION_S *session = raserver_session_find(context, request.session_id(), peer.ip, peer.port_net);
    const Datagram reply = saved_reply(session, request);
    if (reply.bytes != nullptr) return answer_again(*context, session, reply, peer);
    session = session_for_new_request(*context, session, request, peer);
    if (session == nullptr) return;

    run_hook(*context, session, request);
    send_reply(*context, session, request, peer);
}

}  // extern "C"
