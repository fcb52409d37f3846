#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "e2e/replay_support.h"
#include "e2e/streams.h"
#include "e2e/tool_runner.h"
#include "encryption/key_list.h"
#include "foundation/channel/block_reader.h"
#include "foundation/channel/string_writer.h"
#include "support/encrypted_stream.h"
#include "support/key_material.h"
#include "transport/section_reader.h"
#include "transport/sections.h"
#include "transport/ts_reader.h"
#include "transport/ts_writer.h"

namespace Veldrin::Testing {
namespace {

const std::string BANNER = "Veldrin MPEG2 Transport Stream indexer version 3.1.6\n";
constexpr uint16_t KEY_LIST_PID = 8190;

const KeyMaterial& material() {
  return KeyMaterial::get();
}

std::string system_text(int error) {
  return std::strerror(error);
}

// A directory with the input and the certificates and keys of two recipients.
struct Workspace {
  ScratchDir dir;

  explicit Workspace(const std::string& input) {
    write_file(dir.file("in.ts"), input);
    for (const char* name : {"rsa1024.pem", "rsa2048.pem", "ec.pem", "rsa1024.key", "rsa2048.key",
                             "empty", "rsa1024.pub"})
      write_file(dir.file(name), material().text(name));
  }
  std::string read(const std::string& name) const { return read_file(dir.file(name)); }
};

// One packet of a stream as the packet reader sees it, with its 188 bytes.
struct Packet {
  IndexGen::TSPacket record;
  std::string bytes;
};

std::vector<Packet> packets_of(const std::string& stream) {
  std::vector<Packet> packets;
  for (size_t at = 0; at + 188 <= stream.size(); at += 188) {
    Packet packet;
    packet.bytes = stream.substr(at, 188);
    const auto* raw = reinterpret_cast<const unsigned char*>(packet.bytes.data());
    Korvix::Channel::BlockReader block(raw, 188);
    IndexGen::TSReader reader(block);
    int32_t payload_length = 0;
    if (!reader.read_header(packet.record, payload_length) || payload_length < 0 ||
        payload_length > 184)
      throw std::runtime_error("unreadable packet at " + std::to_string(at));
    packet.record.payload.assign(raw + 188 - payload_length, raw + 188);
    packet.record.offset = at;
    packets.push_back(std::move(packet));
  }
  return packets;
}

// The packet written again from its record: what the encrypted copy can hold of it.
std::string rewritten(const IndexGen::TSPacket& record) {
  std::string out;
  Korvix::Channel::StringWriter writer(out);
  IndexGen::TSWriter(writer).write_record(record);
  return out;
}

IndexGen::PMTSection read_pmt(const IndexGen::TSPacket& record) {
  Korvix::Channel::BlockReader block(record.payload.data(), record.payload.size());
  IndexGen::SectionReader reader(block);
  IndexGen::PMTSection pmt;
  EXPECT_EQ(reader.read(pmt), IndexGen::SECTION_GOOD);
  return pmt;
}

// The PMT PID and the video PID of the first program of a stream.
std::pair<uint16_t, uint16_t> program_pids(const std::vector<Packet>& packets) {
  uint16_t pmt_pid = 0;
  for (const Packet& packet : packets) {
    if (packet.record.pid == 0 && pmt_pid == 0) {
      Korvix::Channel::BlockReader block(packet.record.payload.data(), packet.record.payload.size());
      IndexGen::SectionReader reader(block);
      IndexGen::PATSection pat;
      if (reader.read(pat) == IndexGen::SECTION_GOOD && !pat.programs.empty())
        pmt_pid = pat.programs.begin()->second;
    } else if (pmt_pid != 0 && packet.record.pid == pmt_pid) {
      for (const IndexGen::PMTStream& stream : read_pmt(packet.record).streams)
        if (stream.stream_type == 0x02 || stream.stream_type == 0x1B) return {pmt_pid, stream.pid};
    }
  }
  return {pmt_pid, 0};
}

// The recipients' names of the first key list in a stream.
std::vector<std::string> key_list_names(const std::string& stream) {
  std::vector<unsigned char> gathered;
  for (const Packet& packet : packets_of(stream)) {
    if (packet.record.pid != KEY_LIST_PID) continue;
    if (packet.record.payload_unit_start) gathered.clear();
    gathered.insert(gathered.end(), packet.record.payload.begin(), packet.record.payload.end());
    IndexGen::KeyListReader reader;
    IndexGen::KeyList list;
    if (reader.read(gathered.data(), gathered.size(), list) == IndexGen::SECTION_GOOD) {
      std::vector<std::string> names;
      for (const IndexGen::KeyListRecipient& recipient : list.recipients)
        names.push_back(recipient.name);
      return names;
    }
  }
  throw std::runtime_error("no key list");
}

// A small program: PAT, a PMT of MPEG-2 video on 0x100 and audio on 0x101, then packets of a
// PID that no table names, enough for the alignment.
std::string small_program() {
  EncryptedStream stream("");
  stream.pat(1, 0x1000);
  stream.pmt(1, 0x1000, {{0x02, 0x100}, {0x03, 0x101}}, 0, 0, false);
  return stream.encrypted + make_packets(0x1FF0, 1100);
}

// What the indexer says of small_program() behind the stage: the program, its video, and the key
// list that the rewritten PMT announces and that follows it.
const std::string SMALL_PROGRAM_FOUND =
    "PMT on PID: 4096 (program number: 1)\n"
    "Detected MPEG-2 video stream on PID: 256\n"
    "Found CA data for capture on PID: 8190\n"
    "Capturing CA data from PID: 8190\n";

// The closing lines of a run over a stream without PCR and without video.
const std::string CLOSE_WITHOUT_FRAMES =
    "Creating index of 0 blocks\n"
    "Duration:\t-1\tseconds\n"
    "Done\n";

// Messages of the command line.

TEST(EncryptedCopy, APemFileThatCannotBeOpenedIsSaidTwiceAndTheRunGoesOn) {
  Workspace work(make_packets(0x100, 1100));
  RunResult result =
      run_vdxindex({"-e", "out.ts", "-Ee", "missing.pem", "in.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, BANNER + "Indexing in.ts into in.ts.vdx2\n"
                                 "Output index format: VDX2\n"
                                 "Could not open PEM file: missing.pem : " +
                            system_text(ENOENT) +
                            "\n"
                            "Could not read public key: missing.pem\n"
                            "Encrypting to file out.ts\n" +
                            CLOSE_WITHOUT_FRAMES);
  // Without a PAT the copy is the input written again, which here is the input itself.
  EXPECT_TRUE(work.read("out.ts") == work.read("in.ts"));
  EXPECT_TRUE(file_exists(work.dir.file("in.ts.vdx2")));
}

TEST(EncryptedCopy, AFileWithoutACertificateIsSaidOnceAndSkipped) {
  Workspace work(make_packets(0x100, 1100));
  for (const char* name : {"empty", "rsa1024.pub", "rsa1024.key"}) {
    RunResult result = run_vdxindex({"-e", "out.ts", "-Ee", name, "in.ts"}, work.dir.path);
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_EQ(result.err, BANNER + "Indexing in.ts into in.ts.vdx2\n"
                                   "Output index format: VDX2\n"
                                   "Could not read public key: " +
                              name +
                              "\n"
                              "Encrypting to file out.ts\n" +
                              CLOSE_WITHOUT_FRAMES)
        << name;
  }
}

TEST(EncryptedCopy, FailuresAreSaidInTheOrderOfTheFilesAndTheGoodOnesAreKept) {
  Workspace work(small_program());
  RunResult result = run_vdxindex({"-Ee", "one.pem", "-e", "out.ts", "-Ee", "rsa1024.pem", "-Ee",
                                   "empty", "-Ee", "two.pem", "-Ee", "rsa2048.pem", "in.ts"},
                                  work.dir.path);
  EXPECT_EQ(result.status, 0);
  const std::string missing = " : " + system_text(ENOENT) + "\n";
  EXPECT_EQ(result.err, BANNER + "Indexing in.ts into in.ts.vdx2\n"
                                 "Output index format: VDX2\n"
                                 "Could not open PEM file: one.pem" +
                            missing +
                            "Could not read public key: one.pem\n"
                            "Could not read public key: empty\n"
                            "Could not open PEM file: two.pem" +
                            missing +
                            "Could not read public key: two.pem\n"
                            "Encrypting to file out.ts\n" +
                            SMALL_PROGRAM_FOUND + CLOSE_WITHOUT_FRAMES);
  EXPECT_EQ(key_list_names(work.read("out.ts")), (std::vector<std::string>{"A", "Receiver Two"}));
}

TEST(EncryptedCopy, ACertificateWithoutAnRsaKeyIsTakenSilentlyAndLeavesNoRecipient) {
  Workspace work(small_program());
  RunResult result = run_vdxindex({"-e", "out.ts", "-Ee", "ec.pem", "-Ee", "rsa2048.pem", "in.ts"},
                                  work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, BANNER + "Indexing in.ts into in.ts.vdx2\n"
                                 "Output index format: VDX2\n"
                                 "Encrypting to file out.ts\n" +
                            SMALL_PROGRAM_FOUND + CLOSE_WITHOUT_FRAMES);
  EXPECT_EQ(key_list_names(work.read("out.ts")), (std::vector<std::string>{"Receiver Two"}));
}

TEST(EncryptedCopy, AnOutputThatCannotBeOpenedIsSaidAndTheIndexIsMadeAllTheSame) {
  Workspace work(small_program());
  RunResult result = run_vdxindex({"-e", "nowhere/out.ts", "-Ee", "rsa1024.pem", "in.ts", "x.vdx2"},
                                  work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, BANNER + "Indexing in.ts into x.vdx2\n"
                                 "Output index format: VDX2\n"
                                 "Can't open encrypted output file: " +
                            system_text(ENOENT) +
                            "\n"
                                 "Encrypting to file nowhere/out.ts\n" +
                            SMALL_PROGRAM_FOUND + CLOSE_WITHOUT_FRAMES);
  EXPECT_TRUE(file_exists(work.dir.file("x.vdx2")));
  EXPECT_FALSE(file_exists(work.dir.file("nowhere")));
}

TEST(EncryptedCopy, AnExistingOutputIsTruncated) {
  Workspace work(make_packets(0x100, 1100));
  write_file(work.dir.file("out.ts"), std::string(500000, 'x'));
  RunResult result = run_vdxindex({"-q", "-e", "out.ts", "in.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(work.read("out.ts") == work.read("in.ts"));
}

TEST(EncryptedCopy, ALostSynchronisationLeavesInTheCopyWhatWasWritten) {
  // The offset file has the first 500 packets of the input: the 501st has no partner, in the
  // second chunk of the input, so the run ends with status 9; the stage stands behind the
  // offset synchronisation and has written every packet before it.
  const std::string input = make_packets(0x100, 1100);
  Workspace work(input);
  write_file(work.dir.file("off.ts"), input.substr(0, 500 * 188));
  RunResult result = run_vdxindex({"-e", "out.ts", "-O", "off.ts", "in.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 9);
  EXPECT_EQ(result.err, BANNER + "Indexing in.ts into in.ts.vdx2\n"
                                 "Syncing to off.ts for offsets\n"
                                 "Output index format: VDX2\n"
                                 "Encrypting to file out.ts\n"
                                 "Could not synchronise with offset file. Aborting.\n");
  EXPECT_TRUE(work.read("out.ts") == input.substr(0, 500 * 188));
}

TEST(EncryptedCopy, TheKeyAndCertificatesHaveNoEffectWithoutTheCopy) {
  Workspace work(make_packets(0x100, 1100));
  RunResult result = run_vdxindex({"-Ek", "00112233", "-Ee", "missing.pem", "in.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, BANNER + "Indexing in.ts into in.ts.vdx2\n"
                                 "Output index format: VDX2\n" +
                            CLOSE_WITHOUT_FRAMES);
}

// Real streams.

// Whether ffmpeg can be run; in continuous integration it must be.
bool decoder_available() {
  if (!find_program("ffmpeg").empty() && !find_program("ffprobe").empty()) return true;
  if (in_ci()) ADD_FAILURE() << "ffmpeg and ffprobe are needed";
  return false;
}

// The frames a stream decodes to, from the start; its errors must be none.
std::vector<std::string> picture_hashes(const std::string& path) {
  Decoded decoded = decode(path);
  EXPECT_EQ(decoded.status, 0) << path;
  EXPECT_EQ(decoded.errors, "") << path;
  return decoded.hashes;
}

RunResult run_vdxdecrypt(const std::vector<std::string>& args, const std::string& working_dir) {
  RunRequest request;
  request.executable = binary_path("vdxdecrypt");
  request.args = args;
  request.working_dir = working_dir;
  return run_program(request);
}

// The first block of each group of a VDX2 file: one for each frame.
std::vector<Vdx2Block> group_heads(const std::string& bytes) {
  Vdx2File index = parse_vdx2(bytes);
  EXPECT_TRUE(index.valid);
  std::vector<Vdx2Block> heads;
  for (const Vdx2Block& block : index.blocks)
    if (block.index == 0) heads.push_back(block);
  return heads;
}

class EncryptedCopyOfFixture : public testing::TestWithParam<std::string> {};

TEST_P(EncryptedCopyOfFixture, DeciphersWithEitherKeyToTheInputAndIndexesTheSameFrames) {
  const std::string input = read_file(source_path("tests/fixtures/" + GetParam()));
  ASSERT_FALSE(input.empty());
  Workspace work(input);

  const std::vector<Packet> in = packets_of(input);
  const auto [pmt_pid, video_pid] = program_pids(in);
  ASSERT_NE(video_pid, 0);
  // The last video packet is never decided, and nothing behind it leaves the stage: the indexer
  // sees the input cut there.
  size_t tail = in.size();
  while (tail > 0 && in[tail - 1].record.pid != video_pid) --tail;
  ASSERT_GT(tail, 0u);
  --tail;
  std::string cut;
  for (size_t i = 0; i < tail; i++) cut += in[i].bytes;
  write_file(work.dir.file("cut.ts"), cut);

  RunResult plain = run_vdxindex({"in.ts", "plain.vdx2"}, work.dir.path);
  ASSERT_EQ(plain.status, 0) << plain.err;
  RunResult plain_cut = run_vdxindex({"cut.ts", "cut.vdx2"}, work.dir.path);
  ASSERT_EQ(plain_cut.status, 0) << plain_cut.err;
  RunResult result = run_vdxindex(
      {"-e", "copy.ts", "-Ee", "rsa1024.pem", "-Ee", "rsa2048.pem", "-Ek",
       "000102030405060708090a0b0c0d0e0f", "in.ts", "copy.vdx2"},
      work.dir.path);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");

  // The messages of a plain run over the cut input, with the copy announced and the key list
  // found by the indexer behind the PMT that announces it.
  std::vector<std::string> expected_lines;
  for (const std::string& line : split_lines(plain_cut.err)) {
    if (line == "Indexing cut.ts into cut.vdx2") {
      expected_lines.push_back("Indexing in.ts into copy.vdx2");
      continue;
    }
    expected_lines.push_back(line);
    if (line == "Output index format: VDX2") expected_lines.push_back("Encrypting to file copy.ts");
    if (line.rfind("Detected ", 0) == 0) {
      expected_lines.push_back("Found CA data for capture on PID: 8190");
      expected_lines.push_back("Capturing CA data from PID: 8190");
    }
  }
  EXPECT_EQ(split_lines(result.err), expected_lines);

  const std::string copy = work.read("copy.ts");
  size_t key_list_packets = 0;
  size_t enciphered = 0;
  for (const Packet& packet : packets_of(copy)) {
    if (packet.record.pid == KEY_LIST_PID) ++key_list_packets;
    if (packet.record.scrambling_control == 2) ++enciphered;
  }
  EXPECT_EQ(copy.size(), (tail + key_list_packets) * 188);
  EXPECT_GT(enciphered, tail / 2);
  // One insertion behind the first PMT and every 100 packets after it. The list has 29 bytes of
  // atoms and 165 and 304 for the two recipients ("A", 1024 bits; "Receiver Two", 2048 bits):
  // 498, in a block of 511 with pointer_field, header and CRC, so 3 packets.
  size_t first_pmt = 0;
  while (first_pmt < in.size() && in[first_pmt].record.pid != pmt_pid) ++first_pmt;
  const size_t drained = tail - first_pmt;
  EXPECT_EQ(key_list_packets, 3 * ((drained + 99) / 100));

  for (const char* key : {"rsa1024.key", "rsa2048.key"}) {
    SCOPED_TRACE(key);
    RunResult decrypted = run_vdxdecrypt({"-k", key, "copy.ts", "clear.ts"}, work.dir.path);
    ASSERT_EQ(decrypted.status, 0) << decrypted.err;
    EXPECT_EQ(decrypted.err, "");
    std::vector<Packet> out = packets_of(work.read("clear.ts"));
    out.erase(std::remove_if(out.begin(), out.end(),
                             [](const Packet& p) { return p.record.pid == KEY_LIST_PID; }),
              out.end());
    ASSERT_EQ(out.size(), tail);
    size_t differing = 0;
    for (size_t i = 0; i < tail; i++) {
      const IndexGen::TSPacket& want = in[i].record;
      const IndexGen::TSPacket& got = out[i].record;
      ASSERT_EQ(got.pid, want.pid) << i;
      EXPECT_EQ(got.scrambling_control, 0) << i;
      // A packet without payload is written with the counter field 0.
      if (!want.payload.empty()) {
        EXPECT_EQ(got.continuity_counter, want.continuity_counter) << i;
      }
      EXPECT_EQ(got.payload_unit_start, want.payload_unit_start) << i;
      if (want.pid == pmt_pid) {
        // The PMT announces the key list: a CA descriptor 4B 4C on 8190 and its stream entry.
        IndexGen::PMTSection before = read_pmt(want);
        IndexGen::PMTSection after = read_pmt(got);
        ASSERT_EQ(after.streams.size(), before.streams.size() + 1) << i;
        EXPECT_EQ(after.streams.back().stream_type, 5);
        EXPECT_EQ(after.streams.back().pid, KEY_LIST_PID);
        ASSERT_EQ(after.descriptors.size(), before.descriptors.size() + 1) << i;
        EXPECT_EQ(after.descriptors.back().tag, 9);
        EXPECT_EQ(after.descriptors.back().data,
                  (std::vector<unsigned char>{0x4B, 0x4C, 0xFF, 0xFE}));
        continue;
      }
      EXPECT_TRUE(std::equal(got.payload.begin(), got.payload.end(), want.payload.begin(),
                             want.payload.end()))
          << i;
      // The PCR in seconds, written back truncated to ticks, may lose one tick.
      EXPECT_NEAR(got.pcr, want.pcr, 1.5 / 27000000.0) << i;
      EXPECT_EQ(got.random_access, want.random_access) << i;
      EXPECT_EQ(got.discontinuity, want.discontinuity) << i;
      // Byte for byte, but for adaptation field bytes that the record doesn't carry.
      EXPECT_TRUE(out[i].bytes == rewritten(want)) << i;
      if (out[i].bytes != in[i].bytes) ++differing;
    }
    EXPECT_LT(differing, tail / 10);

    // The decoder takes the clear stream without a word, and gives the pictures of the input
    // cut where the copy ends.
    if (!decoder_available()) continue;
    const std::vector<std::string> hashes = picture_hashes(work.dir.file("clear.ts"));
    EXPECT_GT(hashes.size(), 10u);
    EXPECT_EQ(hashes, picture_hashes(work.dir.file("cut.ts")));
  }

  // The index of the copy's run has the frames of a plain run over the cut input, at the offsets
  // of the input and at the same times; a plain run over the whole input has only more frames at
  // its end. A frame is a group of blocks; the copy's groups hold more bytes (the key list's
  // packet and the longer PMT go ahead of each frame), so only their heads compare.
  const std::vector<Vdx2Block> plain_frames = group_heads(work.read("plain.vdx2"));
  const std::vector<Vdx2Block> cut_frames = group_heads(work.read("cut.vdx2"));
  const std::vector<Vdx2Block> copy_frames = group_heads(work.read("copy.vdx2"));
  ASSERT_GT(copy_frames.size(), 3u);
  ASSERT_EQ(copy_frames.size(), cut_frames.size());
  ASSERT_LE(copy_frames.size(), plain_frames.size());
  for (size_t i = 0; i < copy_frames.size(); i++) {
    EXPECT_EQ(copy_frames[i].offset, cut_frames[i].offset) << i;
    EXPECT_EQ(copy_frames[i].npt, cut_frames[i].npt) << i;
    EXPECT_EQ(copy_frames[i].flags, cut_frames[i].flags) << i;
    EXPECT_EQ(copy_frames[i].offset, plain_frames[i].offset) << i;
    EXPECT_EQ(copy_frames[i].npt, plain_frames[i].npt) << i;
  }
  for (size_t i = copy_frames.size(); i < plain_frames.size(); i++)
    EXPECT_GE(plain_frames[i].offset, in[tail].record.offset) << i;

  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(work.dir.path))
    names.insert(entry.path().filename().string());
  EXPECT_EQ(names, (std::set<std::string>{"in.ts", "plain.vdx2", "cut.ts", "cut.vdx2", "copy.ts", "copy.vdx2",
                                          "clear.ts", "rsa1024.pem", "rsa2048.pem",
                                          "ec.pem", "rsa1024.key", "rsa2048.key", "empty",
                                          "rsa1024.pub"}));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, EncryptedCopyOfFixture,
                         testing::Values("mpeg2_bframes.ts", "h264_aud.ts"),
                         [](const testing::TestParamInfo<std::string>& info) {
                           std::string name = info.param.substr(0, info.param.find('.'));
                           name.erase(std::remove(name.begin(), name.end(), '_'), name.end());
                           return name;
                         });

TEST(EncryptedCopy, WithoutAKeyTheContentKeyIsZeroAndAShortKeyIsFilledWithZeros) {
  const std::string input = read_file(source_path("tests/fixtures/mpeg2_bframes.ts"));
  Workspace work(input);
  for (const auto& [key_args, hex] :
       std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{}, "00000000000000000000000000000000"},
           {{"-Ek", "a1B2"}, "a1b20000000000000000000000000000"}}) {
    std::vector<std::string> args = {"-q", "-e", "copy.ts"};
    args.insert(args.end(), key_args.begin(), key_args.end());
    args.push_back("in.ts");
    RunResult result = run_vdxindex(args, work.dir.path);
    ASSERT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    RunResult decrypted = run_vdxdecrypt({"-K", hex, "copy.ts", "clear.ts"}, work.dir.path);
    EXPECT_EQ(decrypted.status, 0) << hex << decrypted.err;
    EXPECT_EQ(decrypted.err, "") << hex;
    EXPECT_EQ(key_list_names(work.read("copy.ts")), std::vector<std::string>{});
  }
}

}  // namespace
}  // namespace Veldrin::Testing
