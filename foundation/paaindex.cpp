/* Associative arrays: the index of a long chain.
 *
 * It lists the entries of the chain once more, in the chain's order, in blocks of marks. A mark is an entry and the
 * beginning of its key, so that a search hardly ever touches an entry but the one it ends at: what makes a search slow
 * is memory that is out of the cache, and blocks stay in it where scattered entries do not. One search over the blocks
 * and one within a block find any key, whatever keys a peer has chosen. */
#include <endian.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "foundation/paai.h"

namespace paa {
namespace {

constexpr uint32_t BLOCK_SIZE = 64;

struct Mark {
    uint64_t head;  // of the key: as a number, it compares like the bytes do
    PAA_ENTRY_S *entry;
};

/** Never empty. */
struct Block {
    uint32_t count;
    Mark marks[BLOCK_SIZE];
};

uint64_t head_of(Key key) {
    uint64_t head = 0;
    memcpy(&head, key.bytes, std::min<size_t>(key.length, sizeof head));  // the rest is 0: a shorter key comes first
    return be64toh(head);
}

}  // namespace
}  // namespace paa

struct PAA_INDEX_S {
    paa::Block **blocks;
    uint32_t count, room;
};

namespace paa {
namespace {

/** A key that is looked for. */
struct Wanted {
    Key key;
    uint64_t head;
};

int compare(const Mark &mark, const Wanted &wanted) {
    if (mark.head != wanted.head) return mark.head < wanted.head ? -1 : 1;
    return compare(key_of(mark.entry), wanted.key);
}

/** Puts an item into an array that has room for it, or takes one out. */
template <class Item>
void put_in(Item *array, uint32_t &count, uint32_t at, Item item) {
    std::copy_backward(array + at, array + count, array + count + 1);
    array[at] = item;
    ++count;
}
template <class Item>
void take_out(Item *array, uint32_t &count, uint32_t at) {
    std::copy(array + at + 1, array + count, array + at);
    --count;
}

/** Adds a block; it is to be filled at once. Null without memory. */
Block *add_block(PAA_INDEX_S *index, uint32_t at) {
    if (index->count == index->room) {
        const uint32_t room = index->room * 2 + 1;
        auto **blocks = static_cast<Block **>(realloc(index->blocks, room * sizeof(void *)));
        if (blocks == nullptr) return nullptr;
        index->blocks = blocks;
        index->room = room;
    }
    auto *block = static_cast<Block *>(malloc(sizeof(Block)));
    if (block == nullptr) return nullptr;
    block->count = 0;
    put_in(index->blocks, index->count, at, block);
    return block;
}

/** Moves half of a full block into a new one behind it; the spot goes along. */
bool split(PAA_INDEX_S *index, Spot *spot) {
    constexpr uint32_t HALF = BLOCK_SIZE / 2;
    Block *upper = add_block(index, spot->block + 1);
    if (upper == nullptr) return false;
    Block *lower = index->blocks[spot->block];
    memcpy(upper->marks, lower->marks + HALF, HALF * sizeof(Mark));
    lower->count = upper->count = HALF;
    if (spot->slot > HALF) *spot = {spot->block + 1, spot->slot - HALF};
    return true;
}

}  // namespace

PAA_INDEX_S *make_index(PAA_ENTRY_S *chain) {
    auto *index = static_cast<PAA_INDEX_S *>(calloc(1, sizeof(PAA_INDEX_S)));
    if (index == nullptr) return nullptr;
    bool is_complete = add_block(index, 0) != nullptr;
    for (PAA_ENTRY_S *entry = chain; entry != nullptr && is_complete; entry = entry->chainNext) {
        const uint32_t last = index->count - 1;
        is_complete = put_into_index(index, {last, index->blocks[last]->count}, entry);
    }
    if (is_complete) return index;
    free_index(index);
    return nullptr;
}

void free_index(PAA_INDEX_S *index) {
    if (index == nullptr) return;
    for (uint32_t at = 0; at < index->count; ++at) free(index->blocks[at]);
    free(index->blocks);
    free(index);
}

void find_by_index(const PAA_INDEX_S *index, Key key, Place *place) {
    const Wanted wanted{key, head_of(key)};
    Block **end = index->blocks + index->count;
    Block **beyond = std::partition_point(index->blocks, end,
                                          [&](const Block *block) { return compare(block->marks[0], wanted) <= 0; });
    Block **block = beyond == index->blocks ? beyond : beyond - 1;

    Mark *marks = (*block)->marks, *last = marks + (*block)->count - 1;
    Mark *mark = std::partition_point(marks, last + 1, [&](const Mark &each) { return compare(each, wanted) < 0; });
    place->spot = {static_cast<uint32_t>(block - index->blocks), static_cast<uint32_t>(mark - marks)};
    place->before = mark > last ? last->entry : mark->entry->chainPrev;
    place->at = mark > last ? last->entry->chainNext : mark->entry;
    place->found = mark <= last && compare(*mark, wanted) == 0;
}

bool put_into_index(PAA_INDEX_S *index, Spot spot, PAA_ENTRY_S *entry) {
    if (index->blocks[spot.block]->count == BLOCK_SIZE && !split(index, &spot)) return false;
    Block *block = index->blocks[spot.block];
    put_in(block->marks, block->count, spot.slot, {head_of(key_of(entry)), entry});
    return true;
}

bool take_from_index(PAA_INDEX_S *index, Spot spot) {
    Block *block = index->blocks[spot.block];
    take_out(block->marks, block->count, spot.slot);
    if (block->count > 0) return true;
    free(block);
    take_out(index->blocks, index->count, spot.block);
    return index->count > 0;
}

}  // namespace paa
