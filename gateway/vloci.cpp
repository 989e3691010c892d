/* The database session, the reports of its calls, and the entry of requests.
 *
 * The session is opened by vlociInit, perhaps after many tries, and closed by vlociShutdown. What lies between, the
 * operations on records, only borrows its handles. */
#include "gateway/vloci.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "gateway/vlsql.h"

namespace gateway {

Handles handles;
OCI_CALLS_S oci;

namespace {

constexpr char label[] = "vlociInit";
constexpr int MAX_HOME = 1011;  // with its name it fills a path buffer of 1024 bytes

/** How far the login got: what is to be taken back when it fails behind that. */
struct Progress {
    bool attached;
    bool loggedIn;
};
Progress progress;

// ---- Reports

/** One line for each status that has a meaning of its own. Failures go to the log, the rest to the trace. */
struct StatusLine {
    const char *kind;
    const char *name;
    sword status;
    bool isFailure;
};
constexpr StatusLine statusLines[] = {
    {"OK", "OCI_SUCCESS_WITH_INFO", OCI_SUCCESS_WITH_INFO, false},
    {"WARNING", "OCI_NEED_DATA", OCI_NEED_DATA, false},
    {"WARNING", "OCI_NODATA", OCI_NO_DATA, false},
    {"ERROR", "OCI_INVALID_HANDLE", OCI_INVALID_HANDLE, true},
    {"INFO", "OCI_STILL_EXECUTE", OCI_STILL_EXECUTING, false},
    {"INFO", "OCI_CONTINUE", OCI_CONTINUE, false},
};
constexpr StatusLine otherStatus{"ERROR", "NOT_HANDLED", 0, true};

void report_status(sword status, const char *text) {
    const auto *found = std::find_if(std::begin(statusLines), std::end(statusLines),
                                     [&](const StatusLine &line) { return line.status == status; });
    const StatusLine &line = found != std::end(statusLines) ? *found : otherStatus;
    if (line.isFailure) {
        process_log("%s: [%s] %s %d\n", line.kind, text, line.name, status);
    } else {
        VL_TRACE("%s: [%s] %s %d\n", line.kind, text, line.name, status);
    }
}

/** The database's message may quote a peer's value; a line feed at its end is its own. */
std::string shown_message(const char *message) {
    std::string_view text(message);
    const bool endsLine = !text.empty() && text.back() == '\n';
    if (endsLine) text.remove_suffix(1);
    return printable(text) + (endsLine ? "\n" : "");
}

sb4 report_error(OCIError *errhp, sword status, const char *text) {
    sb4 number = 0;
    char message[512] = "";
    if (errhp != nullptr) {
        oci.OCIErrorGet(errhp, 1, nullptr, &number, reinterpret_cast<OraText *>(message), sizeof message,
                        OCI_HTYPE_ERROR);
        message[sizeof message - 1] = '\0';
    }
    const bool isNullFetched = number == OCIERRNULLFETCHED;
    if (isNullFetched && !process_context.trace) return number;

    const std::string shown = shown_message(message);
    const int length = static_cast<int>(shown.size());
    if (isNullFetched) {
        process_trace("WARNING: [%s] %d %d %.*s\n", text, status, number, length, shown.c_str());
    } else {
        process_log("ERROR: [%s] %d %d %.*s\n", text, status, number, length, shown.c_str());
    }
    return number != 0 ? number : status;  // a failure without a number must not read as success
}

// ---- Environment that the database reads

/** A text that the environment points to: it has to stay until another takes its place. */
using EnvironmentText = char *;

bool put_environment(EnvironmentText &owned, const char *name, const char *value, int limit) {
    const int size = static_cast<int>(strlen(name) + std::min(strlen(value), static_cast<size_t>(limit))) + 2;
    auto *text = static_cast<char *>(process_malloc(label, size));
    if (text == nullptr) return false;
    snprintf(text, static_cast<size_t>(size), "%s=%.*s", name, limit, value);
    if (putenv(text) != 0) {
        free(text);
        return false;
    }
    free(owned);
    owned = text;
    return true;
}

void set_home(const char *oracleHome) {
    static EnvironmentText home;
    if (oracleHome == nullptr || oracleHome[0] == '\0') return;
    if (put_environment(home, "ORACLE_HOME", oracleHome, MAX_HOME)) {
        process_log("ORACLE_HOME environment set to: \"%s\"\n", home);
    } else {
        process_log("Cannot set ORACLE_HOME: \"%s\"\n", oracleHome);
    }
}

void set_language(const char *nlsLang) {
    static EnvironmentText language;
    // The blanks are meant: they make another name, so that the database's own default stays in force.
    static char noLanguage[] = "NLS_LANG = AMERICAN_AMERICA.US7ASCII";
    const bool isGiven = nlsLang != nullptr && nlsLang[0] != '\0';
    const bool isSet = isGiven ? put_environment(language, "NLS_LANG", nlsLang, static_cast<int>(strlen(nlsLang)))
                               : putenv(noLanguage) == 0;
    const char *text = isGiven ? language : noLanguage;
    if (isSet) {
        process_log("%s: NLS_LANG environment set to: \"%s\"\n", label, text);
    } else {
        process_log("%s: Cannot set NLS_LANG: \"%s\"\n", label, isGiven ? nlsLang : noLanguage);
    }
}

// ---- Opening and closing

/** Traces and reports the call just made. */
bool step(const char *call, sword status) {
    VL_TRACE("%s: %s rc=%d\n", label, call, status);
    vlociReport(handles.errhp, status, call);
    return status == OCI_SUCCESS;
}

template <class Handle>
bool allocate(const char *call, Handle *&handle, ub4 type) {
    void *made = nullptr;
    const sword status = oci.OCIHandleAlloc(handles.envhp, &made, type, 0, nullptr);
    if (status == OCI_SUCCESS) handle = static_cast<Handle *>(made);
    return step(call, status);
}

bool set_text(const char *call, const char *text, ub4 attribute) {
    return step(call, oci.OCIAttrSet(handles.authp, OCI_HTYPE_SESSION, const_cast<char *>(text),
                                     static_cast<ub4>(strlen(text)), attribute, handles.errhp));
}

bool set_on_service(const char *call, void *handle, ub4 attribute) {
    return step(call, oci.OCIAttrSet(handles.svchp, OCI_HTYPE_SVCCTX, handle, 0, attribute, handles.errhp));
}

bool is_done(sword status) { return status == OCI_SUCCESS || status == OCI_SUCCESS_WITH_INFO; }

bool attach(const char *database) {
    const sword status =
        oci.OCIServerAttach(handles.srvhp, handles.errhp, reinterpret_cast<const OraText *>(database),
                            static_cast<sb4>(strlen(database)), OCI_DEFAULT);
    progress.attached = is_done(status);
    return step("OCIServerAttach", status);
}

bool log_in() {
    const sword status =
        oci.OCISessionBegin(handles.svchp, handles.errhp, handles.authp, OCI_CRED_RDBMS, OCI_DEFAULT);
    progress.loggedIn = is_done(status);
    return step("OCISessionBegin", status);
}

bool open_session(const char *database, const char *user, const char *password) {
    return step("OCIInitialize", oci.OCIInitialize(OCI_DEFAULT, nullptr, nullptr, nullptr, nullptr)) &&
           step("OCIEnvInit", oci.OCIEnvInit(&handles.envhp, OCI_DEFAULT, 0, nullptr)) &&
           allocate("OCIHandleAlloc OCI_HTYPE_ERROR", handles.errhp, OCI_HTYPE_ERROR) &&
           allocate("OCIHandleAlloc OCI_HTYPE_SERVER", handles.srvhp, OCI_HTYPE_SERVER) &&
           allocate("OCIHandleAlloc OCI_HTYPE_SVCCTX", handles.svchp, OCI_HTYPE_SVCCTX) && attach(database) &&
           set_on_service("OCIAttrSet OCI_ATTR_SERVER", handles.srvhp, OCI_ATTR_SERVER) &&
           allocate("OCIHandleAlloc OCI_HTYPE_SESSION", handles.authp, OCI_HTYPE_SESSION) &&
           set_text("OCIAttrSet OCI_ATTR_USERNAME", user, OCI_ATTR_USERNAME) &&
           set_text("OCIAttrSet OCI_ATTR_PASSWORD", password, OCI_ATTR_PASSWORD) && log_in() &&
           set_on_service("OCIAttrSet OCI_ATTR_SESSION", handles.authp, OCI_ATTR_SESSION);
}

void log_language() {
    struct Item {
        ub2 number;
        const char *name;
    };
    static constexpr Item items[] = {
        {OCI_NLS_LANGUAGE, "OCI_NLS_LANGUAGE"},
        {OCI_NLS_ABLANGUAGE, "OCI_NLS_ABLANGUAGE"},
        {OCI_NLS_CHARACTER_SET, "OCI_NLS_CHARACTER_SET"},
        {OCI_NLS_LINGUISTIC_NAME, "OCI_NLS_LINGUISTIC_NAME"},
    };
    for (const Item &item : items) {
        char text[100] = "";
        const sword status = oci.OCINlsGetInfo(handles.envhp, handles.errhp, reinterpret_cast<OraText *>(text),
                                               sizeof text, item.number);
        text[sizeof text - 1] = '\0';
        if (step("OCINlsGetInfo", status)) process_log("[%s] %s=\"%s\".\n", label, item.name, text);
    }
}

/** Sorting and comparing go by byte from here on. False only without memory. */
bool set_sorting() {
    for (const char *setting : {"NLS_SORT = BINARY", "NLS_COMP = BINARY"}) {
        Statement statement(label, nullptr);
        statement << sql::ALTER_SESSION << sql::SET << setting;
        if (!statement.is_complete()) {
            process_error("[%s] out of memory!\n", label);
            return false;
        }
        if (statement.prepare()) execute_prepared(1, OCI_DEFAULT);
    }
    reset_request();
    return true;
}

void leave_database() {
    if (progress.loggedIn) {
        vlociReport(handles.errhp, oci.OCISessionEnd(handles.svchp, handles.errhp, handles.authp, OCI_DEFAULT),
                    "OCISessionEnd");
    }
    if (progress.attached) {
        vlociReport(handles.errhp, oci.OCIServerDetach(handles.srvhp, handles.errhp, OCI_DEFAULT), "OCIServerDetach");
    }
    progress = Progress{};
}

/** Takes back what an attempt got hold of. */
int give_up() {
    leave_database();
    cleanup();
    return -1;
}

bool is_empty(const char *text) { return text == nullptr || text[0] == '\0'; }

void log_missing(const char *configFile, const char *user, const char *password) {
    process_log("[%s] database not opened, missing:%s%s%s\n", label, is_empty(configFile) ? " -f" : "",
                user == nullptr ? " -oid" : "", password == nullptr ? " -opw" : "");
}

bool load_driver(const char *database) {
    if (oci_load(database, &oci) == 0) return true;
    if (database[0] == '\0') process_log("[%s] database not opened, missing: -odb\n", label);
    return false;
}

// ---- Requests

struct RecordOperation {
    const char *code;
    void (*run)(RA_SESSION_S *session, int argc, char **inargv);
};

constexpr RecordOperation operations[] = {
    {"A", addToRecord},
    {"D", deleteRecord},
    {"G", [](RA_SESSION_S *session, int argc, char **inargv) { getRecord(session, argc, inargv); }},
    {"I", insertRecord},
    {"L", listRecord},
    {"U", updateRecord},
};

const RecordOperation *find_operation(const char *code) {
    if (code == nullptr) return nullptr;
    const auto *found = std::find_if(std::begin(operations), std::end(operations),
                                     [&](const RecordOperation &each) { return strcmp(each.code, code) == 0; });
    return found != std::end(operations) ? found : nullptr;
}

void refuse(const Request &request, const char *message) {
    request.answer("1");
    request.answer(message);
}

void refuse_nameless(const Request &request, const char *message) {
    refuse(request, message);
    process_error("%s: %s.\n", request.label(), message);
}

}  // namespace

void Request::trace_call() const {
    VL_TRACE("[%s] called.\n", label_);
    if (!verboseFlag || !process_context.trace) return;
    for (int i = 0; i < argc_; ++i) {
        process_trace("[%s] inargv[%d]=\"%s\".\n", label_, i, printable(or_null_text(inargv_[i])).c_str());
    }
}

bool Request::overflow(const char *what, int column) const {
    process_log("[%s]:orSetResult() overflow %s = %d.\n", label_, what, column);
    raClearResult(session_);
    return fail("1012");
}

}  // namespace gateway

