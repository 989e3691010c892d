/* SHA-256, plain and with the processor's own instructions, and the public calls, which pick one of the two.
 *
 * The constants are worked out by the compiler from what the standard says they are: the first bits behind the point
 * of square and cube roots of primes. */
#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <bit>

#include "packet/crypto.h"
#include "packet/cryptoi.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace {

constexpr size_t ROUNDS = 64;
constexpr int LENGTH_AT = PACKET_SHA256_BLOCK - 8;  // where the count of bits stands in the last block

using Wide = unsigned __int128;

constexpr Wide power(Wide base, int exponent) {
    Wide result = 1;
    for (; exponent > 0; --exponent) result *= base;
    return result;
}

/** The 32 bits behind the point of a root of a small number, for degree 2 or 3. */
constexpr uint32_t root_fraction(unsigned number, int degree) {
    const Wide wanted = Wide{number} << (32 * degree);
    uint64_t root = 0;
    for (uint64_t bit = uint64_t{1} << 37; bit != 0; bit >>= 1) {
        if (power(root | bit, degree) <= wanted) root |= bit;
    }
    return static_cast<uint32_t>(root);
}

template <size_t count>
constexpr std::array<uint32_t, count> root_fractions_of_primes(int degree) {
    std::array<uint32_t, count> fractions{};
    unsigned number = 2;
    for (uint32_t &fraction : fractions) {
        const auto is_composite = [](unsigned candidate) {
            for (unsigned divisor = 2; divisor * divisor <= candidate; ++divisor) {
                if (candidate % divisor == 0) return true;
            }
            return false;
        };
        while (is_composite(number)) ++number;
        fraction = root_fraction(number++, degree);
    }
    return fractions;
}

constexpr std::array<uint32_t, 8> START = root_fractions_of_primes<8>(2);
alignas(64) constexpr std::array<uint32_t, ROUNDS> CONSTANTS = root_fractions_of_primes<ROUNDS>(3);

uint32_t load(const uint8_t *bytes) {
    uint32_t word = 0;
    memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

void store(uint8_t *bytes, uint32_t word) {
    word = htonl(word);
    memcpy(bytes, &word, sizeof word);
}

/** Word number `at` of the message schedule, the last 16 of which stand in a ring. */
inline uint32_t scheduled(uint32_t *ring, size_t at) {
    const uint32_t early = ring[(at + 1) & 15], late = ring[(at + 14) & 15];
    const uint32_t low = std::rotr(early, 7) ^ std::rotr(early, 18) ^ early >> 3;
    const uint32_t high = std::rotr(late, 17) ^ std::rotr(late, 19) ^ late >> 10;
    return ring[at & 15] += low + ring[(at + 9) & 15] + high;
}

/** One round. Instead of moving eight words up by one, it looks for them one place further down each time. */
inline void run_round(std::array<uint32_t, 8> &words, size_t round, uint32_t scheduled_word) {
    const auto word = [&words, round](size_t number) -> uint32_t & { return words[(number - round) & 7]; };
    const uint32_t a = word(0), b = word(1), c = word(2), e = word(4), f = word(5), g = word(6);
    const uint32_t sum = word(7) + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + ((e & (f ^ g)) ^ g) +
                         CONSTANTS[round] + scheduled_word;
    word(3) += sum;
    word(7) = sum + (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) | (c & (a | b)));
}

void run_block(uint32_t *state, const uint8_t *data) {
    uint32_t ring[16];
    std::array<uint32_t, 8> words;
    std::copy_n(state, words.size(), words.begin());
#pragma GCC unroll 16
    for (size_t round = 0; round < 16; ++round) run_round(words, round, ring[round] = load(data + 4 * round));
#pragma GCC unroll 48
    for (size_t round = 16; round < ROUNDS; ++round) run_round(words, round, scheduled(ring, round));
    for (size_t at = 0; at < words.size(); ++at) state[at] += words[at];
}

Sha256Blocks blocks_call() {
    static const Sha256Blocks chosen =
        sha256_has_instructions() ? sha256_blocks_by_instructions : sha256_blocks_plain;
    return chosen;
}

void count_bits(PACKET_SHA256_S *context, int bytes) {
    const uint64_t before = uint64_t{context->bitCount[0]} << 32 | context->bitCount[1];
    const uint64_t bits = before + uint64_t{8} * static_cast<uint64_t>(bytes);
    context->bitCount[0] = static_cast<uint32_t>(bits >> 32);
    context->bitCount[1] = static_cast<uint32_t>(bits);
}

}  // namespace

void sha256_blocks_plain(uint32_t *state, const uint8_t *data, size_t blocks) {
    for (; blocks > 0; --blocks, data += PACKET_SHA256_BLOCK) run_block(state, data);
}

#if defined(__x86_64__) || defined(__i386__)

#define WITH_SHA __attribute__((target("sha,ssse3,sse4.1")))

