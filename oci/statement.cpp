/* What a statement does, the same for every local database. The driver knows its engine; the rules of the interface
 * stand here: the empty text is no value, a change that touches no row is no data, a failed one leaves nothing behind,
 * and nothing is ever written outside of a define. */
#include "oci/statement.h"

#include <string.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace {
constexpr ub4 MOST_COLUMNS = 4096;
constexpr sb2 NO_VALUE = -1;
constexpr sb2 CUT_FROM_LONG = -2;  // the length before the cut is more than an indicator can hold

// ---- Binds ----------------------------------------------------------------------------------------------------

// Read when the statement is executed, as the interface promises.
std::string_view bound_text(const OCIBind &bind) {
    const bool has_no_value = bind.indicator != nullptr && *bind.indicator == NO_VALUE;
    if (bind.value == nullptr || bind.size <= 0 || has_no_value) return {};

    auto length = static_cast<std::size_t>(bind.size);
    if (bind.type == SQLT_STR) {
        length = strnlen(bind.value, length);
    } else if (bind.length != nullptr) {
        length = std::min<std::size_t>(length, *bind.length);
    }
    return {bind.value, length};
}

bool bind_values(const OCIStmt &statement, OCIError &error) {
    const Prepared &prepared = *statement.prepared;
    for (int place = 1; place <= prepared.placeholders.count(); place++) {
        const OCIBind &bind = statement.binds[static_cast<std::size_t>(place) - 1];
        if (!bind.is_set) {
            db_fail(&error.record, OCIERROTHER, "placeholder :%s has no value",
                    prepared.placeholders.names[static_cast<std::size_t>(place) - 1].c_str());
            return false;
        }
        const std::string_view text = bound_text(bind);
        const char *const start = text.empty() ? nullptr : text.data();  // the empty text is no value
        const int length = static_cast<int>(text.size());
        if (db_driver.bind(prepared.engine, place, start, length, &error.record) == DB_FAILED) return false;
    }
    return true;
}

// ---- Defines --------------------------------------------------------------------------------------------------

void note(const OCIDefine &define, sb2 indicator, std::size_t length, int code) {
    if (define.indicator != nullptr) *define.indicator = indicator;
    if (define.length != nullptr) *define.length = static_cast<ub2>(length);
    if (define.code != nullptr) *define.code = static_cast<ub2>(code);
}

// How many bytes of a value the define can take, its terminator not counted.
std::size_t room_of(const OCIDefine &define) {
    std::size_t room = define.size > 0 ? static_cast<std::size_t>(define.size) : 0;
    if (define.type == SQLT_STR && room > 0) room--;
    const std::size_t tellable = define.length != nullptr ? std::numeric_limits<ub2>::max() : room;
    return std::min(room, tellable);
}

void terminate(const OCIDefine &define, std::size_t length) {
    if (define.type == SQLT_STR && define.size > 0) define.value[length] = '\0';
}

sword deliver_nothing(const OCIDefine &define, OCIError &error) {
    terminate(define, 0);
    note(define, NO_VALUE, 0, OCIERRNULLFETCHED);
    if (define.indicator != nullptr) return OCI_SUCCESS;
    return call_failed(error, OCIERRNULLFETCHED, "a fetched column has no value, and no indicator to say so");
}

sword deliver_text(const OCIDefine &define, std::string_view text, OCIError &error) {
    const std::size_t written = std::min(text.size(), room_of(define));
    if (written > 0) memcpy(define.value, text.data(), written);
    terminate(define, written);
    if (written == text.size()) {
        note(define, 0, written, 0);
        return OCI_SUCCESS;
    }
    const bool is_long = text.size() > static_cast<std::size_t>(std::numeric_limits<sb2>::max());
    note(define, is_long ? CUT_FROM_LONG : static_cast<sb2>(text.size()), written, OCIERRTRUNCATED);
    call_failed(error, OCIERRTRUNCATED, "a fetched value was cut to the size of its buffer");
    return define.indicator != nullptr ? OCI_SUCCESS_WITH_INFO : OCI_ERROR;
}

// All columns are delivered, whatever became of one of them; the first trouble is the result.
sword deliver_row(const OCIStmt &statement, OCIError &error) {
    void *const engine = statement.prepared->engine;
    const auto columns = static_cast<std::size_t>(std::max(0, db_driver.columns(engine)));
    sword result = OCI_SUCCESS;
    for (std::size_t column = 0; column < statement.definesInUse; column++) {
        const OCIDefine &define = statement.defines[column];
        if (!define.is_set) continue;
        if (column >= columns) {
            note(define, NO_VALUE, 0, 0);
            result = call_failed(error, OCIERROTHER, "more columns are defined than the select list has");
            break;
        }
        int length = 0;
        const char *const text = db_driver.value(engine, static_cast<int>(column), &length);
        const bool has_value = text != nullptr && length > 0;
        const sword status = has_value ? deliver_text(define, {text, static_cast<std::size_t>(length)}, error)
                                       : deliver_nothing(define, error);
        if (result == OCI_SUCCESS) result = status;
    }
    return result;
}

