/* AES by tables, for any processor, and the public calls, which pick the way by what the processor knows.
 *
 * Modes, keys and envelopes stand elsewhere. A table's cache lines tell something of the key to whoever shares the
 * processor: one more reason why the instructions go first. */
#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <bit>

#include "packet/aestables.h"
#include "packet/crypto.h"
#include "packet/cryptoi.h"

namespace {

constexpr int rounds_of(int bits) { return bits == 128 ? 10 : bits == 192 ? 12 : bits == 256 ? 14 : 0; }
constexpr bool is_known(int rounds) { return rounds == 10 || rounds == 12 || rounds == 14; }

/** Byte number `row` of a word, from the left. */
template <int row>
inline uint8_t byte_of(uint32_t word) {
    return static_cast<uint8_t>(word >> (24 - 8 * row));
}

inline uint32_t load(const uint8_t *bytes) {
    uint32_t word = 0;
    memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

inline void store(uint8_t *bytes, uint32_t word) {
    word = htonl(word);
    memcpy(bytes, &word, sizeof word);
}

/** Joins one byte of each of four words by the tables given for their rows. */
inline uint32_t looked_up(const std::array<aes::WordTable, 4> &table, uint32_t a, uint32_t b, uint32_t c,
                          uint32_t d) {
    return table[0][byte_of<0>(a)] ^ table[1][byte_of<1>(b)] ^ table[2][byte_of<2>(c)] ^ table[3][byte_of<3>(d)];
}

inline uint32_t substituted(const aes::WordTable &plain, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return (plain[byte_of<0>(a)] & 0xff000000) ^ (plain[byte_of<1>(b)] & 0x00ff0000) ^
           (plain[byte_of<2>(c)] & 0x0000ff00) ^ (plain[byte_of<3>(d)] & 0x000000ff);
}

struct Columns {
    uint32_t a, b, c, d;
};

/** The rows of a block shift to the left for enciphering, to the right for deciphering: which column's byte goes
 *  where is all that differs beside the tables. */
struct Enciphering {
    static constexpr const aes::Direction &tables = aes::ENCIPHER;
    template <class Join, class Table>
    static Columns shifted(Join join, const Table &table, const Columns &s, const uint32_t *key) {
        return {join(table, s.a, s.b, s.c, s.d) ^ key[0], join(table, s.b, s.c, s.d, s.a) ^ key[1],
                join(table, s.c, s.d, s.a, s.b) ^ key[2], join(table, s.d, s.a, s.b, s.c) ^ key[3]};
    }
};

struct Deciphering {
    static constexpr const aes::Direction &tables = aes::DECIPHER;
    template <class Join, class Table>
    static Columns shifted(Join join, const Table &table, const Columns &s, const uint32_t *key) {
        return {join(table, s.a, s.d, s.c, s.b) ^ key[0], join(table, s.b, s.a, s.d, s.c) ^ key[1],
                join(table, s.c, s.b, s.a, s.d) ^ key[2], join(table, s.d, s.c, s.b, s.a) ^ key[3]};
    }
};

template <class Way, size_t rounds>
void run_blocks(const uint32_t *schedule, const uint8_t *in, uint8_t *out, size_t blocks) {
    for (; blocks > 0; --blocks, in += PACKET_AES_BLOCK, out += PACKET_AES_BLOCK) {
        Columns state{load(in) ^ schedule[0], load(in + 4) ^ schedule[1], load(in + 8) ^ schedule[2],
                      load(in + 12) ^ schedule[3]};
#pragma GCC unroll 16
        for (size_t round = 1; round < rounds; ++round) {
            state = Way::shifted(looked_up, Way::tables.mixed, state, schedule + 4 * round);
        }
        state = Way::shifted(substituted, Way::tables.plain, state, schedule + 4 * rounds);
        store(out, state.a);
        store(out + 4, state.b);
        store(out + 8, state.c);
        store(out + 12, state.d);
    }
}

template <class Way>
void run(const uint32_t *schedule, int rounds, const uint8_t *in, uint8_t *out, size_t blocks) {
    with_rounds(rounds, [&](auto count) { run_blocks<Way, count>(schedule, in, out, blocks); });
}

inline uint32_t substituted(uint32_t word) { return substituted(aes::ENCIPHER.plain, word, word, word, word); }

template <size_t key_words>
void expand_words(uint32_t *schedule, const uint8_t *key) {
    constexpr size_t words = 4 * (key_words + 7);
    for (size_t at = 0; at < key_words; ++at) schedule[at] = load(key + 4 * at);
    for (size_t at = key_words; at < words; ++at) {
        uint32_t word = schedule[at - 1];
        if (at % key_words == 0) {
            word = substituted(std::rotl(word, 8)) ^ aes::ROUND_CONSTANTS[at / key_words - 1];
        } else if (key_words == 8 && at % key_words == 4) {
            word = substituted(word);
        }
        schedule[at] = schedule[at - key_words] ^ word;
    }
}

void expand_by_tables(uint32_t *schedule, const uint8_t *key, int rounds) {
    with_rounds(rounds, [&](auto count) { expand_words<count - 6>(schedule, key); });
}

/** Inverse column mixing alone: the tables substitute as well, which the S-box in front of them takes back. */
template <int row>
inline uint32_t unmixed_byte(uint32_t word) {
    return aes::DECIPHER.mixed[row][aes::SUBSTITUTION[byte_of<row>(word)]];
}

inline uint32_t unmixed(uint32_t word) {
    return unmixed_byte<0>(word) ^ unmixed_byte<1>(word) ^ unmixed_byte<2>(word) ^ unmixed_byte<3>(word);
}

void invert_by_tables(uint32_t *schedule, int rounds) {
    for (int low = 0, high = 4 * rounds; low < high; low += 4, high -= 4) {
        std::swap_ranges(schedule + low, schedule + low + 4, schedule + high);
    }
    for (int at = 4; at < 4 * rounds; ++at) schedule[at] = unmixed(schedule[at]);
}

size_t blocks_of(int length) {
    return length > 0 ? (static_cast<size_t>(length) + PACKET_AES_BLOCK - 1) / PACKET_AES_BLOCK : 0;
}

}  // namespace

const AesPath aes_by_tables = {"tables", expand_by_tables, invert_by_tables, run<Enciphering>, run<Deciphering>};

const AesPath &aes_path() {
    static const AesPath &chosen = aes_has_instructions() ? aes_by_instructions : aes_by_tables;
    return chosen;
}

int packet_aes_key_enc(uint32_t *schedule, const unsigned char *key, int bits) {
    const int rounds = rounds_of(bits);
    if (rounds != 0) aes_path().expand(schedule, key, rounds);
    return rounds;
}

int packet_aes_key_dec(uint32_t *schedule, const unsigned char *key, int bits) {
    const int rounds = packet_aes_key_enc(schedule, key, bits);
    if (rounds != 0) aes_path().invert(schedule, rounds);
    return rounds;
}

void packet_aes_encrypt_block(const uint32_t *schedule, int rounds, const unsigned char *in, unsigned char *out) {
    if (is_known(rounds)) aes_path().encipher(schedule, rounds, in, out, 1);
}

void packet_aes_decrypt_block(const uint32_t *schedule, int rounds, const unsigned char *in, unsigned char *out) {
    if (is_known(rounds)) aes_path().decipher(schedule, rounds, in, out, 1);
}

void packet_aes_encrypt(const unsigned char *key, const unsigned char *in, int length, unsigned char *out) {
    EncipherKey(key).blocks(in, out, blocks_of(length));
}

void packet_aes_decrypt(const unsigned char *key, const unsigned char *in, int length, unsigned char *out) {
    DecipherKey(key).blocks(in, out, blocks_of(length));
}
