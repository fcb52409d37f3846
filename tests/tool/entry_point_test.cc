#include "tool/entry_point.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "foundation/channel/error.h"
#include "support/index_bytes.h"

namespace Veldrin::Tool {
namespace {

using Testing::Vdx2BlockBytes;

constexpr uint32_t NEW_NPT = 1;
constexpr uint32_t INTRA = 2;
constexpr uint32_t REF = 4;
constexpr uint32_t VIDEO_START = 8;

Index2::Block block_of(uint64_t offset, uint32_t flags, uint16_t count, uint16_t index) {
  Index2::Block block;
  block.offset = offset;
  block.flags = flags;
  block.count = count;
  block.index = index;
  return block;
}

EntryPoints points_of(const std::string& bytes, IndexFormat format) {
  std::istringstream in(bytes);
  return read_entry_points(in, format);
}

// Two frames as the writer lays them out with tables and without a preamble, a time point
// between them, and a time point at the end. Block size 256, so block n stands at 256 (n + 1).
std::vector<Vdx2BlockBytes> two_frames(bool external) {
  return {
      {564, 0, INTRA, 3, 0, 0, 0, "tables"},
      {564, 0, 0, 3, 1, 0, 0, "more tables"},
      {564, 0, VIDEO_START | REF, 3, 2, 2256, external ? 0u : 752u, "first packet"},
      {3008, 16, NEW_NPT, 0, 0, 0, 0, ""},
      {84788, 556, INTRA | NEW_NPT, 2, 0, 0, 0, "tables"},
      {84788, 556, VIDEO_START | REF, 2, 1, 2068, external ? 2256u : 84976u, "first packet"},
      {99000, 600, NEW_NPT, 0, 0, 0, 0, ""},
  };
}

TEST(EntryPoint, FirstBlockOfAGroupStartsAFrame) {
  EXPECT_TRUE(starts_frame(block_of(0, 0, 4, 0), nullptr));
  const Index2::Block previous = block_of(0, 0, 4, 0);
  EXPECT_FALSE(starts_frame(block_of(0, REF, 4, 1), &previous));
}

TEST(EntryPoint, TimePointOutsideAGroupStartsNoFrame) {
  EXPECT_FALSE(starts_frame(block_of(3008, NEW_NPT, 0, 0), nullptr));
  EXPECT_FALSE(starts_frame(block_of(3008, NEW_NPT | REF, 0, 0), nullptr));
}

TEST(EntryPoint, VideoStartAfterTheTablesOfTheSameFrameStartsNoOtherFrame) {
  const Index2::Block tables = block_of(564, INTRA, 3, 0);
  EXPECT_FALSE(starts_frame(block_of(564, VIDEO_START, 3, 1), &tables));
}

TEST(EntryPoint, TablesInsideAGroupStartAFrame) {
  // A group that runs on over its frame's end into the next frame start.
  const Index2::Block previous = block_of(1000, REF, 5, 2);
  EXPECT_TRUE(starts_frame(block_of(5000, INTRA, 5, 3), &previous));
}

TEST(EntryPoint, VideoStartInsideAGroupWithoutTablesStartsAFrame) {
  const Index2::Block previous = block_of(1000, REF, 5, 2);
  EXPECT_TRUE(starts_frame(block_of(5000, VIDEO_START, 5, 3), &previous));
  // The same offset, but not the block ahead in the group: another frame.
  const Index2::Block elsewhere = block_of(5000, 0, 0, 0);
  EXPECT_TRUE(starts_frame(block_of(5000, VIDEO_START, 5, 3), &elsewhere));
}

TEST(EntryPoint, Vdx2EntryPointsAreTheFrameStartsWithTheirBlocksAndTimes) {
  const EntryPoints points = points_of(Testing::vdx2_file(two_frames(false)), IndexFormat::VDX2);
  EXPECT_EQ(points.format, IndexFormat::VDX2);
  EXPECT_FALSE(points.external_frames);
  ASSERT_EQ(points.points.size(), 2u);
  EXPECT_EQ(points.points[0].number, 0u);
  EXPECT_EQ(points.points[0].block, 0u);
  EXPECT_EQ(points.points[0].position, 256u);
  EXPECT_EQ(points.points[0].npt_ms, 0u);
  EXPECT_EQ(points.points[0].offset, 564u);
  EXPECT_FALSE(points.points[0].has_frame_offset);
  EXPECT_EQ(points.points[1].number, 1u);
  EXPECT_EQ(points.points[1].block, 4u);
  EXPECT_EQ(points.points[1].position, 256u * 5);
  EXPECT_EQ(points.points[1].npt_ms, 556u);
  EXPECT_EQ(points.points[1].offset, 84788u);
}

TEST(EntryPoint, ExternalFramesGiveTheFirstReferenceOfTheFrame) {
  const EntryPoints points = points_of(Testing::vdx2_file(two_frames(true), 1), IndexFormat::VDX2);
  EXPECT_TRUE(points.external_frames);
  ASSERT_EQ(points.points.size(), 2u);
  EXPECT_TRUE(points.points[0].has_frame_offset);
  EXPECT_EQ(points.points[0].frame_offset, 0u);
  EXPECT_TRUE(points.points[1].has_frame_offset);
  EXPECT_EQ(points.points[1].frame_offset, 2256u);
}

TEST(EntryPoint, FrameWithoutReferenceHasNoFrameFileOffset) {
  // A frame wholly inline, then a reference of the next group that isn't its own.
  const std::string bytes = Testing::vdx2_file(
      {{100, 0, INTRA, 1, 0, 0, 0, "all of it"}, {900, 5, VIDEO_START | REF, 1, 0, 376, 188, "x"}},
      1);
  const EntryPoints points = points_of(bytes, IndexFormat::VDX2);
  ASSERT_EQ(points.points.size(), 2u);
  EXPECT_FALSE(points.points[0].has_frame_offset);
  EXPECT_TRUE(points.points[1].has_frame_offset);
  EXPECT_EQ(points.points[1].frame_offset, 188u);
}

TEST(EntryPoint, TimePointsAloneGiveNoEntryPoint) {
  const std::string bytes = Testing::vdx2_file(
      {{3008, 16, NEW_NPT, 0, 0, 0, 0, ""}, {6016, 36, NEW_NPT, 0, 0, 0, 0, ""}});
  EXPECT_TRUE(points_of(bytes, IndexFormat::VDX2).points.empty());
}

TEST(EntryPoint, VdxEntryPointsAreItsBlocks) {
  std::vector<Testing::VdxBlockBytes> blocks{{500, 188, {}, {}, std::string(188, 'a')},
                                             {1000, 564, {}, {}, std::string(4097, 'b')},
                                             {1500, 900, {}, {}, std::string(10, 'c')}};
  const EntryPoints points = points_of(Testing::vdx_file(65536, {}, blocks), IndexFormat::VDX);
  EXPECT_EQ(points.format, IndexFormat::VDX);
  ASSERT_EQ(points.points.size(), 3u);
  // Head page and data pages: 4096, then 4096 + 8192, then that + 4096 + 8192.
  EXPECT_EQ(points.points[0].position, 4096u);
  EXPECT_EQ(points.points[1].position, 12288u);
  EXPECT_EQ(points.points[2].position, 24576u);
  EXPECT_EQ(points.points[1].block, 1u);
  EXPECT_EQ(points.points[1].npt_ms, 1000u);
  EXPECT_EQ(points.points[1].offset, 564u);
  EXPECT_EQ(points.points[2].number, 2u);
}

TEST(EntryPoint, CutFileFailsLikeTheReader) {
  std::string bytes = Testing::vdx2_file(two_frames(false));
  bytes.resize(bytes.size() - 100);
  std::istringstream in(bytes);
  EXPECT_THROW(read_entry_points(in, IndexFormat::VDX2), Korvix::Channel::Error);
}

std::vector<EntryPoint> points_at(const std::vector<uint32_t>& times) {
  std::vector<EntryPoint> points;
  for (uint32_t ms : times) {
    EntryPoint point;
    point.number = points.size();
    point.npt_ms = ms;
    points.push_back(point);
  }
  return points;
}

TEST(EntryPoint, TimeBetweenTwoFramesGivesTheEarlierOne) {
  const auto points = points_at({1000, 2000, 3000});
  EXPECT_EQ(entry_point_at(points, 2.5).number, 1u);
  EXPECT_EQ(entry_point_at(points, 2.999).number, 1u);
}

TEST(EntryPoint, TimeOfAFrameGivesThatFrame) {
  EXPECT_EQ(entry_point_at(points_at({1000, 2000, 3000}), 2.0).number, 1u);
  // 0.29 typed compares equal to 290 stored milliseconds.
  EXPECT_EQ(entry_point_at(points_at({100, 290, 300}), 0.29).number, 1u);
}

TEST(EntryPoint, TimeBeforeTheFirstFrameGivesTheFirst) {
  const auto points = points_at({1000, 2000});
  EXPECT_EQ(entry_point_at(points, 0.5).number, 0u);
  EXPECT_EQ(entry_point_at(points, -100.0).number, 0u);
}

TEST(EntryPoint, TimePastTheEndGivesTheLast) {
  const auto points = points_at({1000, 2000});
  EXPECT_EQ(entry_point_at(points, 1e9).number, 1u);
}

TEST(EntryPoint, FramesOfTheSameTimeGiveTheLastOfThem) {
  EXPECT_EQ(entry_point_at(points_at({0, 0, 0, 500}), 0.2).number, 2u);
}

TEST(EntryPoint, TextIsOneLineOfPairs) {
  EntryPoints points;
  EntryPoint point;
  point.number = 3;
  point.block = 42;
  point.position = 11008;
  point.npt_ms = 12500;
  point.offset = 2048000;
  std::ostringstream out;
  write_entry_point_text(out, points, point);
  EXPECT_EQ(out.str(), "entry=3 block=42 position=11008 npt=12.500 offset=2048000\n");
}

TEST(EntryPoint, TextWithExternalFramesAddsTheFrameFileOffset) {
  EntryPoints points;
  points.external_frames = true;
  EntryPoint point;
  point.npt_ms = 7;
  std::ostringstream none;
  write_entry_point_text(none, points, point);
  EXPECT_EQ(none.str(), "entry=0 block=0 position=0 npt=0.007 offset=0 frame_offset=none\n");
  point.has_frame_offset = true;
  point.frame_offset = 2256;
  std::ostringstream some;
  write_entry_point_text(some, points, point);
  EXPECT_EQ(some.str(), "entry=0 block=0 position=0 npt=0.007 offset=0 frame_offset=2256\n");
}

TEST(EntryPoint, JsonHoldsTheQuestionAndTheAnswer) {
  EntryPoints points;
  points.format = IndexFormat::VDX;
  points.points.resize(9);
  EntryPoint point;
  point.number = 3;
  point.block = 3;
  point.position = 65536;
  point.npt_ms = 1516;
  point.offset = 229360;
  std::ostringstream out;
  write_entry_point_json(out, "a.vdx", points, point, 1.75);
  EXPECT_EQ(out.str(),
            "{\n"
            "  \"index\": \"a.vdx\",\n"
            "  \"format\": \"VDX\",\n"
            "  \"seconds\": 1.75,\n"
            "  \"entry_points\": 9,\n"
            "  \"entry\": 3,\n"
            "  \"block\": 3,\n"
            "  \"position\": 65536,\n"
            "  \"npt_ms\": 1516,\n"
            "  \"offset\": 229360\n"
            "}\n");
}

TEST(EntryPoint, JsonWithExternalFramesHasTheFrameFileOffsetOrNull) {
  EntryPoints points;
  points.external_frames = true;
  EntryPoint point;
  std::ostringstream none;
  write_entry_point_json(none, "a", points, point, 0.0);
  EXPECT_NE(none.str().find("\"frame_offset\": null\n"), std::string::npos) << none.str();
  point.has_frame_offset = true;
  point.frame_offset = 376;
  std::ostringstream some;
  write_entry_point_json(some, "a", points, point, 0.0);
  EXPECT_NE(some.str().find("\"frame_offset\": 376\n"), std::string::npos) << some.str();
}

}  // namespace
}  // namespace Veldrin::Tool
