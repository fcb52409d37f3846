#include "indexgen/time_base.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "indexgen/generator_harness.h"

namespace Veldrin::IndexGen {
namespace {

using namespace VdxTest;

constexpr int32_t INT32_LOWEST = std::numeric_limits<int32_t>::min();

TEST(TimeBase, TruncationGoesTowardsZero) {
  EXPECT_EQ(truncate_to_int32(1.9), 1);
  EXPECT_EQ(truncate_to_int32(-1.9), -1);
  EXPECT_EQ(truncate_to_int32(2147483647.9), 2147483647);
  EXPECT_EQ(truncate_to_int32(-2147483648.9), INT32_LOWEST);
}

TEST(TimeBase, ValueThatDoesNotFitGivesTheLowestNumber) {
  EXPECT_EQ(truncate_to_int32(2147483648.0), INT32_LOWEST);
  EXPECT_EQ(truncate_to_int32(-2147483649.0), INT32_LOWEST);
  EXPECT_EQ(truncate_to_int32(1e300), INT32_LOWEST);
  EXPECT_EQ(truncate_to_int32(std::numeric_limits<double>::infinity()), INT32_LOWEST);
  EXPECT_EQ(truncate_to_int32(-std::numeric_limits<double>::infinity()), INT32_LOWEST);
  EXPECT_EQ(truncate_to_int32(std::nan("")), INT32_LOWEST);
}

// ---------------------------------------------------------------------------------------------
// Time and rate

TEST(TimeBase, FirstPcrSetsTheTimeBaseWithoutARate) {
  Harness h;
  h.offset = 1000;
  h.pcr(27000000);
  EXPECT_EQ(h.generator.time_base.first_pcr, 1.0);
  EXPECT_EQ(h.generator.time_base.duration, 0.0);
  EXPECT_EQ(h.generator.time_base.first_offset, 1000u);
  EXPECT_EQ(h.generator.time_base.last_offset, 1000u);
  EXPECT_EQ(h.generator.time_base.min_rate, 2147483647);
  EXPECT_EQ(h.generator.time_base.max_rate, 0);
  EXPECT_TRUE(h.log.lines.empty());
}

TEST(TimeBase, RateIsTheBitsSinceTheLastPcrOverItsDistance) {
  Harness h;
  h.pcr(27000000);                  // offset 0, 1.0 s
  h.feed(0x30, 0, repeat(0, 184));  // offset 188
  h.pcr(27000000 + 13500000);       // offset 376, 1.5 s: 376 * 8 bits in 0.5 s
  EXPECT_EQ(h.generator.time_base.duration, 0.5);
  EXPECT_EQ(h.generator.time_base.last_offset, 376u);
  EXPECT_EQ(h.generator.time_base.min_rate, 6016);
  EXPECT_EQ(h.generator.time_base.max_rate, 6016);
  h.pcr(27000000 + 13500000 + 6750000);  // offset 564, 1.75 s: 188 * 8 bits in 0.25 s
  EXPECT_EQ(h.generator.time_base.duration, 0.75);
  EXPECT_EQ(h.generator.time_base.min_rate, 6016);
  EXPECT_EQ(h.generator.time_base.max_rate, 6016);
  h.pcr(27000000 + 13500000 + 6750000 + 27000000);  // 188 * 8 bits in 1 s
  EXPECT_EQ(h.generator.time_base.min_rate, 1504);
  EXPECT_EQ(h.generator.time_base.max_rate, 6016);
  EXPECT_TRUE(h.log.lines.empty());
}

// PCRs one packet apart, from offset 0, and what the time base holds after the last of them.
struct PcrRun {
  const char* name;
  std::vector<int64_t> pcrs;
  std::vector<std::string> gaps;  // the lines logged, each at the summary level
  double duration;
  uint64_t last_offset;
  int32_t min_rate;
  int32_t max_rate;
};

void PrintTo(const PcrRun& run, std::ostream* out) {
  *out << run.name;
}

class PcrGap : public ::testing::TestWithParam<PcrRun> {};

TEST_P(PcrGap, DistanceToTheTimeBaseDecidesBetweenRateAndGap) {
  const PcrRun& run = GetParam();
  Harness h;
  for (const int64_t pcr : run.pcrs) h.pcr(pcr);
  EXPECT_EQ(h.log.lines, run.gaps);
  EXPECT_EQ(h.log.levels, std::vector<int32_t>(run.gaps.size(), Korvix::Log::LEVEL_SUMMARY));
  EXPECT_EQ(h.generator.time_base.duration, run.duration);
  EXPECT_EQ(h.generator.time_base.last_offset, run.last_offset);
  EXPECT_EQ(h.generator.time_base.min_rate, run.min_rate);
  EXPECT_EQ(h.generator.time_base.max_rate, run.max_rate);
}

constexpr int32_t NO_RATE_YET = 2147483647;  // the minimum before any rate was measured

const PcrRun kPcrRuns[] = {
    // 3.9 ms after the first: a gap, and the time base stays where it was.
    {"CloserThanTenMillisecondsIsAGap",
     {27000000, 27000000 + 105469},
     {"PCR gap of 0.00390626 after 0 ignored for rate calculation"},
     0.0,
     0,
     NO_RATE_YET,
     0},
    // 15.625 ms after the first: measured over all of it, from the bytes since the first.
    {"PcrAfterAGapIsMeasuredFromTheTimeBase",
     {27000000, 27000000 + 105469, 27000000 + 421875},
     {"PCR gap of 0.00390626 after 0 ignored for rate calculation"},
     0.015625,
     376,
     192512,  // 3008 bits / 0.015625 s
     192512},
    // 1504 bits in 0.01 s.
    {"ExactlyTenMillisecondsIsMeasured", {0, 270000}, {}, 0.01, 188, 150400, 150400},
    // 1504 bits in 10 s.
    {"ExactlyTenSecondsIsMeasured", {0, 270000000}, {}, 10.0, 188, 150, 150},
    // One tick more than 10 s after the time base of 10 s.
    {"AnyFurtherThanTenSecondsIsAGap",
     {0, 270000000, 270000000 + 270000001},
     {"PCR gap of 10 after 10 ignored for rate calculation"},
     10.0,
     188,
     150,
     150},
    {"EqualPcrIsAGap",
     {27000000, 27000000},
     {"PCR gap of 0 after 0 ignored for rate calculation"},
     0.0,
     0,
     NO_RATE_YET,
     0},
};

INSTANTIATE_TEST_SUITE_P(Thresholds, PcrGap, ::testing::ValuesIn(kPcrRuns),
                         [](const ::testing::TestParamInfo<PcrRun>& info) {
                           return std::string(info.param.name);
                         });

TEST(TimeBase, PcrJumpOfTwentySecondsFreezesTheTimeBase) {
  Harness h;
  h.pcr(27000000);                  // 1 s
  h.pcr(27000000 * 2);              // 2 s: accepted, duration 1
  h.pcr(27000000 * 22);             // 22 s: 20 s jump
  h.pcr(27000000 * 22 + 13500000);  // 22.5 s
  h.pcr(27000000 * 10);             // 10 s: within 10 s of the old time base again
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "PCR gap of 20 after 1 ignored for rate calculation");
  EXPECT_EQ(h.log.lines[1], "PCR gap of 20.5 after 1 ignored for rate calculation");
  EXPECT_EQ(h.generator.time_base.duration, 9.0);
  EXPECT_EQ(h.generator.time_base.last_offset, 4u * 188);
}

TEST(TimeBase, PacketsCarryTheTimeOfTheLastAcceptedPcr) {
  Harness h;
  h.start_mpeg2();       // time base 0.5
  h.pcr(27000000 * 40);  // a jump: ignored
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_FALSE(packets.empty());
  for (const CapturedPacket& packet : packets) EXPECT_EQ(packet.npt, 0.5);
}

TEST(TimeBase, PcrWrapBelowTheFirstPcrIsCorrectedOnce) {
  Harness h;
  // First PCR 5 s below the top of the 33-bit clock; the next, 1 s after the wrap.
  const int64_t top = (int64_t{1} << 33) * 300;
  h.pcr(top - 27000000LL * 5);
  h.pcr(27000000);
  EXPECT_TRUE(h.log.lines.empty());
  // The period taken is 95443.71765555555 s, a little short of 2^33 / 90000.
  const double first = static_cast<double>(top - 27000000LL * 5) / 27000000.0;
  EXPECT_EQ(h.generator.time_base.duration, 1.0 - first + 95443.71765555555);
  EXPECT_NEAR(h.generator.time_base.duration, 6.0, 1e-4);
  EXPECT_GT(h.generator.time_base.max_rate, 0);
}

TEST(TimeBase, PcrWrapIsCorrectedInTheDistanceEvenWhenTheTimeIsNot) {
  Harness h;
  // Walk the time base up in steps of 9.5 s until it stands beyond half the clock period.
  int64_t ticks = 0;
  h.pcr(ticks);
  const int64_t step = 27000000LL * 19 / 2;
  while (h.generator.time_base.duration < 95430.0) {
    ticks += step;
    h.pcr(ticks);
  }
  ASSERT_TRUE(h.log.lines.empty());
  const double before = h.generator.time_base.duration;
  // A PCR that wrapped: raw 2 s. Its elapsed time (2 s) is not corrected, being above the
  // first PCR; its distance to the time base is, and lands within the 10 s.
  h.pcr(27000000LL * 2);
  ASSERT_LT(2.0 - before + 95443.71765555555, 10.0);
  EXPECT_TRUE(h.log.lines.empty());
  EXPECT_EQ(h.generator.time_base.duration, 2.0);
}

TEST(TimeBase, RateBeyondThirtyTwoBitsIsTheLowestValue) {
  Harness h;
  h.pcr(27000000);
  h.offset = uint64_t{1} << 40;
  h.pcr(27000000 + 13500000);
  EXPECT_EQ(h.generator.time_base.min_rate, INT32_MIN);
  EXPECT_EQ(h.generator.time_base.max_rate, 0);
}

TEST(TimeBase, OffsetGoingBackGivesTheLowestRate) {
  Harness h;
  h.offset = 10000;
  h.pcr(27000000);
  h.offset = 188;
  h.pcr(27000000 + 13500000);
  EXPECT_EQ(h.generator.time_base.min_rate, INT32_MIN);
  EXPECT_EQ(h.generator.time_base.last_offset, 188u);
}

TEST(TimeBase, NoPcrLeavesTimeAndRatesAtTheirStart) {
  Harness h;
  h.pat();
  h.pmt();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  EXPECT_EQ(h.generator.time_base.duration, -1.0);
  EXPECT_EQ(h.generator.time_base.first_offset, 0u);
  EXPECT_EQ(h.generator.time_base.last_offset, 0u);
  EXPECT_EQ(h.generator.time_base.min_rate, 2147483647);
  EXPECT_EQ(h.generator.time_base.max_rate, 0);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_FALSE(packets.empty());
  for (const CapturedPacket& packet : packets) EXPECT_EQ(packet.npt, 0.0);
}

}  // namespace
}  // namespace Veldrin::IndexGen
