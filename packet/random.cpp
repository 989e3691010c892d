/* The random generator: a pool of 67 bytes, into which everything is mixed that strangers can't know, and its digest,
 * which gives eight words at a time and goes back into the pool.
 *
 * What session keys are worth is decided here: besides the host's access key, times and ids, the pool takes noise
 * from the kernel. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "packet/accessi.h"
#include "packet/crypto.h"
#include "packet/typecodes.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr int POOL_SIZE = 67;
constexpr int WORDS = 8;
constexpr int NOISE_SIZE = 16;
constexpr int LONGEST_VALUE = 32;
constexpr uint32_t WITHOUT_TOP_BIT = 0x7fffffff;

uint8_t pool[POOL_SIZE];
uint32_t pool_index = 0;
uint32_t random_words[WORDS];
int32_t random_cursor = -1;  // negative until the pool is seeded

void mix(const void *data, int length) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (int at = 0; at < length; ++at) {
        if (pool_index >= POOL_SIZE) pool_index = 0;
        pool[pool_index++] ^= bytes[at];
    }
}

void mix_word(uint32_t word) { mix(&word, sizeof word); }

/** Lays bytes over the pool, from its start if fewer than `wanted_room` remain. */
void store(const void *data, int length, int wanted_room) {
    if (POOL_SIZE - static_cast<int>(pool_index) < wanted_room) pool_index = 0;
    memcpy(pool + pool_index, data, static_cast<size_t>(length));
    pool_index += static_cast<uint32_t>(length);
}

void store_noise() {
    WipedBytes<NOISE_SIZE> noise;
    ssize_t got = 0;
    do got = getrandom(noise.data(), noise.size(), 0);
    while (got < 0 && errno == EINTR);
    if (got != NOISE_SIZE) {  // a kernel without the call: bytes that at least change
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        static_assert(sizeof now <= NOISE_SIZE);
        memcpy(noise.data(), &now, sizeof now);
    }
    store(noise.data(), NOISE_SIZE, NOISE_SIZE);
}

void mix_time() {
    timeval now{};
    gettimeofday(&now, nullptr);
    mix_word(static_cast<uint32_t>(now.tv_sec));
    mix_word(static_cast<uint32_t>(now.tv_usec));
}

/** The secrets that this host has anyway: its own key, else whatever key comes first, which then stands for the
 *  first noise as well. */
void store_secrets() {
    const uint8_t *own_key = packet_own_key();
    if (own_key != nullptr) {
        store(own_key, IVS_KEY_SIZE, IVS_KEY_SIZE + 1);
    } else {
        int length = 0;
        const uint8_t *value = packet_first_key_value(&length);
        if (value != nullptr && length >= IVS_KEY_SIZE) {
            length = std::min(length, LONGEST_VALUE);
            return store(value, length, length);
        }
    }
    store_noise();
}

void seed() {
    store_secrets();
    const auto start_time = static_cast<uint32_t>(process_context.startTime);
    mix_word(start_time);
    srand(static_cast<uint32_t>(rand()) ^ static_cast<uint32_t>(getpid()) ^ start_time);
    mix_word(static_cast<uint32_t>(rand()));
    mix_word(static_cast<uint32_t>(getpid()));
    mix_time();
    store_noise();
}

void refill() {
    mix_time();
    const unsigned char *digest = packet_sha256(pool, POOL_SIZE);
    mix(digest, PACKET_SHA256_DIGEST);
    memcpy(random_words, digest, sizeof random_words);
    random_cursor = 0;
}

}  // namespace

int packet_random(const void *data, int length) {
    if (data != nullptr) mix(data, length);
    if (random_cursor < 0) seed();
    if (random_cursor < 0 || random_cursor >= WORDS) refill();
    return static_cast<int>(random_words[random_cursor++] & WITHOUT_TOP_BIT);
}

int packet_random_seed(uint32_t value) { return packet_random(&value, sizeof value); }