namespace {

/** The state as the instructions want it: its words 0, 1, 4, 5 and 2, 3, 6, 7, each four from the high end down. */
struct Halves {
    __m128i abef, cdgh;
};

WITH_SHA inline Halves taken_apart(const uint32_t *state) {
    const auto *words = reinterpret_cast<const __m128i *>(state);
    const __m128i badc = _mm_shuffle_epi32(_mm_loadu_si128(words), 0xb1);
    const __m128i hgfe = _mm_shuffle_epi32(_mm_loadu_si128(words + 1), 0x1b);
    return {_mm_alignr_epi8(badc, hgfe, 8), _mm_blend_epi16(hgfe, badc, 0xf0)};
}

WITH_SHA inline void put_together(const Halves &halves, uint32_t *state) {
    auto *words = reinterpret_cast<__m128i *>(state);
    const __m128i feba = _mm_shuffle_epi32(halves.abef, 0x1b);
    const __m128i dchg = _mm_shuffle_epi32(halves.cdgh, 0xb1);
    _mm_storeu_si128(words, _mm_blend_epi16(feba, dchg, 0xf0));
    _mm_storeu_si128(words + 1, _mm_alignr_epi8(dchg, feba, 8));
}

WITH_SHA inline __m128i next_four(__m128i first, __m128i second, __m128i third, __m128i fourth) {
    const __m128i sum = _mm_add_epi32(_mm_sha256msg1_epu32(first, second), _mm_alignr_epi8(fourth, third, 4));
    return _mm_sha256msg2_epu32(sum, fourth);
}

WITH_SHA inline void run_block(Halves &halves, const uint8_t *data) {
    const __m128i turn = _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3);
    const Halves before = halves;
    __m128i ring[4];
#pragma GCC unroll 16
    for (size_t four = 0; four < ROUNDS / 4; ++four) {
        __m128i &words = ring[four & 3];
        if (four < 4) {
            words = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(data) + four), turn);
        } else {
            words = next_four(words, ring[(four + 1) & 3], ring[(four + 2) & 3], ring[(four + 3) & 3]);
        }
        const auto *constants = reinterpret_cast<const __m128i *>(CONSTANTS.data()) + four;
        const __m128i sums = _mm_add_epi32(words, _mm_load_si128(constants));
        halves.cdgh = _mm_sha256rnds2_epu32(halves.cdgh, halves.abef, sums);
        halves.abef = _mm_sha256rnds2_epu32(halves.abef, halves.cdgh, _mm_shuffle_epi32(sums, 0x0e));
    }
    halves.abef = _mm_add_epi32(halves.abef, before.abef);
    halves.cdgh = _mm_add_epi32(halves.cdgh, before.cdgh);
}

}  // namespace

WITH_SHA void sha256_blocks_by_instructions(uint32_t *state, const uint8_t *data, size_t blocks) {
    Halves halves = taken_apart(state);
    for (; blocks > 0; --blocks, data += PACKET_SHA256_BLOCK) run_block(halves, data);
    put_together(halves, state);
}

bool sha256_has_instructions() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;  // asked by number: not every compiler knows the name of this one
    const bool has_sha = __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0 && (ebx & bit_SHA) != 0;
    return has_sha && __builtin_cpu_supports("ssse3") != 0 && __builtin_cpu_supports("sse4.1") != 0;
}

#else

void sha256_blocks_by_instructions(uint32_t *state, const uint8_t *data, size_t blocks) {
    sha256_blocks_plain(state, data, blocks);
}

bool sha256_has_instructions() { return false; }

#endif

void packet_sha256_init(PACKET_SHA256_S *context) {
    *context = {};
    std::copy(START.begin(), START.end(), context->state);
}

void packet_sha256_update(PACKET_SHA256_S *context, const void *data, int length) {
    if (length <= 0) return;
    const auto *next = static_cast<const uint8_t *>(data);
    auto left = static_cast<size_t>(length);
    count_bits(context, length);

    if (context->fill > 0) {
        const size_t taken = std::min(left, static_cast<size_t>(PACKET_SHA256_BLOCK - context->fill));
        memcpy(context->block + context->fill, next, taken);
        context->fill = static_cast<uint8_t>(context->fill + taken);
        next += taken;
        left -= taken;
        if (context->fill < PACKET_SHA256_BLOCK) return;
        blocks_call()(context->state, context->block, 1);
    }
    const size_t blocks = left / PACKET_SHA256_BLOCK;
    if (blocks > 0) blocks_call()(context->state, next, blocks);
    context->fill = static_cast<uint8_t>(left % PACKET_SHA256_BLOCK);
    memcpy(context->block, next + blocks * PACKET_SHA256_BLOCK, context->fill);
}

void packet_sha256_finish(PACKET_SHA256_S *context) {
    uint8_t *const block = context->block;
    block[context->fill++] = 0x80;
    if (context->fill > LENGTH_AT) {
        memset(block + context->fill, 0, static_cast<size_t>(PACKET_SHA256_BLOCK - context->fill));
        blocks_call()(context->state, block, 1);
        context->fill = 0;
    }
    memset(block + context->fill, 0, static_cast<size_t>(LENGTH_AT - context->fill));
    store(block + LENGTH_AT, context->bitCount[0]);
    store(block + LENGTH_AT + 4, context->bitCount[1]);
    blocks_call()(context->state, block, 1);
    context->fill = 0;
}

void packet_sha256_digest(const PACKET_SHA256_S *context, unsigned char *target) {
    if (target == nullptr) return;
    for (size_t at = 0; at < 8; ++at) store(target + 4 * at, context->state[at]);
}

unsigned char *packet_sha256(const void *data, int length) {
    static unsigned char digest[PACKET_SHA256_DIGEST];
    PACKET_SHA256_S context;
    packet_sha256_init(&context);
    packet_sha256_update(&context, data, length);
    packet_sha256_finish(&context);
    packet_sha256_digest(&context, digest);
    wipe(&context, sizeof context);  // the pool of the random generator passes here
    return digest;
}
