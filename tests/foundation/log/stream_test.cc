#include "foundation/log/stream.h"

#include <gtest/gtest.h>

#include "foundation/log/capturing_channel.h"

namespace Korvix::Log {
namespace {

TEST(Stream, LevelsAreOneTwoThree) {
  EXPECT_EQ(LEVEL_ERROR, 1);
  EXPECT_EQ(LEVEL_SUMMARY, 2);
  EXPECT_EQ(LEVEL_DETAIL, 3);
}

TEST(Stream, EachStreamClassSendsAtItsFixedLevel) {
  CapturingChannel sink;
  Error(sink) << "e\n";
  Summary(sink) << "s\n";
  Detail(sink) << "d\n";
  ASSERT_EQ(sink.messages.size(), 3u);
  EXPECT_EQ(sink.messages[0].level, 1);
  EXPECT_EQ(sink.messages[1].level, 2);
  EXPECT_EQ(sink.messages[2].level, 3);
}

TEST(Stream, FormatsLikeAnyOutputStream) {
  CapturingChannel sink;
  Summary summary(sink);
  summary << "Frames: " << 42 << ", rate " << 1.5 << std::endl;
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_EQ(sink.messages[0].text, "Frames: 42, rate 1.5");
}

TEST(Stream, TextAfterLastNewlineIsDroppedAtDestruction) {
  CapturingChannel sink;
  {
    Summary summary(sink);
    summary << "sent\nnever sent";
  }
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_EQ(sink.messages[0].text, "sent");
}

TEST(Stream, InstallsStreamBufWithChannelAndLevel) {
  CapturingChannel sink;
  Stream stream(sink, 7);
  auto* buf = dynamic_cast<StreamBuf*>(stream.rdbuf());
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(&buf->channel, &sink);
  EXPECT_EQ(buf->level, 7);
  stream << "seven\n";
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_EQ(sink.messages[0].level, 7);
}

TEST(Streams, HoldsErrorSummaryAndDetailOnOneChannel) {
  CapturingChannel sink;
  Streams streams(sink);
  streams.detail << "three\n";
  streams.error << "one\n";
  streams.summary << "two\n";
  ASSERT_EQ(sink.messages.size(), 3u);
  EXPECT_EQ(sink.messages[0].level, 3);
  EXPECT_EQ(sink.messages[1].level, 1);
  EXPECT_EQ(sink.messages[2].level, 2);
}

TEST(Streams, LinesOfDifferentStreamsDoNotMix) {
  CapturingChannel sink;
  Streams streams(sink);
  streams.summary << "half ";
  streams.error << "failure\n";
  streams.summary << "whole\n";
  ASSERT_EQ(sink.messages.size(), 2u);
  EXPECT_EQ(sink.messages[0].text, "failure");
  EXPECT_EQ(sink.messages[1].text, "half whole");
}

}  // namespace
}  // namespace Korvix::Log
