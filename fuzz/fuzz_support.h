#ifndef VELDRIN_FUZZ_FUZZ_SUPPORT_H
#define VELDRIN_FUZZ_FUZZ_SUPPORT_H

// What the fuzz targets share: a private scratch folder, a reader of the option bytes at the
// front of an input, the chunked feed of the pipeline, a log that formats every line and a
// private key.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "crypto/rsa.h"
#include "foundation/log/distributor.h"
#include "foundation/log/level_filter.h"
#include "foundation/log/stream_channel.h"
#include "transport/pipeline.h"

namespace Veldrin::Fuzz {

// A folder of this process alone, made with mkdtemp under $TMPDIR (or /tmp) at first use and
// removed with everything in it when the process ends normally. The code under test writes
// nowhere else.
class ScratchDir {
 public:
  static const ScratchDir& get() {
    static const ScratchDir dir;
    return dir;
  }
  std::string file(const std::string& name) const { return path + "/" + name; }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  std::string path;

 private:
  ScratchDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/vdx-fuzz-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) std::abort();  // nowhere to write: nothing to test
    path = name.data();
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

// One RSA private key for the whole process; made at run time, never stored.
inline const Korvix::Crypto::RSAKey& private_key() {
  static const Korvix::Crypto::RSAKey key = [] {
    Korvix::Crypto::RSAKey made(true);
    made.generate(1024, 65537);
    if (!made.valid) std::abort();
    return made;
  }();
  return key;
}

// Takes fixed-size values from the front of the input, and gives zeros once it is used up, so
// that every input, however short, makes a valid set of choices.
class Choices {
 public:
  Choices(const uint8_t* data_, size_t size_) : data(data_), size(size_) {}

  uint8_t byte() {
    if (used >= size) return 0;
    return data[used++];
  }
  uint16_t u16() {
    uint16_t high = byte();
    return static_cast<uint16_t>((high << 8) | byte());
  }
  uint32_t u32() {
    uint32_t high = u16();
    return (high << 16) | u16();
  }
  // Skips what a fixed header leaves unused, so that the rest starts at a known place.
  void skip_to(size_t position) {
    if (used < position) used = position < size ? position : size;
  }
  const uint8_t* rest() const { return data + used; }
  size_t rest_size() const { return size - used; }

 private:
  const uint8_t* data;
  size_t size;
  size_t used = 0;
};

// Feeds a stream to the head of the chain in chunks whose sizes come round in turn, as a reader
// of a pipe would deliver them. Sizes of 0 count as 1.
inline void feed(IndexGen::TSPipeline& pipeline, const uint8_t* data, size_t size,
                 const std::vector<uint32_t>& chunk_sizes) {
  size_t position = 0;
  size_t turn = 0;
  while (position < size) {
    uint32_t wanted = chunk_sizes.empty() ? 65536 : chunk_sizes[turn++ % chunk_sizes.size()];
    if (wanted == 0) wanted = 1;
    size_t count = size - position < wanted ? size - position : wanted;
    pipeline.read(data + position, static_cast<int32_t>(count));
    position += count;
  }
}

// A stream buffer that takes everything and keeps nothing.
class NullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

// Connects the log, once, to a channel that formats every message and throws the text away,
// so that the code that builds log lines runs too. The level can be changed for each input.
class QuietLog {
 public:
  static QuietLog& get() {
    static QuietLog log;
    return log;
  }
  void set_level(int32_t level) { filter.level = level; }
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

 private:
  QuietLog() : sink(&buffer), channel(sink), filter(channel, 3) {
    Korvix::Log::logger.connect(filter);
  }
  ~QuietLog() { Korvix::Log::logger.disconnect(filter); }
  NullBuffer buffer;
  std::ostream sink;
  Korvix::Log::StreamChannel channel;
  Korvix::Log::LevelFilter filter;
};

}  // namespace Veldrin::Fuzz

#endif
