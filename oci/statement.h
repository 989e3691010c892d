/* The work of a statement handle: text, binds, defines, describe, execute, fetch. The rules that hold for every local
 * database stand in statement.cpp. Results are those of the calls. */
#ifndef OCI_STATEMENT_H
#define OCI_STATEMENT_H

#include <string_view>

#include "oci/handles.h"

/** Takes a text. What the handle worked on before ends, its cursor, binds and defines with it. */
sword statement_prepare(OCIStmt &statement, OCIError &error, std::string_view sql);

/** Ends an open cursor, so that no read lock stays. */
void statement_end_cursor(OCIStmt &statement);

/** Gives the place for the value of a placeholder, by position from 1 or by name; null with the record filled. */
OCIBind *statement_bind_place(OCIStmt &statement, OCIError &error, ub4 position);
OCIBind *statement_bind_place(OCIStmt &statement, OCIError &error, std::string_view name);

/** Gives the define of a column, counted from 1; null with the record filled. */
OCIDefine *statement_define_place(OCIStmt &statement, OCIError &error, ub4 position);

/** Runs the statement. A query with an iteration also fetches its first row. */
sword statement_execute(OCIStmt &statement, void *connection, OCIError &error, ub4 iterations);

/** Asks the engine for the select list, without running anything. */
sword statement_describe(OCIStmt &statement, void *connection, OCIError &error);

/** Fetches the next row into the defines. */
sword statement_fetch(OCIStmt &statement, OCIError &error);

/** Gives the width of the select list; -1 before execute or describe. */
int statement_columns(const OCIStmt &statement);

/** Gives the description of a column, counted from 1, good until the next prepare; null with the record filled. */
OCIParam *statement_parameter(OCIStmt &statement, OCIError &error, ub4 position);

#endif
