#include "transport/section_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "transport/pipeline.h"
#include "transport/section_reader.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;
using VdxTest::with_crc;

struct Written {
  bool ok;
  Bytes bytes;
};

template <typename Model>
Written write(const Model& model, size_t room = SECTION_BUFFER_SIZE) {
  Bytes buffer(room, 0xEE);
  Korvix::Channel::BlockWriter writer(buffer.data(), buffer.size());
  bool ok = SectionWriter(writer).write(model);
  buffer.resize(writer.offset);
  return {ok, buffer};
}

template <typename Model>
int32_t read_back(const Bytes& bytes, Model& model) {
  Korvix::Channel::BlockReader reader(bytes.data(), bytes.size());
  return SectionReader(reader).read(model);
}

PATSection one_program_pat() {
  PATSection pat;
  pat.id = 1;
  pat.current_next = true;
  pat.programs[1] = 0x100;
  return pat;
}

TEST(SectionWriter, PatWithOneProgram) {
  Written w = write(one_program_pat());
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, concat({hex("00"), with_crc(hex("00 B0 0D 00 01 C1 00 00 00 01 E1 00"))}));
}

TEST(SectionWriter, PatCrcMatchesAKnownSection) {
  // A PAT of program 1 on PID 0x1000, as common muxers write it, with its known CRC.
  PATSection pat = one_program_pat();
  pat.programs[1] = 0x1000;
  Written w = write(pat);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 B0 0D 00 01 C1 00 00 00 01 F0 00 2A B1 04 B2"));
}

TEST(SectionWriter, PatWrittenReadsBackAndItsCorruptedTwinsFail) {
  Written w = write(one_program_pat());
  ASSERT_TRUE(w.ok);
  PATSection back;
  ASSERT_EQ(read_back(w.bytes, back), SECTION_GOOD);
  EXPECT_EQ(back.programs, one_program_pat().programs);

  Bytes flipped = w.bytes;
  flipped[flipped.size() - 2] ^= 0x40;
  PATSection bad;
  EXPECT_EQ(read_back(flipped, bad), SECTION_BAD);

  Bytes cut(w.bytes.begin(), w.bytes.end() - 1);
  PATSection short_one;
  EXPECT_EQ(read_back(cut, short_one), SECTION_INCOMPLETE);
}

TEST(SectionWriter, PatWithoutProgramsHasLengthNine) {
  PATSection pat;
  pat.id = 0x1234;
  Written w = write(pat);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, concat({hex("00"), with_crc(hex("00 B0 09 12 34 C0 00 00"))}));
}

TEST(SectionWriter, PatEntriesInAscendingOrderWithReservedBits) {
  PATSection pat;
  pat.programs[7] = 0x1FFF;
  pat.programs[0] = 0x10;
  Written w = write(pat);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes,
            concat({hex("00"), with_crc(hex("00 B0 11 00 00 C0 00 00 00 00 E0 10 00 07 FF FF"))}));
}

TEST(SectionWriter, CommonFieldsGoIntoTheirBytes) {
  PATSection pat;
  pat.table_id = 0x42;
  pat.version = 5;
  pat.section_number = 2;
  pat.last_section_number = 3;
  Written w = write(pat);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, concat({hex("00"), with_crc(hex("42 B0 09 00 00 CA 02 03"))}));
}

TEST(SectionWriter, VersionIsNotMasked) {
  PATSection pat;
  pat.current_next = true;
  pat.version = 31;
  Written w31 = write(pat);
  ASSERT_TRUE(w31.ok);
  EXPECT_EQ(w31.bytes[1 + 5], 0xFF);
  pat.version = 32;
  Written w32 = write(pat);
  ASSERT_TRUE(w32.ok);
  EXPECT_EQ(w32.bytes[1 + 5], 0xC1);
  PATSection back;
  ASSERT_EQ(read_back(w32.bytes, back), SECTION_GOOD);
  EXPECT_EQ(back.version, 0);
}

TEST(SectionWriter, CatHasReservedExtensionWhateverWasRead) {
  CATSection cat;
  cat.table_id = 1;
  cat.current_next = true;
  cat.descriptors.push_back(Descriptor{9, hex("01 00 E1 23")});
  Written w = write(cat);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes,
            concat({hex("00"), with_crc(hex("01 B0 0F FF FF C1 00 00 09 04 01 00 E1 23"))}));
  CATSection empty;
  EXPECT_EQ(write(empty).bytes, concat({hex("00"), with_crc(hex("00 B0 09 FF FF C0 00 00"))}));
}

TEST(SectionWriter, RawSectionCarriesItsBody) {
  RawSection raw;
  raw.table_id = 0x80;
  raw.data = hex("DE AD BE EF");
  Written w = write(raw);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, concat({hex("00"), with_crc(hex("80 B0 0D FF FF C0 00 00 DE AD BE EF"))}));
}

