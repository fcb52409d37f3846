#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/error.h"
#include "foundation/channel/stream_reader.h"
#include "index2/block.h"
#include "worked_layout.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Korvix::Channel::BlockReader;
using Korvix::Channel::BlockWriter;
using Korvix::Channel::Error;
using Veldrin::Index2::Block;
using Veldrin::Index2::Header;

Bytes write_block(const Block& block, size_t room = 4096) {
  Bytes out(room, 0xEE);
  BlockWriter writer(out.data(), out.size());
  block.write(writer);
  out.resize(writer.offset);
  return out;
}

Bytes write_multiple(const Block& block, size_t room = 4096) {
  Bytes out(room, 0xEE);
  BlockWriter writer(out.data(), out.size());
  block.write_multiple(writer);
  out.resize(writer.offset);
  return out;
}

uint32_t nbo_32(const Bytes& b, size_t at) {
  return (uint32_t{b[at]} << 24) | (uint32_t{b[at + 1]} << 16) | (uint32_t{b[at + 2]} << 8) |
         b[at + 3];
}

uint16_t nbo_16(const Bytes& b, size_t at) {
  return static_cast<uint16_t>((b[at] << 8) | b[at + 1]);
}

uint64_t nbo_64(const Bytes& b, size_t at) {
  return (uint64_t{nbo_32(b, at)} << 32) | nbo_32(b, at + 4);
}

std::string text_of(const Bytes& b, size_t at, size_t length) {
  return std::string(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + length));
}

std::string pattern(size_t length) {
  std::string s;
  for (size_t i = 0; i < length; ++i) s.push_back(static_cast<char>('A' + i % 26));
  return s;
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

TEST(Block, WriteLaysOutTheFixedFieldsThenDataThenZeroPadding) {
  Block block;
  block.size = 64;
  block.offset = 0x0102030405060708;
  block.npt = 1.5;
  block.flags = 0x0D;
  block.count = 3;
  block.index = 2;
  block.ref_length = 0x11223344;
  block.ref_offset = 0x0A0B0C0D0E0F1011;
  block.data = "abc";
  Bytes expected = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,  // offset
                    0x00, 0x00, 0x05, 0xDC,                          // 1500 ms
                    0x00, 0x00, 0x00, 0x0D,                          // flags
                    0x00, 0x03, 0x00, 0x02,                          // count, index
                    0x11, 0x22, 0x33, 0x44,                          // ref length
                    0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11,  // ref offset
                    0x00, 0x00, 0x00, 0x03, 'a',  'b',  'c'};
  expected.resize(64, 0x00);
  EXPECT_EQ(write_block(block), expected);
}

TEST(Block, NptOfTwelveAndAHalfSecondsIsStoredAs12500) {
  Block block;
  block.npt = 12.5;
  EXPECT_EQ(nbo_32(write_block(block), 8), 12500u);
}

TEST(Block, NptOfNineteenTenThousandthsOfASecondIsStoredAsOne) {
  Block block;
  block.npt = 0.0019;
  EXPECT_EQ(nbo_32(write_block(block), 8), 1u);
}

TEST(Block, NptBeyondThirtyTwoBitsOfMillisecondsKeepsTheLowWord) {
  Block block;
  block.npt = 5000000.0;  // 5,000,000,000 ms
  EXPECT_EQ(nbo_32(write_block(block), 8), 705032704u);
}

TEST(Block, NptThatIsNotANumberIsWrittenWithoutFailing) {
  Block block;
  block.npt = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(write_block(block).size(), 256u);
}

TEST(Block, DataOfExactlySizeLess36FillsTheBlockWithoutPadding) {
  Block block;
  block.size = 64;
  block.data = pattern(28);
  const Bytes out = write_block(block);
  ASSERT_EQ(out.size(), 64u);
  EXPECT_EQ(nbo_32(out, 32), 28u);
  EXPECT_EQ(text_of(out, 36, 28), block.data);
}

