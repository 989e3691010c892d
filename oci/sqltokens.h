/* Cuts an SQL text into tokens, just as far as placeholders, first words and simple conditions can be told from
 * quoted text and comments. Knows no grammar; allocates nothing. */
#ifndef OCI_SQLTOKENS_H
#define OCI_SQLTOKENS_H

#include <string_view>

enum class SqlTokenKind {
    END,          // behind the last token; comes again and again
    WORD,         // bare name or keyword
    NAME,         // name in double quotes, quotes included
    TEXT,         // literal in single quotes, quotes included
    NUMBER,       // begins with a digit
    PLACEHOLDER,  // :1, :NAME, and the numbered form ?1
    SYMBOL        // one character, or a comparison of two
};

struct SqlToken {
    SqlTokenKind kind = SqlTokenKind::END;
    std::string_view text;

    bool is_word(std::string_view word) const;  // a bare word, compared without regard to case
    bool is_symbol(std::string_view symbol) const { return kind == SqlTokenKind::SYMBOL && text == symbol; }
    bool is_name() const { return kind == SqlTokenKind::WORD || kind == SqlTokenKind::NAME; }
    bool is_end() const { return kind == SqlTokenKind::END; }
};

/** Reads one token after the other. Blanks and comments are passed over; what isn't closed ends with the text. */
class SqlTokens {
public:
    explicit SqlTokens(std::string_view sql) : sql_(sql) {}
    SqlToken next();

private:
    void skip_blanks_and_comments();
    SqlToken cut(SqlTokenKind kind, std::size_t length);
    std::size_t quoted_length(char quote) const;
    std::size_t run_length(std::size_t from, bool (*belongs)(char)) const;
    char at(std::size_t offset) const { return place_ + offset < sql_.size() ? sql_[place_ + offset] : '\0'; }

    std::string_view sql_;
    std::size_t place_ = 0;
};

/** Compares names as databases do: ASCII letters of either case are the same, all else goes by byte. */
bool sql_same_name(std::string_view one, std::string_view other);

#endif
