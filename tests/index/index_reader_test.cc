#include "index/index_reader.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/error.h"
#include "foundation/channel/stream_reader.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Korvix::Channel::BlockReader;
using Korvix::Channel::Error;
using Veldrin::Index::FrameBlock;
using Veldrin::Index::IndexReader;

std::string frame_data(size_t length, unsigned char seed) {
  std::string s;
  for (size_t i = 0; i < length; ++i) s.push_back(static_cast<char>(seed + i * 3));
  return s;
}

// Links 2, precision 65536, source length 200000; frames at 0, 100000 and 150000 with 10, 11 and
// 12 seconds and 564, 376 and 188 bytes of data: 28672 bytes, written out by hand.
Bytes three_frame_file() {
  Bytes f;
  auto put = [&f](std::initializer_list<unsigned char> bytes) {
    f.insert(f.end(), bytes.begin(), bytes.end());
  };
  auto pad_to = [&f](size_t end) { f.resize(end, 0x00); };
  auto put_text = [&f](const std::string& s) { f.insert(f.end(), s.begin(), s.end()); };

  put({0x56, 0x44, 0x58, 0x46});  // magic
  put({0x00, 0x00, 0x10, 0x00});  // header size 4096
  put({0x00, 0x00, 0x00, 0x01});  // version
  put({0x00, 0x00, 0x00, 0x03});  // blocks
  put({0x00, 0x01, 0x00, 0x00});  // precision
  put({0x00, 0x00, 0x00, 0x03});  // entries
  put({0, 0, 0, 1, 0x00, 0x00, 0x27, 0x10, 0, 0, 0, 0, 0, 0, 0, 0});
  put({0, 0, 0, 1, 0x00, 0x00, 0x27, 0x10, 0, 0, 0, 0, 0, 0, 0, 0});
  put({0, 0, 0, 3, 0x00, 0x00, 0x2A, 0xF8, 0, 0, 0, 0, 0x00, 0x01, 0x86, 0xA0});
  pad_to(4096);

  put({0x4D, 0x54, 0x53, 0x51, 0x00, 0x00, 0x02, 0x34, 0x00, 0x00, 0x27, 0x10});
  put({0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0x00});
  put({0x00, 0x00, 0x01, 0x78, 0x00, 0x00, 0x00, 0xBC});
  pad_to(8192);
  put_text(frame_data(564, 1));
  pad_to(12288);

  put({0x4D, 0x54, 0x53, 0x51, 0x00, 0x00, 0x01, 0x78, 0x00, 0x00, 0x2A, 0xF8});
  put({0, 0, 0, 0, 0x00, 0x01, 0x86, 0xA0, 0x01, 0x01});
  put({0x00, 0x00, 0x00, 0xBC, 0x00, 0x00, 0x02, 0x34});
  pad_to(16384);
  put_text(frame_data(376, 2));
  pad_to(20480);

  put({0x4D, 0x54, 0x53, 0x51, 0x00, 0x00, 0x00, 0xBC, 0x00, 0x00, 0x2E, 0xE0});
  put({0, 0, 0, 0, 0x00, 0x02, 0x49, 0xF0, 0x00, 0x02});
  put({0x00, 0x00, 0x01, 0x78, 0x00, 0x00, 0x02, 0x34});
  pad_to(24576);
  put_text(frame_data(188, 3));
  pad_to(28672);
  return f;
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

TEST(IndexReader, HeaderGivesItsFieldsAndTheTable) {
  const Bytes file = three_frame_file();
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  reader.read_header();
  EXPECT_EQ(reader.header_size, 4096u);
  EXPECT_EQ(reader.version, 1u);
  EXPECT_EQ(reader.blocks, 3u);
  EXPECT_EQ(reader.precision, 65536u);
  ASSERT_EQ(reader.table.size(), 3u);
  EXPECT_EQ(reader.table[0].block_page, 1u);
  EXPECT_EQ(reader.table[0].npt, 10.0);
  EXPECT_EQ(reader.table[0].offset, 0u);
  EXPECT_EQ(reader.table[2].block_page, 3u);
  EXPECT_EQ(reader.table[2].npt, 11.0);
  EXPECT_EQ(reader.table[2].offset, 100000u);
  EXPECT_EQ(channel.offset, 4096u);
}

TEST(IndexReader, BlocksComeWithTheirLinksAndFrameData) {
  const Bytes file = three_frame_file();
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  reader.read_header();

  FrameBlock block;
  ASSERT_TRUE(reader.read_block(block));
  EXPECT_EQ(block.position, 4096u);
  EXPECT_EQ(block.size, 564u);
  EXPECT_EQ(block.npt, 10.0);
  EXPECT_EQ(block.offset, 0u);
  EXPECT_EQ(block.forward, (std::vector<uint32_t>{376, 188}));
  EXPECT_TRUE(block.backward.empty());
  EXPECT_EQ(block.data, frame_data(564, 1));

  ASSERT_TRUE(reader.read_block(block));
  EXPECT_EQ(block.position, 12288u);
  EXPECT_EQ(block.npt, 11.0);
  EXPECT_EQ(block.offset, 100000u);
  EXPECT_EQ(block.forward, (std::vector<uint32_t>{188}));
  EXPECT_EQ(block.backward, (std::vector<uint32_t>{564}));
  EXPECT_EQ(block.data, frame_data(376, 2));

  ASSERT_TRUE(reader.read_block(block));
  EXPECT_EQ(block.position, 20480u);
  EXPECT_EQ(block.offset, 150000u);
  EXPECT_TRUE(block.forward.empty());
  EXPECT_EQ(block.backward, (std::vector<uint32_t>{376, 564}));
  EXPECT_EQ(block.data, frame_data(188, 3));
  EXPECT_EQ(channel.offset, 28672u);

  EXPECT_FALSE(reader.read_block(block));
}

TEST(IndexReader, HeaderWithoutTableIsOnePage) {
  Bytes file = {0x56, 0x44, 0x58, 0x46, 0x00, 0x00, 0x10, 0x00, 0, 0, 0, 1,
                0,    0,    0,    0,    0x00, 0x01, 0x00, 0x00, 0, 0, 0, 0};
  file.resize(4096, 0x00);
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  reader.read_header();
  EXPECT_TRUE(reader.table.empty());
  FrameBlock block;
  EXPECT_FALSE(reader.read_block(block));
  EXPECT_EQ(channel.offset, 4096u);
}

TEST(IndexReader, UnfinishedFileWithZeroHeaderIsNotAVdxFile) {
  Bytes file(8192, 0x00);
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  expect_error([&] { reader.read_header(); }, 2, "Not a VDX file");
}

TEST(IndexReader, FlippedMagicByteIsNotAVdxFile) {
  Bytes file = three_frame_file();
  file[0] ^= 0x80;
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  expect_error([&] { reader.read_header(); }, 2, "Not a VDX file");
}

TEST(IndexReader, FlippedBlockMagicIsNotAVdxBlock) {
  Bytes file = three_frame_file();
  file[12288 + 2] ^= 0x01;
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  reader.read_header();
  FrameBlock block;
  ASSERT_TRUE(reader.read_block(block));
  expect_error([&] { reader.read_block(block); }, 2, "Not a VDX block");
}

TEST(IndexReader, TableThatDoesNotFitTheHeaderIsRefused) {
  Bytes file = three_frame_file();
  file[20] = 0x01;  // 16 million entries behind a header of one page
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  expect_error([&] { reader.read_header(); }, 1, "Table larger than header");
}

TEST(IndexReader, FileCutInsideTheLastFrameFails) {
  const Bytes file = three_frame_file();
  std::istringstream stream(std::string(file.begin(), file.begin() + 24600));
  Korvix::Channel::StreamReader channel(stream);
  IndexReader reader(channel);
  reader.read_header();
  FrameBlock block;
  ASSERT_TRUE(reader.read_block(block));
  ASSERT_TRUE(reader.read_block(block));
  expect_error([&] { reader.read_block(block); }, 1, "Stream failed");
}

TEST(IndexReader, FileCutAtABlockBoundaryFailsAtTheMissingBlock) {
  const Bytes file = three_frame_file();
  BlockReader channel(file.data(), 20480);
  IndexReader reader(channel);
  reader.read_header();
  FrameBlock block;
  ASSERT_TRUE(reader.read_block(block));
  ASSERT_TRUE(reader.read_block(block));
  expect_error([&] { reader.read_block(block); }, 0, "EOF");
}

TEST(IndexReader, DumpShowsHeaderTableAndBlocks) {
  const Bytes file = three_frame_file();
  BlockReader channel(file.data(), file.size());
  IndexReader reader(channel);
  reader.read_header();
  std::ostringstream out;
  reader.dump_header(out);
  FrameBlock block;
  for (uint32_t i = 0; reader.read_block(block); ++i) IndexReader::dump_block(out, block, i, false);
  EXPECT_EQ(out.str(),
            "VDX file, version 1, header size 4096, 3 blocks, precision 65536, 3 entries\n"
            "  Entry 0 for 0: block page 1, NPT 10@0\n"
            "  Entry 1 for 65536: block page 1, NPT 10@0\n"
            "  Entry 2 for 131072: block page 3, NPT 11@100000\n"
            "Index block 0 at 4096: NPT 10@0, 564 bytes\n"
            "  Forward: 376 188\n"
            "Index block 1 at 12288: NPT 11@100000, 376 bytes\n"
            "  Forward: 188\n"
            "  Backward: 564\n"
            "Index block 2 at 20480: NPT 12@150000, 188 bytes\n"
            "  Backward: 376 564\n");
}

TEST(IndexReader, DumpWithDataShowsTheFrameInHex) {
  FrameBlock block;
  block.position = 4096;
  block.size = 2;
  block.data = "AB";
  std::ostringstream out;
  IndexReader::dump_block(out, block, 0, true);
  EXPECT_EQ(out.str(),
            "Index block 0 at 4096: NPT 0@0, 2 bytes\n"
            "  Frame data (2):\n"
            "0000: 4142" +
                std::string(4 + 3 * 9, ' ') + " | AB\n");
}

}  // namespace
