/* The call interface of the database: the part of the published interface that the gateway needs, and the table of
 * calls through which the gateway reaches whatever library provides it.
 *
 * A driver is a shared library that exports these 21 functions. oci_load picks one from the database address and
 * fills an OCI_CALLS_S by name; nobody links a driver. Names, argument orders and numbers are the published ones. */
#ifndef OCI_OCI_H
#define OCI_OCI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t sword;
typedef int32_t sb4;
typedef uint32_t ub4;
typedef int16_t sb2;
typedef uint16_t ub2;
typedef unsigned char OraText;

/* Handles: opaque here, each driver has its own. */
typedef struct OCIEnv OCIEnv;
typedef struct OCIError OCIError;
typedef struct OCISvcCtx OCISvcCtx;
typedef struct OCIStmt OCIStmt;
typedef struct OCIBind OCIBind;
typedef struct OCIDefine OCIDefine;
typedef struct OCIServer OCIServer;
typedef struct OCISession OCISession;
typedef struct OCIParam OCIParam;
typedef struct OCISnapshot OCISnapshot;

/* Results. */
enum {
    OCI_SUCCESS = 0,
    OCI_SUCCESS_WITH_INFO = 1,
    OCI_NEED_DATA = 99,
    OCI_NO_DATA = 100,
    OCI_ERROR = -1,
    OCI_INVALID_HANDLE = -2,
    OCI_STILL_EXECUTING = -3123,
    OCI_CONTINUE = -24200
};

/* Handle types, and the descriptor type of a parameter. */
enum {
    OCI_HTYPE_ENV = 1,
    OCI_HTYPE_ERROR = 2,
    OCI_HTYPE_SVCCTX = 3,
    OCI_HTYPE_STMT = 4,
    OCI_HTYPE_BIND = 5,
    OCI_HTYPE_DEFINE = 6,
    OCI_HTYPE_SERVER = 8,
    OCI_HTYPE_SESSION = 9,
    OCI_DTYPE_PARAM = 53
};

/* Attributes. */
enum {
    OCI_ATTR_DATA_SIZE = 1,
    OCI_ATTR_DATA_TYPE = 2,
    OCI_ATTR_NAME = 4,
    OCI_ATTR_SERVER = 6,
    OCI_ATTR_SESSION = 7,
    OCI_ATTR_PARAM_COUNT = 18,
    OCI_ATTR_USERNAME = 22,
    OCI_ATTR_PASSWORD = 23,

    /* No published one, known to our drivers only. Of the environment, a ub4: how many milliseconds a statement may
     * take, waiting for locks included, from its execution to its last fetch; 0: as long as it wants. Where VELHARDEN
     * is 1 when the environment is made, it begins with 5000, else with 0. */
    OCI_ATTR_STATEMENT_LIMIT = 0x56480001
};

/* Modes. */
enum { OCI_DEFAULT = 0, OCI_DESCRIBE_ONLY = 0x10, OCI_FETCH_NEXT = 2, OCI_NTV_SYNTAX = 1, OCI_CRED_RDBMS = 1 };

/* Data types. */
enum { SQLT_CHR = 1, SQLT_NUM = 2, SQLT_STR = 5, SQLT_DAT = 12, SQLT_AFC = 96 };

/* Items of OCINlsGetInfo. */
enum { OCI_NLS_LANGUAGE = 52, OCI_NLS_ABLANGUAGE = 53, OCI_NLS_CHARACTER_SET = 55, OCI_NLS_LINGUISTIC_NAME = 56 };

/* Error numbers that local drivers give, whatever their engine calls them. */
enum {
    OCIERRDUPLICATE = 1,      /* duplicate key */
    OCIERRBUSY = 54,          /* locked by somebody else */
    OCIERROTHER = 600,        /* anything without a number of its own; the text is the engine's */
    OCIERRNOCOLUMN = 904,     /* no such column */
    OCIERRNOTABLE = 942,      /* no such table */
    OCIERRLOGIN = 1017,       /* wrong user or password */
    OCIERRNULL = 1400,        /* no value where one must be */
    OCIERRNULLFETCHED = 1405, /* a fetched column was null */
    OCIERRTRUNCATED = 1406,   /* a fetched value was cut */
    OCIERRNUMBER = 1722,      /* not a number */
    OCIERRLOST = 3113,        /* connection lost */
    OCIERRNOLISTENER = 12541, /* nobody listens at the address */
    OCIERRTOOLARGE = 12899    /* value too large for its column */
};

sword OCIInitialize(ub4 mode, void *context, void *(*allocate)(void *, size_t),
                    void *(*reallocate)(void *, void *, size_t), void (*release)(void *, void *));
