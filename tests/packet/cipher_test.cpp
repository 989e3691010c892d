/* Cipher, digest and random numbers: the standards' own answers, on every way that this processor knows. */
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <set>

#include "packet/cryptoi.h"
#include "packet/packet.h"
#include "process/velproc.h"
#include "tests/support/bytes.h"
#include "tests/support/child.h"

namespace {

struct Answer {
    const char *key, *plain, *enciphered;
};
constexpr char plain[] = "00112233445566778899aabbccddeeff";
constexpr Answer answers[] = {
    {"2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734", "3925841d02dc09fbdc118597196a0b32"},
    {"000102030405060708090a0b0c0d0e0f", plain, "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"000102030405060708090a0b0c0d0e0f1011121314151617", plain, "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", plain, "8ea2b7ca516745bfeafc49904b496089"}};

TEST(Aes, GivesThePublishedAnswers) {
    uint32_t schedule[PACKET_AES_SCHEDULE_WORDS];
    uint8_t block[16];
    for (const Answer &answer : answers) {
        const Bytes key = bytes_of(answer.key);
        const int bits = static_cast<int>(key.size()) * 8, rounds = bits / 32 + 6;
        EXPECT_EQ(packet_aes_key_enc(schedule, key.data(), bits), rounds);
        packet_aes_encrypt_block(schedule, rounds, bytes_of(answer.plain).data(), block);
        EXPECT_EQ(hex_of(block, 16), answer.enciphered);
        EXPECT_EQ(packet_aes_key_dec(schedule, key.data(), bits), rounds);
        packet_aes_decrypt_block(schedule, rounds, block, block);
        EXPECT_EQ(hex_of(block, 16), answer.plain);
    }
    for (const int bits : {0, 100, 127, 160, 512, -128}) {
        EXPECT_EQ(packet_aes_key_enc(nullptr, nullptr, bits), 0);
        EXPECT_EQ(packet_aes_key_dec(nullptr, nullptr, bits), 0);
    }
}

TEST(Aes, IsTheSameOnEveryWay) {
    if (!aes_has_instructions()) GTEST_SKIP() << "only one way on this processor";
    Seeded random;
    for (int turn = 0; turn < 600; ++turn) {
        const int rounds = 10 + 2 * (turn % 3);
        const size_t blocks = random() % 40;  // around the edges of what goes on its way at once
        const Bytes key = random.bytes(32), before = random.bytes(blocks * 16 + 1);
        Bytes one(before), other(before);
        uint32_t tables[PACKET_AES_SCHEDULE_WORDS] = {}, instructions[PACKET_AES_SCHEDULE_WORDS] = {};
        aes_by_tables.expand(tables, key.data(), rounds);
        aes_by_instructions.expand(instructions, key.data(), rounds);
        aes_by_tables.encipher(tables, rounds, before.data() + 1, one.data() + 1, blocks);
        aes_by_instructions.encipher(instructions, rounds, before.data() + 1, other.data() + 1, blocks);
        ASSERT_EQ(one, other);
        aes_by_tables.invert(tables, rounds);
        aes_by_instructions.invert(instructions, rounds);
        ASSERT_EQ(memcmp(tables, instructions, sizeof tables), 0);
        aes_by_tables.decipher(tables, rounds, one.data() + 1, one.data() + 1, blocks);
        aes_by_instructions.decipher(instructions, rounds, other.data() + 1, other.data() + 1, blocks);
        ASSERT_EQ(one, before);
        ASSERT_EQ(other, before);
    }
}

TEST(Aes, GoesBlockByBlockAndRoundsALengthUp) {
    const Bytes key = bytes_of(answers[1].key), blocks = bytes_of(std::string(plain) + plain + plain);
    const std::string one = answers[1].enciphered;
    Bytes target(64, 0x5c);
    packet_aes_encrypt(key.data(), blocks.data(), 33, target.data());
    EXPECT_EQ(hex_of(target), one + one + one + hex_of(Bytes(16, 0x5c)));
    packet_aes_decrypt(key.data(), target.data(), 17, target.data());
    EXPECT_EQ(hex_of(target.data(), 48), std::string(plain) + plain + one);
}

std::string digest(const std::string &text) {
    return hex_of(packet_sha256(text.data(), static_cast<int>(text.size())), 32);
}

TEST(Sha256, GivesThePublishedAnswers) {
    EXPECT_EQ(digest(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(digest(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, IsTheSameOnEveryWay) {
    if (!sha256_has_instructions()) GTEST_SKIP() << "only one way on this processor";
    Seeded random;
    for (size_t blocks = 0; blocks < 100; ++blocks) {
        const Bytes start = random.bytes(32), data = random.bytes(64 * blocks + 1);
        uint32_t one[8], other[8];
        memcpy(one, start.data(), sizeof one);
        memcpy(other, start.data(), sizeof other);
        sha256_blocks_plain(one, data.data() + 1, blocks);
        sha256_blocks_by_instructions(other, data.data() + 1, blocks);
        ASSERT_EQ(hex_of(one, sizeof one), hex_of(other, sizeof other));
    }
}

/** The digest by the three steps, in pieces of random size. */
std::string digest_in_pieces(PACKET_SHA256_S &context, const std::string &text, Seeded &source) {
    for (size_t at = 0; at < text.size();) {
        const size_t piece = std::min<size_t>(text.size() - at, source() % 90);
        packet_sha256_update(&context, text.data() + at, static_cast<int>(piece));
        at += piece;
    }
    packet_sha256_finish(&context);
    uint8_t target[32];
    packet_sha256_digest(&context, target);
    packet_sha256_digest(&context, nullptr);
    return hex_of(target, sizeof target);
}

TEST(Sha256, IsTheSameInPiecesOfAnySizeAndCountsBeyond32Bits) {
    Seeded random;
    PACKET_SHA256_S context;
    for (size_t length = 0; length < 300 && !HasFailure(); ++length) {
        const Bytes bytes = random.bytes(length);
        const std::string text(bytes.begin(), bytes.end());
        packet_sha256_init(&context);
        EXPECT_EQ(digest_in_pieces(context, text, random), digest(text));
    }
    packet_sha256_init(&context);
    context.bitCount[1] = 0xfffffff8;  // as if half a gigabyte stood in front; the answer was reckoned apart
    EXPECT_EQ(digest_in_pieces(context, "ab", random),
              "a6192745d504559e86d9352347c93e0c7e1707ba70ce1eb9920b29164244ab7c");
}

/* Random numbers are seeded once for a process, so each test has its own. */

TEST(RandomNumbers, AreTheEightWordsOfADigest) {
    Child child([](Child &self) {
        process_context.rootDir = nullptr;
        const unsigned char *digest = packet_sha256("", 0);
        std::string seen, before = hex_of(digest, 32);
        for (int call = 0; call < 18; ++call) {
            const int number = packet_random("noise", call % 6);
            uint32_t word;
            memcpy(&word, digest + call % 8 * sizeof word, sizeof word);
            seen += hex_of(digest, 32) != before ? '+' : '-';
            if (number != static_cast<int>(word & 0x7fffffff)) seen += '!';
            before = hex_of(digest, 32);
        }
        self.report(seen);
        return 0;
    });
    EXPECT_EQ(child.next_report(), "+-------+-------+-") << "+ a new digest, ! not its word";
}

TEST(RandomNumbers, AreSeededOnceForAProcess) {
    std::set<std::string> firsts;
    for (int process = 0; process < 8; ++process) {
        Child child([](Child &self) {
            process_context.rootDir = nullptr;
            process_context.startTime = 12345;
            packet_own_ip = 0;
            srand(7);
            self.report(std::to_string(packet_random_seed(1)) + " " + std::to_string(packet_random(nullptr, 0)));
            for (int call = 0; call < 20; ++call) packet_random(nullptr, 0);
            const int after = rand();
            srand(7);
            srand(static_cast<unsigned>(rand() ^ getpid() ^ 12345));
            rand();
            return after == rand() && packet_own_ip != 0 ? 0 : 1;
        });
        firsts.insert(child.next_report());
        EXPECT_EQ(child.exit_code(), 0) << "it draws twice, and looks for the host's key";
    }
    EXPECT_EQ(firsts.size(), 8U);
}

}  // namespace
