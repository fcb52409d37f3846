#include "e2e/streams.h"

namespace Veldrin::Testing {

std::string make_packet(uint16_t pid, uint8_t continuity, std::optional<uint64_t> pcr_ticks,
                        const std::string& payload) {
  std::string packet;
  packet.push_back(0x47);
  packet.push_back(static_cast<char>((pid >> 8) & 0x1F));
  packet.push_back(static_cast<char>(pid & 0xFF));
  if (pcr_ticks) {
    uint64_t base = *pcr_ticks / 300;
    uint64_t extension = *pcr_ticks % 300;
    packet.push_back(static_cast<char>(0x30 | (continuity & 0x0F)));
    packet.push_back(7);     // adaptation field length
    packet.push_back(0x10);  // PCR flag
    packet.push_back(static_cast<char>(base >> 25));
    packet.push_back(static_cast<char>(base >> 17));
    packet.push_back(static_cast<char>(base >> 9));
    packet.push_back(static_cast<char>(base >> 1));
    packet.push_back(static_cast<char>(((base & 1) << 7) | 0x7E | (extension >> 8)));
    packet.push_back(static_cast<char>(extension & 0xFF));
  } else {
    packet.push_back(static_cast<char>(0x10 | (continuity & 0x0F)));
  }
  packet += payload.substr(0, 188 - packet.size());
  packet.resize(188, '\xFF');
  return packet;
}

std::string make_packets(uint16_t pid, size_t count,
                         std::optional<uint64_t> (*pcr_of)(size_t index)) {
  std::string stream;
  stream.reserve(count * 188);
  for (size_t i = 0; i < count; ++i)
    stream += make_packet(pid, static_cast<uint8_t>(i & 0x0F),
                          pcr_of != nullptr ? pcr_of(i) : std::nullopt);
  return stream;
}

uint32_t read_be32(const std::string& bytes, size_t at) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

uint64_t read_be64(const std::string& bytes, size_t at) {
  return (static_cast<uint64_t>(read_be32(bytes, at)) << 32) | read_be32(bytes, at + 4);
}

Vdx2File parse_vdx2(const std::string& bytes) {
  Vdx2File file;
  if (bytes.size() < 16 || read_be32(bytes, 0) != 0x56445832) return file;
  file.header_size = read_be32(bytes, 4);
  file.flags = read_be32(bytes, 8);
  file.block_size = read_be32(bytes, 12);
  if (file.block_size < 36 || file.header_size > bytes.size()) return file;
  size_t at = file.header_size;
  while (at + file.block_size <= bytes.size()) {
    Vdx2Block block;
    block.offset = read_be64(bytes, at);
    block.npt = read_be32(bytes, at + 8);
    block.flags = read_be32(bytes, at + 12);
    block.count = static_cast<uint16_t>(read_be32(bytes, at + 16) >> 16);
    block.index = static_cast<uint16_t>(read_be32(bytes, at + 16) & 0xFFFF);
    block.ref_length = read_be32(bytes, at + 20);
    block.ref_offset = read_be64(bytes, at + 24);
    uint32_t length = read_be32(bytes, at + 32);
    if (length > file.block_size - 36) return file;
    block.data = bytes.substr(at + 36, length);
    file.blocks.push_back(block);
    at += file.block_size;
  }
  file.valid = at == bytes.size();
  return file;
}

}  // namespace Veldrin::Testing
