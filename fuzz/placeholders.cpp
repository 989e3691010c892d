/* Any text as SQL. Tokens lie in the text, one behind the other; numbering the placeholders changes nothing but them.
 *
 * Input: the text. */
#include "oci/placeholders.h"

#include "fuzz/fuzz.h"
#include "oci/sqltokens.h"

namespace {

std::vector<SqlToken> tokens_of(std::string_view sql) {
    std::vector<SqlToken> found;
    SqlTokens tokens(sql);
    const char *place = sql.data();
    for (SqlToken token = tokens.next(); !token.is_end(); token = tokens.next()) {
        FUZZ_REQUIRE(!token.text.empty() && token.text.data() >= place);
        place = token.text.data() + token.text.size();
        FUZZ_REQUIRE(place <= sql.data() + sql.size());
        found.push_back(token);
    }
    FUZZ_REQUIRE(tokens.next().is_end());
    return found;
}

void check_names(const Placeholders &placeholders) {
    for (int index = 0; index < placeholders.count(); ++index) {
        const std::string &name = placeholders.names[static_cast<size_t>(index)];
        FUZZ_REQUIRE(placeholders.position(name) == index + 1);
        FUZZ_REQUIRE(placeholders.position(":" + name) == index + 1);
    }
    FUZZ_REQUIRE(placeholders.position("no such name") == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const Bytes copy(data, data + size);
    const std::string_view sql(reinterpret_cast<const char *>(copy.data()), copy.size());
    const std::vector<SqlToken> before = tokens_of(sql);
    const Placeholders placeholders = find_placeholders(sql, '?');
    check_names(placeholders);

    const std::vector<SqlToken> after = tokens_of(placeholders.text);
    FUZZ_REQUIRE(after.size() == before.size());
    for (size_t at = 0; at < before.size(); ++at) {
        FUZZ_REQUIRE(after[at].kind == before[at].kind);
        const bool is_numbered = before[at].kind == SqlTokenKind::PLACEHOLDER && before[at].text[0] == ':';
        FUZZ_REQUIRE(is_numbered ? after[at].text[0] == '?' : after[at].text == before[at].text);
    }
    return 0;
}
