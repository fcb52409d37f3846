#ifndef VELDRIN_INDEXGEN_INDEX_WRITER_H
#define VELDRIN_INDEXGEN_INDEX_WRITER_H

#include <cstdint>
#include <string>

#include "indexgen/captured_packet.h"

namespace Veldrin::IndexGen {

// What the generator tells an index format. Opening and closing belong to the concrete writer.
class IndexWriter {
 public:
  // Whole 188-byte packets of the current program tables, put ahead of each intra frame.
  virtual void set_tables(const std::string& packets) = 0;
  // Whole 188-byte packets on the video PID with the stream's headers, put after the tables.
  virtual void set_frame_preamble(const std::string& packets) = 0;
  // One record of the video PID, in stream order.
  virtual void add_packet(CapturedPacket& captured) = 0;
  // A time point that belongs to no frame.
  virtual void add_pcr(uint64_t offset, double npt) = 0;
  virtual ~IndexWriter() = default;
};

}  // namespace Veldrin::IndexGen

#endif
