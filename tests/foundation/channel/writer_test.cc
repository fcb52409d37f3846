#include "foundation/channel/writer.h"

#include <gtest/gtest.h>

#include <vector>

#include "foundation/channel/error_of.h"

namespace Korvix::Channel {
namespace {

using Bytes = std::vector<unsigned char>;

// Keeps every call of the primitive as the bytes it was given.
class RecordingWriter : public Writer {
 public:
  void basic_write(const unsigned char* data, size_t count) override {
    calls.emplace_back(data, data + count);
    bytes.insert(bytes.end(), data, data + count);
    offset += count;
  }

  std::vector<Bytes> calls;
  Bytes bytes;
};

TEST(Writer, OffsetStartsAtZeroAndCountsBytes) {
  RecordingWriter writer;
  EXPECT_EQ(writer.offset, 0u);
  writer.write_nbo_32(1);
  writer.write_byte(2);
  EXPECT_EQ(writer.offset, 5u);
}

TEST(Writer, WriteBytesCallsPrimitiveDirectly) {
  RecordingWriter writer;
  const unsigned char data[] = {9, 8, 7};
  writer.write(data, 3);
  ASSERT_EQ(writer.calls.size(), 1u);
  EXPECT_EQ(writer.calls[0], (Bytes{9, 8, 7}));
}

TEST(Writer, WriteStringHasNoLengthNorTerminator) {
  RecordingWriter writer;
  writer.write(std::string("ab\0c", 4));
  EXPECT_EQ(writer.bytes, (Bytes{'a', 'b', 0, 'c'}));
}

TEST(Writer, WriteZeroTerminatedTextStopsBeforeTerminator) {
  RecordingWriter writer;
  writer.write("abc");
  EXPECT_EQ(writer.bytes, (Bytes{'a', 'b', 'c'}));
}

TEST(Writer, WriteByteTakesLowEightBits) {
  RecordingWriter writer;
  writer.write_byte(0x1FF);
  EXPECT_EQ(writer.bytes, (Bytes{0xFF}));
}

TEST(Writer, Nbo16) {
  RecordingWriter writer;
  writer.write_nbo_16(0xAB1234);
  EXPECT_EQ(writer.bytes, (Bytes{0x12, 0x34}));
}

TEST(Writer, Nbo24DropsBitsAbove23) {
  RecordingWriter writer;
  writer.write_nbo_24(0xAB123456);
  EXPECT_EQ(writer.bytes, (Bytes{0x12, 0x34, 0x56}));
}

TEST(Writer, Nbo32) {
  RecordingWriter writer;
  writer.write_nbo_32(0xDEADBEEF);
  EXPECT_EQ(writer.bytes, (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
}

TEST(Writer, Nbo64HighWordFirst) {
  RecordingWriter writer;
  writer.write_nbo_64(0x0102030405060708ull);
  EXPECT_EQ(writer.bytes, (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(Writer, NboDoubleWritesBits) {
  RecordingWriter writer;
  writer.write_nbo_double(1.5);
  EXPECT_EQ(writer.bytes, (Bytes{0x3F, 0xF8, 0, 0, 0, 0, 0, 0}));
}

TEST(Writer, Le16) {
  RecordingWriter writer;
  writer.write_le_16(0x1234);
  EXPECT_EQ(writer.bytes, (Bytes{0x34, 0x12}));
}

TEST(Writer, Le24) {
  RecordingWriter writer;
  writer.write_le_24(0xAB123456);
  EXPECT_EQ(writer.bytes, (Bytes{0x56, 0x34, 0x12}));
}

TEST(Writer, Le32) {
  RecordingWriter writer;
  writer.write_le_32(0xDEADBEEF);
  EXPECT_EQ(writer.bytes, (Bytes{0xEF, 0xBE, 0xAD, 0xDE}));
}

TEST(Writer, Le64PutsLowWordFirstWithNetworkOrderInsideEachWord) {
  RecordingWriter writer;
  writer.write_le_64(0x0102030405060708ull);
  EXPECT_EQ(writer.bytes, (Bytes{0x05, 0x06, 0x07, 0x08, 0x01, 0x02, 0x03, 0x04}));
}

TEST(Writer, LeDoubleFollowsLe64) {
  RecordingWriter writer;
  writer.write_le_double(1.5);
  EXPECT_EQ(writer.bytes, (Bytes{0, 0, 0, 0, 0x3F, 0xF8, 0, 0}));
}

TEST(Writer, SkipOf600WritesZerosIn256256And88) {
  RecordingWriter writer;
  writer.skip(600);
  ASSERT_EQ(writer.calls.size(), 3u);
  EXPECT_EQ(writer.calls[0], Bytes(256, 0));
  EXPECT_EQ(writer.calls[1], Bytes(256, 0));
  EXPECT_EQ(writer.calls[2], Bytes(88, 0));
  EXPECT_EQ(writer.offset, 600u);
}

TEST(Writer, SkipOfZeroWritesNothing) {
  RecordingWriter writer;
  writer.skip(0);
  EXPECT_TRUE(writer.calls.empty());
}

TEST(Writer, AlignAtFiveSkipsThree) {
  RecordingWriter writer;
  writer.skip(5);
  writer.align(4);
  EXPECT_EQ(writer.offset, 8u);
  ASSERT_EQ(writer.calls.size(), 2u);
  EXPECT_EQ(writer.calls[1], Bytes(3, 0));
}

TEST(Writer, AlignAtEightSkipsNothing) {
  RecordingWriter writer;
  writer.skip(8);
  writer.align(4);
  EXPECT_EQ(writer.offset, 8u);
  EXPECT_EQ(writer.calls.size(), 1u);
}

TEST(Writer, BaseIsNotRewindable) {
  RecordingWriter writer;
  EXPECT_FALSE(writer.rewindable());
}

TEST(Writer, BaseRewindThrowsCantRewind) {
  RecordingWriter writer;
  writer.write_nbo_32(0);
  Error error = error_of([&] { writer.rewind(2); });
  EXPECT_EQ(error.error, 2);
  EXPECT_EQ(error.text, "Can't rewind");
  EXPECT_EQ(writer.offset, 4u);
}

}  // namespace
}  // namespace Korvix::Channel
