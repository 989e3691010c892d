/* Reads the address of an embedded database; see sqliteaddress.h. */
#include "oci/sqliteaddress.h"

#include <stdlib.h>

#include <algorithm>
#include <string_view>

namespace {
constexpr std::string_view SCHEME = "sqlite:";
constexpr char STAND_IN_VARIABLE[] = "VELMORA_OCI_SQLITE_FILE";

struct Parameter {
    std::string_view name;
    std::string_view values[2];
    std::string SqliteAddress::*target;
};
const Parameter parameters[] = {
    {"synchronous", {"full", "normal"}, &SqliteAddress::synchronous},
    {"locking", {"normal", "exclusive"}, &SqliteAddress::locking},
};

bool set_parameter(std::string_view name, std::string_view value, SqliteAddress *address) {
    for (const Parameter &parameter : parameters) {
        if (parameter.name != name) continue;
        if (std::ranges::find(parameter.values, value) == std::end(parameter.values)) return false;
        address->*parameter.target = value;
        return true;
    }
    return false;
}

bool read_parameters(std::string_view list, SqliteAddress *address, DB_ERROR_S *error) {
    while (!list.empty()) {
        const std::string_view item = list.substr(0, list.find('&'));
        list.remove_prefix(std::min(list.size(), item.size() + 1));
        const std::size_t equals = std::min(item.find('='), item.size());
        const std::string_view value = item.substr(std::min(equals + 1, item.size()));
        if (set_parameter(item.substr(0, equals), value, address)) continue;
        db_fail(error, OCIERROTHER, "\"%.*s\" is no parameter of an sqlite: address", static_cast<int>(item.size()),
                item.data());
        return false;
    }
    return true;
}

}  // namespace

bool sqlite_read_address(const char *database, SqliteAddress *address, DB_ERROR_S *error) {
    std::string_view rest = database;
    if (rest.starts_with(SCHEME)) {
        rest.remove_prefix(SCHEME.size());
    } else {
        const char *const file = getenv(STAND_IN_VARIABLE);
        if (file == nullptr || *file == '\0') {
            db_fail(error, OCIERRNOLISTENER, "\"%s\" is no sqlite: address, and %s names no database file", database,
                    STAND_IN_VARIABLE);
            return false;
        }
        rest = file;
    }

    const std::size_t question = rest.find('?');
    address->path = rest.substr(0, question);
    if (address->path.empty()) {
        db_fail(error, OCIERROTHER, "the sqlite: address names no file");
        return false;
    }
    return question == rest.npos || read_parameters(rest.substr(question + 1), address, error);
}
