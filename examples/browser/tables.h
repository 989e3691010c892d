/* Which tables the browser shows, and how: read from records.cfg, since the server's requests can't ask for them. */
#ifndef EXAMPLES_BROWSER_TABLES_H
#define EXAMPLES_BROWSER_TABLES_H

#include <string>
#include <vector>

/** The attribute that tells a table's records apart: every table that is shown has it. Lists are sorted by it behind
 *  the attribute asked for. */
constexpr char KEY[] = "ID";

enum class Kind { TEXT, LINES, COUNTER };  // one line, several, or eight hexadecimal digits that are only counted up

struct Column {
    std::string name, label;
    Kind kind;
    size_t size;  // bytes that the database keeps; more would be cut without a word
};

struct Table {
    std::string name, title;
    std::vector<Column> columns;  // KEY is the first

    const Column *column(const std::string &wanted) const;
};

/** Reads the configuration. What is wrong with it ends the program with an error page. */
std::vector<Table> read_tables(const char *file);

#endif
