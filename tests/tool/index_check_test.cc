#include "tool/index_check.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "foundation/channel/error.h"
#include "support/index_bytes.h"
#include "support/scratch_dir.h"

namespace Veldrin::Tool {
namespace {

using Testing::ScratchDir;
using Testing::ts_packet;
using Testing::Vdx2BlockBytes;
using Testing::VdxBlockBytes;
using Testing::VdxEntryBytes;

constexpr uint32_t NEW_NPT = 1;
constexpr uint32_t INTRA = 2;
constexpr uint32_t REF = 4;
constexpr uint32_t VIDEO_START = 8;

// Eight packets, packet k at 188 k: a PAT, a video PES start (counter 5), audio, three video
// packets (6, 7, 8), a video PES start (counter 9) and audio.
std::string recording() {
  return ts_packet(0, 0, true) + ts_packet(256, 5, true) + ts_packet(257, 0, true) +
         ts_packet(256, 6) + ts_packet(256, 7) + ts_packet(256, 8) + ts_packet(256, 9, true) +
         ts_packet(257, 1);
}

// The frame at 188 with its table packet, its first packet rewritten inline (counter 5 kept),
// a reference over packets 3 and 4, a new time at packet 5 as a pure reference, then a time
// point at packet 7.
std::vector<Vdx2BlockBytes> vdx2_blocks() {
  return {
      {188, 1000, INTRA | NEW_NPT, 3, 0, 0, 0, ts_packet(0, 0, true, 'T')},
      {188, 1000, VIDEO_START | REF, 3, 1, 376, 564, ts_packet(256, 5, true, 'R')},
      {940, 1020, NEW_NPT | REF, 3, 2, 188, 940, ""},
      {1316, 1040, NEW_NPT, 0, 0, 0, 0, ""},
  };
}

struct Checked {
  CheckReport report;
  std::string out;
};

Checked check(const std::string& index, const std::string& source, IndexFormat format) {
  ScratchDir dir;
  SourceFile file;
  EXPECT_TRUE(file.open(dir.write("a.ts", source)));
  std::istringstream in(index);
  std::ostringstream out;
  Checked checked;
  checked.report = check_index(in, format, "a.idx", file, "a.ts", out);
  checked.out = out.str();
  return checked;
}

Checked check_vdx2(const std::vector<Vdx2BlockBytes>& blocks, const std::string& source,
                   uint32_t flags = 0) {
  return check(Testing::vdx2_file(blocks, flags), source, IndexFormat::VDX2);
}

TEST(IndexCheck, Vdx2OfItsRecordingIsClean) {
  const Checked checked = check_vdx2(vdx2_blocks(), recording());
  // Four block offsets and two references.
  EXPECT_EQ(checked.out, "a.idx: 0 problems; 4 blocks and 6 references checked against a.ts\n");
  EXPECT_EQ(checked.report.problems, 0u);
  EXPECT_EQ(checked.report.blocks, 4u);
  EXPECT_EQ(checked.report.references, 6u);
}

TEST(IndexCheck, Vdx2OfACutRecordingNamesWhatLiesBeyondItsEnd) {
  const Checked checked = check_vdx2(vdx2_blocks(), recording().substr(0, 1000));
  EXPECT_EQ(checked.out,
            "a.idx: block 2: offset 940 lies beyond the end of a.ts (1000 bytes)\n"
            "a.idx: block 2: reference of 188 bytes at 940 runs past the end of a.ts (1000 "
            "bytes)\n"
            "a.idx: block 3: offset 1316 lies beyond the end of a.ts (1000 bytes)\n"
            "a.idx: 3 problems; 4 blocks and 6 references checked against a.ts\n");
  EXPECT_EQ(checked.report.problems, 3u);
}

TEST(IndexCheck, Vdx2RewrittenPacketOfAnotherCounterIsNotTheSource) {
  auto blocks = vdx2_blocks();
  blocks[1].data = ts_packet(256, 4, true, 'R');
  EXPECT_EQ(check_vdx2(blocks, recording()).out,
            "a.idx: block 0: the packet at 188 in a.ts has PID 256 and counter 5, but the one "
            "the index rewrote has PID 256 and counter 4\n"
            "a.idx: 1 problem; 4 blocks and 6 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2FrameStartThatIsNoPesStartIsNotTheSource) {
  std::string source = recording();
  source[188 + 1] = 0x01;  // packet 1 without payload_unit_start
  EXPECT_EQ(check_vdx2(vdx2_blocks(), source).out,
            "a.idx: block 0: a frame starts at 188, but the packet there in a.ts starts no PES "
            "packet\n"
            "a.idx: 1 problem; 4 blocks and 6 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2ReferenceOffThePacketGridStartsAndEndsInsidePackets) {
  auto blocks = vdx2_blocks();
  blocks[1].ref_offset = 565;
  EXPECT_EQ(check_vdx2(blocks, recording()).out,
            "a.idx: block 1: reference of 376 bytes at 565 doesn't start at a packet start in "
            "a.ts\n"
            "a.idx: block 1: reference of 376 bytes at 565 ends inside a packet of a.ts\n"
            "a.idx: 2 problems; 4 blocks and 6 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2ReferenceToAnotherPidIsNotTheFrames) {
  auto blocks = vdx2_blocks();
  blocks[1].ref_offset = 376;  // the audio packet
  blocks[1].ref_length = 188;
  EXPECT_EQ(check_vdx2(blocks, recording()).out,
            "a.idx: block 1: reference at 376 starts with a packet of PID 257, not of the "
            "frame's PID 256\n"
            "a.idx: 1 problem; 4 blocks and 6 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2ReferenceFieldsWithoutTheFlagAreAProblem) {
  auto blocks = vdx2_blocks();
  blocks[1].flags = VIDEO_START;
  EXPECT_EQ(check_vdx2(blocks, recording()).out,
            "a.idx: block 1: reference fields set without the reference flag\n"
            "a.idx: 1 problem; 4 blocks and 5 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2GroupCutShortIsAProblem) {
  auto blocks = vdx2_blocks();
  blocks.erase(blocks.begin() + 2);
  EXPECT_EQ(check_vdx2(blocks, recording()).out,
            "a.idx: group at block 0: ends after 2 of its 3 blocks\n"
            "a.idx: 1 problem; 3 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2BlockOutOfItsPlaceInTheGroupIsAProblem) {
  auto blocks = vdx2_blocks();
  blocks[1].index = 2;
  const std::string out = check_vdx2(blocks, recording()).out;
  EXPECT_EQ(out.rfind("a.idx: block 1: index 2 of a group of 3 blocks, where index 1 of 3 was "
                      "expected\n",
                      0),
            0u)
      << out;
}

TEST(IndexCheck, Vdx2InlineDataThatIsNoWholePacketsIsAProblem) {
  auto blocks = vdx2_blocks();
  blocks[0].data = std::string(100, '\x47');
  EXPECT_EQ(check_vdx2(blocks, recording()).out,
            "a.idx: group at block 0: inline data of 288 bytes is not whole packets\n"
            "a.idx: 1 problem; 4 blocks and 6 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2RecordingWithLeadingBytesIsCheckedWhereItsPacketsStand) {
  // The same stream behind 100 bytes of something else: every offset 100 on.
  auto blocks = vdx2_blocks();
  for (auto& block : blocks) {
    block.offset += 100;
    if (block.flags & REF) block.ref_offset += 100;
  }
  EXPECT_EQ(check_vdx2(blocks, std::string(100, '\0') + recording()).report.problems, 0u);
  // Against the stream without them, nothing is where the index says.
  EXPECT_GE(check_vdx2(blocks, recording()).report.problems, 4u);
}

// The frame file of the same frame: the three unchanged packets, from 0.
std::string frame_file() {
  return ts_packet(256, 1) + ts_packet(256, 2) + ts_packet(256, 3);
}

std::vector<Vdx2BlockBytes> external_blocks() {
  auto blocks = vdx2_blocks();
  blocks[1].ref_offset = 0;
  blocks[2].ref_offset = 376;
  return blocks;
}

TEST(IndexCheck, Vdx2WithExternalFramesIsCheckedAgainstItsFrameFile) {
  const Checked checked = check_vdx2(external_blocks(), frame_file(), 1);
  // The block offsets refer to the recording, which isn't given: only references count.
  EXPECT_EQ(checked.out, "a.idx: 0 problems; 4 blocks and 2 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2FrameFileReferenceOffThePacketGridIsAProblem) {
  auto blocks = external_blocks();
  blocks[1].ref_offset = 94;
  blocks[1].ref_length = 282;
  std::string frames = frame_file();
  frames[94] = '\x47';
  EXPECT_EQ(check_vdx2(blocks, frames, 1).out,
            "a.idx: block 1: reference of 282 bytes at 94 doesn't start at a packet start in "
            "a.ts\n"
            "a.idx: block 1: reference of 282 bytes at 94 is not whole packets\n"
            "a.idx: 2 problems; 4 blocks and 2 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2CutFrameFileIsAProblem) {
  EXPECT_EQ(check_vdx2(external_blocks(), frame_file().substr(0, 400), 1).out,
            "a.idx: block 2: reference of 188 bytes at 376 runs past the end of a.ts (400 "
            "bytes)\n"
            "a.idx: 1 problem; 4 blocks and 2 references checked against a.ts\n");
}

TEST(IndexCheck, Vdx2DamagedFileStopsWithTheReadersErrorAfterTheLinesFound) {
  std::string index = Testing::vdx2_file(vdx2_blocks());
  index.resize(index.size() - 100);  // inside the last block
  ScratchDir dir;
  SourceFile file;
  ASSERT_TRUE(file.open(dir.write("a.ts", recording().substr(0, 1000))));
  std::istringstream in(index);
  std::ostringstream out;
  EXPECT_THROW(check_index(in, IndexFormat::VDX2, "a.idx", file, "a.ts", out),
               Korvix::Channel::Error);
  EXPECT_EQ(out.str(),
            "a.idx: block 2: offset 940 lies beyond the end of a.ts (1000 bytes)\n"
            "a.idx: block 2: reference of 188 bytes at 940 runs past the end of a.ts (1000 "
            "bytes)\n");
}

// Two frames, at packets 1 and 6, each with its table packet; one link each way. The table
// has an entry for each 752 bytes of the recording of 1504: both lead to the first block.
std::vector<VdxBlockBytes> vdx_blocks() {
  std::vector<VdxBlockBytes> blocks{
      {1000, 188, {}, {}, ts_packet(0, 0, true) + ts_packet(256, 0, true)},
      {1100, 1128, {}, {}, ts_packet(0, 1, true) + ts_packet(256, 0, true) + ts_packet(256, 1)}};
  Testing::link_vdx_blocks(blocks, 1);
  return blocks;
}

std::vector<VdxEntryBytes> vdx_table() {
  return {{1, 1000, 188}, {1, 1000, 188}};
}

Checked check_vdx(const std::vector<VdxEntryBytes>& table, const std::vector<VdxBlockBytes>& blocks,
                  const std::string& source, uint32_t precision = 752,
                  const std::string& tail = "") {
  return check(Testing::vdx_file(precision, table, blocks) + tail, source, IndexFormat::VDX);
}

TEST(IndexCheck, VdxOfItsRecordingIsClean) {
  const Checked checked = check_vdx(vdx_table(), vdx_blocks(), recording());
  EXPECT_EQ(checked.out, "a.idx: 0 problems; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxTableForAnotherLengthIsAProblem) {
  EXPECT_EQ(check_vdx(vdx_table(), vdx_blocks(), recording().substr(0, 1400)).out,
            "a.idx: header: 2 table entries are for a source of 1504 to 2255 bytes, but a.ts has "
            "1400\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxBlockOffsetBeyondTheEndIsAProblem) {
  EXPECT_EQ(check_vdx({}, vdx_blocks(), recording().substr(0, 1200)).out,
            "a.idx: block 1: offset 1128 lies beyond the end of a.ts (1200 bytes)\n"
            "a.idx: 1 problem; 2 blocks and 2 references checked against a.ts\n");
}

TEST(IndexCheck, VdxLinkWithAWrongSizeIsAProblem) {
  auto blocks = vdx_blocks();
  blocks[0].forward = {999};
  EXPECT_EQ(check_vdx(vdx_table(), blocks, recording()).out,
            "a.idx: block 0: forward link 1 gives 999 bytes, but block 1 has 564\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxMissingLinkIsAProblem) {
  auto blocks = vdx_blocks();
  blocks[1].backward.clear();
  EXPECT_EQ(check_vdx(vdx_table(), blocks, recording()).out,
            "a.idx: block 1: 0 backward links, where 1 were expected\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxTableEntryOnAPageWithoutABlockIsAProblem) {
  auto table = vdx_table();
  table[1].page = 2;
  EXPECT_EQ(check_vdx(table, vdx_blocks(), recording()).out,
            "a.idx: table entry 1: block page 2 holds no block\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxTableEntryAfterItsPositionIsAProblem) {
  auto table = vdx_table();
  table[1] = {3, 1100, 1128};  // block 1 stands at page 3, but its offset is past 752
  EXPECT_EQ(check_vdx(table, vdx_blocks(), recording()).out,
            "a.idx: table entry 1: offset 1128 lies after its source position 752\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxTableEntryWithAnotherTimeThanItsBlockIsAProblem) {
  auto table = vdx_table();
  table[1].npt_ms = 1500;
  EXPECT_EQ(check_vdx(table, vdx_blocks(), recording()).out,
            "a.idx: table entry 1: NPT 1.500 at 188, but block 0 has NPT 1.000 at 188\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxTableEntryOfAFrameWithoutABlockMayLeadToTheLastBlock) {
  // Entries every 376 bytes; the last is for a frame at packet 6 whose block never came, and
  // the writer gives it the last block's page.
  auto blocks = vdx_blocks();
  blocks.pop_back();
  Testing::link_vdx_blocks(blocks, 1);
  const std::vector<VdxEntryBytes> table{
      {1, 1000, 188}, {1, 1000, 188}, {1, 1000, 188}, {1, 1100, 1128}};
  EXPECT_EQ(check_vdx(table, blocks, recording(), 376).out,
            "a.idx: 0 problems; 1 blocks and 5 references checked against a.ts\n");
}

TEST(IndexCheck, VdxFramePacketThatIsNoPesStartIsAProblem) {
  std::string source = recording();
  source[188 + 1] = 0x01;
  EXPECT_EQ(check_vdx(vdx_table(), vdx_blocks(), source).out,
            "a.idx: block 0: the packet at 188 in a.ts starts no PES packet\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxFramePacketOfAnotherPidIsAProblem) {
  auto blocks = vdx_blocks();
  blocks[0].data = ts_packet(0, 0, true) + ts_packet(300, 0, true);
  EXPECT_EQ(check_vdx(vdx_table(), blocks, recording()).out,
            "a.idx: block 0: the packet at 188 in a.ts has PID 256, not the frame's PID 300\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxFrameDataThatIsNoWholePacketsIsAProblem) {
  auto blocks = vdx_blocks();
  blocks[0].data += "x";
  Testing::link_vdx_blocks(blocks, 1);
  EXPECT_EQ(check_vdx(vdx_table(), blocks, recording()).out,
            "a.idx: block 0: frame data of 377 bytes is not whole packets\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxBytesAfterTheLastBlockAreAProblem) {
  EXPECT_EQ(check_vdx(vdx_table(), vdx_blocks(), recording(), 752, "0123456789").out,
            "a.idx: file: 10 bytes follow the last block\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxOfAnotherVersionIsAProblem) {
  std::string index = Testing::vdx_file(752, vdx_table(), vdx_blocks(), 2);
  EXPECT_EQ(check(index, recording(), IndexFormat::VDX).out,
            "a.idx: header: version 2, where 1 was expected\n"
            "a.idx: 1 problem; 2 blocks and 4 references checked against a.ts\n");
}

TEST(IndexCheck, VdxTableOfAnIndexWithoutFramesMayStandAtTheEndOfTheSource) {
  // No frame: the one entry is the end entry, at the source's length, with the entry's number
  // as block page.
  const Checked checked = check_vdx({{0, 0, 1504}, {0, 0, 1504}}, {}, recording());
  EXPECT_EQ(checked.out, "a.idx: 0 problems; 0 blocks and 2 references checked against a.ts\n");
}

}  // namespace
}  // namespace Veldrin::Tool
