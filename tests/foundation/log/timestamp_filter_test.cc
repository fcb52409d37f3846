#include "foundation/log/timestamp_filter.h"

#include <gtest/gtest.h>

#include "foundation/log/capturing_channel.h"
#include "foundation/log/distributor.h"
#include "foundation/zone_guard.h"

namespace Korvix::Log {
namespace {

std::string filtered(const std::string& format, int32_t level, Stamp stamp,
                     const std::string& text) {
  CapturingChannel sink;
  TimestampFilter filter(sink, format);
  Message message{level, stamp, text};
  filter.log(message);
  return sink.messages.size() == 1 ? sink.messages[0].text : "<not forwarded>";
}

TEST(TimestampFilter, LevelTwoAtSevenPointTwoFiveSeconds) {
  EXPECT_EQ(filtered("%*L %*S", 2, Stamp::from_unix(7, 250000), ""), "2 07.250");
}

TEST(TimestampFilter, PrefixGoesInFrontOfText) {
  EXPECT_EQ(filtered("%*L %*S ", 2, Stamp::from_unix(7, 250000), "Done"), "2 07.250 Done");
}

TEST(TimestampFilter, SecondsAreThoseWithinTheMinute) {
  EXPECT_EQ(filtered("%*S", 1, Stamp::from_unix(3600 + 127, 500000), ""), "07.500");
  EXPECT_EQ(filtered("%*S", 1, Stamp::from_unix(59, 999000), ""), "59.999");
  EXPECT_EQ(filtered("%*S", 1, Stamp::from_unix(0, 0), ""), "00.000");
}

TEST(TimestampFilter, EveryOccurrenceOfTheCodesIsReplaced) {
  EXPECT_EQ(filtered("%*L%*L|%*S|%*S", 2, Stamp::from_unix(1, 0), ""), "22|01.000|01.000");
  EXPECT_EQ(filtered("[%*L]", -4, Stamp::from_unix(1, 0), ""), "[-4]");
}

TEST(TimestampFilter, StrftimeCodesAreInLocalTime) {
  ZoneGuard zone("UTC0");
  Stamp stamp = Stamp::from_unix(86400 + 3600 + 120 + 7, 250000);
  EXPECT_EQ(filtered("%Y-%m-%d %H:%M:%*S ", 2, stamp, "x"), "1970-01-02 01:02:07.250 x");
  ZoneGuard east("XYZ-2");
  EXPECT_EQ(filtered("%H:%M ", 2, stamp, "x"), "03:02 x");
}

TEST(TimestampFilter, PercentCodesOfStrftimeStillWork) {
  EXPECT_EQ(filtered("100%% ", 2, Stamp::from_unix(0, 0), "x"), "100% x");
}

TEST(TimestampFilter, PrefixBeyondItsBufferIsLeftOut) {
  EXPECT_EQ(filtered(std::string(80, 'p'), 2, Stamp::from_unix(0, 0), "x"), "x");
  EXPECT_EQ(filtered(std::string(79, 'p'), 2, Stamp::from_unix(0, 0), "x"),
            std::string(79, 'p') + "x");
}

TEST(TimestampFilter, AltersTheMessageForLaterChannelsToo) {
  Distributor distributor;
  CapturingChannel through_filter;
  CapturingChannel later;
  TimestampFilter filter(through_filter, "%*L: ");
  distributor.connect(filter);
  distributor.connect(later);
  Message message{2, Stamp::from_unix(0, 0), "line"};
  distributor.log(message);
  ASSERT_EQ(later.messages.size(), 1u);
  EXPECT_EQ(through_filter.messages[0].text, "2: line");
  EXPECT_EQ(later.messages[0].text, "2: line");
  EXPECT_EQ(message.text, "2: line");
}

}  // namespace
}  // namespace Korvix::Log
