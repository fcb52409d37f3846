#include "transport/sync.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "support/scratch_dir.h"
#include "transport/pipeline.h"

namespace Veldrin::IndexGen {
namespace {

// Records what reaches the end of the chain.
class Collector : public TSPipe {
 public:
  void process(TSPacket& packet) override { packets.push_back(packet); }
  std::vector<uint64_t> offsets() const {
    std::vector<uint64_t> out;
    for (const TSPacket& packet : packets) out.push_back(packet.offset);
    return out;
  }
  std::vector<TSPacket> packets;
};

// One 188-byte packet. A non-negative pcr_ticks (27 MHz) puts a PCR in an adaptation field;
// the payload is filled with fill.
std::string make_packet(uint16_t pid, int64_t pcr_ticks = -1, unsigned char fill = 0xAA,
                        int continuity = 0) {
  std::string p;
  p.push_back(0x47);
  p.push_back(static_cast<char>((pid >> 8) & 0x1F));
  p.push_back(static_cast<char>(pid & 0xFF));
  if (pcr_ticks < 0) {
    p.push_back(static_cast<char>(0x10 | (continuity & 0x0F)));
  } else {
    p.push_back(static_cast<char>(0x30 | (continuity & 0x0F)));
    p.push_back(7);
    p.push_back(0x10);
    uint64_t base = static_cast<uint64_t>(pcr_ticks) / 300;
    uint64_t extension = static_cast<uint64_t>(pcr_ticks) % 300;
    p.push_back(static_cast<char>(base >> 25));
    p.push_back(static_cast<char>(base >> 17));
    p.push_back(static_cast<char>(base >> 9));
    p.push_back(static_cast<char>(base >> 1));
    p.push_back(static_cast<char>(((base & 1) << 7) | 0x7E | (extension >> 8)));
    p.push_back(static_cast<char>(extension & 0xFF));
  }
  p.resize(188, static_cast<char>(fill));
  return p;
}

int64_t seconds(double s) {
  return static_cast<int64_t>(s * 27000000.0);
}

// The files the tests write, in one directory removed when the tests end.
const Veldrin::Testing::ScratchDir& scratch() {
  static const Veldrin::Testing::ScratchDir dir;
  return dir;
}

std::string temp_path(const std::string& name) {
  return scratch().file(name + ".ts");
}

std::string write_temp(const std::string& name, const std::string& bytes) {
  return scratch().write(name + ".ts", bytes);
}

std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string fixture(const std::string& name) {
  return read_all(std::string(VDX_SOURCE_DIR) + "/tests/fixtures/" + name);
}

// Input through a pipeline, a SyncPipe on the offset file behind it, and a collector behind
// that. The collector `raw` beside the SyncPipe sees the offsets in the input.
struct Chain {
  explicit Chain(const std::string& offset_file, uint64_t start = 0) : pipeline(start) {
    opened = sync.open(offset_file);
    pipeline.attach(&sync);
    pipeline.attach(&raw);
    sync.attach(&synced);
  }
  // Feeds the bytes in chunks as the tool does.
  void feed(const std::string& bytes, size_t chunk = 65536) {
    for (size_t at = 0; at < bytes.size(); at += chunk) {
      size_t count = std::min(chunk, bytes.size() - at);
      pipeline.read(reinterpret_cast<const unsigned char*>(bytes.data() + at),
                    static_cast<int32_t>(count));
    }
  }

  TSPipeline pipeline;
  SyncPipe sync;
  Collector raw;
  Collector synced;
  bool opened = false;
};

uint16_t pid_of(const std::string& stream, size_t at) {
  return static_cast<uint16_t>(((static_cast<unsigned char>(stream[at + 1]) & 0x1F) << 8) |
                               static_cast<unsigned char>(stream[at + 2]));
}

// The stream without the packets of one PID, taken out packet by packet.
std::string without_pid(const std::string& stream, uint16_t pid) {
  std::string out;
  for (size_t at = 0; at + 188 <= stream.size(); at += 188) {
    if (pid_of(stream, at) != pid) out.append(stream, at, 188);
  }
  return out;
}

TEST(SyncPipe, IdenticalOffsetFileKeepsEveryOffset) {
  std::string input = make_packet(0) + make_packet(100, seconds(1.0)) + make_packet(200) +
                      make_packet(200) + make_packet(100, seconds(1.1)) + make_packet(200);
  Chain chain(write_temp("identical", input));
  ASSERT_TRUE(chain.opened);
  chain.feed(input);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 188, 376, 564, 752, 940}));
}

