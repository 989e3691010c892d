/* Huffman coder: makes a prefix code from byte frequencies, compresses and expands with it.
 *
 * There is no table in the compressed bytes. So both sides must come to the same code from the same frequencies, and
 * which of equally light nodes goes first is part of the format. */
#include <errno.h>
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "ivs/ivs.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

using Node = IV_COMPRESSION_NODE_S;

constexpr char compress_label[] = "Biv_compress";
constexpr char decompress_label[] = "iv_decompress";

constexpr int BYTE_BITS = 8;

// ---- Building the code

/** The nodes that have no parent yet, in the order in which they came. */
class WorkList {
public:
    bool holds_one() const { return first_ == last_; }
    Node *first() const { return first_; }

    void append(Node *node) {
        node->prev = last_;
        node->next = nullptr;
        (last_ != nullptr ? last_->next : first_) = node;
        last_ = node;
    }

    void unlink(Node *node) {
        (node->prev != nullptr ? node->prev->next : first_) = node->next;
        (node->next != nullptr ? node->next->prev : last_) = node->prev;
        node->prev = node->next = nullptr;
    }

private:
    Node *first_ = nullptr;
    Node *last_ = nullptr;
};

struct Pair {
    Node *lowest;
    Node *second;
};

/** Of the list's nodes the two lightest; among equals the earlier one counts as lighter. */
Pair two_lightest(const WorkList &list) {
    Pair found{list.first(), list.first()->next};
    if (found.second->weight < found.lowest->weight) std::swap(found.lowest, found.second);
    for (Node *node = list.first()->next->next; node != nullptr; node = node->next) {
        if (node->weight < found.lowest->weight) {
            found = {node, found.lowest};
        } else if (node->weight < found.second->weight) {
            found.second = node;
        }
    }
    return found;
}

void fill_leaves(IV_COMPRESSION_S *table, const uint32_t *counts, uint32_t end_weight) {
    std::for_each(table->nodes, std::end(table->nodes), [](Node &node) { node.symbol = IV_COMPRESSION_INNER; });
    for (int symbol = 0; symbol < IV_COMPRESSION_LEAVES; symbol++) {
        table->nodes[symbol].weight = symbol == IV_COMPRESSION_END ? end_weight : counts[symbol];
        table->nodes[symbol].symbol = symbol;
    }
}

void grow_tree(IV_COMPRESSION_S *table) {
    WorkList list;
    for (int leaf = 0; leaf < IV_COMPRESSION_LEAVES; leaf++) list.append(&table->nodes[leaf]);
    for (Node *inner = table->nodes + IV_COMPRESSION_LEAVES; !list.holds_one(); inner++) {
        const auto [lowest, second] = two_lightest(list);
        inner->child0 = lowest;
        inner->child1 = second;
        inner->weight = lowest->weight + second->weight;
        list.unlink(lowest);
        list.unlink(second);
        list.append(inner);
    }
    table->root = list.first();
}

void extend_code(const Node &parent, bool bit, Node *child) {
    memcpy(child->code, parent.code, sizeof child->code);
    if (bit) child->code[parent.length / BYTE_BITS] |= static_cast<unsigned char>(0x80 >> parent.length % BYTE_BITS);
    child->length = parent.length + 1;
}

/** Hands the codes down. A parent stands behind its children in the table, and the root at its end. */
void assign_codes(IV_COMPRESSION_S *table) {
    for (const Node *parent = table->root; parent->symbol == IV_COMPRESSION_INNER; parent--) {
        extend_code(*parent, false, parent->child0);
        extend_code(*parent, true, parent->child1);
    }
}

uint32_t percent_saved(uint32_t bits, uint32_t compressed) {
    if (bits == 0 || compressed == 0 || bits <= compressed) return 0;
    return 100 - static_cast<uint32_t>(compressed * 100.0 / bits);
}

// ---- Using it

/** A zero-filled block for a result; sizes that no block can have fail as those that memory is short for. */
void *make_target(const char *label, int64_t size) {
    if (size <= INT_MAX) return process_malloc(label, static_cast<int>(size));
    errno = ENOMEM;
    process_error("%s: malloc %lld bytes failed! errmsg %s\n", label, static_cast<long long>(size), strerror(errno));
    return nullptr;
}

int64_t compressed_bits(const IV_COMPRESSION_S *table, const unsigned char *source, int length) {
    int64_t bits = table->nodes[IV_COMPRESSION_END].length;
    std::for_each(source, source + length, [&](unsigned char byte) { bits += table->nodes[byte].length; });
    return bits;
}

/** Lays codes one behind the other into a block of zero bytes. */
class BitWriter {
public:
    BitWriter(unsigned char *target, int64_t size) : target_(target), room_(size * BYTE_BITS) {}

