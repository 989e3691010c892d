/* The 21 functions that a driver library exports: handles are checked, errors recorded, and the work is handed to
 * handles.cpp and statement.cpp. The database itself is reached through db_driver only. */
#include <string.h>

#include <algorithm>
#include <new>
#include <string_view>

#include "oci/handles.h"
#include "oci/statement.h"

namespace {

/** True if each handle is one of its kind. */
template <class... Kinds>
bool are_handles(const Kinds *...handles) {
    return (is_handle(handles) && ...);
}

/** Runs the work of a call with a clean error record. No exception gets out of a C function. */
template <class Work>
sword recorded(OCIError *error, Work work) noexcept {
    error->record.number = 0;
    try {
        return work();
    } catch (const std::exception &failure) {
        return call_failed(*error, OCIERROTHER, failure.what());
    }
}

template <class Work>
sword unrecorded(Work work) noexcept {
    try {
        return work();
    } catch (const std::exception &) {
        return OCI_ERROR;
    }
}

// A negative length would be a caller's mistake; it counts as no text.
std::string_view given_text(const OraText *text, sb4 length) {
    if (text == nullptr || length <= 0) return {};
    return {reinterpret_cast<const char *>(text), static_cast<std::size_t>(length)};
}

void *connection_of(const OCISvcCtx *service, OCIError *error) {
    const OCIServer *const server = service->server;
    if (server != nullptr && server->connection != nullptr) return server->connection;
    call_failed(*error, OCIERRLOST, "not connected");
    return nullptr;
}

bool is_text_type(ub2 type) { return type == SQLT_CHR || type == SQLT_STR || type == SQLT_AFC; }

sword refuse_type(OCIError *error, ub2 type) {
    db_fail(&error->record, OCIERROTHER, "data type %u is not supported, only texts are", type);
    return OCI_ERROR;
}

sword fill_bind(OCIBind *place, OCIBind **bind, OCIError *error, void *value, sb4 size, ub2 type, void *indicator,
                const ub2 *lengths) {
    if (place == nullptr) return OCI_ERROR;
    if (!is_text_type(type)) return refuse_type(error, type);
    place->is_set = true;
    place->value = static_cast<const char *>(value);
    place->size = size;
    place->type = type;
    place->indicator = static_cast<const sb2 *>(indicator);
    place->length = lengths;
    if (bind != nullptr) *bind = place;
    return OCI_SUCCESS;
}

sword begin_session(const OCISvcCtx *service, OCIError *error, const OCISession *session) {
    OCIServer *const server = service->server;
    if (server == nullptr || !server->is_attached) return call_failed(*error, OCIERRLOST, "no server is attached");
    if (server->connection != nullptr) return call_failed(*error, OCIERROTHER, "a session has already begun");
    const DB_LOGIN_S login{server->database.c_str(), session->user.c_str(), session->password.c_str()};
    server->connection = db_driver.open(&login, &error->record);
    return server->connection != nullptr ? OCI_SUCCESS : OCI_ERROR;
}

struct LanguageItem {
    ub2 item;
    const char *text;
};
constexpr LanguageItem language_items[] = {
    {OCI_NLS_LANGUAGE, "AMERICAN"},
    {OCI_NLS_ABLANGUAGE, "us"},
    {OCI_NLS_CHARACTER_SET, "AL32UTF8"},
    {OCI_NLS_LINGUISTIC_NAME, "BINARY"},
};

const char *language_text(ub2 item) {
    for (const LanguageItem &entry : language_items) {
        if (entry.item == item) return entry.text;
    }
    return nullptr;
}

}  // namespace

// ---- Environment and handles ------------------------------------------------------------------------------------

sword OCIInitialize(ub4, void *, void *(*)(void *, size_t), void *(*)(void *, void *, size_t),
                    void (*)(void *, void *)) {
    return OCI_SUCCESS;
}

sword OCITerminate(ub4) { return OCI_SUCCESS; }

sword OCIEnvInit(OCIEnv **environment, ub4, size_t, void **) {
    if (environment == nullptr) return OCI_INVALID_HANDLE;
    return unrecorded([&] {
        *environment = new OCIEnv;
        return OCI_SUCCESS;
    });
}

