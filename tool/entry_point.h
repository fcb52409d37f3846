#ifndef VELDRIN_TOOL_ENTRY_POINT_H
#define VELDRIN_TOOL_ENTRY_POINT_H

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "index2/block.h"
#include "tool/index_format.h"

namespace Veldrin::Tool {

// A place where play can start: an intra frame of the index.
struct EntryPoint {
  uint64_t number = 0;    // of the entry point, from 0 in file order
  uint64_t block = 0;     // the block that starts the frame, from 0 in file order
  uint64_t position = 0;  // file position of that block in the index
  uint32_t npt_ms = 0;    // normal play time of the frame, as stored
  uint64_t offset = 0;    // source offset of the frame's first packet
  // VDX2 with external frames: where the frame's bytes start in the frame file, which is the
  // offset of the frame's first reference. A frame that went wholly inline has none there.
  bool has_frame_offset = false;
  uint64_t frame_offset = 0;
};

// The entry points of one index file, in file order.
struct EntryPoints {
  IndexFormat format = IndexFormat::VDX2;
  bool external_frames = false;  // VDX2 made with an external frame file
  std::vector<EntryPoint> points;
};

// Whether a VDX2 block starts a frame, given the block ahead of it in the file (null for the
// first). A frame starts with the first block of a group; inside a group, where the group runs
// on over a frame's end, with the block that starts the tables (INTRA), or the one that starts
// the video when it doesn't follow the tables of the same frame start (same source offset).
bool starts_frame(const Index2::Block& block, const Index2::Block* previous);

// Reads the entry points of an index, the stream standing at its start: the frame starts of a
// VDX2 file, the blocks of a VDX file. A damaged file gives the reader's Korvix::Channel::Error.
EntryPoints read_entry_points(std::istream& in, IndexFormat format);

// The entry point a player starts from for a normal play time: the last one in file order whose
// NPT is at or before seconds, or the first one when there is none. points must not be empty.
const EntryPoint& entry_point_at(const std::vector<EntryPoint>& points, double seconds);

// One line of key=value pairs: entry, block, position, npt (seconds with three decimals),
// offset, and with external frames frame_offset ("none" for a frame without one).
void write_entry_point_text(std::ostream& out, const EntryPoints& points, const EntryPoint& point);

// One JSON document: index, format, seconds (as asked), entry_points (how many), entry, block,
// position, npt_ms, offset, and with external frames frame_offset (null for none).
void write_entry_point_json(std::ostream& out, const std::string& index, const EntryPoints& points,
                            const EntryPoint& point, double seconds);

}  // namespace Veldrin::Tool

#endif
