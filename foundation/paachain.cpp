/* Associative arrays: hash, and the chains of the buckets.
 *
 * A chain is a doubly linked list in key order, so that a miss ends halfway. The bucket counts are fixed and the hash
 * is no secret: a peer can choose keys that all fall into one bucket. A chain that proves long therefore gets an
 * index over the same entries, a splay tree: it needs no balance field and no luck, and whatever keys are chosen and
 * asked for, a series of calls costs the logarithm of the chain's length each. The list stays as it is beside it. */
#include <endian.h>

#include <cstdlib>
#include <cstring>

#include "foundation/paai.h"

namespace paa {
namespace {

constexpr uint32_t BUCKETS = 1019;
constexpr uint32_t BUCKETS_LARGE = 65521;
constexpr uint32_t HASH_SEED = 104729;
constexpr int LONG_CHAIN = 16;  // a walk over more entries than this is worth an index

enum Side { LESSER, GREATER };  // places in PAA_ENTRY_S::tree

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

/** Brings the key's entry, or one of its two neighbours if there is none, to the root of a tree that isn't empty.
 *  Returns how the new root's key compares to the key. */
int splay(PAA_ENTRY_S **root, Key key) {
    PAA_ENTRY_S taken_off{};  // tree[GREATER]: all that is less than the key, tree[LESSER]: all that is greater
    PAA_ENTRY_S *tips[2] = {&taken_off, &taken_off};
    PAA_ENTRY_S *top = *root;

    int order = compare(key_of(top), key);
    while (order != 0) {
        const Side side = order < 0 ? GREATER : LESSER;  // where the key lies, seen from top
        const Side other = order < 0 ? LESSER : GREATER;
        PAA_ENTRY_S *child = top->tree[side];
        if (child == nullptr) break;
        int child_order = compare(key_of(child), key);

        const bool same_way = order < 0 ? child_order < 0 : child_order > 0;
        if (same_way) {  // two steps the same way: turned over, which is what halves a long path
            top->tree[side] = child->tree[other];
            child->tree[other] = top;
            top = child;
            order = child_order;
            child = top->tree[side];
            if (child == nullptr) break;
            child_order = compare(key_of(child), key);
        }
        tips[side]->tree[side] = top;
        tips[side] = top;
        top = child;
        order = child_order;
    }

    tips[GREATER]->tree[GREATER] = top->tree[LESSER];
    tips[LESSER]->tree[LESSER] = top->tree[GREATER];
    top->tree[LESSER] = taken_off.tree[GREATER];
    top->tree[GREATER] = taken_off.tree[LESSER];
    *root = top;
    return order;
}

/** Makes the index of a chain: at first the chain itself, each entry hanging from the one before. The splaying shapes
 *  it. Without memory there is just no index. */
bool make_index(PAA_S *table, uint32_t bucket) {
    if (table->treeRoots == nullptr) {
        table->treeRoots = static_cast<PAA_ENTRY_S **>(calloc(bucket_count(table), sizeof(PAA_ENTRY_S *)));
        if (table->treeRoots == nullptr) return false;
    }
    for (PAA_ENTRY_S *entry = table->buckets[bucket]; entry != nullptr; entry = entry->chainNext) {
        entry->tree[LESSER] = nullptr;
        entry->tree[GREATER] = entry->chainNext;
    }
    table->treeRoots[bucket] = table->buckets[bucket];
    return true;
}

PAA_ENTRY_S **index_of(PAA_S *table, uint32_t bucket) {
    const bool indexed = table->treeRoots != nullptr && table->treeRoots[bucket] != nullptr;
    return indexed ? &table->treeRoots[bucket] : nullptr;
}

Place find_by_index(PAA_S *table, uint32_t bucket, Key key) {
    PAA_ENTRY_S **root = &table->treeRoots[bucket];
    const int order = splay(root, key);
    if (order < 0) return {bucket, *root, (*root)->chainNext, false};
    return {bucket, (*root)->chainPrev, *root, order == 0};
}

/** The root is a neighbour of the new entry, since the entry's place was just looked for: the tree parts there. */
void link_into_index(PAA_ENTRY_S **root, const Place &place, PAA_ENTRY_S *entry) {
    const Side side = *root == place.before ? LESSER : GREATER;  // the old root's side of the entry
    const Side other = side == LESSER ? GREATER : LESSER;
    entry->tree[side] = *root;
    entry->tree[other] = (*root)->tree[other];
    (*root)->tree[other] = nullptr;
    *root = entry;
}

void unlink_from_index(PAA_ENTRY_S **root, PAA_ENTRY_S *entry) {
    splay(root, key_of(entry));
    PAA_ENTRY_S *rest = entry->tree[LESSER];
    if (rest == nullptr) {
        *root = entry->tree[GREATER];
        return;
    }
    splay(&rest, key_of(entry));  // its greatest comes up, and so has nothing greater below it
    rest->tree[GREATER] = entry->tree[GREATER];
    *root = rest;
}

}  // namespace

uint32_t bucket_count(const PAA_S *table) { return (table->flags & PAAFLAGLARGE) != 0 ? BUCKETS_LARGE : BUCKETS; }

Place find_place(PAA_S *table, Key key) {
    const bool is_large = (table->flags & PAAFLAGLARGE) != 0;
    const uint32_t bucket = is_large ? hash<BUCKETS_LARGE>(key) : hash<BUCKETS>(key);
    if (index_of(table, bucket) != nullptr) return find_by_index(table, bucket, key);

    Place place{bucket, nullptr, table->buckets[bucket], false};
    for (int steps = 0; place.at != nullptr; ++steps) {
        const int order = compare(key_of(place.at), key);
        if (order >= 0) {
            place.found = order == 0;
            break;
        }
        place.before = place.at;
        place.at = place.at->chainNext;
        if (steps == LONG_CHAIN && make_index(table, bucket)) return find_by_index(table, bucket, key);
    }
    return place;
}

void link_into_chain(PAA_S *table, const Place &place, PAA_ENTRY_S *entry) {
    if (PAA_ENTRY_S **root = index_of(table, place.bucket)) link_into_index(root, place, entry);

    entry->chainPrev = place.before;
    entry->chainNext = place.at;
    if (place.at != nullptr) place.at->chainPrev = entry;
    PAA_ENTRY_S *&link = place.before != nullptr ? place.before->chainNext : table->buckets[place.bucket];
    link = entry;
}

void unlink_from_chain(PAA_S *table, const Place &place) {
    PAA_ENTRY_S *entry = place.at;
    if (PAA_ENTRY_S **root = index_of(table, place.bucket)) unlink_from_index(root, entry);

    if (entry->chainNext != nullptr) entry->chainNext->chainPrev = entry->chainPrev;
    PAA_ENTRY_S *&link = entry->chainPrev != nullptr ? entry->chainPrev->chainNext : table->buckets[place.bucket];
    link = entry->chainNext;
}

}  // namespace paa
