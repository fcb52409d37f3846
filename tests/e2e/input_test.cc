#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"

namespace Veldrin::Testing {
namespace {

const std::string BANNER = "Veldrin MPEG2 Transport Stream indexer version 3.1.6\n";
constexpr uint64_t SECOND = 27000000;  // PCR ticks
constexpr uint64_t EIGHTH = SECOND / 8;

std::optional<uint64_t> pcr_every_100(size_t index) {
  if (index % 100 != 0) return std::nullopt;
  return SECOND + (index / 100) * EIGHTH;
}

// Where each PCR packet of a stream stands, and the block the seek index gives it.
struct Expected {
  uint64_t offset;
  uint32_t npt;
};

void expect_pcr_blocks(const std::string& index_bytes, const std::vector<Expected>& expected) {
  Vdx2File index = parse_vdx2(index_bytes);
  ASSERT_TRUE(index.valid);
  ASSERT_EQ(index.blocks.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(index.blocks[i].offset, expected[i].offset) << "block " << i;
    EXPECT_EQ(index.blocks[i].npt, expected[i].npt) << "block " << i;
    EXPECT_EQ(index.blocks[i].flags, 1u) << "block " << i;
  }
}

// Blocks of a stream of pcr_every_100 packets whose first byte stands at start: the first PCR
// only starts the clock.
std::vector<Expected> blocks_of_timed_stream(uint64_t start, size_t packets) {
  std::vector<Expected> blocks;
  for (size_t j = 1; j * 100 < packets; ++j)
    blocks.push_back({start + j * 100 * 188, static_cast<uint32_t>(j * 125)});
  return blocks;
}

TEST(Input, FileWithGarbageAheadAlignsAtItsFirstPacket) {
  ScratchDir dir;
  write_file(dir.file("in.ts"),
             std::string(100, '\x01') + make_packets(0x100, 1100, pcr_every_100));
  RunResult result = run_vdxindex({"-S", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  std::vector<std::string> lines = split_lines(result.err);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[1], "Indexing in.ts into in.ts.vdx2");
  EXPECT_EQ(lines[2], "Aligned with start of TS stream at byte 100");
  // The offsets count from the start of the file.
  expect_pcr_blocks(read_file(dir.file("in.ts.vdx2")), blocks_of_timed_stream(100, 1100));
}

TEST(Input, FileStartingOnAPacketLogsNoAlignment) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100, pcr_every_100));
  RunResult result = run_vdxindex({"-S", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err.find("Aligned"), std::string::npos) << result.err;
  expect_pcr_blocks(read_file(dir.file("in.ts.vdx2")), blocks_of_timed_stream(0, 1100));
}

TEST(Input, FewerThanTenPacketsDoNotAlign) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 9, pcr_every_100));
  RunResult result = run_vdxindex({"in.ts"}, dir.path);
  EXPECT_EQ(result.status, 6);
  EXPECT_EQ(result.err, BANNER + "Could not align to start of TS stream - aborting\n");
  EXPECT_FALSE(file_exists(dir.file("in.ts.vdx2")));
}

TEST(Input, SpacedSyncBytesAnywhereInTheWindowMustNumberTen) {
  ScratchDir dir;
  // Nine spaced sync bytes in a large file of zeros.
  std::string file(400000, '\0');
  for (size_t k = 0; k < 9; ++k) file[5000 + 188 * k] = 0x47;
  write_file(dir.file("in.ts"), file);
  RunResult result = run_vdxindex({"in.ts"}, dir.path);
  EXPECT_EQ(result.status, 6);
  EXPECT_EQ(split_lines(result.err).back(), "Could not align to start of TS stream - aborting");
}

TEST(Input, StreamStartingTooLateDoesNotAlign) {
  ScratchDir dir;
  write_file(dir.file("late.ts"), std::string(185932, '\0') + make_packets(0x100, 200));
  RunResult result = run_vdxindex({"late.ts"}, dir.path);
  EXPECT_EQ(result.status, 6);

  write_file(dir.file("last.ts"), std::string(185931, '\0') + make_packets(0x100, 200));
  result = run_vdxindex({"last.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("Aligned with start of TS stream at byte 185931\n"), std::string::npos)
      << result.err;
}

TEST(Input, ShortFileThatAlignsFeedsNothing) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), std::string(100, '\x01') + make_packets(0x100, 10, pcr_every_100));
  RunResult result = run_vdxindex({"in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  // The stream is left failed at its end by the alignment read: not even the PCR of the first
  // packet arrives.
  EXPECT_EQ(result.err, BANNER +
                            "Indexing in.ts into in.ts.vdx2\n"
                            "Aligned with start of TS stream at byte 100\n"
                            "Output index format: VDX2\n"
                            "Creating index of 0 blocks\n"
                            "Duration:\t-1\tseconds\n"
                            "Done\n");
  Vdx2File index = parse_vdx2(read_file(dir.file("in.ts.vdx2")));
  EXPECT_TRUE(index.valid);
  EXPECT_TRUE(index.blocks.empty());
}

// PCRs on packets that straddle the first two chunk boundaries of 65536 bytes.
std::optional<uint64_t> pcr_across_chunks(size_t index) {
  switch (index) {
    case 0:
      return SECOND;
    case 348:  // bytes 65424 to 65611
      return SECOND + EIGHTH;
    case 697:  // bytes 131036 to 131223
      return SECOND + 2 * EIGHTH;
    case 1000:
      return SECOND + 3 * EIGHTH;
    default:
      return std::nullopt;
  }
}

const std::vector<Expected> ACROSS_CHUNKS = {{65424, 125}, {131036, 250}, {188000, 375}};

TEST(Input, PacketAcrossAChunkBoundaryKeepsItsOffsetInAFile) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100, pcr_across_chunks));
  RunResult result = run_vdxindex({"-S", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  expect_pcr_blocks(read_file(dir.file("in.ts.vdx2")), ACROSS_CHUNKS);
}

TEST(Input, PacketAcrossAChunkBoundaryKeepsItsOffsetOnStandardInput) {
  ScratchDir dir;
  RunResult result =
      run_vdxindex({"-S", "-"}, dir.path, make_packets(0x100, 1100, pcr_across_chunks));
  EXPECT_EQ(result.status, 0);
  expect_pcr_blocks(read_file(dir.file("-.vdx2")), ACROSS_CHUNKS);
}

TEST(Input, StandardInputIsNeverAlignedAndCountsLeadingGarbage) {
  ScratchDir dir;
  std::string input = std::string(100, '\x01') + make_packets(0x100, 1100, pcr_every_100);
  RunResult result = run_vdxindex({"-S", "-"}, dir.path, input);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err.find("Aligned"), std::string::npos) << result.err;
  expect_pcr_blocks(read_file(dir.file("-.vdx2")), blocks_of_timed_stream(100, 1100));
}