sword OCIHandleAlloc(const void *parent, void **handle, ub4 type, size_t, void **) {
    auto *const environment = as_handle<OCIEnv>(parent);
    if (environment == nullptr || handle == nullptr) return OCI_INVALID_HANDLE;
    return unrecorded([&] {
        Handle *const made = make_handle(environment, type);
        if (made == nullptr) return OCI_ERROR;
        *handle = made;
        return OCI_SUCCESS;
    });
}

sword OCIHandleFree(void *handle, ub4 type) { return free_handle(handle, type) ? OCI_SUCCESS : OCI_INVALID_HANDLE; }

sword OCIAttrSet(void *target, ub4 targetType, void *value, ub4 size, ub4 attribute, OCIError *error) {
    if (!are_handles(error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&] { return set_attribute(target, targetType, value, size, attribute, *error); });
}

sword OCIAttrGet(const void *target, ub4 targetType, void *value, ub4 *size, ub4 attribute, OCIError *error) {
    if (!are_handles(error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&] { return get_attribute(target, targetType, value, size, attribute, *error); });
}

sword OCIErrorGet(void *handle, ub4 record, OraText *sqlState, sb4 *code, OraText *buffer, ub4 size, ub4 type) {
    const auto *const error = as_handle<OCIError>(handle);
    if (error == nullptr || type != OCI_HTYPE_ERROR) return OCI_INVALID_HANDLE;
    if (sqlState != nullptr) *sqlState = 0;
    if (record != 1 || error->record.number == 0) return OCI_NO_DATA;

    if (code != nullptr) *code = error->record.number;
    if (buffer == nullptr || size == 0) return OCI_SUCCESS;
    const std::size_t length = std::min<std::size_t>(strlen(error->record.text), size - 1);
    memcpy(buffer, error->record.text, length);
    buffer[length] = 0;
    return OCI_SUCCESS;
}

sword OCINlsGetInfo(void *handle, OCIError *error, OraText *buffer, size_t size, ub2 item) {
    if (as_handle<OCIEnv>(handle) == nullptr || !are_handles(error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        const char *const text = language_text(item);
        if (text == nullptr) return call_failed(*error, OCIERROTHER, "this language item is not known");
        const std::size_t needed = strlen(text) + 1;
        if (buffer == nullptr || size < needed) return call_failed(*error, OCIERROTHER, "the buffer is too small");
        memcpy(buffer, text, needed);
        return OCI_SUCCESS;
    });
}

// ---- Server and session -------------------------------------------------------------------------------------------

sword OCIServerAttach(OCIServer *server, OCIError *error, const OraText *database, sb4 length, ub4) {
    if (!are_handles(server) || !are_handles(error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        if (server->is_attached) return call_failed(*error, OCIERROTHER, "the server is attached already");
        server->database = given_text(database, length);
        server->is_attached = true;
        return OCI_SUCCESS;
    });
}

sword OCIServerDetach(OCIServer *server, OCIError *error, ub4) {
    if (!are_handles(server) || !are_handles(error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        if (!server->is_attached) return call_failed(*error, OCIERROTHER, "no server is attached");
        server->close();
        server->is_attached = false;
        return OCI_SUCCESS;
    });
}

sword OCISessionBegin(OCISvcCtx *service, OCIError *error, OCISession *session, ub4 credentials, ub4) {
    if (!are_handles(service, error, session)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        if (credentials != OCI_CRED_RDBMS)
            return call_failed(*error, OCIERRLOGIN, "only user and password can log in");
        return begin_session(service, error, session);
    });
}

sword OCISessionEnd(OCISvcCtx *service, OCIError *error, OCISession *session, ub4) {
    if (!are_handles(service, error, session)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        if (connection_of(service, error) == nullptr) return OCI_ERROR;
        service->server->close();
        return OCI_SUCCESS;
    });
}

sword OCITransCommit(OCISvcCtx *service, OCIError *error, ub4) {
    if (!are_handles(service, error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        void *const connection = connection_of(service, error);
        if (connection == nullptr) return OCI_ERROR;
        return db_driver.commit(connection, &error->record) == DB_FAILED ? OCI_ERROR : OCI_SUCCESS;
    });
}

// ---- Statements -----------------------------------------------------------------------------------------------------

