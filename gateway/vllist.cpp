/* A page of a sorted, filtered list.
 *
 * There is no cursor between requests: the client names where its last page ended, and the statement goes on strictly
 * behind that place. Since the search attribute need not be unique, the long form positions by a second attribute
 * that is, and sorts by both. */
#include <limits.h>
#include <stdlib.h>
#include <strings.h>

#include "gateway/vlsql.h"
#include "process/owned.h"

namespace gateway {
namespace {

constexpr char label[] = "listRecord";
constexpr long DEFAULT_ROWS = 10;
constexpr int AMBIGUOUS_COLUMN = 960;  // the database's number; goes on like a row
constexpr char TIE_BREAKER[] = "ID";

constexpr char FILTER[] = ":FILTER";
constexpr char ESCAPE_CHARACTER[] = ":ESCAPE";
constexpr char START[] = ":STARTVAL";
constexpr char SEARCH_START[] = ":SEARCHSTARTVAL";

/** Where the strings of a request stand, by their distance from the row count. */
enum { ROW_COUNT = 0, DIRECTION = 1, PATTERN = 2, ATTRIBUTES = 3 };
constexpr int SHORT_FORM = 5;  // place of the row count
constexpr int LONG_FORM = 7;

/** A request taken apart. */
struct Page {
    char *search;
    char *second;        // the search attribute itself in the short form
    char *start;         // start value of the second attribute; may be null
    const char *filter;  // may be null
    long rows;
    const char *comparison;
    const char *suffix;
    int attributes;  // place of the first
    VL_COLUMN_S *searchColumn;
    VL_COLUMN_S *secondColumn;  // null in the short form
    VL_COLUMN_S *tieBreaker;    // null unless the short form needs one

