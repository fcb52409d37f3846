#include "foundation/channel/reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "foundation/channel/error_of.h"

namespace Korvix::Channel {
namespace {

// Hands out its bytes in pieces of at most piece bytes and records every call of the primitive.
class ScriptedReader : public Reader {
 public:
  ScriptedReader(std::vector<unsigned char> bytes_, size_t piece_ = 1024)
      : bytes(std::move(bytes_)), piece(piece_) {}

  size_t basic_read(unsigned char* data, size_t count) override {
    calls.push_back({data == nullptr, count});
    size_t n = count;
    if (n > piece) n = piece;
    if (n > bytes.size() - position) n = bytes.size() - position;
    if (data != nullptr && n > 0) std::memcpy(data, bytes.data() + position, n);
    position += n;
    offset += n;
    return n;
  }

  struct Call {
    bool discard;
    size_t count;
  };
  std::vector<unsigned char> bytes;
  size_t piece;
  size_t position = 0;
  std::vector<Call> calls;
};

TEST(Reader, OffsetStartsAtZero) {
  ScriptedReader reader({});
  EXPECT_EQ(reader.offset, 0u);
}

TEST(Reader, ReadByte) {
  ScriptedReader reader({0xAB, 0x01});
  EXPECT_EQ(reader.read_byte(), 0xAB);
  EXPECT_EQ(reader.read_byte(), 0x01);
  EXPECT_EQ(reader.offset, 2u);
}

TEST(Reader, Nbo16MostSignificantFirst) {
  ScriptedReader reader({0x12, 0x34});
  EXPECT_EQ(reader.read_nbo_16(), 0x1234);
}

TEST(Reader, Nbo24OfOneTwoThree) {
  ScriptedReader reader({0x01, 0x02, 0x03});
  EXPECT_EQ(reader.read_nbo_24(), 0x010203u);
  EXPECT_EQ(reader.offset, 3u);
}

TEST(Reader, Le24OfOneTwoThree) {
  ScriptedReader reader({0x01, 0x02, 0x03});
  EXPECT_EQ(reader.read_le_24(), 0x030201u);
}

TEST(Reader, Nbo32MostSignificantFirst) {
  ScriptedReader reader({0xDE, 0xAD, 0xBE, 0xEF});
  EXPECT_EQ(reader.read_nbo_32(), 0xDEADBEEFu);
}

TEST(Reader, Nbo64HighWordFirst) {
  ScriptedReader reader({0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x02});
  EXPECT_EQ(reader.read_nbo_64(), 0x0000000100000002ull);
  EXPECT_EQ(reader.offset, 8u);
}

TEST(Reader, Le16LeastSignificantFirst) {
  ScriptedReader reader({0x34, 0x12});
  EXPECT_EQ(reader.read_le_16(), 0x1234);
}

TEST(Reader, Le32LeastSignificantFirst) {
  ScriptedReader reader({0xEF, 0xBE, 0xAD, 0xDE});
  EXPECT_EQ(reader.read_le_32(), 0xDEADBEEFu);
}

TEST(Reader, Le64LowWordFirst) {
  ScriptedReader reader({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08});
  EXPECT_EQ(reader.read_le_64(), 0x0807060504030201ull);
}

TEST(Reader, NboDoubleFromBits) {
  // 1.5 is 0x3FF8000000000000.
  ScriptedReader reader({0x3F, 0xF8, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
  EXPECT_EQ(reader.read_nbo_double(), 1.5);
}

TEST(Reader, LeDoubleFromBits) {
  ScriptedReader reader({0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xF8, 0xBF});
  EXPECT_EQ(reader.read_le_double(), -1.5);
}

TEST(Reader, ReadLoopsOverShortPrimitiveReads) {
  ScriptedReader reader({1, 2, 3, 4, 5}, 2);
  unsigned char out[5] = {};
  reader.read(out, 5);
  EXPECT_EQ(std::vector<unsigned char>(out, out + 5), (std::vector<unsigned char>{1, 2, 3, 4, 5}));
  ASSERT_EQ(reader.calls.size(), 3u);
  EXPECT_EQ(reader.calls[0].count, 5u);
  EXPECT_EQ(reader.calls[1].count, 3u);
  EXPECT_EQ(reader.calls[2].count, 1u);
}

TEST(Reader, ReadOfZeroBytesCallsNothing) {
  ScriptedReader reader({});
  unsigned char out[1];
  reader.read(out, 0);
  EXPECT_TRUE(reader.calls.empty());
}

TEST(Reader, ReadAtEndThrowsEofCodeZero) {
  ScriptedReader reader({1, 2});
  Error error = error_of([&] { reader.read_nbo_32(); });
  EXPECT_EQ(error.error, 0);
  EXPECT_EQ(error.text, "EOF");
  EXPECT_EQ(reader.offset, 2u);
}

TEST(Reader, ReadWithNullDataDiscardsOnEveryCall) {
  ScriptedReader reader({1, 2, 3, 4}, 3);
  reader.read(nullptr, 4);
  ASSERT_EQ(reader.calls.size(), 2u);
  EXPECT_TRUE(reader.calls[0].discard);
  EXPECT_TRUE(reader.calls[1].discard);
  EXPECT_EQ(reader.offset, 4u);
}

TEST(Reader, ReadStringAppendsInPiecesOfAtMost1024) {
  std::vector<unsigned char> bytes(3000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>('a' + i % 26);
  ScriptedReader reader(bytes, 5000);
  std::string text = "x";
  reader.read(text, 3000);
  EXPECT_EQ(text, "x" + std::string(bytes.begin(), bytes.end()));
  ASSERT_EQ(reader.calls.size(), 3u);
  EXPECT_EQ(reader.calls[0].count, 1024u);
  EXPECT_EQ(reader.calls[1].count, 1024u);
  EXPECT_EQ(reader.calls[2].count, 952u);
}

TEST(Reader, ReadStringAtEndThrowsEofInStringAndKeepsWhatCame) {
  ScriptedReader reader({'a', 'b', 'c'});
  std::string text = "<";
  Error error = error_of([&] { reader.read(text, 5); });
  EXPECT_EQ(error.error, 0);
  EXPECT_EQ(error.text, "EOF in string");
  EXPECT_EQ(text, "<abc");
  EXPECT_EQ(reader.offset, 3u);
}

TEST(Reader, ReadStringOfZeroDoesNothing) {
  ScriptedReader reader({});
  std::string text = "kept";
  reader.read(text, 0);
  EXPECT_EQ(text, "kept");
  EXPECT_TRUE(reader.calls.empty());
}

TEST(Reader, TryReadIsFalseAtCleanEnd) {
  ScriptedReader reader({});
  unsigned char out[4];
  EXPECT_FALSE(reader.try_read(out, 4));
}

TEST(Reader, TryReadThrowsEofWhenCutOffMidItem) {
  ScriptedReader reader({1, 2});
  unsigned char out[4];
  Error error = error_of([&] { reader.try_read(out, 4); });
  EXPECT_EQ(error.error, 0);
  EXPECT_EQ(error.text, "EOF");
}

TEST(Reader, TryReadOfZeroIsTrue) {
  ScriptedReader reader({});
  EXPECT_TRUE(reader.try_read(nullptr, 0));
  EXPECT_TRUE(reader.calls.empty());
}

TEST(Reader, TryReadNbo32SetsValueOnlyOnSuccess) {
  ScriptedReader reader({0x01, 0x02, 0x03, 0x04});
  uint32_t value = 7;
  EXPECT_TRUE(reader.try_read_nbo_32(value));
  EXPECT_EQ(value, 0x01020304u);
  value = 7;
  EXPECT_FALSE(reader.try_read_nbo_32(value));
  EXPECT_EQ(value, 7u);
}

TEST(Reader, TryReadLe32SetsValueOnlyOnSuccess) {
  ScriptedReader reader({0x01, 0x02, 0x03, 0x04});
  uint32_t value = 7;
  EXPECT_TRUE(reader.try_read_le_32(value));
  EXPECT_EQ(value, 0x04030201u);
  value = 7;
  EXPECT_FALSE(reader.try_read_le_32(value));
  EXPECT_EQ(value, 7u);
}

TEST(Reader, SkipDiscardsThroughThePrimitive) {
  ScriptedReader reader({1, 2, 3, 4, 5});
  reader.skip(3);
  ASSERT_EQ(reader.calls.size(), 1u);
  EXPECT_TRUE(reader.calls[0].discard);
  EXPECT_EQ(reader.calls[0].count, 3u);
  EXPECT_EQ(reader.read_byte(), 4);
}

TEST(Reader, SkipBeyondEndThrowsEof) {
  ScriptedReader reader({1, 2});
  Error error = error_of([&] { reader.skip(3); });
  EXPECT_EQ(error.text, "EOF");
  EXPECT_EQ(reader.offset, 2u);
}

TEST(Reader, AlignAtFiveSkipsThree) {
  ScriptedReader reader(std::vector<unsigned char>(16, 0));
  reader.skip(5);
  reader.align(4);
  EXPECT_EQ(reader.offset, 8u);
  ASSERT_EQ(reader.calls.size(), 2u);
  EXPECT_EQ(reader.calls[1].count, 3u);
}

TEST(Reader, AlignAtEightSkipsNothing) {
  ScriptedReader reader(std::vector<unsigned char>(16, 0));
  reader.skip(8);
  reader.align(4);
  EXPECT_EQ(reader.offset, 8u);
  EXPECT_EQ(reader.calls.size(), 1u);
}

TEST(Reader, BaseIsNotRewindable) {
  ScriptedReader reader({1, 2, 3});
  EXPECT_FALSE(reader.rewindable());
}

TEST(Reader, BaseRewindThrowsCantRewindAtEveryOffset) {
  ScriptedReader reader({1, 2, 3});
  Error at_start = error_of([&] { reader.rewind(1); });
  EXPECT_EQ(at_start.error, 2);
  EXPECT_EQ(at_start.text, "Can't rewind");
  reader.skip(3);
  Error later = error_of([&] { reader.rewind(1); });
  EXPECT_EQ(later.error, 2);
  EXPECT_EQ(later.text, "Can't rewind");
  EXPECT_EQ(reader.offset, 3u);
}

}  // namespace
}  // namespace Korvix::Channel
