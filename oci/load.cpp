/* Picks the database driver that an address asks for, loads it, and fills the table of calls by name. Goes into the
 * server; the drivers themselves are never linked. */
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "oci/oci.h"
#include "process/velproc.h"

namespace {
constexpr char label[] = "oci_load";
constexpr char VENDOR_LIBRARY[] = "libclntsh.so";

namespace say {
void not_loaded(const char *library, const char *reason) {
    process_log("[%s] cannot load %s: %s\n", label, library, reason);
}
void call_missing(const char *library, const char *call) {
    process_log("[%s] cannot use %s: it has no %s\n", label, library, call);
}
void relative_search_path() {
    process_log("[%s] cannot load %s: LD_LIBRARY_PATH names a relative directory\n", label, VENDOR_LIBRARY);
}
}  // namespace say

struct OwnDriver {
    std::string_view scheme;
    const char *library;
};
constexpr OwnDriver own_drivers[] = {
    {"sqlite:", "velmora-oci-sqlite.so"},
    {"postgresql://", "velmora-oci-postgresql.so"},
    {"postgres://", "velmora-oci-postgresql.so"},
};

struct Loaded {
    std::string library;
    OCI_CALLS_S calls;
};

std::vector<Loaded> &loaded_drivers() {
    static std::vector<Loaded> drivers;
    return drivers;
}

// Always a full path: where the program's own can't be read it begins at the root.
std::string directory_beside_program() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string_view program(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::string directory(program.substr(0, program.rfind('/') + 1));
    return (directory.empty() ? "/" : directory) + "../lib/";
}

// The loader looks in these directories, and an empty one stands for the working directory.
bool has_relative_search_path() {
    const char *const variable = getenv("LD_LIBRARY_PATH");
    std::string_view list = variable != nullptr ? variable : "";
    while (!list.empty()) {
        const std::size_t end = std::min(list.find_first_of(":;"), list.size());
        if (list[0] != '/') return true;
        list.remove_prefix(end);
        if (list.size() == 1) return true;  // an empty one behind the last colon
        if (!list.empty()) list.remove_prefix(1);
    }
    return false;
}

// In the order in which they are tried.
std::vector<std::string> candidates(std::string_view database) {
    for (const OwnDriver &driver : own_drivers) {
        if (database.starts_with(driver.scheme)) return {directory_beside_program() + driver.library};
    }
    std::vector<std::string> libraries;
    const char *const home = getenv("ORACLE_HOME");
    if (home != nullptr && home[0] == '/') libraries.push_back(std::string(home) + "/lib/" + VENDOR_LIBRARY);
    libraries.emplace_back(VENDOR_LIBRARY);
    return libraries;
}

template <class Call>
bool find_call(void *library, const char *path, const char *name, Call *call) {
    void *const found = dlsym(library, name);
    if (found == nullptr) say::call_missing(path, name);
    *call = reinterpret_cast<Call>(found);
    return found != nullptr;
}

bool fill_table(void *library, const char *path, OCI_CALLS_S *calls) {
#define FIND_CALL(name) &&find_call(library, path, #name, &calls->name)
    return true OCI_EACH_CALL(FIND_CALL);
#undef FIND_CALL
}

bool load_library(const std::string &path, OCI_CALLS_S *calls) {
    std::vector<Loaded> &drivers = loaded_drivers();
    const auto known = std::ranges::find(drivers, path, &Loaded::library);
    if (known != drivers.end()) {
        *calls = known->calls;
        return true;
    }
    if (path == VENDOR_LIBRARY && has_relative_search_path()) {
        say::relative_search_path();
        return false;
    }
    void *const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        say::not_loaded(path.c_str(), dlerror());
        return false;
    }
    OCI_CALLS_S found{};
    if (!fill_table(library, path.c_str(), &found)) {
        dlclose(library);
        return false;
    }
    drivers.push_back({path, found});
    *calls = found;
    return true;
}

bool load_first(const char *database, OCI_CALLS_S *calls) {
    const std::vector<std::string> libraries = candidates(database != nullptr ? database : "");
    return std::ranges::any_of(libraries, [calls](const std::string &path) { return load_library(path, calls); });
}

// A driver shares no variable with the server.
void tell_drivers() {
    if (process_context.hardened != 0) setenv("VELHARDEN", "1", 1);
}

}  // namespace

int oci_load(const char *database, OCI_CALLS_S *calls) {
    try {
        tell_drivers();
        return load_first(database, calls) ? 0 : -1;
    } catch (const std::exception &failure) {
        say::not_loaded("a database driver", failure.what());
        return -1;
    }
}
