/* Operations on one record, found by the value of its key: get, insert, delete. Changes of a record stand in
 * vlupdate.cpp. */
#include <stdio.h>

#include <algorithm>

#include "gateway/vlsql.h"

namespace gateway {
namespace {

constexpr int FIRST_PAIR = 3;  // an insert has no key: its attributes begin in the key's place

/** What the walk over the attributes to read came to. */
struct Selection {
    int columns = 0;
    bool metEmptyName = false;
};

/** Puts the attributes from AFTER_KEY on into the select list and the list of columns. */
Selection select_attributes(Statement &statement, const Request &request, VL_TABLE_S *table) {
    Selection selection;
    for (int i = AFTER_KEY; request.has(i); ++i) {
        if (!request.has_text(i)) {  // an empty name ends the walk
            selection.metEmptyName = true;
            break;
        }
        VL_COLUMN_S *column = getVLcolumnByName(table, request[i]);
        addColumn(column);
        if (column == nullptr) continue;
        if (selection.columns++ > 0) statement << ",";
        statement << column->column;
    }
    return selection;
}

void trace_bytes(const char *label, const char *value) {
    if (!verboseFlag || !process_context.trace || value[0] == '\0') return;
    char text[16 * 3 + 1];
    int length = 0;
    for (const char *next = value; *next != '\0' && next < value + 16; ++next) {
        length += snprintf(text + length, sizeof text - static_cast<size_t>(length), "%02x ",
                           static_cast<unsigned char>(*next));
    }
    process_trace("[%s] %s\n", label, text);
}

bool answer_slot(const Request &request, int slot) {
    VL_COLUMN_S *column = column_at(slot);
    const char *value = column != nullptr ? fetched_value(column) : "";
    trace_bytes(request.label(), value);
    return request.answer(value) >= 0 || request.overflow("column", slot);
}

bool answer_record(const Request &request, const Selection &selection) {
    request.answer("0");
    for (int slot = 1; slot < column_count(); ++slot) {
        if (!answer_slot(request, slot)) return false;
    }
    if (selection.metEmptyName) {
        VL_TRACE("[%s]: empty value for empty attribute.\n", request.label());
        if (request.answer("") < 0) return request.overflow("column", column_count());
    }
    request.trace_finish();
    return true;
}

bool get(const Request &request) {
    request.trace_call();
    if (request.count() <= AFTER_KEY || !request.has_text(AFTER_KEY)) return request.syntax_error();
    if (!request.names_record()) return request.syntax_error();
    VL_TABLE_S *table = initVLtable(request[TABLE], request.session());
    if (table == nullptr) return false;

    Statement statement(request.label(), table);
    statement << sql::SELECT;
    start_columns();
    const Selection selection = select_attributes(statement, request, table);
    if (selection.columns == 0) return request.fail();
    VL_COLUMN_S *key = getVLcolumnByName(table, request[KEY]);
    if (key == nullptr) return request.fail();
    setColumn(key, 0);
    statement << sql::FROM << table->physical << sql::WHERE << key->column << "=:1";

    if (!statement.prepare() || !statement.bind(1, request[KEY_VALUE]) || !statement.define_list()) {
        return request.fail();
    }
    const Outcome outcome = statement.read(1);
    if (outcome.code == OCI_NO_DATA) return request.fail("101");
    if (!outcome.has_row() || !statement.trace_width()) return request.fail();
    return answer_record(request, selection);
}

bool remove(const Request &request) {
    request.trace_call();
    if (!request.names_record()) return request.syntax_error();
    VL_TABLE_S *table = initVLtable(request[TABLE], request.session());
    if (table == nullptr) return false;
    VL_COLUMN_S *key = getVLcolumnByName(table, request[KEY]);
    if (key == nullptr) return request.fail();

    Statement statement(request.label(), table);
    statement << sql::DELETE_FROM << table->physical << sql::WHERE << key->column << "=:0";
    if (!statement.prepare() || !statement.bind(1, request[KEY_VALUE])) return request.fail();
    if (!statement.write().is_done()) return request.fail();  // no record is a failure here, unlike in an update
    if (!statement.commit()) return request.fail();

    request.answer("0");
    request.trace_finish();
    return true;
}

/** Puts the pairs' columns into the text and the list, and their values into the columns. Returns the columns. */
int take_pairs(Statement &statement, const Request &request, VL_TABLE_S *table) {
    int columns = 0;
    for (int i = FIRST_PAIR; request.has(i + 1); i += 2) {
        VL_COLUMN_S *column = getVLcolumnByName(table, request[i]);
        addColumn(column);
        if (column == nullptr) continue;
        column->rlen = static_cast<ub2>(store_value(column, request[i + 1]) + 1);
        if (columns++ > 0) statement << ",";
        statement << column->column;
    }
    return columns;
}

void add_placeholders(Statement &statement, int columns) {
    statement << ")" << sql::VALUES << "(";
    for (int position = 1; position <= columns; ++position) {
        if (position > 1) statement << ",";
        statement << ":" << position;
    }
    statement << ")";
}

bool bind_values(Statement &statement) {
    int position = 0;
    for (int slot = 1; slot < column_count(); ++slot) {
        VL_COLUMN_S *column = column_at(slot);
        if (column != nullptr && !statement.bind(++position, column->value, column->rlen)) return false;
    }
    return true;
}

bool insert(const Request &request) {
    request.trace_call();
    if (!request.has(TABLE) || request.count() <= FIRST_PAIR) return request.syntax_error();
    if (!request.is_paired_from(FIRST_PAIR)) return request.syntax_error();
    VL_TABLE_S *table = initVLtable(request[TABLE], request.session());
    if (table == nullptr) return false;

    Statement statement(request.label(), table);
    statement << sql::INSERT_INTO << table->physical << "(";
    start_columns();
    const int columns = take_pairs(statement, request, table);
    if (columns == 0) return request.fail();
    add_placeholders(statement, columns);

    if (!statement.prepare() || !bind_values(statement)) return request.fail();
    const Outcome outcome = statement.write();
    if (outcome.code == OCIERRDUPLICATE) return request.fail("2");
    if (outcome.code != OCI_SUCCESS || !statement.commit()) return request.fail();

    request.answer("0");
    request.trace_finish();
    return true;
}

}  // namespace
}  // namespace gateway

using gateway::Request;

int getRecord(RA_SESSION_S *session, int argc, char **inargv) {
    return gateway::get(Request("getRecord", session, argc, inargv)) ? 0 : -1;
}

void deleteRecord(RA_SESSION_S *session, int argc, char **inargv) {
    gateway::remove(Request("deleteRecord", session, argc, inargv));
}

void insertRecord(RA_SESSION_S *session, int argc, char **inargv) {
    gateway::insert(Request("insertRecord", session, argc, inargv));
}
