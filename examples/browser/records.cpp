/* records: a CGI program that lists and edits the records of an RA server.
 *
 * A request is one action: a table of them stands at the end. Each asks the server for what it needs, sets template
 * variables, and answers with a page; one that changes something answers with a redirection instead. How things look
 * is the templates' affair, what is said stands in texts.cfg, what there is to see in records.cfg. */
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "examples/browser/page.h"
#include "examples/browser/store.h"
#include "examples/browser/tables.h"
#include "genhtml/genhtml.h"

namespace {

constexpr char DEFAULT_SERVER[] = "127.0.0.1:4000";
constexpr char ZERO[] = "00000000";  // a counter's first value
constexpr long MOST_AT_ONCE = 1000000;
const char *const rowChoices[] = {"10", "25", "50"};

/** What an action works with. */
struct Browser {
    const std::vector<Table> &tables;
    const Table &table;
    const Store &store;
    std::string id;
};

// ---- Failures

struct Failure {
    const char *status, *text, *httpStatus;
};
constexpr Failure failures[] = {
    {"1", "refused", "502 Bad Gateway"},
    {"2", "exists", "409 Conflict"},
    {"101", "gone", "404 Not Found"},
    {"1002", "notable", "502 Bad Gateway"},
    {"1012", "toomuch", "413 Content Too Large"},
    {"denied", "denied", "503 Service Unavailable"},
    {"away", "away", "504 Gateway Timeout"},
};

void require(const Answer &answer) {
    if (answer.is_done()) return;
    for (const Failure &failure : failures) {
        if (answer.status == failure.status) fail(failure.text, failure.httpStatus, answer.reason);
    }
    fail("refused", "502 Bad Gateway", answer.status);
}

// ---- Values

std::string field_name(const Column &column) { return "f_" + column.name; }

std::string shown_value(const Column &column, const std::string &value) {
    return column.kind == Kind::COUNTER ? std::to_string(strtoul(value.c_str(), nullptr, 16)) : value;
}

/** What the reader has typed; forms send the ends of lines as two characters. */
std::string entered(const Column &column) {
    std::string value = input(field_name(column));
    value.erase(std::remove(value.begin(), value.end(), '\r'), value.end());
    return value;
}

/** The column whose value is too long for the database; null without one. */
const Column *too_long(const Table &table) {
    for (const Column &column : table.columns) {
        if (entered(column).size() > column.size) return &column;
    }
    return nullptr;
}

// ---- Parts of pages

/** The tables, for the navigation and for the first page. */
void show_tables(const std::vector<Table> &tables) {
    for (size_t i = 0; i < tables.size(); ++i) {
        show("table", tables[i].name, {i});
        show("table_title", tables[i].title, {i});
        if (tables[i].name == input("table")) show_html("here", " aria-current=\"page\"", {i});
        for (size_t k = 0; k < tables[i].columns.size(); ++k) show("column", tables[i].columns[k].label, {i, k});
    }
}

void show_option(const char *list, size_t place, const std::string &value, const std::string &label, bool isChosen) {
    const std::string name = list;
    show(name, value, {place});
    show(name + "_label", label, {place});
    show_html(name + "_chosen", isChosen ? " selected" : "", {place});
}

void show_fields(const Table &table, const Strings &values, bool isNew) {
    size_t field = 0, counter = 0;
    for (size_t i = 0; i < table.columns.size(); ++i) {
        const Column &column = table.columns[i];
        const bool isCounter = column.kind == Kind::COUNTER;
        if (isCounter && isNew) continue;
        const std::string list = isCounter ? "counter" : "field";
        const size_t place = isCounter ? counter++ : field++;
        show(list, column.name, {place});
        show(list + "_label", column.label, {place});
        show(list + "_value", shown_value(column, values[i]), {place});
        show(list + "_kind", column.kind == Kind::LINES ? "lines" : "text", {place});
        show(list + "_size", std::to_string(column.size), {place});
        if (column.name == KEY) show_html(list + "_rule", isNew ? " required" : " readonly", {place});
    }
}

void show_record(const Browser &browser, const Strings &values, const char *task) {
    show_html("state_fields", state_fields());
    show("task", task);
    show_fields(browser.table, values, strcmp(task, "insert") == 0);
}

/** The form again, with what was entered and what is wrong with it. */
[[noreturn]] void ask_again(const Browser &browser, const char *task, const char *failure,
                            const std::string &detail) {
    Strings values;
    for (const Column &column : browser.table.columns) values.push_back(entered(column));
    if (!browser.id.empty()) values[0] = browser.id;
    show_record(browser, values, task);
    show("failure", failure);
    show("detail", detail);
    answer_with("record.html", "422 Unprocessable Content");
}

void check_entered(const Browser &browser, const char *task) {
    const Column *column = too_long(browser.table);
    if (column != nullptr) ask_again(browser, task, "toolong", column->label);
}

// ---- List

PageRequest wanted_page(const Table &table) {
    const Column *sort = table.column(input("sort"));
    std::string filter = input("filter");
    if (filter.find_first_of("*?") == std::string::npos) filter = "*" + filter + "*";
    const bool isBefore = !input("before").empty();
    const bool isOffered =
        std::find(std::begin(rowChoices), std::end(rowChoices), input("rows")) != std::end(rowChoices);
    const std::string rows = isOffered ? input("rows") : rowChoices[0];
    return {table,
            sort != nullptr ? sort->name : KEY,
            filter,
            strtoul(rows.c_str(), nullptr, 10),
            input("order") == "down",
            input(isBefore ? "before" : "after"),
            isBefore};
}

void show_heads(const PageRequest &wanted) {
    const std::string base = state({"sort", "order", "after", "before"});
    for (size_t i = 0; i < wanted.table.columns.size(); ++i) {
        const Column &column = wanted.table.columns[i];
        const bool isSorted = column.name == wanted.sort, turns = isSorted && !wanted.descending;
        show_option("sort", i, column.name, column.label, isSorted);
        show("sort_query", with(with(base, "sort", column.name), "order", turns ? "down" : "up"), {i});
        if (isSorted) show("sorted", wanted.descending ? "descending" : "ascending", {i});
    }
}

void show_choices(const PageRequest &wanted) {
    show("filter", input("filter"));
    show_option("order", 0, "up", "Ascending", !wanted.descending);
    show_option("order", 1, "down", "Descending", wanted.descending);
    for (size_t i = 0; i < std::size(rowChoices); ++i) {
        show_option("size", i, rowChoices[i], rowChoices[i], std::to_string(wanted.rows) == rowChoices[i]);
    }
}

void show_rows(const PageRequest &wanted, const Page &page) {
    for (size_t row = 0; row < page.rows.size(); ++row) {
        show("id", page.rows[row][0], {row});
        show("row_query", with(with(state(), "do", "record"), "id", page.rows[row][0]), {row});
        for (size_t i = 1; i < wanted.table.columns.size(); ++i) {
            const Column &column = wanted.table.columns[i];
            show("cell", shown_value(column, page.rows[row][i]), {row, i - 1});
            show("cell_label", column.label, {row, i - 1});
        }
    }
    if (page.rows.empty()) return show("empty", "1");
    const std::string base = state({"after", "before"});
    if (page.hasEarlier) show("earlier", with(base, "before", page.rows.front()[0]));
    if (page.hasLater) show("later", with(base, "after", page.rows.back()[0]));
}

[[noreturn]] void list(const Browser &browser) {
    const PageRequest wanted = wanted_page(browser.table);
    const Page page = browser.store.list(wanted);
    require(page.answer);
    show_heads(wanted);
    show_choices(wanted);
    show_rows(wanted, page);
    answer_with("list.html");
}

// ---- One record

Strings values_of(const Browser &browser) {
    const Answer answer = browser.store.get(browser.table, browser.id);
    require(answer);
    return answer.values;
}

[[noreturn]] void record(const Browser &browser) {
    show_record(browser, values_of(browser), "update");
    answer_with("record.html");
}

[[noreturn]] void blank(const Browser &browser) {
    show_record(browser, Strings(browser.table.columns.size()), "insert");
    answer_with("record.html");
}

[[noreturn]] void confirm(const Browser &browser) {
    show_record(browser, values_of(browser), "delete");
    answer_with("confirm.html");
}

// ---- Changes

[[noreturn]] void go_to_record(const std::string &id, const char *done) {
    go_on_to(with(with(with(state(), "do", "record"), "id", id), "done", done));
}

[[noreturn]] void insert(const Browser &browser) {
    check_entered(browser, "insert");
    Strings pairs;
    for (const Column &column : browser.table.columns) {
        pairs.push_back(column.name);
        pairs.push_back(column.kind == Kind::COUNTER ? ZERO : entered(column));
    }
    const std::string id = pairs[1];
    if (id.empty()) ask_again(browser, "insert", "nokey", "");
    const Answer answer = browser.store.insert(browser.table, pairs);
    if (answer.status == "2") ask_again(browser, "insert", "exists", id);
    require(answer);
    go_to_record(id, "insert");
}

[[noreturn]] void update(const Browser &browser) {
    check_entered(browser, "update");
    Strings pairs;
    for (const Column &column : browser.table.columns) {
        if (column.name == KEY || column.kind == Kind::COUNTER) continue;
        pairs.push_back(column.name);
        pairs.push_back(entered(column));
    }
    require(browser.store.update(browser.table, browser.id, pairs));
    go_to_record(browser.id, "update");
}

[[noreturn]] void count(const Browser &browser) {
    const Column *column = browser.table.column(input("column"));
    const std::string text = input("by");
    char *end;
    const long by = strtol(text.c_str(), &end, 10);
    const bool isNumber = end != text.c_str() && *end == '\0' && labs(by) <= MOST_AT_ONCE;
    if (column == nullptr || column->kind != Kind::COUNTER || !isNumber)
        fail("nonumber", "422 Unprocessable Content");
    require(browser.store.count(browser.table, browser.id, column->name, by));
    go_to_record(browser.id, "count");
}

[[noreturn]] void remove(const Browser &browser) {
    values_of(browser);  // whether it is still there, the deletion itself doesn't tell
    require(browser.store.remove(browser.table, browser.id));
    go_on_to(with(with(state(), "id", browser.id), "done", "delete"));
}

// ---- Requests

struct Action {
    const char *name;
    bool isChange;  // comes from a form of ours, by POST
    bool needsRecord;
    void (*run)(const Browser &browser);
};
constexpr Action actions[] = {
    {"", false, false, list},          {"record", false, true, record}, {"new", false, false, blank},
    {"confirm", false, true, confirm}, {"insert", true, false, insert}, {"update", true, true, update},
    {"count", true, true, count},      {"delete", true, true, remove},
};

void run(const Browser &browser) {
    const char *method = getenv("REQUEST_METHOD");
    const bool isPost = method != nullptr && strcmp(method, "POST") == 0;
    for (const Action &action : actions) {
        if (input("do") != action.name) continue;
        if (action.isChange && !isPost) fail("notbylink", "405 Method Not Allowed");
        if (action.isChange && !is_own_form()) fail("foreign", "403 Forbidden");
        if (action.needsRecord && browser.id.empty()) fail("norecord", "400 Bad Request");
        action.run(browser);
    }
    fail("noaction", "404 Not Found");
}

/** What every page may show. */
void prepare(const std::vector<Table> &tables) {
    ghReadConfig("texts.cfg");
    ghSaveForReplace("g_TemplateRoot", "templates", 0);
    leave_behind({"do", "id", "done", "column", "by"});
    show("self", self_url());
    show("id", input("id"));
    if (ghReplaceDefined(("done_" + input("done")).c_str())) show("done", input("done"));
    show_tables(tables);
}

const Table &chosen_table(const std::vector<Table> &tables) {
    for (const Table &table : tables) {
        if (table.name == input("table")) return table;
    }
    fail("unknown", "404 Not Found", input("table"));
}

}  // namespace

int main(int argc, char **argv) {
    process_context.running = 1;
    process_context.rootDir = getenv("VELROOT");  // where the server's access key is
    ghReadParse(argc, argv);

    const std::vector<Table> tables = read_tables("records.cfg");
    prepare(tables);
    if (input("table").empty()) answer_with("tables.html");

    const Table &table = chosen_table(tables);
    for (const Column &column : table.columns) leave_behind({field_name(column)});
    show("title", table.title);
    show("table_name", table.name);
    show("query", state());
    show("record_query", with(state(), "id", input("id")));

    const char *server = getenv("RASERVER");
    const Store store(server != nullptr ? server : DEFAULT_SERVER);
    run({tables, table, store, input("id")});
    return 0;
}
