#ifndef VDX_TESTS_E2E_STREAMS_H
#define VDX_TESTS_E2E_STREAMS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Veldrin::Testing {

// One 188-byte transport packet. With a PCR (in 27 MHz ticks) it carries an adaptation field of
// 7 bytes and 176 payload bytes, else 184. The payload is filled up with 0xFF, which holds no
// sync byte.
std::string make_packet(uint16_t pid, uint8_t continuity, std::optional<uint64_t> pcr_ticks = {},
                        const std::string& payload = "");

// count packets on pid, continuity counting up, each with the PCR the function gives for its
// number (or none).
std::string make_packets(uint16_t pid, size_t count,
                         std::optional<uint64_t> (*pcr_of)(size_t index) = nullptr);

uint32_t read_be32(const std::string& bytes, size_t at);
uint64_t read_be64(const std::string& bytes, size_t at);

// A VDX2 file taken apart field by field.
struct Vdx2Block {
  uint64_t offset = 0;
  uint32_t npt = 0;  // milliseconds
  uint32_t flags = 0;
  uint16_t count = 0;
  uint16_t index = 0;
  uint32_t ref_length = 0;
  uint64_t ref_offset = 0;
  std::string data;
};

struct Vdx2File {
  bool valid = false;  // magic right and whole blocks throughout
  uint32_t header_size = 0;
  uint32_t flags = 0;
  uint32_t block_size = 0;
  std::vector<Vdx2Block> blocks;
};

Vdx2File parse_vdx2(const std::string& bytes);

}  // namespace Veldrin::Testing

#endif
