/* Any datagram as the answer to a client's request: to a blocking one, and to one of several asynchronous ones.
 *
 * Input: a byte (bit 0: it comes from a stranger), then the datagram. Nothing is sent: the socket is closed. */
#include <algorithm>

#include "fuzz/fuzz.h"
#include "packet/packet.h"
#include "packet/typecodes.h"
#include "raserver/raclienti.h"

namespace {

constexpr uint16_t PORT = 4000;

const char *packet_start = nullptr, *packet_end = nullptr;
int callbacks = 0;
uint32_t number_answered = 0;

uint32_t number_asked() { return 0x04030201; }

/** Results lie in the packet, each with its end, and nothing behind them. */
void check_results(void *object, int count) {
    FUZZ_REQUIRE(count >= 0 && count <= RA_MAX_STRINGS);
    for (int index = 0; index < count; ++index) {
        const char *text = raclient_result(object, index);
        FUZZ_REQUIRE(text >= packet_start + RA_HEADER_SIZE && text + strlen(text) <= packet_end);
    }
    FUZZ_REQUIRE(raclient_result(object, count) == nullptr && raclient_result(object, -1) == nullptr);
}

void take_result(RA_REQUEST_S *request, void *, int result) {
    ++callbacks;
    FUZZ_REQUIRE(request->sequence == number_answered);
    FUZZ_REQUIRE(result == RAERRDENIED || result == request->resultCount);
    check_results(request, request->resultCount);
}

RA_CLIENT_S *make_client() {
    become_a_silent_process();
    process_context.noAccessKeyCheck = 1;
    return raClientAdd("127.0.0.3", PORT, 1, 1);
}

/** The packet in a block of its size and the one byte behind it that a receiver may write. */
Bytes block_of(const Bytes &packet) {
    Bytes block(packet.size() + 1);
    std::copy(packet.begin(), packet.end(), block.begin());
    packet_start = reinterpret_cast<char *>(block.data());
    packet_end = packet_start + packet.size();
    return block;
}

void answer_blocking(RA_CLIENT_S *client, const Bytes &packet, const PacketAddress &peer) {
    Bytes block = block_of(packet);
    client->sequence = number_asked() + 1;
    client->resultCount = 0;
    const int result = ra::take_answer(client, block.data(), static_cast<int>(packet.size()), peer);
    FUZZ_REQUIRE(result == ra::NO_RESULT_YET || result == RAERRDENIED || result == client->resultCount);
    check_results(client, client->resultCount);
    client->resultCount = 0;
}

/** Of three requests in a row the answer ends the one that it is for. */
void answer_asynchronous(RA_CLIENT_S *client, const Bytes &packet, PacketAddress peer, bool is_stranger) {
    Bytes block = block_of(packet);
    constexpr uint32_t REQUESTS = 3;
    client->sequence = number_asked() - 1;
    for (uint32_t times = 0; times < REQUESTS; ++times) raUdpRequest(0, client, 0, nullptr, take_result, nullptr);
    const int length = static_cast<int>(packet.size());
    if (length >= RA_HEADER_SIZE) memcpy(&number_answered, packet.data() + 3, sizeof number_answered);
    const bool is_answer = !is_stranger && length >= RA_HEADER_SIZE && packet[0] == IVS_TYPE_RAUA &&
                           (packet[1] == RA_FUNCTION_RESULT || packet[1] == RA_FUNCTION_REFUSED) &&
                           number_answered - (number_asked() - 1) < REQUESTS;
    callbacks = 0;
    raclient_udp_reply(&ra_server, block.data(), length, &peer);
    raclient_udp_reply(&ra_server, block.data(), length, &peer);
    FUZZ_REQUIRE(callbacks == (is_answer ? 1 : 0));
    while (client->pending.head != nullptr) raclient_request_delete(client, client->pending.head);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static RA_CLIENT_S *const client = make_client();
    Input input(data, size);
    const bool is_stranger = (input.u8() & 1) != 0;
    const Bytes packet = input.take(PACKET_MAX_DATAGRAM);

    if (client->address == nullptr) raUdpRequest(0, client, 0, nullptr, nullptr, nullptr);  // resolves it
    while (client->pending.head != nullptr) raclient_request_delete(client, client->pending.head);
    PacketAddress peer = *client->address;
    if (is_stranger) peer.sin_port = 1;
    answer_blocking(client, packet, peer);
    answer_asynchronous(client, packet, peer, is_stranger);
    return 0;
}
