#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/replay_support.h"
#include "e2e/tool_runner.h"
#include "encryption/decrypt_command.h"
#include "foundation/channel/block_reader.h"
#include "support/encrypted_stream.h"
#include "support/key_material.h"
#include "transport/section_reader.h"
#include "transport/ts_reader.h"

namespace Veldrin::Testing {
namespace {

const std::string KEY_HEX = "000102030405060708090a0b0c0d0e0f";
constexpr uint16_t PMT_PID = 0x1000;
constexpr uint16_t VIDEO = 0x100;
constexpr uint16_t AUDIO = 0x101;
constexpr uint16_t KEY_LIST = 8190;

std::string program() {
  return binary_path("vdxdecrypt");
}

RunResult run_vdxdecrypt(const std::vector<std::string>& args, const std::string& working_dir = "",
                         const std::optional<std::string>& input = std::nullopt) {
  RunRequest request;
  request.executable = program();
  request.args = args;
  request.working_dir = working_dir;
  request.input = input;
  return run_program(request);
}

std::string usage() {
  std::ostringstream text;
  Veldrin::IndexGen::decrypt_usage(text, program());
  return text.str();
}

const KeyMaterial& material() {
  return KeyMaterial::get();
}

Korvix::Crypto::Certificate certificate(const std::string& name) {
  Korvix::Crypto::Certificate certificate;
  certificate.read_pem(material().text(name));
  return certificate;
}

// The files of a directory, by name.
std::set<std::string> files_in(const ScratchDir& dir) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path))
    names.insert(entry.path().filename().string());
  return names;
}

// A synthetic encrypted copy with two recipients, "A" (1024 bits) and "Receiver Two" (2048).
EncryptedStream synthetic(bool with_audio = true) {
  EncryptedStream stream(KEY_HEX, {certificate("rsa1024.pem"), certificate("rsa2048.pem")});
  stream.pat(1, PMT_PID);
  stream.pmt(1, PMT_PID, {{0x02, VIDEO}, {0x03, AUDIO}}, KEY_LIST);
  stream.key_list(KEY_LIST);
  for (uint8_t i = 0; i < 5; i++) {
    stream.add({VIDEO, true, static_cast<uint8_t>(3 * i), 0, pcr_field(3000u * i, 0, {0x42}),
                pes_payload(170, 0xE0, i)});
    stream.add_enciphered({VIDEO, false, static_cast<uint8_t>(3 * i + 1), 0, {}, data_payload(184, i)});
    stream.add_enciphered({VIDEO, false, static_cast<uint8_t>(3 * i + 2), 0,
                           pcr_field(3000u * i + 1500, 7), data_payload(120, i)});
    if (with_audio)
      stream.add_enciphered({AUDIO, true, i, 0, {}, pes_payload(184, 0xC0, i)});
  }
  return stream;
}

// A directory holding the encrypted copy as in.ts and the private keys.
struct Workspace {
  ScratchDir dir;
  EncryptedStream stream = synthetic();

  Workspace() {
    write_file(dir.file("in.ts"), stream.encrypted);
    write_file(dir.file("a.key"), material().text("rsa1024.key"));
    write_file(dir.file("two.key"), material().text("rsa2048.key"));
  }
};

// Command line.

TEST(VdxDecrypt, HelpPrintsTheUsageOnStandardOutput) {
  for (const std::string option : {"--help", "-?"}) {
    RunResult result = run_vdxdecrypt({option});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, usage());
    EXPECT_EQ(result.err, "");
  }
  EXPECT_EQ(usage().rfind("Usage:\n  " + program() + " -k KEY.pem [-n NAME] ENCRYPTED.ts CLEAR.ts\n",
                          0),
            0u);
}

TEST(VdxDecrypt, TheUsageNamesEveryOptionAndStatus) {
  const std::string text = usage();
  for (const std::string word :
       {"-?  --help", "-k  --private-key FILE", "-n  --name NAME", "-K  --key HEX",
        "-l  --list", "Exit status: 0 done; 1 bad command line; 2 a file", "7 the -k"})
    EXPECT_NE(text.find(word), std::string::npos) << word;
}

TEST(VdxDecrypt, NoArgumentsPrintTheUsageOnStandardError) {
  RunResult result = run_vdxdecrypt({});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, usage());
}

