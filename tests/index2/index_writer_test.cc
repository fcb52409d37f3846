#include "index2/index_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/error.h"
#include "index2/block.h"
#include "support/scratch_dir.h"
#include "worked_layout.h"

namespace {

using Korvix::Channel::Error;
using Veldrin::Index2::Block;
using Veldrin::Index2::FLAG_EXTERNAL_FRAMES;
using Veldrin::Index2::FLAG_INTRA;
using Veldrin::Index2::FLAG_NEW_NPT;
using Veldrin::Index2::FLAG_REF;
using Veldrin::Index2::FLAG_VIDEO_START;
using Veldrin::Index2::Header;
using Veldrin::Index2::IndexWriter;
using Veldrin::IndexGen::CapturedPacket;
using Veldrin::IndexGen::PACKET_FRAME;
using Veldrin::IndexGen::PACKET_SKIPPED;
using Veldrin::Testing::ScratchDir;

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string packet_of(unsigned char fill, int32_t counter = 0) {
  std::string p(188, static_cast<char>(fill));
  p[0] = 0x47;
  p[1] = 0x01;
  p[2] = 0x00;
  p[3] = static_cast<char>(0x10 | counter);
  return p;
}

// A record of frame data whose payload renders to exactly one packet of 188 bytes.
CapturedPacket frame_record(uint64_t offset, double npt, bool modified, int32_t counter = 0) {
  CapturedPacket r;
  r.state = PACKET_FRAME;
  r.packet.pid = 0x100;
  r.packet.offset = offset;
  r.packet.continuity_counter = counter;
  r.packet.payload.assign(184, static_cast<unsigned char>(offset / 188));
  r.npt = npt;
  r.modified = modified;
  r.data.assign(188, static_cast<char>(offset / 188));
  r.data[0] = 0x47;
  return r;
}

CapturedPacket last_of_frame(CapturedPacket r) {
  r.add_marker(10, true);
  return r;
}

struct File {
  Header header;
  std::vector<Block> blocks;
  size_t length = 0;
};

File read_index(const std::string& path) {
  const std::string bytes = read_file(path);
  File file;
  file.length = bytes.size();
  Korvix::Channel::BlockReader reader(reinterpret_cast<const unsigned char*>(bytes.data()),
                                      bytes.size());
  file.header.read(reader);
  while (reader.offset < bytes.size()) {
    Block block;
    block.size = file.header.block_size;
    block.read(reader);
    file.blocks.push_back(block);
  }
  return file;
}

template <typename F>
void expect_error(F&& f, int32_t code, const std::string& text) {
  try {
    f();
    ADD_FAILURE() << "no exception, expected " << text;
  } catch (const Error& e) {
    EXPECT_EQ(e.error, code);
    EXPECT_EQ(e.text, text);
  }
}

TEST(IndexWriter, WorkedLayoutIsWrittenByteForByte) {
  ScratchDir dir;
  const std::string path = dir.file("worked.vdx2");
  {
    IndexWriter writer(0, 256);
    ASSERT_TRUE(writer.open(path, false, ""));
    const auto table = Veldrin::Testing::worked_table_packet();
    writer.set_tables(std::string(table.begin(), table.end()));

    CapturedPacket first = frame_record(2048000, 12.5, true, 7);
    first.frame_start = true;
    first.packet.payload_unit_start = true;
    first.packet.discontinuity = true;
    first.packet.pcr = 12.5;
    first.packet.payload = Veldrin::Testing::worked_first_payload();
    writer.add_packet(first);
    CapturedPacket second = frame_record(2048188, 12.5, false, 8);
    writer.add_packet(second);
    CapturedPacket third = frame_record(2048376, 12.5, false, 9);
    writer.add_packet(third);
    CapturedPacket fourth = last_of_frame(frame_record(2048564, 12.5, false, 10));
    writer.add_packet(fourth);
    writer.close();
  }
  const std::string bytes = read_file(path);
  const auto expected = Veldrin::Testing::worked_layout();
  ASSERT_EQ(bytes.size(), 768u);
  EXPECT_EQ(std::vector<unsigned char>(bytes.begin(), bytes.end()), expected);
}

TEST(IndexWriter, TablesOf376BytesGiveBlocksOf220And156AndOnlyTheFirstIsIntra) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("t.vdx2"), false, ""));
  const std::string tables = packet_of(0x11) + packet_of(0x22);
  writer.set_tables(tables);
  CapturedPacket r = last_of_frame(frame_record(1880, 1.0, true));
  r.frame_start = true;
  writer.add_packet(r);
  writer.close();

  const File file = read_index(dir.file("t.vdx2"));
  ASSERT_EQ(file.blocks.size(), 3u);
  EXPECT_EQ(file.blocks[0].data, tables.substr(0, 220));
  EXPECT_EQ(file.blocks[1].data, tables.substr(220));
  EXPECT_EQ(file.blocks[1].data.size(), 156u);
  EXPECT_EQ(file.blocks[0].flags, FLAG_INTRA | FLAG_NEW_NPT);
  EXPECT_EQ(file.blocks[1].flags, 0u);
  // No preamble: the inline packet starts the video.
  EXPECT_EQ(file.blocks[2].flags, FLAG_VIDEO_START);
  for (uint16_t i = 0; i < 3; ++i) {
    EXPECT_EQ(file.blocks[i].count, 3);
    EXPECT_EQ(file.blocks[i].index, i);
    EXPECT_EQ(file.blocks[i].offset, 1880u);
    EXPECT_EQ(file.blocks[i].npt, 1.0);
  }
  EXPECT_EQ(file.length % 256, 0u);
}

