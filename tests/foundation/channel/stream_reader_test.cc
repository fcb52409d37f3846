#include "foundation/channel/stream_reader.h"

#include <gtest/gtest.h>

#include <sstream>
#include <streambuf>
#include <string>

#include "foundation/channel/error_of.h"

namespace Korvix::Channel {
namespace {

std::string bytes(std::initializer_list<unsigned char> list) {
  return std::string(list.begin(), list.end());
}

// A source that cannot seek, as a pipe.
class PipeBuf : public std::streambuf {
 public:
  explicit PipeBuf(std::string data_) : data(std::move(data_)) {
    setg(data.data(), data.data(), data.data() + data.size());
  }

 private:
  std::string data;
};

TEST(StreamReader, ReadsInNetworkOrderAndCountsOffset) {
  std::istringstream in(bytes({0x12, 0x34, 0x56, 0x78, 0x9A}));
  StreamReader reader(in);
  EXPECT_EQ(reader.offset, 0u);
  EXPECT_EQ(reader.read_nbo_32(), 0x12345678u);
  EXPECT_EQ(reader.read_byte(), 0x9A);
  EXPECT_EQ(reader.offset, 5u);
}

TEST(StreamReader, OverSixBytesSecondTryReadGetsTwoThenThrowsStreamFailed) {
  std::istringstream in(bytes({1, 2, 3, 4, 5, 6}));
  StreamReader reader(in);
  uint32_t value = 0;
  EXPECT_TRUE(reader.try_read_nbo_32(value));
  EXPECT_EQ(value, 0x01020304u);
  Error error = error_of([&] { reader.try_read_nbo_32(value); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Stream failed");
  EXPECT_EQ(reader.offset, 6u);
  EXPECT_EQ(value, 0x01020304u);
}

TEST(StreamReader, OverFourBytesSecondTryReadIsFalseAndThirdThrowsStreamFailed) {
  std::istringstream in(bytes({1, 2, 3, 4}));
  StreamReader reader(in);
  uint32_t value = 0;
  EXPECT_TRUE(reader.try_read_nbo_32(value));
  EXPECT_FALSE(reader.try_read_nbo_32(value));
  Error error = error_of([&] { reader.try_read_nbo_32(value); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Stream failed");
}

TEST(StreamReader, ShortReadAtEndThrowsStreamFailedNotEof) {
  std::istringstream in(bytes({1, 2}));
  StreamReader reader(in);
  Error error = error_of([&] { reader.read_nbo_32(); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Stream failed");
  EXPECT_EQ(reader.offset, 2u);
}

TEST(StreamReader, EndOnStartOfCallThrowsEofThenStreamFailed) {
  std::istringstream in(bytes({1, 2, 3, 4}));
  StreamReader reader(in);
  reader.read_nbo_32();
  Error first = error_of([&] { reader.read_byte(); });
  EXPECT_EQ(first.error, 0);
  EXPECT_EQ(first.text, "EOF");
  Error second = error_of([&] { reader.read_byte(); });
  EXPECT_EQ(second.error, 1);
  EXPECT_EQ(second.text, "Stream failed");
}

TEST(StreamReader, FailedStreamThrowsBeforeReading) {
  std::istringstream in(bytes({1, 2, 3}));
  in.setstate(std::ios::failbit);
  StreamReader reader(in);
  Error error = error_of([&] { reader.read_byte(); });
  EXPECT_EQ(error.text, "Stream failed");
  EXPECT_EQ(reader.offset, 0u);
}

TEST(StreamReader, EndOfFileAloneDoesNotCountAsFailed) {
  std::istringstream in(bytes({1, 2, 3}));
  in.setstate(std::ios::eofbit);
  StreamReader reader(in);
  Error error = error_of([&] { reader.read_byte(); });
  EXPECT_EQ(error.error, 0);
  EXPECT_EQ(error.text, "EOF");
}

TEST(StreamReader, SkipIgnoresBytes) {
  std::istringstream in(bytes({1, 2, 3, 4, 5, 6}));
  StreamReader reader(in);
  reader.skip(4);
  EXPECT_EQ(reader.offset, 4u);
  EXPECT_EQ(reader.read_nbo_16(), 0x0506);
}

TEST(StreamReader, SkipBeyondEndThrowsEofSinceIgnoreLeavesOnlyEndOfFile) {
  std::istringstream in(bytes({1, 2, 3, 4, 5, 6}));
  StreamReader reader(in);
  Error error = error_of([&] { reader.skip(10); });
  EXPECT_EQ(error.error, 0);
  EXPECT_EQ(error.text, "EOF");
  EXPECT_EQ(reader.offset, 6u);
}

TEST(StreamReader, ReadStringFromStream) {
  std::istringstream in("hello world");
  StreamReader reader(in);
  std::string text;
  reader.read(text, 5);
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(reader.offset, 5u);
}

TEST(StreamReader, IsRewindable) {
  std::istringstream in("");
  StreamReader reader(in);
  EXPECT_TRUE(reader.rewindable());
}

TEST(StreamReader, RewindSeeksBack) {
  std::istringstream in(bytes({1, 2, 3, 4}));
  StreamReader reader(in);
  reader.read_nbo_32();
  reader.rewind(2);
  EXPECT_EQ(reader.offset, 2u);
  EXPECT_EQ(reader.read_nbo_16(), 0x0304);
}

TEST(StreamReader, RewindAtOffsetZeroThrowsRewoundTooFar) {
  std::istringstream in(bytes({1, 2}));
  StreamReader reader(in);
  Error error = error_of([&] { reader.rewind(1); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Rewound too far");
  EXPECT_EQ(reader.offset, 0u);
}

TEST(StreamReader, RewindOfFailedStreamThrowsCantRewindWithOffsetSubtracted) {
  std::istringstream in(bytes({1, 2, 3, 4}));
  StreamReader reader(in);
  reader.read_nbo_32();
  error_of([&] { reader.read_byte(); });  // "EOF", leaves failbit set
  Error error = error_of([&] { reader.rewind(2); });
  EXPECT_EQ(error.error, 2);
  EXPECT_EQ(error.text, "Can't rewind");
  EXPECT_EQ(reader.offset, 2u);
}

TEST(StreamReader, RewindOnPipeThrowsCantRewind) {
  PipeBuf buf(bytes({1, 2, 3, 4}));
  std::istream in(&buf);
  StreamReader reader(in);
  reader.read_nbo_16();
  Error error = error_of([&] { reader.rewind(1); });
  EXPECT_EQ(error.error, 2);
  EXPECT_EQ(error.text, "Can't rewind");
  EXPECT_EQ(reader.offset, 1u);
}

}  // namespace
}  // namespace Korvix::Channel
