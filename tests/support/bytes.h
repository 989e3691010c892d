/* Bytes as a test writes them down, hex digits with 'text' between them and blanks wherever they help; and random
 * ones. */
#ifndef TESTS_SUPPORT_BYTES_H
#define TESTS_SUPPORT_BYTES_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

/** bytes_of("12 00000001 'ab'") is 12 00 00 00 01 61 62. */
inline Bytes bytes_of(std::string_view notation) {
    Bytes bytes;
    bool in_text = false;
    for (size_t at = 0; at < notation.size(); ++at) {
        if (notation[at] == '\'') {
            in_text = !in_text;
        } else if (in_text) {
            bytes.push_back(static_cast<uint8_t>(notation[at]));
        } else if (notation[at] != ' ') {
            bytes.push_back(static_cast<uint8_t>(std::stoul(std::string(notation.substr(at++, 2)), nullptr, 16)));
        }
    }
    return bytes;
}

inline std::string hex_of(const void *bytes, size_t count) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    const auto *const first = static_cast<const uint8_t *>(bytes);
    for (size_t at = 0; at < count; ++at) text += {digits[first[at] >> 4], digits[first[at] & 15]};
    return text;
}
inline std::string hex_of(const Bytes &bytes) { return hex_of(bytes.data(), bytes.size()); }

/** A number for a test out of the environment. */
inline unsigned from_environment(const char *name, unsigned otherwise) {
    const char *text = getenv(name);
    return text != nullptr ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : otherwise;
}

/** A source of random numbers and bytes; a failure shows its seed, and VELMORA_TEST_SEED repeats a run. */
class Seeded : public std::mt19937 {
public:
    explicit Seeded(unsigned seed = from_environment("VELMORA_TEST_SEED", std::random_device{}()))
        : std::mt19937(seed), shown_("", 0, "seed " + std::to_string(seed)) {
        printf("VELMORA_TEST_SEED=%u\n", seed);
    }
    size_t below(size_t limit) { return (*this)() % limit; }
    template <class List>
    const auto &one_of(const List &list) {
        return list[below(list.size())];
    }
    Bytes bytes(size_t count) {
        Bytes made(count);
        for (uint8_t &byte : made) byte = static_cast<uint8_t>((*this)());
        return made;
    }

private:
    testing::ScopedTrace shown_;
};

#endif
