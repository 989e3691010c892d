/* Asynchronous requests: sent by raUdpRequest, sent again and given up by the tick, answered through the packet function
 * of the RA loop.
 *
 * A callback may do as it likes: send, delete its request or others, destroy its client or others. So whoever calls one
 * looks anew afterwards, by value, at what is still there. */
#include <arpa/inet.h>
#include <stdlib.h>
#include <time.h>

#include <utility>

#include "packet/packet.h"
#include "packet/typecodes.h"
#include "process/velproc.h"
#include "raserver/raclienti.h"
#include "raserver/raserveri.h"

namespace {

/** The time that the tick will compare with: the running event's, or before the first event the clock's. */
time_t present_time() { return ra_server.now != 0 ? ra_server.now : time(nullptr); }

RA_REQUEST_S *pending_request(const RA_CLIENT_S *client, uint32_t sequence) {
    for (RA_REQUEST_S *request = client->pending.head; request != nullptr; request = request->next) {
        if (request->sequence == sequence) return request;
    }
    return nullptr;
}

void send(RA_REQUEST_S *request, time_t now) {
    const RA_CLIENT_S *client = request->client;
    packet_sendto(request->socket, request->request, request->requestLength, client->address, client->addressLength);
    request->lastSent = now;
}

RA_REQUEST_S *make_request(RA_CLIENT_S *client, RA_CALLBACK callback, void *user) {
    constexpr int size = sizeof(RA_REQUEST_S);
    auto *request = static_cast<RA_REQUEST_S *>(process_malloc("raUdpRequest", size));
    if (request == nullptr) {
        ra::say::no_memory(client, size);
        return nullptr;
    }
    request->tag = ra::request_tag;
    request->client = client;
    request->socket = client->socket;
    request->sequence = client->sequence++;
    request->callback = callback;
    request->user = user;
    ra::link_at_tail(client->pending, request);
    return request;
}

/** Ends a request: calls its callback, and deletes it unless the callback did. */
void finish(const RA_SERVER_S &server, RA_CLIENT_S *client, RA_REQUEST_S *request, int result) {
    const uint32_t sequence = request->sequence;
    ra::call_back(request, result);
    if (ra::holds(server.clients, client) && pending_request(client, sequence) == request) {
        raclient_request_delete(client, request);
    }
}

/** Clients of one server share its address, and mostly a socket as well: the answer is for the one that asked. */
RA_REQUEST_S *answered_request(const RA_SERVER_S &server, const void *address, uint32_t sequence) {
    uint32_t ip = 0;
    uint16_t port_net = 0;
    packet_adr_get(address, &ip, &port_net);
    for (RA_CLIENT_S *client = server.clients.head; client != nullptr; client = client->next) {
        if (client->ip != ip || htons(client->port) != port_net) continue;
        if (RA_REQUEST_S *request = pending_request(client, sequence)) return request;
    }
    return nullptr;
}

/** Stops behind a request that came to its end, since its callback may have changed all lists. Returns whether one did. */
bool serve_until_one_ends(const RA_SERVER_S &server) {
    for (RA_CLIENT_S *client = server.clients.head; client != nullptr; client = client->next) {
        for (RA_REQUEST_S *request = client->pending.head; request != nullptr; request = request->next) {
            if (server.now > request->deadline) {
                finish(server, client, request, ra::say::no_answer(client, request->error));
                return true;
            }
            if (server.now > request->lastSent + client->interval) send(request, server.now);
        }
    }
    return false;
}

}  // namespace

void ra::call_back(RA_REQUEST_S *request, int result) {
    const RA_CALLBACK callback = std::exchange(request->callback, nullptr);
    if (callback != nullptr) callback(request, request->user, result);
}

void ra::delete_request(RA_REQUEST_S *request) {
    unlink(request->client->pending, request);
    free(request);
}

extern "C" {

int raUdpRequest(int socket, RA_CLIENT_S *client, int argc, char **argv, RA_CALLBACK callback, void *user) {
    if (ra::as_client(client) == nullptr) return RAERRNOCLIENT;
    if (const int code = ra::prepare(client, argc, socket); code != 0) return code;
    RA_REQUEST_S *request = make_request(client, callback, user);
    if (request == nullptr) return RAERRMEM;

    const ra::Draft draft{request->request, sizeof request->request, RA_FUNCTION_ASYNC, request->sequence};
    request->requestLength = ra::build_request(client, draft, argc, argv);
    if (request->requestLength < 0) {
        ra::delete_request(request);
        return RAERRTOOLONG;
    }
    const time_t now = present_time();
    request->deadline = now + static_cast<time_t>(client->interval) * client->tries;
    send(request, now);
    return 0;
}

void raclient_request_delete(RA_CLIENT_S *client, RA_REQUEST_S *request) {
    if (ra::as_client(client) == nullptr || ra::as_request(request) == nullptr) return;
    if (request->client != client) return;  // linked elsewhere: taking it out of this list would tear both
    ra::delete_request(request);
}

void raclient_udp_reply(RA_SERVER_S *context, unsigned char *packet, int length, void *address) {
    const auto answer = ra::read_answer(packet, length);
    if (!answer || answer->type != IVS_TYPE_RAUA) return;
    RA_REQUEST_S *request = answered_request(*context, address, answer->sequence);
    if (request == nullptr || !ra::counts_as_answer(request->client)) return;

    if (answer->function == RA_FUNCTION_REFUSED) {
        finish(*context, request->client, request, ra::say::denied(request->error));
    } else if (answer->function == RA_FUNCTION_RESULT) {
        request->resultCount = ra_split_strings(answer->text, answer->length, request->resultVector);
        finish(*context, request->client, request, request->resultCount);
    }
}

void ra_serve_pending_requests(RA_SERVER_S *context) {
    while (serve_until_one_ends(*context)) {
    }
}

}  // extern "C"
