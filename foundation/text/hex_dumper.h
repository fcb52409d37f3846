#ifndef KORVIX_TEXT_HEX_DUMPER_H
#define KORVIX_TEXT_HEX_DUMPER_H

#include <cstdint>
#include <ostream>

namespace Korvix::Text {

// Writes bytes as lines of hexadecimal: the offset, the bytes in groups, and optionally the
// printable characters.
class HexDumper {
 public:
  HexDumper(std::ostream& stream_, int32_t width_, int32_t split_, bool ascii_)
      : stream(stream_), width(width_), split(split_), ascii(ascii_) {}

  // Leaves the stream in decimal, with no width and a blank fill. A width of 0 or below prints
  // nothing.
  void dump(const unsigned char* data, int64_t length);

  std::ostream& stream;  // not owned
  int32_t width;         // bytes a line
  int32_t split;         // bytes a group, 0 for none
  bool ascii;            // show the character column
};

}  // namespace Korvix::Text

#endif
