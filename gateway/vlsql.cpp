/* Statements: their text, and the cycle that all operations share (prepare, bind, define, execute, commit), down to
 * what must not be left behind. Which statement an operation needs is the operation's own matter. */
#include "gateway/vlsql.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

namespace gateway {
namespace {

constexpr size_t TEXT_STEP = 1024;

/** The text being built. Grows to the longest statement and stays. */
struct Text {
    char *bytes;
    size_t capacity;
    size_t length;
    bool failed;  // never cleared: memory ran short, and the callers test their last piece only
};
Text statementText;

bool grow(Text &text, size_t wanted) {
    size_t capacity = text.capacity;
    while (wanted >= capacity) capacity += TEXT_STEP;
    if (capacity == text.capacity) return true;
    if (capacity > INT_MAX) return false;

    void *block = text.bytes == nullptr ? process_malloc("sqlStmtCat", static_cast<int>(capacity))
                                        : realloc(text.bytes, capacity);
    if (block == nullptr) return false;
    text.bytes = static_cast<char *>(block);
    text.capacity = capacity;
    return true;
}

/** What the running request has open in the database. */
struct Cycle {
    VL_TABLE_S *table;
    bool queryOpen;
    bool changePending;
    bool tableChanged;  // the database doesn't know the cached table, or a column of it, any more
};
Cycle cycle;

/** Reports the result of a call, and takes note when it says that the cached columns are out of date. */
Outcome reported(sword status, const char *call) {
    const Outcome outcome{status, vlociReportCode(handles.errhp, status, call)};
    const bool isStale = outcome.code == OCIERRNOTABLE || outcome.code == OCIERRNOCOLUMN;
    if (status == OCI_ERROR && isStale) cycle.tableChanged = true;
    return outcome;
}

bool succeeded(sword status, const char *call) { return reported(status, call).status == OCI_SUCCESS; }

void close_query() {
    cycle.queryOpen = false;
    // A fetch of no rows cancels the query, and with it the lock that it holds.
    reported(oci.OCIStmtFetch(handles.stmthp, handles.errhp, 0, OCI_FETCH_NEXT, OCI_DEFAULT), "OCIStmtFetch");
}

void roll_back() {
    cycle.changePending = false;
    if (prepare_text("vlociRequest", "ROLLBACK")) execute_prepared(1, OCI_DEFAULT);
}

}  // namespace

// ---- Columns of the request

void start_columns() {
    columnList.count = 1;
    if (columnList.capacity > 0) columnList.entries[0] = nullptr;
}

void clear_value(VL_COLUMN_S *column) {
    column->value[0] = '\0';
    column->indicator = 0;
    column->rlen = 0;
}

char *fetched_value(VL_COLUMN_S *column) {
    column->value[std::min(column->rlen, column->size)] = '\0';
    return column->value;
}

int store_value(VL_COLUMN_S *column, const char *value) {
    const size_t room = std::min<size_t>(column->size, UINT16_MAX - 1);  // length and zero are counted in 16 bits
    const size_t length = strnlen(value, room);
    memcpy(column->value, value, length);
    column->value[length] = '\0';
    return static_cast<int>(length);
}

// ---- Statement

bool prepare_text(const char *label, const char *text) {
    if (sqlVerboseFlag) {
        process_log("[%s] sqlstmt=\"%s\".\n", label, printable(text).c_str());
    } else {
        VL_TRACE("[%s] sqlstmt = \"%s\".\n", label, printable(text).c_str());
    }
    const sword status = oci.OCIStmtPrepare(handles.stmthp, handles.errhp, reinterpret_cast<const OraText *>(text),
                                            static_cast<ub4>(strlen(text)), OCI_NTV_SYNTAX, OCI_DEFAULT);
    if (status == OCI_SUCCESS) cycle.queryOpen = false;  // the last query went with its statement
    return succeeded(status, "OCIStmtPrepare");
}

Outcome execute_prepared(ub4 iterations, ub4 mode) {
    return reported(
        oci.OCIStmtExecute(handles.svchp, handles.stmthp, handles.errhp, iterations, 0, nullptr, nullptr, mode),
        "OCIStmtExecute");
}

Statement::Statement(const char *label, VL_TABLE_S *table) : label_(label) {
    cycle.table = table;
    sqlStmtCat(nullptr);
}

Statement &Statement::operator<<(int number) {
    char digits[12];
    snprintf(digits, sizeof digits, "%d", number);
    return *this << digits;
}

bool Statement::prepare() {
    if (!is_complete()) {
        process_error("[%s]: out of memory!\n", label_);
        return false;
    }
    return prepare_text(label_, text_);
}

bool Statement::bind(int position, char *text, int size) {
    OCIBind *bind = nullptr;
    return succeeded(oci.OCIBindByPos(handles.stmthp, &bind, handles.errhp, static_cast<ub4>(position), text, size,
                                      SQLT_STR, nullptr, nullptr, nullptr, 0, nullptr, OCI_DEFAULT),
                     "OCIBindByPos");
}

bool Statement::bind_by_name(const char *placeholder, char *text) {
    OCIBind *bind = nullptr;
    return succeeded(
        oci.OCIBindByName(handles.stmthp, &bind, handles.errhp, reinterpret_cast<const OraText *>(placeholder),
                          static_cast<sb4>(strlen(placeholder)), text, static_cast<sb4>(strlen(text)) + 1, SQLT_STR,
                          nullptr, nullptr, nullptr, 0, nullptr, OCI_DEFAULT),
        "OCIBindByName");
}

bool Statement::define(int position, VL_COLUMN_S *column) {
    clear_value(column);
    column->define = nullptr;
    return succeeded(
        oci.OCIDefineByPos(handles.stmthp, &column->define, handles.errhp, static_cast<ub4>(position), column->value,
                           column->size, SQLT_CHR, &column->indicator, &column->rlen, nullptr, OCI_DEFAULT),
        "OCIDefineByPos");
}

bool Statement::define_list() {
    int position = 0;
    for (int slot = 1; slot < column_count(); ++slot) {
        VL_COLUMN_S *column = column_at(slot);
        if (column != nullptr && !define(++position, column)) return false;
    }
    return true;
}

Outcome Statement::read(ub4 iterations) {
    const Outcome outcome = execute_prepared(iterations, OCI_DEFAULT);
    cycle.queryOpen = outcome.has_row() || (outcome.code == OCI_NO_DATA && iterations == 0);
    return outcome;
}

Outcome Statement::fetch() {
    const Outcome outcome =
        reported(oci.OCIStmtFetch(handles.stmthp, handles.errhp, 1, OCI_FETCH_NEXT, OCI_DEFAULT), "OCIStmtFetch");
    if (outcome.code == OCI_NO_DATA) cycle.queryOpen = false;
    return outcome;
}

Outcome Statement::write() {
    cycle.changePending = true;  // even if it fails: a database may keep the transaction that it began
    return execute_prepared(1, OCI_DEFAULT);
}

bool Statement::commit() {
    const Outcome outcome = reported(oci.OCITransCommit(handles.svchp, handles.errhp, OCI_DEFAULT), "OCITransCommit");
    if (outcome.is_done()) cycle.changePending = false;
    return outcome.is_done();
}

bool Statement::trace_width() {
    ub4 width = 0;
    const bool isRead = succeeded(
        oci.OCIAttrGet(handles.stmthp, OCI_HTYPE_STMT, &width, nullptr, OCI_ATTR_PARAM_COUNT, handles.errhp),
        "OCIAttrGet");
    if (isRead) VL_TRACE("[%s] OCI_ATTR_PARAM_COUNT=%u.\n", label_, width);
    return isRead;
}

// ---- End of the request

void end_request() {
    if (cycle.queryOpen) close_query();
    if (cycle.changePending) roll_back();
    if (cycle.tableChanged && cycle.table != nullptr) forget_columns(cycle.table);
    reset_request();
}

void reset_request() { cycle = Cycle{}; }

}  // namespace gateway

char *sqlStmtCat(const char *text) {
    auto &built = gateway::statementText;
    if (text == nullptr) {
        built.length = 0;
        if (built.bytes != nullptr) built.bytes[0] = '\0';
        return nullptr;
    }
    const size_t length = strlen(text);
    if (built.failed || !gateway::grow(built, built.length + length)) {
        built.failed = true;
        return nullptr;
    }
    memcpy(built.bytes + built.length, text, length + 1);
    built.length += length;
    return built.bytes;
}
