#include "foundation/log/level_filter.h"

#include <gtest/gtest.h>

#include "foundation/log/capturing_channel.h"
#include "foundation/log/distributor.h"
#include "foundation/log/stream.h"

namespace Korvix::Log {
namespace {

TEST(LevelFilter, PassesLevelsUpToItsOwn) {
  CapturingChannel sink;
  LevelFilter filter(sink, 2);
  for (int32_t level : {1, 2, 3, 4, 0, -1}) {
    Message message{level, Stamp(), "level " + std::to_string(level)};
    filter.log(message);
  }
  ASSERT_EQ(sink.messages.size(), 4u);
  EXPECT_EQ(sink.messages[0].text, "level 1");
  EXPECT_EQ(sink.messages[1].text, "level 2");
  EXPECT_EQ(sink.messages[2].text, "level 0");
  EXPECT_EQ(sink.messages[3].text, "level -1");
}

TEST(LevelFilter, ForwardsTheSameMessageObject) {
  CapturingChannel sink;
  LevelFilter filter(sink, 2);
  Message message{1, Stamp(), "x"};
  filter.log(message);
  ASSERT_EQ(sink.addresses.size(), 1u);
  EXPECT_EQ(sink.addresses[0], &message);
}

TEST(LevelFilter, DetailLineReachesFilterOfTwoAndGoesNoFurther) {
  Distributor distributor;
  CapturingChannel before;  // sees what reaches the filter
  CapturingChannel after;   // sees what passes it
  LevelFilter filter(after, 2);
  distributor.connect(before);
  distributor.connect(filter);
  Detail(distributor) << "tracing\n";
  Summary(distributor) << "progress\n";
  Error(distributor) << "failure\n";
  ASSERT_EQ(before.messages.size(), 3u);
  EXPECT_EQ(before.messages[0].level, 3);
  ASSERT_EQ(after.messages.size(), 2u);
  EXPECT_EQ(after.messages[0].text, "progress");
  EXPECT_EQ(after.messages[0].level, 2);
  EXPECT_EQ(after.messages[1].text, "failure");
  EXPECT_EQ(after.messages[1].level, 1);
}

TEST(LevelFilter, AcceptsLevelsUpToItsOwnOnly) {
  CapturingChannel sink;
  LevelFilter filter(sink, 2);
  EXPECT_TRUE(filter.accepts(1));
  EXPECT_TRUE(filter.accepts(2));
  EXPECT_FALSE(filter.accepts(3));
}

TEST(LevelFilter, AcceptsOnlyWhatTheFiltersBehindItAccept) {
  CapturingChannel sink;
  LevelFilter inner(sink, 1);
  LevelFilter outer(inner, 2);
  EXPECT_TRUE(outer.accepts(1));
  EXPECT_FALSE(outer.accepts(2));
}

// Counts the questions and the lines that reach it.
class CountingChannel : public Channel {
 public:
  void log(Message&) override { ++lines; }
  bool accepts(int32_t) override {
    ++questions;
    return true;
  }

  int lines = 0;
  int questions = 0;
};

TEST(LevelFilter, StreamBelowTheLevelIsNotEnabledAndAsksNothingFurther) {
  CountingChannel sink;
  LevelFilter filter(sink, 2);
  Distributor distributor;
  distributor.connect(filter);
  Detail detail(distributor);
  EXPECT_FALSE(detail.enabled());
  // The level test settles it: the sink behind the filter isn't asked.
  EXPECT_EQ(sink.questions, 0);
  Summary summary(distributor);
  EXPECT_TRUE(summary.enabled());
  EXPECT_EQ(sink.questions, 1);
  EXPECT_EQ(sink.lines, 0);
}

TEST(LevelFilter, GuardedLineBelowTheLevelReachesNoChannel) {
  CountingChannel before;
  CountingChannel after;
  LevelFilter filter(after, 2);
  Distributor distributor;
  distributor.connect(filter);
  Detail detail(distributor);
  if (detail.enabled()) detail << "unit " << 42 << "\n";
  EXPECT_EQ(after.lines, 0);
  // A channel that takes every level makes the same line go out.
  distributor.connect(before);
  EXPECT_TRUE(detail.enabled());
  if (detail.enabled()) detail << "unit " << 42 << "\n";
  EXPECT_EQ(before.lines, 1);
  EXPECT_EQ(after.lines, 0);
}

TEST(LevelFilter, DistributorWithoutChannelsAcceptsNothing) {
  Distributor distributor;
  EXPECT_FALSE(distributor.accepts(1));
  EXPECT_FALSE(Error(distributor).enabled());
}

}  // namespace
}  // namespace Korvix::Log
