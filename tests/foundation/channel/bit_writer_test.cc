#include "foundation/channel/bit_writer.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "foundation/channel/bit_reader.h"
#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/stream_writer.h"

namespace Korvix::Channel {
namespace {

TEST(BitWriter, EightBitsMakeOneByteAtOnce) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  for (uint32_t bit : {1u, 0u, 1u, 0u, 0u, 1u, 0u}) bits.write_bit(bit);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(bits.bits_used, 7u);
  bits.write_bit(1);
  EXPECT_EQ(out.str(), "\xA5");
  EXPECT_EQ(bits.bits_used, 0u);
  EXPECT_EQ(bits.accumulator, 0u);
}

TEST(BitWriter, WriteBitTakesOnlyTheLowBit) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  for (uint32_t bit : {2u, 3u, 0xFEu, 0xFFu, 4u, 5u, 6u, 7u}) bits.write_bit(bit);
  EXPECT_EQ(out.str(), "\x55");
}

TEST(BitWriter, WriteBitsWritesLowBitsHighestFirst) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  bits.write_bits(4, 0xF1);    // 0001
  bits.write_bits(8, 0x23);    // 0010 0011
  bits.write_bits(4, 0x1234);  // 0100
  EXPECT_EQ(out.str(), std::string("\x12\x34", 2));
}

TEST(BitWriter, WriteBitsOfZeroWritesNothing) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  bits.write_bits(0, 0xFFFFFFFF);
  EXPECT_EQ(bits.bits_used, 0u);
  bits.flush();
  EXPECT_EQ(out.str(), "");
}

TEST(BitWriter, WriteBitsOfThirtyTwoWritesTheWholeWord) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  bits.write_bits(32, 0xDEADBEEF);
  EXPECT_EQ(out.str(), "\xDE\xAD\xBE\xEF");
}

TEST(BitWriter, FlushPadsPartialByteWithZerosAtTheLowEnd) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  bits.write_bits(3, 0x7);
  bits.flush();
  EXPECT_EQ(out.str(), "\xE0");
  EXPECT_EQ(bits.bits_used, 0u);
  EXPECT_EQ(bits.accumulator, 0u);
  bits.write_bit(1);
  bits.flush();
  EXPECT_EQ(out.str(), "\xE0\x80");
}

TEST(BitWriter, FlushWithNothingPendingWritesNothing) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  bits.flush();
  EXPECT_EQ(out.str(), "");
  bits.write_bits(8, 0x42);
  bits.flush();
  EXPECT_EQ(out.str(), "\x42");
  EXPECT_EQ(stream.offset, 1u);
}

TEST(BitWriter, OverflowOfTheBlockPassesTheErrorThrough) {
  unsigned char block[1] = {0};
  BlockWriter writer(block, sizeof block);
  BitWriter bits(writer);
  bits.write_bits(8, 0x81);
  EXPECT_EQ(block[0], 0x81);
  bits.write_bits(7, 0);
  try {
    bits.write_bit(1);
    FAIL() << "no error";
  } catch (const Error& error) {
    EXPECT_EQ(error.text, "Data block overflowed");
  }
}

TEST(BitWriter, ExpGolombCodesReadBackThroughBitReader) {
  std::ostringstream out;
  StreamWriter stream(out);
  BitWriter bits(stream);
  // ue(v) of 0, 1, 2, 3, 130: 1, 010, 011, 00100, 000000010000011.
  bits.write_bits(1, 1);
  bits.write_bits(3, 2);
  bits.write_bits(3, 3);
  bits.write_bits(5, 4);
  bits.write_bits(15, 131);
  bits.flush();
  std::string bytes = out.str();
  ASSERT_EQ(bytes.size(), 4u);
  BlockReader block(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  BitReader reader(block);
  EXPECT_EQ(reader.read_exp_golomb(), 0);
  EXPECT_EQ(reader.read_exp_golomb(), 1);
  EXPECT_EQ(reader.read_exp_golomb(), 2);
  EXPECT_EQ(reader.read_exp_golomb(), 3);
  EXPECT_EQ(reader.read_exp_golomb(), 130);
}

}  // namespace
}  // namespace Korvix::Channel
