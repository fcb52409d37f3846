#include "crypto/crc.h"

#include <algorithm>
#include <array>

namespace Korvix::Crypto {

namespace {

using Table = std::array<uint32_t, 256>;

constexpr Table make_table(uint32_t poly, bool reflected) {
  Table table{};
  for (uint32_t i = 0; i < 256; i++) {
    uint32_t c;
    if (reflected) {
      c = i;
      for (int k = 0; k < 8; k++) c = (c & 1) ? (c >> 1) ^ poly : c >> 1;
    } else {
      c = i << 24;
      for (int k = 0; k < 8; k++) c = (c & 0x80000000u) ? (c << 1) ^ poly : c << 1;
    }
    table[i] = c;
  }
  return table;
}

// Worked out once, at compile time: a CRC is made for every section read or written.
constexpr Table CRC32_TABLE = make_table(CRC::POLY_CRC32, false);
constexpr Table CRC32_REFLECTED_TABLE = make_table(CRC::POLY_CRC32_REFLECTED, true);
constexpr Table CRC32C_TABLE = make_table(CRC::POLY_CRC32C, false);
constexpr Table CRC32C_REFLECTED_TABLE = make_table(CRC::POLY_CRC32C_REFLECTED, true);

}  // namespace

CRC::CRC(int32_t algorithm_, bool reflected_, bool invert_)
    : algorithm(algorithm_), reflected(reflected_), invert(invert_) {
  const Table& source = algorithm == 1 ? (reflected ? CRC32C_REFLECTED_TABLE : CRC32C_TABLE)
                                       : (reflected ? CRC32_REFLECTED_TABLE : CRC32_TABLE);
  std::copy(source.begin(), source.end(), table);
}

uint32_t CRC::calculate(const unsigned char* data, size_t length) const {
  uint32_t crc = 0xFFFFFFFFu;
  if (reflected) {
    for (size_t i = 0; i < length; i++) crc = table[(data[i] ^ crc) & 0xFF] ^ (crc >> 8);
  } else {
    for (size_t i = 0; i < length; i++) crc = table[(data[i] ^ (crc >> 24)) & 0xFF] ^ (crc << 8);
  }
  return invert ? ~crc : crc;
}

uint32_t CRC::calculate(const std::string& text) const {
  return calculate(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

}  // namespace Korvix::Crypto
