/* A row of datagrams and ticks into the server core: requests, answers, pings, noise, in the clear, with a shown key
 * or in an envelope, from peers with and without keys. The hook reads all that a hook can read, and answers.
 *
 * Input, step by step: a control byte (how it comes, from whom, seconds since the last step), length (2 bytes), the
 * packet. Nothing is sent: the socket is closed. */
#include <algorithm>

#include "fuzz/datagram.h"
#include "process/owned.h"
#include "raserver/raserver.h"

namespace {

constexpr uint16_t PORT = 4000;
constexpr int TICK = ENVELOPE + 1;  // a step without a packet

const char *packet_start = nullptr, *packet_end = nullptr;

void check_arguments(RA_SESSION_S *session, int argc, char **argv) {
    FUZZ_REQUIRE(argc == session->argc && argc >= 0 && argc <= RA_MAX_STRINGS);
    FUZZ_REQUIRE(argv[argc] == nullptr);
    FUZZ_REQUIRE(raGetArg(session, argc) == nullptr && raGetArg(session, -1) == nullptr);
    for (int index = 0; index < argc; ++index) {
        FUZZ_REQUIRE(raGetArg(session, index) == argv[index]);
        FUZZ_REQUIRE(argv[index] >= packet_start && argv[index] + strlen(argv[index]) <= packet_end);
    }
}

/** Frames a text and undoes it, and takes the text itself as a framed one. */
void walk_framing(char *text) {
    const OwnedBlock<char> framed(orEncode(text));
    FUZZ_REQUIRE(framed);
    char *back = orDecode(framed.get());
    FUZZ_REQUIRE(back != nullptr && strcmp(back, text) == 0);
    if (back != framed.get()) free(back);

    char *decoded = orDecode(text);
    FUZZ_REQUIRE(decoded == nullptr || strlen(decoded) <= strlen(text));
    if (decoded != text) free(decoded);
    raNet2Mem(text, nullptr);
}

/** The hook: echoes what it got. */
void serve(RA_SESSION_S *session, int argc, char **argv) {
    check_arguments(session, argc, argv);
    int length = 0;
    for (int index = 0; index < argc; ++index) {
        walk_framing(argv[index]);
        const int result = raSetResult(session, argv[index]);
        if (result == RAERRFULL) break;
        length += static_cast<int>(strlen(argv[index])) + 1;
        FUZZ_REQUIRE(result == length && length <= RA_MAX_REPLY_TEXT);
    }
    if (argc > 2 && strcmp(argv[0], "clear") == 0) raClearResult(session);
    if (argc > 2 && strcmp(argv[0], "fill") == 0) {
        while (raSetResult(session, argv[1]) != RAERRFULL) {
        }
    }
}

/** Sees what the library would free next: the request is used again, so its results go here. */
void take_answer(RA_REQUEST_S *request, void *, int result) {
    FUZZ_REQUIRE(result == RAERRDENIED || result == request->resultCount);
    FUZZ_REQUIRE(request->resultVector[request->resultCount] == nullptr);
    for (int index = 0; index < request->resultCount; ++index) {
        const char *text = request->resultVector[index];
        FUZZ_REQUIRE(text >= packet_start && text + strlen(text) <= packet_end);
    }
    request->resultCount = 0;
    request->resultVector[0] = nullptr;
    request->callback = take_answer;
}

/** A client inside the server, with a request that stays open: without a tag, the library doesn't free it. */
void open_a_request() {
    static RA_REQUEST_S request;
    RA_CLIENT_S *client = raClientAdd("127.0.0.3", PORT, 1000000, 1000000);
    client->ip = htonl(INADDR_LOOPBACK + 2);
    request.client = client;
    request.sequence = htonl(0x01020304);
    request.callback = take_answer;
    request.deadline = request.lastSent = INT32_MAX;
    client->pending.head = client->pending.tail = &request;
}

void start_server() {
    static const KeyFile keys(
        "127.0.0.1 encrypt abcdefghijklmnopabcdefghijklmnop\n"
        "127.0.0.2 ponmlkjihgfedcbaponmlkjihgfedcba\n"
        "127.0.0.3 encrypt bbbbccccddddeeeebbbbccccddddeeee\n");
    packet_own_ip = htonl(INADDR_LOOPBACK);
    ra_server.udpSocket = -1;
    ra_server.port = PORT;
    ra_server.localIp = htonl(INADDR_LOOPBACK);
    ra_server.onUdpRequest = serve;
    open_a_request();
}

/** What the run loop does with a datagram. */
void receive(Bytes datagram, PacketAddress peer, timeval now) {
    if (datagram.size() > PACKET_MAX_DATAGRAM) datagram.resize(PACKET_MAX_DATAGRAM);
    const int length = packet_access_step(datagram.data(), static_cast<int>(datagram.size()), "fuzz");
    datagram.resize(static_cast<size_t>(length));
    datagram.resize(datagram.size() + 1 + PACKET_ZERO_TAIL);
    datagram.shrink_to_fit();

    const int skipped = datagram[0] == IVS_TYPE_ACCK && length > IVS_KEY_PREFIX ? int{IVS_KEY_PREFIX} : 0;
    packet_start = reinterpret_cast<char *>(datagram.data()) + skipped;
    packet_end = packet_start + length - skipped;
    ra_reply(&ra_server, &now, datagram.data() + skipped, length - skipped, &peer, sizeof peer);
    FUZZ_REQUIRE(ra_server.statusWanted == 0 || length - skipped <= 0);
}

PacketAddress peer_of(int number) {
    PacketAddress peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK + static_cast<uint32_t>(number & 3));
    peer.sin_port = htons(static_cast<uint16_t>(PORT + (number >> 2)));
    return peer;
}

void check_sessions() {
    unsigned long count = 0;
    for (RA_SESSION_S *session = ra_server.sessions.head; session != nullptr; session = session->next, ++count) {
        const bool is_saved = session->reply != nullptr;
        FUZZ_REQUIRE(!is_saved || session->savedLength == session->headerLength + session->replyLength);
        FUZZ_REQUIRE(session->argc == 0);
        FUZZ_REQUIRE(raserver_session_find(&ra_server, session->sessionId, session->peerIp, session->peerPort) ==
                     session);
    }
    FUZZ_REQUIRE(count == ra_server.sessionCount);
}

void forget_sessions() {
    while (ra_server.sessions.head != nullptr) raserver_session_delete(&ra_server, ra_server.sessions.head);
    FUZZ_REQUIRE(ra_server.savedReplyBytes == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = (start_server(), true);
    FUZZ_REQUIRE(started);

    Input input(data, size);
    timeval now{1000000, 0};
    ra_server.lastSweep = now.tv_sec;
    while (!input.is_empty()) {
        const int control = input.u8();
        const int way = control & 3;
        now.tv_sec += time_t{25} * (control >> 6);
        if (way == TICK) {
            raserver_periodic(&ra_server, &now);
        } else {
            receive(datagram_of(way, input.take(input.u16be())), peer_of(control >> 2 & 7), now);
        }
    }
    check_sessions();
    forget_sessions();
    return 0;
}
