// Throughput of the whole indexing chain on MPEG-2: a large stream in memory fed in the tool's
// chunks of 65,536 bytes through TSPipeline into the IndexGenerator, with a writer that only
// counts, and with the VDX2 writer on a scratch file.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "bench/bench_support.h"
#include "index2/block.h"
#include "index2/index_writer.h"
#include "indexgen/generator.h"
#include "indexgen/index_writer.h"
#include "transport/pipeline.h"

namespace {

using Veldrin::Bench::CountingWriter;
using Veldrin::Bench::feed;
using Veldrin::Bench::iterations;
using Veldrin::IndexGen::IndexGenerator;
using Veldrin::IndexGen::TSPipeline;

// The MPEG-2 fixture repeated to 256 MB, whole packets only.
const std::string& stream() {
  static const std::string bytes =
      Veldrin::Bench::repeated_packets(VDX_SOURCE_DIR "/tests/fixtures/mpeg2_bframes.ts");
  return bytes;
}

void BM_Mpeg2ChainCountingWriter(benchmark::State& state) {
  const std::string& bytes = stream();
  if (bytes.empty()) {
    state.SkipWithError("fixture missing");
    return;
  }
  int32_t blocks = 0;
  uint64_t records = 0;
  for (auto _ : state) {
    CountingWriter writer;
    IndexGenerator generator(&writer, true, false, false, false, false, 0);
    TSPipeline pipeline(0);
    pipeline.attach(&generator);
    feed(pipeline, bytes);
    blocks = generator.block_count;
    records = writer.records;
    benchmark::DoNotOptimize(writer.frame_bytes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(iterations(state) * bytes.size()));
  state.counters["blocks"] = blocks;
  state.counters["records"] = static_cast<double>(records);
}

void BM_Mpeg2ChainVdx2Writer(benchmark::State& state) {
  const std::string& bytes = stream();
  if (bytes.empty()) {
    state.SkipWithError("fixture missing");
    return;
  }
  const std::string path = "/tmp/vdx-mpeg2-chain-bench.vdx2";
  int32_t blocks = 0;
  for (auto _ : state) {
    Veldrin::Index2::IndexWriter writer(0, Veldrin::Index2::DEFAULT_BLOCK_SIZE);
    if (!writer.open(path, false, "")) {
      state.SkipWithError("can't open the scratch index file");
      return;
    }
    IndexGenerator generator(&writer, true, false, false, false, false, 0);
    TSPipeline pipeline(0);
    pipeline.attach(&generator);
    feed(pipeline, bytes);
    writer.close();
    blocks = generator.block_count;
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(static_cast<int64_t>(iterations(state) * bytes.size()));
  state.counters["blocks"] = blocks;
}

BENCHMARK(BM_Mpeg2ChainCountingWriter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mpeg2ChainVdx2Writer)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
