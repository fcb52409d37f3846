#ifndef KORVIX_CRYPTO_CRC_H
#define KORVIX_CRYPTO_CRC_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Korvix::Crypto {

// Table-driven 32-bit CRC. With (0, false, false) it is the CRC_32 of MPEG-2 table sections.
class CRC {
 public:
  static constexpr uint32_t POLY_CRC32 = 0x04C11DB7;
  static constexpr uint32_t POLY_CRC32_REFLECTED = 0xEDB88320;
  static constexpr uint32_t POLY_CRC32C = 0x1EDC6F41;
  static constexpr uint32_t POLY_CRC32C_REFLECTED = 0x82F63B78;

  CRC(int32_t algorithm_, bool reflected_, bool invert_);

  uint32_t calculate(const unsigned char* data, size_t length) const;
  uint32_t calculate(const std::string& text) const;

  uint32_t table[256];
  int32_t algorithm;  // 0: CRC-32, 1: CRC-32C
  bool reflected;
  bool invert;
};

}  // namespace Korvix::Crypto

#endif
