// An input longer than 4 GiB, made on the fly and fed to vdxindex through standard input, so
// that nothing of its size is ever written to disk: its offsets past 2^32 must reach the index
// exactly, and the tool's memory must not grow with the length of the input.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"

extern char** environ;

namespace Veldrin::Testing {
namespace {

constexpr size_t PACKET = 188;
constexpr uint64_t FOUR_GIB = uint64_t{1} << 32;
constexpr uint32_t FLAG_INTRA = 2;
constexpr uint32_t FLAG_REF = 4;

// A recording made as long as wanted by repeating it: in each copy the PCRs, PTSs and DTSs run on
// from where the copy before left them, and the continuity counters count on, so the copies join
// into one stream that a player would take for a single long recording.
class RepeatedStream {
 public:
  // Of the PCRs of the fixture, every keep_pcr-th stays; the others become stuffing, so that the
  // index, which gets a time point for every new PCR, stays small.
  RepeatedStream(const std::string& fixture, size_t keep_pcr) : source(fixture) {
    std::map<uint16_t, uint32_t> payload_packets;
    uint64_t first_pcr = 0;
    uint64_t last_pcr = 0;
    size_t first_pcr_at = 0;
    size_t last_pcr_at = 0;
    bool seen_pcr = false;
    for (size_t at = 0; at + PACKET <= source.size(); at += PACKET) {
      const unsigned char* p = bytes(at);
      const uint16_t pid = static_cast<uint16_t>(((p[1] & 0x1F) << 8) | p[2]);
      size_t payload = 4;
      if ((p[3] & 0x20) != 0) {
        payload = 5 + size_t{p[4]};
        if (p[4] >= 7 && (p[5] & 0x10) != 0) {
          const uint64_t pcr = read_pcr(p + 6);
          if (pcr_count++ % keep_pcr == 0) {
            pcrs.push_back(at + 6);
          } else {
            unsigned char* field = reinterpret_cast<unsigned char*>(source.data()) + at + 5;
            field[0] = static_cast<unsigned char>(field[0] & ~0x10u);
            std::memset(field + 1, 0xFF, 6);
          }
          if (!seen_pcr) {
            first_pcr = pcr;
            first_pcr_at = at;
            seen_pcr = true;
          }
          last_pcr = pcr;
          last_pcr_at = at;
        }
      }
      if ((p[3] & 0x10) != 0 && pid != 0x1FFF) {
        counters.push_back(Counter{at + 3, pid});
        ++payload_packets[pid];
      }
      // Time stamps of a PES header of audio or video at the start of a payload unit.
      if ((p[1] & 0x40) != 0 && payload + 14 <= PACKET) {
        const unsigned char* pes = p + payload;
        const bool av = (pes[3] & 0xF0) == 0xE0 || (pes[3] & 0xE0) == 0xC0;
        if (pes[0] == 0 && pes[1] == 0 && pes[2] == 1 && av) {
          if ((pes[7] & 0x80) != 0) stamps.push_back(at + payload + 9);
          if ((pes[7] & 0x40) != 0 && payload + 19 <= PACKET) stamps.push_back(at + payload + 14);
        }
      }
    }
    for (Counter& counter : counters) counter.step = payload_packets[counter.pid];
    // The stream is sent at a constant rate, so the clock runs on by the time that the whole
    // copy takes at the rate between its first and last PCR.
    const double ticks_per_byte = static_cast<double>(last_pcr - first_pcr) /
                                  static_cast<double>(last_pcr_at - first_pcr_at);
    period_90khz = static_cast<uint64_t>(ticks_per_byte * static_cast<double>(size()) / 300.0);
  }

  uint64_t size() const { return source.size(); }

  // Copy number k, into out.
  void copy(uint64_t k, std::string& out) const {
    out = source;
    unsigned char* base = reinterpret_cast<unsigned char*>(out.data());
    for (const Counter& counter : counters) {
      unsigned char& byte = base[counter.at];
      const uint64_t value = uint64_t{byte & 0x0Fu} + k * counter.step;
      byte = static_cast<unsigned char>((byte & 0xF0) | (value & 0x0F));
    }
    const uint64_t shift = k * period_90khz;
    for (size_t at : pcrs) write_pcr(base + at, read_pcr(base + at) + shift * 300);
    for (size_t at : stamps) write_stamp(base + at, read_stamp(base + at) + shift);
  }

  uint64_t period_90khz = 0;  // how far the clocks run on from one copy to the next

 private:
  struct Counter {
    size_t at;  // the byte with the counter in its low four bits
    uint16_t pid;
    uint64_t step = 0;  // packets with payload of the PID in one copy
  };

