/* Texts: encoding for addresses and for HTML, replacing, the search for tokens, dates. */
#include <stdio.h>

#include <array>

#include "genhtml/ghstate.h"

using namespace genhtml;

namespace {

constexpr auto NOWHERE = std::string_view::npos;

int hex_digit(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    const char lower = static_cast<char>(character | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/** What a character becomes in HTML; empty if it stays. A "<$" stays: it may open a variable. */
std::string_view protected_form(char character, char next) {
    switch (character) {
        case '"':
            return "&#34;";
        case '&':
            return "&#38;";
        case '>':
            return "&#62;";
        case '<':
            return next == '$' ? "" : "&#60;";
        default:
            return "";
    }
}

size_t find_from(std::string_view text, std::string_view wanted, size_t from) {
    const void *found = memmem(text.data() + from, text.size() - from, wanted.data(), wanted.size());
    return found != nullptr ? static_cast<size_t>(static_cast<const char *>(found) - text.data()) : NOWHERE;
}

/** The last match of `wanted`, matches being counted from the left without overlap. */
size_t find_last(std::string_view text, std::string_view wanted) {
    const bool may_overlap = wanted.find(wanted.back()) != wanted.size() - 1;
    size_t last = NOWHERE;
    if (may_overlap) {
        for (size_t at = find_from(text, wanted, 0); at != NOWHERE;
             at = find_from(text, wanted, at + wanted.size())) {
            last = at;
        }
        return last;
    }
    for (size_t left = text.size(); left >= wanted.size();) {  // by its last character, which is the rarer one
        const void *found = memrchr(text.data(), wanted.back(), left);
        if (found == nullptr) return NOWHERE;
        left = static_cast<size_t>(static_cast<const char *>(found) - text.data());
        if (left + 1 < wanted.size()) return NOWHERE;
        const size_t start = left + 1 - wanted.size();
        if (text.compare(start, wanted.size(), wanted) == 0) return start;
    }
    return NOWHERE;
}

Token token_at(std::string_view text, size_t start, std::string_view open, std::string_view close) {
    if (start == NOWHERE) return {};
    const size_t inside = start + open.size();
    const size_t end = find_from(text, close, inside);
    if (end == NOWHERE) return {};
    return {start, end + close.size() - start, text.substr(inside, end - inside)};
}

/** Hands a token out as the calls do. */
char *hand_out(const char *label, const Token &token, int *start, int *length) {
    if (!token) return nullptr;
    char *inside = new_string(label, token.inside);
    if (inside == nullptr) return nullptr;
    if (start != nullptr) *start = static_cast<int>(token.start);
    if (length != nullptr) *length = static_cast<int>(token.length);
    return inside;
}

}  // namespace

void genhtml::append_encoded(std::string &target, std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    target.reserve(target.size() + 3 * text.size());
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (process_isalnum(byte)) {
            target += character;
        } else {
            target += {'%', digits[byte >> 4], digits[byte & 15]};
        }
    }
}

void genhtml::append_protected(std::string &target, std::string_view text) {
    size_t copied = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        const std::string_view form = protected_form(text[at], at + 1 < text.size() ? text[at + 1] : '\0');
        if (form.empty()) continue;
        target.append(text, copied, at - copied).append(form);
        copied = at + 1;
    }
    target.append(text, copied);
}

void genhtml::replace_in(std::string &text, std::string_view old, std::string_view fresh, int limit,
                         std::string &spare) {
    if (old.empty()) return;
    const size_t first = find_from(text, old, 0);
    if (first == NOWHERE) return;

    size_t count = 0;
    const size_t most = limit > 0 ? static_cast<size_t>(limit) : NOWHERE;
    for (size_t at = first; at != NOWHERE && count < most; at = find_from(text, old, at + old.size())) ++count;
    const size_t size = text.size() - count * old.size() + count * fresh.size();
    if (size + 1 > LINE_LIMIT) return;

    spare.clear();
    spare.reserve(size);
    size_t copied = 0;
    for (size_t at = first; count > 0; --count) {
        spare.append(text, copied, at - copied).append(fresh);
        copied = at + old.size();
        if (count > 1) at = find_from(text, old, copied);
    }
    spare.append(text, copied);
    text.swap(spare);
}

