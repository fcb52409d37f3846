// The packet path in steady state allocates nothing per packet: the whole chain from the packet
// reader through the generator and its parser to the VDX2 writer runs over recordings while
// every call of the global operator new is counted.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "index2/block.h"
#include "index2/index_writer.h"
#include "indexgen/generator.h"
#include "transport/pipeline.h"

namespace {
std::atomic<size_t> allocations{0};
}  // namespace

// The replacements pair malloc with free, as the library's own do.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }
void operator delete[](void* block, size_t) noexcept { std::free(block); }
#pragma GCC diagnostic pop

namespace Veldrin::IndexGen {
namespace {

std::vector<unsigned char> read_fixture(const std::string& name) {
  std::ifstream in(std::string(VDX_SOURCE_DIR) + "/tests/fixtures/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Counts the packets that reach the generator, so that the counting starts at a packet.
class PacketCounter : public TSPipe {
 public:
  void process(TSPacket& packet) override {
    ++packets;
    for (TSPipe* pipe : pipes) pipe->process(packet);
  }
  size_t packets = 0;
};

struct Counts {
  size_t packets = 0;      // packets of the second half
  size_t allocations = 0;  // operator new calls while they went through
  int32_t blocks = 0;
};

// Indexes the recording as the tool does, fed in chunks of 64 packets, and counts over the
// second half of its packets.
Counts index_counting(const std::vector<unsigned char>& stream) {
  const std::string path = testing::TempDir() + "allocation_test.vdx2";
  Index2::IndexWriter writer(0, Index2::DEFAULT_BLOCK_SIZE);
  EXPECT_TRUE(writer.open(path, false, ""));
  std::ostringstream dump;
  IndexGenerator generator(&writer, true, false, false, false, false, 0, dump);
  TSPipeline pipeline(0);
  PacketCounter counter;
  pipeline.attach(&counter);
  counter.attach(&generator);

  constexpr size_t CHUNK = 64 * 188;
  const size_t half = stream.size() / 188 / 2;
  Counts counts;
  size_t at = 0;
  for (; at < stream.size() && counter.packets < half; at += CHUNK) {
    const size_t size = std::min(CHUNK, stream.size() - at);
    pipeline.read(stream.data() + at, static_cast<int32_t>(size));
  }
  const size_t packets_before = counter.packets;
  const size_t allocations_before = allocations.load();
  for (; at < stream.size(); at += CHUNK) {
    const size_t size = std::min(CHUNK, stream.size() - at);
    pipeline.read(stream.data() + at, static_cast<int32_t>(size));
  }
  counts.allocations = allocations.load() - allocations_before;
  counts.packets = counter.packets - packets_before;
  counts.blocks = generator.block_count;
  writer.close();
  std::remove(path.c_str());
  return counts;
}

class PacketPathAllocation : public testing::TestWithParam<const char*> {};

// Only the packets of the frames, which go into the index inline, and the groups of the writer
// allocate: fewer than one allocation in twenty packets. Allocating for every packet, or every
// record, gives more than one per packet.
TEST_P(PacketPathAllocation, SecondHalfOfARecordingAllocatesFarLessThanOncePerPacket) {
  const std::vector<unsigned char> stream = read_fixture(GetParam());
  ASSERT_GT(stream.size(), 300000u);
  const Counts counts = index_counting(stream);
  EXPECT_GT(counts.blocks, 0);
  ASSERT_GT(counts.packets, 800u);
  EXPECT_LT(counts.allocations * 20, counts.packets)
      << counts.allocations << " allocations over " << counts.packets << " packets";
}

INSTANTIATE_TEST_SUITE_P(Recordings, PacketPathAllocation,
                         testing::Values("mpeg2_bframes.ts", "mpeg2_short_gop.ts",
                                         "h264_aud.ts", "h264_multi_slice.ts"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           std::string name = info.param;
                           return name.substr(0, name.find('.'));
                         });

// The counting itself works: a vector of bytes allocates.
TEST(PacketPathAllocation, CountingSeesAnAllocation) {
  const size_t before = allocations.load();
  auto* bytes = new std::vector<unsigned char>(1000);
  const size_t after = allocations.load();
  delete bytes;
  EXPECT_GE(after - before, 2u);
}

}  // namespace
}  // namespace Veldrin::IndexGen
