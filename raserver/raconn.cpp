/* TCP connections: accept, read, write, close. Each is one request and its answer, and nothing waits for a slow peer:
 * all sockets are non-blocking, and the run loop comes by when one is ready. */
#include <arpa/inet.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ivs/ivs.h"
#include "packet/packet.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

constexpr char new_label[] = "raConnNewConnection";
constexpr char close_label[] = "raConnCloseConnection";
constexpr unsigned int FIRST_INPUT_LIMIT = 32000;

RA_SERVER_S &server_in(void *context) { return *static_cast<RA_SERVER_S *>(context); }

void note_time(RA_SERVER_S &server) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    server.now = now.tv_sec;
}

void link_at_tail(RA_CONN_LIST_S &list, RA_CONN_S *connection) {
    connection->previous = list.tail;
    (list.tail != nullptr ? list.tail->next : list.head) = connection;
    list.tail = connection;
}

void unlink_from(RA_CONN_LIST_S &list, RA_CONN_S *connection) {
    (connection->previous != nullptr ? connection->previous->next : list.head) = connection->next;
    (connection->next != nullptr ? connection->next->previous : list.tail) = connection->previous;
}

void release(RA_CONN_S *connection) {
    free(connection->url);
    free(connection->input);
    free(connection->output);
    free(connection->peerName);
    free(connection);
}

// ---- New connections ------------------------------------------------------------------------------------------------

RA_CONN_S *make_connection(const char *peer_name) {
    auto *connection = static_cast<RA_CONN_S *>(process_malloc(new_label, sizeof(RA_CONN_S)));
    if (connection == nullptr) return nullptr;
    const char *name = peer_name != nullptr ? peer_name : "";
    connection->peerName = static_cast<char *>(process_memdup(new_label, name, static_cast<int>(strlen(name)) + 1));
    if (connection->peerName != nullptr) return connection;
    release(connection);
    return nullptr;
}

// The record of a connection that may be served, or null.
RA_CONN_S *admit(int socket, uint32_t ip_host, const char *peer_name) {
    if (ivsIpCheck(htonl(ip_host)) == 0) return nullptr;
    if (packet_setNonBlocking(socket, 1) != 0) return nullptr;
    return make_connection(peer_name);
}

// ---- Ready connections: each step gives whether the connection is still there ---------------------------------------

bool close_connection(RA_SERVER_S &server, RA_CONN_S *connection, int hard) {
    raConnCloseConnection(&server, connection, hard);
    return false;
}

bool is_passing(int error) { return error == EINTR || error == EAGAIN; }

bool write_answer(RA_SERVER_S &server, RA_CONN_S *connection) {
    const int sent = packet_sendTCP(connection->socket, connection->output + connection->outputSent,
                                    static_cast<int>(connection->outputLength - connection->outputSent));
    // Whoever is gone would be found ready to be written to at each turn, until the sweep.
    if (sent < 0) return is_passing(errno) || close_connection(server, connection, 1);

    connection->outputSent += static_cast<unsigned int>(sent);
    if (sent > 0) connection->lastUsed = server.now;
    if (connection->outputSent < connection->outputLength) return true;
    return close_connection(server, connection, 0);
}

// Without an answer there is nothing left to do; with one, no more is read and the write set takes over.
void serve_request(RA_SERVER_S &server, RA_CONN_S *connection) {
    if (server.onHttpRequest != nullptr) server.onHttpRequest(connection);
    if (connection->outputLength == 0) {
        close_connection(server, connection, 1);
    } else {
        connection->inputLimit = connection->inputLength;
    }
}

void read_request(RA_SERVER_S &server, RA_CONN_S *connection) {
    const int room = ra_http_room(connection);
    if (room == 0) {
        close_connection(server, connection, 1);
        return;
    }
    const int got = packet_readTCP(connection->socket, connection->input + connection->inputLength, room);
    if (got == PACKETERRINTR || got == PACKETERRWOULDBLOCK) return;
    if (got <= 0) {  // the peer has closed, or the socket fails for good
        close_connection(server, connection, 1);
        return;
    }
    connection->lastUsed = server.now;
    const int request = ra_http_received(connection, got);
    if (request == RA_HTTP_COMPLETE) return serve_request(server, connection);
    // A buffer that is full would keep the connection out of the read set for good.
    if (request == RA_HTTP_BAD || ra_http_room(connection) == 0) close_connection(server, connection, 1);
}

}  // namespace

