/* The catalogue of the message protocol: names of types, attributes and refusal reasons, and the two codings of
 * integers of variable length. Layouts are the matter of those who read and write packets. */
#include <algorithm>
#include <array>
#include <bit>
#include <string_view>

#include "ivs/ivsi.h"

namespace {

constexpr int NAME_LENGTH = 4;

/** Text of a table index: a name, or the index itself, always four characters wide. */
struct NameText {
    char text[NAME_LENGTH + 1] = "    ";

    constexpr void set(std::string_view name) { std::copy(name.begin(), name.end(), text); }
    constexpr void set_number(int number) {
        int digits = number < 10 ? 1 : number < 100 ? 2 : 3;
        for (; digits > 0; number /= 10) text[--digits] = static_cast<char>('0' + number % 10);
    }
};

consteval std::array<NameText, IVS_TYPE_COUNT> make_names() {
    std::array<NameText, IVS_TYPE_COUNT> names;
    for (int index = 0; index < IVS_TYPE_COUNT; ++index) names[index].set_number(index);
#define IVS_SET_NAME(code, name) names[code].set(#name);
    IVS_TYPES(IVS_SET_NAME)
#undef IVS_SET_NAME
    return names;
}

constexpr std::array<NameText, IVS_TYPE_COUNT> names_by_index = make_names();

}  // namespace

// The language has no way to fill a plain array of pointers by a loop before the program starts.
#define IVS_NAME(i)      names_by_index[i].text
#define IVS_NAMES_4(i)   IVS_NAME(i), IVS_NAME((i) + 1), IVS_NAME((i) + 2), IVS_NAME((i) + 3)
#define IVS_NAMES_16(i)  IVS_NAMES_4(i), IVS_NAMES_4((i) + 4), IVS_NAMES_4((i) + 8), IVS_NAMES_4((i) + 12)
#define IVS_NAMES_64(i)  IVS_NAMES_16(i), IVS_NAMES_16((i) + 16), IVS_NAMES_16((i) + 32), IVS_NAMES_16((i) + 48)
#define IVS_NAMES_256(i) IVS_NAMES_64(i), IVS_NAMES_64((i) + 64), IVS_NAMES_64((i) + 128), IVS_NAMES_64((i) + 192)

const char *const ivs_packet_names[IVS_TYPE_COUNT] = {IVS_NAMES_256(0), IVS_NAMES_256(IVS_TYPE_ATTRIBUTES),
                                                      IVS_NAME(IVS_TYPE_UNKNOWN)};

const char *ivs::refusal_name(int reason) {
    switch (reason) {
#define IVS_REASON_NAME(code, name) \
    case code:                      \
        return #name " ";
        IVS_COFA_REASONS(IVS_REASON_NAME)
#undef IVS_REASON_NAME
        default:
            return nullptr;
    }
}

/* Integers of variable length. The number of one bits at the top of the first byte says how many bytes follow; 7 bits
 * of payload remain for each byte. From four one bits on, the next four bytes hold the value as it is. In a signed
 * payload the top bit says that the largest number of the remaining bits is to be subtracted, which makes a second
 * zero; it is never written. */
namespace {

constexpr int LONG_FORM = IVS_LONGEST_INTEGER;
constexpr uint8_t LONG_FORM_MARK = 0xf0;

constexpr uint32_t sign_bit(int bytes) { return uint32_t{1} << (7 * bytes - 1); }

int put_big_endian(uint32_t word, int bytes, unsigned char *target) {
    for (int place = bytes - 1; place >= 0; --place, word >>= 8) target[place] = static_cast<unsigned char>(word);
    return bytes;
}

uint32_t get_big_endian(const unsigned char *source, int bytes) {
    uint32_t word = 0;
    for (int place = 0; place < bytes; ++place) word = word << 8 | source[place];
    return word;
}

/** One to four bytes: the payload with the ones of its length on top. */
int put_short(uint32_t payload, int bytes, unsigned char *target) {
    const uint32_t ones = (uint32_t{1} << (bytes - 1)) - 1;
    return put_big_endian(ones << (7 * bytes + 1) | payload, bytes, target);
}

int put_long(uint32_t value, unsigned char *target) {
    target[0] = LONG_FORM_MARK;
    return 1 + put_big_endian(value, 4, target + 1);
}

int coded_length(unsigned char first) { return std::min(std::countl_one(first) + 1, LONG_FORM); }

/** Payload of a form of one to four bytes. */
uint32_t get_short(const unsigned char *source, int bytes) {
    const uint32_t payload_bits = (uint32_t{1} << (7 * bytes)) - 1;
    return get_big_endian(source, bytes) & payload_bits;
}

}  // namespace

int ivs_put_int(int32_t value, unsigned char *target) {
    for (int bytes = 1; bytes < LONG_FORM; ++bytes) {
        const auto largest = static_cast<int32_t>(sign_bit(bytes) - 1);
        if (value < -largest || value > largest) continue;
        if (value >= 0) return put_short(static_cast<uint32_t>(value), bytes, target);
        return put_short(sign_bit(bytes) | static_cast<uint32_t>(value + largest), bytes, target);
    }
    return put_long(static_cast<uint32_t>(value), target);
}

int ivs_get_int(const unsigned char *source, int32_t *result) {
    const int bytes = coded_length(source[0]);
    if (bytes == LONG_FORM) {
        *result = static_cast<int32_t>(get_big_endian(source + 1, 4));
        return bytes;
    }
    const uint32_t payload = get_short(source, bytes);
    const uint32_t largest = sign_bit(bytes) - 1;
    const auto number = static_cast<int32_t>(payload & largest);
    *result = (payload & sign_bit(bytes)) != 0 ? number - static_cast<int32_t>(largest) : number;
    return bytes;
}

int ivs_put_uint(uint32_t value, unsigned char *target) {
    for (int bytes = 1; bytes < LONG_FORM; ++bytes) {
        if (value >> (7 * bytes) == 0) return put_short(value, bytes, target);
    }
    return put_long(value, target);
}

int ivs_get_uint(const unsigned char *source, uint32_t *result) {
    const int bytes = coded_length(source[0]);
    *result = bytes == LONG_FORM ? get_big_endian(source + 1, 4) : get_short(source, bytes);
    return bytes;
}
