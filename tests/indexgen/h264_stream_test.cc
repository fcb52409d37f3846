// The H.264 parser on real streams, through the packet reader and the index generator.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "indexgen/generator.h"
#include "indexgen/h264_parser.h"
#include "support/log_capture.h"
#include "support/scratch_dir.h"
#include "transport/pipeline.h"

namespace Veldrin::IndexGen {
namespace {

using Veldrin::Testing::LogCapture;

constexpr uint16_t kVideoPid = 0x100;

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The elementary stream of a PID: packet payloads, PES headers left out.
std::string elementary_stream(const std::string& ts, uint16_t pid) {
  std::string es;
  for (size_t at = 0; at + 188 <= ts.size(); at += 188) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(ts.data()) + at;
    if (p[0] != 0x47 || (((p[1] & 0x1F) << 8) | p[2]) != pid || (p[3] & 0x10) == 0) continue;
    size_t start = 4;
    if (p[3] & 0x20) start += 1 + p[4];
    if (p[1] & 0x40) start += 9 + p[start + 8];
    if (start < 188) es.append(reinterpret_cast<const char*>(p) + start, 188 - start);
  }
  return es;
}

// The NAL unit types of an elementary stream, in order.
std::vector<int> nal_types(const std::string& es) {
  std::vector<int> types;
  for (size_t at = es.find(std::string("\0\0\1", 3)); at != std::string::npos && at + 3 < es.size();
       at = es.find(std::string("\0\0\1", 3), at + 3)) {
    types.push_back(es[at + 3] & 31);
  }
  return types;
}

// What the generator tells its writer.
class Recorder : public IndexWriter {
 public:
  struct Frame {
    std::string tables;
    std::string preamble;
    size_t packets = 0;
    bool ended = false;
  };

  void set_tables(const std::string& packets) override { tables = packets; }
  void set_frame_preamble(const std::string& packets) override { preamble = packets; }
  void add_packet(CapturedPacket& captured) override {
    ++packets;
    transcript += std::to_string(captured.packet.offset) + " " + std::to_string(captured.state) +
                  (captured.frame_start ? " start" : "") + (captured.ends_frame() ? " end" : "") +
                  " " + captured.data + "\n";
    if (captured.frame_start) {
      frames.push_back(Frame{tables, preamble, 0, false});
      tables.clear();
      preamble.clear();
    }
    if (captured.state == PACKET_FRAME && !frames.empty() && !frames.back().ended) {
      ++frames.back().packets;
      if (captured.ends_frame()) frames.back().ended = true;
    }
  }
  void add_pcr(uint64_t, double) override {}

