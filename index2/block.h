#ifndef VELDRIN_INDEX2_BLOCK_H
#define VELDRIN_INDEX2_BLOCK_H

#include <cstdint>
#include <ostream>
#include <string>

#include "foundation/channel/reader.h"
#include "foundation/channel/writer.h"

namespace Veldrin::Index2 {

constexpr uint32_t VDX2_MAGIC = 0x56445832;  // "VDX2"
constexpr uint32_t BLOCK_HEADER_SIZE = 36;   // fixed fields ahead of a block's data
constexpr uint32_t MIN_BLOCK_SIZE = 16;
constexpr uint32_t DEFAULT_BLOCK_SIZE = 256;

// File flags.
constexpr uint32_t FLAG_EXTERNAL_FRAMES = 1;

// Block flags.
constexpr uint32_t FLAG_NEW_NPT = 1;
constexpr uint32_t FLAG_INTRA = 2;
constexpr uint32_t FLAG_REF = 4;
constexpr uint32_t FLAG_VIDEO_START = 8;

// The file header, padded to one block.
struct Header {
  void write(Korvix::Channel::Writer& writer) const;
  void read(Korvix::Channel::Reader& reader);
  void dump(std::ostream& stream) const;

  uint32_t flags = 0;
  uint32_t block_size = DEFAULT_BLOCK_SIZE;
};

// One fixed-size block; size is the block size of the file and must be set before use.
struct Block {
  void write(Korvix::Channel::Writer& writer) const;
  void read(Korvix::Channel::Reader& reader);
  void write_multiple(Korvix::Channel::Writer& writer) const;
  void read_multiple(Korvix::Channel::Reader& reader);
  void dump(std::ostream& stream, bool show_inline) const;

  uint32_t size = DEFAULT_BLOCK_SIZE;
  uint64_t offset = 0;
  double npt = 0.0;  // seconds; stored as milliseconds
  uint32_t flags = 0;
  uint16_t count = 0;
  uint16_t index = 0;
  uint32_t ref_length = 0;
  uint64_t ref_offset = 0;
  std::string data;
};

}  // namespace Veldrin::Index2

#endif