TEST(IndexWriter, ModifiedFirstPacketAndThreeUnchangedGiveOneInlineBlockAndA564ByteReference) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("r.vdx2"), false, ""));
  CapturedPacket first = frame_record(18800, 2.0, true, 3);
  first.frame_start = true;
  writer.add_packet(first);
  CapturedPacket second = frame_record(18988, 2.0, false);
  writer.add_packet(second);
  CapturedPacket third = frame_record(19176, 2.0, false);
  writer.add_packet(third);
  CapturedPacket fourth = last_of_frame(frame_record(19364, 2.0, false));
  writer.add_packet(fourth);
  writer.close();

  const File file = read_index(dir.file("r.vdx2"));
  ASSERT_EQ(file.blocks.size(), 1u);
  const Block& b = file.blocks[0];
  EXPECT_EQ(b.flags, FLAG_NEW_NPT | FLAG_VIDEO_START | FLAG_REF);
  EXPECT_EQ(b.ref_offset, 18988u);
  EXPECT_EQ(b.ref_length, 564u);
  EXPECT_EQ(b.count, 1);
  ASSERT_EQ(b.data.size(), 188u);
  EXPECT_EQ(static_cast<unsigned char>(b.data[3]) & 0x0F, 3);  // its own counter
}

TEST(IndexWriter, PreambleOfThreePacketsAndFrameCounterOneGetCounters14And15And0) {
  ScratchDir dir;
  IndexWriter writer(0, 1024);
  ASSERT_TRUE(writer.open(dir.file("p.vdx2"), false, ""));
  writer.set_frame_preamble(packet_of(0xA1, 3) + packet_of(0xA2, 3) + packet_of(0xA3, 3));
  CapturedPacket r = last_of_frame(frame_record(0, 4.0, true, 1));
  r.frame_start = true;
  writer.add_packet(r);
  writer.close();

  const File file = read_index(dir.file("p.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  const std::string& preamble = file.blocks[0].data;
  ASSERT_EQ(preamble.size(), 564u);
  EXPECT_EQ(static_cast<unsigned char>(preamble[3]), 0x10 | 14);
  EXPECT_EQ(static_cast<unsigned char>(preamble[188 + 3]), 0x10 | 15);
  EXPECT_EQ(static_cast<unsigned char>(preamble[376 + 3]), 0x10 | 0);
  EXPECT_EQ(static_cast<unsigned char>(preamble[4]), 0xA1);
  EXPECT_EQ(file.blocks[0].flags, FLAG_VIDEO_START | FLAG_NEW_NPT);
  // With a preamble, the frame's own first packet doesn't start the video.
  EXPECT_EQ(file.blocks[1].flags, 0u);
  // The stored preamble keeps the new counters for the next frame.
  EXPECT_EQ(writer.preamble, preamble);
}

TEST(IndexWriter, PreambleIsRenumberedAgainForEachFrame) {
  ScratchDir dir;
  IndexWriter writer(0, 1024);
  ASSERT_TRUE(writer.open(dir.file("p.vdx2"), false, ""));
  writer.set_frame_preamble(packet_of(0xA1) + packet_of(0xA2));
  CapturedPacket r = last_of_frame(frame_record(0, 4.0, true, 0));
  r.frame_start = true;
  writer.add_packet(r);
  CapturedPacket s = last_of_frame(frame_record(1880, 5.0, true, 9));
  s.frame_start = true;
  writer.add_packet(s);
  writer.close();

  const File file = read_index(dir.file("p.vdx2"));
  ASSERT_EQ(file.blocks.size(), 4u);
  EXPECT_EQ(static_cast<unsigned char>(file.blocks[0].data[3]), 0x10 | 14);
  EXPECT_EQ(static_cast<unsigned char>(file.blocks[0].data[188 + 3]), 0x10 | 15);
  EXPECT_EQ(static_cast<unsigned char>(file.blocks[2].data[3]), 0x10 | 7);
  EXPECT_EQ(static_cast<unsigned char>(file.blocks[2].data[188 + 3]), 0x10 | 8);
}

TEST(IndexWriter, NptZeroOnEveryRecordKeepsTheStartTimeAndSetsNoNewNptFlag) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("z.vdx2"), false, ""));
  writer.set_tables(packet_of(0x11));
  for (uint64_t frame = 0; frame < 2; ++frame) {
    CapturedPacket a = frame_record(frame * 1880, 0.0, true);
    a.frame_start = true;
    writer.add_packet(a);
    CapturedPacket b = frame_record(frame * 1880 + 188, 0.0, false);
    writer.add_packet(b);
    CapturedPacket c = last_of_frame(frame_record(frame * 1880 + 376, 0.0, true));
    writer.add_packet(c);
  }
  writer.add_pcr(5000, 0.0);
  writer.close();

  const File file = read_index(dir.file("z.vdx2"));
  ASSERT_EQ(file.blocks.size(), 6u);
  for (const Block& b : file.blocks) {
    EXPECT_EQ(b.npt, 0.0);
    EXPECT_EQ(b.flags & FLAG_NEW_NPT, 0u);
  }
  EXPECT_EQ(writer.last_npt, 0.0);
}