TEST(Block, OneByteMoreThanTheBlockHoldsThrowsAfterTheFixedFields) {
  Block block;
  block.size = 64;
  block.data = pattern(29);
  Bytes out(256, 0xEE);
  BlockWriter writer(out.data(), out.size());
  expect_error([&] { block.write(writer); }, 1, "Block data too long");
  EXPECT_EQ(writer.offset, 32u);
}

TEST(Block, BlockSmallerThanTheFixedFieldsCannotBeWrittenEvenEmpty) {
  Block block;
  block.size = 16;
  Bytes out(256, 0xEE);
  BlockWriter writer(out.data(), out.size());
  expect_error([&] { block.write(writer); }, 1, "Block data too long");
}

TEST(Block, ReadGivesBackWhatWriteWrote) {
  Block block;
  block.size = 128;
  block.offset = 2048000;
  block.npt = 12.5;
  block.flags = 5;
  block.count = 4;
  block.index = 3;
  block.ref_length = 188;
  block.ref_offset = 99;
  block.data = pattern(60);
  Bytes bytes = write_block(block);
  bytes.push_back(0x42);

  BlockReader reader(bytes.data(), bytes.size());
  Block back;
  back.size = 128;
  back.data = "old";
  back.read(reader);
  EXPECT_EQ(reader.offset, 128u);
  EXPECT_EQ(back.offset, 2048000u);
  EXPECT_EQ(back.npt, 12.5);
  EXPECT_EQ(back.flags, 5u);
  EXPECT_EQ(back.count, 4);
  EXPECT_EQ(back.index, 3);
  EXPECT_EQ(back.ref_length, 188u);
  EXPECT_EQ(back.ref_offset, 99u);
  EXPECT_EQ(back.data, block.data);  // replaced, not appended
}

TEST(Block, ReadGivesNptAsMillisecondsOverAThousand) {
  Bytes bytes(64, 0x00);
  bytes[11] = 0x07;  // 7 ms
  BlockReader reader(bytes.data(), bytes.size());
  Block block;
  block.size = 64;
  block.read(reader);
  EXPECT_EQ(block.npt, 7 / 1000.0);
}

TEST(Block, ReadOfADataLengthBeyondTheBlockThrows) {
  Bytes bytes(256, 0x00);
  bytes[35] = 29;  // 36 + 29 > 64
  BlockReader reader(bytes.data(), bytes.size());
  Block block;
  block.size = 64;
  expect_error([&] { block.read(reader); }, 1, "Block data too long");
  EXPECT_EQ(reader.offset, 36u);
}

TEST(Block, ReadOfADataLengthThatFillsTheBlockExactly) {
  Bytes bytes(64, 0x61);
  for (size_t i = 0; i < 36; ++i) bytes[i] = 0;
  bytes[35] = 28;
  BlockReader reader(bytes.data(), bytes.size());
  Block block;
  block.size = 64;
  block.read(reader);
  EXPECT_EQ(block.data, std::string(28, 'a'));
  EXPECT_EQ(reader.offset, 64u);
}

TEST(Block, ReadOfACutBlockFails) {
  Block block;
  block.data = pattern(100);
  const Bytes bytes = write_block(block);
  std::istringstream stream(text_of(bytes, 0, 120));
  Korvix::Channel::StreamReader reader(stream);
  Block back;
  EXPECT_THROW(back.read(reader), Error);
}

