#include <gtest/gtest.h>

#include "foundation/log/capturing_channel.h"
#include "foundation/log/stream.h"

namespace Korvix::Log {
namespace {

// Lets the test call overflow directly, as a stream would at its end of file.
class OpenStreamBuf : public StreamBuf {
 public:
  using StreamBuf::overflow;
  using StreamBuf::StreamBuf;
};

TEST(StreamBuf, StartsEmptyAndUnflushed) {
  CapturingChannel sink;
  StreamBuf buf(sink, 2);
  EXPECT_EQ(buf.buffer, "");
  EXPECT_FALSE(buf.flushed);
  EXPECT_EQ(buf.level, 2);
  EXPECT_EQ(&buf.channel, &sink);
}

TEST(StreamBuf, NewlineSendsLineAndKeepsRestInBuffer) {
  CapturingChannel sink;
  StreamBuf buf(sink, 2);
  std::ostream out(&buf);
  out << "a\nb";
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_EQ(sink.messages[0].text, "a");
  EXPECT_EQ(buf.buffer, "b");
  out << '\n';
  ASSERT_EQ(sink.messages.size(), 2u);
  EXPECT_EQ(sink.messages[1].text, "b");
  EXPECT_EQ(buf.buffer, "");
}

TEST(StreamBuf, EmptyLineSendsEmptyText) {
  CapturingChannel sink;
  StreamBuf buf(sink, 1);
  std::ostream out(&buf);
  out << "\n\n";
  ASSERT_EQ(sink.messages.size(), 2u);
  EXPECT_EQ(sink.messages[0].text, "");
  EXPECT_EQ(sink.messages[1].text, "");
}

TEST(StreamBuf, MessageCarriesLevelAndCurrentStamp) {
  CapturingChannel sink;
  StreamBuf buf(sink, 3);
  std::ostream out(&buf);
  Stamp before = Stamp::now();
  out << "line\n";
  Stamp after = Stamp::now();
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_EQ(sink.messages[0].level, 3);
  EXPECT_GE(sink.messages[0].timestamp.value, before.value);
  EXPECT_LE(sink.messages[0].timestamp.value, after.value);
}

TEST(StreamBuf, FlushWithoutNewlineSendsNothing) {
  CapturingChannel sink;
  StreamBuf buf(sink, 2);
  std::ostream out(&buf);
  out << "pending" << std::flush;
  EXPECT_TRUE(sink.messages.empty());
  EXPECT_EQ(buf.buffer, "pending");
}

TEST(StreamBuf, EndOfFileSendsBufferOnceAndKeepsIt) {
  CapturingChannel sink;
  OpenStreamBuf buf(sink, 1);
  std::ostream out(&buf);
  out << "partial";
  EXPECT_EQ(buf.overflow(StreamBuf::traits_type::eof()), 0);
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_EQ(sink.messages[0].text, "partial");
  EXPECT_EQ(sink.messages[0].level, 1);
  EXPECT_TRUE(buf.flushed);
  EXPECT_EQ(buf.buffer, "partial");

  // The flag is never reset: a second end of file sends nothing, even after a newline.
  out << " more\n";
  ASSERT_EQ(sink.messages.size(), 2u);
  EXPECT_EQ(sink.messages[1].text, "partial more");
  buf.overflow(StreamBuf::traits_type::eof());
  EXPECT_EQ(sink.messages.size(), 2u);
}

TEST(StreamBuf, EveryCharacterGivesZero) {
  CapturingChannel sink;
  OpenStreamBuf buf(sink, 2);
  EXPECT_EQ(buf.overflow('x'), 0);
  EXPECT_EQ(buf.overflow('\n'), 0);
  EXPECT_EQ(buf.overflow(StreamBuf::traits_type::eof()), 0);
}

TEST(StreamBuf, HighBytesAreKept) {
  CapturingChannel sink;
  StreamBuf buf(sink, 2);
  std::ostream out(&buf);
  out << "\xC3\xA9\xFF\n";
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_EQ(sink.messages[0].text, "\xC3\xA9\xFF");
}

}  // namespace
}  // namespace Korvix::Log
