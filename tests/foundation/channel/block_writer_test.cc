#include "foundation/channel/block_writer.h"

#include <gtest/gtest.h>

#include <vector>

#include "foundation/channel/error_of.h"

namespace Korvix::Channel {
namespace {

using Bytes = std::vector<unsigned char>;

TEST(BlockWriter, LengthFourTakesNbo32ThenWriteByteOverflows) {
  unsigned char block[5] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
  BlockWriter writer(block, 4);
  writer.write_nbo_32(0x01020304);
  EXPECT_EQ(writer.offset, 4u);
  Error error = error_of([&] { writer.write_byte(0x55); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Data block overflowed");
  EXPECT_EQ(writer.offset, 4u);
  EXPECT_EQ(Bytes(block, block + 5), (Bytes{1, 2, 3, 4, 0xEE}));
}

TEST(BlockWriter, OverflowWritesNothingOfTheTooLongPiece) {
  unsigned char block[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  BlockWriter writer(block, 4);
  writer.write_byte(0x11);
  Error error = error_of([&] { writer.write_nbo_32(0x22334455); });
  EXPECT_EQ(error.text, "Data block overflowed");
  EXPECT_EQ(writer.offset, 1u);
  EXPECT_EQ(writer.data, block + 1);
  EXPECT_EQ(Bytes(block, block + 4), (Bytes{0x11, 0xEE, 0xEE, 0xEE}));
}

TEST(BlockWriter, DataStaysAtStartPlusOffset) {
  unsigned char block[8] = {};
  BlockWriter writer(block, sizeof(block));
  EXPECT_EQ(writer.data, block);
  writer.write_nbo_24(1);
  EXPECT_EQ(writer.data, block + 3);
  writer.skip(2);
  EXPECT_EQ(writer.data, block + 5);
}

TEST(BlockWriter, SkipZeroFills) {
  unsigned char block[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  BlockWriter writer(block, 4);
  writer.write_byte(0x11);
  writer.skip(2);
  EXPECT_EQ(writer.offset, 3u);
  EXPECT_EQ(Bytes(block, block + 4), (Bytes{0x11, 0, 0, 0xEE}));
}

TEST(BlockWriter, SkipBeyondEndThrowsAndChangesNothing) {
  unsigned char block[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  BlockWriter writer(block, 4);
  writer.skip(1);
  Error error = error_of([&] { writer.skip(4); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Data block overflowed in skip");
  EXPECT_EQ(writer.offset, 1u);
  EXPECT_EQ(Bytes(block, block + 4), (Bytes{0, 0xEE, 0xEE, 0xEE}));
  Error huge = error_of([&] { writer.skip(UINT64_MAX); });
  EXPECT_EQ(huge.text, "Data block overflowed in skip");
}

TEST(BlockWriter, AlignUsesZeroFillingSkip) {
  unsigned char block[8];
  for (unsigned char& b : block) b = 0xEE;
  BlockWriter writer(block, sizeof(block));
  writer.write("abcde");
  writer.align(4);
  EXPECT_EQ(writer.offset, 8u);
  EXPECT_EQ(Bytes(block, block + 8), (Bytes{'a', 'b', 'c', 'd', 'e', 0, 0, 0}));
  writer.align(4);
  EXPECT_EQ(writer.offset, 8u);
}

TEST(BlockWriter, IsRewindable) {
  unsigned char block[1];
  BlockWriter writer(block, 1);
  EXPECT_TRUE(writer.rewindable());
}

TEST(BlockWriter, RewindStepsBackAndBytesStayUntilOverwritten) {
  unsigned char block[4] = {};
  BlockWriter writer(block, 4);
  writer.write_nbo_32(0x01020304);
  writer.rewind(3);
  EXPECT_EQ(writer.offset, 1u);
  EXPECT_EQ(writer.data, block + 1);
  EXPECT_EQ(Bytes(block, block + 4), (Bytes{1, 2, 3, 4}));
  writer.write_byte(0x99);
  EXPECT_EQ(Bytes(block, block + 4), (Bytes{1, 0x99, 3, 4}));
}

TEST(BlockWriter, RewindAtOffsetZeroThrowsRewoundTooFar) {
  unsigned char block[4] = {};
  BlockWriter writer(block, 4);
  Error error = error_of([&] { writer.rewind(1); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Rewound too far");
}

TEST(BlockWriter, WritesIntoEmptyBlockOnlyNothing) {
  BlockWriter writer(nullptr, 0);
  writer.write(static_cast<const unsigned char*>(nullptr), 0);
  writer.skip(0);
  EXPECT_EQ(writer.offset, 0u);
  Error error = error_of([&] { writer.write_byte(0); });
  EXPECT_EQ(error.text, "Data block overflowed");
}

}  // namespace
}  // namespace Korvix::Channel
