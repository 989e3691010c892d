/* The client end of Remote Access: client objects, what all requests have in common, and the blocking request.
 *
 * A request goes out again every interval until its answer comes or all intervals are over; the server knows it by
 * its sequence number and carries it out once. One blocking request runs at a time, and its results lie in the
 * buffer of the run loop until the next. The texts of all failures go into the object; only the loop logs anything.
 * Asynchronous requests are in raclientasync.cpp.
 *
 * Waiting ends when process_context.running is cleared. A program that doesn't call process_init sets it to 1 itself
 * before its first request, or each one ends at once with RAERRKILLED. */
#include <errno.h>
#include <netdb.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

#include "ivs/ivs.h"
#include "packet/bytereader.h"
#include "packet/packet.h"
#include "process/owned.h"
#include "process/velproc.h"
#include "raserver/raclienti.h"
#include "raserver/raserveri.h"

// ---- Objects --------------------------------------------------------------------------------------------------

const char ra::client_tag[] = "RA server client";
const char ra::request_tag[] = "RA server request";

namespace {

/** What an object is, is told by the address of its tag, not by the text. */
bool has_tag(const void *object, const char *tag) {
    if (object == nullptr) return false;
    const char *found = nullptr;
    memcpy(&found, object, sizeof found);  // both kinds begin with it
    return found == tag;
}

}  // namespace

RA_CLIENT_S *ra::as_client(void *object) {
    return has_tag(object, client_tag) ? static_cast<RA_CLIENT_S *>(object) : nullptr;
}

RA_REQUEST_S *ra::as_request(void *object) {
    return has_tag(object, request_tag) ? static_cast<RA_REQUEST_S *>(object) : nullptr;
}

// ---- Failures -------------------------------------------------------------------------------------------------

namespace ra::say {
namespace {

__attribute__((format(printf, 3, 4))) int fail(ErrorText error, int code, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(error, sizeof error, format, arguments);
    va_end(arguments);
    return code;
}

}  // namespace

int not_resolved(RA_CLIENT_S *client, int result) {
    const char *reason = result == PACKETERRHOST ? hstrerror(h_errno) : strerror(errno);
    return fail(client->error, RAERRHOST, "gethostbyname(%s) failed! error: %s!", client->host, reason);
}
int no_socket(RA_CLIENT_S *client) {
    return fail(client->error, RAERRSOCKET, "Failed to get client socket! error: %s!", strerror(errno));
}
int killed(RA_CLIENT_S *client) { return fail(client->error, RAERRKILLED, "The process has been killed!"); }
int too_long(RA_CLIENT_S *client, int limit) {
    return fail(client->error, RAERRTOOLONG, "Arguments to long: More than %d bytes!", limit);
}
int too_many(RA_CLIENT_S *client, int count) {
    return fail(client->error, RAERRTOOMANY, "Too many arguments: %d!", count);
}
int no_answer(const RA_CLIENT_S *client, ErrorText error) {
    return fail(error, RAERRTIMEOUT, "Timeout, raserver %s:%d does not answer.", client->host, client->port);
}
int no_memory(RA_CLIENT_S *client, int size) {
    return fail(client->error, RAERRMEM, "Failed to malloc %d bytes! error: %s!", size, strerror(errno));
}
int denied(ErrorText error) { return fail(error, RAERRDENIED, "Request denied by server."); }

}  // namespace ra::say

// ---- First steps of a request ---------------------------------------------------------------------------------