    bool has_start() const { return start != nullptr && start[0] != '\0'; }
    bool is_search(const char *attribute) const { return attribute != nullptr && strcasecmp(attribute, search) == 0; }
};

bool is_direction(const char *text) { return strcmp(text, "+") == 0 || strcmp(text, "-") == 0; }

/** Takes the request apart. False for a direction that is none. */
bool read_page(const Request &request, Page &page) {
    const bool isLong = request.has(6) && !is_direction(request[6]);
    const int base = isLong ? LONG_FORM : SHORT_FORM;
    const char *direction = request.has(base + DIRECTION) ? request[base + DIRECTION] : "+";
    if (!is_direction(direction)) return false;

    const bool isDescending = direction[0] == '-';
    page.search = request[KEY];
    page.second = isLong ? request[5] : request[KEY];
    page.start = isLong ? request[6] : request[KEY_VALUE];
    page.filter = request[base + PATTERN];
    page.rows = request.has(base + ROW_COUNT) ? strtol(request[base + ROW_COUNT], nullptr, 10) : DEFAULT_ROWS;
    page.comparison = isDescending ? "<" : ">";
    page.suffix = isDescending ? sql::DESC : "";
    page.attributes = base + ATTRIBUTES;
    return true;
}

// ---- Filter

/** The pattern as the database takes it. */
struct Filter {
    OwnedBlock<char> text;
    char escape[2] = "";  // empty: no escape clause
};

char choose_escape(const char *filter) {
    if (strchr(filter, '!') == nullptr) return '!';
    if (strchr(filter, ':') == nullptr) return ':';
    // It is meant that a missing backslash gives the colon once more, though the filter has one.
    return strchr(filter, '\\') == nullptr ? ':' : '\0';
}

/** Puts the escape character in front of each `wanted`. The block has room for twice the text. */
void escape_all(char *text, char wanted, char escape) {
    for (char *next = strchr(text, wanted); next != nullptr; next = strchr(next + 2, wanted)) {
        memmove(next + 1, next, strlen(next) + 1);
        *next = escape;
    }
}

void replace_all(char *text, char wanted, char replacement) {
    for (char *next = strchr(text, wanted); next != nullptr; next = strchr(next + 1, wanted)) *next = replacement;
}

/** The client's own % and _ become plain characters first, its * and ? wildcards afterwards. */
bool prepare_filter(const char *given, Filter &filter) {
    const char *pattern = given != nullptr && given[0] != '\0' ? given : "%";
    const size_t length = strlen(pattern);
    if (length > INT_MAX / 2 - 1) return false;
    filter.text.reset(process_malloc(label, static_cast<int>(2 * length + 1)));
    if (filter.text.is_null()) return false;
    char *text = filter.text.get();
    memcpy(text, pattern, length + 1);

    const bool isGiven = pattern == given;
    if (isGiven && strpbrk(text, "%_") != nullptr) filter.escape[0] = choose_escape(text);
    if (filter.escape[0] != '\0') {
        escape_all(text, '_', filter.escape[0]);
        escape_all(text, '%', filter.escape[0]);
    }
    replace_all(text, '*', '%');
    replace_all(text, '?', '_');
    return true;
}

// ---- First statement of the long form

/** The row at which a page of the long form starts. */
struct Place {
    OwnedBlock<char> searchValue;
    OwnedBlock<char> secondValue;
};

enum class Search { FOUND, NOTHING, FAILED, UNANSWERED };

bool copy_fetched(OwnedBlock<char> &target, VL_COLUMN_S *column) {
    const char *value = fetched_value(column);
    target.reset(process_memdup(label, value, static_cast<int>(strlen(value)) + 1));
    return !target.is_null();
}

Search find_place(VL_TABLE_S *table, const Page &page, Place &place) {
    Statement statement(label, table);
    statement << sql::SELECT << page.searchColumn->column << "," << page.secondColumn->column << sql::FROM
              << table->physical;
    if (page.has_start()) statement << sql::WHERE << page.secondColumn->column << page.comparison << "=" << START;
    statement << sql::ORDER_BY << "2" << page.suffix;

    if (!statement.prepare()) return Search::FAILED;
    if (page.has_start() && !statement.bind_by_name(START, page.start)) return Search::FAILED;
    if (!statement.define(1, page.searchColumn) || !statement.define(2, page.secondColumn)) return Search::FAILED;

    const Outcome outcome = statement.read(1);
    if (outcome.status == OCI_NO_DATA) return Search::NOTHING;
    if (!outcome.has_row() && outcome.code != AMBIGUOUS_COLUMN) return Search::UNANSWERED;
    const bool isKept =
        copy_fetched(place.searchValue, page.searchColumn) && copy_fetched(place.secondValue, page.secondColumn);
    return isKept ? Search::FOUND : Search::FAILED;
}

// ---- Main statement

void select_columns(Statement &statement, const Request &request, VL_TABLE_S *table, const Page &page) {
    statement << sql::SELECT << page.searchColumn->column;
    columnList.count = 0;
    addColumn(page.searchColumn);
    for (int i = page.attributes; request.has(i); ++i) {
        VL_COLUMN_S *column = getVLcolumnByName(table, request[i]);
        addColumn(column);
        // The search attribute is selected already: a repeat only has its place in the list.
        if (column != nullptr && !page.is_search(request[i])) statement << "," << column->column;
    }
    statement << sql::FROM << table->physical;
}

void add_conditions(Statement &statement, const Page &page, const Filter &filter) {
    const char *search = page.searchColumn->column;
    statement << sql::WHERE << search << sql::LIKE << FILTER;
    if (filter.escape[0] != '\0') statement << sql::ESCAPE << ESCAPE_CHARACTER;
    if (page.secondColumn != nullptr) {
        const char *second = page.secondColumn->column;
        statement << sql::AND << "(" << search << page.comparison << SEARCH_START << sql::OR << "(" << search << "="
                  << SEARCH_START << sql::AND << second << page.comparison << START << "))";
    } else if (page.has_start()) {
        statement << sql::AND << search << page.comparison << START;
    }
}

void add_order(Statement &statement, const Page &page) {
    const VL_COLUMN_S *next = page.secondColumn != nullptr ? page.secondColumn : page.tieBreaker;
    statement << sql::ORDER_BY << page.searchColumn->column << page.suffix;
    if (next != nullptr) statement << "," << next->column << page.suffix;
}

bool bind_conditions(Statement &statement, const Page &page, Filter &filter, const Place &place) {
    if (!statement.bind_by_name(FILTER, filter.text.get())) return false;
    if (filter.escape[0] != '\0' && !statement.bind_by_name(ESCAPE_CHARACTER, filter.escape)) return false;
    if (page.has_start() && !statement.bind_by_name(START, page.start)) return false;
    return page.secondColumn == nullptr || statement.bind_by_name(SEARCH_START, place.searchValue.get());
}

bool define_columns(Statement &statement, const Page &page) {
    int position = 0;
    for (int slot = 0; slot < column_count(); ++slot) {
        VL_COLUMN_S *column = column_at(slot);
        if (column == nullptr) continue;
        const bool isRepeat = slot > 0 && page.is_search(column->attribute);
        if (!isRepeat && !statement.define(++position, column)) return false;
    }
    return true;
}

// ---- Rows

bool answer_row(const Request &request) {
    for (int slot = 0; slot < column_count(); ++slot) {
        VL_COLUMN_S *column = column_at(slot);
        if (request.answer(column != nullptr ? fetched_value(column) : "") >= 0) continue;
        return request.overflow(column != nullptr ? "col_num" : "column", slot);
    }
    return true;
}

bool answer_rows(const Request &request, Statement &statement, long rows) {
    request.answer("0");
    for (long row = 0; row < rows; ++row) {
        for (int slot = 0; slot < column_count(); ++slot) {
            if (column_at(slot) != nullptr) clear_value(column_at(slot));
        }
        const Outcome outcome = statement.fetch();
        if (outcome.code == OCI_NO_DATA) break;
        if (!outcome.has_row()) {  // no result at all: the client sees a refusal
            raClearResult(request.session());
            return false;
        }
        if (!answer_row(request)) return false;
    }
    request.trace_finish();
    return true;
}

bool answer_page(const Request &request, VL_TABLE_S *table, const Page &page, const Place &place) {
    Filter filter;
    if (!prepare_filter(page.filter, filter)) return request.fail();

    Statement statement(label, table);
    select_columns(statement, request, table, page);
    add_conditions(statement, page, filter);
    add_order(statement, page);
    if (!statement.is_complete()) {
        process_error("%s: out of memory!\n", label);
        return request.fail();
    }
    if (!statement.prepare() || !bind_conditions(statement, page, filter, place)) return request.fail();
    if (!define_columns(statement, page)) return request.fail();

    const Outcome outcome = statement.read(0);
    if (!outcome.has_row() && outcome.code != OCI_NO_DATA) return request.fail();
    return answer_rows(request, statement, page.rows);
}

/** Finds the columns that the sort needs. */
bool find_sort_columns(VL_TABLE_S *table, Page &page) {
    page.searchColumn = getVLcolumnByName(table, page.search);
    if (page.searchColumn == nullptr) return false;
    if (strcmp(page.second, page.search) != 0) {
        page.secondColumn = getVLcolumnByName(table, page.second);
        return page.secondColumn != nullptr;
    }
    if (strcmp(page.search, TIE_BREAKER) == 0) return true;
    page.tieBreaker = getVLcolumnByName(table, TIE_BREAKER);
    return page.tieBreaker != nullptr;
}

bool list(const Request &request) {
    request.trace_call();
    VL_TRACE("[%s] tablename=<%s> searchatt=<%s>\n", label, printable(or_null_text(request[TABLE])).c_str(),
             printable(or_null_text(request[KEY])).c_str());
    if (request.count() <= KEY_VALUE) return request.syntax_error();
    if (!request.has(TABLE) || !request.has(KEY)) {
        process_error("%s() Syntax Error in inargv.\n", label);
        return request.fail();
    }
    VL_TABLE_S *table = initVLtable(request[TABLE], request.session());
    if (table == nullptr) return false;

    Page page{};
    if (!read_page(request, page)) return request.syntax_error();
    if (!find_sort_columns(table, page)) return request.fail();
    Place place;
    if (page.secondColumn != nullptr) {
        switch (find_place(table, page, place)) {
            case Search::FOUND:
                page.start = place.secondValue.get();
                break;
            case Search::NOTHING:
                request.answer("0");
                VL_TRACE("[%s] finished, nothing found.\n", label);
                return true;
            case Search::FAILED:
                return request.fail();
            case Search::UNANSWERED:  // no result at all: the client sees a refusal
                return false;
        }
    }
    return answer_page(request, table, page, place);
}

}  // namespace
}  // namespace gateway

void listRecord(RA_SESSION_S *session, int argc, char **inargv) {
    gateway::list(gateway::Request("listRecord", session, argc, inargv));
}