TEST(IndexWriter, NptZeroTakesTheLastTime) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("z.vdx2"), false, ""));
  writer.add_pcr(100, 7.5);
  CapturedPacket a = last_of_frame(frame_record(188, 0.0, true));
  writer.add_packet(a);
  writer.close();
  const File file = read_index(dir.file("z.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[1].npt, 7.5);
  EXPECT_EQ(file.blocks[1].flags, 0u);
}

TEST(IndexWriter, SecondRecordWithTheSameNptMakesNoNewBlockAndNoFlag) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("s.vdx2"), false, ""));
  CapturedPacket a = frame_record(0, 3.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  CapturedPacket b = frame_record(188, 3.0, true);
  writer.add_packet(b);
  CapturedPacket c = last_of_frame(frame_record(376, 3.0, false));
  writer.add_packet(c);
  writer.close();

  const File file = read_index(dir.file("s.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].flags, FLAG_NEW_NPT | FLAG_VIDEO_START);
  EXPECT_EQ(file.blocks[1].flags, FLAG_REF);
  EXPECT_EQ(file.blocks[1].npt, 3.0);
  EXPECT_EQ(file.blocks[1].ref_offset, 376u);
  EXPECT_EQ(file.blocks[1].ref_length, 188u);
}

TEST(IndexWriter, AddPcrDuringAGroupJoinsItAndGetsTheGroupCount) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("g.vdx2"), false, ""));
  CapturedPacket a = frame_record(0, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  writer.add_pcr(100, 1.5);
  CapturedPacket b = last_of_frame(frame_record(188, 1.5, true));
  writer.add_packet(b);
  writer.close();

  const File file = read_index(dir.file("g.vdx2"));
  ASSERT_EQ(file.blocks.size(), 3u);
  EXPECT_EQ(file.blocks[1].offset, 100u);
  EXPECT_EQ(file.blocks[1].npt, 1.5);
  EXPECT_EQ(file.blocks[1].flags, FLAG_NEW_NPT);
  EXPECT_EQ(file.blocks[1].count, 3);
  EXPECT_EQ(file.blocks[1].index, 1);
  EXPECT_EQ(file.blocks[1].data, "");
  // The time is no longer new for the packet that follows.
  EXPECT_EQ(file.blocks[2].flags, 0u);
}

TEST(IndexWriter, AddPcrOutsideAGroupIsWrittenAtOnceWithCountZero) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("o.vdx2"), false, ""));
  writer.add_pcr(376, 0.04);
  writer.flush();
  const std::string bytes = read_file(dir.file("o.vdx2"));
  std::vector<unsigned char> expected(256, 0x00);
  const unsigned char header[] = {0x56, 0x44, 0x58, 0x32, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0};
  std::copy(std::begin(header), std::end(header), expected.begin());
  const unsigned char block[] = {0, 0, 0, 0,  0, 0, 0x01, 0x78,  // offset 376
                                 0, 0, 0, 40,                    // 40 ms
                                 0, 0, 0, 1};                    // NEW-NPT
  expected.insert(expected.end(), std::begin(block), std::end(block));
  expected.resize(512, 0x00);
  EXPECT_EQ(std::vector<unsigned char>(bytes.begin(), bytes.end()), expected);
}