TEST(SyncPipe, LeadingFragmentInTheInputGivesOffsetsOneHundredLess) {
  std::string clean = make_packet(100, seconds(2.0)) + make_packet(200) + make_packet(200) +
                      make_packet(100, seconds(2.04)) + make_packet(200);
  Chain chain(write_temp("clean", clean));
  chain.feed(std::string(100, '\x11') + clean);
  ASSERT_EQ(chain.synced.packets.size(), 5u);
  for (size_t i = 0; i < 5; i++) {
    EXPECT_EQ(chain.raw.packets[i].offset, 100 + 188 * i);
    EXPECT_EQ(chain.synced.packets[i].offset, chain.raw.packets[i].offset - 100);
  }
}

TEST(SyncPipe, UnrelatedPacketsInTheOffsetFileArePassedOver) {
  std::string input = make_packet(100, seconds(1.0)) + make_packet(200) + make_packet(200) +
                      make_packet(100, seconds(1.1)) + make_packet(200);
  std::string offsets = make_packet(100, seconds(1.0)) + make_packet(300) + make_packet(200) +
                        make_packet(300) + make_packet(300) + make_packet(200) +
                        make_packet(100, seconds(1.1)) + make_packet(300) + make_packet(200);
  Chain chain(write_temp("unrelated", offsets));
  chain.feed(input);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 2 * 188, 5 * 188, 6 * 188, 8 * 188}));
}

TEST(SyncPipe, GarbageFirstByteFailsAtTheFirstPacket) {
  std::string input = make_packet(100, seconds(1.0)) + make_packet(200);
  std::string offsets = input;
  offsets[0] = 0x00;
  Chain chain(write_temp("garbage_first", offsets));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_TRUE(chain.synced.packets.empty());
}

TEST(SyncPipe, ShorterOffsetFileFailsAtTheFirstPacketBeyondItsEnd) {
  std::string input;
  for (int i = 0; i < 5; i++) input += make_packet(200, i == 0 ? seconds(1.0) : -1);
  Chain chain(write_temp("shorter", input.substr(0, 3 * 188)));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 188, 376}));
}

TEST(SyncPipe, CutOffLastPacketOfTheOffsetFileFails) {
  std::string input;
  for (int i = 0; i < 3; i++) input += make_packet(200, i == 0 ? seconds(1.0) : -1);
  Chain chain(write_temp("cut_off", input.substr(0, 2 * 188 + 100)));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_EQ(chain.synced.packets.size(), 2u);
}

TEST(SyncPipe, PidDroppedFromTheOffsetFileFails) {
  std::string input =
      make_packet(100, seconds(1.0)) + make_packet(200) + make_packet(201) + make_packet(200);
  std::string offsets = without_pid(input, 201);
  Chain chain(write_temp("dropped_pid", offsets));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 188}));
  // The walk went to the end of the offset file looking for it.
  EXPECT_EQ(chain.sync.position, offsets.size());
}

// A packet whose adaptation field claims 255 bytes: the header is read, the field skipped past
// the packet's end, and the walk goes on at the next multiple of 188 behind it.
std::string packet_with_long_adaptation_field(uint16_t pid) {
  std::string p = make_packet(pid);
  p[3] = 0x30;
  p[4] = static_cast<char>(0xFF);
  p[5] = 0x00;
  return p;
}

TEST(SyncPipe, AnAdaptationFieldLongerThanItsPacketPassesOverThePacketBehindIt) {
  std::string input = make_packet(100) + make_packet(200);
  // The PID 200 behind the first packet lies inside what its field claims: not found.
  Chain chain(write_temp("long_adaptation_field",
                         packet_with_long_adaptation_field(100) + make_packet(200)));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0}));
  // With one more packet behind it, that one is found.
  Chain again(write_temp("long_adaptation_field_then_pid_200",
                         packet_with_long_adaptation_field(100) + make_packet(300) +
                             make_packet(200)));
  again.feed(input);
  EXPECT_EQ(again.synced.offsets(), (std::vector<uint64_t>{0, 376}));
}

TEST(SyncPipe, AnAdaptationFieldLongerThanItsPacketAtTheEndOfTheFileFails) {
  std::string input = make_packet(100);
  // The field runs to byte 260 of a file of 188 + 100 bytes: the next multiple is past the end.
  std::string offsets = packet_with_long_adaptation_field(100) + std::string(100, '\x47');
  Chain chain(write_temp("long_adaptation_field_at_end", offsets));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_TRUE(chain.synced.packets.empty());
  // The same with the bytes up to 376 present is a match at 0.
  Chain whole(write_temp("long_adaptation_field_whole",
                         packet_with_long_adaptation_field(100) + std::string(188, '\x47')));
  whole.feed(input);
  EXPECT_EQ(whole.synced.offsets(), (std::vector<uint64_t>{0}));
}