using namespace gateway;

int vlociReportCode(OCIError *errhp, sword status, const char *text) {
    if (status == OCI_SUCCESS) return status;
    if (status == OCI_ERROR) return report_error(errhp, status, text);
    report_status(status, text);
    return status;
}

void vlociReport(OCIError *errhp, sword status, const char *text) { vlociReportCode(errhp, status, text); }

int vlociInit(const char *configFile, const char *oracleHome, const char *database, const char *user,
              const char *password, const char *nlsLang) {
    VL_TRACE("[%s](%s,%s,%s,%s,%s,%s) called.\n", label, or_null_text(configFile), or_null_text(oracleHome),
             or_null_text(database), or_null_text(user), or_null_text(password), or_null_text(nlsLang));
    if (handles.envhp != nullptr) give_up();
    free(columnList.entries);
    columnList = VL_ALIST_S{};
    if (is_empty(configFile) || user == nullptr || password == nullptr) {
        log_missing(configFile, user, password);
        return -2;
    }
    const char *address = database != nullptr ? database : "";
    read_name_map(configFile);
    set_home(oracleHome);
    set_language(nlsLang);
    if (!load_driver(address) || !open_session(address, user, password)) return give_up();
    log_language();
    if (!allocate("OCIHandleAlloc OCI_HTYPE_STMT", handles.stmthp, OCI_HTYPE_STMT)) return give_up();
    return set_sorting() ? 0 : give_up();
}