TEST(Block, WriteMultipleOf441BytesMakesBlocksOf220And220And1) {
  Block block;
  block.size = 256;
  block.offset = 777;
  block.npt = 3.25;
  block.flags = 0x0B;
  block.count = 9;  // not used: worked out by the write
  block.index = 9;
  block.ref_length = 564;
  block.ref_offset = 0x123456789;
  block.data = pattern(441);
  const Bytes out = write_multiple(block);
  ASSERT_EQ(out.size(), 768u);
  const uint32_t lengths[] = {220, 220, 1};
  size_t from = 0;
  for (size_t i = 0; i < 3; ++i) {
    const size_t at = i * 256;
    SCOPED_TRACE(i);
    EXPECT_EQ(nbo_64(out, at), 777u);
    EXPECT_EQ(nbo_32(out, at + 8), 3250u);
    EXPECT_EQ(nbo_32(out, at + 12), i == 0 ? 0x0Bu : 0u);
    EXPECT_EQ(nbo_16(out, at + 16), 3);
    EXPECT_EQ(nbo_16(out, at + 18), i);
    EXPECT_EQ(nbo_32(out, at + 20), i == 2 ? 564u : 0u);
    EXPECT_EQ(nbo_64(out, at + 24), i == 2 ? 0x123456789u : 0u);
    EXPECT_EQ(nbo_32(out, at + 32), lengths[i]);
    EXPECT_EQ(text_of(out, at + 36, lengths[i]), block.data.substr(from, lengths[i]));
    EXPECT_EQ(text_of(out, at + 36 + lengths[i], 220 - lengths[i]),
              std::string(220 - lengths[i], '\0'));
    from += lengths[i];
  }
}

TEST(Block, WriteMultipleOfEmptyDataWritesOneBlock) {
  Block block;
  block.size = 64;
  block.flags = 1;
  block.ref_length = 188;
  const Bytes out = write_multiple(block);
  ASSERT_EQ(out.size(), 64u);
  EXPECT_EQ(nbo_32(out, 12), 1u);
  EXPECT_EQ(nbo_16(out, 16), 1);
  EXPECT_EQ(nbo_16(out, 18), 0);
  EXPECT_EQ(nbo_32(out, 20), 188u);
  EXPECT_EQ(nbo_32(out, 32), 0u);
}

TEST(Block, WriteMultipleOfExactlyTwoChunksMakesTwoFullBlocks) {
  Block block;
  block.size = 64;
  block.data = pattern(56);
  const Bytes out = write_multiple(block);
  ASSERT_EQ(out.size(), 128u);
  EXPECT_EQ(nbo_16(out, 16), 2);
  EXPECT_EQ(nbo_32(out, 32), 28u);
  EXPECT_EQ(nbo_32(out, 64 + 32), 28u);
}

TEST(Block, WriteMultipleWithoutRoomForDataFailsAsTooLong) {
  Block block;
  block.size = 36;
  block.data = "x";
  Bytes out(256, 0xEE);
  BlockWriter writer(out.data(), out.size());
  expect_error([&] { block.write_multiple(writer); }, 1, "Block data too long");
  EXPECT_EQ(writer.offset, 32u);
}

TEST(Block, ReadMultipleJoinsTheGroupAndTakesRefsFromTheLastBlock) {
  Block block;
  block.size = 256;
  block.offset = 777;
  block.npt = 3.25;
  block.flags = 0x0B;
  block.ref_length = 564;
  block.ref_offset = 0x123456789;
  block.data = pattern(441);
  Bytes bytes = write_multiple(block);
  bytes.resize(bytes.size() + 256, 0x00);  // a following block stays unread

  BlockReader reader(bytes.data(), bytes.size());
  Block back;
  back.size = 256;
  back.data = "kept";
  back.read_multiple(reader);
  EXPECT_EQ(reader.offset, 768u);
  EXPECT_EQ(back.offset, 777u);
  EXPECT_EQ(back.npt, 3.25);
  EXPECT_EQ(back.flags, 0x0Bu);
  EXPECT_EQ(back.count, 3);
  EXPECT_EQ(back.ref_length, 564u);
  EXPECT_EQ(back.ref_offset, 0x123456789u);
  EXPECT_EQ(back.data, "kept" + block.data);  // appended: not emptied first
}