TEST(SyncPipe, AHeaderCutInsideItsPcrFails) {
  std::string input = make_packet(200) + make_packet(100, seconds(1.0));
  std::string offsets = input.substr(0, 188 + 9);
  Chain chain(write_temp("cut_in_pcr", offsets));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0}));
}

TEST(SyncPipe, OffsetFileOfManyReadBlocksKeepsEveryOffset) {
  // 4,000 packets: about three of the blocks the file is read in, with packets across their
  // edges, and another PID in the offset file every seventh packet.
  std::string input;
  std::string offsets;
  std::vector<uint64_t> expected;
  for (int i = 0; i < 4000; i++) {
    const uint16_t pid = static_cast<uint16_t>(100 + i % 3);
    const std::string packet = make_packet(pid, i % 40 == 0 ? seconds(1.0 + i / 40 * 0.04) : -1,
                                           static_cast<unsigned char>(i), i & 15);
    if (i % 7 == 3) offsets += make_packet(999);
    expected.push_back(offsets.size());
    offsets += packet;
    input += packet;
  }
  ASSERT_GT(offsets.size(), 2 * SyncPipe::BLOCK_SIZE);
  Chain chain(write_temp("many_blocks", offsets));
  chain.feed(input);
  EXPECT_EQ(chain.synced.offsets(), expected);
  EXPECT_EQ(chain.sync.position, offsets.size());
}

TEST(SyncPipe, RepeatedPcrValueDoesNotEmptyTheCounts) {
  std::string input = make_packet(100, seconds(1.0)) + make_packet(200) +
                      make_packet(100, seconds(1.0)) + make_packet(200);
  Chain chain(write_temp("repeated_pcr", input));
  chain.feed(input);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 188, 376, 564}));
  EXPECT_EQ(chain.sync.input_counts, (std::map<uint16_t, uint64_t>{{100, 2}, {200, 2}}));
  EXPECT_EQ(chain.sync.file_counts, (std::map<uint16_t, uint64_t>{{100, 2}, {200, 2}}));
}

TEST(SyncPipe, PcrOfZeroIsARealPcr) {
  // Had 0.0 been taken for no PCR, the last packet would be number 2 of PID 200 and have no
  // partner.
  std::string input = make_packet(200) + make_packet(100, 0) + make_packet(200);
  std::string offsets =
      make_packet(200) + make_packet(200) + make_packet(100, 0) + make_packet(200);
  Chain chain(write_temp("pcr_zero", offsets));
  chain.feed(input);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 376, 564}));
  EXPECT_EQ(chain.sync.input_pcr, 0.0);
  EXPECT_EQ(chain.sync.file_pcr, 0.0);
}

TEST(SyncPipe, PcrOnlyInTheOffsetFileIsWalkedPastToTheNextInputPcr) {
  std::string input = make_packet(100, seconds(1.0)) + make_packet(200) +
                      make_packet(100, seconds(2.0)) + make_packet(200);
  std::string offsets = make_packet(100, seconds(1.0)) + make_packet(200) +
                        make_packet(100, seconds(1.5)) + make_packet(200) +
                        make_packet(100, seconds(2.0)) + make_packet(200);
  Chain chain(write_temp("file_extra_pcr", offsets));
  chain.feed(input);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 188, 752, 940}));
}

TEST(SyncPipe, PcrOnlyInTheInputFails) {
  std::string input = make_packet(100, seconds(1.0)) + make_packet(200) +
                      make_packet(100, seconds(1.5)) + make_packet(200);
  std::string offsets = make_packet(100, seconds(1.0)) + make_packet(200) + make_packet(200);
  Chain chain(write_temp("input_extra_pcr", offsets));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{0, 188}));
}

TEST(SyncPipe, BeforeTheFirstPcrPacketsMatchOnCountsAlone) {
  std::string input = make_packet(200) + make_packet(201) + make_packet(200);
  std::string offsets = make_packet(300) + input;
  Chain chain(write_temp("before_pcr", offsets));
  chain.feed(input);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{188, 376, 564}));
}

