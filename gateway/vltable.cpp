/* Tables and columns: what the gateway has learnt of the database, the name map, and the list of columns that a
 * request is about.
 *
 * All tables hang in one list, in order of first use, and in an index by folded name, so that a flood of unknown names
 * stays cheap. A table without columns hangs in a second list as well, oldest first: it may be dropped to make room.
 * What is done with a table is the operations' matter. */
#include <ctype.h>
#include <stdlib.h>
#include <strings.h>

#include <algorithm>
#include <utility>

#include "foundation/config.h"
#include "gateway/vlsql.h"
#include "process/owned.h"

VL_ALIST_S columnList;
PAA_S *tableMap;

namespace gateway {
namespace {

constexpr int UNDEFINED_STEP = 10;
constexpr int LIST_STEP = 25;
constexpr ub2 DATE_BUFFER = 32;     // a date travels as text, longer than its stored form
constexpr ub4 MAX_COLUMNS = 65535;  // more is a driver's mistake

struct Tables {
    VL_TABLE_S *head, *tail;
    VL_TABLE_S *unknownHead, *unknownTail;
    int unknownCount;
    PAA_S *index;  // folded name to table
};
Tables tables;

/** A name in lower case: the key of both indices. One at a time. */
struct Folded {
    char text[RA_MAX_DATAGRAM];
    int length;  // 0: no key, since the name is empty or longer than any request
};

const Folded &folded(const char *name) {
    static Folded key;
    const size_t length = strnlen(name, sizeof key.text);
    key.length = length < sizeof key.text ? static_cast<int>(length) : 0;
    std::transform(name, name + key.length, key.text, [](unsigned char character) { return tolower(character); });
    return key;
}

void *find_in(PAA_S *index, const char *name) {
    const Folded &key = folded(name);
    return index == nullptr || key.length == 0 ? nullptr : paaFind(index, key.text, key.length, nullptr);
}

bool put_into(PAA_S *&index, const char *name, void *value) {
    if (index == nullptr) index = paaCreate(PAAFLAGPOINTER);
    const Folded &key = folded(name);
    return index != nullptr && paaInsert(index, key.text, key.length, value, sizeof value) == 0;
}

void free_index(PAA_S *&index) {
    if (index != nullptr) paaDestroy(index);
    index = nullptr;
}

char *copy_of(const char *label, const char *text, size_t length) {
    auto *copy = static_cast<char *>(process_malloc(label, static_cast<int>(length) + 1));
    if (copy != nullptr) memcpy(copy, text, length);
    return copy;
}

// ---- Table records

void append_unknown(VL_TABLE_S *table) {
    table->unknownNext = nullptr;
    table->unknownPrevious = tables.unknownTail;
    (tables.unknownTail != nullptr ? tables.unknownTail->unknownNext : tables.unknownHead) = table;
    tables.unknownTail = table;
    ++tables.unknownCount;
}

void remove_unknown(VL_TABLE_S *table) {
    (table->unknownPrevious != nullptr ? table->unknownPrevious->unknownNext : tables.unknownHead) =
        table->unknownNext;
    (table->unknownNext != nullptr ? table->unknownNext->unknownPrevious : tables.unknownTail) =
        table->unknownPrevious;
    table->unknownPrevious = table->unknownNext = nullptr;
    --tables.unknownCount;
}

void append(VL_TABLE_S *table) {
    table->previous = tables.tail;
    (tables.tail != nullptr ? tables.tail->next : tables.head) = table;
    tables.tail = table;
}

void unlink(VL_TABLE_S *table) {
    (table->previous != nullptr ? table->previous->next : tables.head) = table->next;
    (table->next != nullptr ? table->next->previous : tables.tail) = table->previous;
    if (table->columns == nullptr) remove_unknown(table);
}

void free_columns(VL_TABLE_S *table) {
    for (int i = 0; i < table->columnCount; ++i) {
        free(table->columns[i].attribute);
        free(table->columns[i].column);
        free(table->columns[i].value);
    }
    free(table->columns);
    table->columns = nullptr;
    table->columnCount = 0;
}

void free_table(VL_TABLE_S *table) {
    for (int i = 0; i < table->undefinedCount; ++i) free(table->undefined[i]);
    free(table->undefined);
    free_index(table->undefinedIndex);
    free_columns(table);
    free(table->name);
    free(table->physical);
    free(table);
}

void drop_table(VL_TABLE_S *table) {
    const Folded &key = folded(table->name);
    paaRemove(tables.index, key.text, key.length);
    unlink(table);
    free_table(table);
}

VL_TABLE_S *new_table(const char *name) {
    static constexpr char label[] = "createVLtable";
    auto *table = static_cast<VL_TABLE_S *>(process_malloc(label, sizeof(VL_TABLE_S)));
    if (table == nullptr) return nullptr;

    const char *physical = vlociName(name);
    table->physical = copy_of(label, physical, strlen(physical));
    table->name = copy_of(label, name, strlen(name));
    if (table->physical != nullptr && table->name != nullptr && put_into(tables.index, name, table)) return table;
    free_table(table);
    return nullptr;
}

// ---- Discovery of the columns

/** Makes room in columnList for all columns of a table. Its content goes: no request is under way yet. */
bool provide_list(int count) {
    if (count <= columnList.capacity) return true;
    free(columnList.entries);
    columnList = VL_ALIST_S{};
    columnList.entries = static_cast<VL_COLUMN_S **>(
        process_malloc("initVLtable", (count + 1) * static_cast<int>(sizeof(VL_COLUMN_S *))));
    if (columnList.entries == nullptr) return false;
    columnList.capacity = count;
    return true;
}

bool got(sword status, const char *call) {
    vlociReport(handles.errhp, status, call);
    return status == OCI_SUCCESS;
}

bool read_attribute(OCIParam *parameter, void *target, ub4 *size, ub4 attribute) {
    return got(oci.OCIAttrGet(parameter, OCI_DTYPE_PARAM, target, size, attribute, handles.errhp), "OCIAttrGet");
}

/** Reads what the database says of one column. A column that can't be read keeps its place, without a name. */
void describe_column(VL_COLUMN_S *column, int position) {
    static constexpr char label[] = "initVLtable";
    void *found = nullptr;
    if (!got(oci.OCIParamGet(handles.stmthp, OCI_HTYPE_STMT, handles.errhp, &found, static_cast<ub4>(position)),
             "OCIParamGet")) {
        return;
    }
    auto *parameter = static_cast<OCIParam *>(found);
    if (!read_attribute(parameter, &column->type, nullptr, OCI_ATTR_DATA_TYPE)) return;
    if (!read_attribute(parameter, &column->size, nullptr, OCI_ATTR_DATA_SIZE)) return;
    if (column->type == SQLT_DAT) column->size = DATE_BUFFER;

    char *name = nullptr;
    ub4 length = 0;
    if (!read_attribute(parameter, static_cast<void *>(&name), &length, OCI_ATTR_NAME)) return;
    if (name == nullptr || length == 0) return;
    column->value = static_cast<char *>(process_malloc(label, column->size + 1));
    if (column->value != nullptr) column->column = copy_of(label, name, length);
}

/** Learns a table's columns. Returns null, or the status that a client is to get. */
const char *discover(VL_TABLE_S *table) {
    static constexpr char label[] = "initVLtable";
    static char text[sizeof sql::SELECT_ALL_FROM + VL_MAX_TABLE_NAME];
    process_strlcpy(text, sizeof text, sql::SELECT_ALL_FROM);
    process_strlcat(text, sizeof text, table->physical);

    if (!prepare_text(label, text)) return "1";
    const Outcome described = execute_prepared(1, OCI_DESCRIBE_ONLY);
    if (described.code != OCI_SUCCESS && described.code != OCI_SUCCESS_WITH_INFO) {
        return described.code == OCIERRNOTABLE ? "1002" : "1";
    }
    ub4 count = 0;
    if (!got(oci.OCIAttrGet(handles.stmthp, OCI_HTYPE_STMT, &count, nullptr, OCI_ATTR_PARAM_COUNT, handles.errhp),
             "OCIAttrGet")) {
        return "1";
    }
    OwnedBlock<VL_COLUMN_S> columns;
    if (count <= MAX_COLUMNS && provide_list(static_cast<int>(count))) {
        columns.reset(process_malloc(label, static_cast<int>(count * sizeof(VL_COLUMN_S))));
    }
    if (columns.is_null()) {
        process_error("[%s]: out of memory!\n", label);
        return "1";
    }
    remove_unknown(table);
    table->columns = columns.release();
    table->columnCount = static_cast<int>(count);
    for (int i = 0; i < table->columnCount; ++i) describe_column(&table->columns[i], i + 1);
    return nullptr;
}

/** Length of a quoted part, quotes included; quotes inside of it come in pairs. 0 if it is none. */
size_t quoted_length(std::string_view name) {
    for (size_t i = 1; i < name.size(); ++i) {
        const auto code = static_cast<unsigned char>(name[i]);
        if (code < 32 || code == 127) return 0;
        if (code != '"') continue;
        const bool isPair = i + 1 < name.size() && name[i + 1] == '"';
        if (!isPair) return i > 1 ? i + 1 : 0;
        ++i;
    }
    return 0;
}

bool is_plain(char character) {
    return process_isalnum(static_cast<unsigned char>(character)) ||
           (character != '\0' && strchr("_$#.@", character) != nullptr);
}

size_t plain_length(std::string_view name) {
    return static_cast<size_t>(std::find_if_not(name.begin(), name.end(), is_plain) - name.begin());
}

// ---- Attribute names that a table lacks

bool grow_undefined(VL_TABLE_S *table) {
    const int size = table->undefinedSize + UNDEFINED_STEP;
    auto *grown = static_cast<char **>(realloc(table->undefined, static_cast<size_t>(size) * sizeof(char *)));
    if (grown == nullptr) return false;
    table->undefined = grown;
    table->undefinedSize = size;
    return true;
}

void keep_undefined(VL_TABLE_S *table, const char *attribute) {
    const bool isFull = table->undefined == nullptr || table->undefinedCount == table->undefinedSize;
    if (isFull && !grow_undefined(table)) return;
    OwnedBlock<char> name(copy_of("getVLcolumnByName", attribute, strnlen(attribute, VL_MAX_UNDEFINED_NAME)));
    if (name.is_null() || !put_into(table->undefinedIndex, name.get(), name.get())) return;
    table->undefined[table->undefinedCount++] = name.release();
}

bool is_undefined(const VL_TABLE_S *table, const char *attribute) {
    char name[VL_MAX_UNDEFINED_NAME + 1];
    process_strlcpy(name, sizeof name, attribute);
    return find_in(table->undefinedIndex, name) != nullptr;
}

void note_undefined(VL_TABLE_S *table, const char *attribute) {
    if (table->undefined == nullptr) {  // the first miss of a table is meant to be silent
        keep_undefined(table, attribute);
        return;
    }
    process_log("[%s] undefined attribute: \"%s\".\n", "getVLcolumnByName", printable(attribute).c_str());
    if (table->undefinedCount < VL_MAX_UNDEFINED_ATTRIBUTES && !is_undefined(table, attribute)) {
        keep_undefined(table, attribute);
    }
}

void report_undefined(const VL_TABLE_S *table) {
    static constexpr char label[] = "cleanup";
    process_log("\n[%s] undefined attributes for table = \"%s\" undefined entries = %d\n", label,
                printable(table->name).c_str(), table->undefinedCount);
    for (int i = 0; i < table->undefinedCount; ++i) {
        process_log("[%s] undefined attribute: \"%s\".\n", label, printable(table->undefined[i]).c_str());
    }
}

// ---- The list of columns

/** Gives columnList a larger array with its old content. */
bool widen_list(const char *label, int capacity) {
    auto *entries =
        static_cast<VL_COLUMN_S **>(process_malloc(label, capacity * static_cast<int>(sizeof(VL_COLUMN_S *))));
    if (entries == nullptr) return false;
    std::copy_n(columnList.entries, columnList.capacity, entries);
    free(columnList.entries);
    columnList.entries = entries;
    columnList.capacity = capacity;
    return true;
}

template <class Handle>
void free_handle(Handle *&handle, ub4 type) {
    if (handle != nullptr) oci.OCIHandleFree(handle, type);
    handle = nullptr;
}

}  // namespace

void read_name_map(const char *path) {
    if (tableMap != nullptr) config_free(tableMap);
    tableMap = config_read(nullptr, path);
}

void forget_columns(VL_TABLE_S *table) {
    if (table->columns == nullptr) return;
    columnList.count = 0;  // its entries may be this table's
    free_columns(table);
    append_unknown(table);
}

bool is_table_name(std::string_view name) {
    if (name.empty() || name.size() > VL_MAX_TABLE_NAME) return false;
    bool isSeparated = true;  // a quoted part stands alone between separators: nothing may be taken for an alias
    while (!name.empty()) {
        const bool isQuoted = name[0] == '"';
        const size_t length = isQuoted ? quoted_length(name) : plain_length(name);
        const bool beginsSeparated = name[0] == '.' || name[0] == '@';
        if (length == 0 || !(isSeparated || beginsSeparated)) return false;
        isSeparated = !isQuoted && (name[length - 1] == '.' || name[length - 1] == '@');
        name.remove_prefix(length);
    }
    return true;
}

}  // namespace gateway