extern "C" {

int raConnSelectSet(void *context, fd_set *readSet, fd_set *writeSet) {
    const RA_SERVER_S &server = server_in(context);
    FD_ZERO(readSet);
    FD_ZERO(writeSet);
    int highest = -1;
    const auto add = [&highest](int socket, fd_set *set) {
        FD_SET(socket, set);
        highest = std::max(highest, socket);
    };
    if (server.udpSocket >= 0) add(server.udpSocket, readSet);
    if (server.tcpSocket >= 0) add(server.tcpSocket, readSet);
    for (const RA_CONN_S *connection = server.connections.head; connection != nullptr;
         connection = connection->next) {
        if (connection->socket < 0) continue;
        if (connection->inputLength < connection->inputLimit) add(connection->socket, readSet);
        if (connection->outputSent < connection->outputLength) add(connection->socket, writeSet);
    }
    return highest;
}

int raConnAccept(void *context, fd_set *readSet) {
    RA_SERVER_S &server = server_in(context);
    note_time(server);
    if (server.tcpSocket < 0 || !FD_ISSET(server.tcpSocket, readSet)) return 0;
    raConnNewConnection(&server);
    return 1;
}

void raConnData(int count, void *context, fd_set *readSet, fd_set *writeSet) {
    RA_SERVER_S &server = server_in(context);
    note_time(server);
    RA_CONN_S *next = nullptr;
    for (RA_CONN_S *connection = server.connections.head; connection != nullptr && count > 0; connection = next) {
        next = connection->next;
        if (connection->socket < 0) continue;
        const bool can_read = FD_ISSET(connection->socket, readSet);
        if (FD_ISSET(connection->socket, writeSet)) {
            count--;
            if (!write_answer(server, connection)) continue;
        }
        if (!can_read) continue;
        count--;
        read_request(server, connection);
    }
}

void raConnNewConnection(RA_SERVER_S *context) {
    uint32_t ip_host = 0;
    uint16_t port = 0;
    char *peer_name = nullptr;
    const int socket = packet_srv_accept(context->tcpSocket, &ip_host, &port, &peer_name);
    if (socket < 0) {
        if (socket != PACKETERRINTR) process_error("%s: accept error\n", new_label);
        return;
    }
    RA_CONN_S *connection = admit(socket, ip_host, peer_name);
    if (connection == nullptr) return packet_closeSocket(socket, 1);

    connection->socket = socket;
    connection->peerIp = ip_host;
    connection->peerPort = port;
    connection->created = connection->lastUsed = context->now;
    connection->inputLimit = FIRST_INPUT_LIMIT;
    link_at_tail(context->connections, connection);
    context->connCount++;
    context->connTotal++;
    process_trace("%s: %s:%d Socket %d, N %ld, T %ld\n", new_label, connection->peerName, port, socket,
                  context->connCount, context->connTotal);
}

void raConnCloseConnection(RA_SERVER_S *context, RA_CONN_S *connection, int hard) {
    if (context->connCount > 0) context->connCount--;
    process_trace("%s: %s:%d, I %ld, O %ld, S %ld, N %ld, T %ld\n", close_label, connection->peerName,
                  connection->peerPort, static_cast<long>(connection->inputLength),
                  static_cast<long>(connection->outputSent), static_cast<long>(context->now - connection->created),
                  context->connCount, context->connTotal);
    ra_conn_count(context->now, connection->inputLength, connection->outputSent);
    unlink_from(context->connections, connection);
    if (connection->socket >= 0) packet_closeSocket(connection->socket, hard);
    release(connection);
}

}  // extern "C"