namespace {

/** Four draws of the standard generator in one word, not negative. */
uint32_t draw_word() {
    uint32_t word = 0;
    for (int shift = 24; shift >= 0; shift -= 8) word ^= static_cast<uint32_t>(rand()) << shift;
    return static_cast<int32_t>(word) < 0 ? 0 - word : word;
}

/** A first sequence number that a stranger can't guess: the standard generator, stirred with process and time, and
 *  a word of the kernel's, which is what makes it hold. */
uint32_t first_sequence() {
    timeval now{};
    gettimeofday(&now, nullptr);
    srand(draw_word() ^ static_cast<uint32_t>(getpid()) ^ static_cast<uint32_t>(now.tv_sec) ^
          static_cast<uint32_t>(now.tv_usec));
    uint32_t kernel_word = 0;
    if (getrandom(&kernel_word, sizeof kernel_word, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof kernel_word)) {
        kernel_word = 0;  // too early after the machine's start: the draws alone have to do
    }
    return (draw_word() ^ kernel_word) & INT32_MAX;
}

/** Resolves the server's name, once in a client's life. Returns 0 or a code. */
int find_server(RA_CLIENT_S *client) {
    if (client->address != nullptr) return 0;
    const int size = packet_srvadr_byname(client->host, client->port, &client->address);
    if (size < 0) return ra::say::not_resolved(client, size);
    client->addressLength = size;
    packet_adr_get(client->address, &client->ip, nullptr);
    return 0;
}

/** Opens the client's socket, once in its life. Returns 0 or a code. */
int open_socket(RA_CLIENT_S *client) {
    const int socket = packet_clt_socket();
    if (socket < 0) return ra::say::no_socket(client);
    client->socket = socket;
    return 0;
}

/** What is left to the strings where key prefix, header and strings must fit into an envelope: it is a byte and blocks
 *  of 16, the first of which is the session key. */
constexpr int MAX_ENCIPHERED_TEXT =
    (int{sizeof(RA_CLIENT_S::request)} - 1) / 16 * 16 - 16 - int{IVS_KEY_PREFIX} - int{RA_HEADER_SIZE};

/** Lays the strings behind the header, up to the first null. Returns false if they take more than `limit` bytes. */
bool write_strings(ByteWriter &datagram, int limit, int argc, char **argv) {
    size_t total = 0;
    for (int index = 0; index < argc && argv[index] != nullptr; ++index) {
        const size_t length = strlen(argv[index]) + 1;
        total += length;
        if (total > static_cast<size_t>(limit)) return false;
        datagram.bytes(argv[index], static_cast<int>(length));
    }
    return true;
}

/** Puts a datagram into an envelope, if that fits where it lies; else it stays as it is. Returns its length. */
int encipher(const unsigned char *key, const ra::Draft &draft, int plain_length) {
    unsigned char envelope[sizeof(RA_REQUEST_S::request) + PACKET_ENVELOPE_ROOM];
    const int length = packet_encrypt(key, draft.bytes, plain_length, envelope);
    if (length < 1 || length > draft.size) return plain_length;
    memcpy(draft.bytes, envelope, static_cast<size_t>(length));
    return length;
}

}  // namespace

int ra::prepare(RA_CLIENT_S *client, int argc, int lent_socket) {
    client->error[0] = 0;
    if (argc > RA_MAX_STRINGS) return say::too_many(client, argc);
    if (const int code = find_server(client); code != 0) return code;
    if (client->socket < 0 && lent_socket < 0) {
        if (const int code = open_socket(client); code != 0) return code;
    }
    if (client->sequence == 0) client->sequence = first_sequence();
    return 0;
}

int ra::build_request(RA_CLIENT_S *client, const Draft &draft, int argc, char **argv) {
    int flags = PACKETKEYNONE;
    const unsigned char *key = packet_accesskey_by_ip(client->ip, &flags);
    // Hardened, the prefix is in every envelope: by it a hardened server tells a request from noise.
    const bool is_hardened = process_context.hardened != 0;
    const bool has_prefix = key != nullptr && (is_hardened || (flags & PACKETKEYCLEAR) != 0);
    const int limit = has_prefix && is_hardened ? MAX_ENCIPHERED_TEXT : int{RA_MAX_REQUEST_TEXT};

    ByteWriter datagram(draft.bytes, draft.size);
    if (has_prefix) datagram.u8(IVS_TYPE_ACCK).bytes(key, IVS_KEY_SIZE);
    datagram.u8(IVS_TYPE_RAUP).u8(static_cast<unsigned>(draft.function)).u8(0).raw32(draft.sequence);
    if (!write_strings(datagram, limit, argc, argv)) return say::too_long(client, limit);
    return key != nullptr ? encipher(key, draft, datagram.length()) : datagram.length();
}

