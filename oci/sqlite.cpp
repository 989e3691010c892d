/* Driver library of the embedded database: how it is opened, and how a statement runs in it. Addresses are read in
 * sqliteaddress.cpp, what declarations mean for values and order in sqlitecolumns.cpp.
 *
 * One file, several servers: write-ahead log, a wait of at most five seconds for a lock, and no lock kept beyond a
 * transaction or an open cursor. A statement that has a deadline is ended there, by the engine's own way to interrupt. */
#include <sqlite3.h>

#include <string.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "oci/dbdriver.h"
#include "oci/sqliteaddress.h"
#include "oci/sqlitecolumns.h"

namespace {
constexpr auto LONGEST_WAIT = std::chrono::seconds(5);  // for a lock
constexpr int LONGEST_SLEEP = 50;                       // milliseconds
constexpr int STEPS_BETWEEN_LOOKS = 1000;               // of the engine, at its deadline: some 20 microseconds

// ---- Errors ---------------------------------------------------------------------------------------------------

struct CodeNumber {
    int code;  // extended, or a primary one that stands for all of its extended ones
    int number;
};
constexpr CodeNumber code_numbers[] = {
    {SQLITE_CONSTRAINT_UNIQUE, OCIERRDUPLICATE},
    {SQLITE_CONSTRAINT_PRIMARYKEY, OCIERRDUPLICATE},
    {SQLITE_CONSTRAINT_ROWID, OCIERRDUPLICATE},
    {SQLITE_CONSTRAINT_NOTNULL, OCIERRNULL},
    {SQLITE_CONSTRAINT_DATATYPE, OCIERRNUMBER},
    {SQLITE_MISMATCH, OCIERRNUMBER},
    {SQLITE_BUSY, OCIERRBUSY},
    {SQLITE_LOCKED, OCIERRBUSY},
};

struct TextNumber {
    std::string_view text;
    int number;
};
constexpr TextNumber text_numbers[] = {
    // one code of the engine serves all of these
    {"no such table: ", OCIERRNOTABLE},
    {"unknown database ", OCIERRNOTABLE},
    {"no such column: ", OCIERRNOCOLUMN},
    {" has no column named ", OCIERRNOCOLUMN},
};

int number_of(int code, std::string_view text) {
    for (const CodeNumber &entry : code_numbers) {
        if (entry.code == code || entry.code == (code & 0xFF)) return entry.number;
    }
    if (code != SQLITE_ERROR) return OCIERROTHER;
    for (const TextNumber &entry : text_numbers) {
        if (text.find(entry.text) != text.npos) return entry.number;
    }
    return OCIERROTHER;
}

int engine_failed(sqlite3 *database, DB_ERROR_S *error) {
    if (sqlite3_errcode(database) == SQLITE_INTERRUPT) return db_fail_late(error);
    const char *const text = sqlite3_errmsg(database);
    return db_fail(error, number_of(sqlite3_extended_errcode(database), text), "%s", text);
}

// ---- Connection -----------------------------------------------------------------------------------------------

struct Finalizer {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using EngineStatement = std::unique_ptr<sqlite3_stmt, Finalizer>;

struct Closer {
    void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
};

struct Connection {
    std::unique_ptr<sqlite3, Closer> owner;  // first, so that it goes last
    bool in_transaction = false;             // as far as the caller knows
    DbClock::time_point waits_since;         // for a lock
    DbClock::time_point deadline = DbClock::time_point::max();
    bool is_watched = false;  // the engine looks at the deadline
    EngineStatement begin;
    EngineStatement commit;
    EngineStatement rollback;
    EngineStatement touch_schema;
    EngineStatement schema_version;
    EngineStatement table_info;

