#include "foundation/text/hex_dumper.h"

#include <cctype>
#include <iomanip>

namespace Korvix::Text {

void HexDumper::dump(const unsigned char* data, int64_t length) {
  if (width > 0) {
    for (int64_t line = 0; line < length; line += width) {
      int64_t count = length - line < width ? length - line : width;
      stream << std::hex << std::setfill('0') << std::setw(4) << line << ":";
      for (int64_t i = 0; i < count; ++i) {
        if (split != 0 && i % split == 0) stream << ' ';
        stream << std::setw(2) << static_cast<unsigned>(data[line + i]);
      }
      if (ascii) {
        for (int64_t i = count; i < width; ++i) {
          if (split != 0 && i % split == 0) stream << ' ';
          stream << "  ";
        }
        stream << " | ";
        for (int64_t i = 0; i < count; ++i) {
          unsigned char c = data[line + i];
          stream << (std::isprint(c) ? static_cast<char>(c) : '.');
        }
      }
      stream << '\n' << std::flush;
    }
  }
  stream << std::dec << std::setw(0) << std::setfill(' ');
}

}  // namespace Korvix::Text
