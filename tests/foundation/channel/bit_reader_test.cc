#include "foundation/channel/bit_reader.h"

#include <gtest/gtest.h>

#include <vector>

#include "foundation/channel/block_reader.h"

namespace Korvix::Channel {
namespace {

TEST(BitReader, ReadsBitsMostSignificantFirst) {
  const unsigned char bytes[] = {0xA5};  // 1010 0101
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  std::vector<int32_t> got;
  for (int n = 0; n < 8; ++n) got.push_back(bits.read_bit());
  EXPECT_EQ(got, (std::vector<int32_t>{1, 0, 1, 0, 0, 1, 0, 1}));
  EXPECT_EQ(bits.bits_left, 0u);
  EXPECT_EQ(bits.current, 0xA5u);
}

TEST(BitReader, StartsWithNothingBufferedAndTakesAByteOnlyWhenNeeded) {
  const unsigned char bytes[] = {0x80, 0x00};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.bits_left, 0u);
  EXPECT_EQ(block.offset, 0u);
  EXPECT_EQ(bits.read_bit(), 1);
  EXPECT_EQ(block.offset, 1u);
  EXPECT_EQ(bits.bits_left, 7u);
}

TEST(BitReader, ExpGolombOneIsZero) {
  const unsigned char bytes[] = {0x80};  // 1
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_exp_golomb(), 0);
  EXPECT_EQ(bits.bits_left, 7u);
}

TEST(BitReader, ExpGolombShortCodesInOneByteStream) {
  // 1 | 010 | 011 | 00100 | 1 (padding) -> 1010 0110 0100 1xxx
  const unsigned char bytes[] = {0xA6, 0x48};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_exp_golomb(), 0);
  EXPECT_EQ(bits.read_exp_golomb(), 1);
  EXPECT_EQ(bits.read_exp_golomb(), 2);
  EXPECT_EQ(bits.read_exp_golomb(), 3);
  EXPECT_EQ(bits.bits_left, 4u);
}

TEST(BitReader, ExpGolombCodeAcrossByteBorder) {
  // 0000 0001 | 0000 0110 -> seven zeros, a one, suffix 0000011: (1 << 7) - 1 + 3 = 130.
  const unsigned char bytes[] = {0x01, 0x06};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_exp_golomb(), 130);
  EXPECT_EQ(bits.bits_left, 1u);
}

TEST(BitReader, ExpGolombShiftCountIsTakenModulo32) {
  // 32 zeros, a one, then 32 suffix bits 0x00000005: (1 << 0) - 1 + 5 = 5.
  const unsigned char bytes[] = {0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x02, 0x80};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_exp_golomb(), 5);
  EXPECT_EQ(block.offset, 9u);
  EXPECT_EQ(bits.bits_left, 7u);
}

TEST(BitReader, ExpGolombWithThirtyOneZerosWrapsInThirtyTwoBits) {
  // 31 zeros, a one, 31 suffix bits all one: 0x7FFFFFFF + 0x7FFFFFFF = 0xFFFFFFFE, taken signed.
  const unsigned char bytes[] = {0x00, 0x00, 0x00, 0x01, 0xFF, 0xFF, 0xFF, 0xFE};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_exp_golomb(), -2);
}

TEST(BitReader, ReadBitsFourThenEightAcrossByteBorder) {
  const unsigned char bytes[] = {0x12, 0x34};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_bits(4), 0x1);
  EXPECT_EQ(bits.read_bits(8), 0x23);
  EXPECT_EQ(bits.read_bits(4), 0x4);
  EXPECT_EQ(block.offset, 2u);
}

TEST(BitReader, ReadBitsOfZeroGivesZeroAndReadsNothing) {
  const unsigned char bytes[] = {0xFF};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_bits(0), 0);
  EXPECT_EQ(block.offset, 0u);
  EXPECT_EQ(bits.bits_left, 0u);
}

