// The generator on whole MPEG-2 streams made by ffmpeg: what it finds is counted again here by a
// plain demultiplexer of the test's own, and what it dumps is read back by ffprobe and ffmpeg.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "indexgen/generator.h"
#include "indexgen/recording_writer.h"
#include "support/log_capture.h"
#include "support/scratch_dir.h"
#include "transport/pipeline.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;

Bytes read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// What a simple demultiplexer sees of the first program's MPEG-2 video.
struct Demuxed {
  unsigned pmt_pid = 0;
  unsigned video_pid = 0;
  std::vector<Bytes> pes_payloads;  // elementary stream bytes of each PES packet, in order
};

size_t payload_start(const unsigned char* packet) {
  size_t start = 4;
  if (packet[3] & 0x20) start += 1 + packet[4];
  return start;
}

Demuxed demux(const Bytes& stream) {
  Demuxed out;
  for (size_t at = 0; at + 188 <= stream.size(); at += 188) {
    const unsigned char* p = &stream[at];
    if (p[0] != 0x47) continue;
    const unsigned pid = ((p[1] & 0x1F) << 8) | p[2];
    const bool unit_start = (p[1] & 0x40) != 0;
    const size_t start = payload_start(p);
    if (start >= 188 || !(p[3] & 0x10)) continue;
    const unsigned char* payload = p + start;
    const size_t size = 188 - start;
    if (pid == 0 && unit_start && out.pmt_pid == 0) {
      // The first program of a one-section PAT.
      const unsigned char* section = payload + 1 + payload[0];
      const size_t end = 3 + ((size_t{section[1]} & 0x0F) << 8 | section[2]) - 4;
      for (size_t i = 8; i + 4 <= end; i += 4) {
        unsigned number = (section[i] << 8) | section[i + 1];
        if (number != 0) {
          out.pmt_pid = ((section[i + 2] & 0x1F) << 8) | section[i + 3];
          break;
        }
      }
    } else if (pid == out.pmt_pid && out.pmt_pid != 0 && unit_start && out.video_pid == 0) {
      const unsigned char* section = payload + 1 + payload[0];
      const size_t length = ((section[1] & 0x0F) << 8) | section[2];
      const size_t info = ((section[10] & 0x0F) << 8) | section[11];
      for (size_t i = 12 + info; i + 5 <= 3 + length - 4;) {
        const unsigned pid_of_stream = ((section[i + 1] & 0x1F) << 8) | section[i + 2];
        if (section[i] == 2) out.video_pid = pid_of_stream;
        i += 5 + ((size_t{section[i + 3]} & 0x0F) << 8 | section[i + 4]);
      }
    } else if (pid == out.video_pid && out.video_pid != 0) {
      if (unit_start) {
        const size_t header = 9 + payload[8];
        out.pes_payloads.emplace_back(payload + header, payload + size);
      } else if (!out.pes_payloads.empty()) {
        out.pes_payloads.back().insert(out.pes_payloads.back().end(), payload, payload + size);
      }
    }
  }
  return out;
}

size_t count_sequence_headers(const Bytes& es) {
  size_t count = 0;
  for (size_t i = 0; i + 4 <= es.size(); ++i) {
    if (es[i] == 0 && es[i + 1] == 0 && es[i + 2] == 1 && es[i + 3] == 0xB3) ++count;
  }
  return count;
}

std::string run_command(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "<popen failed>";
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

bool in_ci() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && std::string(ci) == "true";
}

bool have_ffmpeg() {
  return std::system("ffmpeg -version > /dev/null 2>&1") == 0 &&
         std::system("ffprobe -version > /dev/null 2>&1") == 0;
}

struct Indexed {
  VdxTest::RecordingWriter writer;
  std::ostringstream dump;
  std::vector<std::string> log;
  int32_t block_count = 0;
};

void index_stream(const Bytes& stream, Indexed& out) {
  Veldrin::Testing::LogCapture log;
  IndexGenerator generator(&out.writer, true, true, false, false, false, 0, out.dump);
  TSPipeline pipeline(0);
  pipeline.attach(&generator);
  for (size_t at = 0; at < stream.size(); at += 65536) {
    const size_t size = std::min<size_t>(65536, stream.size() - at);
    pipeline.read(stream.data() + at, static_cast<int32_t>(size));
  }
  out.block_count = generator.block_count;
  out.log = log.lines;
}

class Mpeg2Stream : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    name = GetParam();
    stream = read_file(std::string(VDX_SOURCE_DIR) + "/tests/fixtures/" + name + ".ts");
    ASSERT_GT(stream.size(), 188000u);
    ASSERT_EQ(stream[0], 0x47);
    demuxed = demux(stream);
    ASSERT_NE(demuxed.pmt_pid, 0u);
    ASSERT_NE(demuxed.video_pid, 0u);
    ASSERT_GE(demuxed.pes_payloads.size(), 2u);
    index_stream(stream, indexed);
  }

  // The frames as the writer got them: the records that start one.
  std::vector<CapturedPacket> frame_starts() const {
    std::vector<CapturedPacket> out;
    for (const CapturedPacket& record : indexed.writer.packets()) {
      if (record.frame_start) out.push_back(record);
    }
    return out;
  }

  std::string name;
  Bytes stream;
  Demuxed demuxed;
  Indexed indexed;
};

