/* Finds :1 and :NAME outside of quotes and comments; see placeholders.h. */
#include "oci/placeholders.h"

#include "oci/sqltokens.h"

int Placeholders::position(std::string_view name) const {
    if (name.starts_with(':')) name.remove_prefix(1);
    for (std::size_t i = 0; i < names.size(); i++) {
        if (sql_same_name(names[i], name)) return static_cast<int>(i) + 1;
    }
    return 0;
}

Placeholders find_placeholders(std::string_view sql, char mark) {
    Placeholders found;
    SqlTokens tokens(sql);
    std::size_t copied = 0;
    for (SqlToken token = tokens.next(); !token.is_end(); token = tokens.next()) {
        const bool is_named = token.kind == SqlTokenKind::PLACEHOLDER && token.text.starts_with(':');
        if (!is_named) continue;

        const std::string_view name = token.text.substr(1);
        int position = found.position(name);
        if (position == 0) {
            found.names.emplace_back(name);
            position = found.count();
        }
        const auto start = static_cast<std::size_t>(token.text.data() - sql.data());
        found.text.append(sql, copied, start - copied);
        found.text += mark;
        found.text += std::to_string(position);
        copied = start + token.text.size();
    }
    found.text.append(sql, copied);
    return found;
}
