/* Micro-benchmarks of the pieces on the datagram path and of the containers. What counts are the ratios between rows
 * of one run: the processor's instructions against the tables, chosen keys against spread ones. */
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "foundation/paa.h"
#include "ivs/ivssrdpi.h"
#include "packet/cryptoi.h"
#include "packet/packet.h"
#include "process/owned.h"
#include "process/velproc.h"

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

// ---- Associative arrays and the store of reliable datagrams: keys spread over the buckets, or chosen to fall into one --

constexpr uint32_t KEYS = 100000;

/** Two words that are equal: the hash cancels them, so all such keys land in one bucket. */
std::string chosen_key(uint32_t number) {
    const uint32_t words[2] = {number, number};
    return {reinterpret_cast<const char *>(words), sizeof words};
}

std::string spread_key(uint32_t number) {
    const uint32_t words[2] = {number * 2654435761U, number};
    return {reinterpret_cast<const char *>(words), sizeof words};
}

/** The same behind a beginning that all keys share. */
template <std::string (*make_key)(uint32_t)>
std::string named_key(uint32_t number) {
    return "g_Variables_" + make_key(number);
}

template <std::string (*make_key)(uint32_t)>
void find_in_table(benchmark::State &state) {
    PAA_S *table = paaCreate(PAAFLAGPOINTER | static_cast<uint32_t>(state.range(0)));
    std::vector<std::string> keys;
    for (uint32_t i = 0; i < KEYS; i++) keys.push_back(make_key(i * 40503U % KEYS));
    for (const std::string &each : keys) paaInsert(table, each.data(), static_cast<int>(each.size()), table, 4);
    const size_t step = state.range(1) != 0 ? 1 : 7919;
    size_t at = 0;
    while (state.KeepRunning()) {
        const std::string &wanted = keys[at = (at + step) % KEYS];
        benchmark::DoNotOptimize(paaFind(table, wanted.data(), static_cast<int>(wanted.size()), nullptr));
    }
    paaDestroy(table);
}
void in_tables(benchmark::internal::Benchmark *bench) {
    bench->ArgNames({"large", "in_order"})->Args({0, 0})->Args({PAAFLAGLARGE, 0});
}
BENCHMARK(find_in_table<spread_key>)->Apply(in_tables)->Args({PAAFLAGLARGE, 1});
BENCHMARK(find_in_table<chosen_key>)->Apply(in_tables);
BENCHMARK(find_in_table<named_key<spread_key>>)->Apply(in_tables);
BENCHMARK(find_in_table<named_key<chosen_key>>)->Apply(in_tables);

size_t heap_in_use() { return mallinfo2().uordblks; }

/** A packet of a stranger: its address, with a port and an id that spread or that cancel the address in the hash. */
struct Stranger {
    PacketAddress address{};
    uint16_t id;
    Stranger(uint32_t number, bool is_chosen) {
        const uint32_t ip = number * 2654435761U, port_and_id = is_chosen ? ip : number * 40503U;
        address.sin_addr.s_addr = ip;
        address.sin_port = static_cast<uint16_t>(port_and_id);
        id = static_cast<uint16_t>(port_and_id >> 16);
    }
};

/** What each packet of a flood costs the store: it is looked for, remembered, and an old one is forgotten for it. */
void remember_a_packet(benchmark::State &state) {
    const bool is_chosen = state.range(0) != 0;
    PAA_S *table = nullptr;
    IVS_SRDP_PACKET_S *head = nullptr, *tail = nullptr;
    uint32_t number = 0;
    const auto remember = [&] {
        const Stranger one(number++, is_chosen);
        if (ivs_srdp_packet_find(table, &one.address, one.id) != nullptr) return;
        ivs_srdp_packet_save(&table, &head, &tail, 0, one.id, 0, -1, 0, nullptr, 0, &one.address, sizeof one.address);
    };
    const size_t before = heap_in_use();
    while (number < KEYS) remember();
    state.counters["bytes_each"] = static_cast<double>(heap_in_use() - before) / KEYS;
    while (state.KeepRunning()) {
        remember();
        ivs_srdp_packet_delete(table, &head, &tail, head);
    }
    while (head != nullptr) ivs_srdp_packet_delete(table, &head, &tail, head);
    paaDestroy(table);
}
BENCHMARK(remember_a_packet)->ArgName("chosen")->Arg(0)->Arg(1);

// ---- The timer of reliable datagrams, 100,000 of them pending ---------------------------------------------------------

/** The longest tick while nothing is due (0), while all are due for a repeat (1), and while all end (2). */
void longest_tick(benchmark::State &state) {
    constexpr int SECONDS[] = {1, 5, 70};
    packet_bound_ip = htonl(INADDR_LOOPBACK);
    process_context.noAccessKeyCheck = 1;
    const OwnedFd receiver(packet_clt_socket_ip(INADDR_ANY)), sender(packet_clt_socket_ip(packet_bound_ip));
    PacketAddress to{};
    socklen_t size = sizeof to;
    getsockname(receiver.get(), reinterpret_cast<sockaddr *>(&to), &size);

    while (state.KeepRunning()) {
        constexpr time_t START = 1000000;
        const size_t before = heap_in_use();
        for (uint32_t i = 0; i < KEYS; i++) {
            to.sin_addr.s_addr = htonl(INADDR_LOOPBACK + i / 20000);  // a peer has no more than 32768 ids
            const timeval clock{START, static_cast<suseconds_t>(i) * 10};
            ivs::srdp_send_at(clock, sender.get(), START, 0, 0, IVS_TYPE_TEXT, "................................", 32,
                              &to, sizeof to);
        }
        state.counters["bytes_each"] = static_cast<double>(heap_in_use() - before) / KEYS;

        timespec begin{}, end{};
        double longest = 0;
        for (int tick = 0; tick < 20; tick++) {
            const timeval now{START + SECONDS[state.range(0)] + tick / 10, tick % 10 * 100000L};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
            ivs::srdp_handle_at(now.tv_sec, sender.get(), now);
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
            longest = std::max(longest, static_cast<double>(end.tv_sec - begin.tv_sec) +
                                            static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9);
        }
        state.SetIterationTime(longest);
        ivs::srdp_reset();
    }
}
BENCHMARK(longest_tick)
    ->ArgName("due")
    ->DenseRange(0, 2)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