void vlociShutdown(void) {
    VL_TRACE("[%s] called.\n", "vlociShutdown");
    if (handles.envhp == nullptr) return;
    leave_database();
    cleanup();
    vlociReport(nullptr, oci.OCITerminate(OCI_DEFAULT), "OCITerminate");
}

void vlociRequest(RA_SESSION_S *session, int argc, char **inargv) {
    const Request request("vlociRequest", session, argc, inargv);
    const char *code = request[FUNCTION_CODE];
    VL_TRACE("[%s] called.\n", request.label());
    VL_TRACE("[%s] functionCode=<%s> tablename=<%s> keyname=<%s>\n", request.label(),
             printable(or_null_text(code)).c_str(), printable(or_null_text(request[TABLE])).c_str(),
             printable(or_null_text(request[KEY])).c_str());
    if (!request.has_text(TABLE)) return refuse_nameless(request, "Table name not defined");
    if (!request.has_text(KEY)) return refuse_nameless(request, "Key name not defined");

    const RecordOperation *operation = find_operation(code);
    if (operation == nullptr) return refuse(request, "Function code not implemented");
    operation->run(session, argc, inargv);
    end_request();
}

int orSetResult(RA_SESSION_S *session, const char *text) {
    const char *result = text != nullptr ? text : "";
    if (verboseFlag) process_log("result     = \"%s\"\n", printable(result).c_str());
    return raSetResult(session, result);
}