TEST(SectionWriter, PmtBytes) {
  PMTSection pmt;
  pmt.table_id = 2;
  pmt.id = 1;
  pmt.current_next = true;
  pmt.pcr_pid = 0x100;
  pmt.descriptors.push_back(Descriptor{5, VdxTest::to_bytes("HDMV")});
  PMTStream video;
  video.stream_type = 0x1B;
  video.pid = 0x100;
  video.descriptors.push_back(Descriptor{0x52, hex("07")});
  PMTStream audio;
  audio.stream_type = 0x0F;
  audio.pid = 0x101;
  pmt.streams = {video, audio};
  Written w = write(pmt);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes,
            concat({hex("00"), with_crc(hex("02 B0 20 00 01 C1 00 00 E1 00 F0 06 05 04 48 44 4D 56"
                                            " 1B E1 00 F0 03 52 01 07"
                                            " 0F E1 01 F0 00"))}));
}

TEST(SectionWriter, PmtReadAndWrittenUnchangedKeepsItsBytes) {
  Bytes section =
      with_crc(hex("02 B0 1C 00 01 C1 00 00 E1 00 F0 00"
                   " 1B E1 00 F0 05 0A 00 0B 01 33"
                   " 03 E1 01 F0 00"));
  PMTSection pmt;
  ASSERT_EQ(read_back(concat({hex("00"), section}), pmt), SECTION_GOOD);
  EXPECT_EQ(write(pmt).bytes, concat({hex("00"), section}));
}

TEST(SectionWriter, LongestSectionIs1025Bytes) {
  RawSection raw;
  raw.data.assign(1025 - 8, 0x11);
  Written w = write(raw);
  ASSERT_TRUE(w.ok);
  ASSERT_EQ(w.bytes.size(), 1u + 1025u + 4u);
  // section_length 1,026.
  EXPECT_EQ(w.bytes[2], 0xB4);
  EXPECT_EQ(w.bytes[3], 0x02);
  EXPECT_EQ(w.bytes, concat({hex("00"), with_crc(Bytes(w.bytes.begin() + 1, w.bytes.end() - 4))}));
}

TEST(SectionWriter, SectionOf1026BytesWritesNothing) {
  RawSection raw;
  raw.data.assign(1026 - 8, 0x11);
  Written w = write(raw);
  EXPECT_FALSE(w.ok);
  EXPECT_TRUE(w.bytes.empty());
}

TEST(SectionWriter, OverflowingTheWriterFailsAndKeepsWhatWasWritten) {
  Written w = write(one_program_pat(), 14);
  EXPECT_FALSE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 B0 0D 00 01 C1 00 00 00 01 E1 00"));
  Written nothing = write(one_program_pat(), 0);
  EXPECT_FALSE(nothing.ok);
}

TEST(SectionWriter, WrittenSectionGivesTheBytesOfTheLargestBuffer) {
  EXPECT_EQ(written_section(one_program_pat()),
            concat({hex("00"), with_crc(hex("00 B0 0D 00 01 C1 00 00 00 01 E1 00"))}));
  RawSection longest;
  longest.data.assign(1025 - 8, 0x11);
  EXPECT_EQ(written_section(longest).size(), SECTION_BUFFER_SIZE);
  CATSection cat;
  cat.descriptors.push_back(Descriptor{9, hex("4B 4C E1 23")});
  EXPECT_EQ(written_section(cat),
            concat({hex("00"), with_crc(hex("00 B0 0F FF FF C0 00 00 09 04 4B 4C E1 23"))}));
  PMTSection pmt;
  pmt.table_id = 2;
  pmt.id = 1;
  pmt.pcr_pid = 0x100;
  EXPECT_EQ(written_section(pmt),
            concat({hex("00"), with_crc(hex("02 B0 0D 00 01 C0 00 00 E1 00 F0 00"))}));
}

TEST(SectionWriter, WrittenSectionThatTheWriterRefusesIsEmpty) {
  RawSection raw;
  raw.data.assign(1026 - 8, 0x11);
  EXPECT_TRUE(written_section(raw).empty());
}

TEST(SectionWriter, OversizedTablesWriteNothing) {
  PMTSection pmt;
  PMTStream stream;
  stream.descriptors.assign(300, Descriptor{1, Bytes(250, 0)});  // 75,600 bytes
  pmt.streams.push_back(stream);
  Written w = write(pmt);
  EXPECT_FALSE(w.ok);
  EXPECT_TRUE(w.bytes.empty());
  CATSection cat;
  cat.descriptors.assign(300, Descriptor{1, Bytes(250, 0)});
  Written c = write(cat);
  EXPECT_FALSE(c.ok);
  EXPECT_TRUE(c.bytes.empty());
}

