#ifndef VELDRIN_INDEX_INDEX_FILE_H
#define VELDRIN_INDEX_INDEX_FILE_H

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "foundation/channel/stream_writer.h"

namespace Veldrin::Index {

constexpr uint32_t VDX_MAGIC = 0x56445846;    // "VDXF"
constexpr uint32_t BLOCK_MAGIC = 0x4D545351;  // "MTSQ"
constexpr uint32_t VDX_VERSION = 1;
constexpr uint32_t PAGE_SIZE = 4096;
constexpr int32_t DEFAULT_LINKS = 16;
constexpr uint32_t DEFAULT_PRECISION = 65536;

// NPT as stored in the file: seconds times 1000.0, truncated, in 32 bits.
uint32_t npt_milliseconds(double seconds);
// The header with its table of entry_count entries, rounded up to whole pages.
uint64_t header_size(uint64_t entry_count);

struct IndexEntry {
  uint64_t offset = 0;    // source offset
  double npt = 0.0;       // seconds
  uint64_t position = 0;  // file position of the block; 0 until known
};

// The VDX file under construction: a zero placeholder, the blocks, then the table over the
// placeholder.
class IndexFile {
 public:
  explicit IndexFile(const std::string& filename);
  IndexFile(const IndexFile&) = delete;
  IndexFile& operator=(const IndexFile&) = delete;

  void start(uint64_t length);
  void add_block(std::string data);
  void write_block(bool force);
  void flush_blocks();
  void complete();
  // Number of table entries: the source length divided by the precision.
  uint64_t entry_count() const;

  std::string filename;
  std::ofstream stream;
  Korvix::Channel::StreamWriter writer;
  int32_t links = DEFAULT_LINKS;
  uint32_t precision = DEFAULT_PRECISION;
  uint64_t length = 0;
  std::vector<std::string> blocks;
  uint32_t blocks_written = 0;
  int32_t blocks_queued = 0;
  std::vector<IndexEntry> entries;
};

}  // namespace Veldrin::Index

#endif
