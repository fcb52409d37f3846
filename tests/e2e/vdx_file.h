#ifndef VDX_TESTS_E2E_VDX_FILE_H
#define VDX_TESTS_E2E_VDX_FILE_H

#include <cstdint>
#include <string>
#include <vector>

namespace Veldrin::Testing {

// One entry of a VDX table.
struct VdxEntry {
  uint32_t page = 0;  // file position of the block / 4096
  uint32_t npt = 0;   // milliseconds
  uint64_t offset = 0;
};

// One block of a VDX file.
struct VdxBlock {
  uint64_t position = 0;  // in the file
  uint32_t size = 0;
  uint32_t npt = 0;  // milliseconds
  uint64_t offset = 0;
  uint8_t forward = 0;   // count byte as stored
  uint8_t backward = 0;  // count byte as stored
  std::vector<uint32_t> forward_sizes;
  std::vector<uint32_t> backward_sizes;
  std::string data;
};

// A VDX file taken apart field by field.
struct VdxFile {
  bool valid = false;  // magic right, and whole blocks from the header's end to the file's end
  uint32_t magic = 0;
  uint32_t header_size = 0;
  uint32_t version = 0;
  uint32_t block_count = 0;
  uint32_t precision = 0;
  uint32_t entry_count = 0;
  std::vector<VdxEntry> table;
  std::vector<VdxBlock> blocks;
};

VdxFile parse_vdx(const std::string& bytes);

// The blocks from start on, up to the end of the file or the first thing that isn't a whole
// block; ok tells whether the end of the file was reached that way.
std::vector<VdxBlock> parse_vdx_blocks(const std::string& bytes, size_t start, bool& ok);

}  // namespace Veldrin::Testing

#endif