TEST(VdxDecrypt, AnUnknownOptionIsSaidAndTheUsageFollows) {
  RunResult result = run_vdxdecrypt({"-z", "in.ts", "out.ts"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, program() + ": unknown option -z\n" + usage());
}

TEST(VdxDecrypt, BadCommandLinesAreSaid) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"in.ts", "out.ts"}, "a key is needed: -k KEY.pem or -K HEX"},
      {{"-k"}, "-k needs the file of the private key"},
      {{"in.ts", "--private-key"}, "--private-key needs the file of the private key"},
      {{"-k", "a.key", "-n"}, "-n needs a name"},
      {{"-K"}, "-K needs the key in hexadecimal"},
      {{"-k", "a.key", "-K", KEY_HEX, "in.ts", "out.ts"}, "-k and -K exclude each other"},
      {{"-n", "A", "-K", KEY_HEX, "in.ts", "out.ts"}, "-n names a recipient for -k"},
      {{"-K", "00112233445566778899aabbccddeeff00", "in.ts", "out.ts"},
       "-K needs 1 to 32 hexadecimal digits, not \"00112233445566778899aabbccddeeff00\""},
      {{"-K", "0x12", "in.ts", "out.ts"}, "-K needs 1 to 32 hexadecimal digits, not \"0x12\""},
      {{"-K", "", "in.ts", "out.ts"}, "-K needs 1 to 32 hexadecimal digits, not \"\""},
      {{"-k", "a.key", "in.ts"}, "the encrypted stream and the file for the clear stream are needed"},
      {{"-k", "a.key", "in.ts", "out.ts", "more.ts"}, "too many files: more.ts"},
      {{"-l"}, "-l takes one encrypted stream"},
      {{"-l", "in.ts", "out.ts"}, "-l takes one encrypted stream"},
      {{"-l", "-k", "a.key", "in.ts"}, "-l deciphers nothing and takes no -k, -n or -K"},
  };
  for (const auto& [args, message] : cases) {
    ScratchDir dir;
    RunResult result = run_vdxdecrypt(args, dir.path);
    EXPECT_EQ(result.status, 1) << message;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, program() + ": " + message + "\n");
    EXPECT_TRUE(files_in(dir).empty()) << message;
  }
}

TEST(VdxDecrypt, DoubleDashEndsTheOptions) {
  Workspace work;
  write_file(work.dir.file("-in.ts"), work.stream.encrypted);
  RunResult result = run_vdxdecrypt({"-K", KEY_HEX, "--", "-in.ts", "-out.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(read_file(work.dir.file("-out.ts")), work.stream.expected);
}

// Deciphering.

TEST(VdxDecrypt, EachPrivateKeyWritesTheClearStreamAndNothingElse) {
  for (const std::string key : {"a.key", "two.key"}) {
    Workspace work;
    RunResult result = run_vdxdecrypt({"-k", key, "in.ts", "out.ts"}, work.dir.path);
    EXPECT_EQ(result.status, 0) << key;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(read_file(work.dir.file("out.ts")), work.stream.expected) << key;
    EXPECT_EQ(files_in(work.dir),
              std::set<std::string>({"in.ts", "out.ts", "a.key", "two.key"}));
  }
}

TEST(VdxDecrypt, ANamedRecipient) {
  Workspace work;
  RunResult result =
      run_vdxdecrypt({"--private-key", "two.key", "--name", "Receiver Two", "in.ts", "out.ts"},
                     work.dir.path);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(read_file(work.dir.file("out.ts")), work.stream.expected);
}

TEST(VdxDecrypt, TheContentKeyInHexadecimal) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"--key", "000102030405060708090A0B0C0D0E0F", "in.ts", "out.ts"},
                                    work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(read_file(work.dir.file("out.ts")), work.stream.expected);
}

TEST(VdxDecrypt, AShortContentKeyHasZerosBehindItsDigits) {
  ScratchDir dir;
  EncryptedStream stream("0102", {});
  stream.add_enciphered({AUDIO, true, 0, 0, {}, pes_payload(184, 0xC0)});
  write_file(dir.file("in.ts"), stream.encrypted);
  RunResult result = run_vdxdecrypt({"-K", "0102", "in.ts", "out.ts"}, dir.path);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(read_file(dir.file("out.ts")), stream.expected);
  result = run_vdxdecrypt({"-K", "0102" + std::string(28, '0'), "in.ts", "again.ts"}, dir.path);
  EXPECT_EQ(read_file(dir.file("again.ts")), stream.expected);
}

