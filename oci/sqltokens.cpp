/* Cuts an SQL text into tokens; see sqltokens.h. */
#include "oci/sqltokens.h"

#include <algorithm>

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (c & 0x80) != 0; }
bool is_name_part(char c) { return is_letter(c) || is_digit(c) || c == '$' || c == '#'; }
bool is_number_part(char c) { return is_name_part(c) || c == '.'; }
bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

// "::" is a cast in one dialect: taken whole, its second half never begins a placeholder.
constexpr std::string_view pairs[] = {"<=", ">=", "<>", "!=", "==", "||", "::"};

}  // namespace

bool sql_same_name(std::string_view one, std::string_view other) {
    return std::ranges::equal(one, other, [](char a, char b) { return upper(a) == upper(b); });
}

bool SqlToken::is_word(std::string_view word) const {
    return kind == SqlTokenKind::WORD && sql_same_name(text, word);
}

SqlToken SqlTokens::next() {
    skip_blanks_and_comments();
    const char first = at(0);
    if (place_ >= sql_.size()) return {};
    if (first == '\'') return cut(SqlTokenKind::TEXT, quoted_length('\''));
    if (first == '"') return cut(SqlTokenKind::NAME, quoted_length('"'));
    if (is_letter(first)) return cut(SqlTokenKind::WORD, run_length(1, is_name_part));
    if (is_digit(first)) return cut(SqlTokenKind::NUMBER, run_length(1, is_number_part));
    if (first == ':' && is_name_part(at(1))) return cut(SqlTokenKind::PLACEHOLDER, run_length(1, is_name_part));
    if (first == '?' && is_digit(at(1))) return cut(SqlTokenKind::PLACEHOLDER, run_length(1, is_digit));

    const bool is_pair = std::ranges::find(pairs, sql_.substr(place_, 2)) != std::end(pairs);
    return cut(SqlTokenKind::SYMBOL, is_pair ? 2 : 1);
}

void SqlTokens::skip_blanks_and_comments() {
    for (;;) {
        while (place_ < sql_.size() && is_blank(sql_[place_])) place_++;
        const std::string_view rest = sql_.substr(place_);
        std::size_t end;
        if (rest.starts_with("--")) {
            end = rest.find('\n');
        } else if (rest.starts_with("/*")) {
            end = rest.find("*/", 2);
            if (end != rest.npos) end++;
        } else {
            return;
        }
        place_ = end == rest.npos ? sql_.size() : place_ + end + 1;
    }
}

SqlToken SqlTokens::cut(SqlTokenKind kind, std::size_t length) {
    const SqlToken token{kind, sql_.substr(place_, length)};
    place_ += token.text.size();
    return token;
}

// A doubled quote stands for one inside, and doesn't end the text.
std::size_t SqlTokens::quoted_length(char quote) const {
    std::size_t offset = 1;
    for (; place_ + offset < sql_.size(); offset++) {
        if (at(offset) != quote) continue;
        if (at(offset + 1) != quote) return offset + 1;
        offset++;
    }
    return offset;
}

std::size_t SqlTokens::run_length(std::size_t from, bool (*belongs)(char)) const {
    while (place_ + from < sql_.size() && belongs(sql_[place_ + from])) from++;
    return from;
}
