/* Senders of lists: how many entries go into a packet, and what becomes of the others. Packets of one record stand in
 * ivspktsnd.cpp. */
#include "ivs/ivssendi.h"
#include "process/velproc.h"

using ivs::OutgoingPacket;

namespace {

constexpr int CLIENTS_A_PACKET = 136;
constexpr int FULL_LIST = IVS_KEY_PREFIX + 1 + CLIENTS_A_PACKET * 4;

/* What a neighbour update takes in the older coding, which decides how much goes in. */
constexpr int HEAD_SIZE = 17;
constexpr int COUNTS_SIZE = 4;
constexpr int WORD_SIZE = 4;
constexpr int ENTRY_SIZE = 15;
constexpr int LARGEST_ENTRY = 4 + 3 * 5 + 4 + 5;  // in the newer coding

/** How much of the two lists goes into the packet. */
struct Share {
    int entries;
    int words;
};

Share fitting_share(int entries, int words) {
    Share share{std::clamp<int>(entries, 0, IVS_MAX_PACKET), std::clamp<int>(words, 0, IVS_MAX_PACKET)};
    while (ENTRY_SIZE * share.entries + HEAD_SIZE + WORD_SIZE * share.words + COUNTS_SIZE > IVS_MAX_PACKET) {
        --(share.entries >= share.words ? share.entries : share.words);
    }
    return share;
}

/** Differences of coordinates wrap around, as in the world. */
int32_t difference(int32_t value, int32_t base) {
    return static_cast<int32_t>(static_cast<uint32_t>(value) - static_cast<uint32_t>(base));
}

void write_position(OutgoingPacket &packet, int version, const int32_t position[3]) {
    for (int axis = 0; axis < 3; ++axis) {
        if (version < ivs::FIRST_VERSION_WITH_VS) {
            packet.u32be(static_cast<uint32_t>(position[axis]));
        } else {
            packet.vs(position[axis]);
        }
    }
}

void write_entry(OutgoingPacket &packet, int version, const int32_t base[3], const IVS_NEIGHBOUR_S &entry) {
    int32_t delta[3];
    for (int axis = 0; axis < 3; ++axis) delta[axis] = difference(entry.position[axis], base[axis]);

    packet.raw32(entry.client);
    for (const int32_t each : delta) {
        if (version < ivs::FIRST_VERSION_WITH_VS) {
            packet.u16be(static_cast<uint16_t>(each));
        } else {
            packet.vs(each);
        }
    }
    packet.orientation(entry.orientation);
    if (version >= ivs::FIRST_VERSION_WITH_SB) packet.vu(entry.sb);

    if (process_context.trace == 0) return;
    process_trace("DELTA %d %d %d ORI %d %d %d %d SB %lx\n", delta[0], delta[1], delta[2], entry.orientation[0],
                  entry.orientation[1], entry.orientation[2], entry.orientation[3],
                  static_cast<unsigned long>(entry.sb));
}

/** Writes entries as long as they end within the packet's size. The first that doesn't stays behind the counted ones,
 *  where nobody reads it: meant, as the packet's length may tell. */
int write_entries(OutgoingPacket &packet, int version, const int32_t base[3], const IVS_NEIGHBOUR_S *const *entries,
                  int count) {
    for (int counted = 0; counted < count; ++counted) {
        write_entry(packet, version, base, *entries[counted]);
        if (packet.length() > IVS_MAX_PACKET) return counted;
    }
    return count;
}

}  // namespace

int ivs_snd_nupd(int socket, uint32_t sid, uint32_t cid, int version, const int32_t base[3], int d,
                 const uint32_t *words, int wordCount, int u, const IVS_NEIGHBOUR_S *const *entries, int entryCount,
                 const void *address, int addressSize) {
    const Share share = fitting_share(entryCount, wordCount);
    OutgoingPacket packet(IVS_TYPE_NUPD, OutgoingPacket::BARE, IVS_MAX_PACKET + LARGEST_ENTRY);
    packet.session_if_any(sid);
    if (ivs::is_extended_client(cid)) packet.raw32(cid);
    write_position(packet, version, base);
    packet.u8(d).u8(share.words).bytes(words, share.words * WORD_SIZE).u8(u);
    if (process_context.trace != 0) {
        process_trace("POS: %d %d %d D %d N %d U %d\n", base[0], base[1], base[2], d, share.words, u);
    }
    unsigned char *const counted = packet.u8_for_later();
    *counted = static_cast<unsigned char>(write_entries(packet, version, base, entries, share.entries));
    return packet.send(socket, address, addressSize);
}

int ivs_snd_clal(int socket, const uint32_t *words, int count, const void *address, int addressSize) {
    int result = 0;
    for (int sent = 0; sent < count && result == 0; sent += CLIENTS_A_PACKET) {
        const int taken = std::min(count - sent, CLIENTS_A_PACKET);
        ivs::make_key_pending(address);  // for each packet: sending takes it
        OutgoingPacket packet(IVS_TYPE_CLAL, OutgoingPacket::BEHIND_PENDING_KEY, FULL_LIST);
        packet.bytes(words + sent, taken * WORD_SIZE);
        result = packet.send(socket, address, addressSize);
    }
    return result;
}
