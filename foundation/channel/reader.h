#ifndef KORVIX_CHANNEL_READER_H
#define KORVIX_CHANNEL_READER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/channel/error.h"

namespace Korvix::Channel {

// Byte-order-explicit reading on top of one virtual primitive. Every multi-byte value is
// assembled byte by byte, so the host's byte order never matters.
class Reader {
 public:
  Reader() = default;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  virtual ~Reader() = default;

  // Returns how many bytes were got, 0 at end of data. A null data discards the bytes.
  virtual size_t basic_read(unsigned char* data, size_t count) = 0;
  virtual void skip(uint64_t count);
  virtual bool rewindable() { return false; }
  virtual void rewind(uint64_t count);

  void read(unsigned char* data, size_t count);
  void read(std::string& text, size_t count);
  bool try_read(unsigned char* data, size_t count);

  uint8_t read_byte();
  uint16_t read_nbo_16();
  uint32_t read_nbo_24();
  uint32_t read_nbo_32();
  uint64_t read_nbo_64();
  double read_nbo_double();
  uint16_t read_le_16();
  uint32_t read_le_24();
  uint32_t read_le_32();
  uint64_t read_le_64();
  double read_le_double();
  bool try_read_nbo_32(uint32_t& value);
  bool try_read_le_32(uint32_t& value);

  // Skips to the next multiple of n of offset; n must not be 0.
  void align(uint64_t n);

  uint64_t offset = 0;
};

}  // namespace Korvix::Channel

#endif
