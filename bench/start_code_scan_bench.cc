// The start-code scan and the packet reader on the two large recordings of bench/run.sh, held in
// memory: the payloads of the busiest PID other than the null packets' (the video) scanned as
// the parsers scan them, fast and byte by byte, and the whole recording fed to the packet reader
// in the tool's chunks. Without the recordings in /tmp (or $VDX_BENCH_DIR) an MPEG-2 fixture
// repeated to 64 MB stands in.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "transport/pipeline.h"
#include "transport/start_code_scanner.h"

namespace {

using Veldrin::IndexGen::StartCode;
using Veldrin::IndexGen::StartCodeScanner;
using Veldrin::IndexGen::TSPacket;
using Veldrin::IndexGen::TSPipe;
using Veldrin::IndexGen::TSPipeline;

using Veldrin::Bench::feed;
using Veldrin::Bench::read_file;

constexpr uint16_t NULL_PACKET_PID = 0x1FFF;

std::string recording(const char* name) {
  const char* dir = std::getenv("VDX_BENCH_DIR");
  std::string bytes = read_file(std::string(dir != nullptr ? dir : "/tmp") + "/" + name);
  if (!bytes.empty()) return bytes;
  const std::string one = read_file(VDX_SOURCE_DIR "/tests/fixtures/mpeg2_bframes.ts");
  std::string all;
  while (!one.empty() && all.size() < (64u << 20)) all += one;
  return all;
}

const std::string& stream(int which) {
  static const std::string h264 = recording("vdx-bench-h264.ts");
  static const std::string mpeg2 = recording("vdx-bench-mpeg2.ts");
  return which == 0 ? h264 : mpeg2;
}

// The payloads of every PID, one after the other, with their lengths.
class PayloadCollector : public TSPipe {
 public:
  void process(TSPacket& packet) override {
    std::vector<unsigned char>& bytes = by_pid[packet.pid];
    bytes.insert(bytes.end(), packet.payload.begin(), packet.payload.end());
    lengths[packet.pid].push_back(packet.payload.size());
  }
  std::map<uint16_t, std::vector<unsigned char>> by_pid;
  std::map<uint16_t, std::vector<size_t>> lengths;
};

struct VideoPayloads {
  std::vector<unsigned char> bytes;
  std::vector<size_t> lengths;
};

const VideoPayloads& video(int which) {
  static VideoPayloads payloads[2];
  VideoPayloads& out = payloads[which];
  if (out.bytes.empty()) {
    PayloadCollector collector;
    TSPipeline pipeline(0);
    pipeline.attach(&collector);
    feed(pipeline, stream(which));
    for (auto& [pid, bytes] : collector.by_pid) {
      // Null packets can outnumber the video in a stream of constant rate.
      if (pid == NULL_PACKET_PID) continue;
      if (bytes.size() > out.bytes.size()) {
        out.bytes = bytes;
        out.lengths = collector.lengths[pid];
      }
    }
  }
  return out;
}

void BM_StartCodeScan(benchmark::State& state) {
  const int which = static_cast<int>(state.range(0));
  // 0: the fast scan as the processor allows, 1: byte by byte, 2: the fast scan 16 places at a
  // time.
  const int64_t mode = state.range(1);
  const bool byte_by_byte = mode == 1;
  const VideoPayloads& payloads = video(which);
  uint64_t found = 0;
  for (auto _ : state) {
    StartCodeScanner scanner;
    scanner.byte_by_byte = byte_by_byte;
    if (mode == 2) scanner.wide = false;
    found = 0;
    const unsigned char* at = payloads.bytes.data();
    for (const size_t length : payloads.lengths) {
      size_t from = 0;
      for (;;) {
        const StartCode code = scanner.find(at, from, length);
        if (!code.found()) break;
        ++found;
        from = code.index + 1;
      }
      at += length;
    }
    benchmark::DoNotOptimize(found);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(payloads.bytes.size()));
  state.counters["start_codes"] = static_cast<double>(found);
  const char* scan = byte_by_byte                                           ? ", byte by byte"
                     : mode == 0 && StartCodeScanner::wide_scan_available() ? ", fast, 32 places"
                                                                            : ", fast, 16 places";
  state.SetLabel(std::string(which == 0 ? "H.264" : "MPEG-2") + scan);
}

class CountingStage : public TSPipe {
 public:
  void process(TSPacket& packet) override { payload_bytes += packet.payload.size(); }
  uint64_t payload_bytes = 0;
};

void BM_PacketReader(benchmark::State& state) {
  const int which = static_cast<int>(state.range(0));
  const std::string& bytes = stream(which);
  for (auto _ : state) {
    TSPipeline pipeline(0);
    CountingStage counter;
    pipeline.attach(&counter);
    feed(pipeline, bytes);
    benchmark::DoNotOptimize(counter.payload_bytes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(bytes.size()));
  state.SetLabel(which == 0 ? "H.264 recording" : "MPEG-2 recording");
}

BENCHMARK(BM_StartCodeScan)
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({0, 2})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({1, 2})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PacketReader)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
