/* Prepared statements by their text; see stmtcache.h. Kinds of statements are told by their first words. */
#include "oci/stmtcache.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "oci/sqltokens.h"

namespace {

struct Opening {
    std::string_view words[3];  // the last may be empty
    StatementKind kind;
};
constexpr Opening openings[] = {
    {{"INSERT"}, StatementKind::CHANGE}, {{"UPDATE"}, StatementKind::CHANGE},
    {{"DELETE"}, StatementKind::CHANGE}, {{"REPLACE"}, StatementKind::CHANGE},
    {{"MERGE"}, StatementKind::CHANGE},  {{"ALTER", "SESSION", "SET"}, StatementKind::SETTING},
    {{"COMMIT"}, StatementKind::COMMIT}, {{"ROLLBACK"}, StatementKind::ROLLBACK},
};

bool opens_with(std::string_view sql, const Opening &opening) {
    SqlTokens tokens(sql);
    for (const std::string_view word : opening.words) {
        if (!word.empty() && !tokens.next().is_word(word)) return false;
    }
    // Of the session's settings only the national-language ones are known; of the others a whole text of one word.
    const SqlToken behind = tokens.next();
    switch (opening.kind) {
        case StatementKind::SETTING:
            return behind.kind == SqlTokenKind::WORD && sql_same_name(behind.text.substr(0, 4), "NLS_");
        case StatementKind::COMMIT:
        case StatementKind::ROLLBACK:
            return behind.is_end();
        default:
            return true;
    }
}

StatementKind kind_of(std::string_view sql) {
    for (const Opening &opening : openings) {
        if (opens_with(sql, opening)) return opening.kind;
    }
    return StatementKind::QUERY_OR_DEFINITION;
}

}  // namespace

Prepared::Prepared(std::string_view sql, std::size_t sqlHash)
    : text(sql), hash(sqlHash), kind(kind_of(sql)), placeholders(find_placeholders(sql, db_driver.placeholderMark)) {}

void Prepared::release_engine() {
    if (engine != nullptr) db_driver.finish(engine);
    engine = nullptr;
    connection = nullptr;
}

std::unique_ptr<Prepared> StatementCache::take(std::string_view sql) {
    const std::size_t hash = std::hash<std::string_view>{}(sql);
    std::unique_ptr<Prepared> *place = find(hash, sql);
    if (*place != nullptr) return unlink(place);
    return std::make_unique<Prepared>(sql, hash);
}

void StatementCache::give_back(std::unique_ptr<Prepared> statement) {
    if (statement == nullptr || statement->engine == nullptr) return;
    std::unique_ptr<Prepared> *place = find(statement->hash, statement->text);
    if (*place != nullptr) return;  // two handles worked with one text: one of the statements is enough

    statement->width = static_cast<std::size_t>(std::max(0, db_driver.columns(statement->engine))) +
                       static_cast<std::size_t>(statement->placeholders.count());
    while (oldest_ != nullptr && (count_ == CAPACITY || width_ + statement->width > MOST_WIDTH)) {
        unlink(find(oldest_->hash, oldest_->text));
        place = find(statement->hash, statement->text);  // what went may have stood in the same bucket
    }
    statement->older = newest_;
    statement->newer = nullptr;
    (newest_ != nullptr ? newest_->newer : oldest_) = statement.get();
    newest_ = statement.get();
    width_ += statement->width;
    *place = std::move(statement);
    count_++;
}

void StatementCache::clear() {
    while (oldest_ != nullptr) unlink(find(oldest_->hash, oldest_->text));
}

// The link that leads to the statement, or the empty one at the end of its bucket.
std::unique_ptr<Prepared> *StatementCache::find(std::size_t hash, std::string_view sql) {
    std::unique_ptr<Prepared> *place = &buckets_[hash % BUCKETS];
    while (*place != nullptr && ((*place)->hash != hash || (*place)->text != sql)) place = &(*place)->next_in_bucket;
    return place;
}

std::unique_ptr<Prepared> StatementCache::unlink(std::unique_ptr<Prepared> *place) {
    std::unique_ptr<Prepared> statement = std::move(*place);
    *place = std::move(statement->next_in_bucket);
    (statement->older != nullptr ? statement->older->newer : oldest_) = statement->newer;
    (statement->newer != nullptr ? statement->newer->older : newest_) = statement->older;
    statement->older = statement->newer = nullptr;
    count_--;
    width_ -= statement->width;
    return statement;
}
