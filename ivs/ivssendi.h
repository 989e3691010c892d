/* A packet on its way out: what the senders put their packets together with, field by field. Nobody outside of ivs/
 * includes it. */
#ifndef IVS_IVSSENDI_H
#define IVS_IVSSENDI_H

#include <time.h>

#include <algorithm>

#include "ivs/ivsi.h"
#include "packet/bytereader.h"

namespace ivs {

constexpr int FIRST_VERSION_WITH_VS = 109;  // of the protocol: positions in integers of variable length
constexpr int FIRST_VERSION_WITH_SB = 116;

/** Whether a client word, network order, marks a client of the extended form. */
inline bool is_extended_client(uint32_t cid) { return (ntohl(cid) & EXTENDED_CLIENT_BIT) != 0; }

/** Looks up the access key of a peer and makes it pending for the next packet. */
inline void make_key_pending(const void *address) {
    int flags = PACKETKEYNONE;
    ivs_pending_key = packet_accesskey_by_adr(address, &flags);
    ivs_pending_key_flags = static_cast<uint32_t>(flags);
    static_assert(PACKETKEYCLEAR == int{IVS_KEY_FLAG_PREFIX} && PACKETKEYENCRYPT == int{IVS_KEY_FLAG_ENCIPHER});
}

/** The fields of a packet in their order, each method one kind of field. What is beyond the limit is left out. */
class OutgoingPacket {
public:
    enum Head { BARE, BEHIND_PENDING_KEY };
    static constexpr int LARGEST = 1559;  // GETI with all of its six counted texts

    explicit OutgoingPacket(int type, Head head = BARE, int limit = IVS_MAX_PACKET)
        : writer_(buffer_, std::min(limit, LARGEST)) {
        const bool shows_key = ivs_pending_key != nullptr && (ivs_pending_key_flags & IVS_KEY_FLAG_PREFIX) != 0;
        if (head == BEHIND_PENDING_KEY && shows_key) u8(IVS_TYPE_ACCK).bytes(ivs_pending_key, IVS_KEY_SIZE);
        u8(type);
    }

    OutgoingPacket &u8(int value) { return writer_.u8(static_cast<unsigned>(value)), *this; }
    OutgoingPacket &raw16(uint16_t word) { return writer_.raw16(word), *this; }
    OutgoingPacket &raw32(uint32_t word) { return writer_.raw32(word), *this; }
    OutgoingPacket &u16be(uint16_t value) { return writer_.u16be(value), *this; }
    OutgoingPacket &u32be(uint32_t value) { return writer_.u32be(value), *this; }
    OutgoingPacket &bytes(const void *source, int count) { return writer_.bytes(source, count), *this; }

    /** The two integers of variable length. */
    OutgoingPacket &vs(int32_t value) {
        unsigned char coded[IVS_LONGEST_INTEGER];
        return bytes(coded, ivs_put_int(value, coded));
    }
    OutgoingPacket &vu(uint32_t value) {
        unsigned char coded[IVS_LONGEST_INTEGER];
        return bytes(coded, ivs_put_uint(value, coded));
    }

    OutgoingPacket &session_if_any(uint32_t sid) { return sid != 0 ? raw32(sid) : *this; }
    OutgoingPacket &client_block(uint32_t sid, uint32_t cid) { return session_if_any(sid).raw32(cid); }
    OutgoingPacket &number_if_extended(uint32_t cid, uint16_t pkt) {
        return is_extended_client(cid) ? raw16(pkt) : *this;
    }
    OutgoingPacket &addr(uint32_t ip, uint16_t port) { return raw32(ip).raw16(port); }

    /** A text behind its length byte, which is the low byte of the length. */
    OutgoingPacket &counted(int length, const char *text) {
        const int taken = text != nullptr && length > 0 ? length % 256 : 0;
        return u8(taken).bytes(text, taken);
    }

    /** Bytes to the end of the packet: as many as there is room for. */
    OutgoingPacket &to_end(const void *source, int length) {
        return source != nullptr ? bytes(source, std::min(length, writer_.room())) : *this;
    }

    /** Four numbers, of which the low bytes travel. */
    OutgoingPacket &orientation(const int32_t values[4]) {
        return u8(values[0]).u8(values[1]).u8(values[2]).u8(values[3]);
    }

    /** Leaves room for a byte that is known later; it must be there. */
    unsigned char *u8_for_later() {
        unsigned char *place = buffer_ + writer_.length();
        u8(0);
        return place;
    }

    int length() const { return writer_.length(); }
    int room() const { return writer_.room(); }

    int send(int socket, const void *address, int addressSize) const {
        return ivs_sendto(socket, buffer_, writer_.length(), address, addressSize);
    }

    /** Reliably, if asked to. The first word travels in the head of the reliable packet: what stands in its place here
     *  is stepped over, whatever it is. */
    int send(int socket, bool reliably, uint32_t sid, uint32_t cid, const void *address, int addressSize) const {
        if (!reliably) return send(socket, address, addressSize);
        return ivs_srdp_packet_send(socket, time(nullptr), sid != 0 ? sid : cid, cid, buffer_[0], buffer_ + BODY_AT,
                                    writer_.length() - BODY_AT, address, addressSize);
    }

private:
    static constexpr int BODY_AT = 5;  // behind type and first word

    unsigned char buffer_[LARGEST];  // not cleared: only what is written goes out
    ByteWriter writer_;
};

}  // namespace ivs

#endif