TEST(IndexWriter, AddPcrDuringAReferenceRunIsWrittenAheadOfTheFramesBlocks) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("r.vdx2"), false, ""));
  CapturedPacket a = frame_record(1000, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  CapturedPacket b = frame_record(1188, 1.0, false);
  writer.add_packet(b);
  // The reference run has left the group: the time point goes to the file at once.
  writer.add_pcr(1300, 1.5);
  CapturedPacket c = last_of_frame(frame_record(1376, 1.5, false));
  writer.add_packet(c);
  writer.close();

  const std::string bytes = read_file(dir.file("r.vdx2"));
  ASSERT_EQ(bytes.size(), 768u);
  std::vector<unsigned char> time_point = {0, 0, 0,    0,    0, 0, 0x05, 0x14,  // offset 1300
                                           0, 0, 0x05, 0xDC,                    // 1500 ms
                                           0, 0, 0,    1,                       // NEW-NPT
                                           0, 0, 0,    0};                      // count 0, index 0
  time_point.resize(256, 0x00);
  EXPECT_EQ(std::vector<unsigned char>(bytes.begin() + 256, bytes.begin() + 512), time_point);
  const std::vector<unsigned char> group_head = {
      0, 0, 0,    0,    0, 0, 0x03, 0xE8,  // offset 1000
      0, 0, 0x03, 0xE8,                    // 1000 ms
      0, 0, 0,    0x0D,                    // NEW-NPT, REF, VIDEO-START
      0, 1, 0,    0,                       // count 1, index 0
      0, 0, 0x01, 0x78,                    // ref length 376: across the time point
      0, 0, 0,    0,    0, 0, 0x04, 0xA4,  // ref offset 1188
      0, 0, 0,    0xBC};                   // data length 188
  EXPECT_EQ(std::vector<unsigned char>(bytes.begin() + 512, bytes.begin() + 548), group_head);
}

TEST(IndexWriter, ReferenceAfterAnAddPcrInAGroupHangsOnTheTimePointsBlock) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("h.vdx2"), false, ""));
  CapturedPacket a = frame_record(0, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  writer.add_pcr(100, 1.5);
  CapturedPacket b = last_of_frame(frame_record(188, 1.5, false));
  writer.add_packet(b);
  writer.close();

  const File file = read_index(dir.file("h.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].flags, FLAG_NEW_NPT | FLAG_VIDEO_START);
  EXPECT_EQ(file.blocks[0].ref_length, 0u);
  EXPECT_EQ(file.blocks[1].offset, 100u);
  EXPECT_EQ(file.blocks[1].flags, FLAG_NEW_NPT | FLAG_REF);
  EXPECT_EQ(file.blocks[1].ref_offset, 188u);
  EXPECT_EQ(file.blocks[1].ref_length, 188u);
  EXPECT_EQ(file.blocks[1].count, 2);
  EXPECT_EQ(file.blocks[1].index, 1);
}

TEST(IndexWriter, AddPcrWithNoTimeOrTheSameTimeWritesNothing) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("n.vdx2"), false, ""));
  writer.add_pcr(0, 0.0);
  writer.add_pcr(188, 2.0);
  writer.add_pcr(376, 2.0);
  writer.close();
  const File file = read_index(dir.file("n.vdx2"));
  ASSERT_EQ(file.blocks.size(), 1u);
  EXPECT_EQ(file.blocks[0].offset, 188u);
  EXPECT_EQ(file.blocks[0].count, 0);
}

TEST(IndexWriter, RecordThatIsNotFrameDataOnlyCarriesItsTime) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("k.vdx2"), false, ""));
  CapturedPacket skipped = frame_record(940, 6.0, true);
  skipped.state = PACKET_SKIPPED;
  skipped.frame_start = true;
  writer.set_tables(packet_of(0x11));
  writer.add_packet(skipped);
  CapturedPacket again = frame_record(1128, 6.0, false);
  again.state = Veldrin::IndexGen::PACKET_FREE;
  writer.add_packet(again);
  writer.close();
  const File file = read_index(dir.file("k.vdx2"));
  ASSERT_EQ(file.blocks.size(), 1u);
  EXPECT_EQ(file.blocks[0].offset, 940u);
  EXPECT_EQ(file.blocks[0].flags, FLAG_NEW_NPT);
  EXPECT_EQ(file.blocks[0].count, 0);
  EXPECT_EQ(file.blocks[0].data, "");
}

