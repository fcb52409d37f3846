#ifndef VELDRIN_INDEX_INDEX_READER_H
#define VELDRIN_INDEX_INDEX_READER_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "foundation/channel/reader.h"

namespace Veldrin::Index {

// One entry of the table ahead of the blocks: where source position i times precision leads.
struct TableEntry {
  uint32_t block_page = 0;  // file position of the block, divided by 4096
  double npt = 0.0;         // seconds, from the stored milliseconds
  uint64_t offset = 0;      // exact source offset at or before the position
};

// One frame block with the sizes of its neighbours, nearest first.
struct FrameBlock {
  uint64_t position = 0;  // file position of the block's head
  uint32_t size = 0;      // length of the frame data
  double npt = 0.0;
  uint64_t offset = 0;  // source offset of the frame
  std::vector<uint32_t> forward;
  std::vector<uint32_t> backward;
  std::string data;
};

// Reads a VDX file front to back: the header with its table, then the blocks that the header
// counts. Fails with Korvix::Channel::Error, as the channel does on a cut file.
class IndexReader {
 public:
  // The reader must stand at the start of the file.
  explicit IndexReader(Korvix::Channel::Reader& reader_) : reader(reader_) {}

  void read_header();
  // The next block; false once all the blocks that the header counts have been read.
  bool read_block(FrameBlock& block);

  void dump_header(std::ostream& stream) const;
  // show_data adds a hex dump of the frame data.
  static void dump_block(std::ostream& stream, const FrameBlock& block, uint32_t number,
                         bool show_data);

  Korvix::Channel::Reader& reader;
  uint32_t header_size = 0;
  uint32_t version = 0;
  uint32_t blocks = 0;
  uint32_t precision = 0;
  std::vector<TableEntry> table;
  uint32_t blocks_read = 0;
};

}  // namespace Veldrin::Index

#endif
