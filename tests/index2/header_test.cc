#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/error.h"
#include "foundation/channel/stream_reader.h"
#include "index2/block.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Korvix::Channel::BlockReader;
using Korvix::Channel::BlockWriter;
using Korvix::Channel::Error;
using Veldrin::Index2::Header;

// The header of a file with block size 256 and flags 0: magic, header size, flags, block size,
// then zeros up to 256 bytes.
Bytes golden_header() {
  // Made at its full size first: growing a short vector draws a false array-bounds warning
  // from gcc at -O3.
  const unsigned char head[] = {0x56, 0x44, 0x58, 0x32, 0x00, 0x00, 0x01, 0x00,
                                0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00};
  Bytes bytes(256, 0x00);
  std::copy(std::begin(head), std::end(head), bytes.begin());
  return bytes;
}

Bytes write_header(const Header& header, size_t room) {
  Bytes out(room, 0xEE);
  BlockWriter writer(out.data(), out.size());
  header.write(writer);
  out.resize(writer.offset);
  return out;
}

TEST(Header, WriteGivesMagicHeaderSizeFlagsAndBlockSizeThenZeroPadding) {
  Header header;
  header.flags = 0;
  header.block_size = 256;
  EXPECT_EQ(write_header(header, 1024), golden_header());
}

TEST(Header, WriteStoresFlagsAsGiven) {
  Header header;
  header.flags = 0x80000003;
  header.block_size = 20;
  const Bytes expected = {0x56, 0x44, 0x58, 0x32, 0x00, 0x00, 0x00, 0x14, 0x80, 0x00,
                          0x00, 0x03, 0x00, 0x00, 0x00, 0x14, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(write_header(header, 64), expected);
}

TEST(Header, WriteWithBlockSizeSixteenHasNoPadding) {
  Header header;
  header.block_size = 16;
  const Bytes expected = {0x56, 0x44, 0x58, 0x32, 0x00, 0x00, 0x00, 0x10,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10};
  EXPECT_EQ(write_header(header, 64), expected);
}

TEST(Header, BlockSizeBelowSixteenThrowsAfterTheFourFieldsHaveGoneOut) {
  Header header;
  header.block_size = 15;
  Bytes out(64, 0xEE);
  BlockWriter writer(out.data(), out.size());
  try {
    header.write(writer);
    FAIL() << "no exception";
  } catch (const Error& e) {
    EXPECT_EQ(e.error, 1);
    EXPECT_EQ(e.text, "Block size too small");
  }
  EXPECT_EQ(writer.offset, 16u);
  const Bytes fields = {0x56, 0x44, 0x58, 0x32, 0x00, 0x00, 0x00, 0x0F,
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0F};
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 16), fields);
}

TEST(Header, ReadTakesFlagsAndBlockSizeAndSkipsThePadding) {
  Bytes bytes = golden_header();
  bytes[11] = 0x05;
  BlockReader reader(bytes.data(), bytes.size());
  Header header;
  header.read(reader);
  EXPECT_EQ(header.flags, 5u);
  EXPECT_EQ(header.block_size, 256u);
  EXPECT_EQ(reader.offset, 256u);
}

TEST(Header, HeaderSizeSixteenSkipsNothingAndTheFirstBlockStandsAtSixteen) {
  Bytes bytes = {0x56, 0x44, 0x58, 0x32, 0x00, 0x00, 0x00, 0x10,
                 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00};
  // A block of 256 bytes right behind: offset 7, NPT 2000 ms, no flags, no data.
  Bytes block = {0, 0, 0, 0, 0, 0, 0, 7, 0x00, 0x00, 0x07, 0xD0};
  block.resize(256, 0x00);
  bytes.insert(bytes.end(), block.begin(), block.end());
  BlockReader reader(bytes.data(), bytes.size());
  Header header;
  header.read(reader);
  EXPECT_EQ(header.block_size, 256u);
  EXPECT_EQ(reader.offset, 16u);
  Veldrin::Index2::Block first;
  first.size = header.block_size;
  first.read(reader);
  EXPECT_EQ(first.offset, 7u);
  EXPECT_EQ(first.npt, 2.0);
  EXPECT_EQ(reader.offset, 272u);
}

