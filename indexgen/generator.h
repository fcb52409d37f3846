#ifndef VELDRIN_INDEXGEN_GENERATOR_H
#define VELDRIN_INDEXGEN_GENERATOR_H

#include <cstdint>
#include <iostream>
#include <memory>

#include "indexgen/frame_capture.h"
#include "indexgen/index_writer.h"
#include "indexgen/parser.h"
#include "indexgen/program_tables.h"
#include "indexgen/time_base.h"
#include "transport/pipe.h"

namespace Veldrin::IndexGen {

// The last stage of the chain: keeps the time base from PCRs, follows PAT, PMT and CAT to the
// video stream, and has the frames of that stream captured and rewritten for the index writer.
class IndexGenerator : public TSPipe {
 public:
  // dump_output receives the rebuilt frames in dump mode; the tool passes standard output.
  IndexGenerator(IndexWriter* writer, bool include_tables, bool dump, bool seek_only, bool pcr_only,
                 bool trim_pmt, uint16_t ca_pid, std::ostream& dump_output = std::cout);

  void process(TSPacket& packet) override;

  IndexWriter* writer;  // not owned
  bool pcr_only;        // index the PCRs alone: no table or video work at all
  TimeBase time_base;   // duration, offsets and rates for the statistics of the run
  ProgramTables programs;
  FrameCapture frames;
  std::unique_ptr<Parser> parser;  // made when the video type becomes known
  int32_t block_count = 0;         // frames started, or PCRs indexed with pcr_only

 private:
  // True for a packet of the video stream.
  bool dispatch(const TSPacket& packet);
};

}  // namespace Veldrin::IndexGen

#endif
