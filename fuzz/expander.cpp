/* Any bytes through the expander, under a code whose frequencies come from the input as well, and back again.
 *
 * Input: number of pairs, pairs of a byte value and its frequency, frequency of the end mark, size of the target, the
 * compressed bytes. */
#include <algorithm>

#include "fuzz/fuzz.h"
#include "ivs/ivs.h"
#include "process/owned.h"

namespace {

constexpr int LONGEST = 256;  // a bit can become a byte, and a byte 32: more would only take time

OwnedBlock<IV_COMPRESSION_S> table_from(Input &input) {
    uint32_t counts[256] = {};
    for (int pairs = input.u8(); pairs > 0; --pairs) {
        const uint8_t symbol = input.u8();
        counts[symbol] = input.u32be();
    }
    return OwnedBlock<IV_COMPRESSION_S>(iv_init_compression(counts, input.u16be(), nullptr, nullptr, nullptr));
}

/** No block of 0 bytes: it could have no address, which means something else to both calls. */
size_t block_size(int room) { return static_cast<size_t>(std::max(room, 1)); }

/** Each byte value and the end mark has a code, however its frequency; 257 codes can't all be longer than 8 bits. */
void check_codes(const IV_COMPRESSION_S &table) {
    const IV_COMPRESSION_NODE_S *shortest = table.nodes;
    for (int leaf = 0; leaf < IV_COMPRESSION_LEAVES; ++leaf) {
        const IV_COMPRESSION_NODE_S &node = table.nodes[leaf];
        FUZZ_REQUIRE(node.symbol == leaf && node.length >= 1 && node.length <= 256);
        if (node.length < shortest->length) shortest = &node;
    }
    FUZZ_REQUIRE(shortest->length <= 8);
    FUZZ_REQUIRE(table.root->symbol == IV_COMPRESSION_INNER);
}

Bytes expanded(IV_COMPRESSION_S *table, const Bytes &source) {
    int length = -1;
    const auto given = static_cast<int>(source.size());
    const OwnedBlock<uint8_t> block(iv_decompress(table, source.data(), given, nullptr, 0, &length));
    FUZZ_REQUIRE(block && length >= 0 && length <= 8 * given);
    Bytes result(block.get(), block.get() + length);

    const int room = length;
    Bytes exact(block_size(room));
    FUZZ_REQUIRE(iv_decompress(table, source.data(), given, exact.data(), room, &length) == exact.data());
    FUZZ_REQUIRE(length == room && std::equal(result.begin(), result.end(), exact.begin()));
    if (room > 0)
        FUZZ_REQUIRE(iv_decompress(table, source.data(), given, exact.data(), room - 1, nullptr) == nullptr);
    return result;
}

Bytes compressed(IV_COMPRESSION_S *table, const Bytes &plain) {
    int length = -1;
    const auto given = static_cast<int>(plain.size());
    const OwnedBlock<uint8_t> block(Biv_compress(table, plain.data(), given, nullptr, 0, &length));
    FUZZ_REQUIRE(block && length >= 1);

    const int room = length;
    Bytes exact(static_cast<size_t>(room));
    FUZZ_REQUIRE(Biv_compress(table, plain.data(), given, exact.data(), room, &length) == exact.data());
    FUZZ_REQUIRE(length == room && std::equal(exact.begin(), exact.end(), block.get()));
    FUZZ_REQUIRE(Biv_compress(table, plain.data(), given, exact.data(), room - 1, nullptr) == nullptr);
    return Bytes(block.get(), block.get() + room);
}

void expand_into(IV_COMPRESSION_S *table, const Bytes &source, int room) {
    Bytes target(block_size(room));
    int length = -1;
    const void *result =
        iv_decompress(table, source.data(), static_cast<int>(source.size()), target.data(), room, &length);
    FUZZ_REQUIRE(result == nullptr ? length == -1 : length <= room);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    become_a_silent_process();
    Input input(data, size);
    const OwnedBlock<IV_COMPRESSION_S> table = table_from(input);
    const int room = input.u8();
    const Bytes bytes = input.take(LONGEST);
    check_codes(*table.get());

    expand_into(table.get(), bytes, room);
    const Bytes once = expanded(table.get(), bytes);
    FUZZ_REQUIRE(expanded(table.get(), compressed(table.get(), once)) == once);
    FUZZ_REQUIRE(expanded(table.get(), compressed(table.get(), bytes)) == bytes);
    return 0;
}
