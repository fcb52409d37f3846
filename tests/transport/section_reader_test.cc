#include "transport/section_reader.h"

#include <gtest/gtest.h>

#include <random>

#include "foundation/channel/block_reader.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;
using VdxTest::with_crc;

// The PAT of one program (number 1 on PID 0x100), transport_stream_id 1, version 0.
const char* PAT_ONE_PROGRAM = "00 B0 0D 00 01 C1 00 00 00 01 E1 00";

// A buffer of gathered payload: pointer_field 0, then the section.
Bytes gathered(const Bytes& section) {
  return concat({hex("00"), section});
}

template <typename Model>
int32_t read_model(const Bytes& buffer, Model& model, std::vector<unsigned char>* data = nullptr) {
  Korvix::Channel::BlockReader reader(buffer.data(), buffer.size());
  SectionReader section_reader(reader);
  int32_t status = section_reader.read(model);
  if (data) *data = section_reader.data;
  return status;
}

int32_t read_header(const Bytes& buffer, SectionHeader& header) {
  Korvix::Channel::BlockReader reader(buffer.data(), buffer.size());
  return SectionReader(reader).read_section(header);
}

// A section of the given section_length whose bytes after the header are `fill`, with a good CRC.
Bytes section_of_length(uint32_t length, unsigned char fill = 0) {
  // Made at its full size first: growing a three-byte vector draws a false array-bounds
  // warning from gcc at -O3.
  Bytes body(length - 1, fill);
  body[0] = 0x02;
  body[1] = static_cast<unsigned char>(0xB0 | (length >> 8));
  body[2] = static_cast<unsigned char>(length & 0xFF);
  return with_crc(body);
}

TEST(SectionReader, EmptyBufferIsIncomplete) {
  SectionHeader header;
  EXPECT_EQ(read_header(Bytes{}, header), SECTION_INCOMPLETE);
}

TEST(SectionReader, PointerFieldAloneIsIncomplete) {
  SectionHeader header;
  EXPECT_EQ(read_header(hex("05"), header), SECTION_INCOMPLETE);
  EXPECT_EQ(read_header(hex("05 FF FF FF"), header), SECTION_INCOMPLETE);
  EXPECT_EQ(read_header(hex("05 FF FF FF FF FF"), header), SECTION_INCOMPLETE);
}

TEST(SectionReader, PointerFieldPassesOverBytes) {
  PATSection pat;
  Bytes buffer = concat({hex("03 AA BB CC"), with_crc(hex(PAT_ONE_PROGRAM))});
  EXPECT_EQ(read_model(buffer, pat), SECTION_GOOD);
  EXPECT_EQ(pat.programs.size(), 1u);
}

TEST(SectionReader, OnePatEntry) {
  PATSection pat;
  std::vector<unsigned char> data;
  Bytes section = with_crc(hex(PAT_ONE_PROGRAM));
  ASSERT_EQ(read_model(gathered(section), pat, &data), SECTION_GOOD);
  EXPECT_EQ(data, section);
  EXPECT_EQ(pat.table_id, 0);
  EXPECT_EQ(pat.id, 1);
  EXPECT_EQ(pat.version, 0);
  EXPECT_TRUE(pat.current_next);
  EXPECT_EQ(pat.section_number, 0);
  EXPECT_EQ(pat.last_section_number, 0);
  ASSERT_EQ(pat.programs.size(), 1u);
  EXPECT_EQ(pat.programs.at(1), 0x100);
}

TEST(SectionReader, CommonFields) {
  SectionHeader header;
  // table_id 0x42, version 0x15, current_next 0, section 3 of 7.
  Bytes section = with_crc(hex("42 F0 09 12 34 EA 03 07"));
  ASSERT_EQ(read_header(gathered(section), header), SECTION_GOOD);
  EXPECT_EQ(header.table_id, 0x42);
  EXPECT_EQ(header.version, 0x15);
  EXPECT_FALSE(header.current_next);
  EXPECT_EQ(header.section_number, 3);
  EXPECT_EQ(header.last_section_number, 7);
}

TEST(SectionReader, ChangedByteOrCrcByteIsBad) {
  Bytes section = with_crc(hex(PAT_ONE_PROGRAM));
  for (size_t i = 0; i < section.size(); i++) {
    if (i == 1 || i == 2) continue;  // would change the length
    Bytes bad = section;
    bad[i] ^= 0x01;
    PATSection pat;
    EXPECT_EQ(read_model(gathered(bad), pat), SECTION_BAD) << i;
    EXPECT_TRUE(pat.programs.empty());
  }
}