TEST(IndexWriter, BlockSize16WritesTheHeaderAndTheFirstBlockThrows) {
  ScratchDir dir;
  IndexWriter writer(0, 16);
  ASSERT_TRUE(writer.open(dir.file("b.vdx2"), false, ""));
  writer.flush();
  EXPECT_EQ(read_file(dir.file("b.vdx2")).size(), 16u);
  CapturedPacket r = last_of_frame(frame_record(0, 1.0, true));
  r.frame_start = true;
  expect_error([&] { writer.add_packet(r); }, 1, "Block data too long");
  writer.flush();
  // The fixed fields ahead of the test have gone out.
  EXPECT_EQ(read_file(dir.file("b.vdx2")).size(), 16u + 32u);
  // The failed group stays pending, and the next frame's end tries it again with a larger count.
  EXPECT_EQ(writer.pending.size(), 1u);
  EXPECT_TRUE(writer.in_group);
  CapturedPacket next = last_of_frame(frame_record(188, 2.0, true));
  next.frame_start = true;
  expect_error([&] { writer.add_packet(next); }, 1, "Block data too long");
  writer.flush();
  const std::string bytes = read_file(dir.file("b.vdx2"));
  ASSERT_EQ(bytes.size(), 16u + 32u + 32u);
  // Both attempts wrote the fixed fields of the same first block: offset 0, NPT 1000 ms,
  // index 0; its count is 1, then 2.
  const std::string first(bytes, 16, 32);
  const std::string second(bytes, 48, 32);
  EXPECT_EQ(first.substr(0, 16), second.substr(0, 16));
  EXPECT_EQ(static_cast<unsigned char>(first[8 + 2]), 0x03u);  // 1000 = 0x000003E8
  EXPECT_EQ(static_cast<unsigned char>(first[8 + 3]), 0xE8u);
  EXPECT_EQ(first.substr(16, 4), std::string("\x00\x01\x00\x00", 4));
  EXPECT_EQ(second.substr(16, 4), std::string("\x00\x02\x00\x00", 4));
  EXPECT_EQ(writer.pending.size(), 2u);
}

TEST(IndexWriter, BlockSizeBelow16ThrowsAtOpenAfterTheHeaderFields) {
  ScratchDir dir;
  IndexWriter writer(0, 15);
  expect_error([&] { writer.open(dir.file("b.vdx2"), false, ""); }, 1, "Block size too small");
  writer.close();
  EXPECT_EQ(read_file(dir.file("b.vdx2")).size(), 16u);
}

TEST(IndexWriter, BlockSize36PutsAWholeStringInOneBlockWhoseWriteFails) {
  ScratchDir dir;
  IndexWriter writer(0, 36);
  ASSERT_TRUE(writer.open(dir.file("c.vdx2"), false, ""));
  writer.set_tables(packet_of(0x11) + packet_of(0x22));
  CapturedPacket r = frame_record(0, 1.0, true);
  r.frame_start = true;
  writer.add_packet(r);
  ASSERT_EQ(writer.pending.size(), 2u);
  EXPECT_EQ(writer.pending.front().data.size(), 376u);
  EXPECT_EQ(writer.pending.back().data.size(), 188u);
  CapturedPacket end = last_of_frame(frame_record(188, 1.0, true));
  expect_error([&] { writer.add_packet(end); }, 1, "Block data too long");
}

TEST(IndexWriter, AnEmptyBlockFitsBlockSize36) {
  ScratchDir dir;
  IndexWriter writer(0, 36);
  ASSERT_TRUE(writer.open(dir.file("c.vdx2"), false, ""));
  writer.add_pcr(0, 1.0);
  writer.close();
  EXPECT_EQ(read_file(dir.file("c.vdx2")).size(), 72u);
}