TEST_P(Mpeg2Stream, ReportsTheProgramAndTheVideoStream) {
  const std::string pmt = "PMT on PID: " + std::to_string(demuxed.pmt_pid) + " (program number: 1)";
  const std::string video =
      "Detected MPEG-2 video stream on PID: " + std::to_string(demuxed.video_pid);
  ASSERT_GE(indexed.log.size(), 2u);
  EXPECT_EQ(indexed.log[0], pmt);
  EXPECT_EQ(indexed.log[1], video);
}

TEST_P(Mpeg2Stream, MakesOneBlockForEachSequenceHeaderBeforeTheLastPesPacket) {
  size_t expected = 0;
  for (size_t i = 0; i + 1 < demuxed.pes_payloads.size(); ++i) {
    expected += count_sequence_headers(demuxed.pes_payloads[i]);
  }
  ASSERT_GT(expected, 0u);
  EXPECT_EQ(static_cast<size_t>(indexed.block_count), expected);
  EXPECT_EQ(frame_starts().size(), expected);
}

TEST_P(Mpeg2Stream, EveryFrameBeginsWithTheDiscontinuityFlagAndItsTimeAsPcr) {
  const std::vector<CapturedPacket> frames = frame_starts();
  ASSERT_FALSE(frames.empty());
  for (const CapturedPacket& frame : frames) {
    ASSERT_GE(frame.data.size(), 188u);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(frame.data.data());
    EXPECT_EQ(p[0], 0x47);
    EXPECT_EQ(((p[1] & 0x1F) << 8) | p[2], static_cast<int>(demuxed.video_pid));
    EXPECT_TRUE(p[1] & 0x40) << "unit start";
    EXPECT_EQ(p[3] & 0x0F, 0) << "counter";
    ASSERT_TRUE(p[3] & 0x20) << "adaptation field";
    ASSERT_GE(p[4], 7);
    EXPECT_TRUE(p[5] & 0x80) << "discontinuity_indicator";
    ASSERT_TRUE(p[5] & 0x10) << "PCR flag";
    const uint64_t base = (uint64_t{p[6]} << 25) | (uint64_t{p[7]} << 17) | (uint64_t{p[8]} << 9) |
                          (uint64_t{p[9]} << 1) | (p[10] >> 7);
    const uint64_t extension = ((p[10] & 1) << 8) | p[11];
    EXPECT_EQ(base * 300 + extension, static_cast<uint64_t>(frame.npt * 27000000.0));
  }
}

TEST_P(Mpeg2Stream, DumpIsAStreamOfIntraPicturesTimedByTheirNpt) {
  if (!have_ffmpeg()) {
    if (in_ci()) FAIL() << "ffmpeg and ffprobe are needed in CI";
    GTEST_SKIP() << "ffmpeg not installed";
  }
  const std::string dump = indexed.dump.str();
  ASSERT_FALSE(dump.empty());
  ASSERT_EQ(dump.size() % 188, 0u);
  const Veldrin::Testing::ScratchDir dir;
  const std::string path = dir.write(name + ".ts", dump);

  EXPECT_EQ(run_command("ffmpeg -hide_banner -nostdin -v error -i '" + path + "' -f null - 2>&1"),
            "");

  const std::string frames = run_command(
      "ffprobe -v error -select_streams v:0 -show_entries frame=pict_type,pts -of csv=p=0 '" +
      path + "' 2>&1");
  std::istringstream lines(frames);
  std::vector<std::string> rows;
  for (std::string line; std::getline(lines, line);) {
    // An empty side data section may leave a trailing separator.
    while (!line.empty() && line.back() == ',') line.pop_back();
    if (!line.empty()) rows.push_back(line);
  }
  const std::vector<CapturedPacket> starts = frame_starts();
  // Only frames that ended are dumped: all but perhaps the newest.
  size_t ended = 0;
  for (const VdxTest::RecordingWriter::Call& call : indexed.writer.calls) {
    if (call.kind == VdxTest::RecordingWriter::PACKET && call.ends_frame) ++ended;
  }
  // One picture for each block.
  ASSERT_EQ(rows.size(), ended) << frames;
  ASSERT_LE(rows.size(), starts.size());
  ASSERT_GE(rows.size() + 1, starts.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    const uint64_t ticks = static_cast<uint64_t>(starts[i].npt * 90000.0);
    EXPECT_EQ(rows[i], std::to_string(ticks) + ",I") << "frame " << i;
  }
  std::remove(path.c_str());
}

TEST_P(Mpeg2Stream, DamagedBytesStillGiveWholePacketsInStreamOrder) {
  // Every 97th byte changed, from a fixed seed: headers, tables and start codes all get hit.
  Bytes damaged = stream;
  uint32_t state = 12345;
  for (size_t i = 0; i < damaged.size(); i += 97) {
    state = state * 1103515245u + 12345u;
    damaged[i] ^= static_cast<unsigned char>(1u << ((state >> 16) % 8));
  }
  Indexed result;
  index_stream(damaged, result);
  uint64_t last_offset = 0;
  for (const CapturedPacket& record : result.writer.packets()) {
    EXPECT_GE(record.packet.offset, last_offset);
    last_offset = record.packet.offset;
    EXPECT_EQ(record.data.size() % 188, 0u);
    if (record.state == PACKET_FRAME && !record.packet.payload.empty()) {
      EXPECT_FALSE(record.data.empty());
    }
  }
  EXPECT_EQ(result.dump.str().size() % 188, 0u);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Mpeg2Stream,
                         testing::Values("mpeg2_bframes", "mpeg2_no_bframes", "mpeg2_short_gop",
                                         "mpeg2_one_sequence_header"));

}  // namespace
}  // namespace Veldrin::IndexGen
