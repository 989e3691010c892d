/* Associative arrays: the two walks, by age and by key, and the statistics. */
#include <cstdio>
#include <cstdlib>

#include "foundation/paa.h"
#include "foundation/paai.h"

namespace paa {
namespace {

void *hand_out_key(const PAA_ENTRY_S *entry, int *keyLength) {
    return hand_out(entry->key, entry->keyLength, keyLength);
}

int compare_entries(const void *left, const void *right) {
    return compare(key_of(*static_cast<PAA_ENTRY_S *const *>(left)),
                   key_of(*static_cast<PAA_ENTRY_S *const *>(right)));
}

/** Sees to it that the sorted index is there. The table isn't empty. */
bool sort_table(PAA_S *table) {
    if (table->sortedIndex != nullptr) return true;
    auto **index = static_cast<PAA_ENTRY_S **>(malloc(table->count * sizeof(PAA_ENTRY_S *)));
    if (index == nullptr) return false;

    uint32_t filled = 0;
    for (PAA_ENTRY_S *entry = table->first; entry != nullptr && filled < table->count; entry = entry->orderNext) {
        index[filled++] = entry;
    }
    qsort(index, filled, sizeof(PAA_ENTRY_S *), compare_entries);
    table->sortedIndex = index;
    return true;
}

bool is_sorted(const PAA_S *table) { return table->count > 0 && table->sortedIndex != nullptr; }

void *start_sorted(PAA_S *table, bool at_end, int *keyLength) {
    if (!is_table(table)) return nullptr;
    if (table->count == 0) return refuse_null(PAAERRNOTFOUND);
    if (!sort_table(table)) return refuse_null(PAAERRNOMEM);
    table->sortedCursor = at_end ? table->count - 1 : 0;
    return hand_out_key(table->sortedIndex[table->sortedCursor], keyLength);
}

long chain_length(const PAA_ENTRY_S *entry) {
    long length = 0;
    for (; entry != nullptr; entry = entry->chainNext) ++length;
    return length;
}

}  // namespace
}  // namespace paa

using namespace paa;

void *paaFirst(PAA_S *table, int *keyLength) {
    if (!is_table(table)) return nullptr;
    if (table->count == 0) return refuse_null(PAAERRNOTFOUND);
    if (table->first == nullptr) return refuse_null(PAAERRCORRUPT);
    table->current = table->first;
    return hand_out_key(table->current, keyLength);
}

void *paaNext(PAA_S *table, int *keyLength) {
    if (!is_table(table)) return nullptr;
    if (table->current == nullptr) return refuse_null(PAAERRNOCURRENT);
    if (table->current->orderNext == nullptr) return refuse_null(PAAERRNOTFOUND);
    table->current = table->current->orderNext;
    return hand_out_key(table->current, keyLength);
}

void *paaCurrent(PAA_S *table, int *valueLength) {
    if (!is_table(table)) return nullptr;
    if (table->current == nullptr) return refuse_null(PAAERRNOCURRENT);
    return hand_out(table->current->value, table->current->valueLength, valueLength);
}

void *paaFirstSorted(PAA_S *table, int *keyLength) { return start_sorted(table, false, keyLength); }

void *paaLastSorted(PAA_S *table, int *keyLength) { return start_sorted(table, true, keyLength); }

void *paaNextSorted(PAA_S *table, int *keyLength) {
    if (!is_table(table)) return nullptr;
    if (!is_sorted(table)) return refuse_null(PAAERRNOCURRENT);
    if (table->sortedCursor >= table->count - 1) return refuse_null(PAAERRNOTFOUND);
    return hand_out_key(table->sortedIndex[++table->sortedCursor], keyLength);
}

void *paaPrevSorted(PAA_S *table, int *keyLength) {
    if (!is_table(table)) return nullptr;
    if (!is_sorted(table)) return refuse_null(PAAERRNOCURRENT);
    if (table->sortedCursor == 0) return refuse_null(PAAERRNOTFOUND);
    return hand_out_key(table->sortedIndex[--table->sortedCursor], keyLength);
}

void *paaCurrentSorted(PAA_S *table, int *valueLength) {
    if (!is_table(table)) return nullptr;
    if (!is_sorted(table) || table->sortedCursor >= table->count) return refuse_null(PAAERRNOCURRENT);
    const PAA_ENTRY_S *entry = table->sortedIndex[table->sortedCursor];
    return hand_out(entry->value, entry->valueLength, valueLength);
}

int paaDump(PAA_S *table) {
    if (!is_table(table)) return -1;
    fprintf(stderr, "# total %ld entries\n", static_cast<long>(table->count));
    if (table->buckets == nullptr) return 0;
    for (uint32_t bucket = 0; bucket < bucket_count(table); ++bucket) {
        const long length = chain_length(table->buckets[bucket]);
        if (length > 0) fprintf(stderr, "## %03ld %ld entries\n", static_cast<long>(bucket), length);
    }
    return 0;
}
