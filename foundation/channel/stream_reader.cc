#include "foundation/channel/stream_reader.h"

#include <limits>

namespace Korvix::Channel {

size_t StreamReader::basic_read(unsigned char* data, size_t count) {
  // End of file alone doesn't count as failed: a short read sets failbit, so the call after it
  // is the one that reports "Stream failed".
  if (stream.fail()) throw Error(1, "Stream failed");
  std::streamsize want = count > static_cast<size_t>(std::numeric_limits<std::streamsize>::max())
                             ? std::numeric_limits<std::streamsize>::max()
                             : static_cast<std::streamsize>(count);
  if (data == nullptr)
    stream.ignore(want);
  else
    stream.read(reinterpret_cast<char*>(data), want);
  size_t got = static_cast<size_t>(stream.gcount());
  offset += got;
  return got;
}

void StreamReader::rewind(uint64_t count) {
  if (offset < count) throw Error(1, "Rewound too far");
  offset -= count;
  stream.seekg(-static_cast<std::streamoff>(count), std::ios::cur);
  if (stream.fail()) throw Error(2, "Can't rewind");
}

}  // namespace Korvix::Channel
