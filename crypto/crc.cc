#include "crypto/crc.h"

namespace Korvix::Crypto {

CRC::CRC(int32_t algorithm_, bool reflected_, bool invert_)
    : algorithm(algorithm_), reflected(reflected_), invert(invert_) {
  uint32_t poly = algorithm == 1 ? (reflected ? POLY_CRC32C_REFLECTED : POLY_CRC32C)
                                 : (reflected ? POLY_CRC32_REFLECTED : POLY_CRC32);
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
