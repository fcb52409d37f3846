#include "encryption/encryptor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "encryption/h264_encryption_marker.h"
#include "encryption/marker_support.h"
#include "encryption/mpeg2_encryption_marker.h"
#include "foundation/channel/buffered_writer.h"
#include "foundation/channel/error.h"
#include "foundation/channel/string_writer.h"
#include "transport/test_bytes.h"

namespace Veldrin::Testing {
namespace {

using IndexGen::Encryptor;
using IndexGen::TSPacket;

constexpr uint16_t PMT_PID = 0x1000;
constexpr uint16_t VIDEO = 0x100;
constexpr uint16_t AUDIO = 0x101;

// Stands for the cipher, visibly: the whole 16-byte blocks of the payload are inverted, and the
// packet is marked scrambled. The key list is whatever the test gives.
class InvertingEncryptor : public IndexGen::PacketEncryptor {
 public:
  void encrypt(TSPacket& packet) override {
    const size_t whole = packet.payload.size() / 16 * 16;
    for (size_t i = 0; i < whole; i++) packet.payload[i] = static_cast<unsigned char>(~packet.payload[i]);
    packet.scrambling_control = 2;
    ++calls;
  }
  void get_key_list(std::vector<unsigned char>& data) override { data = list; }

  Bytes list;
  int calls = 0;
};

// Keeps every packet that the stage passes on.
class Collector : public IndexGen::TSPipe {
 public:
  void process(TSPacket& packet) override { packets.push_back(packet); }
  std::vector<TSPacket> packets;
};

// A writer whose every write fails, as on a stream that couldn't be opened.
class FailingWriter : public Korvix::Channel::Writer {
 public:
  void basic_write(const unsigned char*, size_t) override {
    throw Korvix::Channel::Error(1, "Stream failed");
  }
};

// The 188 bytes of a packet without adaptation field data: a payload shorter than 184 bytes gets
// a field of a flags byte 0 and 0xFF stuffing; one of 183 bytes a field of its length byte alone.
Bytes raw(uint16_t pid, bool unit_start, int scrambling, int continuity, const Bytes& payload) {
  Bytes out = {0x47, static_cast<unsigned char>((unit_start ? 0x40 : 0) | (pid >> 8)),
               static_cast<unsigned char>(pid & 0xFF)};
  const size_t size = payload.size() < 184 ? payload.size() : 184;
  unsigned char flags = static_cast<unsigned char>(scrambling << 6);
  if (size > 0) flags = static_cast<unsigned char>(flags | 0x10 | continuity);
  if (size < 184) flags = static_cast<unsigned char>(flags | 0x20);
  out.push_back(flags);
  if (size < 184) {
    out.push_back(static_cast<unsigned char>(183 - size));
    if (size < 183) {
      out.push_back(0x00);
      out.insert(out.end(), 182 - size, 0xFF);
    }
  }
  out.insert(out.end(), payload.begin(), payload.begin() + static_cast<long>(size));
  return out;
}

Bytes raw(const TSPacket& packet) {
  return raw(packet.pid, packet.payload_unit_start, packet.scrambling_control,
             packet.continuity_counter, Bytes(packet.payload.begin(), packet.payload.end()));
}

// A section from its bytes without CRC: the CRC of MPEG-2 sections behind them, pointer_field
// ahead.
Bytes section(const std::string& text) {
  Bytes out = hex("00 " + text);
  const uint32_t crc = VdxTest::bitwise_crc32_mpeg(out.data() + 1, out.size() - 1);
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(crc >> shift));
  return out;
}

// Program 1 on PMT PID 0x1000.
const Bytes PAT = section("00 B0 0D 00 01 C1 00 00 00 01 F0 00");
// Program 1, PCR on 0x100, one stream of type 0x06 on 0x101.
const Bytes PMT_PRIVATE = section("02 B0 12 00 01 C1 00 00 E1 00 F0 00 06 E1 01 F0 00");
// The same announcing the key list on 8190 (0x1FFE): a CA descriptor 09 04 4B 4C FF FE, and the
// stream entry 05 FF FE F0 00.
const Bytes PMT_PRIVATE_REWRITTEN =
    section("02 B0 1D 00 01 C1 00 00 E1 00 F0 06 09 04 4B 4C FF FE 06 E1 01 F0 00 05 FF FE F0 00");
// MPEG-2 video on 0x100, MPEG-1 audio on 0x101.
const Bytes PMT_VIDEO_AUDIO = section("02 B0 17 00 01 C1 00 00 E1 00 F0 00 02 E1 00 F0 00 03 E1 01 F0 00");
// H.264 video on 0x100, MPEG-1 audio on 0x101, version 1.
const Bytes PMT_H264_AUDIO = section("02 B0 17 00 01 C3 00 00 E1 00 F0 00 1B E1 00 F0 00 03 E1 01 F0 00");

TSPacket packet(uint16_t pid, const Bytes& payload, bool unit_start = false, int continuity = 0,
                uint64_t offset = 0) {
  TSPacket p;
  p.pid = pid;
  p.payload_unit_start = unit_start;
  p.continuity_counter = continuity;
  p.payload.assign(payload.begin(), payload.end());
  p.offset = offset;
  return p;
}

// A stage with the inverting cipher, writing to a string, and a collector behind it. Packets fed
// get offsets 188 apart.
struct Stage {
  InvertingEncryptor cipher;
  std::string out;
  Korvix::Channel::StringWriter writer{out};
  Encryptor encryptor{cipher, writer};
  Collector collector;
  uint64_t next_offset = 0;

