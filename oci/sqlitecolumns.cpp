/* Declarations of a table, and what they mean for a statement; see sqlitecolumns.h.
 *
 * A statement is read by its tokens, as far as the server's own statements go: one table, conditions of the form
 * COLUMN operator :PLACE, lists of columns and values, order terms that are names or numbers. */
#include "oci/sqlitecolumns.h"

#include <algorithm>

#include "oci/sqltokens.h"

namespace {

// ---- Declared types -------------------------------------------------------------------------------------------

constexpr std::string_view number_words[] = {"NUMBER",    "NUMERIC",  "INTEGER",      "INT",          "SMALLINT",
                                             "BIGINT",    "TINYINT",  "INT2",         "INT4",         "INT8",
                                             "DECIMAL",   "DEC",      "REAL",         "FLOAT",        "DOUBLE",
                                             "MEDIUMINT", "UNSIGNED", "BINARY_FLOAT", "BINARY_DOUBLE"};
constexpr std::string_view fixed_words[] = {"CHAR", "CHARACTER", "NCHAR"};
constexpr int LONGEST_SIZE = 32767;

template <std::size_t Count>
bool is_one_of(const SqlToken &token, const std::string_view (&words)[Count]) {
    return std::ranges::any_of(words, [&](std::string_view word) { return token.is_word(word); });
}

int small_number(std::string_view digits) {
    int number = 0;
    for (const char digit : digits) {
        if (digit < '0' || digit > '9') return 0;
        number = std::min(LONGEST_SIZE, number * 10 + (digit - '0'));
    }
    return number;
}

}  // namespace

DeclaredType sqlite_declared_type(const char *declaration) {
    SqlTokens tokens(declaration != nullptr ? declaration : "");
    SqlToken token = tokens.next();
    if (is_one_of(token, number_words)) return {SQLT_NUM, 22, false};
    if (token.is_word("DATE")) return {SQLT_DAT, 7, false};

    DeclaredType text;
    if (is_one_of(token, fixed_words)) text.type = SQLT_AFC;
    for (; !token.is_end() && !token.is_symbol("("); token = tokens.next()) {
        if (token.is_word("VARYING")) text.type = SQLT_CHR;
    }
    const int size = token.is_end() ? 0 : small_number(tokens.next().text);
    if (size == 0) return text;
    return {text.type, static_cast<ub2>(size), true};
}

// ---- A statement's tokens -------------------------------------------------------------------------------------

namespace {

using Tokens = std::vector<SqlToken>;
using Columns = std::vector<TableColumn>;

Tokens all_tokens(std::string_view sql) {
    Tokens list;
    SqlTokens tokens(sql);
    do list.push_back(tokens.next());
    while (!list.back().is_end());
    return list;
}

// Tokens by place; behind the last there are only ends.
class Reader {
public:
    explicit Reader(const Tokens &tokens) : tokens_(tokens) {}
    const SqlToken &at(std::size_t place) const { return tokens_[std::min(place, tokens_.size() - 1)]; }
    std::size_t size() const { return tokens_.size(); }

    /** Place of a word outside of brackets, from a place on; size() if there is none. */
    std::size_t find(std::string_view word, std::size_t from) const {
        int depth = 0;
        for (; from < tokens_.size(); from++) {
            if (tokens_[from].is_symbol("(")) depth++;
            if (tokens_[from].is_symbol(")")) depth--;
            if (depth == 0 && tokens_[from].is_word(word)) break;
        }
        return from;
    }

