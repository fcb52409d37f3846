// PESReader on raw bytes: header after header through the whole input, each one read written
// again by PESWriter.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/string_writer.h"
#include "transport/pes.h"

namespace IndexGen = Veldrin::IndexGen;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Korvix::Channel::BlockReader source(data, size);
  IndexGen::PESReader reader(source);
  std::string written;
  while (source.offset < size) {
    const uint64_t start = source.offset;
    IndexGen::PESHeader header;
    int32_t payload_length = 0;
    if (reader.read_header(header, payload_length)) {
      // A header read whole never had fewer bytes than its time stamps took.
      if (header.stuffing_length < 0) std::abort();
      if (header.stream_class < 0 || header.stream_class > 2) std::abort();

      written.clear();
      Korvix::Channel::StringWriter target(written);
      IndexGen::PESWriter writer(target);
      if (!writer.write_header(header, payload_length)) std::abort();  // a string takes all

      if (payload_length > 0) {
        const uint64_t left = size - source.offset;
        const uint64_t step = static_cast<uint64_t>(payload_length);
        source.skip(step < left ? step : left);
      }
    }
    if (source.offset == start) break;  // nothing consumed: the rest can't be read
  }
  return 0;
}