  Stage() {
    cipher.list = Bytes(42);
    for (size_t i = 0; i < 42; i++) cipher.list[i] = static_cast<unsigned char>(i);
    encryptor.attach(&collector);
  }

  TSPacket feed(TSPacket p) {
    p.offset = next_offset;
    next_offset += 188;
    const TSPacket copy = p;
    encryptor.process(p);
    EXPECT_EQ(raw(p), raw(copy));  // the caller's packet isn't changed
    return copy;
  }
  TSPacket feed(uint16_t pid, const Bytes& payload, bool unit_start = false, int continuity = 0) {
    return feed(packet(pid, payload, unit_start, continuity));
  }

  Bytes output() const { return Bytes(out.begin(), out.end()); }
};

Bytes bytes_of(std::initializer_list<Bytes> packets) {
  return concat(packets);
}

TEST(Encryptor, WithoutAPatTheOutputIsTheInputWrittenAgainAndNoKeyListGoesOut) {
  Stage stage;
  Bytes expected;
  for (int i = 0; i < 5; i++) {
    TSPacket p = stage.feed(VIDEO, filler(184, static_cast<unsigned char>(0x20 + i)), i == 0, i);
    expected = concat({expected, raw(p)});
  }
  TSPacket short_one = stage.feed(0x1FFE, hex("00 00 01 B3 01 02"), false, 9);
  expected = concat({expected, raw(short_one)});
  EXPECT_EQ(stage.output(), expected);
  EXPECT_EQ(stage.collector.packets.size(), 6u);
  EXPECT_EQ(stage.encryptor.ca_pid, 0u);
  EXPECT_EQ(stage.encryptor.inserted_bytes, 0u);
  EXPECT_EQ(stage.cipher.calls, 0);
  EXPECT_TRUE(stage.encryptor.queue.empty());
}

TEST(Encryptor, WithAPatButNoPmtTheOutputIsTheInputAndThePatStaysAsItIs) {
  Stage stage;
  TSPacket pat = stage.feed(0, PAT, true, 3);
  TSPacket video = stage.feed(VIDEO, filler(184), true, 4);
  TSPacket on_pmt_pid = stage.feed(PMT_PID, hex("00 02 B0"), true, 5);
  EXPECT_EQ(stage.output(), bytes_of({raw(pat), raw(video), raw(on_pmt_pid)}));
  EXPECT_EQ(stage.encryptor.pmt_pid, PMT_PID);
  EXPECT_EQ(stage.encryptor.program_number, 1);
  EXPECT_EQ(stage.encryptor.ca_pid, 0u);
  EXPECT_EQ(stage.collector.packets.size(), 3u);
}

TEST(Encryptor, ThePatGivesTheProgramOfTheLowestNumberEvenZero) {
  Stage stage;
  stage.feed(0, section("00 B0 11 00 01 C1 00 00 00 05 E0 20 00 00 E0 10"), true);
  EXPECT_EQ(stage.encryptor.pmt_pid, 0x10u);
  EXPECT_EQ(stage.encryptor.program_number, 0);
  // The same PID under another number changes nothing, not even the number.
  stage.feed(0, section("00 B0 0D 00 01 C1 00 00 00 07 E0 10"), true);
  EXPECT_EQ(stage.encryptor.program_number, 0);
  // A PAT that isn't current is passed over.
  stage.feed(0, section("00 B0 0D 00 01 C0 00 00 00 01 E0 30"), true);
  EXPECT_EQ(stage.encryptor.pmt_pid, 0x10u);
  stage.feed(0, section("00 B0 0D 00 01 C1 00 00 00 01 E0 30"), true);
  EXPECT_EQ(stage.encryptor.pmt_pid, 0x30u);
  EXPECT_EQ(stage.encryptor.program_number, 1);
}

TEST(Encryptor, APatWithABadCrcIsDropped) {
  Stage stage;
  Bytes bad = PAT;
  bad[bad.size() - 1] ^= 0x01;
  TSPacket p = stage.feed(0, bad, true);
  EXPECT_EQ(stage.encryptor.pmt_pid, 0u);
  EXPECT_EQ(stage.output(), raw(p));
  EXPECT_TRUE(stage.encryptor.pat_data.data.empty());
}

TEST(Encryptor, APmtWithOnlyAPrivateStreamIsRewrittenAndTheKeyListFollowsIt) {
  Stage stage;
  TSPacket pat = stage.feed(0, PAT, true, 0);
  TSPacket pmt = stage.feed(PMT_PID, PMT_PRIVATE, true, 7);
  TSPacket data = stage.feed(AUDIO, filler(184), true, 1);

  EXPECT_EQ(stage.encryptor.ca_pid, 8190u);
  EXPECT_EQ(stage.encryptor.marker_entry(AUDIO).marker.get(), nullptr);
  const Bytes key_list_packet = raw(8190, true, 0, 0, stage.cipher.list);
  EXPECT_EQ(stage.output(), bytes_of({raw(pat), raw(PMT_PID, true, 0, 7, PMT_PRIVATE_REWRITTEN),
                                      key_list_packet, raw(data)}));
  EXPECT_EQ(stage.cipher.calls, 0);
  EXPECT_EQ(stage.encryptor.inserted_bytes, 188u);

  ASSERT_EQ(stage.collector.packets.size(), 4u);
  const TSPacket& rewritten = stage.collector.packets[1];
  EXPECT_EQ(Bytes(rewritten.payload.begin(), rewritten.payload.end()), PMT_PRIVATE_REWRITTEN);
  EXPECT_EQ(rewritten.offset, pmt.offset);
  const TSPacket& list = stage.collector.packets[2];
  EXPECT_EQ(list.pid, 8190);
  EXPECT_TRUE(list.payload_unit_start);
  EXPECT_EQ(list.continuity_counter, 0);
  EXPECT_EQ(list.scrambling_control, 0);
  EXPECT_LT(list.pcr, 0.0);
  EXPECT_EQ(Bytes(list.payload.begin(), list.payload.end()), stage.cipher.list);
  EXPECT_EQ(list.offset, pmt.offset + 188);
}

TEST(Encryptor, APmtWithABadCrcPassesAsItCameAndAnnouncesNothing) {
  Stage stage;
  stage.feed(0, PAT, true);
  Bytes bad = PMT_PRIVATE;
  bad[20] ^= 0x80;
  TSPacket pmt = stage.feed(PMT_PID, bad, true, 7);
  EXPECT_EQ(stage.encryptor.ca_pid, 0u);
  EXPECT_EQ(stage.encryptor.inserted_bytes, 0u);
  ASSERT_EQ(stage.collector.packets.size(), 2u);
  const Bytes out = stage.output();
  EXPECT_EQ(Bytes(out.end() - 188, out.end()), raw(pmt));
}

TEST(Encryptor, APmtOfAnotherProgramPassesAsItCame) {
  Stage stage;
  stage.feed(0, PAT, true);
  const Bytes other = section("02 B0 12 00 02 C1 00 00 E1 00 F0 00 02 E1 00 F0 00");
  TSPacket pmt = stage.feed(PMT_PID, other, true, 7);
  EXPECT_EQ(stage.encryptor.ca_pid, 0u);
  EXPECT_EQ(stage.encryptor.marker_entry(VIDEO).marker.get(), nullptr);
  const Bytes out = stage.output();
  EXPECT_EQ(Bytes(out.end() - 188, out.end()), raw(pmt));
}

TEST(Encryptor, VideoOnPid8190MovesTheKeyListTo8189) {
  Stage stage;
  stage.feed(0, PAT, true);
  TSPacket pmt = stage.feed(PMT_PID, section("02 B0 12 00 01 C1 00 00 FF FE F0 00 02 FF FE F0 00"),
                            true, 2);
  EXPECT_EQ(stage.encryptor.ca_pid, 8189u);
  const Bytes rewritten =
      section("02 B0 1D 00 01 C1 00 00 FF FE F0 06 09 04 4B 4C FF FD 02 FF FE F0 00 05 FF FD F0 00");
  ASSERT_EQ(stage.collector.packets.size(), 3u);
  const TSPacket& out = stage.collector.packets[1];
  EXPECT_EQ(Bytes(out.payload.begin(), out.payload.end()), rewritten);
  EXPECT_EQ(stage.collector.packets[2].pid, 8189);
}

TEST(Encryptor, APidWithoutMarkerDoesNotKeepTheKeyListOff8190) {
  Stage stage;
  stage.feed(0, PAT, true);
  // A private stream on 8190 and video on 0x100: the key list collides with the private stream.
  stage.feed(PMT_PID, section("02 B0 17 00 01 C1 00 00 E1 00 F0 00 06 FF FE F0 00 02 E1 00 F0 00"),
             true);
  EXPECT_EQ(stage.encryptor.ca_pid, 8190u);
}

TEST(Encryptor, TheKeyListPidGoesDownPastEveryEncryptedStream) {
  Stage stage;
  stage.feed(0, PAT, true);
  stage.feed(PMT_PID, section("02 B0 1C 00 01 C1 00 00 E1 00 F0 00 1B FF FE F0 00 0F FF FD F0 00 "
                              "81 FF FC F0 00"),
             true);
  EXPECT_EQ(stage.encryptor.ca_pid, 8187u);
  EXPECT_EQ(stage.encryptor.marker_entry(8190).marker_type, IndexGen::MARKER_H264);
  EXPECT_EQ(stage.encryptor.marker_entry(8189).marker_type, IndexGen::MARKER_AUDIO);
  EXPECT_EQ(stage.encryptor.marker_entry(8188).marker_type, IndexGen::MARKER_AUDIO);
}

TEST(Encryptor, EveryStreamTypeGetsItsMarker) {
  using IndexGen::marker_type_of;
  EXPECT_EQ(marker_type_of(0x02), IndexGen::MARKER_MPEG2);
  EXPECT_EQ(marker_type_of(0x1B), IndexGen::MARKER_H264);
  for (uint8_t type : Bytes{0x03, 0x04, 0x0F, 0x11, 0x81, 0x8A})
    EXPECT_EQ(marker_type_of(type), IndexGen::MARKER_AUDIO) << int(type);
  for (uint8_t type : Bytes{0x00, 0x01, 0x05, 0x06, 0x10, 0x24, 0x80, 0x82, 0x86, 0x87, 0xFF})
    EXPECT_EQ(marker_type_of(type), IndexGen::MARKER_NONE) << int(type);
}

TEST(Encryptor, PacketsLeaveInInputOrderAndTheEncipheredOnesAreMarked) {
  Stage stage;
  stage.feed(0, PAT, true);
  stage.feed(PMT_PID, PMT_VIDEO_AUDIO, true);
  TSPacket v1 = stage.feed(VIDEO, starting_with(pes_header_with_pts()), true, 0);
  TSPacket a1 = stage.feed(AUDIO, starting_with(hex("00 00 01 C0 00 B8")), true, 0);
  // Audio is ready at once but waits behind the undecided video.
  EXPECT_EQ(stage.collector.packets.size(), 3u);
  TSPacket v2 = stage.feed(VIDEO, filler(184, 0x31), false, 1);
  TSPacket a2 = stage.feed(AUDIO, filler(100, 0x32), false, 1);
  TSPacket v3 = stage.feed(VIDEO, filler(184, 0x33), false, 2);

  ASSERT_EQ(stage.collector.packets.size(), 7u);
  for (TSPacket* p : {&a1, &v2, &a2}) {
    const size_t whole = p->payload.size() / 16 * 16;
    for (size_t i = 0; i < whole; i++) p->payload[i] = static_cast<unsigned char>(~p->payload[i]);
    p->scrambling_control = 2;
  }
  const std::vector<TSPacket> expected = {v1, a1, v2, a2};
  for (size_t i = 0; i < expected.size(); i++) {
    const TSPacket& got = stage.collector.packets[3 + i];
    EXPECT_EQ(raw(got), raw(expected[i])) << i;
    EXPECT_EQ(got.offset, expected[i].offset) << i;
  }
  const Bytes out = stage.output();
  ASSERT_EQ(out.size(), 7u * 188);
  EXPECT_EQ(Bytes(out.begin() + 3 * 188, out.end()),
            bytes_of({raw(v1), raw(a1), raw(v2), raw(a2)}));
  EXPECT_EQ(out[3 * 188 + 3], 0x10);       // v1 in clear
  EXPECT_EQ(out[4 * 188 + 3], 0x90);       // a1 scrambled
  EXPECT_EQ(stage.cipher.calls, 3);
  // The last video packet is never written: nothing flushes the queue.
  EXPECT_EQ(stage.encryptor.queue.size(), 1u);
  EXPECT_EQ(stage.encryptor.queue.front().offset, v3.offset);
}

TEST(Encryptor, ASecondIdenticalPmtIsRewrittenAlikeAndTheMarkersKeepTheirState) {
  Stage stage;
  stage.feed(0, PAT, true);
  stage.feed(PMT_PID, PMT_VIDEO_AUDIO, true, 0);
  const IndexGen::EncryptionMarker* marker = stage.encryptor.marker_entry(VIDEO).marker.get();
  stage.feed(VIDEO, filler(184), false, 0);
  TSPacket straddling = stage.feed(VIDEO, ending_with(hex("00 00 01")), false, 1);
  stage.feed(PMT_PID, PMT_VIDEO_AUDIO, true, 1);
  TSPacket completing = stage.feed(VIDEO, starting_with(hex("B3 14 00")), false, 2);
  stage.feed(VIDEO, filler(184), false, 3);

  EXPECT_EQ(stage.encryptor.marker_entry(VIDEO).marker.get(), marker);
  EXPECT_EQ(stage.encryptor.ca_pid, 8190u);
  // Both PMTs went out with the same bytes; the sequence header across the two video packets
  // kept both in clear, as the scanner's state went on across the second PMT.
  std::vector<Bytes> pmts;
  std::vector<const TSPacket*> video;
  for (const TSPacket& p : stage.collector.packets) {
    if (p.pid == PMT_PID) pmts.emplace_back(p.payload.begin(), p.payload.end());
    if (p.pid == VIDEO) video.push_back(&p);
  }
  ASSERT_EQ(pmts.size(), 2u);
  EXPECT_EQ(pmts[0], pmts[1]);
  ASSERT_EQ(video.size(), 3u);
  EXPECT_EQ(video[0]->scrambling_control, 2);
  EXPECT_EQ(raw(*video[1]), raw(straddling));
  EXPECT_EQ(raw(*video[2]), raw(completing));
}

TEST(Encryptor, APidThatChangesTypeBlocksTheQueueUntilTheEnd) {
  Stage stage;
  stage.feed(0, PAT, true);
  stage.feed(PMT_PID, PMT_VIDEO_AUDIO, true, 0);
  stage.feed(VIDEO, filler(184), true, 0);
  stage.feed(VIDEO, filler(184), false, 1);
  stage.feed(AUDIO, filler(184), true, 0);
  stage.feed(PMT_PID, PMT_H264_AUDIO, true, 1);
  EXPECT_EQ(stage.encryptor.marker_entry(VIDEO).marker_type, IndexGen::MARKER_H264);
  for (int i = 0; i < 300; i++) {
    stage.feed(VIDEO, filler(184), false, 2 + i);
    stage.feed(AUDIO, filler(184), false, 1 + i);
  }
  // PAT, PMT, key list and the first video packet; the second is held by the dropped marker.
  EXPECT_EQ(stage.collector.packets.size(), 4u);
  EXPECT_EQ(stage.output().size(), 4u * 188);
  EXPECT_EQ(stage.encryptor.queue.size(), 3u + 600u);
}

TEST(Encryptor, ARewrittenPmtOfSixtyBytesGoesOutWithAnAdaptationFieldOf124Bytes) {
  Stage stage;
  stage.feed(0, PAT, true);
  // Four streams, two with a language descriptor: 45 bytes of section, 56 once rewritten.
  const Bytes pmt = section(
      "02 B0 2D 00 01 C1 00 00 E1 00 F0 00 02 E1 00 F0 00 03 E1 01 F0 00 "
      "06 E1 02 F0 06 0A 04 65 6E 67 00 06 E1 03 F0 06 0A 04 64 65 75 00");
  stage.feed(PMT_PID, pmt, true, 4);
  ASSERT_EQ(stage.collector.packets.size(), 3u);
  ASSERT_EQ(stage.collector.packets[1].payload.size(), 60u);
  const Bytes out = stage.output();
  const Bytes written(out.begin() + 188, out.begin() + 376);
  EXPECT_EQ(written[3], 0x34);
  EXPECT_EQ(written[4], 123);  // the length byte and 123 bytes behind it
  EXPECT_EQ(written[5], 0x00);
  EXPECT_EQ(Bytes(written.begin() + 6, written.begin() + 128), Bytes(122, 0xFF));
  EXPECT_EQ(Bytes(written.begin() + 128, written.end()),
            Bytes(stage.collector.packets[1].payload.begin(), stage.collector.packets[1].payload.end()));
}

TEST(Encryptor, AKeyListOf200BytesGoesOutInTwoPacketsOfCounterZero) {
  Stage stage;
  stage.cipher.list = Bytes(200);
  for (size_t i = 0; i < 200; i++) stage.cipher.list[i] = static_cast<unsigned char>(0xC8 - i);
  stage.feed(0, PAT, true);
  TSPacket pmt = stage.feed(PMT_PID, PMT_PRIVATE, true, 7);

  const Bytes& list = stage.cipher.list;
  const Bytes first = concat({hex("47 5F FE 10"), Bytes(list.begin(), list.begin() + 184)});
  const Bytes second = concat({hex("47 1F FE 30 A7 00"), Bytes(166, 0xFF),
                               Bytes(list.begin() + 184, list.end())});
  const Bytes out = stage.output();
  ASSERT_EQ(out.size(), 4u * 188);
  EXPECT_EQ(Bytes(out.begin() + 2 * 188, out.end()), concat({first, second}));
  EXPECT_EQ(stage.encryptor.inserted_bytes, 188u);

  ASSERT_EQ(stage.collector.packets.size(), 4u);
  for (size_t i : {2u, 3u}) {
    const TSPacket& record = stage.collector.packets[i];
    EXPECT_EQ(Bytes(record.payload.begin(), record.payload.end()), list);
    EXPECT_EQ(record.offset, pmt.offset + 188);
    EXPECT_EQ(record.continuity_counter, 0);
  }
  EXPECT_TRUE(stage.collector.packets[2].payload_unit_start);
  EXPECT_FALSE(stage.collector.packets[3].payload_unit_start);
}

TEST(Encryptor, TheKeyListRecursAfterEveryHundredPacketsWithOffsetsThatCountIt) {
  Stage stage;
  stage.feed(0, PAT, true);
  TSPacket pmt = stage.feed(PMT_PID, PMT_PRIVATE, true);
  std::vector<TSPacket> data;
  for (int i = 0; i < 250; i++) data.push_back(stage.feed(AUDIO, filler(184), false, i & 15));

  std::vector<size_t> at;
  std::vector<uint64_t> offsets;
  for (size_t i = 0; i < stage.collector.packets.size(); i++) {
    if (stage.collector.packets[i].pid != 8190) continue;
    at.push_back(i);
    offsets.push_back(stage.collector.packets[i].offset);
  }
  // Behind the PMT, the 100th and the 200th packet after it.
  EXPECT_EQ(at, (std::vector<size_t>{2, 103, 204}));
  EXPECT_EQ(offsets, (std::vector<uint64_t>{pmt.offset + 188, data[99].offset + 376,
                                            data[199].offset + 564}));
  EXPECT_EQ(stage.encryptor.inserted_bytes, 564u);
  EXPECT_EQ(stage.encryptor.packet_count, 251);
  EXPECT_EQ(stage.output().size(), (2u + 250u + 3u) * 188);
}

TEST(Encryptor, AnEmptyKeyListInsertsNothingButStillCountsItsBytes) {
  Stage stage;
  stage.cipher.list.clear();
  stage.feed(0, PAT, true);
  stage.feed(PMT_PID, PMT_PRIVATE, true);
  stage.feed(AUDIO, filler(184), false);
  EXPECT_EQ(stage.collector.packets.size(), 3u);
  EXPECT_EQ(stage.output().size(), 3u * 188);
  EXPECT_EQ(stage.encryptor.inserted_bytes, 188u);
}

TEST(Encryptor, APmtAcrossTwoPacketsIsRewrittenInThePacketThatCompletesIt) {
  Stage stage;
  stage.feed(0, PAT, true);
  // Thirty-five private streams: 188 bytes of section, 199 once rewritten.
  std::string text = "02 B0 BC 00 01 C1 00 00 E1 00 F0 00";
  for (int i = 0; i < 35; i++) {
    char entry[32];
    std::snprintf(entry, sizeof entry, " 06 E2 %02X F0 00", i);
    text += entry;
  }
  Bytes whole = section(text);
  ASSERT_EQ(whole.size(), 1u + 3u + 0xBCu);
  // A pointer_field of 64 ahead of the section puts its end into the second packet.
  Bytes padded = concat({hex("40"), Bytes(64, 0xFF), Bytes(whole.begin() + 1, whole.end())});
  TSPacket first = stage.feed(PMT_PID, Bytes(padded.begin(), padded.begin() + 184), true, 3);
  EXPECT_EQ(stage.encryptor.ca_pid, 0u);
  TSPacket second = stage.feed(PMT_PID, Bytes(padded.begin() + 184, padded.end()), false, 4);
  EXPECT_EQ(stage.encryptor.ca_pid, 8190u);

  ASSERT_EQ(stage.collector.packets.size(), 4u);
  EXPECT_EQ(raw(stage.collector.packets[1]), raw(first));
  // The whole new section reaches the stages behind; the file gets what one packet holds.
  const TSPacket& rewritten = stage.collector.packets[2];
  ASSERT_EQ(rewritten.payload.size(), 1u + 3u + 0xBCu + 11u);
  EXPECT_FALSE(rewritten.payload_unit_start);
  EXPECT_EQ(rewritten.payload[0], 0x00);
  EXPECT_EQ(rewritten.payload[1], 0x02);
  const Bytes out = stage.output();
  EXPECT_EQ(Bytes(out.begin() + 2 * 188, out.begin() + 3 * 188),
            concat({hex("47 10 00 14"),
                    Bytes(rewritten.payload.begin(), rewritten.payload.begin() + 184)}));
  (void)second;
}

TEST(Encryptor, ARewrittenPmtTooLongToWriteLeavesAnEmptyPayload) {
  Stage stage;
  stage.feed(0, PAT, true);
  // Four program descriptors of 253 bytes and a video stream: 1037 bytes without the CRC, which
  // a reader takes and the rewrite makes 1048, past the 1025 that a section writer writes.
  std::string text = "02 B4 0E 00 01 C1 00 00 E1 00 F3 FC";
  for (int d = 0; d < 4; d++) {
    text += " 05 FD";
    for (int i = 0; i < 253; i++) text += " 41";
  }
  text += " 02 E1 00 F0 00";
  Bytes whole = section(text);
  ASSERT_EQ(whole.size(), 1u + 3u + 0x40Eu);
  for (size_t at = 0; at < whole.size(); at += 184) {
    const size_t end = std::min(whole.size(), at + 184);
    stage.feed(PMT_PID, Bytes(whole.begin() + static_cast<long>(at), whole.begin() + static_cast<long>(end)),
               at == 0, static_cast<int>(at / 184));
  }
  EXPECT_EQ(stage.encryptor.ca_pid, 8190u);
  EXPECT_EQ(stage.encryptor.marker_entry(VIDEO).marker_type, IndexGen::MARKER_MPEG2);
  const TSPacket& last = stage.collector.packets[stage.collector.packets.size() - 2];
  EXPECT_EQ(last.pid, PMT_PID);
  EXPECT_TRUE(last.payload.empty());
  // A packet without payload: an adaptation field of 183 bytes and no counter.
  const Bytes out = stage.output();
  const Bytes written(out.end() - 2 * 188, out.end() - 188);
  EXPECT_EQ(written, concat({hex("47 10 00 20 B7 00"), Bytes(182, 0xFF)}));
}

TEST(Encryptor, AnOutputThatFailsGivesTheStagesBehindTheKeyListOncePerInsertion) {
  InvertingEncryptor cipher;
  cipher.list = Bytes(400, 0x5A);
  FailingWriter writer;
  Encryptor encryptor(cipher, writer);
  Collector collector;
  encryptor.attach(&collector);
  TSPacket pat = packet(0, PAT, true);
  encryptor.process(pat);
  TSPacket pmt = packet(PMT_PID, PMT_PRIVATE, true);
  encryptor.process(pmt);
  ASSERT_EQ(collector.packets.size(), 3u);
  EXPECT_EQ(collector.packets[2].pid, 8190);
  EXPECT_TRUE(collector.packets[2].payload_unit_start);
  EXPECT_EQ(collector.packets[2].payload.size(), 400u);
  EXPECT_EQ(encryptor.inserted_bytes, 188u);
}

// A stage behind that fails once, as the index writer can.
class FailingOnce : public IndexGen::TSPipe {
 public:
  void process(TSPacket& packet) override {
    if (packet.pid == AUDIO && !failed) {
      failed = true;
      throw Korvix::Channel::Error(1, "Block data too long");
    }
    packets.push_back(packet);
  }
  bool failed = false;
  std::vector<TSPacket> packets;
};

TEST(Encryptor, AFailureBehindTheStageLeavesThePacketAtTheHeadToBeEncipheredAndWrittenAgain) {
  InvertingEncryptor cipher;
  cipher.list = Bytes(10, 0x01);
  std::string out;
  Korvix::Channel::StringWriter writer(out);
  Encryptor encryptor(cipher, writer);
  FailingOnce behind;
  encryptor.attach(&behind);
  TSPacket pat = packet(0, PAT, true);
  encryptor.process(pat);
  TSPacket pmt = packet(PMT_PID, PMT_VIDEO_AUDIO, true);
  encryptor.process(pmt);
  TSPacket audio = packet(AUDIO, filler(32, 0x0F), true, 5);
  EXPECT_THROW(encryptor.process(audio), Korvix::Channel::Error);
  EXPECT_EQ(encryptor.queue.size(), 1u);
  TSPacket next = packet(0x1FFF, filler(184), false);
  encryptor.process(next);
  // Written twice: once enciphered, once enciphered again, which the inverting cipher undoes.
  const Bytes all(out.begin(), out.end());
  ASSERT_EQ(all.size(), 6u * 188);
  const Bytes once = raw(AUDIO, true, 2, 5, Bytes(32, 0xF0));
  const Bytes twice = raw(AUDIO, true, 2, 5, Bytes(32, 0x0F));
  EXPECT_EQ(Bytes(all.begin() + 3 * 188, all.begin() + 4 * 188), once);
  EXPECT_EQ(Bytes(all.begin() + 4 * 188, all.begin() + 5 * 188), twice);
  EXPECT_EQ(cipher.calls, 2);
}

// The same packets through a stage whose output is the given writer: PAT, PMT, then video and
// audio with a PES start, PCR and payloads of every size class, enough for two key lists.
void feed_mixed(Korvix::Channel::Writer& writer, IndexGen::TSPipe& behind,
                InvertingEncryptor& cipher) {
  Encryptor encryptor(cipher, writer);
  encryptor.attach(&behind);
  TSPacket pat = packet(0, PAT, true);
  encryptor.process(pat);
  TSPacket pmt = packet(PMT_PID, PMT_VIDEO_AUDIO, true);
  encryptor.process(pmt);
  for (int i = 0; i < 150; i++) {
    TSPacket video = packet(VIDEO, i % 10 == 0 ? starting_with(pes_header_with_pts())
                                              : filler(static_cast<size_t>(184 - i % 7)),
                            i % 10 == 0, i & 15);
    if (i % 25 == 0) video.pcr = i * 0.04;
    encryptor.process(video);
    TSPacket audio = packet(AUDIO, filler(static_cast<size_t>(20 + i), 0x55), i % 5 == 0, i & 15);
    encryptor.process(audio);
  }
}

void feed_mixed(Korvix::Channel::Writer& writer, IndexGen::TSPipe& behind) {
  InvertingEncryptor cipher;
  cipher.list = Bytes(200, 0x3C);
  feed_mixed(writer, behind, cipher);
}

// The records that two runs passed on are the same, field by field.
void expect_same_records(const std::vector<TSPacket>& a, const std::vector<TSPacket>& b,
                         size_t capacity) {
  ASSERT_EQ(a.size(), b.size()) << capacity;
  for (size_t i = 0; i < a.size(); i++) {
    EXPECT_EQ(a[i].pid, b[i].pid) << capacity << " " << i;
    EXPECT_EQ(a[i].payload_unit_start, b[i].payload_unit_start) << capacity << " " << i;
    EXPECT_EQ(a[i].scrambling_control, b[i].scrambling_control) << capacity << " " << i;
    EXPECT_EQ(a[i].continuity_counter, b[i].continuity_counter) << capacity << " " << i;
    EXPECT_EQ(a[i].offset, b[i].offset) << capacity << " " << i;
    EXPECT_EQ(a[i].payload, b[i].payload) << capacity << " " << i;
  }
}

TEST(Encryptor, ABufferedOutputGetsTheSameBytesComposedInItsBuffer) {
  std::string plain_out;
  Korvix::Channel::StringWriter plain(plain_out);
  Collector plain_behind;
  feed_mixed(plain, plain_behind);
  // All but the last video packet and the audio behind it, and a key list of two packets after
  // the PMT and after the 100th and 200th packet behind it.
  ASSERT_EQ(plain_out.size(), (300u + 3u * 2u) * 188);

  // A capacity that no number of packets fills exactly, one below a packet, where each packet
  // goes through write as with any writer, and one that holds the whole copy, where the key
  // list's packets are always copied from their first cut.
  for (size_t capacity : {size_t{1000}, size_t{100}, size_t{1} << 20}) {
    std::string out;
    Korvix::Channel::StringWriter target(out);
    Korvix::Channel::BufferedWriter buffered(target, capacity);
    Collector behind;
    feed_mixed(buffered, behind);
    buffered.flush();
    EXPECT_EQ(out, plain_out) << capacity;
    EXPECT_EQ(buffered.offset, plain_out.size()) << capacity;
    expect_same_records(behind.packets, plain_behind.packets, capacity);
  }
}

// Passes the packets on after changing what it is given of the key list: at the first
// insertion the continuity counter of the record becomes 7, at the second its last payload byte
// is inverted and the stage is given another key list for the third.
class KeyListMeddler : public Collector {
 public:
  explicit KeyListMeddler(InvertingEncryptor& cipher_) : cipher(cipher_) {}
  void process(TSPacket& packet) override {
    Collector::process(packet);
    if (packet.pid != 0x1FFE || !packet.payload_unit_start) return;
    ++insertions;
    if (insertions == 1) packet.continuity_counter = 7;
    if (insertions == 2) {
      packet.payload.back() = static_cast<unsigned char>(~packet.payload.back());
      cipher.list = Bytes(250, 0xA5);
    }
  }
  InvertingEncryptor& cipher;
  int insertions = 0;
};

TEST(Encryptor, KeyListPacketsComeOutAsWrittenAfterTheStagesBehindChangedTheRecord) {
  std::string plain_out;
  Korvix::Channel::StringWriter plain(plain_out);
  InvertingEncryptor plain_cipher;
  plain_cipher.list = Bytes(200, 0x3C);
  KeyListMeddler plain_behind(plain_cipher);
  feed_mixed(plain, plain_behind, plain_cipher);
  ASSERT_EQ(plain_behind.insertions, 3);
  // The key list packets: two at each insertion.
  std::vector<Bytes> lists;
  for (size_t at = 0; at + 188 <= plain_out.size(); at += 188) {
    const Bytes one(plain_out.begin() + static_cast<long>(at),
                    plain_out.begin() + static_cast<long>(at + 188));
    if (((one[1] & 0x1F) << 8 | one[2]) == 0x1FFE) lists.push_back(one);
  }
  ASSERT_EQ(lists.size(), 6u);
  // The first packet of each goes out before the stages behind see the record; the second is
  // written from the record as they left it: with the counter 7, then with the list's last byte
  // inverted; the third insertion cuts the other list.
  EXPECT_EQ(lists[0], raw(0x1FFE, true, 0, 0, Bytes(184, 0x3C)));
  EXPECT_EQ(lists[1], raw(0x1FFE, false, 0, 7, Bytes(16, 0x3C)));
  EXPECT_EQ(lists[2], raw(0x1FFE, true, 0, 0, Bytes(184, 0x3C)));
  Bytes rest(16, 0x3C);
  rest.back() = 0xC3;
  EXPECT_EQ(lists[3], raw(0x1FFE, false, 0, 0, rest));
  EXPECT_EQ(lists[4], raw(0x1FFE, true, 0, 0, Bytes(184, 0xA5)));
  EXPECT_EQ(lists[5], raw(0x1FFE, false, 0, 0, Bytes(66, 0xA5)));

  for (size_t capacity : {size_t{1000}, size_t{1} << 20}) {
    std::string out;
    Korvix::Channel::StringWriter target(out);
    Korvix::Channel::BufferedWriter buffered(target, capacity);
    InvertingEncryptor cipher;
    cipher.list = Bytes(200, 0x3C);
    KeyListMeddler behind(cipher);
    feed_mixed(buffered, behind, cipher);
    buffered.flush();
    EXPECT_EQ(out, plain_out) << capacity;
    expect_same_records(behind.packets, plain_behind.packets, capacity);
  }
}

TEST(Encryptor, ABufferedOutputThatFailsLosesPacketsAndTheStagesBehindGetThemAll) {
  FailingWriter failing;
  Korvix::Channel::BufferedWriter buffered(failing, 1000);
  Collector behind;
  feed_mixed(buffered, behind);
  EXPECT_EQ(behind.packets.size(), 300u + 3u * 2u);
  // Each packet that found the buffer full was lost with the buffer; the others count.
  EXPECT_GT(buffered.offset, 0u);
  EXPECT_LT(buffered.offset, (300u + 3u * 2u) * 188);
}

TEST(Encryptor, AudioIsEncipheredFromItsFirstByteUpToItsLastWholeBlock) {
  // NIST SP 800-38A, F.1.1 ECB-AES128: four blocks of plain text and what the key makes of them.
  const Bytes plain = hex(
      "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710");
  const Bytes cipher_text = hex(
      "3ad77bb40d7a3660a89ecaf32466ef97 f5d3d58503b9699de785895a96fdbaaf"
      "43b1cd7f598ece23881b00e3ed030688 7b0c785e27e8ad3f8223207104725dd4");
  IndexGen::AESPacketEncryptor cipher("2b7e151628aed2a6abf7158809cf4f3c", {});
  std::string out;
  Korvix::Channel::StringWriter writer(out);
  Encryptor encryptor(cipher, writer);
  Collector collector;
  encryptor.attach(&collector);
  for (TSPacket p : {packet(0, PAT, true), packet(PMT_PID, PMT_VIDEO_AUDIO, true)})
    encryptor.process(p);
  // A PES header at the front is enciphered with the rest; the 15 bytes behind the last whole
  // block stay as they are.
  const Bytes tail = hex("00 00 01 C0 00 10 80 00 00 AA BB CC DD EE FF");
  TSPacket audio = packet(AUDIO, concat({plain, tail}), true, 3);
  encryptor.process(audio);
  TSPacket short_audio = packet(AUDIO, tail, false, 4);
  encryptor.process(short_audio);

  ASSERT_EQ(collector.packets.size(), 5u);
  const TSPacket& enciphered = collector.packets[3];
  EXPECT_EQ(Bytes(enciphered.payload.begin(), enciphered.payload.end()), concat({cipher_text, tail}));
  EXPECT_EQ(enciphered.scrambling_control, 2);
  const Bytes bytes(out.begin(), out.end());
  EXPECT_EQ(Bytes(bytes.begin() + 3 * 188, bytes.begin() + 4 * 188),
            raw(AUDIO, true, 2, 3, concat({cipher_text, tail})));
  // Without a whole block nothing changes, but the packet is marked all the same.
  EXPECT_EQ(Bytes(bytes.begin() + 4 * 188, bytes.end()), raw(AUDIO, false, 2, 4, tail));
}

}  // namespace
}  // namespace Veldrin::Testing
