/* Handles, attributes and error records of a local driver; see handles.h. */
#include "oci/handles.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "oci/statement.h"
#include "process/owned.h"

// ---- Life -----------------------------------------------------------------------------------------------------

Handle::Handle(ub4 handleType, OCIEnv *owner) : mark(MARK | handleType), environment(owner) {
    if (owner == nullptr) return;
    next = owner->handles;
    if (next != nullptr) next->previous = this;
    owner->handles = this;
}

Handle::~Handle() {
    mark = 0;
    if (environment == nullptr) return;
    (previous != nullptr ? previous->next : environment->handles) = next;
    if (next != nullptr) next->previous = previous;
}

namespace {

template <class Kind>
void each_handle(OCIEnv &environment, void (*visit)(Kind &handle, const void *subject), const void *subject) {
    for (Handle *handle = environment.handles; handle != nullptr; handle = handle->next) {
        if (handle->mark == (Handle::MARK | Kind::TYPE)) visit(*static_cast<Kind *>(handle), subject);
    }
}

void forget_server(OCISvcCtx &service, const void *server) {
    if (service.server == server) service.server = nullptr;
}

void forget_session(OCISvcCtx &service, const void *session) {
    if (service.session == session) service.session = nullptr;
}

void leave_connection(OCIStmt &statement, const void *connection) {
    if (statement.prepared == nullptr || statement.prepared->connection != connection) return;
    statement_end_cursor(statement);
    statement.prepared->release_engine();
}

void set_secret(std::string &target, std::string_view value) {
    wipe(target.data(), target.size());
    target.reserve(value.size());  // no copy of it stays behind in a smaller block
    target.assign(value);
}

}  // namespace

OCIEnv::OCIEnv() : Handle(TYPE) {
    constexpr ub4 HARDENED_LIMIT = 5000;
    const char *const hardened = getenv("VELHARDEN");
    statementLimit = hardened != nullptr && strcmp(hardened, "1") == 0 ? HARDENED_LIMIT : 0;
}

OCIEnv::~OCIEnv() {
    each_handle<OCIServer>(
        *this, [](OCIServer &server, const void *) { server.close(); }, nullptr);
    while (handles != nullptr) free_handle(handles, handles->mark & ~MARK);
}

OCIServer::~OCIServer() {
    close();
    each_handle<OCISvcCtx>(*environment, forget_server, this);
}

void OCIServer::close() {
    if (connection == nullptr) return;
    each_handle<OCIStmt>(*environment, leave_connection, connection);
    environment->statements.clear();  // a statement must not outlive its connection
    db_driver.close(connection);
    connection = nullptr;
}

OCISession::~OCISession() {
    wipe(password.data(), password.size());
    each_handle<OCISvcCtx>(*environment, forget_session, this);
}

OCIStmt::~OCIStmt() {
    statement_end_cursor(*this);
    environment->statements.give_back(std::move(prepared));
}

// ---- Kinds ----------------------------------------------------------------------------------------------------

namespace {

struct HandleKind {
    ub4 type;
    Handle *(*make)(OCIEnv *environment);
    void (*free)(Handle *handle);
};

template <class Kind>
Handle *make_one(OCIEnv *environment) {
    return new Kind(environment);
}

template <class Kind>
void free_one(Handle *handle) {
    delete static_cast<Kind *>(handle);
}

template <class Kind>
constexpr HandleKind kind() {
    return {Kind::TYPE, make_one<Kind>, free_one<Kind>};
}

constexpr HandleKind kinds[] = {
    kind<OCIError>(),  kind<OCIServer>(), kind<OCISession>(),
    kind<OCISvcCtx>(), kind<OCIStmt>(),   {OCI_HTYPE_ENV, nullptr, free_one<OCIEnv>},
};

}  // namespace

Handle *make_handle(OCIEnv *environment, ub4 type) {
    for (const HandleKind &entry : kinds) {
        if (entry.type == type && entry.make != nullptr) return entry.make(environment);
    }
    return nullptr;
}

bool free_handle(void *handle, ub4 type) {
    auto *const head = static_cast<Handle *>(handle);
    for (const HandleKind &entry : kinds) {
        if (entry.type != type) continue;
        if (head == nullptr || head->mark != (Handle::MARK | type)) return false;
        entry.free(head);
        return true;
    }
    return false;
}

// ---- Attributes -----------------------------------------------------------------------------------------------

