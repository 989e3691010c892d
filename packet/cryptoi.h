/* The ways in which cipher and digest can be worked out on this processor. For the files of packet/, and for tests
 * that compare the ways; everybody else calls crypto.h. */
#ifndef PACKET_CRYPTOI_H
#define PACKET_CRYPTOI_H

#include <stddef.h>
#include <stdint.h>
#include <type_traits>

#include "packet/crypto.h"
#include "process/owned.h"

/** One way of working out AES. All share one form of schedule. `rounds` is 10, 12 or 14. */
struct AesPath {
    const char *name;
    void (*expand)(uint32_t *schedule, const uint8_t *key, int rounds);
    void (*invert)(uint32_t *schedule, int rounds);  // makes an expanded schedule one for deciphering
    void (*encipher)(const uint32_t *schedule, int rounds, const uint8_t *in, uint8_t *out, size_t blocks);
    void (*decipher)(const uint32_t *schedule, int rounds, const uint8_t *in, uint8_t *out, size_t blocks);
};

extern const AesPath aes_by_tables;
extern const AesPath aes_by_instructions;  // to be used only if...
bool aes_has_instructions();

/** Calls work(rounds) with a number that the compiler knows, so that the loop over the rounds can be unrolled. */
template <class Work>
inline void with_rounds(int rounds, Work work) {
    switch (rounds) {
        case 10:
            return work(std::integral_constant<size_t, 10>());
        case 12:
            return work(std::integral_constant<size_t, 12>());
        default:
            return work(std::integral_constant<size_t, 14>());
    }
}

/** The faster one of those that this processor knows. */
const AesPath &aes_path();

/** Takes whole blocks into the state of a digest. */
using Sha256Blocks = void (*)(uint32_t *state, const uint8_t *data, size_t blocks);

void sha256_blocks_plain(uint32_t *state, const uint8_t *data, size_t blocks);
void sha256_blocks_by_instructions(uint32_t *state, const uint8_t *data, size_t blocks);  // to be used only if...
bool sha256_has_instructions();

/** An AES-128 key, expanded for one direction for as long as it lives, and wiped then. */
class AesKey {
public:
    AesKey(const AesKey &) = delete;
    AesKey &operator=(const AesKey &) = delete;

protected:
    static constexpr int ROUNDS = 10;

    explicit AesKey(const uint8_t *key) : path_(aes_path()) { path_.expand(schedule_, key, ROUNDS); }
    ~AesKey() { wipe(schedule_, sizeof schedule_); }

    const AesPath &path_;
    uint32_t schedule_[PACKET_AES_SCHEDULE_WORDS];
};

class EncipherKey : public AesKey {
public:
    explicit EncipherKey(const uint8_t *key) : AesKey(key) {}
    void blocks(const uint8_t *in, uint8_t *out, size_t count) const {
        path_.encipher(schedule_, ROUNDS, in, out, count);
    }
};

class DecipherKey : public AesKey {
public:
    explicit DecipherKey(const uint8_t *key) : AesKey(key) { path_.invert(schedule_, ROUNDS); }
    void blocks(const uint8_t *in, uint8_t *out, size_t count) const {
        path_.decipher(schedule_, ROUNDS, in, out, count);
    }
};

#endif