  std::string tables;
  std::string preamble;
  std::vector<Frame> frames;
  size_t packets = 0;
  std::string transcript;  // every record as it reached the writer
};

struct Expected {
  const char* fixture;
  int idr_captures;
  int recovery_captures;
  int recovery_count;    // recovery_frame_cnt of the captured recovery points
  int recovery_seen;     // recovery points read from an SEI
  int recovery_ignored;  // of these, above the limit
  int frame_num_bits;
  bool aud;  // the stream has access unit delimiters
};

void PrintTo(const Expected& expected, std::ostream* out) {
  *out << expected.fixture;
}

struct Indexed {
  LogCapture log;
  Recorder writer;
  std::ostringstream dump;
  int32_t block_count = 0;
  int32_t frame_num_bits = -1;
  std::string source;
};

// byte_by_byte: the parser scans with its straightforward reference loop.
void index_bytes(const std::string& source, Indexed& out, bool byte_by_byte = false) {
  out.source = source;
  IndexGenerator generator(&out.writer, true, true, false, false, false, 0, out.dump);
  TSPipeline pipeline;
  pipeline.attach(&generator);
  // Packet by packet when the parser's loop is to be chosen: it is made while the PMT is read,
  // before any video packet reaches it.
  const size_t chunk = byte_by_byte ? 188 : 65536;
  for (size_t at = 0; at < out.source.size(); at += chunk) {
    size_t size = std::min<size_t>(chunk, out.source.size() - at);
    pipeline.read(reinterpret_cast<const unsigned char*>(out.source.data()) + at,
                  static_cast<int32_t>(size));
    if (byte_by_byte && generator.parser != nullptr) {
      dynamic_cast<H264Parser&>(*generator.parser).scanner.byte_by_byte = true;
    }
  }
  out.block_count = generator.block_count;
  auto* parser = dynamic_cast<H264Parser*>(generator.parser.get());
  ASSERT_NE(parser, nullptr);
  out.frame_num_bits = parser->frame_num_bits;
}

void index(const std::string& fixture, Indexed& out, bool byte_by_byte = false) {
  std::string source = read_file(std::string(VDX_SOURCE_DIR) + "/tests/fixtures/" + fixture);
  ASSERT_GE(source.size(), 188000u);
  index_bytes(source, out, byte_by_byte);
}

// A fixture with damage in the video payloads, past any PES header: bytes turned into zeros,
// ones or anything, and now and then a packet flagged as scrambled.
std::string damaged(const std::string& fixture, uint32_t seed) {
  std::string ts = read_file(std::string(VDX_SOURCE_DIR) + "/tests/fixtures/" + fixture);
  std::mt19937 random(seed);
  for (size_t at = 0; at + 188 <= ts.size(); at += 188) {
    auto* p = reinterpret_cast<unsigned char*>(ts.data()) + at;
    if ((((p[1] & 0x1F) << 8) | p[2]) != kVideoPid || (p[3] & 0x10) == 0) continue;
    size_t start = 4;
    if (p[3] & 0x20) start += 1 + p[4];
    if ((p[1] & 0x40) && start + 9 <= 188) start += 9 + p[start + 8];
    if (start >= 188) continue;
    const auto pick = random() % 40;
    if (pick == 0) {
      p[3] |= 0x80;
    } else if (pick < 8) {
      for (int k = 0; k < 3; ++k) {
        const auto kind = random() % 3;
        p[start + random() % (188 - start)] = kind == 0   ? 0
                                              : kind == 1 ? 1
                                                          : static_cast<unsigned char>(random());
      }
    }
  }
  return ts;
}

bool in_ci() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && std::string(ci) == "true";
}

bool have_ffmpeg() {
  return std::system("ffmpeg -version > /dev/null 2>&1") == 0 &&
         std::system("ffprobe -version > /dev/null 2>&1") == 0;
}

// Runs a shell command; gives what it wrote to standard output and standard error.
std::string output_of(const std::string& command) {
  std::string out;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

class H264Stream : public testing::TestWithParam<Expected> {};

TEST_P(H264Stream, DetectsTheStreamAndLogsEveryUnitItScans) {
  const Expected& e = GetParam();
  Indexed run;
  index(e.fixture, run);
  std::vector<std::string> summary = run.log.summary();
  EXPECT_EQ(std::count(summary.begin(), summary.end(), "Detected H.264 video stream on PID: 256"),
            1);
  // One line for each start code of the video PID, with its type, in order.
  std::vector<int> expected = nal_types(elementary_stream(run.source, kVideoPid));
  std::vector<int> logged;
  const std::string prefix = "H.264 unit type: ";
  for (const std::string& text : run.log.detail()) {
    if (text.rfind(prefix, 0) != 0) continue;
    // The line is the prefix, the type in lower-case hexadecimal, an optional " REF IDC", then
    // " (offset: " and decimal digits and ")".
    size_t at = prefix.size();
    size_t digits_end = text.find_first_not_of("0123456789abcdef", at);
    ASSERT_NE(digits_end, std::string::npos) << text;
    ASSERT_GT(digits_end, at) << text;
    std::string rest = text.substr(digits_end);
    if (rest.rfind(" REF IDC", 0) == 0) rest = rest.substr(8);
    ASSERT_EQ(rest.rfind(" (offset: ", 0), 0u) << text;
    rest = rest.substr(10);
    ASSERT_GE(rest.size(), 2u) << text;
    EXPECT_EQ(rest.back(), ')') << text;
    EXPECT_EQ(rest.find_first_not_of("0123456789"), rest.size() - 1) << text;
    logged.push_back(std::stoi(text.substr(at, digits_end - at), nullptr, 16));
  }
  EXPECT_EQ(logged, expected);
  EXPECT_TRUE(run.log.error().empty());
}

TEST_P(H264Stream, CapturesTheEntryPointsOfTheStream) {
  const Expected& e = GetParam();
  Indexed run;
  index(e.fixture, run);
  const int captures = e.idr_captures + e.recovery_captures;
  EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_DETAIL, "[start IDR capture (offset: "),
            static_cast<size_t>(e.idr_captures));
  EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_DETAIL, "[start RP capture (offset: "),
            static_cast<size_t>(e.recovery_captures));
  EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_DETAIL, "[start non-IDR capture"), 0u);
  EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_DETAIL, "[end capture (offset: "),
            static_cast<size_t>(captures));
  EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_DETAIL, "Recovery Point found in SEI"),
            static_cast<size_t>(e.recovery_seen));
  EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_DETAIL, "Recovery Point in "),
            static_cast<size_t>(e.recovery_seen));
  EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_SUMMARY, "Ignoring recovery point with "),
            static_cast<size_t>(e.recovery_ignored));
  if (e.recovery_captures > 0) {
    EXPECT_EQ(run.log.count(Korvix::Log::LEVEL_DETAIL,
                            "Recovery Point in " + std::to_string(e.recovery_count) + " frames"),
              static_cast<size_t>(e.recovery_seen - e.recovery_ignored));
  }
  EXPECT_EQ(run.block_count, captures);
  EXPECT_EQ(run.frame_num_bits, e.frame_num_bits);
}

