/* AES by the processor's own instructions: constant in time, and many times faster than tables.
 *
 * This file is compiled for any processor and only the marked functions use the instructions, so whoever calls them
 * asks aes_has_instructions first. The schedule is the one of aes.cpp, numbers rather than bytes: turning a round
 * key costs one instruction beside the path that a block waits on. */
#include "packet/aestables.h"
#include "packet/cryptoi.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <algorithm>
#include <utility>

#define WITH_AES __attribute__((target("aes,sse2,ssse3")))

namespace {

constexpr size_t BATCH = 8;  // blocks on their way at once: hides the time that one round takes

/** Turns the bytes of each word round: numbers into bytes of the standard's order, and back. */
WITH_AES inline __m128i turned(__m128i words) {
    return _mm_shuffle_epi8(words, _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3));
}

WITH_AES inline __m128i load(const void *bytes) { return _mm_loadu_si128(static_cast<const __m128i *>(bytes)); }
WITH_AES inline void store(void *bytes, __m128i value) { _mm_storeu_si128(static_cast<__m128i *>(bytes), value); }
WITH_AES inline __m128i round_key(const uint32_t *schedule, size_t round) {
    return turned(load(schedule + 4 * round));
}

struct Enciphering {
    WITH_AES static __m128i round(__m128i state, __m128i key) { return _mm_aesenc_si128(state, key); }
    WITH_AES static __m128i last(__m128i state, __m128i key) { return _mm_aesenclast_si128(state, key); }
};

struct Deciphering {
    WITH_AES static __m128i round(__m128i state, __m128i key) { return _mm_aesdec_si128(state, key); }
    WITH_AES static __m128i last(__m128i state, __m128i key) { return _mm_aesdeclast_si128(state, key); }
};

template <class Way, size_t rounds>
WITH_AES inline void run_one(const uint32_t *schedule, const uint8_t *in, uint8_t *out) {
    __m128i state = _mm_xor_si128(load(in), round_key(schedule, 0));
#pragma GCC unroll 16
    for (size_t round = 1; round < rounds; ++round) state = Way::round(state, round_key(schedule, round));
    store(out, Way::last(state, round_key(schedule, rounds)));
}

/** Batches only. The round keys are turned once, into a block that is wiped: kept in registers they would be
 *  spilled to places that are not. */
template <class Way, size_t rounds>
WITH_AES void run_batches(const uint32_t *schedule, const uint8_t *in, uint8_t *out, size_t batches) {
    __m128i keys[rounds + 1];
    for (size_t round = 0; round <= rounds; ++round) keys[round] = round_key(schedule, round);
    for (; batches > 0; --batches, in += BATCH * PACKET_AES_BLOCK, out += BATCH * PACKET_AES_BLOCK) {
        __m128i states[BATCH];
#pragma GCC unroll 8
        for (size_t at = 0; at < BATCH; ++at) states[at] = _mm_xor_si128(load(in + at * PACKET_AES_BLOCK), keys[0]);
        for (size_t round = 1; round < rounds; ++round) {
#pragma GCC unroll 8
            for (size_t at = 0; at < BATCH; ++at) states[at] = Way::round(states[at], keys[round]);
        }
#pragma GCC unroll 8
        for (size_t at = 0; at < BATCH; ++at) {
            store(out + at * PACKET_AES_BLOCK, Way::last(states[at], keys[rounds]));
        }
    }
    wipe(keys, sizeof keys);
}

template <class Way, size_t rounds>
WITH_AES void run_blocks(const uint32_t *schedule, const uint8_t *in, uint8_t *out, size_t blocks) {
    const size_t batched = blocks - blocks % BATCH;
    if (batched > 0) run_batches<Way, rounds>(schedule, in, out, batched / BATCH);
    for (size_t at = batched; at < blocks; ++at) {
        run_one<Way, rounds>(schedule, in + at * PACKET_AES_BLOCK, out + at * PACKET_AES_BLOCK);
    }
}

template <class Way>
void run(const uint32_t *schedule, int rounds, const uint8_t *in, uint8_t *out, size_t blocks) {
    with_rounds(rounds, [&](auto count) { run_blocks<Way, count>(schedule, in, out, blocks); });
}

/** The key of the next round. The last round of the cipher, on four equal columns, is a plain substitution. */
WITH_AES inline __m128i next_key(__m128i key, uint32_t constant) {
    const __m128i last_word = _mm_shuffle_epi8(key, _mm_set1_epi32(0x0c0f0e0d));  // byte 12 behind 13, 14, 15
    const __m128i mixed_in = _mm_aesenclast_si128(last_word, _mm_set1_epi32(static_cast<int>(constant >> 24)));
    key = _mm_xor_si128(key, _mm_slli_si128(key, 4));
    key = _mm_xor_si128(key, _mm_slli_si128(key, 8));
    return _mm_xor_si128(key, mixed_in);
}

WITH_AES void expand_128(uint32_t *schedule, const uint8_t *key) {
    __m128i round_key = load(key);
    store(schedule, turned(round_key));
#pragma GCC unroll 10
    for (const uint32_t constant : aes::ROUND_CONSTANTS) {
        round_key = next_key(round_key, constant);
        schedule += 4;
        store(schedule, turned(round_key));
    }
}

void expand(uint32_t *schedule, const uint8_t *key, int rounds) {
    if (rounds == 10) return expand_128(schedule, key);
    aes_by_tables.expand(schedule, key, rounds);
}

WITH_AES void invert(uint32_t *schedule, int rounds) {
    for (int low = 0, high = 4 * rounds; low < high; low += 4, high -= 4) {
        std::swap_ranges(schedule + low, schedule + low + 4, schedule + high);
    }
    for (size_t round = 1; round < static_cast<size_t>(rounds); ++round) {
        store(schedule + 4 * round, turned(_mm_aesimc_si128(round_key(schedule, round))));
    }
}

}  // namespace

const AesPath aes_by_instructions = {"instructions", expand, invert, run<Enciphering>, run<Deciphering>};

bool aes_has_instructions() { return __builtin_cpu_supports("aes") != 0 && __builtin_cpu_supports("ssse3") != 0; }

#else

const AesPath aes_by_instructions = aes_by_tables;

bool aes_has_instructions() { return false; }

#endif