  const unsigned char* bytes(size_t at) const {
    return reinterpret_cast<const unsigned char*>(source.data()) + at;
  }
  static uint64_t read_pcr(const unsigned char* p) {
    const uint64_t base = (uint64_t{p[0]} << 25) | (uint64_t{p[1]} << 17) | (uint64_t{p[2]} << 9) |
                          (uint64_t{p[3]} << 1) | static_cast<uint64_t>(p[4] >> 7);
    return base * 300 + uint64_t{((p[4] & 1u) << 8) | p[5]};
  }
  static void write_pcr(unsigned char* p, uint64_t ticks) {
    const uint64_t base = (ticks / 300) & ((uint64_t{1} << 33) - 1);
    const uint64_t extension = ticks % 300;
    p[0] = static_cast<unsigned char>(base >> 25);
    p[1] = static_cast<unsigned char>(base >> 17);
    p[2] = static_cast<unsigned char>(base >> 9);
    p[3] = static_cast<unsigned char>(base >> 1);
    p[4] = static_cast<unsigned char>(((base & 1) << 7) | 0x7E | (extension >> 8));
    p[5] = static_cast<unsigned char>(extension & 0xFF);
  }
  static uint64_t read_stamp(const unsigned char* p) {
    return (uint64_t{p[0] & 0x0Eu} << 29) | (uint64_t{p[1]} << 22) | (uint64_t{p[2] & 0xFEu} << 14) |
           (uint64_t{p[3]} << 7) | static_cast<uint64_t>(p[4] >> 1);
  }
  static void write_stamp(unsigned char* p, uint64_t ticks) {
    ticks &= (uint64_t{1} << 33) - 1;
    p[0] = static_cast<unsigned char>(uint64_t{p[0] & 0xF0u} | ((ticks >> 29) & 0x0E) | 1);
    p[1] = static_cast<unsigned char>(ticks >> 22);
    p[2] = static_cast<unsigned char>(((ticks >> 14) & 0xFE) | 1);
    p[3] = static_cast<unsigned char>(ticks >> 7);
    p[4] = static_cast<unsigned char>(((ticks << 1) & 0xFE) | 1);
  }

  std::string source;
  size_t pcr_count = 0;
  std::vector<Counter> counters;
  std::vector<size_t> pcrs;    // where each PCR field starts
  std::vector<size_t> stamps;  // where each PTS and DTS field starts
};

struct PipedRun {
  int status = -1;
  long max_rss_kb = 0;  // the child's peak resident memory
  std::string err;
};

// Runs vdxindex on standard input with the copies 0 to copies - 1 of the stream written into a
// pipe as the tool reads them.
PipedRun index_copies(const RepeatedStream& stream, uint64_t copies, const std::string& index,
                      const ScratchDir& dir) {
  PipedRun run;
  int pipe_ends[2];
  if (::pipe(pipe_ends) != 0) return run;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_ends[0], 0);
  posix_spawn_file_actions_addclose(&actions, pipe_ends[0]);
  posix_spawn_file_actions_addclose(&actions, pipe_ends[1]);
  const std::string err_file = dir.file("stderr");
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  // A sanitizer build keeps freed memory aside for a while; a small quarantine keeps its resident
  // size a measure of what the tool holds, as in the plain build.
  std::vector<std::string> environment;
  std::string asan_options = "ASAN_OPTIONS=quarantine_size_mb=16";
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, "ASAN_OPTIONS=", 13) == 0) {
      asan_options = std::string(*entry) + ":quarantine_size_mb=16";
    } else {
      environment.emplace_back(*entry);
    }
  }
  environment.push_back(asan_options);
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);

  std::string program = binary_path("vdxindex");
  std::string name = "vdxindex";
  std::string input = "-";
  std::string output = index;
  char* argv[] = {name.data(), input.data(), output.data(), nullptr};
  pid_t child = 0;
  const int spawned = posix_spawn(&child, program.c_str(), &actions, nullptr, argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe_ends[0]);
  if (spawned != 0) {
    ::close(pipe_ends[1]);
    return run;
  }

  // A tool that stops reading must fail the test, not kill it.
  std::signal(SIGPIPE, SIG_IGN);
  std::string chunk;
  bool writing = true;
  for (uint64_t k = 0; k < copies && writing; ++k) {
    stream.copy(k, chunk);
    const char* data = chunk.data();
    size_t left = chunk.size();
    while (left > 0) {
      const ssize_t written = ::write(pipe_ends[1], data, left);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        writing = false;
        break;
      }
      data += written;
      left -= static_cast<size_t>(written);
    }
  }
  ::close(pipe_ends[1]);

  int status = 0;
  struct rusage usage {};
  if (::wait4(child, &status, 0, &usage) == child && WIFEXITED(status)) {
    run.status = WEXITSTATUS(status);
  }
  run.max_rss_kb = usage.ru_maxrss;
  run.err = read_file(err_file);
  return run;
}

// The blocks of one copy: those whose source offset lies in it.
std::vector<Vdx2Block> blocks_of_copy(const Vdx2File& file, uint64_t k, uint64_t size) {
  std::vector<Vdx2Block> blocks;
  for (const Vdx2Block& block : file.blocks) {
    if (block.offset / size == k) blocks.push_back(block);
  }
  return blocks;
}

// The sanitizers' shadow memory counts in the resident size of a sanitizer build.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif
#else
constexpr bool SANITIZED = false;
#endif