TEST_P(H264Stream, EachFrameGetsTablesAndItsPreamble) {
  const Expected& e = GetParam();
  Indexed run;
  index(e.fixture, run);
  ASSERT_EQ(run.writer.frames.size(), static_cast<size_t>(e.idr_captures + e.recovery_captures));
  for (const Recorder::Frame& frame : run.writer.frames) {
    EXPECT_TRUE(frame.ended);
    EXPECT_GT(frame.packets, 0u);
    ASSERT_FALSE(frame.tables.empty());
    EXPECT_EQ(frame.tables.size() % 188, 0u);
    ASSERT_FALSE(frame.preamble.empty());
    ASSERT_EQ(frame.preamble.size() % 188, 0u);
    // The preamble packets carry one PES packet: [AUD,] SPS, PPS, then any SEI.
    std::vector<int> types = nal_types(elementary_stream(frame.preamble, kVideoPid));
    std::vector<int> head = e.aud ? std::vector<int>{9, 7, 8} : std::vector<int>{7, 8};
    ASSERT_GE(types.size(), head.size());
    EXPECT_EQ(std::vector<int>(types.data(), types.data() + head.size()), head);
    for (size_t k = head.size(); k < types.size(); ++k) EXPECT_EQ(types[k], 6) << k;
  }
}

TEST_P(H264Stream, DumpDecodesWithOneAccessUnitForEachCapturedPicture) {
  const Expected& e = GetParam();
  if (!have_ffmpeg()) {
    if (in_ci()) {
      FAIL() << "ffmpeg and ffprobe are required in CI";
    }
    GTEST_SKIP() << "ffmpeg not installed";
  }
  Indexed run;
  index(e.fixture, run);
  const Veldrin::Testing::ScratchDir dir;
  const std::string path = dir.write(e.fixture, run.dump.str());
  ASSERT_FALSE(run.dump.str().empty());
  // A frame's time stamp is its time truncated to whole seconds, so that two frames may share
  // one, which the output side of ffmpeg would complain of: it gets frame numbers instead. The
  // decoding is what is checked here.
  EXPECT_EQ(output_of("ffmpeg -nostdin -v error -i '" + path +
                      "' -vf setpts=N -fps_mode passthrough -f null -"),
            "");
  // One access unit for each picture captured; ffmpeg's parser splits them. Pictures after a
  // recovery point that lack their references aren't shown by the decoder, so access units are
  // counted, not decoded frames.
  const int pictures = e.idr_captures + e.recovery_captures * (e.recovery_count + 1);
  std::string count = output_of(
      "ffprobe -v error -select_streams v -count_packets -show_entries "
      "stream=nb_read_packets -of csv=p=0 '" +
      path + "'");
  // The stream is listed twice, under its program and on its own.
  EXPECT_EQ(count.substr(0, count.find('\n')), std::to_string(pictures)) << count;
  // Every frame brings its own SPS and PPS.
  std::vector<int> types = nal_types(elementary_stream(run.dump.str(), kVideoPid));
  EXPECT_EQ(std::count(types.begin(), types.end(), 7), e.idr_captures + e.recovery_captures);
  EXPECT_EQ(std::count(types.begin(), types.end(), 8), e.idr_captures + e.recovery_captures);
}