// ---- Execute --------------------------------------------------------------------------------------------------

/** While it lives, the engine works on a statement that may be limited. One look at the clock serves an execution and
 *  all of its fetches. */
class LimitedWork {
public:
    LimitedWork(const OCIStmt &statement, void *connection)
        : connection_(statement.environment->statementLimit != 0 ? connection : nullptr) {
        if (connection_ != nullptr) db_driver.set_deadline(connection_, statement.deadline);
    }
    ~LimitedWork() {
        if (connection_ != nullptr) db_driver.set_deadline(connection_, DbClock::time_point::max());
    }
    LimitedWork(const LimitedWork &) = delete;
    LimitedWork &operator=(const LimitedWork &) = delete;

private:
    void *const connection_;  // null: no limit
};

void begin_limit(OCIStmt &statement) {
    const std::chrono::milliseconds limit(statement.environment->statementLimit);
    statement.deadline = limit.count() != 0 ? DbClock::now() + limit : DbClock::time_point::max();
}

bool reach_engine(Prepared &prepared, void *connection, OCIError &error) {
    if (prepared.engine != nullptr && prepared.connection == connection) return true;
    prepared.release_engine();
    const std::string &text = prepared.placeholders.text;
    prepared.engine = db_driver.prepare(connection, text.data(), static_cast<int>(text.size()), &error.record);
    prepared.connection = prepared.engine != nullptr ? connection : nullptr;
    return prepared.engine != nullptr;
}

sword fetch_row(OCIStmt &statement, OCIError &error) {
    switch (db_driver.fetch(statement.prepared->engine, &error.record)) {
        case DB_ROW:
            return deliver_row(statement, error);
        case DB_NOTHING:
            statement_end_cursor(statement);
            statement.cursor = Cursor::AT_END;
            return OCI_NO_DATA;
        default:
            statement_end_cursor(statement);
            return OCI_ERROR;
    }
}

sword run_query(OCIStmt &statement, OCIError &error, ub4 iterations) {
    if (db_driver.execute(statement.prepared->engine, &error.record) == DB_FAILED) return OCI_ERROR;
    statement.cursor = Cursor::OPEN;
    return iterations == 0 ? OCI_SUCCESS : fetch_row(statement, error);
}

// Opens a transaction if there is none. One that holds nothing is not kept: it would only be a lock.
sword run_change(void *connection, void *engine, OCIError &error) {
    const int begun = db_driver.begin(connection, &error.record);
    if (begun == DB_FAILED) return OCI_ERROR;

    const int result = db_driver.execute(engine, &error.record);
    if (result != DB_DONE && begun == DB_DONE) {
        DB_ERROR_S second{};  // what failed first is what the caller hears of
        db_driver.rollback(connection, &second);
    }
    if (result == DB_NOTHING) return OCI_NO_DATA;
    return result == DB_FAILED ? OCI_ERROR : OCI_SUCCESS;
}

// A definition commits what stands before it and is durable at once, as the interface has it.
sword run_definition(void *connection, void *engine, OCIError &error) {
    if (db_driver.commit(connection, &error.record) == DB_FAILED) return OCI_ERROR;
    return db_driver.execute(engine, &error.record) == DB_FAILED ? OCI_ERROR : OCI_SUCCESS;
}

sword run_in_engine(OCIStmt &statement, void *connection, OCIError &error, ub4 iterations) {
    begin_limit(statement);
    const LimitedWork work(statement, connection);
    if (!reach_engine(*statement.prepared, connection, error)) return OCI_ERROR;
    void *const engine = statement.prepared->engine;
    const bool is_change = statement.prepared->kind == StatementKind::CHANGE;
    const bool is_query = !is_change && db_driver.columns(engine) > 0;
    if (!is_query && iterations == 0) return call_failed(error, OCIERROTHER, "a change needs one iteration");

    if (!bind_values(statement, error)) return OCI_ERROR;
    if (is_query) return run_query(statement, error, iterations);
    return is_change ? run_change(connection, engine, error) : run_definition(connection, engine, error);
}

}  // namespace