namespace {

std::string_view given_text(const void *value, ub4 size) {
    return value == nullptr ? std::string_view() : std::string_view(static_cast<const char *>(value), size);
}

sword set_server(void *target, void *value, ub4, OCIError &) {
    auto *const server = as_handle<OCIServer>(value);
    if (server == nullptr) return OCI_INVALID_HANDLE;
    static_cast<OCISvcCtx *>(target)->server = server;
    return OCI_SUCCESS;
}

sword set_session(void *target, void *value, ub4, OCIError &) {
    auto *const session = as_handle<OCISession>(value);
    if (session == nullptr) return OCI_INVALID_HANDLE;
    static_cast<OCISvcCtx *>(target)->session = session;
    return OCI_SUCCESS;
}

sword set_user(void *target, void *value, ub4 size, OCIError &) {
    static_cast<OCISession *>(target)->user = given_text(value, size);
    return OCI_SUCCESS;
}

sword set_password(void *target, void *value, ub4 size, OCIError &) {
    set_secret(static_cast<OCISession *>(target)->password, given_text(value, size));
    return OCI_SUCCESS;
}

sword set_statement_limit(void *target, void *value, ub4, OCIError &error) {
    if (value == nullptr) return call_failed(error, OCIERROTHER, "the attribute's value is missing");
    memcpy(&static_cast<OCIEnv *>(target)->statementLimit, value, sizeof(ub4));
    return OCI_SUCCESS;
}

template <class Number>
void put_number(void *value, ub4 *size, Number number) {
    memcpy(value, &number, sizeof number);
    if (size != nullptr) *size = sizeof number;
}

sword get_column_count(const void *target, void *value, ub4 *size, OCIError &error) {
    const auto *const statement = static_cast<const OCIStmt *>(target);
    const int columns = statement_columns(*statement);
    if (columns < 0) return call_failed(error, OCIERROTHER, "the statement was neither executed nor described");
    put_number(value, size, static_cast<ub4>(columns));
    return OCI_SUCCESS;
}

sword get_column_type(const void *target, void *value, ub4 *size, OCIError &) {
    put_number(value, size, static_cast<const OCIParam *>(target)->column.type);
    return OCI_SUCCESS;
}

sword get_column_size(const void *target, void *value, ub4 *size, OCIError &) {
    put_number(value, size, static_cast<const OCIParam *>(target)->column.size);
    return OCI_SUCCESS;
}

sword get_column_name(const void *target, void *value, ub4 *size, OCIError &) {
    const char *const name = static_cast<const OCIParam *>(target)->column.name;
    memcpy(value, &name, sizeof name);
    if (size != nullptr) *size = static_cast<ub4>(strlen(name));
    return OCI_SUCCESS;
}

sword get_statement_limit(const void *target, void *value, ub4 *size, OCIError &) {
    put_number(value, size, static_cast<const OCIEnv *>(target)->statementLimit);
    return OCI_SUCCESS;
}

struct Attribute {
    ub4 type;
    ub4 attribute;
    sword (*set)(void *target, void *value, ub4 size, OCIError &error);
    sword (*get)(const void *target, void *value, ub4 *size, OCIError &error);
};
constexpr Attribute attributes[] = {
    {OCI_HTYPE_ENV, OCI_ATTR_STATEMENT_LIMIT, set_statement_limit, get_statement_limit},
    {OCI_HTYPE_SVCCTX, OCI_ATTR_SERVER, set_server, nullptr},
    {OCI_HTYPE_SVCCTX, OCI_ATTR_SESSION, set_session, nullptr},
    {OCI_HTYPE_SESSION, OCI_ATTR_USERNAME, set_user, nullptr},
    {OCI_HTYPE_SESSION, OCI_ATTR_PASSWORD, set_password, nullptr},
    {OCI_HTYPE_STMT, OCI_ATTR_PARAM_COUNT, nullptr, get_column_count},
    {OCI_DTYPE_PARAM, OCI_ATTR_DATA_TYPE, nullptr, get_column_type},
    {OCI_DTYPE_PARAM, OCI_ATTR_DATA_SIZE, nullptr, get_column_size},
    {OCI_DTYPE_PARAM, OCI_ATTR_NAME, nullptr, get_column_name},
};

const Attribute *find_attribute(ub4 type, ub4 attribute) {
    for (const Attribute &entry : attributes) {
        if (entry.type == type && entry.attribute == attribute) return &entry;
    }
    return nullptr;
}

bool is_of_type(const void *target, ub4 type) {
    return target != nullptr && static_cast<const Handle *>(target)->mark == (Handle::MARK | type);
}

}  // namespace

sword set_attribute(void *target, ub4 type, void *value, ub4 size, ub4 attribute, OCIError &error) {
    if (!is_of_type(target, type)) return OCI_INVALID_HANDLE;
    const Attribute *const entry = find_attribute(type, attribute);
    if (entry == nullptr || entry->set == nullptr) {
        return call_failed(error, OCIERROTHER, "this attribute can't be set");
    }
    return entry->set(target, value, size, error);
}

sword get_attribute(const void *target, ub4 type, void *value, ub4 *size, ub4 attribute, OCIError &error) {
    if (!is_of_type(target, type)) return OCI_INVALID_HANDLE;
    const Attribute *const entry = find_attribute(type, attribute);
    if (entry == nullptr || entry->get == nullptr) {
        return call_failed(error, OCIERROTHER, "this attribute can't be read");
    }
    if (value == nullptr) return call_failed(error, OCIERROTHER, "no place for the attribute's value");
    return entry->get(target, value, size, error);
}

// ---- Error records --------------------------------------------------------------------------------------------

int db_fail(DB_ERROR_S *error, int number, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start stands right above
    vsnprintf(error->text, sizeof error->text, format, arguments);
    va_end(arguments);
    error->number = number;
    return DB_FAILED;
}

int db_fail_late(DB_ERROR_S *error) {
    return db_fail(error, OCIERROTHER, "the statement was ended: it took longer than a statement may");
}

sword call_failed(OCIError &error, int number, const char *text) {
    db_fail(&error.record, number, "%s", text);
    return OCI_ERROR;
}
