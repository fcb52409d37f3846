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

}  // namespace
}  // namespace Korvix::Log
