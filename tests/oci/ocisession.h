/* One database session of a test, through the call interface and nothing else: what a program of another maker would
 * write, so that any driver can be put under the same tests. */
#ifndef TESTS_OCI_OCISESSION_H
#define TESTS_OCI_OCISESSION_H

#include <gtest/gtest.h>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "oci/oci.h"

/** Outcome of a statement. */
struct Done {
    sword status = OCI_SUCCESS;
    sb4 error = 0;  // number behind OCI_ERROR
    std::string text;
    std::vector<std::vector<std::string>> rows;  // "<null>" for no value

    bool operator==(const Done &other) const {
        return status == other.status && error == other.error && rows == other.rows;
    }
};
inline void PrintTo(const Done &done, std::ostream *out) {
    *out << "status " << done.status << " error " << done.error << " " << done.text << " rows "
         << testing::PrintToString(done.rows);
}

/** A value for each placeholder: by name if the key is one, by position if it is a number. */
using Binds = std::map<std::string, std::string>;

class OciSession {
public:
    explicit OciSession(const OCI_CALLS_S &calls) : oci(calls) {
        EXPECT_EQ(oci.OCIInitialize(OCI_DEFAULT, nullptr, nullptr, nullptr, nullptr), OCI_SUCCESS);
        EXPECT_EQ(oci.OCIEnvInit(&env, OCI_DEFAULT, 0, nullptr), OCI_SUCCESS);
        allocate(error, OCI_HTYPE_ERROR);
        allocate(server, OCI_HTYPE_SERVER);
        allocate(service, OCI_HTYPE_SVCCTX);
        allocate(session, OCI_HTYPE_SESSION);
        allocate(statement, OCI_HTYPE_STMT);
    }
    ~OciSession() {
        if (open_) close();
        oci.OCIHandleFree(statement, OCI_HTYPE_STMT);
        oci.OCIHandleFree(env, OCI_HTYPE_ENV);
    }
    OciSession(const OciSession &) = delete;
    OciSession &operator=(const OciSession &) = delete;

    /** Attaches and logs in. */
    Done open(const std::string &address, std::string user = "tester", std::string password = "secret") {
        const auto text = reinterpret_cast<const OraText *>(address.c_str());
        Done done = result(oci.OCIServerAttach(server, error, text, static_cast<sb4>(address.size()), OCI_DEFAULT));
        if (done.status != OCI_SUCCESS) return done;
        set(service, OCI_HTYPE_SVCCTX, server, 0, OCI_ATTR_SERVER);
        set(session, OCI_HTYPE_SESSION, user.data(), user.size(), OCI_ATTR_USERNAME);
        set(session, OCI_HTYPE_SESSION, password.data(), password.size(), OCI_ATTR_PASSWORD);
        done = result(oci.OCISessionBegin(service, error, session, OCI_CRED_RDBMS, OCI_DEFAULT));
        open_ = done.status == OCI_SUCCESS;
        if (open_) set(service, OCI_HTYPE_SVCCTX, session, 0, OCI_ATTR_SESSION);
        return done;
    }

    void close() {
        EXPECT_EQ(oci.OCISessionEnd(service, error, session, OCI_DEFAULT), OCI_SUCCESS);
        EXPECT_EQ(oci.OCIServerDetach(server, error, OCI_DEFAULT), OCI_SUCCESS);
        open_ = false;
    }

    /** How many milliseconds a statement may take; 0: as long as it wants. */
    ub4 limit() {
        ub4 milliseconds = 1;
        EXPECT_EQ(oci.OCIAttrGet(env, OCI_HTYPE_ENV, &milliseconds, nullptr, OCI_ATTR_STATEMENT_LIMIT, error),
                  OCI_SUCCESS);
        return milliseconds;
    }
    void limit(ub4 milliseconds) {
        set(env, OCI_HTYPE_ENV, &milliseconds, sizeof milliseconds, OCI_ATTR_STATEMENT_LIMIT);
    }

    Done prepare(const std::string &sql) {
        text_ = sql;
        return result(oci.OCIStmtPrepare(statement, error, reinterpret_cast<const OraText *>(text_.c_str()),
                                         static_cast<ub4>(text_.size()), OCI_NTV_SYNTAX, OCI_DEFAULT));
    }

    Done execute(ub4 iterations = 1, ub4 mode = OCI_DEFAULT) {
        return result(oci.OCIStmtExecute(service, statement, error, iterations, 0, nullptr, nullptr, mode));
    }

