#include "foundation/channel/block_reader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "foundation/channel/error_of.h"

namespace Korvix::Channel {
namespace {

TEST(BlockReader, ReadsFromTheBlockAndKeepsDataAtStartPlusOffset) {
  const unsigned char block[] = {0x01, 0x02, 0x03, 0x04, 0x05};
  BlockReader reader(block, sizeof(block));
  EXPECT_EQ(reader.offset, 0u);
  EXPECT_EQ(reader.length, 5u);
  EXPECT_EQ(reader.read_nbo_16(), 0x0102);
  EXPECT_EQ(reader.offset, 2u);
  EXPECT_EQ(reader.data, block + 2);
  EXPECT_EQ(reader.read_le_24(), 0x050403u);
  EXPECT_EQ(reader.data, block + 5);
}

TEST(BlockReader, PrimitiveGivesWhatIsLeftThenZero) {
  const unsigned char block[] = {1, 2, 3};
  BlockReader reader(block, sizeof(block));
  unsigned char out[8] = {};
  EXPECT_EQ(reader.basic_read(out, 8), 3u);
  EXPECT_EQ(out[2], 3);
  EXPECT_EQ(reader.basic_read(out, 8), 0u);
  EXPECT_EQ(reader.offset, 3u);
}

TEST(BlockReader, PrimitiveWithNullDataOnlyAdvances) {
  const unsigned char block[] = {1, 2, 3};
  BlockReader reader(block, sizeof(block));
  EXPECT_EQ(reader.basic_read(nullptr, 2), 2u);
  EXPECT_EQ(reader.read_byte(), 3);
}

TEST(BlockReader, LengthThreeNbo32ThrowsEofAtOffsetThree) {
  const unsigned char block[] = {1, 2, 3};
  BlockReader reader(block, sizeof(block));
  Error error = error_of([&] { reader.read_nbo_32(); });
  EXPECT_EQ(error.error, 0);
  EXPECT_EQ(error.text, "EOF");
  EXPECT_EQ(reader.offset, 3u);
}

TEST(BlockReader, LengthFourSkipFiveThrowsAndStaysSkipFourWorks) {
  const unsigned char block[] = {1, 2, 3, 4};
  BlockReader reader(block, sizeof(block));
  Error error = error_of([&] { reader.skip(5); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Skip beyond end of block");
  EXPECT_EQ(reader.offset, 0u);
  EXPECT_EQ(reader.data, block);
  reader.skip(4);
  EXPECT_EQ(reader.offset, 4u);
  EXPECT_EQ(reader.data, block + 4);
}

TEST(BlockReader, HugeSkipCannotWrap) {
  const unsigned char block[] = {1, 2, 3, 4};
  BlockReader reader(block, sizeof(block));
  reader.skip(2);
  Error error = error_of([&] { reader.skip(UINT64_MAX); });
  EXPECT_EQ(error.text, "Skip beyond end of block");
  EXPECT_EQ(reader.offset, 2u);
}

TEST(BlockReader, AlignAtFiveSkipsThree) {
  const unsigned char block[16] = {};
  BlockReader reader(block, sizeof(block));
  reader.skip(5);
  reader.align(4);
  EXPECT_EQ(reader.offset, 8u);
  reader.align(4);
  EXPECT_EQ(reader.offset, 8u);
}

TEST(BlockReader, IsRewindable) {
  const unsigned char block[] = {1};
  BlockReader reader(block, 1);
  EXPECT_TRUE(reader.rewindable());
}

TEST(BlockReader, RewindStepsBackAndBytesStay) {
  const unsigned char block[] = {0xAA, 0xBB, 0xCC};
  BlockReader reader(block, sizeof(block));
  reader.skip(3);
  reader.rewind(2);
  EXPECT_EQ(reader.offset, 1u);
  EXPECT_EQ(reader.data, block + 1);
  EXPECT_EQ(reader.read_nbo_16(), 0xBBCC);
}

TEST(BlockReader, RewindAtOffsetZeroThrowsRewoundTooFar) {
  const unsigned char block[] = {1};
  BlockReader reader(block, 1);
  Error error = error_of([&] { reader.rewind(1); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Rewound too far");
  EXPECT_EQ(reader.offset, 0u);
}

TEST(BlockReader, EmptyBlockTryReadIsFalse) {
  BlockReader reader(nullptr, 0);
  uint32_t value = 9;
  EXPECT_FALSE(reader.try_read_nbo_32(value));
  EXPECT_EQ(value, 9u);
  std::string text;
  Error error = error_of([&] { reader.read(text, 1); });
  EXPECT_EQ(error.text, "EOF in string");
}

}  // namespace
}  // namespace Korvix::Channel