    sqlite3 *database() const { return owner.get(); }
};

struct OwnStatement {
    EngineStatement Connection::*target;
    const char *sql;
};
constexpr OwnStatement own_statements[] = {
    {&Connection::begin, "BEGIN IMMEDIATE"},
    {&Connection::commit, "COMMIT"},
    {&Connection::rollback, "ROLLBACK"},
    {&Connection::touch_schema, "SELECT 1 FROM sqlite_schema LIMIT 1"},
    {&Connection::schema_version, "PRAGMA schema_version"},
    {&Connection::table_info, "SELECT name, type, \"notnull\", dflt_value, pk FROM pragma_table_info(?1, ?2)"},
};

bool run(const Connection &connection, const std::string &sql) {
    return sqlite3_exec(connection.database(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Of several servers that open a new file at once one changes its journal. The others are told at once that it is busy,
// since they hold a read lock that might stand in the way; the engine's own waiting doesn't apply.
bool change_journal(const Connection &connection) {
    const DbClock::time_point deadline = DbClock::now() + LONGEST_WAIT;
    while (!run(connection, "PRAGMA journal_mode=WAL")) {
        const bool is_busy = (sqlite3_extended_errcode(connection.database()) & 0xFF) == SQLITE_BUSY;
        if (!is_busy || DbClock::now() >= deadline) return false;
        sqlite3_sleep(20);
    }
    return true;
}

bool run_once(const EngineStatement &statement) {
    const int code = sqlite3_step(statement.get());
    sqlite3_reset(statement.get());
    return code == SQLITE_DONE || code == SQLITE_ROW;
}

// By the clock: the engine's own waiting adds up its sleeps, and each signal cuts one short.
int goes_on_waiting(void *waiting, int tries) {
    auto *const connection = static_cast<Connection *>(waiting);
    if (tries == 0) connection->waits_since = DbClock::now();
    if (DbClock::now() >= std::min(connection->waits_since + LONGEST_WAIT, connection->deadline)) return 0;
    sqlite3_sleep(std::min(1 + tries, LONGEST_SLEEP));
    return 1;
}

// Whoever else may write to the file, its schema can't make this process do what a table should not.
void restrain(Connection *connection) {
    sqlite3 *const database = connection->database();
    constexpr struct {
        int setting;
        int value;
    } settings[] = {
        {SQLITE_DBCONFIG_DEFENSIVE, 1},
        {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
        {SQLITE_DBCONFIG_DQS_DML, 0},  // a quoted name that is no column is an error, not a text
        {SQLITE_DBCONFIG_ENABLE_FKEY, 1},
    };
    for (const auto &[setting, value] : settings) sqlite3_db_config(database, setting, value, nullptr);
    sqlite3_limit(database, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_busy_handler(database, goes_on_waiting, connection);
}

bool prepare_own(Connection *connection) {
    for (const OwnStatement &own : own_statements) {
        sqlite3_stmt *statement = nullptr;
        const int code =
            sqlite3_prepare_v3(connection->database(), own.sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        (connection->*own.target).reset(statement);
        if (code != SQLITE_OK) return false;
    }
    return true;
}

// The file is made if it is missing, its directory is not. A first read shows whether it is a database at all.
bool open_file(Connection *connection, const SqliteAddress &address) {
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    const bool looks_like_uri = address.path.starts_with("file:");
    const std::string path = looks_like_uri ? "./" + address.path : address.path;
    sqlite3 *database = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &database, flags, nullptr);
    connection->owner.reset(database);
    if (code != SQLITE_OK) return false;

    restrain(connection);
    if (!run(*connection, "PRAGMA locking_mode=" + address.locking)) return false;
    if (!run(*connection, "SELECT 1 FROM sqlite_schema LIMIT 1")) return false;
    const bool is_read_only = sqlite3_db_readonly(database, "main") == 1;
    if (!is_read_only && !change_journal(*connection)) return false;
    return run(*connection, "PRAGMA synchronous=" + address.synchronous) &&
           run(*connection, "PRAGMA case_sensitive_like=ON") && run(*connection, "PRAGMA cache_size=-16384") &&
           prepare_own(connection);
}

void open_failed(sqlite3 *database, const std::string &path, DB_ERROR_S *error) {  // null: no memory for it
    const int code = sqlite3_extended_errcode(database);
    const int reason = (code & 0xFF) == SQLITE_CANTOPEN ? sqlite3_system_errno(database) : 0;
    db_fail(error, number_of(code, ""), "cannot open the database \"%s\": %s%s%s", path.c_str(),
            sqlite3_errmsg(database), reason != 0 ? ": " : "", reason != 0 ? strerror(reason) : "");
}

void *open(const DB_LOGIN_S *login, DB_ERROR_S *error) {
    SqliteAddress address;
    if (!sqlite_read_address(login->database, &address, error)) return nullptr;

    auto connection = std::make_unique<Connection>();
    if (open_file(connection.get(), address)) return connection.release();
    open_failed(connection->database(), address.path, error);
    return nullptr;
}

void close(void *connection) { delete static_cast<Connection *>(connection); }

int is_late(void *watched) { return DbClock::now() >= static_cast<Connection *>(watched)->deadline ? 1 : 0; }

void set_deadline(void *handle, DbClock::time_point deadline) {
    auto *const connection = static_cast<Connection *>(handle);
    connection->deadline = deadline;
    if (connection->is_watched) return;
    connection->is_watched = true;
    sqlite3_progress_handler(connection->database(), STEPS_BETWEEN_LOOKS, is_late, connection);
}

// ---- Transactions ---------------------------------------------------------------------------------------------

bool is_in_transaction(const Connection &connection) { return sqlite3_get_autocommit(connection.database()) == 0; }

// On a full disk and the like the engine rolls back by itself, and what came before is lost as well. It is told once.
int lost_transaction(Connection *connection, DB_ERROR_S *error) {
    connection->in_transaction = false;
    return db_fail(error, OCIERROTHER, "the transaction was rolled back by the database");
}

int begin(void *handle, DB_ERROR_S *error) {
    auto *const connection = static_cast<Connection *>(handle);
    if (is_in_transaction(*connection)) return DB_NOTHING;
    if (connection->in_transaction) return lost_transaction(connection, error);
    if (!run_once(connection->begin)) return engine_failed(connection->database(), error);
    connection->in_transaction = true;
    return DB_DONE;
}

int rollback(void *handle, DB_ERROR_S *error) {
    auto *const connection = static_cast<Connection *>(handle);
    connection->in_transaction = false;
    connection->deadline = DbClock::time_point::max();
    if (!is_in_transaction(*connection) || run_once(connection->rollback)) return DB_DONE;
    return engine_failed(connection->database(), error);
}

int commit(void *handle, DB_ERROR_S *error) {
    auto *const connection = static_cast<Connection *>(handle);
    if (!is_in_transaction(*connection)) {
        return connection->in_transaction ? lost_transaction(connection, error) : DB_DONE;
    }
    if (run_once(connection->commit)) {
        connection->in_transaction = false;
        return DB_DONE;
    }
    engine_failed(connection->database(), error);
    DB_ERROR_S second{};
    rollback(connection, &second);
    return DB_FAILED;
}

// ---- Statements -----------------------------------------------------------------------------------------------

// A value as the engine has it. One that is bound again unchanged is not handed over again: for LIKE the engine plans
// anew whenever its pattern changes.
struct Place {
    enum { UNBOUND, NO_VALUE, TEXT } state = UNBOUND;
    std::string text;
};

enum class Row { NONE, WAITING, TAKEN, BEHIND_LAST };

struct Statement {
    Connection *connection = nullptr;
    EngineStatement engine;
    bool is_query = false;
    Row row = Row::NONE;
    std::vector<Place> places;
    std::string given;             // the text as given; read again when the schema has changed
    std::vector<ValueRule> rules;  // by place, the first at 0
    std::string missing;           // key column that an insert leaves out
    int schema = 0;                // version that the rules were read from
    bool is_replanned = false;     // by the engine, perhaps because of the schema
};

int schema_version(const Connection &connection) {
    sqlite3_stmt *const statement = connection.schema_version.get();
    const int version = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int(statement, 0) : 0;
    sqlite3_reset(statement);
    return version;
}

// What the rules say may be out of date if another program has altered the table.
bool read_rules_anew(Statement *statement) {
    const Connection &connection = *statement->connection;
    statement->is_replanned = false;
    const int version = schema_version(connection);
    if (version == statement->schema || !run_once(connection.touch_schema)) return false;
    SqliteText text = sqlite_read_statement(statement->given, connection.table_info.get());
    statement->rules = std::move(text.rules);
    statement->missing = std::move(text.missing);
    statement->schema = version;
    return true;
}

bool has_only_one_statement(sqlite3 *database, const char *rest) {
    while (rest != nullptr && *rest != '\0') {
        sqlite3_stmt *second = nullptr;
        const int code = sqlite3_prepare_v2(database, rest, -1, &second, &rest);
        const EngineStatement owner(second);
        if (code != SQLITE_OK || second != nullptr) return false;
    }
    return true;
}

void *prepare(void *handle, const char *sql, int length, DB_ERROR_S *error) {
    auto *const connection = static_cast<Connection *>(handle);
    sqlite3 *const database = connection->database();
    // The engine notices a changed schema only when a statement runs: without this it would plan for the old one.
    if (!run_once(connection->touch_schema)) {
        engine_failed(database, error);
        return nullptr;
    }
    auto statement = std::make_unique<Statement>();
    statement->connection = connection;
    statement->given.assign(sql, static_cast<std::size_t>(length));
    statement->schema = schema_version(*connection);
    SqliteText text = sqlite_read_statement(statement->given, connection->table_info.get());
    if (!text.hidden.empty()) {
        db_fail(error, OCIERRNOTABLE, "no such table: %s", text.hidden.c_str());
        return nullptr;
    }
    statement->rules = std::move(text.rules);
    statement->missing = std::move(text.missing);

    sqlite3_stmt *engine = nullptr;
    const char *rest = nullptr;
    const int code = sqlite3_prepare_v3(database, text.sql.c_str(), static_cast<int>(text.sql.size()) + 1,
                                        SQLITE_PREPARE_PERSISTENT, &engine, &rest);
    statement->engine.reset(engine);
    if (code != SQLITE_OK) {
        engine_failed(database, error);
        return nullptr;
    }
    if (engine == nullptr || !has_only_one_statement(database, rest)) {
        db_fail(error, OCIERROTHER, "the text is not just one statement");
        return nullptr;
    }
    statement->is_query = sqlite3_column_count(engine) > 0 && sqlite3_stmt_readonly(engine) != 0;
    statement->places.resize(static_cast<std::size_t>(sqlite3_bind_parameter_count(engine)));
    statement->rules.resize(statement->places.size());
    return statement.release();
}

int check_value(Statement *statement, std::size_t index, const char *text, int length, DB_ERROR_S *error) {
    if (statement->is_replanned) read_rules_anew(statement);
    if (index >= statement->rules.size()) return DB_DONE;
    if (sqlite_check_value(statement->rules[index], text, length, error) == DB_DONE) return DB_DONE;
    if (!read_rules_anew(statement)) return DB_FAILED;
    error->number = 0;
    return index < statement->rules.size() ? sqlite_check_value(statement->rules[index], text, length, error)
                                           : DB_DONE;
}

int bind_text(Statement *statement, int number, Place *place, std::string_view text) {
    if (place->state == Place::TEXT && place->text == text) return SQLITE_OK;
    place->state = Place::UNBOUND;
    place->text = text;
    const int code = sqlite3_bind_text(statement->engine.get(), number, place->text.data(),
                                       static_cast<int>(place->text.size()), SQLITE_STATIC);
    if (code == SQLITE_OK) place->state = Place::TEXT;
    return code;
}

int bind_no_value(Statement *statement, int number, Place *place) {
    if (place->state == Place::NO_VALUE) return SQLITE_OK;
    place->state = Place::NO_VALUE;
    return sqlite3_bind_null(statement->engine.get(), number);
}

int bind(void *handle, int number, const char *text, int length, DB_ERROR_S *error) {
    auto *const statement = static_cast<Statement *>(handle);
    const auto index = static_cast<std::size_t>(number) - 1;
    if (index >= statement->places.size()) return db_fail(error, OCIERROTHER, "no placeholder %d", number);
    if (check_value(statement, index, text, length, error) == DB_FAILED) return DB_FAILED;

    Place *const place = &statement->places[index];
    const int code = text != nullptr ? bind_text(statement, number, place, {text, static_cast<std::size_t>(length)})
                                     : bind_no_value(statement, number, place);
    return code == SQLITE_OK ? DB_DONE : engine_failed(statement->connection->database(), error);
}

void reset(void *handle) {
    auto *const statement = static_cast<Statement *>(handle);
    statement->row = Row::NONE;
    sqlite3_reset(statement->engine.get());
}

// Steps to the next row. A statement that has come to its end, in whatever way, holds no lock from here on.
int step(Statement *statement, DB_ERROR_S *error) {
    const int code = sqlite3_step(statement->engine.get());
    if (code == SQLITE_ROW) return DB_ROW;
    const int result = code == SQLITE_DONE ? DB_NOTHING : engine_failed(statement->connection->database(), error);
    reset(statement);
    return result;
}

int run_query(Statement *statement, DB_ERROR_S *error) {
    const int result = step(statement, error);  // its failures belong to the execution, so the first row is read here
    if (result == DB_FAILED) return DB_FAILED;
    statement->row = result == DB_ROW ? Row::WAITING : Row::BEHIND_LAST;
    return DB_DONE;
}

int run_change(Statement *statement, DB_ERROR_S *error) {
    sqlite3 *const database = statement->connection->database();
    const sqlite3_int64 before = sqlite3_total_changes64(database);  // counts what triggers do as well
    int result = DB_ROW;
    while (result == DB_ROW) result = step(statement, error);
    if (result == DB_FAILED) return DB_FAILED;
    return sqlite3_total_changes64(database) == before ? DB_NOTHING : DB_DONE;
}

int execute(void *handle, DB_ERROR_S *error) {
    auto *const statement = static_cast<Statement *>(handle);
    if (!statement->missing.empty()) read_rules_anew(statement);
    if (!statement->missing.empty()) {
        return db_fail(error, OCIERRNULL, "column %s must have a value", statement->missing.c_str());
    }
    const int result = statement->is_query ? run_query(statement, error) : run_change(statement, error);
    sqlite3_stmt *const engine = statement->engine.get();
    if (sqlite3_stmt_status(engine, SQLITE_STMTSTATUS_REPREPARE, 1) > 0) statement->is_replanned = true;
    return result;
}

int fetch(void *handle, DB_ERROR_S *error) {
    auto *const statement = static_cast<Statement *>(handle);
    if (statement->row == Row::WAITING) {
        statement->row = Row::TAKEN;
        return DB_ROW;
    }
    if (statement->row != Row::TAKEN) return DB_NOTHING;
    const int result = step(statement, error);
    if (result != DB_ROW) statement->row = Row::BEHIND_LAST;
    return result;
}

const char *value(void *handle, int column, int *length) {
    sqlite3_stmt *const engine = static_cast<Statement *>(handle)->engine.get();
    const auto *const text = reinterpret_cast<const char *>(sqlite3_column_text(engine, column));
    *length = text != nullptr ? sqlite3_column_bytes(engine, column) : 0;
    return text;
}

int columns(void *handle) { return sqlite3_column_count(static_cast<Statement *>(handle)->engine.get()); }

int describe(void *handle, int column, DB_COLUMN_S *target) {
    sqlite3_stmt *const engine = static_cast<Statement *>(handle)->engine.get();
    const char *const name = sqlite3_column_name(engine, column);
    if (name == nullptr) return DB_FAILED;
    const DeclaredType declared = sqlite_declared_type(sqlite3_column_decltype(engine, column));
    target->type = declared.type;
    target->size = declared.size;

    const std::size_t length = strnlen(name, sizeof target->name - 1);
    for (std::size_t i = 0; i < length; i++) {
        target->name[i] = name[i] >= 'a' && name[i] <= 'z' ? static_cast<char>(name[i] - 'a' + 'A') : name[i];
    }
    target->name[length] = '\0';
    return DB_DONE;
}

void finish(void *handle) { delete static_cast<Statement *>(handle); }

}  // namespace

const DB_DRIVER_S db_driver = {
    .placeholderMark = '?',
    .open = open,
    .close = close,
    .prepare = prepare,
    .bind = bind,
    .execute = execute,
    .fetch = fetch,
    .value = value,
    .columns = columns,
    .describe = describe,
    .reset = reset,
    .begin = begin,
    .commit = commit,
    .rollback = rollback,
    .finish = finish,
    .set_deadline = set_deadline,
};
