#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"
#include "e2e/vdx_file.h"

namespace Veldrin::Testing {
namespace {

// The options that the tool only hands on to the index generator, seen in what it indexes. The
// fixture has its PMT on PID 4096, MPEG-2 video on PID 256 and audio on PID 257, and no CAT.
const std::string FIXTURE = "mpeg2_bframes.ts";
constexpr uint16_t PMT_PID = 4096;
constexpr uint16_t VIDEO_PID = 256;
constexpr uint16_t AUDIO_PID = 257;

uint16_t pid_of(const std::string& packet) {
  return static_cast<uint16_t>(((static_cast<unsigned char>(packet[1]) & 0x1F) << 8) |
                               static_cast<unsigned char>(packet[2]));
}

bool starts_unit(const std::string& packet) {
  return (static_cast<unsigned char>(packet[1]) & 0x40) != 0;
}

std::vector<std::string> packets_of(const std::string& data) {
  std::vector<std::string> packets;
  for (size_t at = 0; at + 188 <= data.size(); at += 188) packets.push_back(data.substr(at, 188));
  return packets;
}

// The fields of a PMT section that the trimming changes.
struct Pmt {
  bool found = false;
  int version = -1;
  uint16_t pcr_pid = 0;
  std::vector<std::pair<int, uint16_t>> streams;  // stream_type, PID
};

// The PMT section that starts in a packet (after its pointer_field), if the section is whole in
// the packet.
Pmt pmt_of(const std::string& packet) {
  Pmt pmt;
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(packet[at]); };
  size_t at = 4;
  if (byte(3) & 0x20) at += size_t{1} + byte(4);
  if (at >= 188) return pmt;
  at += size_t{1} + byte(at);  // pointer_field
  if (at + 12 > 188 || byte(at) != 2) return pmt;
  const size_t length = (size_t{byte(at + 1) & 0x0Fu} << 8) | byte(at + 2);
  const size_t end = at + 3 + length - 4;  // ahead of the CRC
  if (at + 3 + length > 188) return pmt;
  pmt.version = (byte(at + 5) >> 1) & 0x1F;
  pmt.pcr_pid = static_cast<uint16_t>(((byte(at + 8) & 0x1F) << 8) | byte(at + 9));
  size_t es = at + 12 + ((size_t{byte(at + 10) & 0x0Fu} << 8) | byte(at + 11));
  while (es + 5 <= end) {
    pmt.streams.push_back(
        {byte(es), static_cast<uint16_t>(((byte(es + 1) & 0x1F) << 8) | byte(es + 2))});
    es += 5 + ((size_t{byte(es + 3)} & 0x0F) << 8 | byte(es + 4));
  }
  pmt.found = true;
  return pmt;
}

struct Indexed {
  RunResult result;
  VdxFile file;
};

// Indexes the fixture into the VDX format, whose blocks hold each frame with what goes ahead of
// it.
Indexed index_fixture(const ScratchDir& dir, const std::vector<std::string>& options,
                      const std::string& output) {
  write_file(dir.file(FIXTURE), read_file(source_path("tests/fixtures/" + FIXTURE)));
  std::vector<std::string> args = {"-f", "vdx"};
  args.insert(args.end(), options.begin(), options.end());
  args.push_back(FIXTURE);
  args.push_back(output);
  Indexed indexed;
  indexed.result = run_vdxindex(args, dir.path);
  indexed.file = parse_vdx(read_file(dir.file(output)));
  return indexed;
}

bool has_line(const std::string& text, const std::string& line) {
  std::vector<std::string> lines = split_lines(text);
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(GeneratorOptions, TablesGoAheadOfEveryFrameByDefault) {
  ScratchDir dir;
  Indexed indexed = index_fixture(dir, {}, "plain.vdx");
  ASSERT_EQ(indexed.result.status, 0) << indexed.result.err;
  ASSERT_TRUE(indexed.file.valid);
  ASSERT_GT(indexed.file.blocks.size(), 1u);
  for (const VdxBlock& block : indexed.file.blocks) {
    std::vector<std::string> packets = packets_of(block.data);
    ASSERT_GE(packets.size(), 3u);
    EXPECT_EQ(pid_of(packets[0]), 0);
    EXPECT_EQ(pid_of(packets[1]), PMT_PID);
    EXPECT_EQ(pid_of(packets[2]), VIDEO_PID);
  }
}

TEST(GeneratorOptions, NoTablesLeavesThemOutAndTablesBringsThemBack) {
  ScratchDir dir;
  Indexed plain = index_fixture(dir, {}, "plain.vdx");
  Indexed bare = index_fixture(dir, {"-n"}, "bare.vdx");
  Indexed again = index_fixture(dir, {"--no-tables", "--tables"}, "again.vdx");
  ASSERT_EQ(bare.result.status, 0) << bare.result.err;
  ASSERT_TRUE(bare.file.valid);
  ASSERT_EQ(bare.file.blocks.size(), plain.file.blocks.size());
  for (size_t k = 0; k < bare.file.blocks.size(); ++k) {
    const std::string& with_tables = plain.file.blocks[k].data;
    const std::string& without = bare.file.blocks[k].data;
    // The same frame, behind a PAT and a PMT packet in the plain index.
    EXPECT_EQ(without, with_tables.substr(2 * 188)) << "block " << k;
    for (const std::string& packet : packets_of(without)) EXPECT_EQ(pid_of(packet), VIDEO_PID);
  }
  ASSERT_EQ(again.result.status, 0);
  EXPECT_EQ(read_file(dir.file("again.vdx")), read_file(dir.file("plain.vdx")));
}

TEST(GeneratorOptions, TrimPmtKeepsTheVideoStreamAloneWithTheNextVersion) {
  // The PMT as the source carries it.
  std::vector<std::string> source = packets_of(read_file(source_path("tests/fixtures/" + FIXTURE)));
  Pmt original;
  for (const std::string& packet : source) {
    if (pid_of(packet) == PMT_PID && starts_unit(packet)) {
      original = pmt_of(packet);
      break;
    }
  }
  ASSERT_TRUE(original.found);
  ASSERT_EQ(original.streams.size(), 2u);
  EXPECT_EQ(original.streams[0], std::make_pair(2, VIDEO_PID));
  EXPECT_EQ(original.streams[1].second, AUDIO_PID);

  ScratchDir dir;
  Indexed plain = index_fixture(dir, {}, "plain.vdx");
  Indexed trimmed = index_fixture(dir, {"-T"}, "trimmed.vdx");
  Indexed long_name = index_fixture(dir, {"--trim-pmt"}, "long.vdx");
  ASSERT_EQ(trimmed.result.status, 0) << trimmed.result.err;
  ASSERT_TRUE(trimmed.file.valid);
  ASSERT_FALSE(trimmed.file.blocks.empty());
  ASSERT_FALSE(plain.file.blocks.empty());

  Pmt kept = pmt_of(packets_of(plain.file.blocks[0].data)[1]);
  ASSERT_TRUE(kept.found);
  EXPECT_EQ(kept.version, original.version);
  EXPECT_EQ(kept.pcr_pid, original.pcr_pid);
  EXPECT_EQ(kept.streams, original.streams);

  for (const VdxBlock& block : trimmed.file.blocks) {
    Pmt pmt = pmt_of(packets_of(block.data)[1]);
    ASSERT_TRUE(pmt.found);
    EXPECT_EQ(pmt.version, (original.version + 1) & 0x1F);
    EXPECT_EQ(pmt.pcr_pid, VIDEO_PID);
    EXPECT_EQ(pmt.streams, (std::vector<std::pair<int, uint16_t>>{{2, VIDEO_PID}}));
  }
  EXPECT_EQ(read_file(dir.file("long.vdx")), read_file(dir.file("trimmed.vdx")));
}

TEST(GeneratorOptions, CaPidPutsAPacketOfThatPidAheadOfTheFramesAfterItsFirst) {
  ScratchDir dir;
  Indexed plain = index_fixture(dir, {}, "plain.vdx");
  Indexed captured = index_fixture(dir, {"-c", "257"}, "captured.vdx");
  Indexed long_name = index_fixture(dir, {"--ca-pid", "257"}, "long.vdx");
  ASSERT_EQ(captured.result.status, 0) << captured.result.err;
  EXPECT_TRUE(has_line(captured.result.err, "Capturing CA data from PID: 257"));
  // Given on the command line, the PID isn't looked for in the PMT.
  EXPECT_EQ(captured.result.err.find("Found CA data for capture on PID: "), std::string::npos);
  EXPECT_EQ(plain.result.err.find("Capturing CA data"), std::string::npos);

  // Where the first packet of that PID stands: a frame ahead of it has no CA packet yet.
  const std::string source = read_file(source_path("tests/fixtures/" + FIXTURE));
  uint64_t first_ca = 0;
  while (first_ca + 188 <= source.size() && pid_of(source.substr(first_ca, 188)) != AUDIO_PID)
    first_ca += 188;
  ASSERT_LT(first_ca + 188, source.size());

  ASSERT_TRUE(captured.file.valid);
  ASSERT_EQ(captured.file.blocks.size(), plain.file.blocks.size());
  size_t with_ca = 0;
  for (size_t k = 0; k < captured.file.blocks.size(); ++k) {
    SCOPED_TRACE("block " + std::to_string(k));
    const VdxBlock& block = captured.file.blocks[k];
    std::vector<std::string> packets = packets_of(block.data);
    ASSERT_GE(packets.size(), 4u);
    EXPECT_EQ(pid_of(packets[0]), 0);
    EXPECT_EQ(pid_of(packets[1]), PMT_PID);
    if (block.offset < first_ca) {
      EXPECT_EQ(block.data, plain.file.blocks[k].data);
      continue;
    }
    ++with_ca;
    EXPECT_EQ(pid_of(packets[2]), AUDIO_PID);
    EXPECT_EQ(pid_of(packets[3]), VIDEO_PID);
    // The plain frame with one packet more, behind the PMT.
    const std::string& plain_data = plain.file.blocks[k].data;
    EXPECT_EQ(block.data.substr(0, 2 * 188), plain_data.substr(0, 2 * 188));
    EXPECT_EQ(block.data.substr(3 * 188), plain_data.substr(2 * 188));
  }
  EXPECT_GT(with_ca, 0u);
  EXPECT_EQ(read_file(dir.file("long.vdx")), read_file(dir.file("captured.vdx")));
}

}  // namespace
}  // namespace Veldrin::Testing
