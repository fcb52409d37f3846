#include "foundation/time/stamp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <string>

#include "foundation/zone_guard.h"

namespace Korvix {
namespace {

constexpr uint64_t half = 0x80000000u;     // half a second in the low word
constexpr uint64_t quarter = 0x40000000u;  // a quarter second

TEST(Stamp, UnixZeroWithHalfSecondIsEpochOffsetPointFive) {
  EXPECT_EQ(Stamp::from_unix(0, 500000).value, 0x83AA7E8080000000ull);
}

TEST(Stamp, FromUnixScalesMicrosecondsToFraction) {
  EXPECT_EQ(Stamp::from_unix(0, 0).value, 0x83AA7E8000000000ull);
  EXPECT_EQ(Stamp::from_unix(1, 250000).value, 0x83AA7E8140000000ull);
  EXPECT_EQ(Stamp::from_unix(0, 1).value, 0x83AA7E8000000000ull + 4294u);
}

TEST(Stamp, NowIsAfterTheYear2020) {
  Stamp now = Stamp::now();
  EXPECT_TRUE(now.valid());
  EXPECT_GT(now.value >> 32, 0xE1B7A100ull);  // 2020-01-01 in 1900 seconds, 3786825600
}

TEST(Stamp, ZeroIsInvalid) {
  EXPECT_FALSE(Stamp().valid());
  EXPECT_FALSE(Stamp(0).valid());
  EXPECT_TRUE(Stamp(1).valid());
}

TEST(Stamp, BrokenDownUnixEpochIsEpochOffset) {
  EXPECT_EQ(Stamp(BrokenDownTime{1970, 1, 1, 0, 0, 0.0}).value, 0x83AA7E8000000000ull);
}

TEST(Stamp, BrokenDownKnownDates) {
  EXPECT_EQ(Stamp(BrokenDownTime{2000, 1, 1, 0, 0, 0.0}).value, 0xBC17C200ull << 32);
  EXPECT_EQ(Stamp(BrokenDownTime{1999, 12, 31, 23, 59, 59.0}).value, 0xBC17C1FFull << 32);
  EXPECT_EQ(Stamp(BrokenDownTime{1900, 3, 1, 0, 0, 0.0}).value, 0x4DC880ull << 32);
  EXPECT_EQ(Stamp(BrokenDownTime{2024, 2, 29, 12, 34, 56.25}).value,
            (0xE98AF870ull << 32) | quarter);
}

TEST(Stamp, BrokenDownFirstInstantOf1900IsTheInvalidStamp) {
  EXPECT_EQ(Stamp(BrokenDownTime{1900, 1, 1, 0, 0, 0.0}).value, 0u);
  EXPECT_EQ(Stamp(BrokenDownTime{1900, 1, 1, 0, 0, 0.5}).value, half);
}

TEST(Stamp, BrokenDownMonthOutsideRangeIsInvalid) {
  EXPECT_EQ(Stamp(BrokenDownTime{2024, 0, 1, 0, 0, 0.0}).value, 0u);
  EXPECT_EQ(Stamp(BrokenDownTime{2024, 13, 1, 0, 0, 0.0}).value, 0u);
}

TEST(Stamp, BrokenDownSecondsBeyondEraWrap) {
  EXPECT_EQ(Stamp(BrokenDownTime{2036, 2, 7, 6, 28, 16.0}).value, 0u);
  EXPECT_EQ(Stamp(BrokenDownTime{2036, 2, 7, 6, 28, 17.0}).value, 1ull << 32);
}

TEST(Stamp, BrokenDownNotANumberSecondsCountAsZero) {
  EXPECT_EQ(Stamp(BrokenDownTime{1970, 1, 1, 0, 0, std::nan("")}).value, 0x83AA7E8000000000ull);
}

TEST(Stamp, BreakingDownGivesTheCalendarBack) {
  BrokenDownTime time = Stamp((0xE98AF870ull << 32) | quarter).broken_down();
  EXPECT_EQ(time, (BrokenDownTime{2024, 2, 29, 12, 34, 56.25}));
  EXPECT_EQ(Stamp(0).broken_down(), (BrokenDownTime{1900, 1, 1, 0, 0, 0.0}));
  EXPECT_EQ(Stamp(0xFFFFFFFFull << 32).broken_down(), (BrokenDownTime{2036, 2, 7, 6, 28, 15.0}));
}

TEST(Stamp, BreakDownIsInverseOverCalendarCorners) {
  const BrokenDownTime dates[] = {{1900, 1, 31, 1, 2, 3.0},  {1900, 2, 28, 23, 59, 59.0},
                                  {1900, 3, 1, 0, 0, 0.0},   {1904, 2, 29, 12, 0, 0.0},
                                  {1999, 12, 31, 0, 0, 0.0}, {2000, 2, 29, 0, 0, 0.0},
                                  {2000, 3, 1, 0, 0, 0.0},   {2023, 12, 31, 23, 59, 59.5},
                                  {2024, 1, 1, 0, 0, 0.0},   {2035, 6, 15, 8, 30, 0.75}};
  for (const BrokenDownTime& date : dates) EXPECT_EQ(Stamp(date).broken_down(), date);
}

TEST(Stamp, EveryDayOfSeveralYearsRoundTrips) {
  // Day by day from 1 January 1970 over twelve years, three leap days among them.
  uint64_t start = 0x83AA7E80ull;
  for (uint64_t day = 0; day < 12 * 366; ++day) {
    Stamp stamp((start + day * 86400) << 32);
    ASSERT_EQ(Stamp(stamp.broken_down()), stamp) << day;
  }
}

TEST(Stamp, WeekdayCountsMondayAsOne) {
  EXPECT_EQ(Stamp(1).weekday(), 1);  // 1 January 1900 was a Monday
  EXPECT_EQ(Stamp::from_unix(0, 0).weekday(), 4);
  EXPECT_EQ(Stamp(BrokenDownTime{2000, 1, 1, 12, 0, 0.0}).weekday(), 6);
  EXPECT_EQ(Stamp(BrokenDownTime{2000, 1, 2, 12, 0, 0.0}).weekday(), 7);
  EXPECT_EQ(Stamp(BrokenDownTime{2000, 1, 3, 0, 0, 0.0}).weekday(), 1);
}

TEST(Stamp, StrftimeFormsInTheCLocale) {
  Stamp stamp(BrokenDownTime{2024, 2, 29, 12, 34, 56.25});
  EXPECT_EQ(stamp.date_time_text(), "02/29/24 12:34");
  EXPECT_EQ(stamp.time_text(), "12:34:56");
  EXPECT_EQ(stamp.date_text(), "02/29/24");
  EXPECT_EQ(stamp.gmt_text(), "Thu, 29 Feb 2024 12:34:56 GMT");
}

TEST(Stamp, GmtTextOfInvalidStampIsEmpty) {
  EXPECT_EQ(Stamp().gmt_text(), "");
  EXPECT_EQ(Stamp::from_unix(0, 0).gmt_text(), "Thu, 01 Jan 1970 00:00:00 GMT");
}

TEST(Stamp, IsoParseCompactAndPunctuatedForms) {
  uint64_t expected = 0xE98AF870ull << 32;
  EXPECT_EQ(Stamp::from_iso("20240229T123456").value, expected);
  EXPECT_EQ(Stamp::from_iso("2024-02-29T12:34:56").value, expected);
  EXPECT_EQ(Stamp::from_iso("2024-02-29 12:34:56").value, expected);
  EXPECT_EQ(Stamp::from_iso("20240229 12:3456").value, expected);
  EXPECT_EQ(Stamp::from_iso("2024-02-29T12:34:56Z").value, expected);
}

TEST(Stamp, IsoParseTakesFractionOfSeconds) {
  EXPECT_EQ(Stamp::from_iso("2024-02-29T12:34:56.25Z").value, (0xE98AF870ull << 32) | quarter);
}

TEST(Stamp, IsoParseOfShortOrMalformedTextIsInvalid) {
  EXPECT_EQ(Stamp::from_iso("20240229T12345").value, 0u);
  EXPECT_EQ(Stamp::from_iso("").value, 0u);
  EXPECT_EQ(Stamp::from_iso("2024-02-29T12:34").value, 0u);
  EXPECT_EQ(Stamp::from_iso("20240229X123456").value, 0u);
  EXPECT_EQ(Stamp::from_iso("2024O229T123456").value, 0u);
  EXPECT_EQ(Stamp::from_iso("20241329T123456").value, 0u);
}

TEST(Stamp, IsoOutputForms) {
  Stamp stamp(BrokenDownTime{2024, 2, 29, 12, 34, 56.25});
  EXPECT_EQ(stamp.iso_compact(), "20240229T123456");
  EXPECT_EQ(stamp.iso_date(), "2024-02-29");
  EXPECT_EQ(stamp.iso_date("/"), "2024/02/29");
  EXPECT_EQ(stamp.iso_date(""), "20240229");
  EXPECT_EQ(stamp.iso_time(), "12:34:56");
  EXPECT_EQ(stamp.iso_time(".", false), "12.34");
  EXPECT_EQ(stamp.iso(), "2024-02-29T12:34:56.250Z");
}

TEST(Stamp, IsoTruncatesToMilliseconds) {
  Stamp stamp((0xE98AF870ull << 32) | 0xFFFFFFFFu);
  EXPECT_EQ(stamp.iso(), "2024-02-29T12:34:56.999Z");
  EXPECT_EQ(Stamp::from_unix(7, 0).iso(), "1970-01-01T00:00:07.000Z");
}

TEST(Stamp, IsoOutputParsesBack) {
  Stamp stamp(BrokenDownTime{2031, 11, 5, 7, 8, 9.0});
  EXPECT_EQ(Stamp::from_iso(stamp.iso_compact()), stamp);
  EXPECT_EQ(Stamp::from_iso(stamp.iso()), stamp);
}

TEST(Stamp, LocalConversionsInUtcChangeNothing) {
  ZoneGuard zone("UTC0");
  Stamp stamp((0xE98AF870ull << 32) | quarter);
  EXPECT_EQ(stamp.utc_to_local(), stamp);
  EXPECT_EQ(stamp.local_to_utc(), stamp);
}

TEST(Stamp, LocalConversionsEastOfGreenwich) {
  ZoneGuard zone("XYZ-2");  // two hours ahead of UTC, no summer time
  Stamp utc((0xE98AF870ull << 32) | quarter);
  Stamp local = utc.utc_to_local();
  EXPECT_EQ(local.broken_down(), (BrokenDownTime{2024, 2, 29, 14, 34, 56.25}));
  EXPECT_EQ(local.local_to_utc(), utc);
}

TEST(Stamp, LocalConversionsAcrossMidnightWest) {
  ZoneGuard zone("XYZ5");  // five hours behind UTC
  Stamp utc(BrokenDownTime{2024, 3, 1, 3, 0, 0.0});
  EXPECT_EQ(utc.utc_to_local().broken_down(), (BrokenDownTime{2024, 2, 29, 22, 0, 0.0}));
  EXPECT_EQ(utc.utc_to_local().local_to_utc(), utc);
}

}  // namespace
}  // namespace Korvix
