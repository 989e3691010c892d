/* The envelope: a packet enciphered as a whole under a session key of its own, which travels in front of it under
 * the receiver's access key. Pure: bytes in, bytes out; sockets, key look-ups and buffers stand elsewhere.
 *
 *   1 byte 165 | 16 bytes session key | 16 bytes first block | further blocks
 *
 * Padding stands in front of the packet, in the first block, so a receiver needs no length. */
#include <limits.h>
#include <string.h>

#include "packet/cryptoi.h"
#include "packet/packet.h"
#include "packet/typecodes.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr int BLOCK = PACKET_AES_BLOCK;
constexpr int SESSION_KEY_AT = 1;
constexpr int FIRST_BLOCK_AT = SESSION_KEY_AT + BLOCK;
constexpr int REST_AT = FIRST_BLOCK_AT + BLOCK;
constexpr uint8_t PADDING = 0xa5;

/** Draws a session key; its first word takes in the packet's first byte. */
void make_session_key(WipedBytes<BLOCK> &session_key, const uint8_t *plain) {
    for (size_t at = 0; at < BLOCK; at += sizeof(int)) {
        const int word = at == 0 ? packet_random(plain, 1) : packet_random(nullptr, 0);
        memcpy(session_key.data() + at, &word, sizeof word);
    }
}

void trace(const char *direction, int in, int out) {
    if (process_context.trace != 0) process_trace("PA.%s IN %ld OUT %ld\n", direction, long{in}, long{out});
}

size_t blocks_in(int bytes) { return static_cast<size_t>(bytes / BLOCK); }

}  // namespace

int packet_encrypt(const unsigned char *key, const unsigned char *plain, int length, unsigned char *envelope) {
    if (length <= 0 || length > INT_MAX - PACKET_ENVELOPE_ROOM) return 0;

    WipedBytes<BLOCK> session_key;
    make_session_key(session_key, plain);
    envelope[0] = IVS_TYPE_ENCR;
    EncipherKey(key).blocks(session_key.data(), envelope + SESSION_KEY_AT, 1);

    WipedBytes<BLOCK> first;
    const int taken = length % BLOCK == 0 ? BLOCK : length % BLOCK;
    memset(first.data(), PADDING, static_cast<size_t>(BLOCK - taken));
    memcpy(first.data() + BLOCK - taken, plain, static_cast<size_t>(taken));

    const EncipherKey session(session_key.data());
    session.blocks(first.data(), envelope + FIRST_BLOCK_AT, 1);
    session.blocks(plain + taken, envelope + REST_AT, blocks_in(length - taken));

    const int size = REST_AT + length - taken;
    trace("ENCRYPT", length, size);
    return size;
}

unsigned char *packet_decrypt(const unsigned char *key, const unsigned char *envelope, int length,
                              unsigned char *target, int *plainLength) {
    if (length < REST_AT || length % BLOCK != 1) return nullptr;

    target[0] = IVS_TYPE_ENCR;
    DecipherKey(key).blocks(envelope + SESSION_KEY_AT, target + SESSION_KEY_AT, 1);
    DecipherKey(target + SESSION_KEY_AT)
        .blocks(envelope + FIRST_BLOCK_AT, target + FIRST_BLOCK_AT, blocks_in(length - FIRST_BLOCK_AT));

    // A packet's own first bytes go with the padding if they have its value: known, and part of the format.
    unsigned char *plain = target + FIRST_BLOCK_AT;
    unsigned char *const end = target + length;
    while (plain < end && *plain == PADDING) ++plain;

    const auto left = static_cast<int>(end - plain);
    trace("DECRYPT", length, left);
    if (plainLength != nullptr) *plainLength = left;
    return plain;
}
