/* Fields of packets: cursors, and the reader and writer that keep the bounds. */
#include "packet/bytereader.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "packet/packet.h"

namespace {

TEST(Cursor, StoresAndReadsBigEndianAtAnyPlace) {
    unsigned char bytes[8] = {0xee, 0, 0, 0, 0, 0, 0, 0xee};
    const unsigned char expected[8] = {0xee, 0x01, 0x02, 0x03, 0xf4, 0xa5, 0x06, 0xee};
    unsigned char *cursor = bytes + 1;
    packet_put_u32(0x010203f4, &cursor);
    packet_put_u16(0xa506, &cursor);
    EXPECT_EQ(cursor, bytes + 7);
    EXPECT_EQ(memcmp(bytes, expected, sizeof bytes), 0);

    uint32_t wide = 0;
    uint16_t narrow = 0;
    cursor = bytes + 1;
    packet_get_u32(&wide, &cursor);
    packet_get_u16(&narrow, &cursor);
    EXPECT_EQ(cursor, bytes + 7);
    EXPECT_EQ(wide, 0x010203f4U);
    EXPECT_EQ(narrow, 0xa506);
}

/** Bytes in a block of exactly their size, so that a sanitizer sees each step beyond. */
std::unique_ptr<unsigned char[]> exact(const std::string &bytes) {
    auto block = std::make_unique<unsigned char[]>(bytes.size());
    if (!bytes.empty()) memcpy(block.get(), bytes.data(), bytes.size());
    return block;
}

TEST(ByteReader, ReadsMissingBytesAsZero) {
    struct Row {
        std::string packet;
        unsigned first, wide, narrow;
        int left;
        bool ranShort;
    };
    const Row rows[] = {
        {"\x01\x02\x03\x04\x05\x06\x07\x08", 1, 0x02030405, 0x0607, 1, false},
        {"\x01\x02\x03\x04\x05\x06\x07", 1, 0x02030405, 0x0607, 0, false},
        {"\x01\x02\x03\x04\x05\xff", 1, 0x02030405, 0xff00, 0, true},
        {"\x01\x02\xff", 1, 0x02ff0000, 0, 0, true},
        {"", 0, 0, 0, 0, true},
    };
    for (const Row &row : rows) {
        const auto block = exact(row.packet);
        ByteReader reader(block.get(), static_cast<int>(row.packet.size()));
        EXPECT_EQ(reader.u8(), row.first);
        EXPECT_EQ(reader.u32be(), row.wide);
        EXPECT_EQ(reader.u16be(), row.narrow);
        EXPECT_EQ(reader.left(), row.left);
        EXPECT_EQ(reader.ran_short(), row.ranShort);
        EXPECT_EQ(reader.rest(), block.get() + row.packet.size() - row.left);
    }
}

TEST(ByteReader, NeverLeavesThePacketWhateverIsAsked) {
    const auto block = exact("abcd");
    for (const int length : {0, -1, -2147483647}) {
        ByteReader reader(block.get(), length);
        EXPECT_EQ(reader.raw32(), 0U);
        EXPECT_EQ(reader.left(), 0);
    }
    ByteReader nothing(nullptr, 100);
    EXPECT_EQ(nothing.u8(), 0);
    EXPECT_TRUE(nothing.ran_short());

    ByteReader reader(block.get(), 4);
    int taken = -1;
    reader.skip(-5);
    EXPECT_EQ(reader.left(), 4);
    EXPECT_EQ(reader.bytes(1, &taken), block.get());
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(reader.bytes(2147483647, &taken), block.get() + 1);
    EXPECT_EQ(taken, 3);
    EXPECT_TRUE(reader.ran_short());
    reader.skip(2147483647);
    EXPECT_EQ(reader.left(), 0);
}

TEST(ByteReader, LeavesWordsOfTheNetworkAsTheyAre) {
    const uint32_t word = htonl(0xc0a80001);
    ByteReader reader(&word, sizeof word);
    EXPECT_EQ(reader.raw32(), word);
    EXPECT_FALSE(reader.ran_short());
}

TEST(ByteWriter, LeavesOutWhatDoesNotFitAndAllBehindIt) {
    unsigned char buffer[9];
    memset(buffer, '#', sizeof buffer);
    ByteWriter writer(buffer, 8);
    writer.u8(1).u32be(0x02030405).u16be(0x0607);
    EXPECT_FALSE(writer.ran_full());
    EXPECT_EQ(writer.room(), 1);
    writer.u16be(0xffff).u8(9).bytes("x", 1);
    EXPECT_TRUE(writer.ran_full());
    EXPECT_EQ(writer.length(), 7);
    const unsigned char expected[9] = {1, 2, 3, 4, 5, 6, 7, '#', '#'};
    EXPECT_EQ(memcmp(buffer, expected, 9), 0);
    EXPECT_TRUE(ByteWriter(nullptr, 8).u8(1).ran_full());
    EXPECT_EQ(ByteWriter(buffer, -1).u8(1).length(), 0);
}

}  // namespace
