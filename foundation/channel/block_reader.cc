#include "foundation/channel/block_reader.h"

namespace Korvix::Channel {

void BlockReader::skip(uint64_t count) {
  // Written so that it cannot wrap: a huge count never steps the reader back.
  if (count > length - offset) throw Error(1, "Skip beyond end of block");
  data += count;
  offset += count;
}

void BlockReader::rewind(uint64_t count) {
  if (offset < count) throw Error(1, "Rewound too far");
  data -= count;
  offset -= count;
}

}  // namespace Korvix::Channel
