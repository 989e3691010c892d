/* Access keys at work: what each datagram passes on its way in, and the enciphered way out.
 *
 * Nothing is dropped here. A datagram is marked by keyAccepted, and the layers above decide what an unmarked one may
 * do. Noise that comes from an envelope under a wrong key is marked as well: nothing in the format tells it apart.
 * Hardened, the key must also stand in front of the packet inside, and each envelope that goes out has it there. */
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "packet/accessi.h"
#include "packet/packet.h"
#include "packet/typecodes.h"
#include "process/owned.h"
#include "process/velproc.h"

int keyAccepted = 0;

namespace {

int came_in_envelope = 0;

namespace say {
void no_memory(const char *label, int size) {
    process_error("%s: malloc %d bytes failed! errmsg %s\n", label, size, strerror(errno));
}
}  // namespace say

/** A block for the process, which grows to the largest packet seen and never shrinks. */
class GrowingBlock {
public:
    /** At least `size` bytes, or null: already in the log under `label`. */
    unsigned char *grown(int size, const char *label) {
        if (size <= size_) return block_;
        void *larger = realloc(block_, static_cast<size_t>(size));
        if (larger == nullptr) {
            say::no_memory(label, size);
            return nullptr;
        }
        block_ = static_cast<unsigned char *>(larger);
        size_ = size;
        return block_;
    }

private:
    unsigned char *block_ = nullptr;
    int size_ = 0;
};

GrowingBlock decrypt_block, encrypt_block;

/** Opens an envelope in place; its length, or that of the packet that was in it. */
int open_envelope(unsigned char *packet, int length, const char *label) {
    const uint8_t *key = packet_own_key();
    if (key == nullptr) return length;
    unsigned char *work = decrypt_block.grown(length, label);
    if (work == nullptr) return length;

    int plain_length = 0;
    const unsigned char *plain = packet_decrypt(key, packet, length, work, &plain_length);
    if (plain == nullptr) return length;

    if (process_context.hardened == 0) keyAccepted = 1;  // else only what is found in it counts
    came_in_envelope = 1;
    memcpy(packet, plain, static_cast<size_t>(plain_length));
    wipe(work, IVS_KEY_PREFIX);  // the session key stands in front of the packet
    return plain_length;
}

bool shows_key(const unsigned char *packet, int length, const unsigned char *key) {
    return length >= IVS_KEY_PREFIX && packet[0] == IVS_TYPE_ACCK && packet_same_key(key, packet + 1);
}

}  // namespace

int packet_access_step(void *buffer, int length, const char *label) {
    auto *packet = static_cast<unsigned char *>(buffer);
    keyAccepted = process_context.noAccessKeyCheck != 0 ? 1 : 0;
    came_in_envelope = 0;
    if (length >= 1 && packet[0] == IVS_TYPE_ENCR) length = open_envelope(packet, length, label);
    if (length >= IVS_KEY_PREFIX && packet[0] == IVS_TYPE_ACCK) {
        const uint8_t *key = packet_own_key();
        if (key != nullptr && shows_key(packet, length, key)) keyAccepted = 1;
    }
    return length;
}

int packet_came_in_envelope(void) { return came_in_envelope; }

int packet_send_encrypted(int socket, const unsigned char *key, const void *packet, int length, const void *address,
                          int addressSize) {
    constexpr int LARGEST = (INT_MAX - PACKET_ENVELOPE_ROOM) / 2 - IVS_KEY_PREFIX;
    if (length < 1 || length > LARGEST) return PACKETERRMEM;
    const auto *plain = static_cast<const unsigned char *>(packet);
    const bool adds_key = process_context.hardened != 0 && !shows_key(plain, length, key);
    const int plain_length = adds_key ? IVS_KEY_PREFIX + length : length;
    const int room = plain_length + PACKET_ENVELOPE_ROOM;
    unsigned char *envelope = encrypt_block.grown(adds_key ? room + plain_length : room, "packet_send_encrypted");
    if (envelope == nullptr) return PACKETERRMEM;

    unsigned char *const prefixed = envelope + room;  // behind the envelope, if it is needed
    if (adds_key) {
        prefixed[0] = IVS_TYPE_ACCK;
        memcpy(prefixed + 1, key, IVS_KEY_SIZE);
        memcpy(prefixed + IVS_KEY_PREFIX, packet, static_cast<size_t>(length));
        plain = prefixed;
    }
    const int size = packet_encrypt(key, plain, plain_length, envelope);
    if (adds_key) wipe(prefixed, IVS_KEY_PREFIX);
    return packet_sendto(socket, envelope, size, address, addressSize);
}