TEST(SectionReader, SectionCutAtEveryLengthIsIncomplete) {
  Bytes buffer = gathered(with_crc(hex(PAT_ONE_PROGRAM)));
  for (size_t n = 0; n < buffer.size(); n++) {
    PATSection pat;
    Bytes cut(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_EQ(read_model(cut, pat), SECTION_INCOMPLETE) << n;
  }
}

TEST(SectionReader, BytesBehindTheSectionAreLeft) {
  Bytes buffer = concat({gathered(with_crc(hex(PAT_ONE_PROGRAM))), hex("FF FF FF")});
  Korvix::Channel::BlockReader reader(buffer.data(), buffer.size());
  PATSection pat;
  EXPECT_EQ(SectionReader(reader).read(pat), SECTION_GOOD);
  EXPECT_EQ(reader.offset, buffer.size() - 3);
}

TEST(SectionReader, LengthBelowFourIsBadBeforeTheBodyArrives) {
  SectionHeader header;
  EXPECT_EQ(read_header(hex("00 00 B0 03"), header), SECTION_BAD);
  EXPECT_EQ(read_header(hex("00 00 B0 00"), header), SECTION_BAD);
}

TEST(SectionReader, LengthAbove4093IsBadBeforeTheBodyArrives) {
  SectionHeader header;
  EXPECT_EQ(read_header(hex("00 00 BF FE"), header), SECTION_BAD);
  EXPECT_EQ(read_header(hex("00 00 BF FF"), header), SECTION_BAD);
}

TEST(SectionReader, OnlyTheLowTwelveBitsAreTheLength) {
  // The top four bits of byte 1 are flags, not length.
  SectionHeader header;
  EXPECT_EQ(read_header(gathered(with_crc(hex("00 00 09 00 01 C1 00 00"))), header), SECTION_GOOD);
}

TEST(SectionReader, Length4093IsAcceptedAndNeeds4096Bytes) {
  Bytes section = section_of_length(4093, 0x5A);
  ASSERT_EQ(section.size(), 4096u);
  SectionHeader header;
  EXPECT_EQ(read_header(gathered(section), header), SECTION_GOOD);
  Bytes short_one = gathered(section);
  short_one.pop_back();
  EXPECT_EQ(read_header(short_one, header), SECTION_INCOMPLETE);
}

TEST(SectionReader, ShortestSectionHasNoLastSectionNumber) {
  // section_length 4: the CRC alone. Byte 7 doesn't exist.
  Bytes section = section_of_length(4);
  ASSERT_EQ(section.size(), 7u);
  SectionHeader header;
  header.last_section_number = 9;
  ASSERT_EQ(read_header(gathered(section), header), SECTION_GOOD);
  EXPECT_EQ(header.section_number, section[6]);
  EXPECT_EQ(header.last_section_number, 0);
}

TEST(SectionReader, VeryShortSectionsGiveNoModelContent) {
  for (uint32_t length = 4; length < 9; length++) {
    Bytes buffer = gathered(section_of_length(length, 0xFF));
    PATSection pat;
    EXPECT_EQ(read_model(buffer, pat), SECTION_GOOD) << length;
    EXPECT_TRUE(pat.programs.empty());
    PMTSection pmt;
    EXPECT_EQ(read_model(buffer, pmt), SECTION_BAD) << length;
    CATSection cat;
    EXPECT_EQ(read_model(buffer, cat), SECTION_GOOD) << length;
  }
}

TEST(SectionReader, PatWithoutProgramsIsGoodAndEmpty) {
  PATSection pat;
  std::vector<unsigned char> data;
  ASSERT_EQ(read_model(gathered(with_crc(hex("00 B0 09 00 07 C1 00 00"))), pat, &data),
            SECTION_GOOD);
  EXPECT_EQ(data.size(), 12u);
  EXPECT_EQ(pat.id, 7);
  EXPECT_TRUE(pat.programs.empty());
}

TEST(SectionReader, PatOf13To15BytesHasNoPrograms) {
  for (const char* text : {"00 B0 0A 00 07 C1 00 00 00", "00 B0 0B 00 07 C1 00 00 00 01",
                           "00 B0 0C 00 07 C1 00 00 00 01 E1"}) {
    PATSection pat;
    EXPECT_EQ(read_model(gathered(with_crc(hex(text))), pat), SECTION_GOOD) << text;
    EXPECT_TRUE(pat.programs.empty()) << text;
  }
}

TEST(SectionReader, PatKeepsProgramNumberZero) {
  PATSection pat;
  ASSERT_EQ(
      read_model(gathered(with_crc(hex("00 B0 11 00 01 C1 00 00 00 00 E0 10 00 01 E1 00"))), pat),
      SECTION_GOOD);
  ASSERT_EQ(pat.programs.size(), 2u);
  EXPECT_EQ(pat.programs.at(0), 0x10);
  EXPECT_EQ(pat.programs.at(1), 0x100);
}

TEST(SectionReader, PatRepeatedProgramNumberLastWins) {
  PATSection pat;
  ASSERT_EQ(
      read_model(gathered(with_crc(hex("00 B0 11 00 01 C1 00 00 00 05 E1 00 00 05 FF FE"))), pat),
      SECTION_GOOD);
  ASSERT_EQ(pat.programs.size(), 1u);
  EXPECT_EQ(pat.programs.at(5), 0x1FFE);
}

TEST(SectionReader, PatTrailingPartialEntryIsIgnored) {
  PATSection pat;
  ASSERT_EQ(read_model(gathered(with_crc(hex("00 B0 0F 00 01 C1 00 00 00 05 E1 00 00 06"))), pat),
            SECTION_GOOD);
  ASSERT_EQ(pat.programs.size(), 1u);
  EXPECT_EQ(pat.programs.at(5), 0x100);
}

// A PMT for program 1, PCR PID 0x100, one program descriptor (tag 5, "HDMV"), a video stream on
// 0x100 with a descriptor (tag 0x52, 1 byte) and an audio stream on 0x101 without.
const char* PMT_TWO_STREAMS =
    "02 B0 20 00 01 C1 00 00 E1 00 F0 06 05 04 48 44 4D 56"
    " 1B E1 00 F0 03 52 01 07"
    " 0F E1 01 F0 00";

TEST(SectionReader, PmtWithDescriptorsAndStreams) {
  PMTSection pmt;
  ASSERT_EQ(read_model(gathered(with_crc(hex(PMT_TWO_STREAMS))), pmt), SECTION_GOOD);
  EXPECT_EQ(pmt.table_id, 2);
  EXPECT_EQ(pmt.id, 1);
  EXPECT_EQ(pmt.pcr_pid, 0x100);
  ASSERT_EQ(pmt.descriptors.size(), 1u);
  EXPECT_EQ(pmt.descriptors.front().tag, 5);
  EXPECT_EQ(pmt.descriptors.front().data, VdxTest::to_bytes("HDMV"));
  ASSERT_EQ(pmt.streams.size(), 2u);
  const PMTStream& video = pmt.streams.front();
  EXPECT_EQ(video.stream_type, 0x1B);
  EXPECT_EQ(video.pid, 0x100);
  ASSERT_EQ(video.descriptors.size(), 1u);
  EXPECT_EQ(video.descriptors.front().tag, 0x52);
  EXPECT_EQ(video.descriptors.front().data, hex("07"));
  const PMTStream& audio = pmt.streams.back();
  EXPECT_EQ(audio.stream_type, 0x0F);
  EXPECT_EQ(audio.pid, 0x101);
  EXPECT_TRUE(audio.descriptors.empty());
}

TEST(SectionReader, PmtShorterThanTwelveBytesIsBad) {
  PMTSection pmt;
  EXPECT_EQ(read_model(gathered(with_crc(hex("02 B0 09 00 01 C1 00 00"))), pmt), SECTION_BAD);
  EXPECT_EQ(read_model(gathered(with_crc(hex("02 B0 0A 00 01 C1 00 00 E1"))), pmt), SECTION_BAD);
}

TEST(SectionReader, PmtWithoutStreamsIsGood) {
  PMTSection pmt;
  ASSERT_EQ(read_model(gathered(with_crc(hex("02 B0 0D 00 01 C1 00 00 E1 00 F0 00"))), pmt),
            SECTION_GOOD);
  EXPECT_TRUE(pmt.descriptors.empty());
  EXPECT_TRUE(pmt.streams.empty());
}

TEST(SectionReader, PmtProgramInfoRunningPastTheSectionIsBad) {
  PMTSection pmt;
  // p = 5 with 12 + 5 > 16 bytes of data.
  EXPECT_EQ(read_model(gathered(with_crc(hex("02 B0 0D 00 01 C1 00 00 E1 00 F0 05"))), pmt),
            SECTION_BAD);
  // p may run into the CRC bytes: 12 + 4 is not more than 16.
  PMTSection into_crc;
  EXPECT_EQ(read_model(gathered(with_crc(hex("02 B0 0D 00 01 C1 00 00 E1 00 F0 04"))), into_crc),
            SECTION_GOOD);
}

TEST(SectionReader, PmtEsInfoRunningPastTheDataIsBadAndKeepsEarlierStreams) {
  PMTSection pmt;
  // The second stream claims 9 bytes of descriptors.
  Bytes section =
      with_crc(hex("02 B0 17 00 01 C1 00 00 E1 00 F0 00"
                   " 1B E1 00 F0 00"
                   " 0F E1 01 F0 09"));
  EXPECT_EQ(read_model(gathered(section), pmt), SECTION_BAD);
  ASSERT_EQ(pmt.streams.size(), 1u);
  EXPECT_EQ(pmt.streams.front().pid, 0x100);
}

TEST(SectionReader, PmtLastStreamEndingRightBeforeTheCrcIsGood) {
  PMTSection pmt;
  ASSERT_EQ(read_model(gathered(with_crc(hex(PMT_TWO_STREAMS))), pmt), SECTION_GOOD);
  EXPECT_EQ(pmt.streams.size(), 2u);
}

// Fewer than five bytes between the last stream and the CRC: an entry is read with CRC bytes as
// its tail, and its ES_info_length decides. Two extra bytes are chosen so that the CRC gives an
// ES_info_length of 0 or 1 (the entry fits) or more (it doesn't).
TEST(SectionReader, PmtEntryReadWithCrcBytesAsItsTail) {
  Bytes head = hex("02 B0 14 00 01 C1 00 00 E1 00 F0 00 1B E1 00 F0 00");
  bool found_fitting = false;
  bool found_running_over = false;
  for (uint32_t extra = 0; extra < 0x10000 && !(found_fitting && found_running_over); extra++) {
    Bytes section = with_crc(concat(
        {head, Bytes{static_cast<unsigned char>(extra >> 8), static_cast<unsigned char>(extra)}}));
    size_t crc_at = section.size() - 4;
    uint32_t es_info_length = (uint32_t{section[crc_at + 1] & 0x0Fu} << 8) | section[crc_at + 2];
    PMTSection pmt;
    int32_t status = read_model(gathered(section), pmt);
    if (es_info_length <= 1) {
      found_fitting = true;
      EXPECT_EQ(status, SECTION_GOOD);
      ASSERT_EQ(pmt.streams.size(), 2u);
      EXPECT_EQ(pmt.streams.back().stream_type, extra >> 8);
      EXPECT_EQ(pmt.streams.back().pid, (((extra & 0xFF) << 8) | section[crc_at]) & 0x1FFF);
    } else if (!found_running_over) {
      found_running_over = true;
      EXPECT_EQ(status, SECTION_BAD);
      EXPECT_EQ(pmt.streams.size(), 1u);
    }
  }
  EXPECT_TRUE(found_fitting);
  EXPECT_TRUE(found_running_over);
}

TEST(SectionReader, DescriptorOfLengthZeroKeepsTheListGoing) {
  PMTSection pmt;
  ASSERT_EQ(read_model(
                gathered(with_crc(hex("02 B0 12 00 01 C1 00 00 E1 00 F0 05 0A 00 0B 01 33"))), pmt),
            SECTION_GOOD);
  ASSERT_EQ(pmt.descriptors.size(), 2u);
  EXPECT_EQ(pmt.descriptors.front().tag, 0x0A);
  EXPECT_TRUE(pmt.descriptors.front().data.empty());
  EXPECT_EQ(pmt.descriptors.back().tag, 0x0B);
  EXPECT_EQ(pmt.descriptors.back().data, hex("33"));
}

TEST(SectionReader, DescriptorRunningOverItsBlockIsDroppedAndEarlierOnesStay) {
  PMTSection pmt;
  // Program info of 5 bytes: a whole descriptor, then one that claims 4 bytes but has 1.
  ASSERT_EQ(read_model(
                gathered(with_crc(hex("02 B0 12 00 01 C1 00 00 E1 00 F0 05 0A 00 0B 04 33"))), pmt),
            SECTION_GOOD);
  ASSERT_EQ(pmt.descriptors.size(), 1u);
  EXPECT_EQ(pmt.descriptors.front().tag, 0x0A);
  // A lone tag byte at the end of a stream's block is dropped too.
  PMTSection lone;
  ASSERT_EQ(read_model(
                gathered(with_crc(hex("02 B0 14 00 01 C1 00 00 E1 00 F0 00 1B E1 00 F0 02 52 01"))),
                lone),
            SECTION_GOOD);
  ASSERT_EQ(lone.streams.size(), 1u);
  EXPECT_TRUE(lone.streams.front().descriptors.empty());
}

TEST(SectionReader, CatDescriptorsRunUpToTheCrc) {
  CATSection cat;
  ASSERT_EQ(read_model(gathered(with_crc(hex("01 B0 0F FF FF C1 00 00 09 04 01 00 E1 23"))), cat),
            SECTION_GOOD);
  EXPECT_EQ(cat.table_id, 1);
  ASSERT_EQ(cat.descriptors.size(), 1u);
  EXPECT_EQ(cat.descriptors.front().tag, 9);
  EXPECT_EQ(cat.descriptors.front().data, hex("01 00 E1 23"));
}

TEST(SectionReader, CatWithoutDescriptors) {
  CATSection cat;
  ASSERT_EQ(read_model(gathered(with_crc(hex("01 B0 09 FF FF C1 00 00"))), cat), SECTION_GOOD);
  EXPECT_TRUE(cat.descriptors.empty());
}

TEST(SectionReader, CatTruncatedLastDescriptorIsDropped) {
  CATSection cat;
  ASSERT_EQ(read_model(gathered(with_crc(hex("01 B0 0F FF FF C1 00 00 09 00 09 05 01 00"))), cat),
            SECTION_GOOD);
  ASSERT_EQ(cat.descriptors.size(), 1u);
  EXPECT_TRUE(cat.descriptors.front().data.empty());
}

TEST(SectionReader, ModelsAreAppendedTo) {
  PMTSection pmt;
  Bytes buffer = gathered(with_crc(hex(PMT_TWO_STREAMS)));
  ASSERT_EQ(read_model(buffer, pmt), SECTION_GOOD);
  ASSERT_EQ(read_model(buffer, pmt), SECTION_GOOD);
  EXPECT_EQ(pmt.streams.size(), 4u);
  EXPECT_EQ(pmt.descriptors.size(), 2u);
}

TEST(SectionReader, ReadDescriptorFromAnyReader) {
  Bytes block = hex("48 02 AB CD 49");
  Korvix::Channel::BlockReader source(block.data(), block.size());
  Bytes nothing;
  Korvix::Channel::BlockReader unused(nothing.data(), 0);
  SectionReader reader(unused);
  Descriptor first;
  ASSERT_TRUE(reader.read_descriptor(source, first));
  EXPECT_EQ(first.tag, 0x48);
  EXPECT_EQ(first.data, hex("AB CD"));
  Descriptor second;
  EXPECT_FALSE(reader.read_descriptor(source, second));
  Descriptor third;
  EXPECT_FALSE(reader.read_descriptor(source, third));
}

// Whatever the bytes, reading ends in one of the three statuses and never outside the buffer.
TEST(SectionReader, ArbitraryBytesWithGoodCrcsNeverReadOutOfBounds) {
  std::mt19937 random(12345);
  for (unsigned round = 0; round < 3000; round++) {
    const auto length = static_cast<uint32_t>(4 + random() % 60);
    Bytes body(length - 1);
    for (auto& b : body) b = static_cast<unsigned char>(random());
    body[0] = static_cast<unsigned char>(round % 3);
    body[1] = static_cast<unsigned char>(0xB0 | (length >> 8));
    body[2] = static_cast<unsigned char>(length);
    // Small program_info and ES_info lengths reach deeper into the loops.
    if (body.size() > 10 && (round & 1)) {
      body[9] &= 0xF0;
      body[10] = body[10] % 16;
    }
    Bytes buffer = gathered(with_crc(body));
    for (size_t cut = 0; cut <= buffer.size(); cut += (round % 7) + 1) {
      Bytes part(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(cut));
      PATSection pat;
      PMTSection pmt;
      CATSection cat;
      int32_t a = read_model(part, pat);
      int32_t b = read_model(part, pmt);
      int32_t c = read_model(part, cat);
      EXPECT_TRUE(a >= 0 && a <= 2 && b >= 0 && b <= 2 && c >= 0 && c <= 2);
      EXPECT_EQ(a, cut < buffer.size() ? SECTION_INCOMPLETE : SECTION_GOOD);
    }
  }
}

}  // namespace
}  // namespace Veldrin::IndexGen
