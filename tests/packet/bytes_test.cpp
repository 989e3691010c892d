/* Fields of packets: cursors, and the reader and writer that keep the bounds. */
#include "packet/bytereader.h"

#include <gtest/gtest.h>

#include "packet/packet.h"
#include "tests/support/bytes.h"

namespace {

TEST(Cursor, StoresAndReadsBigEndianAtAnyPlace) {
    Bytes bytes = bytes_of("ee 00000000 0000 ee");
    unsigned char *cursor = bytes.data() + 1;
    packet_put_u32(0x010203f4, &cursor);
    packet_put_u16(0xa506, &cursor);
    EXPECT_EQ(cursor, bytes.data() + 7);
    EXPECT_EQ(hex_of(bytes), "ee010203f4a506ee");

    uint32_t wide = 0;
    uint16_t narrow = 0;
    cursor = bytes.data() + 1;
    packet_get_u32(&wide, &cursor);
    packet_get_u16(&narrow, &cursor);
    EXPECT_EQ(cursor, bytes.data() + 7);
    EXPECT_EQ(wide, 0x010203f4U);
    EXPECT_EQ(narrow, 0xa506);
}

/* The packets lie in blocks of exactly their size, so that a sanitizer sees each step beyond. */

TEST(ByteReader, ReadsMissingBytesAsZero) {
    struct Row {
        const char *packet;
        unsigned first, wide, narrow, raw;
        int left;
        bool ran_short;
    };
    for (const Row &row : {Row{"01020304050607 0a0b0c0d 08", 1, 0x02030405, 0x0607, 0x0a0b0c0d, 1, false},
                           {"01020304050607 0a0b0c0d", 1, 0x02030405, 0x0607, 0x0a0b0c0d, 0, false},
                           {"01020304050607 0a0b0c", 1, 0x02030405, 0x0607, 0x0a0b0c00, 0, true},
                           {"0102030405ff", 1, 0x02030405, 0xff00, 0, 0, true},
                           {"", 0, 0, 0, 0, 0, true}}) {
        const Bytes packet = bytes_of(row.packet);
        ByteReader reader(packet.data(), static_cast<int>(packet.size()));
        EXPECT_EQ(reader.u8(), row.first);
        EXPECT_EQ(reader.u32be(), row.wide);
        EXPECT_EQ(reader.u16be(), row.narrow);
        EXPECT_EQ(reader.raw32(), htonl(row.raw)) << "a word of the network stays as it is";
        EXPECT_EQ(reader.left(), row.left);
        EXPECT_EQ(reader.ran_short(), row.ran_short);
        EXPECT_EQ(reader.rest(), packet.data() + packet.size() - row.left);
    }
}

TEST(ByteReader, NeverLeavesThePacketWhateverIsAsked) {
    const Bytes packet = bytes_of("'abcd'");
    for (const int length : {0, -1, -2147483647}) {
        ByteReader reader(packet.data(), length);
        EXPECT_EQ(reader.raw32(), 0U);
        EXPECT_EQ(reader.left(), 0);
    }
    ByteReader nothing(nullptr, 100);
    EXPECT_EQ(nothing.u8(), 0);
    EXPECT_TRUE(nothing.ran_short());

    ByteReader reader(packet.data(), 4);
    int taken = -1;
    reader.skip(-5);
    EXPECT_EQ(reader.left(), 4);
    EXPECT_EQ(reader.bytes(1, &taken), packet.data());
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(reader.bytes(2147483647, &taken), packet.data() + 1);
    EXPECT_EQ(taken, 3);
    EXPECT_TRUE(reader.ran_short());
    reader.skip(2147483647);
    EXPECT_EQ(reader.left(), 0);
}

TEST(ByteWriter, LeavesOutWhatDoesNotFitAndAllBehindIt) {
    Bytes buffer(9, '#');
    ByteWriter writer(buffer.data(), 8);
    writer.u8(1).u32be(0x02030405).u16be(0x0607);
    EXPECT_FALSE(writer.ran_full());
    EXPECT_EQ(writer.room(), 1);
    writer.u16be(0xffff).u8(9).bytes("x", 1);
    EXPECT_TRUE(writer.ran_full());
    EXPECT_EQ(writer.length(), 7);
    EXPECT_EQ(buffer, bytes_of("01020304050607 '##'"));
    EXPECT_TRUE(ByteWriter(nullptr, 8).u8(1).ran_full());
    EXPECT_EQ(ByteWriter(buffer.data(), -1).u8(1).length(), 0);
}

}  // namespace
