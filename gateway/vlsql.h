/* What the files of the gateway share among themselves: the database session, a request's strings, and the way of one
 * statement from its pieces to its end. */
#ifndef GATEWAY_VLSQL_H
#define GATEWAY_VLSQL_H

#include <string.h>

#include <string_view>

#include "gateway/vloci.h"
#include "process/printable.h"
#include "process/velproc.h"

/** A trace line whose arguments are worked out only if the line is written. */
#define VL_TRACE(...)                                          \
    do {                                                       \
        if (process_context.trace) process_trace(__VA_ARGS__); \
    } while (0)

namespace gateway {

/* ---- Session ------------------------------------------------------------------------------------------------------ */

/** The one session's handles; all null while it is closed. */
struct Handles {
    OCIEnv *envhp;
    OCIError *errhp;
    OCIServer *srvhp;
    OCISvcCtx *svchp;
    OCISession *authp;
    OCIStmt *stmthp;  // the only one: each statement is prepared over the last
};
extern Handles handles;
extern OCI_CALLS_S oci;

/** Reads the name map, in place of the last one. */
void read_name_map(const char *path);

/** Drops a table's columns: its next request discovers them anew. */
void forget_columns(VL_TABLE_S *table);

/** Tells whether a name from outside may stand in a statement as the name of a table. */
bool is_table_name(std::string_view name);

/* ---- A request's strings --------------------------------------------------------------------------------------------- */

enum Place { FUNCTION_CODE = 1, TABLE = 2, KEY = 3, KEY_VALUE = 4, AFTER_KEY = 5 };

inline const char *or_null_text(const char *text) { return text != nullptr ? text : "NULL"; }

class Request {
public:
    Request(const char *label, RA_SESSION_S *session, int argc, char **inargv)
        : label_(label), session_(session), argc_(argc), inargv_(inargv) {}

    const char *label() const { return label_; }
    RA_SESSION_S *session() const { return session_; }
    int count() const { return argc_; }

    /** The string at `index`, or null outside of the request. */
    char *operator[](int index) const { return index >= 0 && index < argc_ ? inargv_[index] : nullptr; }
    bool has(int index) const { return (*this)[index] != nullptr; }
    bool has_text(int index) const { return has(index) && inargv_[index][0] != '\0'; }
    bool names_record() const { return has(TABLE) && has(KEY) && has(KEY_VALUE); }
    /** Tells whether attributes and values from `first` on come in pairs. */
    bool is_paired_from(int first) const { return argc_ <= first || (argc_ - first) % 2 == 0; }

    /** Writes what came in: the call to the trace, with -v the strings as well. */
    void trace_call() const;
    void trace_finish() const { VL_TRACE("[%s] finished.\n", label_); }

    int answer(const char *text) const { return orSetResult(session_, text); }
    /** Answers with a failure. Returns false, so that a step can end with it. */
    bool fail(const char *status = "1") const {
        answer(status);
        return false;
    }
    bool syntax_error() const {
        process_error("[%s] Syntax Error in inargv.\n", label_);
        return fail();
    }
    /** The results don't fit: none of them is sent. */
    bool overflow(const char *what, int column) const;

private:
    const char *label_;
    RA_SESSION_S *session_;
    int argc_;
    char **inargv_;
};

/* ---- One statement ----------------------------------------------------------------------------------------------------- */

/** The pieces of SQL; names of tables and columns come between them, values never do. */
namespace sql {
inline constexpr char ALTER_SESSION[] = "ALTER SESSION";
inline constexpr char SELECT_ALL_FROM[] = "SELECT * FROM ";
inline constexpr char DELETE_FROM[] = "DELETE FROM ";
inline constexpr char INSERT_INTO[] = "INSERT INTO ";
inline constexpr char SELECT[] = "SELECT ";
inline constexpr char UPDATE[] = "UPDATE ";
inline constexpr char SET[] = " SET ";
inline constexpr char FROM[] = " FROM ";
inline constexpr char VALUES[] = " VALUES ";
inline constexpr char WHERE[] = " WHERE ";
inline constexpr char ORDER_BY[] = " ORDER BY ";
inline constexpr char LIKE[] = " LIKE ";
inline constexpr char ESCAPE[] = " ESCAPE ";
inline constexpr char AND[] = " AND ";
inline constexpr char OR[] = " OR ";
inline constexpr char DESC[] = " DESC";
}  // namespace sql

/** How a step ended: the raw status, and what vlociReportCode made of it. */
struct Outcome {
    sword status;
    int code;

    bool is_done() const { return status == OCI_SUCCESS || status == OCI_SUCCESS_WITH_INFO; }
    /** A row is there, perhaps with a null or a cut value. */
    bool has_row() const {
        return code == OCI_SUCCESS || code == OCI_SUCCESS_WITH_INFO || code == OCIERRNULLFETCHED ||
               code == OCIERRTRUNCATED;
    }
};

/** Starts columnList anew, with slot 0 kept for the key or search column. */
void start_columns();
inline int column_count() { return columnList.count; }
inline VL_COLUMN_S *column_at(int slot) { return columnList.entries[slot]; }

/** Makes the buffer ready for a fetch: an untouched buffer is an empty value. */
void clear_value(VL_COLUMN_S *column);
/** The fetched text, ended within the buffer whatever length the driver gave. */
char *fetched_value(VL_COLUMN_S *column);
/** Copies a value into the buffer, cut at its size. Returns the length copied. */
int store_value(VL_COLUMN_S *column, const char *value);

/** Logs a text by the rule for statements, and prepares it. */
bool prepare_text(const char *label, const char *text);
Outcome execute_prepared(ub4 iterations, ub4 mode);

/** A statement on its way. Its steps are called in order; each reports its own failure to the log and tells it by its
 *  result. What a statement leaves open in the database, end_request ends. */
class Statement {
public:
    /** Starts a new text over the last one. */
    Statement(const char *label, VL_TABLE_S *table);
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    Statement &operator<<(const char *piece) {
        text_ = sqlStmtCat(piece);
        return *this;
    }
    Statement &operator<<(int number);

    bool is_complete() const { return text_ != nullptr; }
    bool prepare();
    /** Binds a zero-terminated text. */
    bool bind(int position, char *text) { return bind(position, text, static_cast<int>(strlen(text)) + 1); }
    bool bind(int position, char *text, int size);
    bool bind_by_name(const char *placeholder, char *text);
    bool define(int position, VL_COLUMN_S *column);
    /** Defines the columns of the list from slot 1 on, numbering those that are there. */
    bool define_list();

    /** Executes a query: with 0 iterations rows come by fetch only, with 1 the first is there at once. */
    Outcome read(ub4 iterations);
    Outcome fetch();
    /** Executes a change; it lasts only once it is committed. */
    Outcome write();
    bool commit();
    /** Reads the width of the select list, for the trace. */
    bool trace_width();

private:
    const char *label_;
    char *text_ = nullptr;
};

/** Ends what the request left behind in the database: an open query, a change without commit; and drops the columns of
 *  a table that turned out to have changed. */
void end_request();

/** Forgets the request's state, with the session it belonged to. */
void reset_request();

}  // namespace gateway

#endif
