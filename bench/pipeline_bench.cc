// Throughput of the head of the chain: a large stream in memory fed to TSPipeline::read in the
// tool's chunks of 65,536 bytes, with no stage behind it and with one that only counts.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "bench/bench_support.h"
#include "transport/pipeline.h"

namespace {

using Veldrin::Bench::feed;
using Veldrin::Bench::iterations;

// The MPEG-2 fixture repeated to 256 MB, whole packets only.
const std::string& stream() {
  static const std::string bytes =
      Veldrin::Bench::repeated_packets(VDX_SOURCE_DIR "/tests/fixtures/mpeg2_bframes.ts");
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