sword statement_prepare(OCIStmt &statement, OCIError &error, std::string_view sql) {
    StatementCache &cache = statement.environment->statements;
    statement_end_cursor(statement);
    cache.give_back(std::move(statement.prepared));
    statement.definesInUse = 0;
    if (sql.empty()) return call_failed(error, OCIERROTHER, "the statement is empty");

    std::unique_ptr<Prepared> taken = cache.take(sql);
    const auto places = static_cast<std::size_t>(taken->placeholders.count());
    while (statement.binds.size() < places) statement.binds.emplace_back();
    for (std::size_t place = 0; place < places; place++) statement.binds[place].is_set = false;
    statement.prepared = std::move(taken);
    return OCI_SUCCESS;
}

void statement_end_cursor(OCIStmt &statement) {
    if (statement.cursor == Cursor::OPEN) db_driver.reset(statement.prepared->engine);
    statement.cursor = Cursor::NONE;
}

OCIBind *statement_bind_place(OCIStmt &statement, OCIError &error, ub4 position) {
    const int places = statement.prepared != nullptr ? statement.prepared->placeholders.count() : 0;
    if (position >= 1 && position <= static_cast<ub4>(places)) return &statement.binds[position - 1];
    db_fail(&error.record, OCIERROTHER, "there is no placeholder at position %u", position);
    return nullptr;
}

OCIBind *statement_bind_place(OCIStmt &statement, OCIError &error, std::string_view name) {
    const int position = statement.prepared != nullptr ? statement.prepared->placeholders.position(name) : 0;
    if (position > 0) return &statement.binds[static_cast<std::size_t>(position) - 1];
    db_fail(&error.record, OCIERROTHER, "there is no placeholder %.*s",
            static_cast<int>(std::min<std::size_t>(name.size(), 128)), name.data());
    return nullptr;
}

OCIDefine *statement_define_place(OCIStmt &statement, OCIError &error, ub4 position) {
    if (position < 1 || position > MOST_COLUMNS) {
        db_fail(&error.record, OCIERROTHER, "there is no column at position %u", position);
        return nullptr;
    }
    while (statement.defines.size() < position) statement.defines.emplace_back();
    while (statement.definesInUse < position) statement.defines[statement.definesInUse++].is_set = false;
    return &statement.defines[position - 1];
}

sword statement_execute(OCIStmt &statement, void *connection, OCIError &error, ub4 iterations) {
    if (statement.prepared == nullptr) return call_failed(error, OCIERROTHER, "no statement was prepared");
    statement_end_cursor(statement);
    switch (statement.prepared->kind) {
        case StatementKind::SETTING:  // the order and format that it could set hold always
            return OCI_SUCCESS;
        case StatementKind::COMMIT:
            return db_driver.commit(connection, &error.record) == DB_FAILED ? OCI_ERROR : OCI_SUCCESS;
        case StatementKind::ROLLBACK:
            return db_driver.rollback(connection, &error.record) == DB_FAILED ? OCI_ERROR : OCI_SUCCESS;
        default:
            return run_in_engine(statement, connection, error, iterations);
    }
}

sword statement_describe(OCIStmt &statement, void *connection, OCIError &error) {
    if (statement.prepared == nullptr) return call_failed(error, OCIERROTHER, "no statement was prepared");
    statement_end_cursor(statement);
    statement.prepared->release_engine();  // asked anew: the table may have changed since
    begin_limit(statement);
    const LimitedWork work(statement, connection);
    return reach_engine(*statement.prepared, connection, error) ? OCI_SUCCESS : OCI_ERROR;
}

sword statement_fetch(OCIStmt &statement, OCIError &error) {
    if (statement.cursor == Cursor::AT_END) return OCI_NO_DATA;
    if (statement.cursor == Cursor::NONE) return call_failed(error, OCIERROTHER, "no query was executed");
    const LimitedWork work(statement, statement.prepared->connection);
    return fetch_row(statement, error);
}

int statement_columns(const OCIStmt &statement) {
    const bool is_known = statement.prepared != nullptr && statement.prepared->engine != nullptr;
    return is_known ? db_driver.columns(statement.prepared->engine) : -1;
}

OCIParam *statement_parameter(OCIStmt &statement, OCIError &error, ub4 position) {
    const int columns = statement_columns(statement);
    if (columns <= 0 || position < 1 || position > static_cast<ub4>(columns)) {
        db_fail(&error.record, OCIERROTHER, "the select list has no column %u", position);
        return nullptr;
    }
    while (statement.parameters.size() < position) statement.parameters.emplace_back();
    OCIParam *const parameter = &statement.parameters[position - 1];
    const int column = static_cast<int>(position) - 1;
    if (db_driver.describe(statement.prepared->engine, column, &parameter->column) == DB_DONE) return parameter;
    call_failed(error, OCIERROTHER, "the column can't be described");
    return nullptr;
}
