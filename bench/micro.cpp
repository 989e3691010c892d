/* Micro-benchmarks of the pieces on the datagram path and of the containers. What counts are the ratios between rows
 * of one run: the processor's instructions against the tables, chosen keys against spread ones. */
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "foundation/paa.h"
#include "ivs/ivs.h"
#include "packet/cryptoi.h"
#include "packet/packet.h"

namespace {

const uint8_t key[PACKET_AES_BLOCK] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

// ---- Cipher and digest: bytes per second -----------------------------------------------------------------------

template <const AesPath &path>
void encipher(benchmark::State &state) {
    if (&path == &aes_by_instructions && !aes_has_instructions()) return state.SkipWithError("no such instructions");
    uint32_t schedule[PACKET_AES_SCHEDULE_WORDS];
    path.expand(schedule, key, 10);
    std::vector<uint8_t> data(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning()) {
        path.encipher(schedule, 10, data.data(), data.data(), data.size() / PACKET_AES_BLOCK);
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(encipher<aes_by_tables>)->Arg(PACKET_AES_BLOCK)->Arg(4096);
BENCHMARK(encipher<aes_by_instructions>)->Arg(PACKET_AES_BLOCK)->Arg(4096);

template <Sha256Blocks blocks>
void digest(benchmark::State &state) {
    if (blocks == sha256_blocks_by_instructions && !sha256_has_instructions())
        return state.SkipWithError("no such instructions");
    uint32_t words[8] = {};
    std::vector<uint8_t> data(4096);
    while (state.KeepRunning()) blocks(words, data.data(), data.size() / PACKET_SHA256_BLOCK);
    benchmark::DoNotOptimize(words);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(data.size()));
}
BENCHMARK(digest<sha256_blocks_plain>);
BENCHMARK(digest<sha256_blocks_by_instructions>);

void make_envelope(benchmark::State &state) {
    unsigned char plain[60] = {'='}, envelope[sizeof plain + PACKET_ENVELOPE_ROOM];
    while (state.KeepRunning()) benchmark::DoNotOptimize(packet_encrypt(key, plain, sizeof plain, envelope));
}
BENCHMARK(make_envelope);

void open_envelope(benchmark::State &state) {
    unsigned char plain[60] = {'='}, envelope[sizeof plain + PACKET_ENVELOPE_ROOM], target[sizeof envelope];
    const int length = packet_encrypt(key, plain, sizeof plain, envelope);
    while (state.KeepRunning()) benchmark::DoNotOptimize(packet_decrypt(key, envelope, length, target, nullptr));
}
BENCHMARK(open_envelope);

// ---- What each datagram pays --------------------------------------------------------------------------------------

void count_a_packet(benchmark::State &state) {
    const unsigned char packet[60] = {'='};
    while (state.KeepRunning()) packet_stat_received(0x0100007f, packet, sizeof packet);
}
BENCHMARK(count_a_packet);

void trace_a_packet(benchmark::State &state) {
    FILE *nowhere = fopen("/dev/null", "we");
    const unsigned char packet[60] = {IVS_TYPE_PING, 'h', 'e', 'l', 'l', 'o'};
    while (state.KeepRunning()) ivs_trace_packet(nowhere, nullptr, "TR ", packet, sizeof packet, nullptr);
    fclose(nowhere);
}
BENCHMARK(trace_a_packet);

// ---- Associative arrays: 100,000 keys spread over the buckets, or chosen to fall into one ----------------------------

/** Eight bytes whose two words are equal but for what the hash cancels: all land in one bucket. */
std::string chosen_key(uint32_t number) {
    const uint32_t words[2] = {number, number};
    return {reinterpret_cast<const char *>(words), sizeof words};
}

std::string spread_key(uint32_t number) {
    const uint32_t words[2] = {number * 2654435761U, number};
    return {reinterpret_cast<const char *>(words), sizeof words};
}

template <std::string (*make_key)(uint32_t)>
void find_in_table(benchmark::State &state) {
    constexpr uint32_t KEYS = 100000;
    PAA_S *table = paaCreate(PAAFLAGPOINTER | static_cast<uint32_t>(state.range(0)));
    std::vector<std::string> keys;
    for (uint32_t i = 0; i < KEYS; i++) keys.push_back(make_key(i * 40503U % KEYS));
    for (const std::string &each : keys) paaInsert(table, each.data(), static_cast<int>(each.size()), table, 4);
    size_t at = 0;
    while (state.KeepRunning()) {
        const std::string &wanted = keys[at = (at + 7919) % KEYS];
        benchmark::DoNotOptimize(paaFind(table, wanted.data(), static_cast<int>(wanted.size()), nullptr));
    }
    paaDestroy(table);
}
BENCHMARK(find_in_table<spread_key>)->ArgName("large")->Arg(0)->Arg(PAAFLAGLARGE);
BENCHMARK(find_in_table<chosen_key>)->ArgName("large")->Arg(0)->Arg(PAAFLAGLARGE);

}  // namespace

BENCHMARK_MAIN();