TEST(IndexWriter, ReferenceWithANewTimeClosesTheRangeAheadOfItselfAndStartsItsOwn) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("n.vdx2"), false, ""));
  CapturedPacket a = frame_record(1000, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  CapturedPacket b = frame_record(1188, 1.0, false);
  writer.add_packet(b);
  CapturedPacket c = frame_record(1564, 2.0, false);  // a packet of another PID lay between
  writer.add_packet(c);
  CapturedPacket d = last_of_frame(frame_record(1752, 2.0, false));
  writer.add_packet(d);
  writer.close();

  const File file = read_index(dir.file("n.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].flags, FLAG_NEW_NPT | FLAG_VIDEO_START | FLAG_REF);
  EXPECT_EQ(file.blocks[0].ref_offset, 1188u);
  EXPECT_EQ(file.blocks[0].ref_length, 376u);  // up to the new time's packet
  EXPECT_EQ(file.blocks[1].flags, FLAG_NEW_NPT | FLAG_REF);
  EXPECT_EQ(file.blocks[1].offset, 1564u);
  EXPECT_EQ(file.blocks[1].npt, 2.0);
  EXPECT_EQ(file.blocks[1].ref_offset, 1564u);
  EXPECT_EQ(file.blocks[1].ref_length, 376u);
  EXPECT_EQ(file.blocks[1].data, "");
  EXPECT_EQ(file.blocks[1].count, 2);
}

TEST(IndexWriter, NewTimeRightAfterAnInlinePacketLeavesItAnEmptyReference) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("e.vdx2"), false, ""));
  CapturedPacket a = frame_record(1000, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  CapturedPacket b = last_of_frame(frame_record(1188, 2.0, false));
  writer.add_packet(b);
  writer.close();
  const File file = read_index(dir.file("e.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].flags & FLAG_REF, FLAG_REF);
  EXPECT_EQ(file.blocks[0].ref_offset, 1188u);
  EXPECT_EQ(file.blocks[0].ref_length, 0u);
  EXPECT_EQ(file.blocks[1].ref_length, 188u);
}

TEST(IndexWriter, FrameWithoutPendingBlockOrInlinePacketGetsNoBlocks) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("x.vdx2"), false, ""));
  writer.add_pcr(0, 1.0);
  CapturedPacket a = frame_record(188, 1.0, false);
  a.frame_start = true;
  writer.add_packet(a);
  CapturedPacket b = last_of_frame(frame_record(376, 1.0, false));
  writer.add_packet(b);
  // The same with a new time: only the block the time creates.
  CapturedPacket c = frame_record(564, 1.0, false);
  c.frame_start = true;
  writer.add_packet(c);
  CapturedPacket d = last_of_frame(frame_record(752, 3.0, false));
  writer.add_packet(d);
  writer.close();
  const File file = read_index(dir.file("x.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].offset, 0u);
  EXPECT_EQ(file.blocks[1].offset, 752u);
  EXPECT_EQ(file.blocks[1].flags, FLAG_NEW_NPT | FLAG_REF);
  EXPECT_EQ(file.blocks[1].count, 1);
  EXPECT_EQ(file.blocks[1].ref_offset, 752u);
  EXPECT_EQ(file.blocks[1].ref_length, 188u);
}

TEST(IndexWriter, InlinePacketAfterAReferenceRunStartsANewRange) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("i.vdx2"), false, ""));
  CapturedPacket a = frame_record(0, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  CapturedPacket b = frame_record(188, 1.0, false);
  writer.add_packet(b);
  CapturedPacket c = frame_record(376, 1.0, false);
  writer.add_packet(c);
  CapturedPacket d = frame_record(564, 1.0, true);
  writer.add_packet(d);
  CapturedPacket e = last_of_frame(frame_record(940, 1.0, false));
  writer.add_packet(e);
  writer.close();
  const File file = read_index(dir.file("i.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].ref_offset, 188u);
  EXPECT_EQ(file.blocks[0].ref_length, 376u);
  EXPECT_EQ(file.blocks[1].flags, FLAG_REF);
  EXPECT_EQ(file.blocks[1].offset, 564u);
  EXPECT_EQ(file.blocks[1].ref_offset, 940u);
  EXPECT_EQ(file.blocks[1].ref_length, 188u);
  EXPECT_EQ(file.blocks[1].index, 1);
  EXPECT_EQ(file.blocks[1].count, 2);
}

TEST(IndexWriter, GrownPayloadRendersTwoPacketsOfWhichTheLastKeepsTheOwnCounter) {
  ScratchDir dir;
  IndexWriter writer(0, 1024);
  ASSERT_TRUE(writer.open(dir.file("g.vdx2"), false, ""));
  CapturedPacket a = last_of_frame(frame_record(0, 1.0, true, 5));
  a.packet.payload.assign(300, 0x5A);
  writer.add_packet(a);
  writer.close();
  const File file = read_index(dir.file("g.vdx2"));
  ASSERT_EQ(file.blocks.size(), 1u);
  const std::string& data = file.blocks[0].data;
  ASSERT_EQ(data.size(), 376u);
  EXPECT_EQ(static_cast<unsigned char>(data[3]) & 0x0F, 4);
  EXPECT_EQ(static_cast<unsigned char>(data[188 + 3]) & 0x0F, 5);
}

TEST(IndexWriter, GrownPayloadWithCounterZeroStartsBelowZero) {
  ScratchDir dir;
  IndexWriter writer(0, 1024);
  ASSERT_TRUE(writer.open(dir.file("g.vdx2"), false, ""));
  CapturedPacket a = last_of_frame(frame_record(0, 1.0, true, 0));
  a.packet.payload.assign(400, 0x5A);
  writer.add_packet(a);
  writer.close();
  const File file = read_index(dir.file("g.vdx2"));
  ASSERT_EQ(file.blocks.size(), 1u);
  const std::string& data = file.blocks[0].data;
  ASSERT_EQ(data.size(), 564u);
  // -2 and -1 go out in their low four bits.
  EXPECT_EQ(static_cast<unsigned char>(data[3]) & 0x0F, 14);
  EXPECT_EQ(static_cast<unsigned char>(data[188 + 3]) & 0x0F, 15);
  EXPECT_EQ(static_cast<unsigned char>(data[376 + 3]) & 0x0F, 0);
}

TEST(IndexWriter, ModifiedPacketWithEmptyPayloadGivesOneEmptyBlock) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("m.vdx2"), false, ""));
  CapturedPacket a = frame_record(0, 1.0, true);
  a.frame_start = true;
  a.packet.payload.clear();
  writer.add_packet(a);
  CapturedPacket b = last_of_frame(frame_record(188, 1.0, true));
  writer.add_packet(b);
  writer.close();
  const File file = read_index(dir.file("m.vdx2"));
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].flags, FLAG_NEW_NPT);
  EXPECT_EQ(file.blocks[0].data, "");
  EXPECT_EQ(file.blocks[0].offset, 0u);
}

