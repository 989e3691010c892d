/* What one kind of local database brings along; everything else about a driver is written once, in calls.cpp,
 * handles.cpp, statement.cpp, stmtcache.cpp and placeholders.cpp.
 *
 * Text in, text out. Errors carry the interface's numbers (OCIERR...), never the engine's. No function throws anything
 * but std::bad_alloc, which calls.cpp turns into an error of the call. */
#ifndef OCI_DBDRIVER_H
#define OCI_DBDRIVER_H

#include <chrono>

#include "oci/oci.h"

/** How a step ended. */
enum { DB_DONE = 0, DB_ROW = 1, DB_NOTHING = 2, DB_FAILED = -1 };

/** Filled by whatever fails. */
struct DB_ERROR_S {
    int number;     /* one of OCIERR..., 0 while there is none */
    char text[512]; /* for the operator's log, without a line feed */
};

/** Fills an error record with a formatted text, cut to its room. Gives DB_FAILED, so that a caller can return it. */
int db_fail(DB_ERROR_S *error, int number, const char *format, ...) __attribute__((format(printf, 3, 4)));

/** Fills it for a statement that was ended at its deadline. Gives DB_FAILED as well. */
int db_fail_late(DB_ERROR_S *error);

/** Where to, and as whom. The texts live as long as the call. */
struct DB_LOGIN_S {
    const char *database;
    const char *user;
    const char *password;
};

/** By a clock that nobody sets. */
using DbClock = std::chrono::steady_clock;

/** One column of a select list, as the describe step reports it. */
struct DB_COLUMN_S {
    char name[129]; /* upper case */
    ub2 type;       /* SQLT_CHR, SQLT_NUM, SQLT_DAT or SQLT_AFC */
    ub2 size;       /* declared bytes; numbers 22, dates 7, texts without a size 4000 */
};

/** The driver's functions. A statement stays prepared and is used again; execute starts it anew.
 *
 *  Transactions: statement.cpp calls begin before whatever changes rows, and rolls back if that failed or touched
 *  nothing, provided begin had just opened the transaction. A failed statement undoes its own work by itself. */
struct DB_DRIVER_S {
    char placeholderMark; /* before a placeholder's number in the text given to prepare: "?1", "$1" */

    void *(*open)(const DB_LOGIN_S *login, DB_ERROR_S *error);  // null: not opened, error filled
    void (*close)(void *connection);  // no statement is left by then; an open transaction is rolled back
    void *(*prepare)(void *connection, const char *sql, int length, DB_ERROR_S *error);
    /* Places count from 1. Null text: no value. The text is copied, and checked against the column it is for. */
    int (*bind)(void *statement, int place, const char *text, int length, DB_ERROR_S *error);
    int (*execute)(void *statement, DB_ERROR_S *error);              // DB_DONE, DB_FAILED; no row touched: DB_NOTHING
    int (*fetch)(void *statement, DB_ERROR_S *error);                // DB_ROW, DB_FAILED; behind the last: DB_NOTHING
    const char *(*value)(void *statement, int column, int *length);  // from 0; null: no value; good until next fetch
    int (*columns)(void *statement);                                 // width of the select list; 0: no query
    int (*describe)(void *statement, int column, DB_COLUMN_S *target);  // from 0; DB_DONE, DB_FAILED: no such column
    void (*reset)(void *statement);                                     // ends a query early: its locks go
    int (*begin)(void *connection, DB_ERROR_S *error);                  // DB_DONE; DB_NOTHING: one is open already
    int (*commit)(void *connection, DB_ERROR_S *error);                 // DB_DONE also without a transaction
    int (*rollback)(void *connection, DB_ERROR_S *error);               // the same
    void (*finish)(void *statement);
    /* What runs on the connection fails rather than go on beyond this time, with db_fail_late, or OCIERRBUSY if it
     * waits for a lock; an end that belongs to the past counts at once. Only rollback goes to its end in any case.
     * DbClock::time_point::max(), as it is at first: no limit. */
    void (*set_deadline)(void *connection, DbClock::time_point deadline);
};

/** The driver of this library; each engine's file defines it. */
extern const DB_DRIVER_S db_driver;

#endif
