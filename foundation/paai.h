/* Associative arrays, the inner side: what the files paa*.cpp share. Not for other folders. */
#ifndef FOUNDATION_PAAI_H
#define FOUNDATION_PAAI_H

#include <cstdint>
#include <cstring>

#include "foundation/paa.h"

namespace paa {

/** A key as the calls hand it in: any bytes, at least one of them. */
struct Key {
    const unsigned char *bytes;
    uint32_t length;
};

/** Where a key is, or would be, in the index of its chain. */
struct Spot {
    uint32_t block, slot;
};

/** Where a key is, or would be, in the chain of its bucket. */
struct Place {
    uint32_t bucket;
    PAA_ENTRY_S *before;  // last entry with a lesser key; null: none
    PAA_ENTRY_S *at;      // first entry whose key isn't less; null: none
    bool found;           // `at` has this very key
    Spot spot;            // if the chain has an index
};

// ---- What all calls do; here, since it is a good part of the work of a look-up ----

constexpr uint32_t MAGIC = 0x9AA7AB1Eu;  // a live table

/** Opens a call: clears paaerrno, and sets it again if this is no table. */
inline bool is_table(const PAA_S *table) {
    const bool good = table != nullptr && table->magic == MAGIC;
    paaerrno = good ? 0 : PAAERRBADHANDLE;
    return good;
}

/** Results of a call that failed, with the code left in paaerrno. */
inline int refuse(int code) {
    paaerrno = code;
    return -1;
}
inline void *refuse_null(int code) {
    paaerrno = code;
    return nullptr;
}

/** Key order: negative, 0 or positive as `left` is less than, equal to or greater than `right`. */
inline int compare(Key left, Key right) {
    const uint32_t common = left.length < right.length ? left.length : right.length;
    const int order = memcmp(left.bytes, right.bytes, common);
    if (order != 0 || left.length == right.length) return order;
    return left.length < right.length ? -1 : 1;
}
inline Key key_of(const PAA_ENTRY_S *entry) { return {entry->key, entry->keyLength}; }

inline bool is_at(const PAA_ENTRY_S *entry, Key key) {
    return entry != nullptr && entry->keyLength == key.length && memcmp(entry->key, key.bytes, key.length) == 0;
}

/** Hands out a pointer with the length that goes with it, if the caller wants that. */
inline void *hand_out(void *bytes, uint32_t length, int *target) {
    if (target != nullptr) *target = static_cast<int>(length);
    return bytes;
}

// ---- paachain.cpp ----

uint32_t bucket_count(const PAA_S *table);

enum class Purpose { LOOK_UP, INSERTION };

/** Finds the place of a key. The table must have its buckets. A Place is good until the table changes. */
Place find_place(PAA_S *table, Key key, Purpose purpose = Purpose::LOOK_UP);

/** Puts an entry in at the place that was just found for its key. */
void link_into_chain(PAA_S *table, const Place &place, PAA_ENTRY_S *entry);

/** Takes the entry out that was just found. */
void unlink_from_chain(PAA_S *table, const Place &place);

void free_indexes(PAA_S *table);

// ---- paaindex.cpp ----

/** Makes the index of a chain that isn't empty. Null without memory. */
PAA_INDEX_S *make_index(PAA_ENTRY_S *chain);

void free_index(PAA_INDEX_S *index);

/** Fills all of a place but the bucket. */
void find_by_index(const PAA_INDEX_S *index, Key key, Place *place);

/** Puts an entry in at the spot that was just found for its key. False without memory: then the index is to go. */
bool put_into_index(PAA_INDEX_S *index, Spot spot, PAA_ENTRY_S *entry);

/** Takes the entry out that was just found. False if it was the last one: then the index is to go. */
bool take_from_index(PAA_INDEX_S *index, Spot spot);

}  // namespace paa

#endif
