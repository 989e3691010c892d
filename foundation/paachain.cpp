/* Associative arrays: hash, and the chains of the buckets.
 *
 * A chain is a doubly linked list in key order, so that a miss ends halfway. The bucket counts are fixed and the hash
 * is no secret: a peer can choose keys that all fall into one bucket. A chain that proves long therefore gets an
 * index (paaindex.cpp); the list stays as it is beside it. */
#include <endian.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "foundation/paai.h"

namespace paa {
namespace {

constexpr uint32_t BUCKETS = 1019;
constexpr uint32_t BUCKETS_LARGE = 65521;
constexpr uint32_t HASH_SEED = 104729;
constexpr uint32_t SMALL_COUNT = 48;  // entries: their buckets lie in a few of the pages of a large array
constexpr uintptr_t PAGE_BYTES = 4096;
constexpr int LONG_CHAIN = 16;  // a walk over more entries than this is worth an index

/** The count is a constant, so that its remainders cost no divisions. */
template <uint32_t Buckets>
uint32_t hash(Key key) {
    uint32_t sum = HASH_SEED;
    const unsigned char *next = key.bytes;
    uint32_t left = key.length;
    for (; left > 3; left -= 4, next += 4) {
        uint32_t word;
        memcpy(&word, next, sizeof word);
        sum ^= le32toh(word);
    }
    sum %= Buckets;
    for (; left > 0; --left, ++next) {
        const uint32_t factor = (*next ^ 0x80u) - 0x80u;  // a signed byte, widened: 0x80 and up are large factors
        if (factor != 0) sum = sum * factor % Buckets;
    }
    return sum;
}

/** Has the system map the large array of buckets for writing. It maps memory page by page as it is used, and one that
 *  is read before it is written to costs two faults: a bucket is so written to first, with what it holds. A table that
 *  goes on growing will use all pages: they are mapped in one call then, which costs less. */
void map_for_insertion(PAA_S *table, uint32_t bucket) {
    if (table->isMapped != 0) return;
    if (table->count < SMALL_COUNT) {
        PAA_ENTRY_S *none = nullptr;
        std::atomic_ref(table->buckets[bucket]).compare_exchange_strong(none, nullptr, std::memory_order_relaxed);
        return;
    }
    const auto start = reinterpret_cast<uintptr_t>(table->buckets), page = start & ~(PAGE_BYTES - 1);
    const size_t size = start - page + BUCKETS_LARGE * sizeof(void *);
    madvise(reinterpret_cast<void *>(page), size, MADV_POPULATE_WRITE);  // an older system doesn't: no harm
    table->isMapped = 1;
}

PAA_INDEX_S *index_of(const PAA_S *table, uint32_t bucket) {
    return table->indexes != nullptr ? table->indexes[bucket] : nullptr;
}

/** Gives a long chain its index. Without memory there is just none. */
PAA_INDEX_S *add_index(PAA_S *table, uint32_t bucket) {
    if (table->indexes == nullptr) {
        table->indexes = static_cast<PAA_INDEX_S **>(calloc(bucket_count(table), sizeof(void *)));
        if (table->indexes == nullptr) return nullptr;
    }
    return table->indexes[bucket] = make_index(table->buckets[bucket]);
}

void drop_index(PAA_S *table, uint32_t bucket) {
    free_index(table->indexes[bucket]);
    table->indexes[bucket] = nullptr;
}

}  // namespace

uint32_t bucket_count(const PAA_S *table) { return (table->flags & PAAFLAGLARGE) != 0 ? BUCKETS_LARGE : BUCKETS; }

Place find_place(PAA_S *table, Key key, Purpose purpose) {
    const bool is_large = (table->flags & PAAFLAGLARGE) != 0;
    const uint32_t bucket = is_large ? hash<BUCKETS_LARGE>(key) : hash<BUCKETS>(key);
    if (is_large && purpose == Purpose::INSERTION) map_for_insertion(table, bucket);
    const PAA_INDEX_S *index = index_of(table, bucket);
    Place place{bucket, nullptr, table->buckets[bucket], false, {}};
    for (int steps = 0; place.at != nullptr && index == nullptr; ++steps) {
        const int order = compare(key_of(place.at), key);
        place.found = order == 0;
        if (order >= 0) return place;
        place.before = place.at;
        place.at = place.at->chainNext;
        if (steps == LONG_CHAIN) index = add_index(table, bucket);
    }
    if (index != nullptr) find_by_index(index, key, &place);
    return place;
}

void link_into_chain(PAA_S *table, const Place &place, PAA_ENTRY_S *entry) {
    PAA_INDEX_S *index = index_of(table, place.bucket);
    if (index != nullptr && !put_into_index(index, place.spot, entry)) drop_index(table, place.bucket);

    entry->chainPrev = place.before;
    entry->chainNext = place.at;
    if (place.at != nullptr) place.at->chainPrev = entry;
    PAA_ENTRY_S *&link = place.before != nullptr ? place.before->chainNext : table->buckets[place.bucket];
    link = entry;
}

void unlink_from_chain(PAA_S *table, const Place &place) {
    PAA_ENTRY_S *entry = place.at;
    PAA_INDEX_S *index = index_of(table, place.bucket);
    if (index != nullptr && !take_from_index(index, place.spot)) drop_index(table, place.bucket);

    if (entry->chainNext != nullptr) entry->chainNext->chainPrev = entry->chainPrev;
    PAA_ENTRY_S *&link = entry->chainPrev != nullptr ? entry->chainPrev->chainNext : table->buckets[place.bucket];
    link = entry->chainNext;
}

void free_indexes(PAA_S *table) {
    if (table->indexes == nullptr) return;
    for (uint32_t bucket = 0; bucket < bucket_count(table); ++bucket) free_index(table->indexes[bucket]);
    free(table->indexes);
    table->indexes = nullptr;
}

}  // namespace paa