TEST(VdxDecrypt, StandardInputToStandardOutput) {
  Workspace work;
  RunResult result =
      run_vdxdecrypt({"-k", "a.key", "-", "-"}, work.dir.path, work.stream.encrypted);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, work.stream.expected);
  EXPECT_EQ(files_in(work.dir), std::set<std::string>({"in.ts", "a.key", "two.key"}));
}

TEST(VdxDecrypt, TheOutputFileGetsTheModesOfAnyNewFile) {
  Workspace work;
  ASSERT_TRUE(write_file(work.dir.file("plain"), "x"));
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "out.ts"}, work.dir.path);
  ASSERT_EQ(result.status, 0);
  struct stat plain;
  struct stat out;
  ASSERT_EQ(stat(work.dir.file("plain").c_str(), &plain), 0);
  ASSERT_EQ(stat(work.dir.file("out.ts").c_str(), &out), 0);
  EXPECT_EQ(out.st_mode & 0777, plain.st_mode & 0777);
}

TEST(VdxDecrypt, AnExistingOutputIsReplaced) {
  Workspace work;
  write_file(work.dir.file("out.ts"), "old");
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "out.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(read_file(work.dir.file("out.ts")), work.stream.expected);
}

TEST(VdxDecrypt, TheInputMayBeTheOutput) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "in.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(read_file(work.dir.file("in.ts")), work.stream.expected);
}

TEST(VdxDecrypt, AContentKeyThatCantBeCheckedIsWarnedAbout) {
  ScratchDir dir;
  EncryptedStream stream = synthetic(false);
  write_file(dir.file("in.ts"), stream.encrypted);
  RunResult result = run_vdxdecrypt({"-K", KEY_HEX, "in.ts", "out.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, program() +
                            ": warning: the key could not be checked: no enciphered packet starts "
                            "a PES packet\n");
  EXPECT_EQ(read_file(dir.file("out.ts")), stream.expected);
}

// Listing.

const std::string LISTING =
    "Key list on PID 8190, announced by the PMT of program 1 on PID 4096\n"
    "Key list version 1\n"
    "Content cipher: AES-128\n"
    "Recipients: 2\n"
    "  1. \"A\": RSA-1024 key, content key wrapped in 128 bytes\n"
    "  2. \"Receiver Two\": RSA-2048 key, content key wrapped in 256 bytes\n";

TEST(VdxDecrypt, ListShowsTheKeyListAndWritesNothing) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"-l", "in.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, LISTING);
  EXPECT_EQ(files_in(work.dir), std::set<std::string>({"in.ts", "a.key", "two.key"}));
}

TEST(VdxDecrypt, ListFromStandardInput) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"--list", "-"}, work.dir.path, work.stream.encrypted);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, LISTING);
}

TEST(VdxDecrypt, ListOfAKeyListWithoutRecipients) {
  ScratchDir dir;
  EncryptedStream stream(KEY_HEX);
  stream.pat(1, PMT_PID);
  stream.pmt(1, PMT_PID, {{0x1B, VIDEO}}, 8189);
  stream.key_list(8189);
  write_file(dir.file("in.ts"), stream.encrypted);
  RunResult result = run_vdxdecrypt({"-l", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "Key list on PID 8189, announced by the PMT of program 1 on PID 4096\n"
            "Key list version 1\n"
            "Content cipher: AES-128\n"
            "Recipients: none\n");
}

// Failures: a message, a status, and no file left behind.

void expect_failure(const Workspace& work, const RunResult& result, int status,
                    const std::string& message) {
  EXPECT_EQ(result.status, status) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, program() + ": " + message + "\n");
  std::set<std::string> files = files_in(work.dir);
  files.erase("out.ts.keep");
  EXPECT_EQ(files.count("out.ts"), 0u);
  for (const std::string& name : files) EXPECT_EQ(name.find(".part."), std::string::npos) << name;
}

TEST(VdxDecryptFailure, AnInputThatDoesNotExist) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"-k", "a.key", "missing.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 2, "can't open missing.ts: No such file or directory");
}

