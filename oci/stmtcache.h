/* Prepared statements by their text. A statement handle takes the one it works with out of the cache and gives it
 * back afterwards, so that each has one owner at any time. */
#ifndef OCI_STMTCACHE_H
#define OCI_STMTCACHE_H

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "oci/dbdriver.h"
#include "oci/placeholders.h"

/** What statement.cpp does with a text. */
enum class StatementKind {
    QUERY_OR_DEFINITION,  // the engine tells which, once it has seen the text
    CHANGE,               // changes rows, within a transaction
    COMMIT,               // these are carried out here, the engine never sees them
    ROLLBACK,
    SETTING
};

/** One text, and what the engine made of it. */
struct Prepared {
    Prepared(std::string_view sql, std::size_t sqlHash);
    ~Prepared() { release_engine(); }
    Prepared(const Prepared &) = delete;
    Prepared &operator=(const Prepared &) = delete;

    void release_engine();

    const std::string text;
    const std::size_t hash;
    const StatementKind kind;
    const Placeholders placeholders;
    void *connection = nullptr;  // whose engine has it; null: none yet
    void *engine = nullptr;      // the driver's statement

    // Links of the cache, while it is the owner.
    std::unique_ptr<Prepared> next_in_bucket;
    Prepared *older = nullptr;
    Prepared *newer = nullptr;
    std::size_t width = 0;  // columns and placeholders, as counted when it was given back
};

/** Bounded, in statements and in their width together: the least recently used goes first. Taking and giving back a
 *  known text allocates nothing. */
class StatementCache {
public:
    StatementCache() = default;
    ~StatementCache() { clear(); }
    StatementCache(const StatementCache &) = delete;
    StatementCache &operator=(const StatementCache &) = delete;

    /** Gives the statement of that text to the caller: out of the cache, or newly made. */
    std::unique_ptr<Prepared> take(std::string_view sql);

    /** Keeps a statement for the next one who asks. What the engine hasn't seen isn't worth keeping. */
    void give_back(std::unique_ptr<Prepared> statement);

    void clear();

private:
    static constexpr std::size_t CAPACITY = 256;
    static constexpr std::size_t MOST_WIDTH = 8192;  // an engine may take most of a kilobyte for each column
    static constexpr std::size_t BUCKETS = 512;

    std::unique_ptr<Prepared> *find(std::size_t hash, std::string_view sql);
    std::unique_ptr<Prepared> unlink(std::unique_ptr<Prepared> *place);

    std::array<std::unique_ptr<Prepared>, BUCKETS> buckets_;
    Prepared *oldest_ = nullptr;
    Prepared *newest_ = nullptr;
    std::size_t count_ = 0;
    std::size_t width_ = 0;  // of all
};

#endif
