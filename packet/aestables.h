/* The tables of AES, worked out by the compiler from the field that the standard defines them by.
 *
 * The field: bytes as polynomials over two elements, multiplied modulo x^8 + x^4 + x^3 + x + 1. What a round does
 * with them stands in aes.cpp. */
#ifndef PACKET_AESTABLES_H
#define PACKET_AESTABLES_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <bit>

namespace aes {

using ByteTable = std::array<uint8_t, 256>;
using WordTable = std::array<uint32_t, 256>;

constexpr uint8_t twice(uint8_t element) {
    return static_cast<uint8_t>((element << 1) ^ ((element & 0x80) != 0 ? 0x1b : 0));
}

constexpr uint8_t product(uint8_t left, uint8_t right) {
    uint8_t sum = 0;
    for (; right != 0; right >>= 1, left = twice(left)) {
        if ((right & 1) != 0) sum ^= left;
    }
    return sum;
}

/** The S-box: each element's inverse (0 for 0), sent through the standard's affine map. */
constexpr ByteTable make_substitution() {
    ByteTable table{};
    table[0] = 0x63;
    // 3 generates the field, so the two run through all pairs of an element and its inverse; 0xf6 is 3's inverse.
    uint8_t element = 1, inverse = 1;
    do {
        element = product(element, 3);
        inverse = product(inverse, 0xf6);
        table[element] = static_cast<uint8_t>(0x63 ^ inverse ^ std::rotl(inverse, 1) ^ std::rotl(inverse, 2) ^
                                              std::rotl(inverse, 3) ^ std::rotl(inverse, 4));
    } while (element != 1);
    return table;
}

constexpr ByteTable turned_round(const ByteTable &table) {
    ByteTable result{};
    for (int value = 0; value < 256; ++value) result[table[static_cast<size_t>(value)]] = static_cast<uint8_t>(value);
    return result;
}

constexpr uint32_t word(uint8_t first, uint8_t second, uint8_t third, uint8_t fourth) {
    return uint32_t{first} << 24 | uint32_t{second} << 16 | uint32_t{third} << 8 | fourth;
}

/** What one direction of a round needs. mixed[row] joins substitution and column mixing for a byte of that row;
 *  plain holds the substituted byte in each byte of a word, for the round without mixing. */
struct Direction {
    std::array<WordTable, 4> mixed;
    WordTable plain;
};

/** @param column  first column of the mixing matrix, from the top */
constexpr Direction make_direction(const ByteTable &substitution, const std::array<uint8_t, 4> &column) {
    Direction tables{};
    for (size_t value = 0; value < 256; ++value) {
        const uint8_t byte = substitution[value];
        const uint32_t mixed = word(product(byte, column[0]), product(byte, column[1]), product(byte, column[2]),
                                    product(byte, column[3]));
        for (size_t row = 0; row < 4; ++row) tables.mixed[row][value] = std::rotr(mixed, static_cast<int>(8 * row));
        tables.plain[value] = word(byte, byte, byte, byte);
    }
    return tables;
}

constexpr std::array<uint32_t, 10> make_round_constants() {
    std::array<uint32_t, 10> constants{};
    uint8_t element = 1;
    for (uint32_t &constant : constants) {
        constant = word(element, 0, 0, 0);
        element = twice(element);
    }
    return constants;
}

inline constexpr ByteTable SUBSTITUTION = make_substitution();
alignas(64) inline constexpr Direction ENCIPHER = make_direction(SUBSTITUTION, {2, 1, 1, 3});
alignas(64) inline constexpr Direction DECIPHER = make_direction(turned_round(SUBSTITUTION), {14, 9, 13, 11});
inline constexpr std::array<uint32_t, 10> ROUND_CONSTANTS = make_round_constants();

}  // namespace aes

#endif
