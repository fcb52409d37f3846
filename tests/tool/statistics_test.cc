#include "tool/statistics.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Veldrin::Tool {
namespace {

std::string lines_of(const RunStatistics& statistics) {
  std::ostringstream out;
  write_statistics(out, statistics);
  return out.str();
}

TEST(Statistics, StreamWithoutPcrPrintsOnlyTheDuration) {
  RunStatistics statistics;
  EXPECT_EQ(lines_of(statistics), "Duration:\t-1\tseconds\n");
}

TEST(Statistics, RatesFollowWhenTheOffsetsAdvanced) {
  RunStatistics statistics;
  statistics.duration = 4.5;
  statistics.first_offset = 188;
  statistics.last_offset = 600188;
  statistics.max_rate = 1300000;
  statistics.min_rate = 900000;
  // 600000 bytes are 4800000 bits; over 4.5 seconds 1066666.67 bits a second, truncated.
  EXPECT_EQ(lines_of(statistics),
            "Duration:\t4.5\tseconds\n"
            "Average rate:\t1066666\tbits/sec\n"
            "Maximum rate:\t1300000\tbits/sec\n"
            "Minimum rate:\t900000\tbits/sec\n");
}

TEST(Statistics, DurationHasSixSignificantDigits) {
  RunStatistics statistics;
  statistics.duration = 3.14159265;
  EXPECT_EQ(lines_of(statistics), "Duration:\t3.14159\tseconds\n");
  statistics.duration = 1234567.0;
  EXPECT_EQ(lines_of(statistics), "Duration:\t1.23457e+06\tseconds\n");
}

TEST(Statistics, EqualOffsetsPrintNoRates) {
  RunStatistics statistics;
  statistics.duration = 0.0;
  statistics.first_offset = 5000;
  statistics.last_offset = 5000;
  EXPECT_EQ(lines_of(statistics), "Duration:\t0\tseconds\n");
}

TEST(Statistics, ZeroDurationGivesTheLowestAverage) {
  RunStatistics statistics;
  statistics.duration = 0.0;
  statistics.first_offset = 0;
  statistics.last_offset = 188;
  EXPECT_EQ(lines_of(statistics),
            "Duration:\t0\tseconds\n"
            "Average rate:\t-2147483648\tbits/sec\n"
            "Maximum rate:\t0\tbits/sec\n"
            "Minimum rate:\t2147483647\tbits/sec\n");
}

TEST(Statistics, OffsetsBeyondFourGigabytesAreCountedInSixtyFourBits) {
  RunStatistics statistics;
  statistics.duration = 1000.0;
  statistics.first_offset = 0;
  statistics.last_offset = 5000000000ull;
  std::string text = lines_of(statistics);
  EXPECT_NE(text.find("Average rate:\t40000000\tbits/sec\n"), std::string::npos) << text;
}

}  // namespace
}  // namespace Veldrin::Tool