// ---- Answers --------------------------------------------------------------------------------------------------

std::optional<ra::Answer> ra::read_answer(unsigned char *packet, int length) {
    ByteReader reader(packet, length);
    Answer answer{};
    answer.type = reader.u8();
    answer.function = reader.u8();
    reader.skip(1);
    answer.sequence = reader.raw32();
    answer.text = reinterpret_cast<char *>(packet) + RA_HEADER_SIZE;
    answer.length = reader.left();
    if (reader.ran_short()) return std::nullopt;
    return answer;
}

bool ra::counts_as_answer(const RA_CLIENT_S *client) {
    return process_context.hardened == 0 || keyAccepted != 0 ||
           packet_accesskey_by_ip(client->ip, nullptr) == nullptr;
}

int ra::take_answer(RA_CLIENT_S *client, unsigned char *packet, int length, const PacketAddress &peer) {
    const std::optional<Answer> answer = read_answer(packet, length);
    const bool is_from_server =
        peer.sin_addr.s_addr == client->address->sin_addr.s_addr && peer.sin_port == client->address->sin_port;
    if (!answer || !is_from_server || !counts_as_answer(client)) return NO_RESULT_YET;
    if (answer->type != IVS_TYPE_RAUP || answer->sequence + 1 != client->sequence) return NO_RESULT_YET;

    if (answer->function == RA_FUNCTION_REFUSED) return say::denied(client->error);
    if (answer->function != RA_FUNCTION_RESULT) return NO_RESULT_YET;
    client->resultCount = ra_split_strings(answer->text, answer->length, client->resultVector);
    return client->resultCount;
}

// ---- Waiting for the answer -----------------------------------------------------------------------------------

namespace {

using Clock = std::chrono::steady_clock;  // a step of the wall clock neither ends nor prolongs a wait

constexpr int DEFAULT_INTERVAL = 3;
constexpr int DEFAULT_TRIES = 5;

/** The running request, on its way through the run loop. */
class Exchange {
public:
    explicit Exchange(RA_CLIENT_S *client)
        : client_(client), until_(Clock::now() + std::chrono::seconds(client->interval) * client->tries) {}
    void run();

private:
    static void raclient_timer(void *context, timeval *now);
    static void raclient_reply_handler(void *context, timeval *now, unsigned char *packet, int length, void *address,
                                       int addressSize);
    void end(int result);

    RA_CLIENT_S *const client_;
    const Clock::time_point until_;
    bool we_stopped_ = false;  // the loop, and not somebody the process
    sigset_t signals_before_{};
};

void Exchange::run() {
    timeval interval{};
    interval.tv_sec = client_->interval;
    ivsrun(this, client_->socket, &interval, raclient_timer, raclient_reply_handler, nullptr, nullptr, nullptr);
    if (!we_stopped_) return;
    process_context.running = 1;  // the caller's own loop is to go on
    pthread_sigmask(SIG_SETMASK, &signals_before_, nullptr);
}

/** At the start of each interval: the request goes out, the first time or again. */
void Exchange::raclient_timer(void *context, timeval *) {
    auto *const self = static_cast<Exchange *>(context);
    RA_CLIENT_S *const client = self->client_;
    if (Clock::now() >= self->until_) return self->end(ra::say::no_answer(client, client->error));
    packet_sendto(client->socket, client->request, client->requestLength, client->address, client->addressLength);
}

void Exchange::raclient_reply_handler(void *context, timeval *, unsigned char *packet, int length, void *address,
                                      int) {
    auto *const self = static_cast<Exchange *>(context);
    PacketAddress peer;
    memcpy(&peer, address, sizeof peer);
    const int result = ra::take_answer(self->client_, packet, length, peer);
    if (result != ra::NO_RESULT_YET) self->end(result);
}

/** Ends the loop. That is done with the mark by which signals stop the process: they are held back until it is set
 *  again, or one that comes in between would be lost. One that came before stands. */
void Exchange::end(int result) {
    client_->result = result;
    if (we_stopped_) return;
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &signals_before_);
    if (process_context.running != 0) {
        we_stopped_ = true;
        process_context.running = 0;
    } else {
        pthread_sigmask(SIG_SETMASK, &signals_before_, nullptr);
    }
}