TEST(VdxDecryptFailure, AnInputThatIsADirectory) {
  Workspace work;
  std::filesystem::create_directory(work.dir.file("sub"));
  RunResult result = run_vdxdecrypt({"-K", KEY_HEX, "sub", "out.ts"}, work.dir.path);
  expect_failure(work, result, 2, "can't open sub: Is a directory");
}

TEST(VdxDecryptFailure, AnOutputInADirectoryThatDoesNotExist) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "nowhere/out.ts"}, work.dir.path);
  expect_failure(work, result, 2, "can't create nowhere/out.ts: No such file or directory");
}

TEST(VdxDecryptFailure, AnOutputThatIsADirectory) {
  Workspace work;
  std::filesystem::create_directory(work.dir.file("sub"));
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "sub"}, work.dir.path);
  expect_failure(work, result, 2, "can't write sub: Is a directory");
}

TEST(VdxDecryptFailure, AKeyFileThatDoesNotExist) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"-k", "none.key", "in.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 2, "can't open none.key: No such file or directory");
}

TEST(VdxDecryptFailure, AKeyFileWithoutAnRsaPrivateKey) {
  Workspace work;
  const std::string tail =
      " holds no RSA private key (a certificate or public key is not enough, and an enciphered "
      "key must be deciphered first)";
  for (const std::string file : {"rsa1024.pem", "rsa1024.pub", "ec.key", "rsa1024.des3", "empty"}) {
    write_file(work.dir.file(file), material().text(file));
    RunResult result = run_vdxdecrypt({"-k", file, "in.ts", "out.ts"}, work.dir.path);
    expect_failure(work, result, 7, file + tail);
  }
}

TEST(VdxDecryptFailure, APrivateKeyOfNoRecipient) {
  Workspace work;
  write_file(work.dir.file("other.key"),
             material().openssl({"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024"}));
  RunResult result = run_vdxdecrypt({"-k", "other.key", "in.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 6,
                 "in.ts: wrong key: the private key unwraps the content key for no recipient of "
                 "the key list on PID 8190 (it names \"A\", \"Receiver Two\")");
}

TEST(VdxDecryptFailure, ANameOfNoRecipient) {
  Workspace work;
  RunResult result =
      run_vdxdecrypt({"-k", "a.key", "-n", "B", "in.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 6,
                 "in.ts: no recipient of the key list on PID 8190 is named \"B\" (it names \"A\", "
                 "\"Receiver Two\")");
}

TEST(VdxDecryptFailure, AWrongContentKey) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"-K", "ff", "in.ts", "out.ts"}, work.dir.path);
  // PAT, PMT, three packets of key list, then three of video ahead of the audio.
  expect_failure(work, result, 6,
                 "in.ts: wrong key: the enciphered packet at byte 1504 (PID 257) starts a PES "
                 "packet but doesn't decipher to its start code 00 00 01");
}

TEST(VdxDecryptFailure, AFailureLeavesAnExistingOutputAsItWas) {
  Workspace work;
  write_file(work.dir.file("out.ts"), "old");
  RunResult result = run_vdxdecrypt({"-K", "ff", "in.ts", "out.ts"}, work.dir.path);
  EXPECT_EQ(result.status, 6);
  EXPECT_EQ(read_file(work.dir.file("out.ts")), "old");
}

TEST(VdxDecryptFailure, NoKeyList) {
  Workspace work;
  EncryptedStream stream(KEY_HEX);
  stream.pat(1, PMT_PID);
  stream.pmt(1, PMT_PID, {{0x02, VIDEO}}, KEY_LIST, 0, false);
  stream.add({VIDEO, true, 0, 0, {}, pes_payload(184, 0xE0)});
  write_file(work.dir.file("in.ts"), stream.encrypted);
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 4,
                 "in.ts: no key list: the PMT of program 1 (PID 4096) has no CA descriptor with "
                 "CA_system_ID 0x4B4C");
  result = run_vdxdecrypt({"-l", "in.ts"}, work.dir.path);
  expect_failure(work, result, 4,
                 "in.ts: no key list: the PMT of program 1 (PID 4096) has no CA descriptor with "
                 "CA_system_ID 0x4B4C");
}

TEST(VdxDecryptFailure, NoPatOnStandardInput) {
  Workspace work;
  RunResult result = run_vdxdecrypt({"-k", "a.key", "-", "out.ts"}, work.dir.path,
                                    work.stream.encrypted.substr(188 * 5));
  expect_failure(work, result, 4, "standard input: no key list: no PAT");
}