TEST(Header, BlockSizeIsTakenAsReadWithoutATest) {
  Bytes bytes = {0x56, 0x44, 0x58, 0x32, 0x00, 0x00, 0x00, 0x10,
                 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03};
  BlockReader reader(bytes.data(), bytes.size());
  Header header;
  header.read(reader);
  EXPECT_EQ(header.block_size, 3u);
}

TEST(Header, HeaderSizeFifteenThrowsAfterAllFourFieldsWereRead) {
  Bytes bytes = {0x56, 0x44, 0x58, 0x32, 0x00, 0x00, 0x00, 0x0F, 0x00, 0x00,
                 0x00, 0x09, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00};
  BlockReader reader(bytes.data(), bytes.size());
  Header header;
  try {
    header.read(reader);
    FAIL() << "no exception";
  } catch (const Error& e) {
    EXPECT_EQ(e.error, 1);
    EXPECT_EQ(e.text, "Header size too small");
  }
  EXPECT_EQ(reader.offset, 16u);
  EXPECT_EQ(header.flags, 9u);
  EXPECT_EQ(header.block_size, 256u);
}

TEST(Header, FlippedMagicByteIsNotAVdx2File) {
  Bytes bytes = golden_header();
  bytes[3] ^= 0x01;
  BlockReader reader(bytes.data(), bytes.size());
  Header header;
  try {
    header.read(reader);
    FAIL() << "no exception";
  } catch (const Error& e) {
    EXPECT_EQ(e.error, 2);
    EXPECT_EQ(e.text, "Not a VDX2 file");
  }
  EXPECT_EQ(reader.offset, 4u);
}

TEST(Header, OlderIndexMagicIsNotAVdx2File) {
  Bytes bytes = golden_header();
  bytes[3] = 0x46;  // the magic of the page-aligned format
  BlockReader reader(bytes.data(), bytes.size());
  Header header;
  EXPECT_THROW(header.read(reader), Error);
}

TEST(Header, CutHeaderFailsOnTheStream) {
  Bytes bytes = golden_header();
  std::istringstream stream(std::string(bytes.begin(), bytes.begin() + 200));
  Korvix::Channel::StreamReader reader(stream);
  Header header;
  try {
    header.read(reader);
    FAIL() << "no exception";
  } catch (const Error& e) {
    // The skip of the padding comes up short: a discarding read at the end of a stream sets
    // only its end-of-file state, and the next attempt gets nothing.
    EXPECT_EQ(e.error, 0);
    EXPECT_EQ(e.text, "EOF");
  }
}

TEST(Header, CutInsideTheFixedFieldsIsEndOfData) {
  Bytes bytes = golden_header();
  BlockReader reader(bytes.data(), 10);
  Header header;
  try {
    header.read(reader);
    FAIL() << "no exception";
  } catch (const Error& e) {
    EXPECT_EQ(e.error, 0);
    EXPECT_EQ(e.text, "EOF");
  }
}

TEST(Header, DumpShowsFlagsInHexadecimalAndBlockSizeInDecimal) {
  Header header;
  header.flags = 0x1F;
  header.block_size = 256;
  std::ostringstream out;
  header.dump(out);
  out << 10;  // the stream is left in decimal
  EXPECT_EQ(out.str(), "VDX2 file, flags 1f, block size 256\n10");
}

TEST(Header, DumpOfDefaultHeader) {
  Header header;
  std::ostringstream out;
  header.dump(out);
  EXPECT_EQ(out.str(), "VDX2 file, flags 0, block size 256\n");
}

}  // namespace
