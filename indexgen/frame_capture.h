#ifndef VELDRIN_INDEXGEN_FRAME_CAPTURE_H
#define VELDRIN_INDEXGEN_FRAME_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "indexgen/captured_packet.h"
#include "indexgen/index_writer.h"
#include "indexgen/parser.h"
#include "indexgen/program_tables.h"
#include "transport/held_queue.h"
#include "transport/packet.h"

namespace Veldrin::IndexGen {

// Frame capture of the video PID. Records wait in the queue until the parser has let go of them;
// then each PES packet, a group, is resolved into frame and skipped records by the parser's
// markers, its PES header repaired, and every record handed to the index writer in stream order,
// with the program tables and the frame's preamble ahead of each frame. A group goes only when
// the next PES packet has begun, so the last one never goes: there is no end of stream.
class FrameCapture {
 public:
  // dump_output receives the rebuilt frames in dump mode.
  FrameCapture(IndexWriter* writer_, const ProgramTables& programs_, bool include_tables_,
               bool dump_, bool seek_only_, std::ostream& dump_output_)
      : writer(writer_),
        programs(programs_),
        include_tables(include_tables_),
        dump(dump_),
        seek_only(seek_only_),
        dump_output(dump_output_) {}

  // Takes a packet of the video PID with its time: makes its record at the end of the queue,
  // reads its PES header at a payload unit start, has the parser mark it and hands on the group
  // that may have become complete. Gives the number of frames started.
  int32_t capture(const TSPacket& packet, double npt, Parser& parser);

  IndexWriter* writer;            // not owned
  const ProgramTables& programs;  // the tables that go ahead of each frame
  bool include_tables;
  bool dump;
  bool seek_only;
  std::ostream& dump_output;
  HeldQueue<CapturedPacket> queue;  // records never move while a parser holds them
  int32_t continuity = 0;           // of the packets rendered for the current frame
  bool in_frame = false;            // a frame's start marker has met no end marker yet
  std::string packet_bytes;         // a record's packets while the writer takes them
  std::string dump_buffer;          // the frame under way, in dump mode
  std::string tables;               // what goes ahead of a frame in the dump

 private:
  using Group = HeldQueue<CapturedPacket>::iterator;

  // Handles at most one group; gives the frames started.
  int32_t flush();
  void resolve(Group begin, Group end);
  int32_t emit(Group begin, Group end);
  void write_frame_head(CapturedPacket& record);
  std::string preamble_packets(const CapturedPacket& record);

  // Records in the queue that begin a PES packet, so that a group's end is found without a walk.
  size_t group_starts = 0;
};

}  // namespace Veldrin::IndexGen

#endif