    sword bind(const std::string &place, const std::string &value) {
        OCIBind *handle = nullptr;
        char *const text = const_cast<char *>(value.data());  // only read
        const auto size = static_cast<sb4>(value.size() + 1);
        if (place[0] != ':') {
            return oci.OCIBindByPos(statement, &handle, error, static_cast<ub4>(std::stoi(place)), text, size,
                                    SQLT_STR, nullptr, nullptr, nullptr, 0, nullptr, OCI_DEFAULT);
        }
        return oci.OCIBindByName(statement, &handle, error, reinterpret_cast<const OraText *>(place.c_str()),
                                 static_cast<sb4>(place.size()), text, size, SQLT_STR, nullptr, nullptr, nullptr, 0,
                                 nullptr, OCI_DEFAULT);
    }

    /** Prepares, binds and executes a statement that is no query. */
    Done run(const std::string &sql, const Binds &binds = {}) {
        Done done = prepare(sql);
        for (const auto &[place, value] : binds)
            if (done.status == OCI_SUCCESS) done = result(bind(place, value));
        return done.status == OCI_SUCCESS ? execute() : done;
    }

    Done commit() { return result(oci.OCITransCommit(service, error, OCI_DEFAULT)); }

    /** The same with a commit behind it. */
    Done write(const std::string &sql, const Binds &binds = {}) {
        const Done done = run(sql, binds);
        return done.status == OCI_SUCCESS ? commit() : done;
    }

    /** Runs a query to its end; the status is the last that came: OCI_NO_DATA if all went well. */
    Done query(const std::string &sql, int columns, const Binds &binds = {}) {
        std::vector<Target> targets(static_cast<size_t>(columns));
        Done done = prepare(sql);
        for (const auto &[place, value] : binds)
            if (done.status == OCI_SUCCESS) done = result(bind(place, value));
        for (ub4 at = 0; at < targets.size() && done.status == OCI_SUCCESS; ++at)
            done = result(define(at + 1, targets[at]));
        if (done.status == OCI_SUCCESS) done = execute(0);
        std::vector<std::vector<std::string>> rows;
        while (done.status == OCI_SUCCESS || done.status == OCI_SUCCESS_WITH_INFO) {
            done = fetch(1);
            if (done.status != OCI_SUCCESS && done.status != OCI_SUCCESS_WITH_INFO) break;
            rows.emplace_back();
            for (const Target &target : targets) rows.back().push_back(target.shown());
        }
        done.rows = rows;
        return done;
    }

    Done fetch(ub4 rows) { return result(oci.OCIStmtFetch(statement, error, rows, OCI_FETCH_NEXT, OCI_DEFAULT)); }

    /** Where a column's value goes. */
    struct Target {
        char buffer[4001] = "";
        int size = 4000;
        sb2 indicator = 0;
        ub2 length = 9999;
        std::string shown() const { return indicator == -1 ? "<null>" : std::string(buffer, length); }
    };

    sword define(ub4 position, Target &target) {
        OCIDefine *handle = nullptr;
        return oci.OCIDefineByPos(statement, &handle, error, position, target.buffer, target.size, SQLT_CHR,
                                  &target.indicator, &target.length, nullptr, OCI_DEFAULT);
    }

    Done result(sword status) {
        Done done;
        done.status = status;
        if (status != OCI_ERROR) return done;
        OraText message[512] = "";
        EXPECT_EQ(oci.OCIErrorGet(error, 1, nullptr, &done.error, message, sizeof message, OCI_HTYPE_ERROR),
                  OCI_SUCCESS);
        done.text = reinterpret_cast<char *>(message);
        EXPECT_FALSE(done.text.empty());
        return done;
    }

    const OCI_CALLS_S &oci;
    OCIEnv *env = nullptr;
    OCIError *error = nullptr;
    OCIServer *server = nullptr;
    OCISvcCtx *service = nullptr;
    OCISession *session = nullptr;
    OCIStmt *statement = nullptr;

private:
    template <class Handle>
    void allocate(Handle *&handle, ub4 type) {
        EXPECT_EQ(oci.OCIHandleAlloc(env, reinterpret_cast<void **>(&handle), type, 0, nullptr), OCI_SUCCESS);
    }
    void set(void *target, ub4 type, void *value, size_t size, ub4 attribute) {
        EXPECT_EQ(oci.OCIAttrSet(target, type, value, static_cast<ub4>(size), attribute, error), OCI_SUCCESS);
    }

    bool open_ = false;
    std::string text_;
};

#endif
