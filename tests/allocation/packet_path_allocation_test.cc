// The packet path in steady state allocates nothing per packet: the whole chain from the packet
// reader through the generator and its parser to the VDX2 writer runs over recordings while
// every call of the global operator new is counted.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
// With external frames the frames' packets go to a file of their own and the index gets a
// block only for each new time; inline, every packet of a frame becomes a block of the index.
Counts index_counting(const std::vector<unsigned char>& stream, bool external_frames) {
  const std::string path = testing::TempDir() + "allocation_test.vdx2";
  const std::string frames = testing::TempDir() + "allocation_test.frames";
  Index2::IndexWriter writer(external_frames ? Index2::FLAG_EXTERNAL_FRAMES : 0,
                             Index2::DEFAULT_BLOCK_SIZE);
  EXPECT_TRUE(writer.open(path, false, frames));
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
  std::remove(frames.c_str());
  return counts;
}

class PacketPathAllocation : public testing::TestWithParam<const char*> {};

// The frames' packets go to the frame file: reading, parsing, holding, capturing and writing
// them takes no heap. What allocates is once a frame (its first packet, edited, goes inline into
// a block of the index) and once a table (a PAT or PMT read again): in these short recordings a
// frame is some forty packets and the tables come every few frames, so fewer than one
// allocation in four packets. An allocation for every packet or every record gives more than one
// a packet.
TEST_P(PacketPathAllocation, SecondHalfOfARecordingAllocatesFarLessThanOncePerPacket) {
  const std::vector<unsigned char> stream = read_fixture(GetParam());
  ASSERT_GT(stream.size(), 300000u);
  const Counts counts = index_counting(stream, true);
  EXPECT_GT(counts.blocks, 0);
  ASSERT_GT(counts.packets, 800u);
  EXPECT_LT(counts.allocations * 4, counts.packets)
      << counts.allocations << " allocations over " << counts.packets << " packets";
}

// Inline, each packet of a frame is kept in a block of the index, whose bytes are its own: that
// is the index growing, not the packet path, and stays well under one allocation a packet.
TEST_P(PacketPathAllocation, InlineFramesAllocateOnlyForTheirBlocks) {
  const std::vector<unsigned char> stream = read_fixture(GetParam());
  const Counts counts = index_counting(stream, false);
  ASSERT_GT(counts.packets, 800u);
  EXPECT_LT(counts.allocations * 4, counts.packets * 3)
      << counts.allocations << " allocations over " << counts.packets << " packets";
}

// Packets that are neither tables nor video, as audio and stuffing are, take no heap at all on
// their way through the reader and the generator.
TEST(PacketPathAllocation, PacketsOfOtherPidsAllocateNothing) {
  const std::vector<unsigned char> stream = read_fixture("h264_aud.ts");
  const std::string path = testing::TempDir() + "allocation_test_others.vdx2";
  Index2::IndexWriter writer(0, Index2::DEFAULT_BLOCK_SIZE);
  ASSERT_TRUE(writer.open(path, false, ""));
  std::ostringstream dump;
  IndexGenerator generator(&writer, true, false, false, false, false, 0, dump);
  TSPipeline pipeline(0);
  pipeline.attach(&generator);
  pipeline.read(stream.data(), static_cast<int32_t>(stream.size()));

  std::vector<unsigned char> others;
  for (uint32_t n = 0; n < 4000; ++n) {
    unsigned char packet[188];
    std::memset(packet, 0xFF, sizeof packet);
    const uint16_t pid = n % 2 == 0 ? 0x1FFF : 0x0777;  // stuffing, and a PID no table names
    packet[0] = 0x47;
    packet[1] = static_cast<unsigned char>(pid >> 8);
    packet[2] = static_cast<unsigned char>(pid & 0xFF);
    packet[3] = static_cast<unsigned char>(0x10 | (n / 2) % 16);
    others.insert(others.end(), packet, packet + sizeof packet);
  }
  constexpr size_t CHUNK = 64 * 188 + 100;  // chunks that cut packets
  // The first thousand let the reader's carry-over buffer reach its size.
  const size_t warm = 1000 * 188;
  pipeline.read(others.data(), static_cast<int32_t>(warm));
  const size_t before = allocations.load();
  for (size_t at = warm; at < others.size(); at += CHUNK) {
    const size_t size = std::min(CHUNK, others.size() - at);
    pipeline.read(others.data() + at, static_cast<int32_t>(size));
  }
  EXPECT_EQ(allocations.load() - before, 0u);
  writer.close();
  std::remove(path.c_str());
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
