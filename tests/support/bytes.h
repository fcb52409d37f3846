#ifndef VDX_TESTS_SUPPORT_BYTES_H
#define VDX_TESTS_SUPPORT_BYTES_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

namespace Veldrin::Testing {

// The whole file, or an empty string if it can't be read.
inline std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Network-order numbers at a place in a string of bytes; at() throws past the end.
inline uint32_t be32(const std::string& s, size_t at) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; i++) v = (v << 8) | static_cast<unsigned char>(s.at(at + i));
  return v;
}

inline uint64_t be64(const std::string& s, size_t at) {
  return (static_cast<uint64_t>(be32(s, at)) << 32) | be32(s, at + 4);
}

}  // namespace Veldrin::Testing

#endif