TEST(Input, ShortStandardInputIsFedWhole) {
  ScratchDir dir;
  // Fewer bytes than an alignment would need, but standard input has none.
  RunResult result = run_vdxindex({"-S", "-"}, dir.path, make_packets(0x100, 101, pcr_every_100));
  EXPECT_EQ(result.status, 0);
  expect_pcr_blocks(read_file(dir.file("-.vdx2")), {{18800, 125}});
}

TEST(Input, GarbageAndStraySyncBytesBetweenPacketsAreHuntedOver) {
  // Pieces with the position of each PCR packet noted as it is put down.
  std::string input(50, '\xAA');
  uint64_t pcr_packet_100 = 0, pcr_packet_300 = 0;
  uint8_t continuity = 0;
  auto put = [&](size_t index) {
    input += make_packet(0x100, continuity++ & 0x0F, pcr_every_100(index));
  };
  for (size_t i = 0; i < 100; ++i) put(i);
  input += std::string(10, '\0');  // ten stray bytes, no sync byte among them
  pcr_packet_100 = input.size();
  for (size_t i = 100; i < 200; ++i) put(i);
  // A stray sync byte whose false packet takes 188 bytes and so swallows the sync byte of the
  // PCR packet at 1.25 seconds; the hunt finds the next real packet.
  input += std::string("\x47\x1F\xFF\x10", 4) + std::string(20, '\xAA');
  for (size_t i = 200; i < 300; ++i) put(i);
  pcr_packet_300 = input.size();
  for (size_t i = 300; i < 310; ++i) put(i);

  ScratchDir dir;
  RunResult result = run_vdxindex({"-S", "-"}, dir.path, input);
  EXPECT_EQ(result.status, 0);
  // Passing over bytes is silent.
  std::vector<std::string> lines = split_lines(result.err);
  ASSERT_EQ(lines.size(), 11u) << result.err;
  EXPECT_EQ(lines[5], "Creating index of 2 blocks");
  EXPECT_EQ(lines[6], "Duration:\t0.375\tseconds");
  // The first PCR stands at 50; the rates are measured from there.
  double first_rate = static_cast<double>((pcr_packet_100 - 50) * 8) / 0.125;
  double second_rate = static_cast<double>((pcr_packet_300 - pcr_packet_100) * 8) / 0.25;
  double average = static_cast<double>((pcr_packet_300 - 50) * 8) / 0.375;
  auto whole = [](double value) { return std::to_string(static_cast<int32_t>(value)); };
  EXPECT_EQ(lines[7], "Average rate:\t" + whole(average) + "\tbits/sec");
  EXPECT_EQ(lines[8], "Maximum rate:\t" + whole(std::max(first_rate, second_rate)) + "\tbits/sec");
  EXPECT_EQ(lines[9], "Minimum rate:\t" + whole(std::min(first_rate, second_rate)) + "\tbits/sec");
  expect_pcr_blocks(read_file(dir.file("-.vdx2")), {{pcr_packet_100, 125}, {pcr_packet_300, 375}});
}

TEST(Input, NamedPipeGivenByPathFeedsNothingAfterTheAlignment) {
  ScratchDir dir;
  std::string fifo = dir.file("fifo.ts");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::string stream = make_packets(0x100, 2000, pcr_every_100);
  std::thread writer([&] {
    ::signal(SIGPIPE, SIG_IGN);
    int fd = ::open(fifo.c_str(), O_WRONLY);
    if (fd < 0) return;
    size_t written = 0;
    while (written < stream.size()) {
      ssize_t put = ::write(fd, stream.data() + written, stream.size() - written);
      if (put <= 0) break;
      written += static_cast<size_t>(put);
    }
    ::close(fd);
  });
  RunResult result = run_vdxindex({"fifo.ts", "out.vdx2"}, dir.path);
  // Should the run have ended without opening the pipe, a reader that comes and goes frees the
  // writer from its open.
  int unblock = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  if (unblock >= 0) ::close(unblock);
  writer.join();
  // The seek back on the pipe fails; the loop ends at once instead of spinning.
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, BANNER +
                            "Indexing fifo.ts into out.vdx2\n"
                            "Output index format: VDX2\n"
                            "Creating index of 0 blocks\n"
                            "Duration:\t-1\tseconds\n"
                            "Done\n");
}

}  // namespace
}  // namespace Veldrin::Testing