using namespace gateway;

const char *vlociName(const char *name) {
    if (name == nullptr || name[0] == '\0' || tableMap == nullptr) return "";
    const char *physical = config_value(tableMap, name, 0);
    return physical != nullptr ? physical : name;
}

VL_TABLE_S *findVLtable(const char *name) {
    return name != nullptr ? static_cast<VL_TABLE_S *>(find_in(tables.index, name)) : nullptr;
}

VL_TABLE_S *createVLtable(const char *name) {
    if (name == nullptr || name[0] == '\0') return nullptr;
    if (VL_TABLE_S *known = findVLtable(name)) return known;

    if (tables.unknownCount >= VL_MAX_UNKNOWN_TABLES) drop_table(tables.unknownHead);
    VL_TABLE_S *table = new_table(name);
    if (table == nullptr) return nullptr;
    append(table);
    append_unknown(table);
    return table;
}

VL_TABLE_S *initVLtable(const char *name, RA_SESSION_S *session) {
    static constexpr char label[] = "initVLtable";
    VL_TABLE_S *table = findVLtable(name);
    if (table != nullptr && table->columns != nullptr) return table;

    const bool isNamed = name != nullptr && name[0] != '\0';
    if (isNamed && !is_table_name(table != nullptr ? table->physical : vlociName(name))) {
        process_log("[%s] not a table name: \"%.*s\".\n", label, VL_MAX_TABLE_NAME, printable(name).c_str());
        orSetResult(session, "1");
        return nullptr;
    }
    table = createVLtable(name);
    if (table == nullptr) {
        process_error("[%s]: out of memory!\n", label);
        orSetResult(session, "1");
        return nullptr;
    }
    VL_TRACE("[%s] createVLtable ok tablename=<%s>.\n", label, printable(name).c_str());

    const char *refusal = discover(table);
    if (refusal == nullptr) return table;
    orSetResult(session, refusal);
    return nullptr;
}

