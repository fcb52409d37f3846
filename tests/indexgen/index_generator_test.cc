#include "indexgen/generator.h"

#include <gtest/gtest.h>

#include "indexgen/generator_harness.h"

namespace Veldrin::IndexGen {
namespace {

using namespace VdxTest;

TEST(IndexGenerator, NewGeneratorStartsWithoutTimeOrRates) {
  Harness h(true, false, false, false, false, 0x55);
  EXPECT_EQ(h.generator.time_base.first_pcr, -1.0);
  EXPECT_EQ(h.generator.time_base.duration, -1.0);
  EXPECT_EQ(h.generator.time_base.first_offset, 0u);
  EXPECT_EQ(h.generator.time_base.last_offset, 0u);
  EXPECT_EQ(h.generator.time_base.min_rate, 2147483647);
  EXPECT_EQ(h.generator.time_base.max_rate, 0);
  EXPECT_EQ(h.generator.block_count, 0);
  EXPECT_EQ(h.generator.programs.ca_pid, 0x55);
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  EXPECT_EQ(h.generator.parser, nullptr);
}

TEST(IndexGenerator, PcrOnlyWritesEachAcceptedPcrButNotTheFirst) {
  Harness h(true, false, true, true);
  h.pcr(27000000);                // offset 0: the first, nothing written
  h.pcr(27000000 + 13500000);     // offset 188: accepted
  h.pcr(27000000 + 13500001);     // offset 376: a gap
  h.pcr(27000000 * 2 + 6750000);  // offset 564: accepted, 1.25 s
  ASSERT_EQ(h.writer.calls.size(), 2u);
  EXPECT_EQ(h.writer.order(), "CC");
  EXPECT_EQ(h.writer.calls[0].offset, 188u);
  EXPECT_EQ(h.writer.calls[0].npt, 0.5);
  EXPECT_EQ(h.writer.calls[1].offset, 564u);
  EXPECT_EQ(h.writer.calls[1].npt, 1.25);
  EXPECT_EQ(h.generator.block_count, 2);
  ASSERT_EQ(h.log.lines.size(), 3u);
  EXPECT_EQ(h.log.lines[0], "Captured PCR value 0.5 at offset 188");
  EXPECT_EQ(h.log.levels[0], 3);
  EXPECT_EQ(h.log.lines[1], "PCR gap of 3.7037e-08 after 0.5 ignored for rate calculation");
  EXPECT_EQ(h.log.lines[2], "Captured PCR value 1.25 at offset 564");
}

TEST(IndexGenerator, PcrOnlyDoesNoTableOrVideoWork) {
  Harness h(true, false, true, true);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  EXPECT_EQ(h.generator.programs.pmt_pid, 0);
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.programs.pat_packet.empty());
  EXPECT_EQ(h.writer.order(), "C");
  EXPECT_EQ(h.generator.block_count, 1);
}

}  // namespace
}  // namespace Veldrin::IndexGen
