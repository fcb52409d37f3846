#ifndef KORVIX_CHANNEL_WRITER_H
#define KORVIX_CHANNEL_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/channel/error.h"

namespace Korvix::Channel {

// Byte-order-explicit writing on top of one virtual primitive.
class Writer {
 public:
  Writer() = default;
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  virtual ~Writer() = default;

  // Writes all count bytes or throws.
  virtual void basic_write(const unsigned char* data, size_t count) = 0;
  virtual void skip(uint64_t count);
  virtual bool rewindable() { return false; }
  virtual void rewind(uint64_t count);

  void write(const unsigned char* data, size_t count) { basic_write(data, count); }
  void write(const std::string& text);
  void write(const char* text);
  void write_byte(uint32_t value);
  void write_nbo_16(uint32_t value);
  void write_nbo_24(uint32_t value);
  void write_nbo_32(uint32_t value);
  void write_nbo_64(uint64_t value);
  void write_nbo_double(double value);
  void write_le_16(uint32_t value);
  void write_le_24(uint32_t value);
  void write_le_32(uint32_t value);
  // Words in little-endian order with network-order bytes inside each word: this form is kept
  // as the library always had it, and is not the inverse of Reader::read_le_64.
  void write_le_64(uint64_t value);
  void write_le_double(double value);

  void align(uint64_t n);

  uint64_t offset = 0;
};

}  // namespace Korvix::Channel

#endif