sword OCIEnvInit(OCIEnv **environment, ub4 mode, size_t extraSize, void **extra);
sword OCIHandleAlloc(const void *parent, void **handle, ub4 type, size_t extraSize, void **extra);
sword OCIHandleFree(void *handle, ub4 type);
sword OCIServerAttach(OCIServer *server, OCIError *error, const OraText *database, sb4 length, ub4 mode);
sword OCIServerDetach(OCIServer *server, OCIError *error, ub4 mode);
sword OCIAttrSet(void *target, ub4 targetType, void *value, ub4 size, ub4 attribute, OCIError *error);
sword OCIAttrGet(const void *target, ub4 targetType, void *value, ub4 *size, ub4 attribute, OCIError *error);
sword OCISessionBegin(OCISvcCtx *service, OCIError *error, OCISession *session, ub4 credentials, ub4 mode);
sword OCISessionEnd(OCISvcCtx *service, OCIError *error, OCISession *session, ub4 mode);
sword OCINlsGetInfo(void *handle, OCIError *error, OraText *buffer, size_t size, ub2 item);
sword OCIStmtPrepare(OCIStmt *statement, OCIError *error, const OraText *text, ub4 length, ub4 language, ub4 mode);
sword OCIStmtExecute(OCISvcCtx *service, OCIStmt *statement, OCIError *error, ub4 iterations, ub4 rowOffset,
                     const OCISnapshot *snapshotIn, OCISnapshot *snapshotOut, ub4 mode);
sword OCIStmtFetch(OCIStmt *statement, OCIError *error, ub4 rows, ub2 orientation, ub4 mode);
sword OCIBindByPos(OCIStmt *statement, OCIBind **bind, OCIError *error, ub4 position, void *value, sb4 size, ub2 type,
                   void *indicator, ub2 *lengths, ub2 *codes, ub4 maxArray, ub4 *currentArray, ub4 mode);
sword OCIBindByName(OCIStmt *statement, OCIBind **bind, OCIError *error, const OraText *placeholder, sb4 length,
                    void *value, sb4 size, ub2 type, void *indicator, ub2 *lengths, ub2 *codes, ub4 maxArray,
                    ub4 *currentArray, ub4 mode);
sword OCIDefineByPos(OCIStmt *statement, OCIDefine **define, OCIError *error, ub4 position, void *value, sb4 size,
                     ub2 type, void *indicator, ub2 *length, ub2 *code, ub4 mode);
sword OCIParamGet(const void *handle, ub4 type, OCIError *error, void **parameter, ub4 position);
sword OCITransCommit(OCISvcCtx *service, OCIError *error, ub4 flags);
sword OCIErrorGet(void *handle, ub4 record, OraText *sqlState, sb4 *code, OraText *buffer, ub4 size, ub4 type);
sword OCITerminate(ub4 mode);

/** All calls of the interface, in one list: X(name). */
/* clang-format off */
#define OCI_EACH_CALL(X)                                                                                              \
    X(OCIInitialize) X(OCIEnvInit) X(OCIHandleAlloc) X(OCIHandleFree) X(OCIServerAttach) X(OCIServerDetach)           \
    X(OCIAttrSet) X(OCIAttrGet) X(OCISessionBegin) X(OCISessionEnd) X(OCINlsGetInfo) X(OCIStmtPrepare)                \
    X(OCIStmtExecute) X(OCIStmtFetch) X(OCIBindByPos) X(OCIBindByName) X(OCIDefineByPos) X(OCIParamGet)               \
    X(OCITransCommit) X(OCIErrorGet) X(OCITerminate)
/* clang-format on */

/** The loaded interface: one pointer for each call, under its name. */
typedef struct OCI_CALLS_S {
#ifdef __cplusplus
#define OCI_CALL_POINTER(name) decltype(&::name) name; /* NOLINT(bugprone-macro-parentheses): declares a field */
#else
#define OCI_CALL_POINTER(name) __typeof__(&name) name; /* NOLINT(bugprone-macro-parentheses) */
#endif
    OCI_EACH_CALL(OCI_CALL_POINTER)
#undef OCI_CALL_POINTER
} OCI_CALLS_S;

/** Loads the driver that a database address asks for, and fills the table.
 *
 *  "sqlite:..." takes our embedded driver, "postgresql://..." and "postgres://..." our PostgreSQL driver, both from
 *  ../lib beside the program; anything else is a connect identifier for the vendor's client library, taken from
 *  <ORACLE_HOME>/lib/libclntsh.so, else by its plain name on the loader's own path. A library is never taken from
 *  the working directory. A library that was loaded stays loaded; asking for it again costs nothing.
 *
 *  If the process is hardened, VELHARDEN=1 is put into the environment: a driver has no other way to learn of it.
 *
 *  @param database  the address; null counts as an empty connect identifier
 *  @param calls     receives the table; untouched on failure
 *  @return 0, or -1: the library or one of its calls is missing, reported with process_log
 */
int oci_load(const char *database, OCI_CALLS_S *calls);

#ifdef __cplusplus
}
#endif

#endif
