/* Any bytes as an envelope, as a packet to be put into one, and as a datagram at the access step.
 *
 * Input: 16 bytes of a key, then the bytes. */
#include <algorithm>

#include "fuzz/keyfile.h"
#include "packet/accessi.h"
#include "packet/typecodes.h"

namespace {

constexpr uint8_t PADDING = 0xa5;

Bytes enveloped(const Bytes &key, const Bytes &plain) {
    Bytes envelope(plain.size() + PACKET_ENVELOPE_ROOM);
    const int size = packet_encrypt(key.data(), plain.data(), static_cast<int>(plain.size()), envelope.data());
    FUZZ_REQUIRE(plain.empty() ? size == 0
                               : size >= 33 && size % 16 == 1 && size <= static_cast<int>(envelope.size()));
    envelope.resize(static_cast<size_t>(size));
    return envelope;
}

/** What is in an envelope; nothing, too, if it is none. In place or not, the result is the same. */
Bytes opened(const Bytes &key, const Bytes &envelope) {
    const auto size = static_cast<int>(envelope.size());
    Bytes target(envelope.size());
    int length = -1;
    const uint8_t *plain = packet_decrypt(key.data(), envelope.data(), size, target.data(), &length);
    FUZZ_REQUIRE((plain != nullptr) == (size >= 33 && size % 16 == 1));
    if (plain == nullptr) return {};
    FUZZ_REQUIRE(length >= 0 && plain >= target.data() + 17 && plain + length == target.data() + size);

    Bytes place = envelope;
    const uint8_t *same = packet_decrypt(key.data(), place.data(), size, place.data(), nullptr);
    FUZZ_REQUIRE(place == target && same - place.data() == plain - target.data());
    return Bytes(plain, plain + length);
}

void check_round_trip(const Bytes &key, const Bytes &plain) {
    if (plain.empty()) return;
    const auto begin = std::find_if(plain.begin(), plain.end(), [](uint8_t each) { return each != PADDING; });
    FUZZ_REQUIRE(opened(key, enveloped(key, plain)) == Bytes(begin, plain.end()));
}

/** Takes a datagram through the access step; whether it is then accepted. */
bool is_accepted(Bytes datagram) {
    const bool is_sealed = !datagram.empty() && datagram[0] == IVS_TYPE_ENCR;
    const auto size = static_cast<int>(datagram.size());
    const int length = packet_access_step(datagram.data(), size, "fuzz");
    const bool is_opened = packet_came_in_envelope() != 0;
    FUZZ_REQUIRE(length >= 0 && length <= size && (length == size || is_opened));
    FUZZ_REQUIRE(is_opened == (is_sealed && size >= 33 && size % 16 == 1));
    FUZZ_REQUIRE(keyAccepted != 0 || !is_opened);
    return keyAccepted != 0;
}

Bytes shown(const uint8_t *key, const Bytes &packet) {
    Bytes datagram{IVS_TYPE_ACCK};
    datagram.insert(datagram.end(), key, key + IVS_KEY_SIZE);
    datagram.insert(datagram.end(), packet.begin(), packet.end());
    return datagram;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const KeyFile key_file("127.0.0.1 encrypt abcdefghijklmnopabcdefghijklmnop\n");
    packet_own_ip = htonl(INADDR_LOOPBACK);
    const uint8_t *own_key = packet_own_key();
    FUZZ_REQUIRE(own_key != nullptr);

    Input input(data, size);
    Bytes key = input.take(IVS_KEY_SIZE);
    key.resize(IVS_KEY_SIZE);
    const Bytes bytes = input.take_rest();

    opened(key, bytes);
    check_round_trip(key, bytes);
    is_accepted(bytes);
    FUZZ_REQUIRE(is_accepted(shown(own_key, bytes)));
    FUZZ_REQUIRE(is_accepted(shown(key.data(), bytes)) == std::equal(key.begin(), key.end(), own_key));
    if (!bytes.empty()) {
        FUZZ_REQUIRE(is_accepted(enveloped(Bytes(own_key, own_key + IVS_KEY_SIZE), bytes)));
        FUZZ_REQUIRE(is_accepted(enveloped(key, bytes)));  // noise, mostly: nothing in it tells
    }
    return 0;
}
