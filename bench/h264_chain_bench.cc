// Throughput of the H.264 parser alone and of the whole indexing chain on H.264, each with the
// parser's fast scan and with its byte-by-byte reference scan, beside a plain read of the same
// bytes from a file.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "indexgen/captured_packet.h"
#include "indexgen/generator.h"
#include "indexgen/h264_parser.h"
#include "indexgen/index_writer.h"
#include "transport/pipeline.h"

namespace {

using Veldrin::Bench::CHUNK_SIZE;
using Veldrin::Bench::CountingWriter;
using Veldrin::Bench::iterations;
using Veldrin::Bench::STREAM_SIZE;
using Veldrin::IndexGen::CapturedPacket;
using Veldrin::IndexGen::H264Parser;
using Veldrin::IndexGen::IndexGenerator;
using Veldrin::IndexGen::TSPacket;
using Veldrin::IndexGen::TSPipeline;

constexpr const char* FIXTURE = VDX_SOURCE_DIR "/tests/fixtures/h264_closed_gop.ts";
constexpr uint16_t VIDEO_PID = 0x100;

// The fixture repeated to STREAM_SIZE bytes, whole packets only.
const std::string& stream() {
  static const std::string bytes = Veldrin::Bench::repeated_packets(FIXTURE);
  return bytes;
}

// The records of the fixture's video packets, as the generator hands them to its parser.
std::vector<CapturedPacket>& video_records() {
  static std::vector<CapturedPacket> records = [] {
    std::vector<CapturedPacket> out;
    const std::string one = Veldrin::Bench::whole_packets(FIXTURE);
    for (size_t at = 0; at + 188 <= one.size(); at += 188) {
      const auto* p = reinterpret_cast<const unsigned char*>(one.data()) + at;
      if ((((p[1] & 0x1F) << 8) | p[2]) != VIDEO_PID || (p[3] & 0x10) == 0) continue;
      size_t start = 4;
      if (p[3] & 0x20) start += 1 + p[4];
      if (start >= 188) continue;
      TSPacket packet;
      packet.pid = VIDEO_PID;
      packet.payload_unit_start = (p[1] & 0x40) != 0;
      packet.payload.assign(p + start, p + 188);
      packet.offset = at;
      CapturedPacket record(packet);
      if (packet.payload_unit_start && packet.payload.size() > 9) {
        record.pes_header_length = 9 + packet.payload[8];
      }
      out.push_back(record);
    }
    return out;
  }();
  return records;
}

void BM_H264Parser(benchmark::State& state) {
  std::vector<CapturedPacket>& records = video_records();
  uint64_t pass_bytes = 0;
  for (const CapturedPacket& r : records) pass_bytes += r.packet.payload.size();
  if (pass_bytes == 0) {
    state.SkipWithError("fixture missing");
    return;
  }
  const size_t passes = STREAM_SIZE / pass_bytes;
  size_t markers = 0;
  for (auto _ : state) {
    H264Parser parser;
    parser.scanner.byte_by_byte = state.range(0) != 0;
    markers = 0;
    for (size_t pass = 0; pass < passes; ++pass) {
      for (CapturedPacket& r : records) {
        // Records are used again on every pass; what a parser put on them before goes.
        markers += r.markers.size();
        r.markers.clear();
        parser.parse(r);
      }
    }
    benchmark::DoNotOptimize(markers);
  }
  state.SetBytesProcessed(static_cast<int64_t>(iterations(state) * passes * pass_bytes));
  state.counters["markers"] = static_cast<double>(markers);
}

void BM_H264Chain(benchmark::State& state) {
  const std::string& bytes = stream();
  if (bytes.empty()) {
    state.SkipWithError("fixture missing");
    return;
  }
  const bool byte_by_byte = state.range(0) != 0;
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  int32_t blocks = 0;
  for (auto _ : state) {
    CountingWriter writer;
    IndexGenerator generator(&writer, true, false, false, false, false, 0);
    TSPipeline pipeline(0);
    pipeline.attach(&generator);
    size_t at = 0;
    // Packet by packet up to the PMT, where the parser is made, to choose its scan.
    while (generator.parser == nullptr && at < bytes.size()) {
      pipeline.read(data + at, 188);
      at += 188;
    }
    if (generator.parser != nullptr) {
      static_cast<H264Parser*>(generator.parser.get())->scanner.byte_by_byte = byte_by_byte;
    }
    for (; at < bytes.size(); at += CHUNK_SIZE) {
      size_t count = bytes.size() - at < CHUNK_SIZE ? bytes.size() - at : CHUNK_SIZE;
      pipeline.read(data + at, static_cast<int32_t>(count));
    }
    blocks = generator.block_count;
    benchmark::DoNotOptimize(writer.frame_bytes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(iterations(state) * bytes.size()));
  state.counters["blocks"] = blocks;
}

// The same bytes read from a file in the tool's chunks, for comparison.
void BM_ReadFile(benchmark::State& state) {
  const std::string& bytes = stream();
  const std::string path = "/tmp/vdx-h264-chain-bench.ts";
  {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  std::vector<char> buffer(CHUNK_SIZE);
  uint64_t total = 0;
  for (auto _ : state) {
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
      state.SkipWithError("can't open the scratch file");
      return;
    }
    total = 0;
    ssize_t n;
    while ((n = read(fd, buffer.data(), buffer.size())) > 0) total += static_cast<uint64_t>(n);
    close(fd);
    benchmark::DoNotOptimize(total);
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(static_cast<int64_t>(iterations(state) * total));
}

BENCHMARK(BM_H264Parser)->ArgName("byte_by_byte")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_H264Chain)->ArgName("byte_by_byte")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadFile)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
