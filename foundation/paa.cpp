/* Associative arrays: tables, and the calls on one key.
 *
 * An entry hangs in the chain of its bucket (paachain.cpp: to be found) and in the list by age (to be walked,
 * paaiter.cpp): in both or in neither, and it is linked only when nothing can fail any more. */
#include "foundation/paa.h"

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "foundation/paai.h"

int32_t paaerrno = 0;

namespace paa {
namespace {

constexpr uint32_t MOST_BEHIND_ENTRY = 128;  // a longer value gets a block of its own: it may be exchanged
constexpr uint32_t POINTER_LENGTH = 4;       // what the length of a stored pointer reads as, whatever its real size

/** A value as the calls hand it in. */
struct Value {
    const void *bytes;
    uint32_t length;
};

bool stores_pointers(const PAA_S *table) { return (table->flags & PAAFLAGPOINTER) != 0; }

/** Opens a call on a key. A null key goes before a negative length: config_read passes null and -1 on together when
 *  reading fails, and its message shows the code for the null. */
bool takes_key(const PAA_S *table, const void *key, int length) {
    if (!is_table(table)) return false;
    const bool bad_length = length == 0 || (length < 0 && key != nullptr);
    if (bad_length || key == nullptr) paaerrno = bad_length ? PAAERRNOKEYLEN : PAAERRNOKEY;
    return paaerrno == 0;
}

bool takes_value(const void *value, int length) {
    if (length < 0 || (length > 0 && value == nullptr)) paaerrno = PAAERRNODATA;
    return paaerrno == 0;
}

Key as_key(const void *key, int length) {
    return {static_cast<const unsigned char *>(key), static_cast<uint32_t>(length)};
}

Value as_value(const void *value, int length) { return {value, static_cast<uint32_t>(length)}; }

/** Finds an entry, or leaves PAAERRNOTFOUND. Who reads many keys mostly asks for them in the order in which they were
 *  put in: after two such questions the answer to the next is guessed, which saves the hash and the bucket. */
PAA_ENTRY_S *find(PAA_S *table, Key key) {
    if (is_at(table->guess, key)) {
        table->lastFound = table->guess;
        table->guess = table->guess->orderNext;
        return table->lastFound;
    }
    const Place place = table->buckets != nullptr ? find_place(table, key) : Place{};
    if (!place.found) {
        paaerrno = PAAERRNOTFOUND;
        return nullptr;
    }
    if (place.at != table->lastFound) {
        table->guess = place.at->orderPrev == table->lastFound ? place.at->orderNext : nullptr;
        table->lastFound = place.at;
    }
    return place.at;
}

/** Copies two runs of bytes to a place and puts a NUL behind them. */
void *copy_to(void *place, Value head, Value tail) {
    auto *block = static_cast<unsigned char *>(place);
    if (head.length > 0) memcpy(block, head.bytes, head.length);
    if (tail.length > 0) memcpy(block + head.length, tail.bytes, tail.length);
    block[size_t{head.length} + tail.length] = 0;
    return block;
}

/** The same in a block of its own. Null without memory. */
void *joined(Value head, Value tail) {
    void *block = malloc(size_t{head.length} + tail.length + 1);
    return block != nullptr ? copy_to(block, head, tail) : nullptr;
}

/** Where behind an entry a value stands that came with it: any record may be a value, so it is aligned for all. */
size_t value_offset(const PAA_ENTRY_S *entry) {
    constexpr size_t ALIGNMENT = alignof(std::max_align_t);
    return (sizeof *entry + entry->keyLength + 1 + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
}

void *place_behind(PAA_ENTRY_S *entry) { return reinterpret_cast<unsigned char *>(entry) + value_offset(entry); }

void free_value(PAA_ENTRY_S *entry) {
    if (entry->value != place_behind(entry)) free(entry->value);
}

/** Exchanges the value of an entry for a block of the table's own. */
void set_value(PAA_ENTRY_S *entry, void *block, uint32_t length) {
    free_value(entry);
    entry->value = block;
    entry->valueLength = length;
}

void set_pointer(PAA_ENTRY_S *entry, const void *pointer) {
    entry->value = const_cast<void *>(pointer);
    entry->valueLength = POINTER_LENGTH;
}

void free_entry(const PAA_S *table, PAA_ENTRY_S *entry) {
    if (!stores_pointers(table)) free_value(entry);
    free(entry);
}

/** Makes an entry that hangs nowhere yet. The key stands behind it in the same block, and so does a short value: fewer
 *  allocations, and near when keys are compared. */
PAA_ENTRY_S *make_entry(const PAA_S *table, Key key, Value value) {
    PAA_ENTRY_S blank{};
    blank.keyLength = key.length;
    const bool stands_behind = !stores_pointers(table) && value.length <= MOST_BEHIND_ENTRY;
    const size_t size =
        value_offset(&blank) + (stands_behind ? value.length : 0) + 1;  // its place is never another's
    auto *entry = static_cast<PAA_ENTRY_S *>(malloc(size));
    if (entry == nullptr) return nullptr;
    *entry = blank;
    entry->key = reinterpret_cast<unsigned char *>(entry + 1);
    memcpy(entry->key, key.bytes, key.length);
    entry->key[key.length] = 0;

    if (stores_pointers(table)) {
        set_pointer(entry, value.bytes);
        return entry;
    }
    void *block = stands_behind ? copy_to(place_behind(entry), value, {}) : joined(value, {});
    if (block == nullptr) {
        free(entry);
        return nullptr;
    }
    entry->value = block;
    entry->valueLength = value.length;
    return entry;
}

void link_as_newest(PAA_S *table, PAA_ENTRY_S *entry) {
    entry->orderPrev = table->last;
    PAA_ENTRY_S *&link = table->last != nullptr ? table->last->orderNext : table->first;
    link = entry;
    table->last = entry;
}

void unlink_from_order(PAA_S *table, PAA_ENTRY_S *entry) {
    PAA_ENTRY_S *&before = entry->orderPrev != nullptr ? entry->orderPrev->orderNext : table->first;
    PAA_ENTRY_S *&behind = entry->orderNext != nullptr ? entry->orderNext->orderPrev : table->last;
    before = entry->orderNext;
    behind = entry->orderPrev;
}

/** The set of keys has changed: walks in progress end, the sorted order has to be made anew, nothing is guessed. */
void end_walks(PAA_S *table) {
    table->lastFound = table->guess = nullptr;
    free(table->sortedIndex);
    table->sortedIndex = nullptr;
    table->current = nullptr;
}

int insert(PAA_S *table, Key key, Value value) {
    paaerrno = 0;
    if (table->buckets == nullptr) {
        table->buckets = static_cast<PAA_ENTRY_S **>(calloc(bucket_count(table), sizeof(PAA_ENTRY_S *)));
        if (table->buckets == nullptr) return refuse(PAAERRNOMEM);
    }
    const Place place = find_place(table, key, Purpose::INSERTION);
    if (place.found) return refuse(PAAERREXISTS);

    PAA_ENTRY_S *entry = make_entry(table, key, value);
    if (entry == nullptr) return refuse(PAAERRNOMEM);

    link_into_chain(table, place, entry);
    link_as_newest(table, entry);
    end_walks(table);
    ++table->count;
    return 0;
}

}  // namespace
}  // namespace paa

using namespace paa;

PAA_S *paaCreate(int flags) {
    paaerrno = 0;
    auto *table = static_cast<PAA_S *>(calloc(1, sizeof(PAA_S)));
    if (table == nullptr) return static_cast<PAA_S *>(refuse_null(PAAERRNOMEM));
    table->magic = MAGIC;
    table->flags = static_cast<uint32_t>(flags) & (PAAFLAGPOINTER | PAAFLAGLARGE);
    return table;
}

int paaDestroy(PAA_S *table) {
    if (paaClear(table) != 0) return -1;
    free(table);
    return 0;
}

int paaClear(PAA_S *table) {
    if (!is_table(table)) return -1;
    for (PAA_ENTRY_S *entry = table->first; entry != nullptr;) {
        PAA_ENTRY_S *next = entry->orderNext;
        free_entry(table, entry);
        entry = next;
    }
    free_indexes(table);
    free(table->buckets);
    free(table->sortedIndex);
    const uint32_t flags = table->flags;
    *table = PAA_S{};
    table->magic = MAGIC;
    table->flags = flags;
    return 0;
}

int paaInsert(PAA_S *table, const void *key, int keyLength, const void *value, int valueLength) {
    if (!takes_key(table, key, keyLength) || !takes_value(value, valueLength)) return -1;
    return insert(table, as_key(key, keyLength), as_value(value, valueLength));
}

int paaReplace(PAA_S *table, const void *key, int keyLength, const void *value, int valueLength) {
    if (!takes_key(table, key, keyLength) || !takes_value(value, valueLength)) return -1;
    const Value fresh = as_value(value, valueLength);
    PAA_ENTRY_S *entry = find(table, as_key(key, keyLength));
    if (entry == nullptr) return insert(table, as_key(key, keyLength), fresh);

    if (stores_pointers(table)) {
        set_pointer(entry, value);
        return 0;
    }
    void *block = nullptr;  // and so it stays for an empty value: callers tell it from an inserted one
    if (valueLength > 0) {
        block = joined(fresh, {});
        if (block == nullptr) return refuse(PAAERRNOMEM);
    }
    set_value(entry, block, fresh.length);
    return 0;
}

int paaAppend(PAA_S *table, const void *key, int keyLength, const void *value, int valueLength) {
    if (!takes_key(table, key, keyLength) || !takes_value(value, valueLength)) return -1;
    const Value tail = as_value(value, valueLength);
    PAA_ENTRY_S *entry = find(table, as_key(key, keyLength));
    if (entry == nullptr) return insert(table, as_key(key, keyLength), tail);

    if (stores_pointers(table)) return refuse(PAAERREXISTS);
    if (valueLength == 0) return 0;
    if (tail.length > INT_MAX - entry->valueLength) return refuse(PAAERRNOMEM);  // lengths go out as int

    void *block = joined({entry->value, entry->valueLength}, tail);
    if (block == nullptr) return refuse(PAAERRNOMEM);
    set_value(entry, block, entry->valueLength + tail.length);
    return 0;
}

void *paaFind(PAA_S *table, const void *key, int keyLength, int *valueLength) {
    if (!takes_key(table, key, keyLength)) return nullptr;
    const PAA_ENTRY_S *entry = find(table, as_key(key, keyLength));
    return entry != nullptr ? hand_out(entry->value, entry->valueLength, valueLength) : nullptr;
}

void *paaFindKey(PAA_S *table, const void *key, int keyLength) {
    if (!takes_key(table, key, keyLength)) return nullptr;
    const PAA_ENTRY_S *entry = find(table, as_key(key, keyLength));
    return entry != nullptr ? entry->key : nullptr;
}

int paaRemove(PAA_S *table, const void *key, int keyLength) {
    if (!takes_key(table, key, keyLength)) return -1;
    if (table->buckets == nullptr) return refuse(PAAERRNOTFOUND);
    const Place place = find_place(table, as_key(key, keyLength));
    if (!place.found) return refuse(PAAERRNOTFOUND);

    unlink_from_chain(table, place);
    unlink_from_order(table, place.at);
    end_walks(table);
    --table->count;
    free_entry(table, place.at);
    return 0;
}
