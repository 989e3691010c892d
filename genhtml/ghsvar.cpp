/* Template variables: the replace table with its modes, and the handlers, functions that give a variable's value. */
#include <limits.h>

#include "foundation/config.h"
#include "genhtml/ghstate.h"

using namespace genhtml;

Variables genhtml::variables;

namespace {

constexpr int MOST_HANDLERS = 1024;

int length_of(std::string_view text) { return text.size() < INT_MAX ? static_cast<int>(text.size()) : -1; }

const char *variable_as_setting(const char *name) { return name != nullptr ? variable(name) : nullptr; }

/** The replace table, made at the first store. The settings of other libraries are read from it from then on. */
PAA_S *table_for_stores() {
    if (variables.table == nullptr) variables.table = paaCreate(PAAFLAGLARGE);
    if (variables.table != nullptr) config_variable_source = variable_as_setting;
    return variables.table;
}

/** Stores a pair in place of an earlier one, which goes to the end of the table's order. 0 or the table's error. */
int store(PAA_S *table, std::string_view key, std::string_view value) {
    const auto insert = [table](std::string_view name, std::string_view text) {
        return paaInsert(table, name.data(), length_of(name), text.data(), length_of(text)) == 0 ? 0 : paaerrno;
    };
    const int result = insert(key, value);
    if (result != PAAERREXISTS) return result;

    const std::string kept_key(key), kept_value(value);  // they may be the very ones that go now
    paaRemove(table, key.data(), length_of(key));
    return insert(kept_key, kept_value);
}

int store_as_asked(PAA_S *table, const char *key, const char *value, bool protect) {
    if (!protect) return store(table, key, value);
    std::string safe;
    append_protected(safe, value);
    return store(table, key, safe);
}

/** Protects the value that the walk over the variables stands on. */
void protect_current(const char *name, const char *value, std::string &safe) {
    safe.clear();
    append_protected(safe, value);
    if (safe == value) return;
    const int result = paaReplace(variables.table, name, length_of(name), safe.data(), length_of(safe));
    if (result != 0) set_error(NO_MEMORY, "ghsProtectAll");
}

void protect_all() {
    if (variables.allProtected) return;
    std::string safe;
    for_each_variable([&](const char *name, char *value) {
        if (!is_own_name(name)) protect_current(name, value, safe);
    });
    variables.allProtected = true;
}

}  // namespace

const char *genhtml::value_in(PAA_S *table, std::string_view key) {
    if (table == nullptr || key.empty()) return nullptr;
    const void *value = paaFind(table, key.data(), length_of(key), nullptr);
    if (value != nullptr) return static_cast<const char *>(value);
    return paaerrno == 0 ? "" : nullptr;
}

GHS_VARIABLE_HANDLER genhtml::handler_of(std::string_view name) {
    if (variables.handlers == nullptr || name.empty()) return nullptr;
    return reinterpret_cast<GHS_VARIABLE_HANDLER>(paaFind(variables.handlers, name.data(), length_of(name), nullptr));
}

bool genhtml::ask_handler(std::string_view name, std::string &answer) {
    const GHS_VARIABLE_HANDLER handler = handler_of(name);
    if (handler == nullptr) return false;
    std::string asked(name);
    const char *said = handler(asked.data());
    if (said != nullptr) answer = said;  // at once: it may be the very name
    return said != nullptr;
}

void genhtml::enter_no_html() {
    variables.noHtml = true;
    protect_all();
}

int ghsSetVariableHandler(const char *name, GHS_VARIABLE_HANDLER function) {
    if (name == nullptr || *name == '\0') return 0;  // nobody asks for a variable without a name
    PAA_S *&handlers = variables.handlers;
    if (handlers == nullptr) handlers = paaCreate(PAAFLAGPOINTER);
    if (handlers == nullptr) return -1;
    const int length = length_of(name);
    if (function == nullptr) {
        paaRemove(handlers, name, length);
        return 0;
    }
    const bool is_new = paaFindKey(handlers, name, length) == nullptr;
    if (is_new && handlers->count >= MOST_HANDLERS) return -1;
    return paaReplace(handlers, name, length, reinterpret_cast<void *>(function), 0);
}

int ghsSaveToHash(PAA_S *table, const char *key, const char *value, int protect) {
    constexpr char label[] = "ghsSaveToHash";
    clear_error(label);
    if (key == nullptr || *key == '\0') return 0;
    if (value == nullptr) value = "";
    const int result =
        with_memory<int>(label, PAAERRNOMEM, [&] { return store_as_asked(table, key, value, protect != 0); });
    if (result != 0) set_error(NO_MEMORY, label);
    return result;
}

int ghsSaveForReplace(const char *key, const char *value, int protect) {
    constexpr char label[] = "ghsSaveForReplace";
    if (table_for_stores() == nullptr) {
        set_error(NO_MEMORY, label);
        return paaerrno;
    }
    const bool stays_as_it_is = protect == 0 && (!variables.noHtml || (key != nullptr && is_own_name(key)));
    if (protect == 0 && !variables.noHtml) variables.allProtected = false;
    return ghsSaveToHash(variables.table, key, value, stays_as_it_is ? 0 : 1);
}

void ghsProtectAll() {
    constexpr char label[] = "ghsProtectAll";
    clear_error(label);
    with_memory<bool>(label, false, [] {
        protect_all();
        return true;
    });
}

int ghsHashFetch(PAA_S *table, const char *key, char **value) {
    if (key == nullptr || value == nullptr) return 0;
    static char nothing[1];
    const char *found = value_in(table, key);
    nothing[0] = '\0';  // a caller may have written to it
    *value = found != nullptr ? const_cast<char *>(found) : nothing;
    return found != nullptr;
}

int ghsVarFetch(const char *key, char **value) { return ghsHashFetch(variables.table, key, value); }

int ghsVarDefined(const char *name) { return name != nullptr && variable(name) != nullptr; }

void ghsReplaceRemove(const char *key) {
    clear_error("ghsReplaceRemove");
    if (key != nullptr && variables.table != nullptr) paaRemove(variables.table, key, length_of(key));
}

void ghsReplaceFree() {
    if (variables.table == nullptr) return;
    paaDestroy(variables.table);
    variables.table = nullptr;
}

int ghsReadConfig(const char *file) {
    constexpr char label[] = "ghsReadConfig";
    clear_error(label);
    if (table_for_stores() == nullptr) {
        set_error(NO_MEMORY, label);
        return -1;
    }
    return read_key_file(label, variables.table, file) ? 0 : -1;
}
