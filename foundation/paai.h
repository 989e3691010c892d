/* Associative arrays, the inner side: what paa.cpp, paachain.cpp and paaiter.cpp share. Not for other folders. */
#ifndef FOUNDATION_PAAI_H
#define FOUNDATION_PAAI_H

#include <cstdint>

#include "foundation/paa.h"

namespace paa {

/** A key as the calls hand it in: any bytes, at least one of them. */
struct Key {
    const unsigned char *bytes;
    uint32_t length;
};

/** Where a key is, or would be, in the chain of its bucket. */
struct Place {
    uint32_t bucket;
    PAA_ENTRY_S *before;  // last entry with a lesser key; null: none
    PAA_ENTRY_S *at;      // first entry whose key isn't less; null: none
    bool found;           // `at` has this very key
};

// ---- paa.cpp ----

/** Opens a call: clears paaerrno, and sets it again if this is no table. */
bool is_table(const PAA_S *table);

/** Results of a call that failed, with the code left in paaerrno. */
int refuse(int code);
void *refuse_null(int code);

/** Key order: negative, 0 or positive as `left` is less than, equal to or greater than `right`. */
int compare(Key left, Key right);
inline Key key_of(const PAA_ENTRY_S *entry) { return {entry->key, entry->keyLength}; }

/** Hands out a pointer with the length that goes with it, if the caller wants that. */
void *hand_out(void *bytes, uint32_t length, int *target);

// ---- paachain.cpp ----

uint32_t bucket_count(const PAA_S *table);

/** Finds the place of a key. The table must have its buckets. A Place is good until the table changes. */
Place find_place(PAA_S *table, Key key);

/** Puts an entry in at the place that was just found for its key. */
void link_into_chain(PAA_S *table, const Place &place, PAA_ENTRY_S *entry);

/** Takes the entry out that was just found. */
void unlink_from_chain(PAA_S *table, const Place &place);

}  // namespace paa

#endif