TEST(Block, ReadMultipleTakesOffsetFlagsAndCountFromTheFirstBlockOnly) {
  // Blocks 1 and 2 carry their own offsets and flags; only the first block's count.
  Block block;
  block.size = 64;
  block.data = pattern(50);
  Bytes bytes = write_multiple(block);
  bytes[64 + 7] = 0x55;   // offset of block 1
  bytes[64 + 15] = 0x04;  // flags of block 1
  bytes[64 + 17] = 0x07;  // count of block 1
  BlockReader reader(bytes.data(), bytes.size());
  Block back;
  back.size = 64;
  back.read_multiple(reader);
  EXPECT_EQ(back.offset, 0u);
  EXPECT_EQ(back.flags, 0u);
  EXPECT_EQ(back.count, 2);
  EXPECT_EQ(back.data, block.data);
  EXPECT_EQ(reader.offset, 128u);
}

TEST(Block, ReadMultipleOverABlockOfIndexOneWhereZeroIsExpectedThrows) {
  Block block;
  block.size = 64;
  block.data = pattern(50);
  Bytes bytes = write_multiple(block);
  bytes[19] = 1;  // the first block's index
  BlockReader reader(bytes.data(), bytes.size());
  Block back;
  back.size = 64;
  expect_error([&] { back.read_multiple(reader); }, 2, "Multiple block index out of sync");
  EXPECT_EQ(reader.offset, 20u);
}

TEST(Block, ReadMultipleWithALaterBlockOutOfPlaceThrows) {
  Block block;
  block.size = 64;
  block.data = pattern(80);
  Bytes bytes = write_multiple(block);
  bytes[128 + 19] = 1;  // the third block claims place 1
  BlockReader reader(bytes.data(), bytes.size());
  Block back;
  back.size = 64;
  expect_error([&] { back.read_multiple(reader); }, 2, "Multiple block index out of sync");
}

TEST(Block, ReadMultipleOfAFirstBlockWithCountZeroEndsAtOnceWithoutItsRefs) {
  Block block;
  block.size = 64;
  block.offset = 5;
  block.npt = 1.0;
  block.flags = 5;
  block.ref_length = 188;
  block.ref_offset = 1000;
  block.data = "abc";
  Bytes bytes = write_block(block);  // count 0, index 0
  bytes.resize(128, 0x00);
  BlockReader reader(bytes.data(), bytes.size());
  Block back;
  back.size = 64;
  back.read_multiple(reader);
  EXPECT_EQ(reader.offset, 64u);
  EXPECT_EQ(back.count, 0);
  EXPECT_EQ(back.flags, 5u);
  EXPECT_EQ(back.ref_length, 0u);
  EXPECT_EQ(back.ref_offset, 0u);
  EXPECT_EQ(back.data, "abc");
}

TEST(Block, ReadMultipleOfATooLongBlockThrows) {
  Bytes bytes(64, 0x00);
  bytes[17] = 1;
  bytes[35] = 29;
  BlockReader reader(bytes.data(), bytes.size());
  Block back;
  back.size = 64;
  expect_error([&] { back.read_multiple(reader); }, 1, "Block data too long");
}

TEST(Block, ReadMultipleOfACutGroupEndsInEndOfData) {
  Block block;
  block.size = 64;
  block.data = pattern(50);
  const Bytes bytes = write_multiple(block);
  BlockReader reader(bytes.data(), 100);
  Block back;
  back.size = 64;
  expect_error([&] { back.read_multiple(reader); }, 0, "EOF in string");
}

TEST(Block, DumpShowsTimeOffsetFlagsPlaceAndReference) {
  Block block;
  block.size = 256;
  block.offset = 2048000;
  block.npt = 12.5;
  block.flags = 0x0F;
  block.count = 2;
  block.index = 1;
  block.ref_length = 564;
  block.ref_offset = 2048188;
  block.data = "abc";
  std::ostringstream out;
  block.dump(out, false);
  EXPECT_EQ(out.str(),
            "Index2 block[256]: NPT 12.5@2048000 NEW-NPT INTRA (1/2)\n"
            "  Ref data: 564@2048188\n");
}

TEST(Block, DumpOfABareTimePointHasNoPlaceAndNoReference) {
  Block block;
  block.size = 64;
  block.offset = 376;
  block.npt = 0.04;
  block.flags = 1;
  std::ostringstream out;
  block.dump(out, true);
  EXPECT_EQ(out.str(), "Index2 block[64]: NPT 0.04@376 NEW-NPT\n");
}

