/* The calls by which a hook reads a request, writes its result, and keeps clients inside this server. */
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "packet/packet.h"
#include "process/velproc.h"
#include "raserver/raclienti.h"
#include "raserver/raserveri.h"

namespace {

// The control bytes that the text framing reserves, each written as ESCAPE and a byte of its own.
constexpr char ESCAPE = 2;
constexpr char SHOWN_AS[] = {3, 4, 5};  // for the bytes 0, 1 and 2

bool is_reserved(char byte) { return static_cast<unsigned char>(byte) <= ESCAPE; }

char unescaped(char shown) {
    if (shown == SHOWN_AS[0]) return 0;
    if (shown == SHOWN_AS[1]) return 1;
    return 2;
}

// Makes the block that a result stays in until the next call: as large as the whole input could need, and never
// smaller than its first byte does.
char *renew(char *&kept, long long size, int least, const char *label) {
    free(kept);
    kept = nullptr;
    if (size < least) size = least;
    if (size <= INT_MAX) kept = static_cast<char *>(process_malloc(label, static_cast<int>(size)));
    return kept;
}

}  // namespace

extern "C" {

char *raGetArg(RA_SESSION_S *session, int index) {
    return index >= 0 && index < session->argc ? session->argv[index] : nullptr;
}

uint32_t raGetPeerIp(RA_SESSION_S *session) { return session->peerIp; }
uint16_t raGetPeerPort(RA_SESSION_S *session) { return session->peerPort; }

int raSetResult(RA_SESSION_S *session, const char *text) {
    const bool takes_results = session->reply != nullptr && session->savedLength == 0;
    if (!takes_results || text == nullptr) return RAERRFULL;
    const size_t size = strlen(text) + 1;
    if (session->replyLength + size > RA_MAX_REPLY_TEXT) return RAERRFULL;
    memmove(session->reply + RA_HEADER_SIZE + session->replyLength, text, size);
    session->replyLength += static_cast<unsigned>(size);
    return static_cast<int>(session->replyLength);
}

int raClearResult(RA_SESSION_S *session) {
    const bool is_saved = session->savedLength != 0;  // then the length is that of the saved datagram
    if (!is_saved) session->replyLength = 0;
    return 0;
}

uint32_t raGetLocalIp(void) { return ra_server.localIp; }
uint16_t raGetPort(void) { return ra_server.port; }

int raSetPeriodicInterval(int seconds, int microseconds) {
    ra_server.periodicInterval.tv_sec = seconds;
    ra_server.periodicInterval.tv_usec = microseconds;
    return 0;
}

char *raIpString(uint32_t address) { return packet_ip2str(address); }

RA_CLIENT_S *raClientAdd(const char *host, uint16_t port, int interval, int tries) {
    RA_CLIENT_S *client = raclient_udp_create(host, port, interval, tries);
    if (client != nullptr) ra::link_at_tail(ra_server.clients, client);
    return client;
}

void raClientRemove(RA_CLIENT_S *client) {
    raclient_udp_destroy(client);  // which unlinks it
}

// Both convert the first byte of their input only. Programs rely on them as they were published.

char *raMem2Net(const char *data, int length) {
    static char *kept = nullptr;
    char *result = renew(kept, 2LL * length + 1, 3, "raMem2Net");
    if (result == nullptr || data == nullptr) return result;
    if (is_reserved(data[0])) {
        result[0] = ESCAPE;
        result[1] = SHOWN_AS[static_cast<unsigned char>(data[0])];
    } else {
        result[0] = data[0];
    }
    return result;
}

char *raNet2Mem(const char *text, int *length) {
    static char *kept = nullptr;
    if (text == nullptr) text = "";
    char *result = renew(kept, static_cast<long long>(strlen(text)) + 1, 2, "raNet2Mem");
    if (length != nullptr) *length = result != nullptr ? 1 : 0;
    if (result != nullptr) result[0] = text[0] == ESCAPE ? unescaped(text[1]) : text[0];
    return result;
}

}  // extern "C"