TEST_P(H264Stream, FastScanGivesTheSameIndexAsTheByteByByteScan) {
  // One run at a time, so that each catches its own log lines alone.
  struct Result {
    std::string transcript;
    std::string dump;
    std::vector<int32_t> levels;
    std::vector<std::string> lines;
  };
  auto result_of = [](const char* fixture, bool byte_by_byte) {
    Indexed run;
    index(fixture, run, byte_by_byte);
    return Result{run.writer.transcript, run.dump.str(), run.log.levels, run.log.lines};
  };
  Result fast = result_of(GetParam().fixture, false);
  Result reference = result_of(GetParam().fixture, true);
  EXPECT_FALSE(reference.transcript.empty());
  EXPECT_TRUE(fast.transcript == reference.transcript);
  EXPECT_TRUE(fast.dump == reference.dump);
  EXPECT_EQ(fast.lines, reference.lines);
  EXPECT_EQ(fast.levels, reference.levels);
}

TEST(H264DamagedStream, FastScanGivesTheSameIndexAsTheByteByByteScan) {
  struct Result {
    std::string transcript;
    std::string dump;
    std::vector<int32_t> levels;
    std::vector<std::string> lines;
  };
  auto result_of = [](const std::string& source, bool byte_by_byte) {
    Indexed run;
    index_bytes(source, run, byte_by_byte);
    return Result{run.writer.transcript, run.dump.str(), run.log.levels, run.log.lines};
  };
  size_t captures = 0;
  for (const char* fixture : {"h264_multi_slice.ts", "h264_no_aud_intra_refresh.ts"}) {
    for (uint32_t seed = 1; seed <= 3; ++seed) {
      std::string source = damaged(fixture, seed);
      Result fast = result_of(source, false);
      Result reference = result_of(source, true);
      EXPECT_TRUE(fast.transcript == reference.transcript) << fixture << " " << seed;
      EXPECT_TRUE(fast.dump == reference.dump) << fixture << " " << seed;
      EXPECT_EQ(fast.lines, reference.lines) << fixture << " " << seed;
      EXPECT_EQ(fast.levels, reference.levels) << fixture << " " << seed;
      for (const std::string& line : reference.lines) {
        if (line.rfind("[start ", 0) == 0) ++captures;
      }
    }
  }
  EXPECT_GT(captures, 6u);
}

// Four seconds at 25 pictures a second. Fixtures made by ffmpeg carry AUDs; the no_aud ones don't.
const Expected kStreams[] = {
    // Closed GOPs: an IDR picture every second.
    {"h264_closed_gop.ts", 4, 0, 0, 0, 0, 4, true},
    {"h264_aud.ts", 4, 0, 0, 0, 0, 4, true},
    {"h264_no_aud.ts", 4, 0, 0, 0, 0, 4, false},
    // Open GOPs: one IDR, then I pictures at recovery points of count 0.
    {"h264_open_gop.ts", 1, 3, 0, 3, 0, 4, true},
    // Intra refresh over 21 pictures: beyond the limit of 10, only the first IDR counts.
    {"h264_intra_refresh.ts", 1, 0, 0, 3, 3, 5, true},
    // Intra refresh every 8 pictures, count 7: a capture spans eight pictures and ends at the
    // slice of the next recovery point, whose headers went by inside the capture; so every
    // other recovery point starts one.
    {"h264_no_aud_intra_refresh.ts", 1, 6, 7, 6, 0, 4, false},
    // Scaling matrices: in the PPS here, and in the SPS, each list in full.
    {"h264_high_scaling.ts", 4, 0, 0, 0, 0, 4, true},
    {"h264_no_aud_sps_scaling.ts", 4, 0, 0, 0, 0, 4, false},
    // Profile 244 is read on the short path: chroma_format_idc 3 stands in for
    // log2_max_frame_num_minus4.
    {"h264_high444.ts", 4, 0, 0, 0, 0, 7, true},
    // Four slices a picture: the frame ends behind the last.
    {"h264_multi_slice.ts", 4, 0, 0, 0, 0, 4, true},
};

INSTANTIATE_TEST_SUITE_P(Fixtures, H264Stream, testing::ValuesIn(kStreams),
                         [](const testing::TestParamInfo<Expected>& info) {
                           std::string name = info.param.fixture;
                           name = name.substr(0, name.find('.'));
                           return name;
                         });

}  // namespace
}  // namespace Veldrin::IndexGen
