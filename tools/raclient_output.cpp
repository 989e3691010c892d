/* Lines, JSON and tables out of the strings of an answer. */
#include "tools/raclient_output.h"

#include <stdio.h>

#include <algorithm>
#include <utility>

namespace {

unsigned char byte_of(char character) { return static_cast<unsigned char>(character); }

/** The characters of more than one byte in UTF-8: range of the first byte, length, range of the second byte. Further
 *  bytes are 80 to bf. So no overlong forms, no surrogates, nothing above 10ffff. */
struct Utf8Form {
    unsigned char first_low, first_high;
    unsigned char length;
    unsigned char second_low, second_high;
};
constexpr Utf8Form utf8_forms[] = {
    {0xc2, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf}, {0xe1, 0xec, 3, 0x80, 0xbf},
    {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf}, {0xf0, 0xf0, 4, 0x90, 0xbf},
    {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f},
};

bool has_form(std::string_view text, const Utf8Form &form) {
    const unsigned char first = byte_of(text[0]);
    if (first < form.first_low || first > form.first_high || text.size() < form.length) return false;
    const unsigned char second = byte_of(text[1]);
    if (second < form.second_low || second > form.second_high) return false;
    return std::all_of(text.begin() + 2, text.begin() + form.length,
                       [](char each) { return (byte_of(each) & 0xc0) == 0x80; });
}

/** Bytes of the UTF-8 character that a text begins with; 0 if it begins with none. */
size_t character_length(std::string_view text) {
    if (byte_of(text[0]) < 0x80) return 1;
    for (const Utf8Form &form : utf8_forms) {
        if (has_form(text, form)) return form.length;
    }
    return 0;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = character_length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

/** Control characters are 0 to 1f and 7f to 9f, whether the latter come as one byte or as UTF-8. */
bool is_control(std::string_view character) {
    const unsigned char first = byte_of(character[0]), last = byte_of(character.back());
    if (character.size() > 1) return first == 0xc2 && last < 0xa0;
    return first < 0x20 || (first >= 0x7f && first < 0xa0);
}

std::string hex(const char *prefix, int digits, unsigned value) {
    char text[16];
    snprintf(text, sizeof text, "%s%0*x", prefix, digits, value);
    return text;
}

std::string shown(std::string_view character) {
    if (character == "\n") return "\\n";
    if (character == "\t") return "\\t";
    if (character == "\\") return "\\\\";
    if (!is_control(character)) return std::string(character);
    std::string escaped;
    for (const char each : character) escaped += hex("\\x", 2, byte_of(each));
    return escaped;
}

/** Columns that a text takes on the terminal, as far as one character takes one. */
size_t width_of(std::string_view text) {
    size_t width = 0;
    for (; !text.empty(); ++width) text.remove_prefix(std::max<size_t>(character_length(text), 1));
    return width;
}

std::string json_character(std::string_view character) {
    if (character == "\"" || character == "\\") return "\\" + std::string(character);
    if (character == "\n") return "\\n";
    if (character == "\t") return "\\t";
    const unsigned char code = byte_of(character.back());  // that of a control character in UTF-8, too
    const bool is_latin = character.size() == 1 && code >= 0x80;
    return is_control(character) || is_latin ? hex("\\u", 4, code) : std::string(character);
}

std::string json_string(std::string_view text) {
    const bool is_latin = !is_utf8(text);
    std::string json = "\"";
    while (!text.empty()) {
        const size_t length = is_latin ? 1 : character_length(text);
        json += json_character(text.substr(0, length));
        text.remove_prefix(length);
    }
    return json + "\"";
}

}  // namespace

std::string as_line(std::string_view text) {
    std::string line;
    while (!text.empty()) {
        const size_t length = std::max<size_t>(character_length(text), 1);
        line += shown(text.substr(0, length));
        text.remove_prefix(length);
    }
    return line;
}

std::string as_json(const Texts &strings) {
    std::string json = "[";
    for (const std::string_view text : strings) {
        if (json.size() > 1) json += ",";
        json += json_string(text);
    }
    return json + "]";
}

std::string as_table(const Texts &headings, const Texts &cells) {
    const bool has_headings =
        std::any_of(headings.begin(), headings.end(), [](std::string_view each) { return !each.empty(); });
    const size_t columns = headings.size();
    std::vector<std::string> lines;
    for (const std::string_view text : has_headings ? headings : Texts{}) lines.push_back(as_line(text));
    for (const std::string_view text : cells) lines.push_back(as_line(text));

    std::vector<size_t> widths(columns);
    for (size_t at = 0; at < lines.size(); ++at) {
        widths[at % columns] = std::max(widths[at % columns], width_of(lines[at]));
    }
    std::string table, gap;  // blanks are held back until something stands behind them
    for (size_t at = 0; at < lines.size(); ++at) {
        const bool ends_row = (at + 1) % columns == 0 || at + 1 == lines.size();
        if (!lines[at].empty()) table += std::exchange(gap, "") + lines[at];
        gap += std::string(widths[at % columns] - width_of(lines[at]) + 2, ' ');
        if (!ends_row) continue;
        table += "\n";
        gap.clear();
    }
    return table;
}