TEST(IndexWriter, ExternalFramesReferToTheFrameFile) {
  ScratchDir dir;
  IndexWriter writer(FLAG_EXTERNAL_FRAMES | 4, 256);
  ASSERT_TRUE(writer.open(dir.file("x.vdx2"), false, dir.file("x.vdf")));
  for (uint64_t frame = 0; frame < 2; ++frame) {
    CapturedPacket a = frame_record(10000 * (frame + 1), 1.0 + static_cast<double>(frame), true);
    a.frame_start = true;
    writer.add_packet(a);
    CapturedPacket b =
        frame_record(10000 * (frame + 1) + 188, 1.0 + static_cast<double>(frame), false);
    writer.add_packet(b);
    CapturedPacket c = last_of_frame(
        frame_record(10000 * (frame + 1) + 752, 1.0 + static_cast<double>(frame), false));
    writer.add_packet(c);
  }
  writer.close();

  const File file = read_index(dir.file("x.vdx2"));
  EXPECT_EQ(file.header.flags, FLAG_EXTERNAL_FRAMES | 4);
  ASSERT_EQ(file.blocks.size(), 2u);
  EXPECT_EQ(file.blocks[0].offset, 10000u);
  EXPECT_EQ(file.blocks[0].ref_offset, 0u);
  EXPECT_EQ(file.blocks[0].ref_length, 376u);
  EXPECT_EQ(file.blocks[1].ref_offset, 376u);
  EXPECT_EQ(file.blocks[1].ref_length, 376u);
  const std::string frames = read_file(dir.file("x.vdf"));
  const std::string expected =
      frame_record(10188, 0, false).data + frame_record(10752, 0, false).data +
      frame_record(20188, 0, false).data + frame_record(20752, 0, false).data;
  EXPECT_EQ(frames, expected);
}

TEST(IndexWriter, FrameFileReachesTheDiskAtFlushWithoutClosing) {
  ScratchDir dir;
  IndexWriter writer(FLAG_EXTERNAL_FRAMES, 256);
  ASSERT_TRUE(writer.open(dir.file("x.vdx2"), false, dir.file("x.vdf")));
  CapturedPacket a = frame_record(0, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  CapturedPacket b = last_of_frame(frame_record(188, 1.0, false));
  writer.add_packet(b);
  writer.flush();
  EXPECT_EQ(read_file(dir.file("x.vdf")), b.data);
  EXPECT_EQ(read_file(dir.file("x.vdx2")).size(), 512u);
  EXPECT_NE(writer.writer, nullptr);  // still open
}

TEST(IndexWriter, FrameFileStaysOpenButIsFlushedAtClose) {
  ScratchDir dir;
  IndexWriter writer(FLAG_EXTERNAL_FRAMES, 256);
  ASSERT_TRUE(writer.open(dir.file("x.vdx2"), false, dir.file("x.vdf")));
  CapturedPacket b = last_of_frame(frame_record(188, 1.0, false));
  writer.add_packet(b);
  writer.close();
  ASSERT_NE(writer.frame_stream, nullptr);
  EXPECT_TRUE(writer.frame_stream->is_open());
  EXPECT_EQ(read_file(dir.file("x.vdf")), b.data);
}

TEST(IndexWriter, FrameFileIsAppendedToWhenAsked) {
  ScratchDir dir;
  {
    std::ofstream old(dir.file("x.vdf"), std::ios::binary);
    old << "old";
  }
  IndexWriter writer(FLAG_EXTERNAL_FRAMES, 256);
  ASSERT_TRUE(writer.open(dir.file("x.vdx2"), true, dir.file("x.vdf")));
  CapturedPacket b = last_of_frame(frame_record(188, 1.0, false));
  writer.add_packet(b);
  writer.close();
  EXPECT_EQ(read_file(dir.file("x.vdf")), "old" + b.data);
}

TEST(IndexWriter, FrameFileIsTruncatedOtherwise) {
  ScratchDir dir;
  {
    std::ofstream old(dir.file("x.vdf"), std::ios::binary);
    old << "old";
  }
  IndexWriter writer(FLAG_EXTERNAL_FRAMES, 256);
  ASSERT_TRUE(writer.open(dir.file("x.vdx2"), false, dir.file("x.vdf")));
  writer.close();
  EXPECT_EQ(read_file(dir.file("x.vdf")), "");
}

TEST(IndexWriter, ExternalFramesWithoutAFrameFileNameFailToOpen) {
  ScratchDir dir;
  IndexWriter writer(FLAG_EXTERNAL_FRAMES, 256);
  EXPECT_FALSE(writer.open(dir.file("x.vdx2"), false, ""));
  EXPECT_EQ(writer.writer, nullptr);
  EXPECT_EQ(writer.index_stream, nullptr);
  CapturedPacket r = last_of_frame(frame_record(0, 1.0, true));
  writer.add_packet(r);  // closed: ignored
  writer.add_pcr(0, 2.0);
  EXPECT_EQ(writer.last_npt, 0.0);
}

TEST(IndexWriter, FrameFileThatCannotBeOpenedFailsTheOpen) {
  ScratchDir dir;
  IndexWriter writer(FLAG_EXTERNAL_FRAMES, 256);
  EXPECT_FALSE(writer.open(dir.file("x.vdx2"), false, dir.file("missing/x.vdf")));
  EXPECT_EQ(writer.writer, nullptr);
  EXPECT_EQ(writer.index_stream, nullptr);
  EXPECT_EQ(writer.frame_stream, nullptr);
}

TEST(IndexWriter, IndexFileThatCannotBeOpenedFailsTheOpen) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  EXPECT_FALSE(writer.open(dir.file("missing/x.vdx2"), false, ""));
  EXPECT_EQ(writer.writer, nullptr);
  EXPECT_EQ(writer.index_stream, nullptr);
}

