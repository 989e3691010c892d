/* Orders to a server: each does its one thing, and only for a sender on this host who has the key.
 *
 * Input: a control byte (how it comes, from whom, whether keys are checked, whether the caller reads again), the
 * packet. Nothing is sent: the socket is closed. The process has neither status file nor log file. */
#include "fuzz/datagram.h"
#include "ivs/ivs.h"

namespace {

constexpr uint16_t PORT = 4000;
constexpr uint32_t OWN_IP = 0x0a000001;

/** What an order can change. */
struct State {
    int running, trace, reread;
    bool operator==(const State &) const = default;
};

/** What comes of an order, if it may be given. */
State expected_after(const State &before, int action, bool has_reread) {
    State after = before;
    if (action == IVS_ADMIN_STOP) after.running = 0;
    if (action == IVS_ADMIN_TRACEON) after.trace = before.trace == 0 ? 1 : 0;
    if (action == IVS_ADMIN_REREAD && has_reread) after.reread = 1;
    return after;
}

void start_server() {
    static const KeyFile keys(
        "127.0.0.1 encrypt abcdefghijklmnopabcdefghijklmnop\n"
        "10.0.0.1 encrypt bbbbccccddddeeeebbbbccccddddeeee\n");
    packet_own_ip = htonl(INADDR_LOOPBACK);
    ivs_local_ip = htonl(OWN_IP);
    ivs_local_port = htons(PORT);
    process_context.traceStream = fopen("/dev/null", "we");
    process_context.lockFd = -1;
}

PacketAddress peer_of(int number) {
    static constexpr uint32_t ips[] = {INADDR_LOOPBACK, OWN_IP, INADDR_LOOPBACK + 1, 0x08080808};
    PacketAddress peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(ips[number & 3]);
    peer.sin_port = htons(static_cast<uint16_t>(PORT + (number >> 2)));
    return peer;
}

bool is_on_this_host(const PacketAddress &peer) {
    const uint32_t ip = ntohl(peer.sin_addr.s_addr);
    return ip == INADDR_LOOPBACK || ip == OWN_IP;
}

/** What the run loop takes off a datagram: the envelope, or the key in front. */
Bytes arrived(Bytes datagram) {
    if (datagram.size() > PACKET_MAX_DATAGRAM) datagram.resize(PACKET_MAX_DATAGRAM);
    const int length = packet_access_step(datagram.data(), static_cast<int>(datagram.size()), "fuzz");
    const int skipped = length > IVS_KEY_PREFIX && datagram[0] == IVS_TYPE_ACCK ? int{IVS_KEY_PREFIX} : 0;
    return Bytes(datagram.begin() + skipped, datagram.begin() + length);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = (start_server(), true);
    FUZZ_REQUIRE(started);

    Input input(data, size);
    const int control = input.u8();
    const PacketAddress peer = peer_of(control >> 2 & 7);
    const bool has_reread = (control & 64) != 0;
    volatile int reread = 0;
    process_context.trace = control >> 7;
    const State before{1, process_context.trace, 0};

    process_context.noAccessKeyCheck = 0;  // else there is no key to make the datagram with
    const Bytes datagram = datagram_of(control & 3, input.take_rest());
    process_context.noAccessKeyCheck = control >> 5 & 1;
    const Bytes packet = arrived(datagram);
    const bool may = is_on_this_host(peer) && (keyAccepted != 0 || process_context.noAccessKeyCheck != 0);
    const bool is_order = packet.size() > IVS_ADMIN_ACTION_AT && packet[0] == IVS_TYPE_ADMN;
    const int action = is_order ? packet[IVS_ADMIN_ACTION_AT] : 0;
    ivs_admin_packet(-1, has_reread ? &reread : nullptr, packet.data(), static_cast<int>(packet.size()), &peer,
                     sizeof peer);

    const State after{process_context.running, process_context.trace, reread};
    FUZZ_REQUIRE(after == (may ? expected_after(before, action, has_reread) : before));
    FUZZ_REQUIRE(ivs_pending_key == nullptr && ivs_pending_key_flags == 0);
    FUZZ_REQUIRE(process_context.lockFd == -1);
    process_context.running = 1;
    return 0;
}