VL_COLUMN_S *getVLcolumnByName(VL_TABLE_S *table, const char *attribute) {
    if (table == nullptr || attribute == nullptr || attribute[0] == '\0') return nullptr;
    if (table->columns == nullptr || table->columnCount == 0) return nullptr;

    const char *physical = vlociName(attribute);
    for (int i = 0; i < table->columnCount; ++i) {
        VL_COLUMN_S *column = &table->columns[i];
        if (column->column == nullptr || strcasecmp(physical, column->column) != 0) continue;
        if (column->attribute == nullptr) {
            column->attribute = copy_of("getVLcolumnByName", attribute, strlen(attribute));
        }
        return column;
    }
    note_undefined(table, attribute);
    return nullptr;
}

void addColumn(VL_COLUMN_S *column) {
    static constexpr char label[] = "addColumn";
    if (columnList.count >= columnList.capacity) {
        const int former = columnList.capacity;
        if (!widen_list(label, former + LIST_STEP)) {
            process_error("[%s] out of memory maxsize = %d.\n", label, former);
            return;
        }
        if (former > 0) VL_TRACE("[%s] freed VL_ALIST_S array entries=<%d>.\n", label, former);
        VL_TRACE("[%s] create VL_ALIST_S array ok now entries=<%d>.\n", label, columnList.capacity);
    }
    columnList.entries[columnList.count++] = column;
}

void setColumn(VL_COLUMN_S *column, int index) {
    static constexpr char label[] = "setColumn";
    if (index < 0) return;
    if (columnList.capacity <= index && !widen_list(label, index + LIST_STEP)) {
        process_error("[%s] out of memory! maxsize = %d.\n", label, columnList.capacity);
        return;
    }
    columnList.entries[index] = column;
    columnList.count = std::max(columnList.count, index + 1);
}

void cleanup(void) {
    reset_request();
    free(columnList.entries);
    columnList = VL_ALIST_S{};
    while (tables.head != nullptr) {
        VL_TABLE_S *table = tables.head;
        report_undefined(table);
        unlink(table);
        free_table(table);
    }
    free_index(tables.index);
    if (tableMap != nullptr) config_free(tableMap);
    tableMap = nullptr;

    free_handle(handles.stmthp, OCI_HTYPE_STMT);
    free_handle(handles.envhp, OCI_HTYPE_ENV);
    handles = Handles{};  // the others went with their environment
}
