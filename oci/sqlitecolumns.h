/* What the declarations of a table mean for a statement: the engine itself checks neither sizes nor numbers, and sorts
 * what has no value the other way round. Read once, when a statement is prepared. */
#ifndef OCI_SQLITECOLUMNS_H
#define OCI_SQLITECOLUMNS_H

#include <sqlite3.h>

#include <string>
#include <string_view>
#include <vector>

#include "oci/dbdriver.h"

struct DeclaredType {
    ub2 type = SQLT_CHR;
    ub2 size = 4000;
    bool has_size = false;  // the declaration of a text gives a size
};

/** Reads a declared type such as "VARCHAR2(20)"; null and unknown ones are texts without a size. */
DeclaredType sqlite_declared_type(const char *declaration);

struct TableColumn {
    std::string name;
    DeclaredType type;
    bool never_null = false;     // declared so, or part of the primary key
    bool must_be_given = false;  // an insert has to name it: a key that neither has a default nor numbers itself
};

/** What one placeholder's value must be, for the columns that it is assigned to or compared with. */
struct ValueRule {
    bool is_number = false;
    bool is_needed = false;  // assigned to a column that may not be without a value
    int longest = 0;         // assigned to a text column of this size; 0: no limit
    std::string column;      // for the error text
};

/** A statement as it goes to the engine, with what has to be seen to beforehand. */
struct SqliteText {
    std::string sql;
    std::vector<ValueRule> rules;  // by place, the first at 0
    std::string missing;           // key column that an insert leaves out; empty: none
    std::string hidden;            // table of the engine's own that it would reach; empty: none
};

/** Reads a statement that works on a single table. Of what it doesn't understand it changes and checks nothing.
 *
 *  @param tableInfo  statement that lists the columns of table ?1 in schema ?2: name, type, notnull, default, pk
 */
SqliteText sqlite_read_statement(std::string_view sql, sqlite3_stmt *tableInfo);

/** Checks a value (null: none) by a rule. DB_DONE, or DB_FAILED with the error filled. */
int sqlite_check_value(const ValueRule &rule, const char *text, int length, DB_ERROR_S *error);

#endif