TEST(LargeInput, OffsetsPastFourGibibytesReachTheIndexThroughStandardInputWithFlatMemory) {
  // One sequence header, so one intra frame, in each copy of 600,848 bytes.
  const std::string fixture = read_file(source_path("tests/fixtures/mpeg2_one_sequence_header.ts"));
  ASSERT_EQ(fixture.size(), 600848u);
  const RepeatedStream stream(fixture, 20);
  const uint64_t size = stream.size();
  // Enough copies to pass 2^32 by a few: 7,152 copies, 4,297,264,896 bytes.
  const uint64_t copies = FOUR_GIB / size + 4;
  ASSERT_GT(copies * size, FOUR_GIB);
  const uint64_t small_copies = 32;

  ScratchDir dir;
  const PipedRun small = index_copies(stream, small_copies, dir.file("small.vdx2"), dir);
  ASSERT_EQ(small.status, 0) << small.err;
  const PipedRun large = index_copies(stream, copies, dir.file("large.vdx2"), dir);
  ASSERT_EQ(large.status, 0) << large.err;
  EXPECT_NE(large.err.find("Creating index of " + std::to_string(copies) + " blocks\n"),
            std::string::npos)
      << large.err;

  RecordProperty("small_run_max_rss_kb", std::to_string(small.max_rss_kb));
  RecordProperty("large_run_max_rss_kb", std::to_string(large.max_rss_kb));
  // Memory: what 19 MB of input take is what 4 GiB take, give or take a few MB of noise, and
  // the tool stays small either way. Under the sanitizers the freed blocks waiting in the
  // quarantine (16 MB) are resident too, and a short run hasn't filled it yet.
  const long noise_kb = SANITIZED ? 32 * 1024 : 8 * 1024;
  EXPECT_LE(large.max_rss_kb, small.max_rss_kb + noise_kb)
      << "small run " << small.max_rss_kb << " kB, large run " << large.max_rss_kb << " kB";
  EXPECT_LE(large.max_rss_kb, SANITIZED ? 256 * 1024 : 32 * 1024);

  const std::string bytes = read_file(dir.file("large.vdx2"));
  // The index holds what differs and refers to the rest: a few kB per copy, not the input.
  EXPECT_LT(bytes.size(), 64u << 20);
  const Vdx2File file = parse_vdx2(bytes);
  ASSERT_TRUE(file.valid);

  // One frame starts in each copy, at the same place in every copy.
  std::vector<const Vdx2Block*> intra;
  for (const Vdx2Block& block : file.blocks) {
    if ((block.flags & FLAG_INTRA) != 0) intra.push_back(&block);
  }
  ASSERT_EQ(intra.size(), copies);
  for (uint64_t k = 0; k < copies; ++k) {
    ASSERT_EQ(intra[k]->offset, intra[0]->offset + k * size) << "copy " << k;
  }
  EXPECT_GT(intra.back()->offset, FOUR_GIB);

  // From the second copy on, the stream repeats itself exactly, and so does the index: every
  // block of the copies around 2^32 is that of the second copy moved on by whole copies, in
  // source offset, reference and time. (The last copy ends the input, and its last frame with
  // it, unfinished.)
  const std::vector<Vdx2Block> second = blocks_of_copy(file, 1, size);
  ASSERT_FALSE(second.empty());
  const double period_ms = static_cast<double>(stream.period_90khz) / 90.0;
  bool reference_past_four_gib = false;
  for (uint64_t k : {FOUR_GIB / size, FOUR_GIB / size + 1, copies - 2}) {
    const std::vector<Vdx2Block> blocks = blocks_of_copy(file, k, size);
    ASSERT_EQ(blocks.size(), second.size()) << "copy " << k;
    const uint64_t shift = (k - 1) * size;
    for (size_t i = 0; i < blocks.size(); ++i) {
      const Vdx2Block& block = blocks[i];
      const Vdx2Block& model = second[i];
      EXPECT_EQ(block.offset, model.offset + shift) << "copy " << k << " block " << i;
      EXPECT_EQ(block.flags, model.flags) << "copy " << k << " block " << i;
      EXPECT_EQ(block.count, model.count) << "copy " << k << " block " << i;
      EXPECT_EQ(block.index, model.index) << "copy " << k << " block " << i;
      EXPECT_EQ(block.ref_length, model.ref_length) << "copy " << k << " block " << i;
      if ((block.flags & FLAG_REF) != 0) {
        EXPECT_EQ(block.ref_offset, model.ref_offset + shift) << "copy " << k << " block " << i;
        if (block.ref_offset > FOUR_GIB) reference_past_four_gib = true;
      }
      const double expected_npt = model.npt + static_cast<double>(k - 1) * period_ms;
      EXPECT_NEAR(static_cast<double>(block.npt), expected_npt, 1.0)
          << "copy " << k << " block " << i;
    }
  }
  EXPECT_TRUE(reference_past_four_gib);
}

}  // namespace
}  // namespace Veldrin::Testing