TEST(SyncPipe, CountIsTestedAtEveryPacketOfTheInterval) {
  // PID 201 comes first in the offset file: its count is already reached when the walk passes
  // the next packet, which is one of PID 200, and that position is given.
  std::string input = make_packet(200) + make_packet(201) + make_packet(200);
  std::string offsets = make_packet(201) + make_packet(200) + make_packet(200);
  Chain chain(write_temp("count_every_packet", offsets));
  EXPECT_THROW(chain.feed(input), SyncFailureException);
  EXPECT_EQ(chain.synced.offsets(), (std::vector<uint64_t>{188, 376}));
}

TEST(SyncPipe, ProcessForwardsACopyAndLeavesTheCallersPacketAlone) {
  std::string stream = make_packet(300) + make_packet(200, -1, 0x5C, 7);
  SyncPipe sync;
  ASSERT_TRUE(sync.open(write_temp("copy", stream)));
  Collector after;
  sync.attach(&after);
  TSPacket packet;
  packet.pid = 200;
  packet.continuity_counter = 7;
  packet.payload.assign(184, 0x5C);
  packet.offset = 12345;
  sync.process(packet);
  EXPECT_EQ(packet.offset, 12345u);
  ASSERT_EQ(after.packets.size(), 1u);
  EXPECT_EQ(after.packets[0].offset, 188u);
  EXPECT_EQ(after.packets[0].payload, packet.payload);
  EXPECT_EQ(after.packets[0].continuity_counter, 7);
  EXPECT_EQ(after.packets[0].pid, 200);
}

TEST(SyncPipe, FindOffsetWithoutAnOpenFileFails) {
  SyncPipe sync;
  EXPECT_THROW(sync.find_offset(0, 1, -1.0), SyncFailureException);
}

TEST(SyncPipe, OpenOfAMissingFileGivesFalseAndNoStream) {
  SyncPipe sync;
  EXPECT_FALSE(sync.open(temp_path("does_not_exist/x")));
  EXPECT_EQ(sync.file, nullptr);
  TSPacket packet;
  EXPECT_THROW(sync.process(packet), SyncFailureException);
}

TEST(SyncPipe, FixtureAgainstAnIdenticalCopyKeepsItsOffsets) {
  std::string path = std::string(VDX_SOURCE_DIR) + "/tests/fixtures/mpeg2_bframes.ts";
  std::string input = read_all(path);
  Chain chain(path);
  ASSERT_TRUE(chain.opened);
  chain.feed(input);
  ASSERT_EQ(chain.synced.packets.size(), input.size() / 188);
  EXPECT_EQ(chain.synced.offsets(), chain.raw.offsets());
}

TEST(SyncPipe, FixtureWithAGarbageHeadGivesOffsetsOneHundredLess) {
  std::string path = std::string(VDX_SOURCE_DIR) + "/tests/fixtures/h264_closed_gop.ts";
  std::string clean = read_all(path);
  Chain chain(path);
  chain.feed(std::string(100, '\x5A') + clean);
  ASSERT_EQ(chain.synced.packets.size(), clean.size() / 188);
  for (size_t i = 0; i < chain.synced.packets.size(); i++) {
    ASSERT_EQ(chain.synced.packets[i].offset + 100, chain.raw.packets[i].offset) << i;
  }
}

TEST(SyncPipe, FixtureWithOnePidRemovedGivesThePositionsInTheFullStream) {
  std::string path = std::string(VDX_SOURCE_DIR) + "/tests/fixtures/mpeg2_bframes.ts";
  std::string full = read_all(path);
  for (uint16_t pid : {uint16_t{0x101}, uint16_t{0x1FFF}}) {
    std::string input = without_pid(full, pid);
    ASSERT_LT(input.size(), full.size());
    Chain chain(path);
    chain.feed(input);
    ASSERT_EQ(chain.synced.packets.size(), input.size() / 188);
    for (size_t i = 0; i < chain.synced.packets.size(); i++) {
      uint64_t offset = chain.synced.packets[i].offset;
      ASSERT_EQ(offset % 188, 0u);
      ASSERT_EQ(full.substr(offset, 188), input.substr(i * 188, 188)) << "packet " << i;
    }
  }
}

TEST(SyncPipe, FixtureAgainstAnOffsetFileLackingOnePidFails) {
  std::string full = fixture("mpeg2_bframes.ts");
  std::string path = write_temp("without_audio", without_pid(full, 0x101));
  Chain chain(path);
  EXPECT_THROW(chain.feed(full), SyncFailureException);
  // Everything up to the first audio packet found its partner.
  size_t first_audio = 0;
  while (pid_of(full, first_audio) != 0x101) first_audio += 188;
  EXPECT_EQ(chain.synced.packets.size(), first_audio / 188);
}

}  // namespace
}  // namespace Veldrin::IndexGen
