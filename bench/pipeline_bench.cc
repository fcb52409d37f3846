// Throughput of the head of the chain: a large stream in memory fed to TSPipeline::read in the
// tool's chunks of 65,536 bytes, with no stage behind it and with one that only counts.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

#include "transport/pipeline.h"

namespace {

// The count of iterations run, which is never negative, for products with sizes.
uint64_t iterations(const benchmark::State& state) {
  return static_cast<uint64_t>(state.iterations());
}

constexpr size_t CHUNK_SIZE = 65536;
constexpr size_t STREAM_SIZE = 256u << 20;

// The MPEG-2 fixture repeated to STREAM_SIZE bytes, whole packets only.
const std::string& stream() {
  static const std::string bytes = [] {
    std::ifstream file(VDX_SOURCE_DIR "/tests/fixtures/mpeg2_bframes.ts", std::ios::binary);
    std::string one((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    one.resize(one.size() / 188 * 188);
    std::string all;
    if (one.empty()) return all;
    all.reserve(STREAM_SIZE);
    while (all.size() + one.size() <= STREAM_SIZE) all += one;
    return all;
  }();
  return bytes;
}

class CountingStage : public Veldrin::IndexGen::TSPipe {
 public:
  void process(Veldrin::IndexGen::TSPacket& packet) override {
    ++packets;
    payload_bytes += packet.payload.size();
  }
  uint64_t packets = 0;
  uint64_t payload_bytes = 0;
};

void feed(Veldrin::IndexGen::TSPipeline& pipeline, const std::string& bytes) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  for (size_t at = 0; at < bytes.size(); at += CHUNK_SIZE) {
    size_t count = bytes.size() - at < CHUNK_SIZE ? bytes.size() - at : CHUNK_SIZE;
    pipeline.read(data + at, static_cast<int32_t>(count));
  }
}

void BM_PipelineWithoutStages(benchmark::State& state) {
  const std::string& bytes = stream();
  if (bytes.empty()) {
    state.SkipWithError("fixture missing");
    return;
  }
  for (auto _ : state) {
    Veldrin::IndexGen::TSPipeline pipeline(0);
    feed(pipeline, bytes);
    benchmark::DoNotOptimize(pipeline.offset);
  }
  state.SetBytesProcessed(static_cast<int64_t>(iterations(state) * bytes.size()));
}

void BM_PipelineWithCountingStage(benchmark::State& state) {
  const std::string& bytes = stream();
  if (bytes.empty()) {
    state.SkipWithError("fixture missing");
    return;
  }
  uint64_t packets = 0;
  for (auto _ : state) {
    Veldrin::IndexGen::TSPipeline pipeline(0);
    CountingStage counter;
    pipeline.attach(&counter);
    feed(pipeline, bytes);
    packets = counter.packets;
    benchmark::DoNotOptimize(counter.payload_bytes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(iterations(state) * bytes.size()));
  state.counters["packets"] = static_cast<double>(packets);
}

BENCHMARK(BM_PipelineWithoutStages)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PipelineWithCountingStage)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