    /** False, and nothing is written, if the code doesn't fit. */
    bool put(const Node &leaf) {
        if (room_ < position_ + leaf.length) return false;
        for (int done = 0; done < leaf.length; done += BYTE_BITS) {
            put_bits(leaf.code[done / BYTE_BITS], std::min(leaf.length - done, BYTE_BITS));
        }
        return true;
    }
    int bytes() const { return static_cast<int>((position_ + BYTE_BITS - 1) / BYTE_BITS); }

private:
    /** Takes the top `count` bits; those below are 0. */
    void put_bits(unsigned bits, int count) {
        unsigned char *const byte = target_ + position_ / BYTE_BITS;
        const auto used = static_cast<int>(position_ % BYTE_BITS);
        byte[0] |= static_cast<unsigned char>(bits >> used);
        if (used + count > BYTE_BITS) byte[1] |= static_cast<unsigned char>(bits << (BYTE_BITS - used));
        position_ += count;
    }
    unsigned char *target_;
    int64_t room_;
    int64_t position_ = 0;
};

bool write_codes(const IV_COMPRESSION_S *table, const unsigned char *source, int length, BitWriter *writer) {
    const bool all_fit =
        std::all_of(source, source + length, [&](unsigned char byte) { return writer->put(table->nodes[byte]); });
    return all_fit && writer->put(table->nodes[IV_COMPRESSION_END]);
}

/** Walks the bits down the tree and hands each byte to `store`, until that says false, which is the result.
 *
 *  A leaf is looked at when the next bit is. So one that the very last bit leads to is left out: there the end mark
 *  is missing anyway. */
template <class Store>
bool walk_codes(const IV_COMPRESSION_S *table, const unsigned char *source, int length, Store store) {
    const Node *node = table->root;
    for (int place = 0; place < length; place++) {
        for (int bit = 0; bit < BYTE_BITS;) {
            if (node->symbol < 0) {
                node = (source[place] & 0x80 >> bit) != 0 ? node->child1 : node->child0;
                bit++;
            } else if (node->symbol == IV_COMPRESSION_END) {
                return true;
            } else {
                if (!store(static_cast<unsigned char>(node->symbol))) return false;
                node = table->root;
            }
        }
    }
    return true;
}

int64_t expanded_bytes(const IV_COMPRESSION_S *table, const unsigned char *source, int length) {
    int64_t count = 0;
    walk_codes(table, source, length, [&](unsigned char) {
        count++;
        return true;
    });
    return count;
}

void clear(void *target, int size) {
    if (size > 0) memset(target, 0, static_cast<size_t>(size));
}

}  // namespace

IV_COMPRESSION_S *iv_init_compression(const uint32_t *counts, uint32_t endWeight, uint32_t *bitsOut,
                                      uint32_t *compressedOut, uint32_t *savingsOut) {
    auto *const table =
        static_cast<IV_COMPRESSION_S *>(process_malloc("iv_init_compression", sizeof(IV_COMPRESSION_S)));
    if (table == nullptr) return nullptr;
    fill_leaves(table, counts, endWeight);
    grow_tree(table);
    assign_codes(table);

    uint32_t bits = 0;
    uint32_t compressed = 0;
    for (int leaf = 0; leaf < IV_COMPRESSION_LEAVES; leaf++) {
        const Node &node = table->nodes[leaf];
        bits += node.weight * BYTE_BITS;
        compressed += node.weight * static_cast<uint32_t>(node.length);
    }
    if (bitsOut != nullptr) *bitsOut = bits;
    if (compressedOut != nullptr) *compressedOut = compressed;
    if (savingsOut != nullptr) *savingsOut = percent_saved(bits, compressed);
    return table;
}

void *Biv_compress(IV_COMPRESSION_S *table, const void *source, int length, void *target, int targetSize,
                   int *resultLength) {
    const auto *const bytes = static_cast<const unsigned char *>(source);
    length = std::max(length, 0);
    int64_t room = std::max(targetSize, 0);
    OwnedBlock<unsigned char> made;
    if (target != nullptr) {
        clear(target, targetSize);
    } else {
        room = compressed_bits(table, bytes, length) / BYTE_BITS + 1;
        made.reset(make_target(compress_label, room + 1));
        if (made.is_null()) return nullptr;
        target = made.get();
    }

    BitWriter writer(static_cast<unsigned char *>(target), room);
    if (!write_codes(table, bytes, length, &writer)) return nullptr;
    if (resultLength != nullptr) *resultLength = writer.bytes();
    made.release();
    return target;
}

void *iv_decompress(IV_COMPRESSION_S *table, const void *source, int length, void *target, int targetSize,
                    int *resultLength) {
    const auto *const codes = static_cast<const unsigned char *>(source);
    int64_t room = std::max(targetSize, 0);
    OwnedBlock<unsigned char> made;
    if (target != nullptr) {
        clear(target, targetSize);
    } else {
        room = expanded_bytes(table, codes, length);
        made.reset(make_target(decompress_label, room + 1));
        if (made.is_null()) return nullptr;
        target = made.get();
    }

    int stored = 0;
    auto *const bytes = static_cast<unsigned char *>(target);
    const bool all_fit = walk_codes(table, codes, length, [&](unsigned char byte) {
        if (stored == room) return false;
        bytes[stored++] = byte;
        return true;
    });
    if (!all_fit) return nullptr;
    if (resultLength != nullptr) *resultLength = stored;
    made.release();
    return target;
}
