// Throughput of the whole indexing chain on MPEG-2: a large stream in memory fed in the tool's
// chunks of 65,536 bytes through TSPipeline into the IndexGenerator, with a writer that only
// counts, and with the VDX2 writer on a scratch file.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "index2/block.h"
#include "index2/index_writer.h"
#include "indexgen/generator.h"
#include "indexgen/index_writer.h"
#include "transport/pipeline.h"

namespace {

// The count of iterations run, which is never negative, for products with sizes.
uint64_t iterations(const benchmark::State& state) {
  return static_cast<uint64_t>(state.iterations());
}

using Veldrin::IndexGen::CapturedPacket;
using Veldrin::IndexGen::IndexGenerator;
using Veldrin::IndexGen::TSPipeline;

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

class CountingWriter : public Veldrin::IndexGen::IndexWriter {
 public:
  void set_tables(const std::string& packets) override { table_bytes += packets.size(); }
  void set_frame_preamble(const std::string& packets) override { preamble_bytes += packets.size(); }
  void add_packet(CapturedPacket& captured) override {
    ++records;
    frame_bytes += captured.data.size();
  }
  void add_pcr(uint64_t, double) override { ++pcrs; }

  uint64_t table_bytes = 0;
  uint64_t preamble_bytes = 0;
  uint64_t records = 0;
  uint64_t frame_bytes = 0;
  uint64_t pcrs = 0;
};

void feed(TSPipeline& pipeline, const std::string& bytes) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  for (size_t at = 0; at < bytes.size(); at += CHUNK_SIZE) {
    size_t count = bytes.size() - at < CHUNK_SIZE ? bytes.size() - at : CHUNK_SIZE;
    pipeline.read(data + at, static_cast<int32_t>(count));
  }
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