TEST(VdxDecryptFailure, ADamagedKeyList) {
  Workspace work;
  EncryptedStream stream(KEY_HEX, {certificate("rsa1024.pem")});
  stream.pat(1, PMT_PID);
  stream.pmt(1, PMT_PID, {{0x03, AUDIO}}, KEY_LIST);
  StreamBytes list = stream.list();
  list[40] ^= 0x01;
  stream.key_list(KEY_LIST, list);
  stream.add_enciphered({AUDIO, true, 0, 0, {}, pes_payload(184, 0xC0)});
  write_file(work.dir.file("in.ts"), stream.encrypted);
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 5,
                 "in.ts: damaged key list on PID 8190: the CRC doesn't match the section's bytes");
  result = run_vdxdecrypt({"-l", "in.ts"}, work.dir.path);
  expect_failure(work, result, 5,
                 "in.ts: damaged key list on PID 8190: the CRC doesn't match the section's bytes");
}

TEST(VdxDecryptFailure, AStreamWhoseLastPacketIsCutShort) {
  Workspace work;
  write_file(work.dir.file("in.ts"),
             work.stream.encrypted.substr(0, work.stream.encrypted.size() - 10));
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 3,
                 "in.ts: cut short: the last packet, at byte " +
                     std::to_string(work.stream.encrypted.size() - 188) +
                     ", has 178 of its 188 bytes");
}

TEST(VdxDecryptFailure, AStreamThatLosesSync) {
  Workspace work;
  write_file(work.dir.file("in.ts"), "xyz" + work.stream.encrypted);
  RunResult result = run_vdxdecrypt({"-K", KEY_HEX, "in.ts", "out.ts"}, work.dir.path);
  expect_failure(work, result, 3,
                 "in.ts: no sync byte (0x47) at byte 0: not a stream of 188-byte transport "
                 "packets");
}

TEST(VdxDecryptFailure, AKeyListThatDoesNotComeWithinThirtyTwoMebibytesIsNotWaitedFor) {
  Workspace work;
  // PAT and PMT, then clear video for more than 32 MiB, then the key list and the rest.
  const std::string& whole = work.stream.encrypted;
  const std::string filler =
      raw_packet({VIDEO, false, 0, 0, {}, data_payload(184)});
  const size_t packets = (size_t{32} << 20) / 188 + 10;
  std::string late = whole.substr(0, 2 * 188);
  late.reserve(late.size() + packets * 188 + whole.size());
  for (size_t i = 0; i < packets; i++) late += filler;
  late += whole.substr(2 * 188);
  write_file(work.dir.file("in.ts"), late);
  RunResult result = run_vdxdecrypt({"-k", "a.key", "in.ts", "out.ts"}, work.dir.path);
  // The first whole packet that reaches 33,554,432 bytes is the 178,482nd.
  expect_failure(work, result, 4,
                 "in.ts: no key list in the first 33554616 bytes: no key list section on PID "
                 "8190");
}

// A real stream, enciphered here the way the encrypted copy does it: the PMT announces the key
// list, which follows each PMT; audio is enciphered whole, video in the packets that don't start
// a PES packet.
struct RealStream {
  std::string encrypted;
  std::string expected;  // the encrypted copy with every enciphered packet in clear
  std::string original;  // the fixture
  size_t enciphered = 0;
};

