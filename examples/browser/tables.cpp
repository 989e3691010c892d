/* Reads the tables out of a key file: "tables", then for each of them its title, its columns, and each column's kind,
 * size and label. */
#include "examples/browser/tables.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "genhtml/genhtml.h"
#include "process/owned.h"

namespace {

constexpr int MOST_ITEMS = 1024;  // of ghSplit

[[noreturn]] void refuse(const std::string &key, const char *what) {
    ghError("records.cfg: %s %s\n", key.c_str(), what);
    exit(0);
}

std::string setting(PAA_S *settings, const std::string &key) {
    char *value;
    if (!ghHashFetch(settings, key.c_str(), &value)) refuse(key, "is missing");
    return value;
}

std::vector<std::string> words(const std::string &text) {
    char *items[MOST_ITEMS];
    const int count = ghSplit(text.c_str(), " \t", items);
    std::vector<std::string> found;
    for (int i = 0; i < count; ++i) {
        const OwnedBlock<char> item(items[i]);
        if (*item.get() != '\0') found.emplace_back(item.get());
    }
    return found;
}

Column read_column(PAA_S *settings, const std::string &key, const std::string &name) {
    const std::string text = setting(settings, key);
    char kind[16];
    unsigned size;
    int label = 0;
    if (sscanf(text.c_str(), "%15s %u %n", kind, &size, &label) != 2 || label == 0) {
        refuse(key, "isn't \"KIND SIZE LABEL\"");
    }
    const std::vector<std::string> kinds{"text", "lines", "counter"};  // in the order of Kind
    const auto place = std::find(kinds.begin(), kinds.end(), kind);
    if (place == kinds.end()) refuse(key, "has none of the kinds text, lines, counter");
    return {name, text.substr(static_cast<size_t>(label)), static_cast<Kind>(place - kinds.begin()), size};
}

Table read_table(PAA_S *settings, const std::string &name) {
    Table table{name, setting(settings, name), {}};
    const std::string prefix = name + ".";
    for (const std::string &column : words(setting(settings, prefix + "columns"))) {
        table.columns.push_back(read_column(settings, prefix + column, column));
    }
    if (table.columns.empty() || table.columns[0].name != KEY) refuse(name + ".columns", "doesn't begin with ID");
    return table;
}

}  // namespace

const Column *Table::column(const std::string &wanted) const {
    const auto is_it = [&wanted](const Column &column) { return column.name == wanted; };
    const auto place = std::find_if(columns.begin(), columns.end(), is_it);
    return place != columns.end() ? &*place : nullptr;
}

std::vector<Table> read_tables(const char *file) {
    PAA_S *settings = ghReadArray(nullptr, file);
    std::vector<Table> tables;
    for (const std::string &name : words(setting(settings, "tables"))) tables.push_back(read_table(settings, name));
    paaDestroy(settings);
    return tables;
}