// ---- End of a client ------------------------------------------------------------------------------------------

/** A callback may destroy the client once more, or free requests of it: so nothing is kept across one but the head. */
void destroy_client(RA_CLIENT_S *client) {
    client->tag = nullptr;  // from here on no callback can send, or delete, with it
    if (ra::holds(ra_server.clients, client)) ra::unlink(ra_server.clients, client);
    while (RA_REQUEST_S *request = client->pending.head) {
        ra::call_back(request, RAERRDESTROYED);
        if (client->pending.head == request) ra::delete_request(request);
    }
    if (client->socket >= 0) close(client->socket);
    free(client->address);
    free(client->host);
    free(client);
}

char *string_at(char **strings, int count, int index) {
    return index >= 0 && index < count ? strings[index] : nullptr;
}

}  // namespace

// ---- Public calls ---------------------------------------------------------------------------------------------

RA_CLIENT_S *raclient_udp_create(const char *host, uint16_t port, int interval, int tries) {
    constexpr char label[] = "raclient_udp_create";
    if (host == nullptr) return nullptr;
    process_harden_by_environment();  // a program that lives by clients alone may have gone without process_init
    OwnedBlock<RA_CLIENT_S> client(process_malloc(label, sizeof(RA_CLIENT_S)));
    if (client.is_null()) return nullptr;
    client->host = static_cast<char *>(process_memdup(label, host, static_cast<int>(strlen(host)) + 1));
    if (client->host == nullptr) return nullptr;

    client->tag = ra::client_tag;
    client->port = port;
    client->interval = interval < 1 ? DEFAULT_INTERVAL : interval;
    client->tries = tries < 1 ? DEFAULT_TRIES : tries;
    client->socket = -1;
    return client.release();
}

void raclient_udp_destroy(void *object) {
    if (RA_CLIENT_S *client = ra::as_client(object)) return destroy_client(client);
    if (RA_REQUEST_S *request = ra::as_request(object)) ra::delete_request(request);
}

int raclient_udp_request(RA_CLIENT_S *client, int argc, char **argv) {
    if (ra::as_client(client) == nullptr) return RAERRNOCLIENT;
    client->resultCount = 0;  // the buffer that the last results lie in is about to be used again
    if (const int code = ra::prepare(client, argc, -1); code != 0) return code;

    const ra::Draft draft{client->request, sizeof client->request, RA_FUNCTION_SYNC, client->sequence};
    client->requestLength = ra::build_request(client, draft, argc, argv);
    if (client->requestLength < 0) return client->requestLength;

    client->result = ra::NO_RESULT_YET;
    client->deadline = time(nullptr) + static_cast<time_t>(client->interval) * client->tries;
    client->sequence += 1;
    if (process_context.running != 0) Exchange(client).run();
    return client->result == ra::NO_RESULT_YET ? ra::say::killed(client) : client->result;
}

char *raclient_errmsg(void *object) {
    static char not_an_object[] = "Invalid client pointer.";
    if (RA_CLIENT_S *client = ra::as_client(object)) return client->error;
    if (RA_REQUEST_S *request = ra::as_request(object)) return request->error;
    return not_an_object;
}

char *raclient_result(void *object, int index) {
    RA_CLIENT_S *client = ra::as_client(object);
    if (client == nullptr) return raclient_request_result(ra::as_request(object), index);
    return string_at(client->resultVector, client->resultCount, index);
}

char *raclient_request_result(RA_REQUEST_S *request, int index) {
    if (ra::as_request(request) == nullptr) return nullptr;
    return string_at(request->resultVector, request->resultCount, index);
}
