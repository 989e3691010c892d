/* The database gateway: requests of text strings become operations on the records of any table.
 *
 * The gateway has no schema of its own. It learns a table's columns from the database when a request first names the
 * table, builds each statement piece by piece, and lets values travel as text only: bound, never pasted. It speaks to
 * the database through the call interface of oci/oci.h and nothing else. There is one session, one statement handle
 * and one request at a time, which is why the buffers of columns and the list of columns can be shared.
 *
 * The hooks that the server core calls (raEvent...) are declared in raserver/raextern.h and defined here. */
#ifndef GATEWAY_VLOCI_H
#define GATEWAY_VLOCI_H

#include "foundation/paa.h"
#include "oci/oci.h"
#include "raserver/raextern.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Bounds on what requests can make the gateway remember. */
enum {
    VL_MAX_UNKNOWN_TABLES = 4096,        /* tables without columns; the oldest goes */
    VL_MAX_UNDEFINED_ATTRIBUTES = 10000, /* a table; further names are logged, not kept */
    VL_MAX_UNDEFINED_NAME = 1024,        /* bytes kept of such a name; no column's name is that long */
    VL_MAX_TABLE_NAME = 128              /* bytes of a physical table name */
};

/** One column of a table, with the buffer through which its values are bound and fetched. */
typedef struct VL_COLUMN_S {
    char *attribute;   /* logical name by which the column was first found; null until then */
    char *column;      /* the database's name; null: the database did not describe this position */
    ub2 size;          /* buffer length: as described, or 32 for a DATE */
    ub2 type;          /* SQLT_... as described */
    OCIDefine *define; /* of the latest statement */
    sb2 indicator;     /* of the latest fetch: -1 is null */
    ub2 rlen;          /* length of the latest fetch; in a write the value's length */
    char *value;       /* size + 1 bytes */
} VL_COLUMN_S;

/** One table that requests have named. */
typedef struct VL_TABLE_S {
    char *name;     /* logical name as first requested */
    char *physical; /* vlociName of it */
    int columnCount;
    VL_COLUMN_S *columns; /* in the order of the select list; null until discovered */
    char **undefined;     /* attribute names asked for that the table lacks */
    int undefinedSize;    /* capacity of that array */
    int undefinedCount;
    struct VL_TABLE_S *previous, *next; /* all tables, in order of first use */
    /* Of our own, behind the published fields: */
    PAA_S *undefinedIndex;                            /* the undefined names, folded, to be found quickly */
    struct VL_TABLE_S *unknownPrevious, *unknownNext; /* tables without columns, oldest first */
} VL_TABLE_S;

/** A growable list of columns. A null entry is an attribute that the table lacks: it keeps its place, so that results
 *  stay in step with the request. */
typedef struct VL_ALIST_S {
    VL_COLUMN_S **entries;
    int capacity;
    int count;
} VL_ALIST_S;

/** The columns of the running request. Slot 0 is the key column, or the search column of a list. */
extern VL_ALIST_S columnList;

/** Logical names of tables and attributes, with their physical ones; null without a readable file. */
extern PAA_S *tableMap;

extern int verboseFlag;       /* -v: arguments and results of requests go to the log */
extern int sqlVerboseFlag;    /* -sqlv: statements go to the log instead of the trace */
extern int oracleReady;       /* 1 once the database session is open */
extern int oracleOpenPending; /* not 0 while it is still to be opened */

/* ---- Session ---------------------------------------------------------------------------------------------------- */

/** Opens the database session: reads the name map, sets the environment, loads the driver that `database` asks for,
 *  logs in. A failure leaves nothing open and may be followed by another try.
 *
 *  @param configFile  name map; a file that can't be read leaves all names empty but stops nothing
 *  @param oracleHome  value of ORACLE_HOME, or null or empty: the environment stays as it is
 *  @param database    address as for oci_load; null counts as empty
 *  @param nlsLang     value of NLS_LANG, or null
 *  @return 0; -1: the database refused, in the log; -2: configuration file, user or password is missing, in the log
 */
