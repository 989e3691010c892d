/* The calls by which the hook of HTTP requests reads a request and writes its answer. */
#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "process/printable.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

constexpr char label[] = "raSetHttpResult";
constexpr uint64_t OUTPUT_STEP = 32000;

void trace(const char *text) {
    if (process_context.trace == 0) return;
    const std::string shown = printable(text);  // it may repeat what the peer sent
    process_trace("RA.TRA %s %.*s\n", label, static_cast<int>(shown.size()), shown.c_str());
}

// The answer's length must stay one that an int can tell.
bool make_room(RA_CONN_S &connection, uint64_t length) {
    if (connection.outputSize - connection.outputLength >= length) return true;
    const uint64_t size = connection.outputSize + std::max(OUTPUT_STEP, length);
    void *grown = size < INT_MAX ? realloc(connection.output, size + 1) : nullptr;
    if (grown == nullptr) {
        const int error = size < INT_MAX ? errno : ENOMEM;
        process_error("%s: malloc %d bytes failed! errmsg %s\n", label,
                      static_cast<int>(std::min<uint64_t>(size + 1, INT_MAX)), strerror(error));
        return false;
    }
    connection.output = static_cast<unsigned char *>(grown);
    connection.outputSize = static_cast<unsigned int>(size);
    return true;
}

void tell(int *target, unsigned int length) {
    if (target != nullptr) *target = static_cast<int>(length);
}

}  // namespace

extern "C" {

int raSetHttpResult(RA_CONN_S *connection, const char *text) {
    const size_t length = text != nullptr ? strlen(text) : 0;
    if (length > 0) {
        trace(text);
        if (make_room(*connection, length)) {
            memcpy(connection->output + connection->outputLength, text, length + 1);
            connection->outputLength += static_cast<unsigned int>(length);
        }
    }
    return static_cast<int>(connection->outputLength);
}

int raClearHttpResult(RA_CONN_S *connection) {
    connection->outputLength = 0;
    return 0;
}

uint32_t raConnGetIp(RA_CONN_S *connection) { return htonl(connection->peerIp); }
uint16_t raConnGetPort(RA_CONN_S *connection) { return htons(connection->peerPort); }

char *raConnGetHeader(RA_CONN_S *connection, int *length) {
    tell(length, connection->headerLength);
    return connection->header;
}

unsigned char *raConnGetBody(RA_CONN_S *connection, int *length) {
    tell(length, connection->contentLength);
    return connection->body;
}

char *raConnGetUrl(RA_CONN_S *connection, int *length) {
    tell(length, connection->urlLength);
    return connection->url;
}

}  // extern "C"
