/* Changes of one record, found by the value of its key: new values, and sums added to counters. Both first read the
 * record, so that a missing one is told as such. */
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "gateway/vlsql.h"

namespace gateway {
namespace {

constexpr char KEY_PLACEHOLDER[] = ":0";

/** Reads the first attribute of the record. If that fails its answer is the request's. */
bool record_exists(const Request &request, char **inargv) {
    // A shorter request is as short for the read, which refuses it.
    if (getRecord(request.session(), std::min(request.count(), AFTER_KEY + 1), inargv) != 0) {
        VL_TRACE("%s: check object failed\n", request.label());
        return false;
    }
    raClearResult(request.session());
    return true;
}

void add_assignment(Statement &statement, const VL_COLUMN_S *column, int number) {
    if (number > 1) statement << ",";
    statement << column->column << "=:" << number;
}

bool add_key_condition(Statement &statement, const VL_COLUMN_S *key) {
    statement << sql::WHERE << key->column << "=" << KEY_PLACEHOLDER;
    return statement.prepare();
}

/** Binds the key, by name since it stands last in the text, and the new values by position. */
bool bind_change(Statement &statement, const Request &request) {
    if (!statement.bind_by_name(KEY_PLACEHOLDER, request[KEY_VALUE])) return false;
    int position = 0;
    for (int slot = 1; slot < column_count(); ++slot) {
        VL_COLUMN_S *column = column_at(slot);
        if (column != nullptr && !statement.bind(++position, column->value, column->rlen + 1)) return false;
    }
    return true;
}

// ---- New values

/** Puts the pairs' columns into the text and the list, and their values into the columns. Returns the columns. */
int take_pairs(Statement &statement, const Request &request, VL_TABLE_S *table) {
    int columns = 0;
    for (int i = AFTER_KEY; request.has(i + 1); i += 2) {
        VL_COLUMN_S *column = getVLcolumnByName(table, request[i]);
        addColumn(column);
        if (column == nullptr) continue;
        column->rlen = static_cast<ub2>(store_value(column, request[i + 1]));
        add_assignment(statement, column, ++columns);
    }
    return columns;
}

bool update(const Request &request, char **inargv) {
    request.trace_call();
    if (!request.is_paired_from(AFTER_KEY)) return request.syntax_error();
    if (!record_exists(request, inargv)) return false;
    if (request.count() <= AFTER_KEY) return request.syntax_error();
    if (!request.names_record()) {
        process_error("%s() Syntax Error in inargv.\n", request.label());
        return request.fail();
    }
    VL_TABLE_S *table = initVLtable(request[TABLE], request.session());
    if (table == nullptr) return false;

    Statement statement(request.label(), table);
    statement << sql::UPDATE << table->physical << sql::SET;
    start_columns();
    if (take_pairs(statement, request, table) == 0) return request.fail();
    VL_COLUMN_S *key = getVLcolumnByName(table, request[KEY]);
    if (key == nullptr) return request.fail();
    setColumn(key, 0);
    if (!add_key_condition(statement, key) || !bind_change(statement, request)) return request.fail();

    const Outcome outcome = statement.write();
    if (outcome.status == OCI_NO_DATA) return request.fail("101");
    if (!outcome.is_done() || !statement.commit()) return request.fail();

    request.answer("0");
    request.trace_finish();
    return true;
}

// ---- Counters

/** Reads the current values of the counters into their columns. */
bool read_counters(const Request &request, VL_TABLE_S *table) {
    Statement statement(request.label(), table);
    statement << sql::SELECT;
    start_columns();
    int columns = 0;
    for (int i = AFTER_KEY; request.has(i + 1); i += 2) {
        VL_COLUMN_S *column = getVLcolumnByName(table, request[i]);
        addColumn(column);
        if (column == nullptr) continue;
        clear_value(column);
        if (columns++ > 0) statement << ",";
        statement << column->column;
    }
    if (columns == 0) return false;
    statement << sql::FROM << table->physical;
    VL_COLUMN_S *key = getVLcolumnByName(table, request[KEY]);
    if (key == nullptr) return false;
    setColumn(key, 0);

    if (!add_key_condition(statement, key)) return false;
    if (!statement.bind(1, request[KEY_VALUE]) || !statement.define_list()) return false;
    statement.read(1);  // not tested: a counter without a value counts from 0
    return statement.trace_width();
}

/** Adds a decimal increment to a counter of eight hexadecimal digits. It wraps at 32 bits, either way. */
void add_to_counter(VL_COLUMN_S *column, const char *increment) {
    const auto current = static_cast<uint32_t>(strtoul(fetched_value(column), nullptr, 16));
    const auto added = static_cast<uint32_t>(strtol(increment, nullptr, 10));
    char digits[16];
    snprintf(digits, sizeof digits, "%08lx", static_cast<unsigned long>(static_cast<uint32_t>(current + added)));
    column->rlen = static_cast<ub2>(store_value(column, digits));
}

/** What the client gets to know of the change. */
struct Sum {
    int counters = 0;
    char first[16] = "";
};

Sum add_increments(Statement &statement, const Request &request) {
    Sum sum;
    for (int slot = 1; slot < column_count(); ++slot) {
        VL_COLUMN_S *column = column_at(slot);
        if (column == nullptr) continue;
        add_to_counter(column, request[KEY_VALUE + 2 * slot]);
        if (++sum.counters == 1) process_strlcpy(sum.first, sizeof sum.first, column->value);
        add_assignment(statement, column, sum.counters);
    }
    return sum;
}

bool answer_sum(const Request &request, const Sum &sum) {
    request.answer("0");
    if (sum.counters != 1) {
        request.trace_finish();
        return true;
    }
    request.answer(sum.first);
    VL_TRACE("[%s] finished. Res %s\n", request.label(), sum.first);
    return true;
}

bool add(const Request &request, char **inargv) {
    if (!request.is_paired_from(AFTER_KEY)) return request.syntax_error();
    if (!record_exists(request, inargv)) return false;
    request.trace_call();
    if (!request.names_record()) return request.syntax_error();
    VL_TABLE_S *table = initVLtable(request[TABLE], request.session());
    if (table == nullptr) return false;
    if (!read_counters(request, table)) return request.fail();

    Statement statement(request.label(), table);
    statement << sql::UPDATE << table->physical << sql::SET;
    const Sum sum = add_increments(statement, request);
    const VL_COLUMN_S *key = column_at(0);
    if (key == nullptr) return request.fail();
    if (!add_key_condition(statement, key) || !bind_change(statement, request)) return request.fail();
    if (!statement.write().is_done() || !statement.commit()) return request.fail();
    return answer_sum(request, sum);
}

}  // namespace
}  // namespace gateway

using gateway::Request;

void updateRecord(RA_SESSION_S *session, int argc, char **inargv) {
    gateway::update(Request("updateRecord", session, argc, inargv), inargv);
}

void addToRecord(RA_SESSION_S *session, int argc, char **inargv) {
    gateway::add(Request("addToRecord", session, argc, inargv), inargv);
}
