// Offset synchronisation: an input and an offset file cut from one buffer, the input fed through
// SyncPipe into the index generator.
//
// Layout of an input:
//   bytes 0-3   where the buffer is cut: the input is the first (value % (rest + 1)) bytes of
//               the rest, the offset file what follows
//   byte 4      log level in the low two bits
//   bytes 5-12  four chunk sizes of 16 bits each, 0 standing for 65,536
//   then        the buffer

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "index2/index_writer.h"
#include "indexgen/generator.h"
#include "transport/pipe.h"
#include "transport/pipeline.h"
#include "transport/sync.h"

namespace Fuzz = Veldrin::Fuzz;
namespace IndexGen = Veldrin::IndexGen;
namespace Index2 = Veldrin::Index2;

namespace {

constexpr size_t HEADER_SIZE = 13;

// Between SyncPipe and the generator: every offset it hands on is that of a whole packet of the
// offset file, since the walk there goes from packet boundary to packet boundary.
class OffsetCheck : public IndexGen::TSPipe {
 public:
  explicit OffsetCheck(uint64_t file_size_) : file_size(file_size_) {}
  void process(IndexGen::TSPacket& packet) override {
    if (packet.offset % 188 != 0 || packet.offset + 188 > file_size) std::abort();
    for (IndexGen::TSPipe* pipe : pipes) pipe->process(packet);
  }
  uint64_t file_size;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::QuietLog& log = Fuzz::QuietLog::get();
  const Fuzz::ScratchDir& scratch = Fuzz::ScratchDir::get();
  Fuzz::Choices choices(data, size);
  const uint32_t cut = choices.u32();
  log.set_level(choices.byte() & 3);
  std::vector<uint32_t> chunk_sizes;
  for (int i = 0; i < 4; ++i) {
    uint16_t chunk = choices.u16();
    chunk_sizes.push_back(chunk == 0 ? 65536u : chunk);
  }
  choices.skip_to(HEADER_SIZE);
  const uint8_t* buffer = choices.rest();
  const size_t buffer_size = choices.rest_size();
  const size_t input_size = cut % (buffer_size + 1);

  const std::string offset_name = scratch.file("offsets.ts");
  {
    std::ofstream offsets(offset_name, std::ios::binary | std::ios::trunc);
    offsets.write(reinterpret_cast<const char*>(buffer + input_size),
                  static_cast<std::streamsize>(buffer_size - input_size));
    if (!offsets) std::abort();
  }

  Index2::IndexWriter writer(0, Index2::DEFAULT_BLOCK_SIZE);
  if (!writer.open(scratch.file("synced.vdx2"), false, "")) std::abort();
  Fuzz::NullBuffer discard;
  std::ostream dump_output(&discard);
  IndexGen::IndexGenerator generator(&writer, true, false, false, false, false, 0, dump_output);
  IndexGen::SyncPipe sync;
  if (!sync.open(offset_name)) std::abort();
  OffsetCheck check(buffer_size - input_size);
  IndexGen::TSPipeline pipeline(0);
  pipeline.attach(&sync);
  sync.attach(&check);
  check.attach(&generator);

  // As the tool does: a failure to synchronise ends the feed.
  try {
    Fuzz::feed(pipeline, buffer, input_size, chunk_sizes);
  } catch (const IndexGen::SyncFailureException&) {
  }
  writer.close();
  return 0;
}