// The size of a CAT's descriptors is cut to 16 bits: what lies beyond the cut size is left out
// by the descriptor writer, and the rest goes out as a section like any other.
TEST(SectionWriter, CatDescriptorSizeIsCutToSixteenBits) {
  CATSection cat;
  cat.table_id = 1;
  cat.current_next = true;
  cat.descriptors.push_back(Descriptor{9, hex("01 00 E1 23")});
  cat.descriptors.insert(cat.descriptors.end(), 256, Descriptor{1, Bytes(254, 0)});
  // 6 + 256 * 256 bytes, cut to 6: the first descriptor fills the body.
  Written w = write(cat);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes,
            concat({hex("00"), with_crc(hex("01 B0 0F FF FF C1 00 00 09 04 01 00 E1 23"))}));

  CATSection whole;
  whole.descriptors.assign(256, Descriptor{1, Bytes(254, 0)});  // 65,536 bytes, cut to 0
  Written empty = write(whole);
  ASSERT_TRUE(empty.ok);
  EXPECT_EQ(empty.bytes, concat({hex("00"), with_crc(hex("00 B0 09 FF FF C0 00 00"))}));
}

TEST(SectionWriter, DescriptorLengthByteIsTheLowEightBitsOfItsSize) {
  Bytes buffer(300, 0);
  Korvix::Channel::BlockWriter target(buffer.data(), buffer.size());
  Korvix::Channel::BlockWriter unused(buffer.data(), 0);
  SectionWriter writer(unused);
  ASSERT_TRUE(writer.write_descriptor(target, Descriptor{0x48, Bytes(257, 0xAB)}));
  EXPECT_EQ(target.offset, 259u);
  EXPECT_EQ(buffer[0], 0x48);
  EXPECT_EQ(buffer[1], 0x01);
  EXPECT_FALSE(writer.write_descriptor(target, Descriptor{0x49, Bytes(100, 0)}));
}

// Gathers the payloads of one PID as table readers do, and keeps each section read whole.
template <typename Model>
class TableCollector : public TSPipe {
 public:
  explicit TableCollector(uint16_t pid_) : pid(pid_) {}
  void process(TSPacket& packet) override {
    if (packet.pid != pid) return;
    buffer.insert(buffer.end(), packet.payload.begin(), packet.payload.end());
    Korvix::Channel::BlockReader reader(buffer.data(), buffer.size());
    SectionReader section_reader(reader);
    Model model;
    int32_t status = section_reader.read(model);
    if (status == SECTION_INCOMPLETE) return;
    if (status == SECTION_GOOD) {
      sections.push_back(section_reader.data);
      models.push_back(model);
    } else {
      bad++;
    }
    buffer.clear();
  }
  uint16_t pid;
  Bytes buffer;
  std::vector<Bytes> sections;
  std::vector<Model> models;
  int bad = 0;
};

Bytes file_bytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

template <typename Model>
TableCollector<Model> collect(const Bytes& stream, uint16_t pid) {
  TableCollector<Model> collector(pid);
  TSPipeline pipeline;
  pipeline.attach(&collector);
  for (size_t at = 0; at < stream.size(); at += 65536) {
    size_t n = std::min<size_t>(65536, stream.size() - at);
    pipeline.read(stream.data() + at, static_cast<int32_t>(n));
  }
  return collector;
}

TEST(SectionWriter, TablesOfRecordedStreamsAreWrittenBackByteForByte) {
  std::filesystem::path fixtures = std::filesystem::path(VDX_SOURCE_DIR) / "tests" / "fixtures";
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(fixtures)) {
    if (entry.path().extension() != ".ts") continue;
    files++;
    SCOPED_TRACE(entry.path().filename().string());
    Bytes stream = file_bytes(entry.path());

    auto pats = collect<PATSection>(stream, 0);
    ASSERT_FALSE(pats.models.empty());
    EXPECT_EQ(pats.bad, 0);
    for (size_t i = 0; i < pats.models.size(); i++) {
      Written w = write(pats.models[i]);
      ASSERT_TRUE(w.ok);
      EXPECT_EQ(w.bytes, concat({hex("00"), pats.sections[i]}));
    }

    const PATSection& pat = pats.models.front();
    ASSERT_FALSE(pat.programs.empty());
    auto pmts = collect<PMTSection>(stream, pat.programs.begin()->second);
    ASSERT_FALSE(pmts.models.empty());
    EXPECT_EQ(pmts.bad, 0);
    EXPECT_FALSE(pmts.models.front().streams.empty());
    for (size_t i = 0; i < pmts.models.size(); i++) {
      Written w = write(pmts.models[i]);
      ASSERT_TRUE(w.ok);
      EXPECT_EQ(w.bytes, concat({hex("00"), pmts.sections[i]}));
    }
  }
  EXPECT_GT(files, 0);
}

}  // namespace
}  // namespace Veldrin::IndexGen
