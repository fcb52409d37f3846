#include "foundation/channel/writer.h"

#include <cstring>

namespace Korvix::Channel {

namespace {
// Shared source of zeros for skip; read-only.
const unsigned char zeros[256] = {};
}  // namespace

void Writer::skip(uint64_t count) {
  while (count > 0) {
    size_t piece = count < sizeof(zeros) ? static_cast<size_t>(count) : sizeof(zeros);
    basic_write(zeros, piece);
    count -= piece;
  }
}

void Writer::rewind(uint64_t) { throw Error(2, "Can't rewind"); }

void Writer::write(const std::string& text) {
  basic_write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

void Writer::write(const char* text) {
  basic_write(reinterpret_cast<const unsigned char*>(text), std::strlen(text));
}

void Writer::write_byte(uint32_t value) {
  unsigned char b = static_cast<unsigned char>(value);
  basic_write(&b, 1);
}

void Writer::write_nbo_16(uint32_t value) {
  unsigned char b[2] = {static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
  basic_write(b, 2);
}

void Writer::write_nbo_24(uint32_t value) {
  unsigned char b[3] = {static_cast<unsigned char>(value >> 16),
                        static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
  basic_write(b, 3);
}

void Writer::write_nbo_32(uint32_t value) {
  unsigned char b[4] = {static_cast<unsigned char>(value >> 24),
                        static_cast<unsigned char>(value >> 16),
                        static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
  basic_write(b, 4);
}

void Writer::write_nbo_64(uint64_t value) {
  write_nbo_32(static_cast<uint32_t>(value >> 32));
  write_nbo_32(static_cast<uint32_t>(value));
}

void Writer::write_nbo_double(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  write_nbo_64(bits);
}

void Writer::write_le_16(uint32_t value) {
  unsigned char b[2] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8)};
  basic_write(b, 2);
}

void Writer::write_le_24(uint32_t value) {
  unsigned char b[3] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                        static_cast<unsigned char>(value >> 16)};
  basic_write(b, 3);
}

void Writer::write_le_32(uint32_t value) {
  unsigned char b[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                        static_cast<unsigned char>(value >> 16),
                        static_cast<unsigned char>(value >> 24)};
  basic_write(b, 4);
}

void Writer::write_le_64(uint64_t value) {
  write_nbo_32(static_cast<uint32_t>(value));
  write_nbo_32(static_cast<uint32_t>(value >> 32));
}

void Writer::write_le_double(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  write_le_64(bits);
}

void Writer::align(uint64_t n) { skip(((offset + n - 1) / n) * n - offset); }

}  // namespace Korvix::Channel
