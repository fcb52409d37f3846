#include "e2e/vdx_file.h"

#include "e2e/streams.h"

namespace Veldrin::Testing {

namespace {
constexpr size_t PAGE = 4096;
constexpr uint32_t BLOCK_MAGIC = 0x4D545351;

size_t round_up(size_t n) {
  return (n + PAGE - 1) / PAGE * PAGE;
}
}  // namespace

std::vector<VdxBlock> parse_vdx_blocks(const std::string& bytes, size_t start, bool& ok) {
  std::vector<VdxBlock> blocks;
  ok = false;
  size_t at = start;
  while (at + 22 <= bytes.size()) {
    if (read_be32(bytes, at) != BLOCK_MAGIC) return blocks;
    VdxBlock block;
    block.position = at;
    block.size = read_be32(bytes, at + 4);
    block.npt = read_be32(bytes, at + 8);
    block.offset = read_be64(bytes, at + 12);
    block.forward = static_cast<uint8_t>(bytes[at + 20]);
    block.backward = static_cast<uint8_t>(bytes[at + 21]);
    size_t link = at + 22;
    if (link + 4 * (size_t{block.forward} + block.backward) > at + PAGE) return blocks;
    for (int i = 0; i < block.forward; i++, link += 4)
      block.forward_sizes.push_back(read_be32(bytes, link));
    for (int i = 0; i < block.backward; i++, link += 4)
      block.backward_sizes.push_back(read_be32(bytes, link));
    if (at + PAGE + block.size > bytes.size()) return blocks;
    block.data = bytes.substr(at + PAGE, block.size);
    blocks.push_back(block);
    at += PAGE + round_up(block.size);
  }
  ok = at == bytes.size();
  return blocks;
}

VdxFile parse_vdx(const std::string& bytes) {
  VdxFile file;
  if (bytes.size() < 24) return file;
  file.magic = read_be32(bytes, 0);
  file.header_size = read_be32(bytes, 4);
  file.version = read_be32(bytes, 8);
  file.block_count = read_be32(bytes, 12);
  file.precision = read_be32(bytes, 16);
  file.entry_count = read_be32(bytes, 20);
  if (file.magic != 0x56445846 || file.header_size > bytes.size() ||
      24 + 16 * static_cast<uint64_t>(file.entry_count) > file.header_size)
    return file;
  for (uint32_t i = 0; i < file.entry_count; i++) {
    size_t at = 24 + 16 * static_cast<size_t>(i);
    file.table.push_back(
        {read_be32(bytes, at), read_be32(bytes, at + 4), read_be64(bytes, at + 8)});
  }
  bool ok = false;
  file.blocks = parse_vdx_blocks(bytes, file.header_size, ok);
  file.valid = ok;
  return file;
}

}  // namespace Veldrin::Testing
