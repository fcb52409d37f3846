#ifndef VDX_TESTS_TRANSPORT_TEST_BYTES_H
#define VDX_TESTS_TRANSPORT_TEST_BYTES_H

#include <cstdint>
#include <string>
#include <vector>

namespace VdxTest {

using Bytes = std::vector<unsigned char>;

// Bytes from text such as "00 B0 0D"; anything that isn't a hex digit separates.
inline Bytes hex(const std::string& text) {
  Bytes out;
  int high = -1;
  for (char c : text) {
    int v;
    if (c >= '0' && c <= '9') {
      v = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      v = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      v = c - 'A' + 10;
    } else {
      continue;
    }
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<unsigned char>(high * 16 + v));
      high = -1;
    }
  }
  return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

inline Bytes to_bytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

// CRC_32 of MPEG-2 sections, bit by bit: the reference the table-driven one is checked against.
inline uint32_t bitwise_crc32_mpeg(const unsigned char* data, size_t length) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < length; i++) {
    for (int bit = 7; bit >= 0; bit--) {
      uint32_t feedback = ((crc >> 31) ^ (data[i] >> bit)) & 1u;
      crc = (crc << 1) ^ (0x04C11DB7u & (0u - feedback));
    }
  }
  return crc;
}

inline Bytes crc_bytes(const Bytes& section) {
  uint32_t crc = bitwise_crc32_mpeg(section.data(), section.size());
  return Bytes{static_cast<unsigned char>(crc >> 24), static_cast<unsigned char>(crc >> 16),
               static_cast<unsigned char>(crc >> 8), static_cast<unsigned char>(crc)};
}

// A section body followed by its correct CRC.
inline Bytes with_crc(const Bytes& section) {
  return concat({section, crc_bytes(section)});
}

}  // namespace VdxTest

#endif