TEST(Block, DumpWithInlineDataShowsAHexDumpOfSixteenBytesALineInGroupsOfFour) {
  Block block;
  block.size = 64;
  block.flags = 2;
  block.data = "01234";
  std::ostringstream out;
  block.dump(out, true);
  EXPECT_EQ(out.str(),
            "Index2 block[64]: NPT 0@0 INTRA\n"
            "  Inline data (5):\n"
            "0000: 30313233 34" +
                std::string(24, ' ') + " | 01234\n");
}

TEST(Block, DumpWithInlineDataOverTwoLines) {
  Block block;
  block.size = 64;
  block.data = std::string("0123456789012345") + '\x01';
  std::ostringstream out;
  block.dump(out, true);
  EXPECT_EQ(out.str(),
            "Index2 block[64]: NPT 0@0\n"
            "  Inline data (17):\n"
            "0000: 30313233 34353637 38393031 32333435 | 0123456789012345\n"
            "0010: 01" +
                std::string(6 + 3 * 9, ' ') + " | .\n");
}

TEST(Block, DumpWithoutInlineOptionLeavesTheDataOut) {
  Block block;
  block.size = 64;
  block.data = "01234";
  std::ostringstream out;
  block.dump(out, false);
  EXPECT_EQ(out.str(), "Index2 block[64]: NPT 0@0\n");
}

// The worked file, read back with the record operations.
TEST(Block, WorkedLayoutReadsBackAsHeaderAndTwoBlocksOfOneGroup) {
  const Bytes file = Veldrin::Testing::worked_layout();
  ASSERT_EQ(file.size(), 768u);
  BlockReader reader(file.data(), file.size());
  Header header;
  header.read(reader);
  EXPECT_EQ(header.flags, 0u);
  EXPECT_EQ(header.block_size, 256u);

  Block first;
  first.size = header.block_size;
  first.read(reader);
  EXPECT_EQ(first.offset, 2048000u);
  EXPECT_EQ(first.npt, 12.5);
  EXPECT_EQ(first.flags, 3u);
  EXPECT_EQ(first.count, 2);
  EXPECT_EQ(first.index, 0);
  EXPECT_EQ(first.ref_length, 0u);
  const Bytes table = Veldrin::Testing::worked_table_packet();
  EXPECT_EQ(first.data, std::string(table.begin(), table.end()));

  Block second;
  second.size = header.block_size;
  second.read(reader);
  EXPECT_EQ(second.flags, 0x0Cu);
  EXPECT_EQ(second.index, 1);
  EXPECT_EQ(second.ref_length, 564u);
  EXPECT_EQ(second.ref_offset, 2048188u);
  EXPECT_EQ(reader.offset, 768u);

  std::ostringstream out;
  first.dump(out, false);
  second.dump(out, false);
  EXPECT_EQ(out.str(),
            "Index2 block[256]: NPT 12.5@2048000 NEW-NPT INTRA (0/2)\n"
            "Index2 block[256]: NPT 12.5@2048000 (1/2)\n"
            "  Ref data: 564@2048188\n");
}

TEST(Block, WorkedLayoutCutShortFailsOnItsLastBlock) {
  const Bytes file = Veldrin::Testing::worked_layout();
  std::istringstream stream(std::string(file.begin(), file.begin() + 700));
  Korvix::Channel::StreamReader reader(stream);
  Header header;
  header.read(reader);
  Block block;
  block.read(reader);
  expect_error([&] { block.read(reader); }, 1, "Stream failed");
}

TEST(Block, WorkedLayoutWithAnOverlongDataLengthFails) {
  Bytes file = Veldrin::Testing::worked_layout();
  file[512 + 35] = 0xDD;  // 221 bytes: one more than a block of 256 holds
  BlockReader reader(file.data(), file.size());
  Header header;
  header.read(reader);
  Block block;
  block.read(reader);
  expect_error([&] { block.read(reader); }, 1, "Block data too long");
}

}  // namespace