sword OCIStmtPrepare(OCIStmt *statement, OCIError *error, const OraText *text, ub4 length, ub4, ub4) {
    if (!are_handles(statement, error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        constexpr ub4 LONGEST = 1'000'000;  // far beyond any request, and small enough for every engine
        if (length > LONGEST) return call_failed(*error, OCIERROTHER, "the statement is too long");
        return statement_prepare(*statement, *error, given_text(text, static_cast<sb4>(length)));
    });
}

sword OCIBindByPos(OCIStmt *statement, OCIBind **bind, OCIError *error, ub4 position, void *value, sb4 size, ub2 type,
                   void *indicator, ub2 *lengths, ub2 *, ub4, ub4 *, ub4) {
    if (!are_handles(statement, error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&] {
        OCIBind *const place = statement_bind_place(*statement, *error, position);
        return fill_bind(place, bind, error, value, size, type, indicator, lengths);
    });
}

sword OCIBindByName(OCIStmt *statement, OCIBind **bind, OCIError *error, const OraText *placeholder, sb4 length,
                    void *value, sb4 size, ub2 type, void *indicator, ub2 *lengths, ub2 *, ub4, ub4 *, ub4) {
    if (!are_handles(statement, error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&] {
        OCIBind *const place = statement_bind_place(*statement, *error, given_text(placeholder, length));
        return fill_bind(place, bind, error, value, size, type, indicator, lengths);
    });
}

sword OCIDefineByPos(OCIStmt *statement, OCIDefine **define, OCIError *error, ub4 position, void *value, sb4 size,
                     ub2 type, void *indicator, ub2 *length, ub2 *code, ub4) {
    if (!are_handles(statement, error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        if (type != SQLT_CHR && type != SQLT_STR) return refuse_type(error, type);
        OCIDefine *const place = statement_define_place(*statement, *error, position);
        if (place == nullptr) return OCI_ERROR;
        place->is_set = true;
        place->value = static_cast<char *>(value);
        place->size = value != nullptr ? size : 0;
        place->type = type;
        place->indicator = static_cast<sb2 *>(indicator);
        place->length = length;
        place->code = code;
        if (define != nullptr) *define = place;
        return OCI_SUCCESS;
    });
}

sword OCIStmtExecute(OCISvcCtx *service, OCIStmt *statement, OCIError *error, ub4 iterations, ub4,
                     const OCISnapshot *, OCISnapshot *, ub4 mode) {
    if (!are_handles(service, statement, error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        void *const connection = connection_of(service, error);
        if (connection == nullptr) return OCI_ERROR;
        if (mode == OCI_DESCRIBE_ONLY) return statement_describe(*statement, connection, *error);
        if (mode != OCI_DEFAULT) return call_failed(*error, OCIERROTHER, "this mode is not supported");
        if (iterations > 1)
            return call_failed(*error, OCIERROTHER, "arrays are not supported: one iteration at most");
        return statement_execute(*statement, connection, *error, iterations);
    });
}

sword OCIStmtFetch(OCIStmt *statement, OCIError *error, ub4 rows, ub2 orientation, ub4) {
    if (!are_handles(statement, error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        if (rows == 0) {  // the caller wants no more of it
            statement_end_cursor(*statement);
            return OCI_SUCCESS;
        }
        if (rows > 1) return call_failed(*error, OCIERROTHER, "arrays are not supported: one row at a time");
        const bool is_forward = orientation == OCI_FETCH_NEXT || orientation == OCI_DEFAULT;
        if (!is_forward) return call_failed(*error, OCIERROTHER, "rows come in their order only");
        return statement_fetch(*statement, *error);
    });
}

sword OCIParamGet(const void *handle, ub4 type, OCIError *error, void **parameter, ub4 position) {
    auto *const statement = as_handle<OCIStmt>(handle);
    const bool is_statement = statement != nullptr && type == OCI_HTYPE_STMT;
    if (!is_statement || parameter == nullptr || !are_handles(error)) return OCI_INVALID_HANDLE;
    return recorded(error, [&]() -> sword {
        OCIParam *const found = statement_parameter(*statement, *error, position);
        if (found == nullptr) return OCI_ERROR;
        *parameter = static_cast<Handle *>(found);
        return OCI_SUCCESS;
    });
}