Token genhtml::find_token(std::string_view text, std::string_view open, std::string_view close) {
    return token_at(text, find_from(text, open, 0), open, close);
}

Token genhtml::find_last_token(std::string_view text, std::string_view open, std::string_view close) {
    if (open.empty() || close.empty()) return {};
    const size_t end = find_last(text, close);
    if (end == NOWHERE) return {};
    return token_at(text, find_last(text.substr(0, end), open), open, close);
}

genhtml::DateText::DateText(time_t when) {
    struct tm local {};
    if (localtime_r(&when, &local) == nullptr) local = {};
    snprintf(text, sizeof text, "%04ld%02d%02d%02d%02d%02d", local.tm_year + 1900L, local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec);
}

char *ghsDecode(const char *text) {
    constexpr char label[] = "ghsDecode";
    clear_error(label);
    char *const decoded = new_string(label, text_or_none(text));
    if (decoded == nullptr) return nullptr;
    char *end = decoded;
    for (const char *next = decoded; *next != '\0'; ++next) {
        const int high = *next == '%' ? hex_digit(next[1]) : -1;
        const int low = high >= 0 ? hex_digit(next[2]) : -1;
        if (low >= 0) {
            *end++ = static_cast<char>(high * 16 + low);
            next += 2;
        } else {
            *end++ = *next == '+' ? ' ' : *next;
        }
    }
    *end = '\0';
    return decoded;
}

char *ghsEncode(const char *text) {
    constexpr char label[] = "ghsEncode";
    clear_error(label);
    return with_memory<char *>(label, nullptr, [&] {
        std::string encoded;
        append_encoded(encoded, text_or_none(text));
        return new_string(label, encoded);
    });
}

char *ghsHtmlProtect(const char *text) {
    constexpr char label[] = "ghsHtmlProtect";
    clear_error(label);
    if (text == nullptr) return nullptr;
    return with_memory<char *>(label, nullptr, [&] {
        std::string safe;
        append_protected(safe, text);
        return new_string(label, safe);
    });
}

char *ghsReplace(const char *text, const char *old, const char *fresh, int limit) {
    constexpr char label[] = "ghsReplace";
    clear_error(label);
    return with_memory<char *>(label, nullptr, [&] {
        std::string result(text_or_none(text)), spare;
        replace_in(result, text_or_none(old), text_or_none(fresh), limit, spare);
        return new_string(label, result);
    });
}

char *ghsFindToken(const char *text, const char *open, const char *close, int *start, int *length) {
    constexpr char label[] = "ghsFindToken";
    clear_error(label);
    if (text == nullptr || open == nullptr || close == nullptr) return nullptr;
    return hand_out(label, find_token(text, open, close), start, length);
}

char *ghsFindLastToken(const char *text, const char *open, const char *close, int *start, int *length) {
    constexpr char label[] = "ghsFindLastToken";
    clear_error(label);
    if (text == nullptr || open == nullptr || close == nullptr) return nullptr;
    return hand_out(label, find_last_token(text, open, close), start, length);
}

char *ghsStrStr(const char *text, const char *needle, int ignoreCase) {
    if (text == nullptr || needle == nullptr) return nullptr;
    return const_cast<char *>(ignoreCase != 0 ? strcasestr(text, needle) : strstr(text, needle));
}

char *ghsSkipBlanks(char **text) {
    if (*text != nullptr) *text = skip_white(*text);
    return *text;
}

time_t ghsStr2Time(const char *text) {
    constexpr size_t DIGITS = 14;
    if (text == nullptr) return 0;
    std::string wanted(text, strnlen(text, DIGITS));
    wanted.resize(DIGITS, '0');

    tzset();
    time_t low = 0, high = 2147483647, probe = high / 2;
    while (high > low + 1) {  // no arithmetic with calendars: the system's own conversion is asked
        const int order = strcmp(DateText(probe).text, wanted.c_str());
        if (order == 0) return probe;
        (order < 0 ? low : high) = probe;
        probe = (low + high) / 2;
    }
    return probe;
}

char *ghsTime2Str(time_t when) {
    tzset();
    static DateText date{0};
    date = DateText(when);
    return date.text;
}