int vlociInit(const char *configFile, const char *oracleHome, const char *database, const char *user,
              const char *password, const char *nlsLang);

/** Closes the session and frees everything. */
void vlociShutdown(void);

/** Writes one line about the result of a call: failures to the log, anything else but success to the trace.
 *  `errhp` may be null: a failure then has no number and no text. */
void vlociReport(OCIError *errhp, sword status, const char *text);

/** The same. Gives back the database's error number for OCI_ERROR, otherwise the status itself: 0 success, 1 success
 *  with information or a duplicate key, 100 no data, 942 no such table, 1405 and 1406 a null and a cut value. */
int vlociReportCode(OCIError *errhp, sword status, const char *text);

/** The physical name of a table or attribute: the name map's first entry, or the name itself if it has none. Empty for
 *  null, for an empty name, and without a name map. May lie in config_value's buffer: good until the next call. */
const char *vlociName(const char *name);

/** Frees tables, lists and handles, and logs the attribute names that were asked for in vain. */
void cleanup(void);

/* ---- Tables and columns ------------------------------------------------------------------------------------------- */

/** The table with its columns, discovered at the first use. Null if that failed: the session then has its result,
 *  "1002" if there is no such table, else "1". Names compare without regard to case. */
VL_TABLE_S *initVLtable(const char *name, RA_SESSION_S *session);

/** Finds or adds the table's record, without its columns. Null for an empty name or without memory. May drop the
 *  oldest record without columns. */
VL_TABLE_S *createVLtable(const char *name);

/** Finds the table's record. */
VL_TABLE_S *findVLtable(const char *name);

/** The column that an attribute name stands for, or null: the name is then remembered for the report at the end. */
VL_COLUMN_S *getVLcolumnByName(VL_TABLE_S *table, const char *attribute);

/** Appends to columnList; the column may be null. Without memory (in the log) nothing is stored. */
void addColumn(VL_COLUMN_S *column);

/** Stores in columnList at `index`. Without memory (in the log) nothing is stored. */
void setColumn(VL_COLUMN_S *column, int index);

/** Builds the text of a statement. Null empties the text and gives null; anything else is appended and gives the whole
 *  text, good until the next call, or null once memory ran short: from then on for ever, so testing the last call of a
 *  statement is enough. */
char *sqlStmtCat(const char *text);

/* ---- Requests -------------------------------------------------------------------------------------------------------
 * All take the request's strings: "DB", function code, table, and further ones by function. argc counts them, a null
 * stands behind. The result strings go to the session, the first a status:
 *   "0" done, "1" failure, "2" record exists, "101" no such record, "1002" no such table, "1012" reply too long. */

/** Checks table and key name, calls the operation for the function code (A D G I L U), and ends whatever it left open
 *  in the database. */
void vlociRequest(RA_SESSION_S *session, int argc, char **inargv);

/** Key attribute, key value, attributes to read. Returns 0, or -1: the result says why. */
int getRecord(RA_SESSION_S *session, int argc, char **inargv);

/** Key attribute, key value. */
void deleteRecord(RA_SESSION_S *session, int argc, char **inargv);

/** Pairs of attribute and value. */
void insertRecord(RA_SESSION_S *session, int argc, char **inargv);

/** Key attribute, key value, pairs of attribute and value. */
void updateRecord(RA_SESSION_S *session, int argc, char **inargv);

/** Key attribute, key value, pairs of attribute and decimal increment: counters stored as eight hexadecimal digits. */
void addToRecord(RA_SESSION_S *session, int argc, char **inargv);

/** A page of a sorted, filtered list. Short form: search attribute, start value, row count, direction, filter,
 *  attributes; long form: search attribute, anything, second attribute, its start value, row count, and so on. */
void listRecord(RA_SESSION_S *session, int argc, char **inargv);

/** raSetResult, with a log line under -v; null counts as an empty text. Negative if the string did not fit. */
int orSetResult(RA_SESSION_S *session, const char *text);

/** Logs count and mean time of requests by type since the last call, and starts anew. */
void orRequestStats(void);

#ifdef __cplusplus
}
#endif

#endif