TEST(BitReader, ReadBitsOfThirtyTwoGivesTheWholeWord) {
  const unsigned char bytes[] = {0xDE, 0xAD, 0xBE, 0xEF};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(static_cast<uint32_t>(bits.read_bits(32)), 0xDEADBEEFu);
}

TEST(BitReader, RunOfZerosToTheEndRaisesEof) {
  const unsigned char bytes[] = {0x00, 0x00};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  try {
    bits.read_exp_golomb();
    FAIL() << "no error";
  } catch (const Error& error) {
    EXPECT_EQ(error.error, 0);
    EXPECT_EQ(error.text, "EOF");
  }
  EXPECT_EQ(block.offset, 2u);
}

TEST(BitReader, SuffixCutOffByTheEndRaisesEof) {
  const unsigned char bytes[] = {0x01};  // seven zeros, a one, and no room for the suffix
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_THROW(bits.read_exp_golomb(), Error);
}

TEST(BitReader, ReadBitPastTheEndRaisesAndKeepsTheBitsTaken) {
  const unsigned char bytes[] = {0xF0};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  EXPECT_EQ(bits.read_bits(4), 0xF);
  EXPECT_THROW(bits.read_bits(8), Error);
  EXPECT_EQ(bits.bits_left, 0u);
  EXPECT_EQ(block.offset, 1u);
}

TEST(BitReader, NewReaderInMidStreamStartsAtByteBorder) {
  const unsigned char bytes[] = {0xF0, 0x0F};
  BlockReader block(bytes, sizeof bytes);
  {
    BitReader first(block);
    EXPECT_EQ(first.read_bits(2), 0x3);
  }
  BitReader second(block);
  // The six bits left in the first byte are lost: the next bits come from 0x0F.
  EXPECT_EQ(second.read_bits(8), 0x0F);
}

TEST(SignedExpGolomb, MapsCodesToAlternatingSigns) {
  EXPECT_EQ(signed_exp_golomb(0), 0);
  EXPECT_EQ(signed_exp_golomb(1), 1);
  EXPECT_EQ(signed_exp_golomb(2), -1);
  EXPECT_EQ(signed_exp_golomb(3), 2);
  EXPECT_EQ(signed_exp_golomb(4), -2);
  EXPECT_EQ(signed_exp_golomb(5), 3);
}

TEST(SignedExpGolomb, ExtremeCodesWrapAndShiftAsSignedNumbers) {
  // 0x7FFFFFFF + 1 wraps to -2^31; shifted right with its sign: -2^30; odd, so kept.
  EXPECT_EQ(signed_exp_golomb(2147483647), -1073741824);
  EXPECT_EQ(signed_exp_golomb(2147483646), -1073741823);
  // -1 + 1 is 0.
  EXPECT_EQ(signed_exp_golomb(-1), 0);
  // -2 + 1 is -1, which stays -1 when shifted; even, so negated.
  EXPECT_EQ(signed_exp_golomb(-2), 1);
  // -3 + 1 is -2, shifted -1; odd.
  EXPECT_EQ(signed_exp_golomb(-3), -1);
  // -2^31 + 1 shifted is -2^30; even, so negated.
  EXPECT_EQ(signed_exp_golomb(-2147483647 - 1), 1073741824);
}

TEST(SignedExpGolomb, CodeOfThirtyOneZerosIsNegativeAndKeepsItsSign) {
  // 31 zeros, a one, 31 suffix bits 0...01: (1 << 31) - 1 + 1 = 0x80000000, taken signed.
  const unsigned char bytes[] = {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x02};
  BlockReader block(bytes, sizeof bytes);
  BitReader bits(block);
  const int32_t code = bits.read_exp_golomb();
  EXPECT_EQ(code, -2147483647 - 1);
  EXPECT_EQ(signed_exp_golomb(code), 1073741824);
}

}  // namespace
}  // namespace Korvix::Channel