RealStream encipher_fixture(const std::string& name) {
  using namespace Veldrin::IndexGen;
  RealStream real;
  real.original = read_file(source_path("tests/fixtures/" + name));
  EncryptedStream stream(KEY_HEX, {certificate("rsa1024.pem"), certificate("rsa2048.pem")});
  std::set<uint16_t> audio;
  std::set<uint16_t> video;
  uint16_t pmt_pid = 0;
  for (size_t at = 0; at + 188 <= real.original.size(); at += 188) {
    const std::string bytes = real.original.substr(at, 188);
    const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
    Korvix::Channel::BlockReader block(raw, 188);
    TSReader reader(block);
    TSPacket header;
    int32_t payload_length = 0;
    if (!reader.read_header(header, payload_length) || payload_length < 0)
      throw std::runtime_error("unreadable packet in " + name);
    const StreamBytes payload(raw + 188 - payload_length, raw + 188);

    if (header.pid == 0 && pmt_pid == 0) {
      Korvix::Channel::BlockReader section(payload.data(), payload.size());
      SectionReader sections(section);
      PATSection pat;
      if (sections.read(pat) == SECTION_GOOD && !pat.programs.empty())
        pmt_pid = pat.programs.begin()->second;
    }
    if (header.pid == pmt_pid && pmt_pid != 0 && header.payload_unit_start) {
      Korvix::Channel::BlockReader section(payload.data(), payload.size());
      SectionReader sections(section);
      PMTSection pmt;
      if (sections.read(pmt) != SECTION_GOOD) throw std::runtime_error("PMT of " + name);
      std::vector<std::pair<uint8_t, uint16_t>> streams;
      for (const PMTStream& entry : pmt.streams) {
        streams.emplace_back(entry.stream_type, entry.pid);
        if (entry.stream_type == 0x02 || entry.stream_type == 0x1B) video.insert(entry.pid);
        if (entry.stream_type == 0x03 || entry.stream_type == 0x04 || entry.stream_type == 0x0F)
          audio.insert(entry.pid);
      }
      stream.pmt(pmt.id, pmt_pid, streams, KEY_LIST, static_cast<uint8_t>(header.continuity_counter));
      stream.key_list(KEY_LIST);
      continue;
    }
    const bool encipher =
        audio.count(header.pid) > 0 || (video.count(header.pid) > 0 && !header.payload_unit_start);
    if (!encipher) {
      stream.encrypted += bytes;
      stream.expected += bytes;
      continue;
    }
    // Enciphered in the raw bytes, so that every other byte stays as the fixture has it.
    std::string enciphered = bytes;
    auto* data = reinterpret_cast<unsigned char*>(enciphered.data());
    stream.cipher.encrypt(data + 188 - payload_length, payload_length / 16 * 16, true);
    data[3] = static_cast<unsigned char>((data[3] & 0x3F) | 0x80);
    stream.encrypted += enciphered;
    stream.expected += bytes;
    real.enciphered++;
  }
  real.encrypted = stream.encrypted;
  real.expected = stream.expected;
  return real;
}

// The decoder's frame hashes of every stream of a file; its error output must be empty.
std::string frame_hashes(const std::string& path) {
  RunRequest request;
  request.executable = find_program("ffmpeg");
  request.args = {"-nostdin", "-v", "error", "-i", path, "-map", "0:v", "-map", "0:a",
                  "-f",       "framemd5", "-"};
  RunResult result = run_program(request);
  EXPECT_EQ(result.status, 0) << path;
  EXPECT_EQ(result.err, "") << path;
  std::string hashes;
  for (const std::string& line : split_lines(result.out))
    if (!line.empty() && line[0] != '#') hashes += line + "\n";
  return hashes;
}

class VdxDecryptReal : public testing::TestWithParam<std::string> {};

TEST_P(VdxDecryptReal, AnEncipheredFixtureComesBackWholeAndDecodes) {
  VDX_REQUIRE_FFMPEG();
  RealStream real = encipher_fixture(GetParam());
  ASSERT_GT(real.enciphered, 100u);
  ScratchDir dir;
  write_file(dir.file("in.ts"), real.encrypted);
  write_file(dir.file("two.key"), material().text("rsa2048.key"));
  RunResult result = run_vdxdecrypt({"-k", "two.key", "in.ts", "out.ts"}, dir.path);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const std::string out = read_file(dir.file("out.ts"));
  ASSERT_EQ(out.size(), real.expected.size());
  EXPECT_TRUE(out == real.expected);
  // The same frames as the fixture itself gives.
  write_file(dir.file("original.ts"), real.original);
  const std::string hashes = frame_hashes(dir.file("original.ts"));
  EXPECT_FALSE(hashes.empty());
  EXPECT_EQ(frame_hashes(dir.file("out.ts")), hashes);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, VdxDecryptReal,
                         testing::Values("mpeg2_bframes.ts", "h264_aud.ts"),
                         [](const testing::TestParamInfo<std::string>& info) {
                           std::string name = info.param.substr(0, info.param.find('.'));
                           name.erase(std::remove(name.begin(), name.end(), '_'), name.end());
                           return name;
                         });

}  // namespace
}  // namespace Veldrin::Testing
