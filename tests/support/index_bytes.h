#ifndef VDX_TESTS_SUPPORT_INDEX_BYTES_H
#define VDX_TESTS_SUPPORT_INDEX_BYTES_H

// Index files and transport packets built byte by byte from their layouts, for tests of the
// programs that read them. Nothing here uses the project's own writers.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Veldrin::Testing {

inline void put_be(std::string& out, uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

// One 188-byte transport packet without adaptation field: sync byte, PID, payload_unit_start,
// continuity counter; the payload is filled with fill.
inline std::string ts_packet(uint16_t pid, uint8_t continuity, bool unit_start = false,
                             char fill = '\x11') {
  std::string packet;
  packet += '\x47';
  put_be(packet, (unit_start ? 0x4000u : 0u) | (pid & 0x1FFFu), 2);
  packet += static_cast<char>(0x10 | (continuity & 0x0F));
  packet.append(184, fill);
  return packet;
}

// A VDX2 header of header size, flags and block size, padded to header_size.
inline std::string vdx2_header(uint32_t flags, uint32_t block_size, uint32_t header_size = 0) {
  if (header_size == 0) header_size = block_size;
  std::string out;
  put_be(out, 0x56445832, 4);
  put_be(out, header_size, 4);
  put_be(out, flags, 4);
  put_be(out, block_size, 4);
  if (header_size > 16) out.append(header_size - 16, '\0');
  return out;
}

// The fields of one VDX2 block.
struct Vdx2BlockBytes {
  uint64_t offset = 0;
  uint32_t npt_ms = 0;
  uint32_t flags = 0;
  uint16_t count = 0;
  uint16_t index = 0;
  uint32_t ref_length = 0;
  uint64_t ref_offset = 0;
  std::string data;
};

// One block of block_size bytes; data that doesn't fit is written whole all the same, as a
// damaged file would hold it.
inline std::string vdx2_block(const Vdx2BlockBytes& block, uint32_t block_size = 256) {
  std::string out;
  put_be(out, block.offset, 8);
  put_be(out, block.npt_ms, 4);
  put_be(out, block.flags, 4);
  put_be(out, block.count, 2);
  put_be(out, block.index, 2);
  put_be(out, block.ref_length, 4);
  put_be(out, block.ref_offset, 8);
  put_be(out, block.data.size(), 4);
  out += block.data;
  if (out.size() < block_size) out.append(block_size - out.size(), '\0');
  return out;
}

inline std::string vdx2_file(const std::vector<Vdx2BlockBytes>& blocks, uint32_t flags = 0,
                             uint32_t block_size = 256) {
  std::string out = vdx2_header(flags, block_size);
  for (const Vdx2BlockBytes& block : blocks) out += vdx2_block(block, block_size);
  return out;
}

// One entry of a VDX table.
struct VdxEntryBytes {
  uint32_t page = 0;
  uint32_t npt_ms = 0;
  uint64_t offset = 0;
};

// One VDX block: its head fields and links as stored, and its frame data.
struct VdxBlockBytes {
  uint32_t npt_ms = 0;
  uint64_t offset = 0;
  std::vector<uint32_t> forward;   // sizes of the next blocks, nearest first
  std::vector<uint32_t> backward;  // sizes of the previous blocks, nearest first
  std::string data;
};

constexpr uint64_t VDX_PAGE = 4096;

inline uint64_t round_to_page(uint64_t n) {
  return (n + VDX_PAGE - 1) / VDX_PAGE * VDX_PAGE;
}

// Fills the links of every block with the sizes of up to links neighbours each way, the way the
// writer stores them.
inline void link_vdx_blocks(std::vector<VdxBlockBytes>& blocks, size_t links) {
  for (size_t j = 0; j < blocks.size(); ++j) {
    blocks[j].forward.clear();
    blocks[j].backward.clear();
    for (size_t k = j + 1; k < blocks.size() && k <= j + links; ++k)
      blocks[j].forward.push_back(static_cast<uint32_t>(blocks[k].data.size()));
    for (size_t k = j; k > 0 && j - k < links; --k)
      blocks[j].backward.push_back(static_cast<uint32_t>(blocks[k - 1].data.size()));
  }
}

// File positions of the blocks of a file with entry_count table entries.
inline std::vector<uint64_t> vdx_block_positions(size_t entry_count,
                                                 const std::vector<VdxBlockBytes>& blocks) {
  std::vector<uint64_t> positions;
  uint64_t at = round_to_page(20 + 16 * entry_count);
  for (const VdxBlockBytes& block : blocks) {
    positions.push_back(at);
    at += VDX_PAGE + round_to_page(block.data.size());
  }
  return positions;
}

// A whole VDX file. The header counts the blocks given.
inline std::string vdx_file(uint32_t precision, const std::vector<VdxEntryBytes>& table,
                            const std::vector<VdxBlockBytes>& blocks, uint32_t version = 1) {
  std::string out;
  const uint64_t header_size = round_to_page(20 + 16 * table.size());
  put_be(out, 0x56445846, 4);
  put_be(out, header_size, 4);
  put_be(out, version, 4);
  put_be(out, blocks.size(), 4);
  put_be(out, precision, 4);
  put_be(out, table.size(), 4);
  for (const VdxEntryBytes& entry : table) {
    put_be(out, entry.page, 4);
    put_be(out, entry.npt_ms, 4);
    put_be(out, entry.offset, 8);
  }
  out.resize(header_size, '\0');
  for (const VdxBlockBytes& block : blocks) {
    const size_t head = out.size();
    put_be(out, 0x4D545351, 4);
    put_be(out, block.data.size(), 4);
    put_be(out, block.npt_ms, 4);
    put_be(out, block.offset, 8);
    out += static_cast<char>(block.forward.size() & 0xFF);
    out += static_cast<char>(block.backward.size() & 0xFF);
    for (uint32_t size : block.forward) put_be(out, size, 4);
    for (uint32_t size : block.backward) put_be(out, size, 4);
    out.resize(head + VDX_PAGE, '\0');
    out += block.data;
    out.resize(round_to_page(out.size()), '\0');
  }
  return out;
}

}  // namespace Veldrin::Testing

#endif
