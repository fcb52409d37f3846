#ifndef VELDRIN_BENCH_BENCH_SUPPORT_H
#define VELDRIN_BENCH_BENCH_SUPPORT_H

// What the benchmark programs share: streams held in memory, fed to the chain as the tool feeds
// it, and an index writer that only counts.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

#include "indexgen/captured_packet.h"
#include "indexgen/index_writer.h"
#include "transport/pipeline.h"

namespace Veldrin::Bench {

// The tool's chunk size, and the size that a small fixture is repeated to.
constexpr size_t CHUNK_SIZE = 65536;
constexpr size_t STREAM_SIZE = 256u << 20;

// The count of iterations run, which is never negative, for products with sizes.
inline uint64_t iterations(const benchmark::State& state) {
  return static_cast<uint64_t>(state.iterations());
}

// The bytes of a file; empty when it can't be read.
inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The whole packets of a file.
inline std::string whole_packets(const std::string& path) {
  std::string bytes = read_file(path);
  bytes.resize(bytes.size() / 188 * 188);
  return bytes;
}

// The whole packets of a file, repeated up to size bytes; empty when the file has none.
inline std::string repeated_packets(const std::string& path, size_t size = STREAM_SIZE) {
  const std::string one = whole_packets(path);
  std::string all;
  if (one.empty()) return all;
  all.reserve(size);
  while (all.size() + one.size() <= size) all += one;
  return all;
}

// Feeds the bytes to the pipeline in the tool's chunks.
inline void feed(IndexGen::TSPipeline& pipeline, const std::string& bytes) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  for (size_t at = 0; at < bytes.size(); at += CHUNK_SIZE) {
    const size_t count = bytes.size() - at < CHUNK_SIZE ? bytes.size() - at : CHUNK_SIZE;
    pipeline.read(data + at, static_cast<int32_t>(count));
  }
}

// An index writer that counts what it is given and keeps none of it.
class CountingWriter : public IndexGen::IndexWriter {
 public:
  void set_tables(const std::string& packets) override { table_bytes += packets.size(); }
  void set_frame_preamble(const std::string& packets) override { preamble_bytes += packets.size(); }
  void add_packet(IndexGen::CapturedPacket& captured) override {
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

}  // namespace Veldrin::Bench

#endif
