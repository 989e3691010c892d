/* Handles of a local driver: what they hold, who owns them, and the error record that goes with each call.
 *
 * The environment owns every handle made from it; freeing it frees them all and closes the connections. A handle
 * begins with a mark that tells its kind, so that a wrong one is refused instead of misread. Parameters, binds and
 * defines belong to their statement. */
#ifndef OCI_HANDLES_H
#define OCI_HANDLES_H

#include <deque>
#include <memory>
#include <string>

#include "oci/dbdriver.h"
#include "oci/stmtcache.h"

/** The common head of all handles. */
struct Handle {
    explicit Handle(ub4 handleType, OCIEnv *owner = nullptr);
    ~Handle();
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    ub4 mark;
    OCIEnv *environment;  // whose list it is in; null for the environment itself and for parts of a statement
    Handle *previous = nullptr;
    Handle *next = nullptr;

    static constexpr ub4 MARK = 0x56480000;
};

struct OCIEnv : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_ENV;
    OCIEnv();
    ~OCIEnv();

    Handle *handles = nullptr;  // all that were made from it
    StatementCache statements;
    ub4 statementLimit;  // milliseconds; 0: none
};

struct OCIError : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_ERROR;
    explicit OCIError(OCIEnv *owner) : Handle(TYPE, owner) {}

    DB_ERROR_S record{};
};

/** The way to one database. The connection is opened by the session that begins on it. */
struct OCIServer : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_SERVER;
    explicit OCIServer(OCIEnv *owner) : Handle(TYPE, owner) {}
    ~OCIServer();

    /** Ends all work of statements on the connection, then closes it. */
    void close();

    bool is_attached = false;
    std::string database;
    void *connection = nullptr;  // the driver's
};

struct OCISession : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_SESSION;
    explicit OCISession(OCIEnv *owner) : Handle(TYPE, owner) {}
    ~OCISession();

    std::string user;
    std::string password;  // wiped when it changes and at the end
};

struct OCISvcCtx : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_SVCCTX;
    explicit OCISvcCtx(OCIEnv *owner) : Handle(TYPE, owner) {}

    OCIServer *server = nullptr;
    OCISession *session = nullptr;
};

/** Where a placeholder's value stands. It is read when the statement is executed. */
struct OCIBind : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_BIND;
    OCIBind() : Handle(TYPE) {}

    bool is_set = false;
    const char *value = nullptr;
    sb4 size = 0;
    ub2 type = 0;
    const sb2 *indicator = nullptr;
    const ub2 *length = nullptr;
};

/** Where a fetched column goes. */
struct OCIDefine : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_DEFINE;
    OCIDefine() : Handle(TYPE) {}

    bool is_set = false;
    char *value = nullptr;
    sb4 size = 0;
    ub2 type = 0;
    sb2 *indicator = nullptr;
    ub2 *length = nullptr;
    ub2 *code = nullptr;
};

struct OCIParam : Handle {
    static constexpr ub4 TYPE = OCI_DTYPE_PARAM;
    OCIParam() : Handle(TYPE) {}

    DB_COLUMN_S column{};
};

enum class Cursor { NONE, OPEN, AT_END };

/** One statement at a time. The deques only grow, so that handles given out stay where they are. */
struct OCIStmt : Handle {
    static constexpr ub4 TYPE = OCI_HTYPE_STMT;
    explicit OCIStmt(OCIEnv *owner) : Handle(TYPE, owner) {}
    ~OCIStmt();

    std::unique_ptr<Prepared> prepared;
    Cursor cursor = Cursor::NONE;
    // Of what was executed last.
    DbClock::time_point deadline = DbClock::time_point::max();
    std::deque<OCIBind> binds;        // by position, the first at 0
    std::deque<OCIDefine> defines;    // the same
    std::size_t definesInUse = 0;     // by this text; what lies behind was left by a wider one
    std::deque<OCIParam> parameters;  // the same
};

/** True for a handle of that kind; false for null and for other kinds. */
template <class Kind>
bool is_handle(const Kind *handle) {
    return handle != nullptr && handle->mark == (Handle::MARK | Kind::TYPE);
}

/** The same for a pointer whose kind is only told beside it: null if it isn't what it is said to be. */
template <class Kind>
Kind *as_handle(const void *handle) {
    auto *head = static_cast<Kind *>(const_cast<void *>(handle));
    return is_handle(head) ? head : nullptr;
}

/** Makes a handle of a type. Null: no such type. The environment owns it. */
Handle *make_handle(OCIEnv *environment, ub4 type);

/** Frees a handle, and what hangs from it. False if it isn't of that type, or belongs to a statement. */
bool free_handle(void *handle, ub4 type);

/** Attributes by handle type. OCI_SUCCESS, OCI_INVALID_HANDLE, or OCI_ERROR with the record filled. */
sword set_attribute(void *target, ub4 type, void *value, ub4 size, ub4 attribute, OCIError &error);
sword get_attribute(const void *target, ub4 type, void *value, ub4 *size, ub4 attribute, OCIError &error);

/** Fills the record of a failed call and gives the call's result. */
sword call_failed(OCIError &error, int number, const char *text);

#endif
