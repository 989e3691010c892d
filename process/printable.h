/* Text from a peer, made fit for a line of the log: nobody forges a line or steers a terminal. */
#ifndef PROCESS_PRINTABLE_H
#define PROCESS_PRINTABLE_H

#include <string>
#include <string_view>

/** Copy of a text with each control byte (0 to 31, 127) shown as '.'. Bytes from 128 on stay: they are letters. */
inline std::string printable(std::string_view text) {
    std::string shown(text);
    for (char &character : shown) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 32 || code == 127) character = '.';
    }
    return shown;
}

#endif
