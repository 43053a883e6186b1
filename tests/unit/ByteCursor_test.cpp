#include "ByteCursor.h"

#include <gtest/gtest.h>

namespace {

TEST(ByteReader, ReadsUnalignedLittleEndianFields) {
    const BYTE bytes[] = {0x7F, 0x02, 0x01, 0x04, 0x03, 0x02, 0x81, 1, 2, 3, 4, 5, 6, 7, 0x88};
    CByteReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.ReadU8(), 0x7F);
    EXPECT_EQ(reader.ReadU16(), 0x0102);
    EXPECT_EQ(reader.ReadU32(), 0x81020304u);
    EXPECT_EQ(reader.ReadU64(), 0x8807060504030201ull);
    EXPECT_EQ(reader.Left(), 0u);
    EXPECT_EQ(reader.Consumed(), 15u);
    EXPECT_FALSE(reader.Failed());
}

TEST(ByteReader, ReadsBigEndianByName) {
    const BYTE bytes[] = {0x1F, 0x90, 0x80, 0x00, 0x00, 0x01};
    CByteReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.ReadU16Big(), 8080);
    EXPECT_EQ(reader.ReadU32Big(), 0x80000001u);
}

TEST(ByteReader, ReadsFloats) {
    const BYTE bytes[] = {0x00, 0x00, 0x20, 0xC0, 0, 0, 0, 0, 0, 0, 0xF8, 0x3F};
    CByteReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.ReadF32(), -2.5f);
    EXPECT_EQ(reader.ReadF64(), 1.5);
}

// Processors differ in what they take: some refuse a wide field that does not lie on its own size.
TEST(ByteReader, ReadsEveryFieldAtEveryPlaceInMemory) {
    const BYTE bytes[] = {0x01, 0x82, 0,    0,    0x20, 0xC0, 0,    0,    0,    0,    0,
                          0,    0xF8, 0x3F, 0x81, 0x02, 0x80, 0x00, 0x00, 0x01, 0xFE, 0xFF,
                          0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x04, 0x03, 0x02, 0x81};
    for (size_t nAt = 0; nAt < 8; ++nAt) {
        alignas(8) BYTE memory[sizeof bytes + 8];
        std::memcpy(memory + nAt, bytes, sizeof bytes);
        CByteReader reader(memory + nAt, sizeof bytes);
        EXPECT_EQ(reader.ReadU16(), 0x8201) << nAt;
        EXPECT_EQ(reader.ReadF32(), -2.5f) << nAt;
        EXPECT_EQ(reader.ReadF64(), 1.5) << nAt;
        EXPECT_EQ(reader.ReadU16Big(), 0x8102) << nAt;
        EXPECT_EQ(reader.ReadU32Big(), 0x80000001u) << nAt;
        EXPECT_EQ(reader.ReadU64(), 0xFFFFFFFFFFFFFFFEull) << nAt;
        EXPECT_EQ(reader.ReadU32(), 0x81020304u) << nAt;
        EXPECT_EQ(reader.Left(), 0u);
    }
}

TEST(ByteReader, AFieldThatDoesNotFitFailsAndEverythingAfterIsZero) {
    const BYTE bytes[] = {1, 2, 3};
    CByteReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.ReadU32(), 0u);
    EXPECT_TRUE(reader.Failed());
    EXPECT_EQ(reader.ReadU8(), 0);
    EXPECT_EQ(reader.Take(0), nullptr);
    EXPECT_EQ(reader.Consumed(), 0u);
}

TEST(ByteReader, TakesTextWithItsTerminator) {
    const BYTE bytes[] = {'a', 'b', 0, 0, 'c'};
    CByteReader reader(bytes, sizeof bytes);
    size_t nLen = 9;
    EXPECT_STREQ(reader.TakeText(nLen), "ab");
    EXPECT_EQ(nLen, 2u);
    EXPECT_STREQ(reader.TakeText(nLen), "");
    EXPECT_EQ(nLen, 0u);
    EXPECT_EQ(reader.TakeText(nLen), nullptr);
    EXPECT_TRUE(reader.Failed());
}

TEST(ByteReader, EmptyInputFailsOnTheFirstByte) {
    CByteReader reader(nullptr, 0);
    EXPECT_NE(reader.Failed(), true);
    size_t nLen = 0;
    EXPECT_EQ(reader.TakeText(nLen), nullptr);
    EXPECT_EQ(reader.ReadU8(), 0);
}

TEST(ByteWriter, WritesLittleEndianFieldsBackToBack) {
    BYTE room[22] = {};
    CByteWriter writer(room, sizeof room);
    writer.WriteU8(0x67);
    writer.WriteU16(0x0102);
    writer.WriteU32(0x81020304);
    writer.WriteF32(-2.5f);
    writer.WriteF64(1.5);
    writer.WriteText("xy", 2);
    const BYTE expected[22] = {0x67, 2, 1, 4, 3, 2, 0x81, 0,    0,   0x20, 0xC0,
                               0,    0, 0, 0, 0, 0, 0xF8, 0x3F, 'x', 'y',  0};
    EXPECT_EQ(writer.Size(), 22u);
    EXPECT_EQ(std::memcmp(room, expected, sizeof room), 0);
    EXPECT_FALSE(writer.Failed());
}

TEST(ByteWriter, WritesEveryFieldAtEveryPlaceInMemory) {
    const BYTE expected[] = {0x01, 0x82, 0, 0,    0x20, 0xC0, 0,    0,    0,
                             0,    0,    0, 0xF8, 0x3F, 0x04, 0x03, 0x02, 0x81};
    for (size_t nAt = 0; nAt < 8; ++nAt) {
        alignas(8) BYTE memory[sizeof expected + 8] = {};
        CByteWriter writer(memory + nAt, sizeof expected);
        writer.WriteU16(0x8201);
        writer.WriteF32(-2.5f);
        writer.WriteF64(1.5);
        writer.WriteU32(0x81020304);
        EXPECT_FALSE(writer.Failed());
        EXPECT_EQ(std::memcmp(memory + nAt, expected, sizeof expected), 0) << nAt;
    }
}

TEST(ByteWriter, AFieldThatDoesNotFitIsNotWrittenAtAll) {
    BYTE room[3] = {9, 9, 9};
    CByteWriter writer(room, 2);
    writer.WriteText("ab", 2);
    EXPECT_TRUE(writer.Failed());
    EXPECT_EQ(writer.Size(), 0u);
    writer.WriteU8(1);
    EXPECT_EQ(room[0], 9);
}

TEST(ByteWriter, FillsItsRoomExactly) {
    BYTE room[3] = {9, 9, 9};
    CByteWriter writer(room, 2);
    writer.WriteText("a", 1);
    EXPECT_FALSE(writer.Failed());
    EXPECT_EQ(writer.Room(), 0u);
    EXPECT_EQ(room[2], 9);
}

TEST(ByteWriter, PatchesOnlyWhatWasWritten) {
    BYTE room[4] = {};
    CByteWriter writer(room, sizeof room);
    writer.WriteU8('H');
    writer.WriteU16(0);
    writer.PatchU16(1, 0x1234);
    EXPECT_EQ(room[1], 0x34);
    EXPECT_EQ(room[2], 0x12);
    EXPECT_FALSE(writer.Failed());
    writer.PatchU16(2, 1);
    EXPECT_TRUE(writer.Failed());
}

}  // namespace
