#ifndef VELDRIN_FUZZ_INDEX_CHAIN_H
#define VELDRIN_FUZZ_INDEX_CHAIN_H

// The indexing chain of the tool, from bytes to an index file: TSPipeline, IndexGenerator and
// one of the two index writers, with the options of a run taken from the first bytes of the
// input and the stream fed in chunks of sizes that the input chooses too.
//
// Layout of an input:
//   byte 0      option bits: 0x01 -d, 0x02 -Ix, 0x04 -S, 0x08 -T, 0x10 -c, 0x20 -n, 0x40 -s,
//               0x80 -Ib (VDX2) or -In/-Ip (VDX)
//   byte 1      log level in the low two bits (0 silent to 3 detail)
//   bytes 2-3   the PID of -c
//   bytes 4-5   VDX2: the block size of -Ib, 16 + value % 2033; VDX: the links of -In, signed
//   bytes 6-9   VDX: the precision of -Ip
//   bytes 10-17 four chunk sizes of 16 bits each, 0 standing for 65,536
//   then        the transport stream

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "index/index_writer.h"
#include "index2/block.h"
#include "index2/index_writer.h"
#include "indexgen/generator.h"
#include "tool/statistics.h"
#include "transport/pipeline.h"

namespace Veldrin::Fuzz {

constexpr size_t CHAIN_HEADER_SIZE = 18;

enum class ChainFormat { VDX2, VDX };

struct ChainOptions {
  bool dump = false;
  bool external_frames = false;
  bool seek_only = false;
  bool pcr_only = false;
  bool trim_pmt = false;
  bool include_tables = true;
  uint16_t ca_pid = 0;
  uint32_t block_size = Index2::DEFAULT_BLOCK_SIZE;
  int32_t links = 16;
  uint32_t precision = 65536;
  int32_t log_level = 0;
  std::vector<uint32_t> chunk_sizes;
};

inline ChainOptions read_chain_options(Choices& choices) {
  ChainOptions options;
  const uint8_t bits = choices.byte();
  options.dump = (bits & 0x01) != 0;
  options.external_frames = (bits & 0x02) != 0;
  options.pcr_only = (bits & 0x04) != 0;
  options.seek_only = (bits & 0x44) != 0;  // -S implies -s
  options.trim_pmt = (bits & 0x08) != 0;
  const bool ca = (bits & 0x10) != 0;
  options.include_tables = (bits & 0x20) == 0;
  const bool index_values = (bits & 0x80) != 0;
  options.log_level = choices.byte() & 3;
  const uint16_t ca_pid = choices.u16();
  if (ca) options.ca_pid = ca_pid;
  const uint16_t index_value = choices.u16();
  const uint32_t precision = choices.u32();
  if (index_values) {
    // A block size beyond a few kilobytes only makes every write slower, and one below 16 is
    // refused at open, which ends the tool before the stream is read.
    options.block_size = 16 + index_value % 2033u;
    options.links = static_cast<int16_t>(index_value);
    options.precision = precision;
  }
  for (int i = 0; i < 4; ++i) {
    uint16_t size = choices.u16();
    options.chunk_sizes.push_back(size == 0 ? 65536u : size);
  }
  choices.skip_to(CHAIN_HEADER_SIZE);
  return options;
}

// Runs one input through the chain as the tool would, to the close of the writer and the
// statistics.
inline void run_index_chain(const uint8_t* data, size_t size, ChainFormat format) {
  QuietLog& log = QuietLog::get();
  const ScratchDir& scratch = ScratchDir::get();
  Choices choices(data, size);
  const ChainOptions options = read_chain_options(choices);
  log.set_level(options.log_level);
  const uint8_t* stream = choices.rest();
  const size_t stream_size = choices.rest_size();

  std::unique_ptr<Index::IndexWriter> vdx;
  std::unique_ptr<Index2::IndexWriter> vdx2;
  IndexGen::IndexWriter* writer = nullptr;
  if (format == ChainFormat::VDX) {
    // The tool gives the size of the input file. A table entry for every few bytes of a large
    // input would make each run write megabytes, so the precision is raised to keep the table
    // at 4,096 entries at most; 0 stays 0.
    uint32_t precision = options.precision;
    if (precision != 0 && stream_size / precision > 4096) {
      precision = static_cast<uint32_t>(stream_size / 4096 + 1);
    }
    vdx = std::make_unique<Index::IndexWriter>(options.links, precision, stream_size);
    if (!vdx->open(scratch.file("index.vdx"))) std::abort();
    writer = vdx.get();
  } else {
    const uint32_t flags = options.external_frames ? Index2::FLAG_EXTERNAL_FRAMES : 0;
    vdx2 = std::make_unique<Index2::IndexWriter>(flags, options.block_size);
    if (!vdx2->open(scratch.file("index.vdx2"), false, scratch.file("index.vdf"))) std::abort();
    writer = vdx2.get();
  }

  NullBuffer discard;
  std::ostream dump_output(&discard);
  {
    IndexGen::IndexGenerator generator(writer, options.include_tables, options.dump,
                                       options.seek_only, options.pcr_only, options.trim_pmt,
                                       options.ca_pid, dump_output);
    IndexGen::TSPipeline pipeline(0);
    pipeline.attach(&generator);
    feed(pipeline, stream, stream_size, options.chunk_sizes);

    if (vdx != nullptr) vdx->close();
    if (vdx2 != nullptr) vdx2->close();

    Tool::RunStatistics statistics;
    statistics.duration = generator.time_base.duration;
    statistics.first_offset = generator.time_base.first_offset;
    statistics.last_offset = generator.time_base.last_offset;
    statistics.max_rate = generator.time_base.max_rate;
    statistics.min_rate = generator.time_base.min_rate;
    Tool::write_statistics(dump_output, statistics);
  }
}

}  // namespace Veldrin::Fuzz

#endif
