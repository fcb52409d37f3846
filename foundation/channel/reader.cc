#include "foundation/channel/reader.h"

#include <cstring>

namespace Korvix::Channel {

void Reader::skip(uint64_t count) {
  // Discarding reads never touch a buffer, so the count need not fit one.
  while (count > 0) {
    size_t piece = count > (uint64_t{1} << 30) ? (size_t{1} << 30) : static_cast<size_t>(count);
    read(nullptr, piece);
    count -= piece;
  }
}

void Reader::rewind(uint64_t) { throw Error(2, "Can't rewind"); }

void Reader::read(unsigned char* data, size_t count) {
  size_t got = 0;
  while (got < count) {
    size_t n = basic_read(data ? data + got : nullptr, count - got);
    if (n == 0) throw Error(0, "EOF");
    got += n;
  }
}

void Reader::read(std::string& text, size_t count) {
  unsigned char buffer[1024];
  while (count > 0) {
    size_t want = count < sizeof(buffer) ? count : sizeof(buffer);
    size_t n = basic_read(buffer, want);
    if (n == 0) throw Error(0, "EOF in string");
    text.append(reinterpret_cast<const char*>(buffer), n);
    count -= n;
  }
}

bool Reader::try_read(unsigned char* data, size_t count) {
  size_t got = 0;
  while (got < count) {
    size_t n = basic_read(data ? data + got : nullptr, count - got);
    if (n == 0) {
      if (got == 0) return false;
      throw Error(0, "EOF");
    }
    got += n;
  }
  return true;
}

uint8_t Reader::read_byte() {
  unsigned char b;
  read(&b, 1);
  return b;
}

uint16_t Reader::read_nbo_16() {
  unsigned char b[2];
  read(b, 2);
  return static_cast<uint16_t>((b[0] << 8) | b[1]);
}

uint32_t Reader::read_nbo_24() {
  unsigned char b[3];
  read(b, 3);
  return (uint32_t{b[0]} << 16) | (uint32_t{b[1]} << 8) | b[2];
}

uint32_t Reader::read_nbo_32() {
  unsigned char b[4];
  read(b, 4);
  return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
}

uint64_t Reader::read_nbo_64() {
  uint64_t high = read_nbo_32();
  uint64_t low = read_nbo_32();
  return (high << 32) | low;
}

double Reader::read_nbo_double() {
  uint64_t bits = read_nbo_64();
  double value;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

uint16_t Reader::read_le_16() {
  unsigned char b[2];
  read(b, 2);
  return static_cast<uint16_t>((b[1] << 8) | b[0]);
}

uint32_t Reader::read_le_24() {
  unsigned char b[3];
  read(b, 3);
  return (uint32_t{b[2]} << 16) | (uint32_t{b[1]} << 8) | b[0];
}

uint32_t Reader::read_le_32() {
  unsigned char b[4];
  read(b, 4);
  return (uint32_t{b[3]} << 24) | (uint32_t{b[2]} << 16) | (uint32_t{b[1]} << 8) | b[0];
}

uint64_t Reader::read_le_64() {
  uint64_t low = read_le_32();
  uint64_t high = read_le_32();
  return (high << 32) | low;
}

double Reader::read_le_double() {
  uint64_t bits = read_le_64();
  double value;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

bool Reader::try_read_nbo_32(uint32_t& value) {
  unsigned char b[4];
  if (!try_read(b, 4)) return false;
  value = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
  return true;
}

bool Reader::try_read_le_32(uint32_t& value) {
  unsigned char b[4];
  if (!try_read(b, 4)) return false;
  value = (uint32_t{b[3]} << 24) | (uint32_t{b[2]} << 16) | (uint32_t{b[1]} << 8) | b[0];
  return true;
}

void Reader::align(uint64_t n) { skip(((offset + n - 1) / n) * n - offset); }

}  // namespace Korvix::Channel