    bool have_second_select() const {
        return std::any_of(tokens_.begin() + 1, tokens_.end(),
                           [](const SqlToken &token) { return token.is_word("SELECT"); });
    }

private:
    const Tokens &tokens_;
};

std::string bare_name(const SqlToken &token) {
    if (token.kind != SqlTokenKind::NAME) return std::string(token.text);
    std::string name;
    for (std::size_t i = 1; i + 1 < token.text.size(); i++) {
        name += token.text[i];
        if (token.text[i] == '"') i++;  // a doubled quote stands for one
    }
    return name;
}

struct TableName {
    std::string schema;
    std::string name;
    std::size_t behind = 0;  // place of the first token behind it; 0: no single table found
};

TableName read_table_name(const Reader &tokens, std::size_t place) {
    TableName table;
    if (!tokens.at(place).is_name()) return table;
    if (tokens.at(place + 1).is_symbol(".")) {
        table.schema = bare_name(tokens.at(place));
        place += 2;
    }
    if (!tokens.at(place).is_name()) return table;
    table.name = bare_name(tokens.at(place));
    table.behind = place + 1;
    return table;
}

bool ends_table(const SqlToken &token) {
    return token.is_end() || token.is_word("WHERE") || token.is_word("ORDER") || token.is_word("SET") ||
           token.is_word("VALUES") || token.is_symbol("(");
}

// Tables by which the engine tells of itself: of the file and its schema, not of its content. Reading some of them
// checks the whole file, or writes to it.
bool is_engines_own(const TableName &table) {
    constexpr std::string_view prefixes[] = {"SQLITE_", "PRAGMA_"};
    return std::ranges::any_of(prefixes, [&](std::string_view prefix) {
        return sql_same_name(std::string_view(table.name).substr(0, prefix.size()), prefix);
    });
}

// A join, an alias or a subquery gives no table: its columns could not be told from their names alone.
TableName only_table(const Reader &tokens) {
    constexpr std::string_view introductions[][2] = {
        {"SELECT", "FROM"}, {"DELETE", "FROM"}, {"INSERT", "INTO"}, {"REPLACE", "INTO"}, {"UPDATE", "UPDATE"}};
    for (const auto &[opening, introduction] : introductions) {
        if (!tokens.at(0).is_word(opening)) continue;
        const TableName table = read_table_name(tokens, tokens.find(introduction, 0) + 1);
        const bool is_single =
            table.behind > 0 && ends_table(tokens.at(table.behind)) && !tokens.have_second_select();
        return is_single ? table : TableName();
    }
    return {};
}

// ---- Columns of the table -------------------------------------------------------------------------------------

void bind_name(sqlite3_stmt *statement, int place, const std::string &name) {
    if (name.empty()) {
        sqlite3_bind_null(statement, place);
    } else {
        sqlite3_bind_text(statement, place, name.data(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
    }
}

std::string text_of(sqlite3_stmt *statement, int column) {
    const auto *const text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return text != nullptr ? text : "";
}

Columns table_columns(const TableName &table, sqlite3_stmt *tableInfo) {
    enum { NAME, TYPE, NOT_NULL, DEFAULT, KEY };
    Columns columns;
    int keys = 0;
    bool numbers_itself = false;
    bind_name(tableInfo, 1, table.name);
    bind_name(tableInfo, 2, table.schema);
    while (sqlite3_step(tableInfo) == SQLITE_ROW) {
        TableColumn column;
        const std::string declaration = text_of(tableInfo, TYPE);
        const bool is_key = sqlite3_column_int(tableInfo, KEY) > 0;
        const bool has_default = sqlite3_column_type(tableInfo, DEFAULT) != SQLITE_NULL;
        column.name = text_of(tableInfo, NAME);
        column.type = sqlite_declared_type(declaration.c_str());
        column.never_null = is_key || sqlite3_column_int(tableInfo, NOT_NULL) != 0;
        column.must_be_given = is_key && !has_default;
        if (is_key) {
            keys++;
            numbers_itself = sql_same_name(declaration, "INTEGER");
        }
        columns.push_back(std::move(column));
    }
    sqlite3_reset(tableInfo);
    if (keys == 1 && numbers_itself) {
        for (TableColumn &column : columns) column.must_be_given = false;
    }
    return columns;
}

const TableColumn *find_column(const Columns &columns, const SqlToken &token) {
    if (!token.is_name()) return nullptr;
    const std::string name = bare_name(token);
    const auto found =
        std::ranges::find_if(columns, [&](const TableColumn &column) { return sql_same_name(column.name, name); });
    return found != columns.end() ? &*found : nullptr;
}

// ---- Rules for values -----------------------------------------------------------------------------------------

void add_rule(std::vector<ValueRule> *rules, const SqlToken &place, const TableColumn *column, bool is_assigned) {
    if (column == nullptr || place.kind != SqlTokenKind::PLACEHOLDER) return;
    const auto index = static_cast<std::size_t>(small_number(place.text.substr(1)));
    if (index == 0) return;
    if (rules->size() < index) rules->resize(index);

    ValueRule &rule = (*rules)[index - 1];
    rule.column = column->name;
    if (column->type.type == SQLT_NUM) rule.is_number = true;
    if (!is_assigned) return;
    if (column->never_null) rule.is_needed = true;
    if (!column->type.has_size) return;
    rule.longest = rule.longest == 0 ? column->type.size : std::min<int>(rule.longest, column->type.size);
}

// COLUMN operator :PLACE, behind SET and behind WHERE.
void read_conditions(const Reader &tokens, const Columns &columns, std::size_t from, std::vector<ValueRule> *rules) {
    constexpr std::string_view operators[] = {"=", "==", "<", ">", "<=", ">=", "<>", "!="};
    const bool is_update = tokens.at(0).is_word("UPDATE");
    const std::size_t where = tokens.find("WHERE", from);
    for (std::size_t i = from; i + 2 < tokens.size(); i++) {
        const SqlToken &sign = tokens.at(i + 1);
        const bool is_comparison =
            sign.kind == SqlTokenKind::SYMBOL && std::ranges::find(operators, sign.text) != std::end(operators);
        if (!is_comparison) continue;
        const bool is_assigned = is_update && i < where && sign.text == "=";
        add_rule(rules, tokens.at(i + 2), find_column(columns, tokens.at(i)), is_assigned);
    }
}

// The columns of an insert in the order of its values: those it lists, else all of the table; none if the list is more
// than names.
std::vector<const TableColumn *> insert_columns(const Reader &tokens, const Columns &columns, std::size_t *place) {
    std::vector<const TableColumn *> targets;
    if (!tokens.at(*place).is_symbol("(")) {
        for (const TableColumn &column : columns) targets.push_back(&column);
        return targets;
    }
    do targets.push_back(find_column(columns, tokens.at(*place + 1)));
    while (tokens.at(*place += 2).is_symbol(","));
    if (!tokens.at((*place)++).is_symbol(")")) targets.clear();
    return targets;
}

// One list of values; an item that is more than a placeholder is passed over.
void read_values(const Reader &tokens, const std::vector<const TableColumn *> &targets, std::size_t *place,
                 std::vector<ValueRule> *rules) {
    std::size_t item = 0;
    bool is_first = true;
    int depth = 1;
    for (++*place; depth > 0 && !tokens.at(*place).is_end(); ++*place) {
        const SqlToken &token = tokens.at(*place);
        const SqlToken &behind = tokens.at(*place + 1);
        const bool is_whole = is_first && (behind.is_symbol(",") || behind.is_symbol(")"));
        if (depth == 1 && is_whole && item < targets.size()) add_rule(rules, token, targets[item], true);
        is_first = depth == 1 && token.is_symbol(",");
        if (is_first) item++;
        if (token.is_symbol("(")) depth++;
        if (token.is_symbol(")")) depth--;
    }
}

void read_insert(const Reader &tokens, const Columns &columns, std::size_t place, SqliteText *text) {
    const std::vector<const TableColumn *> targets = insert_columns(tokens, columns, &place);
    if (targets.empty()) return;
    for (const TableColumn &column : columns) {
        if (column.must_be_given && std::ranges::find(targets, &column) == targets.end()) text->missing = column.name;
    }
    if (!tokens.at(place).is_word("VALUES")) return;
    do read_values(tokens, targets, &++place, &text->rules);
    while (tokens.at(place).is_symbol(","));
}

// ---- Order ----------------------------------------------------------------------------------------------------

// Without a value goes behind all others, before them when descending. The engine has it the other way round; told so,
// it may need a sort of its own, so a column that is never without a value stays as it is.
std::string with_null_order(std::string_view sql, const Reader &tokens, const Columns &columns) {
    std::size_t place = tokens.find("ORDER", 0);
    if (!tokens.at(0).is_word("SELECT") || !tokens.at(place + 1).is_word("BY")) return std::string(sql);

    std::string ordered;
    std::size_t copied = 0;
    place++;
    do {
        const SqlToken &term = tokens.at(++place);
        const TableColumn *const column = find_column(columns, term);
        const bool is_descending = tokens.at(place + 1).is_word("DESC");
        if (is_descending || tokens.at(place + 1).is_word("ASC")) place++;
        if (!term.is_name() && term.kind != SqlTokenKind::NUMBER) return std::string(sql);

        const SqlToken &last = tokens.at(place++);
        const auto end = static_cast<std::size_t>(last.text.data() + last.text.size() - sql.data());
        ordered.append(sql, copied, end - copied);
        copied = end;
        if (column == nullptr || !column->never_null) ordered += is_descending ? " NULLS FIRST" : " NULLS LAST";
    } while (tokens.at(place).is_symbol(","));
    if (!tokens.at(place).is_end()) return std::string(sql);  // more than names and directions: left alone
    return ordered.append(sql, copied);
}

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool is_decimal_number(std::string_view text) {
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t place = 0;
    const auto digits = [&] {
        const std::size_t from = place;
        while (place < text.size() && is_digit(text[place])) place++;
        return place - from;
    };
    const auto sign = [&] {
        if (place < text.size() && (text[place] == '+' || text[place] == '-')) place++;
    };

    while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
    while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
    sign();
    std::size_t mantissa = digits();
    if (place < text.size() && text[place] == '.') {
        place++;
        mantissa += digits();
    }
    if (mantissa == 0) return false;
    if (place < text.size() && (text[place] == 'e' || text[place] == 'E')) {
        place++;
        sign();
        if (digits() == 0) return false;
    }
    return place == text.size();
}

}  // namespace

SqliteText sqlite_read_statement(std::string_view sql, sqlite3_stmt *tableInfo) {
    const Tokens list = all_tokens(sql);
    const Reader tokens(list);
    const TableName table = only_table(tokens);
    const Columns columns = table.behind > 0 ? table_columns(table, tableInfo) : Columns();

    SqliteText text;
    if (is_engines_own(table)) text.hidden = table.name;
    const bool is_insert = tokens.at(0).is_word("INSERT") || tokens.at(0).is_word("REPLACE");
    if (!columns.empty() && is_insert) read_insert(tokens, columns, table.behind, &text);
    if (!columns.empty() && !is_insert) read_conditions(tokens, columns, table.behind, &text.rules);
    text.sql = with_null_order(sql, tokens, columns);
    return text;
}

int sqlite_check_value(const ValueRule &rule, const char *text, int length, DB_ERROR_S *error) {
    if (text == nullptr) {
        if (!rule.is_needed) return DB_DONE;
        return db_fail(error, OCIERRNULL, "column %s must have a value", rule.column.c_str());
    }
    if (rule.is_number && !is_decimal_number({text, static_cast<std::size_t>(length)})) {
        return db_fail(error, OCIERRNUMBER, "the value for column %s is not a number", rule.column.c_str());
    }
    if (rule.longest > 0 && length > rule.longest) {
        return db_fail(error, OCIERRTOOLARGE, "the value for column %s is too large: %d bytes, at most %d",
                       rule.column.c_str(), length, rule.longest);
    }
    return DB_DONE;
}
