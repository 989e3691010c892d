/* Framed values: any text but the byte 0 as letters, digits and %xx between two bytes 1. Clients encode, the gateway
 * decodes; the datagram format itself knows nothing of it. */
#include <limits.h>
#include <string.h>

#include "process/velproc.h"
#include "raserver/raextern.h"

namespace {

constexpr char FRAME = 1;
constexpr char DIGITS[] = "0123456789abcdef";

bool is_plain(unsigned char byte) { return process_isalnum(byte) != 0; }

/** Value of a hexadecimal digit of either case, or -1. */
int hex_value(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

/** The byte that "%xx" stands for, or -1 if `text` is no such thing. Doesn't look beyond the text's end. */
int escaped_byte(const char *text) {
    if (text[0] != '%') return -1;
    const int high = hex_value(text[1]);
    const int low = high < 0 ? -1 : hex_value(text[2]);
    return low < 0 ? -1 : high * 16 + low;
}

bool is_framed(const char *text, size_t length) {
    return length > 0 && text[0] == FRAME && text[length - 1] == FRAME;
}

}  // namespace

char *orEncode(const char *text) {
    if (text == nullptr) return nullptr;
    const size_t length = strlen(text);
    if (length > (INT_MAX - 3) / 3) return nullptr;

    auto *encoded = static_cast<char *>(process_malloc("orEncode", static_cast<int>(3 * length + 3)));
    if (encoded == nullptr) return nullptr;

    char *target = encoded;
    *target++ = FRAME;
    for (const char *source = text; *source != 0; ++source) {
        const auto byte = static_cast<unsigned char>(*source);
        if (is_plain(byte)) {
            *target++ = *source;
        } else {
            *target++ = '%';
            *target++ = DIGITS[byte >> 4];
            *target++ = DIGITS[byte & 15];
        }
    }
    *target++ = FRAME;
    *target = 0;
    return encoded;
}

char *orDecode(char *text) {
    if (text == nullptr) return nullptr;
    const size_t length = strlen(text);
    if (!is_framed(text, length)) return text;
    if (length > INT_MAX) return nullptr;

    // A frame that is one single byte asks for a block of 0 bytes here, and so gives null: it has no end.
    auto *decoded = static_cast<char *>(process_malloc("orDecode", static_cast<int>(length - 1)));
    if (decoded == nullptr) return nullptr;

    char *target = decoded;
    for (const char *source = text + 1; static_cast<unsigned char>(*source) > FRAME;) {
        const int byte = escaped_byte(source);
        *target++ = byte < 0 ? *source : static_cast<char>(byte);
        source += byte < 0 ? 1 : 3;
    }
    *target = 0;
    return decoded;
}