TEST(IndexWriter, FrameFileNameIsNotNeededWithoutExternalFrames) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  EXPECT_TRUE(writer.open(dir.file("x.vdx2"), false, dir.file("x.vdf")));
  EXPECT_EQ(writer.frame_stream, nullptr);
  EXPECT_FALSE(std::filesystem::exists(dir.file("x.vdf")));
}

TEST(IndexWriter, CloseLosesAGroupUnderWayAndLaterRecordsAreIgnored) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("c.vdx2"), false, ""));
  CapturedPacket a = frame_record(0, 1.0, true);
  a.frame_start = true;
  writer.add_packet(a);
  writer.close();
  EXPECT_EQ(writer.writer, nullptr);
  EXPECT_EQ(writer.index_stream, nullptr);
  CapturedPacket b = last_of_frame(frame_record(188, 1.0, true));
  writer.add_packet(b);
  writer.add_pcr(376, 9.0);
  writer.close();
  EXPECT_EQ(read_file(dir.file("c.vdx2")).size(), 256u);
}

TEST(IndexWriter, OpenAgainClosesTheFirstFile) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("a.vdx2"), false, ""));
  writer.add_pcr(0, 1.0);
  ASSERT_TRUE(writer.open(dir.file("b.vdx2"), false, ""));
  EXPECT_EQ(read_file(dir.file("a.vdx2")).size(), 512u);
  writer.close();
  EXPECT_EQ(read_file(dir.file("b.vdx2")).size(), 256u);
}

TEST(IndexWriter, DestructorDropsAPendingGroupUnwritten) {
  ScratchDir dir;
  {
    IndexWriter writer(0, 256);
    ASSERT_TRUE(writer.open(dir.file("d.vdx2"), false, ""));
    CapturedPacket a = last_of_frame(frame_record(0, 1.0, true));
    a.frame_start = true;
    writer.add_packet(a);
    CapturedPacket b = frame_record(188, 2.0, true);
    b.frame_start = true;
    writer.add_packet(b);
    EXPECT_EQ(writer.pending.size(), 1u);
  }
  EXPECT_EQ(read_file(dir.file("d.vdx2")).size(), 512u);
}

TEST(IndexWriter, GroupsOfSeveralFramesEachCountFromZero) {
  ScratchDir dir;
  IndexWriter writer(0, 256);
  ASSERT_TRUE(writer.open(dir.file("m.vdx2"), false, ""));
  writer.set_tables(packet_of(0x11) + packet_of(0x22));
  writer.set_frame_preamble(packet_of(0x33));
  for (int frame = 0; frame < 3; ++frame) {
    const uint64_t at = 100000 * static_cast<uint64_t>(frame);
    CapturedPacket a = frame_record(at, 1.0 + frame, true);
    a.frame_start = true;
    writer.add_packet(a);
    CapturedPacket b = frame_record(at + 188, 1.0 + frame, false);
    writer.add_packet(b);
    CapturedPacket c = last_of_frame(frame_record(at + 376, 1.0 + frame, true));
    writer.add_packet(c);
  }
  writer.close();
  const File file = read_index(dir.file("m.vdx2"));
  ASSERT_EQ(file.blocks.size(), 15u);
  EXPECT_EQ(file.length, 16u * 256u);
  for (size_t i = 0; i < file.blocks.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(file.blocks[i].count, 5);
    EXPECT_EQ(file.blocks[i].index, i % 5);
  }
  // tables (2 blocks), preamble, inline with reference, inline
  EXPECT_EQ(file.blocks[5].flags, FLAG_INTRA | FLAG_NEW_NPT);
  EXPECT_EQ(file.blocks[7].flags, FLAG_VIDEO_START);
  EXPECT_EQ(file.blocks[8].flags, FLAG_REF);
  EXPECT_EQ(file.blocks[8].ref_offset, 100188u);
  EXPECT_EQ(file.blocks[9].flags, 0u);
}

}  // namespace
