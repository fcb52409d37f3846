#include "encryption/stream_decryptor.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "foundation/channel/string_writer.h"
#include "support/encrypted_stream.h"
#include "support/key_material.h"

namespace Veldrin::IndexGen {
namespace {

using Korvix::Crypto::AESKey;
using Korvix::Crypto::Certificate;
using Korvix::Crypto::RSAKey;
using Veldrin::Testing::data_payload;
using Veldrin::Testing::EncryptedStream;
using Veldrin::Testing::KeyMaterial;
using Veldrin::Testing::pcr_field;
using Veldrin::Testing::pes_payload;
using Veldrin::Testing::RawPacket;
using Veldrin::Testing::StreamBytes;

const std::string KEY_HEX = "000102030405060708090a0b0c0d0e0f";
constexpr uint16_t PMT_PID = 0x1000;
constexpr uint16_t VIDEO = 0x100;
constexpr uint16_t AUDIO = 0x101;
constexpr uint16_t KEY_LIST = 8190;

const KeyMaterial& material() {
  return KeyMaterial::get();
}

Certificate certificate(const std::string& name) {
  Certificate certificate;
  certificate.read_pem(material().text(name));
  return certificate;
}

RSAKey private_key(const std::string& name) {
  RSAKey key(true);
  key.read_pem(material().text(name));
  EXPECT_TRUE(key.valid);
  return key;
}

AESKey content_key(const std::string& hex = KEY_HEX) {
  AESKey key;
  key.read_hex(hex);
  return key;
}

EncryptedStream two_recipients() {
  return EncryptedStream(KEY_HEX, {certificate("rsa1024.pem"), certificate("rsa2048.pem")});
}

void program_tables(EncryptedStream& stream) {
  stream.pat(1, PMT_PID);
  stream.pmt(1, PMT_PID, {{0x02, VIDEO}, {0x03, AUDIO}}, KEY_LIST);
}

// Video and audio as the encrypted copy leaves them: a clear video packet with a PES header, a
// PCR and private data in its adaptation field; enciphered video behind it, with and without
// adaptation fields; enciphered audio that starts PES packets, of full and short payloads.
void media(EncryptedStream& stream, uint8_t round = 0) {
  const auto cc = static_cast<uint8_t>(4 * round);
  stream.add({VIDEO, true, cc, 0, pcr_field(90000u * round, 12, {0xDE, 0xAD, 0xBE}, true),
              pes_payload(160, 0xE0, round)});
  stream.add_enciphered({VIDEO, false, static_cast<uint8_t>(cc + 1), 0, {}, data_payload(184, round)});
  stream.add_enciphered({VIDEO, false, static_cast<uint8_t>(cc + 2), 0,
                         pcr_field(90000u * round + 3000, 0x1FF, {0x01, 0x02}),
                         data_payload(150, static_cast<unsigned char>(round + 1))});
  stream.add_enciphered({AUDIO, true, static_cast<uint8_t>(2 * round), 0, {}, pes_payload(184, 0xC0, round)});
  stream.add_enciphered({AUDIO, false, static_cast<uint8_t>(2 * round + 1), 0, {}, data_payload(15)});
  stream.add_enciphered({AUDIO, false, static_cast<uint8_t>(2 * round + 1), 0, {}, {}});
  stream.add_enciphered({VIDEO, false, static_cast<uint8_t>(cc + 3), 0, {0x00, 0x99}, data_payload(100)});
}

EncryptedStream standard_stream() {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  stream.key_list(KEY_LIST);
  for (uint8_t round = 0; round < 3; round++) media(stream, round);
  return stream;
}

struct Fed {
  bool fed = true;
  bool finished = false;
  std::string output;
};

// Feeds the stream in chunks of the given size and finishes.
Fed run(StreamDecryptor& decryptor, const std::string& stream, size_t chunk = 65536) {
  Fed result;
  std::vector<unsigned char> bytes(stream.begin(), stream.end());
  for (size_t at = 0; at < bytes.size() && result.fed; at += chunk) {
    const size_t count = std::min(chunk, bytes.size() - at);
    result.fed = decryptor.feed(bytes.data() + at, count);
  }
  result.finished = decryptor.finish();
  return result;
}

// What a run with a private key came to.
struct Outcome {
  std::string output;
  bool finished = false;
  DecryptStatus status = DECRYPT_DONE;
  std::string message;
  std::optional<size_t> recipient;
  uint64_t deciphered = 0;
  uint64_t packets = 0;
  bool key_checked = false;
  std::optional<KeyList> key_list;
  uint16_t key_list_pid = 0;
};

Outcome with_private_key(const std::string& stream, const std::string& key_file,
                         std::optional<std::string> name = std::nullopt, size_t chunk = 65536,
                         uint64_t hold_limit = StreamDecryptor::DEFAULT_HOLD_LIMIT) {
  Outcome outcome;
  Korvix::Channel::StringWriter writer(outcome.output);
  StreamDecryptor decryptor(private_key(key_file), std::move(name), writer);
  decryptor.hold_limit = hold_limit;
  outcome.finished = run(decryptor, stream, chunk).finished;
  outcome.status = decryptor.status;
  outcome.message = decryptor.message;
  outcome.recipient = decryptor.recipient;
  outcome.deciphered = decryptor.deciphered;
  outcome.packets = decryptor.packets;
  outcome.key_checked = decryptor.key_checked;
  outcome.key_list = decryptor.key_list;
  outcome.key_list_pid = decryptor.key_list_pid;
  return outcome;
}

// Where the payload of a raw packet starts.
size_t payload_start(const std::string& stream, size_t packet) {
  const auto control = static_cast<unsigned char>(stream[packet + 3]);
  if ((control & 0x20) == 0) return 4;
  return 5 + static_cast<unsigned char>(stream[packet + 4]);
}

TEST(StreamDecryptor, PrivateKeyGivesBackTheClearStreamByteForByte) {
  EncryptedStream stream = standard_stream();
  ASSERT_NE(stream.encrypted, stream.expected);
  Outcome got = with_private_key(stream.encrypted, "rsa1024.key");
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
  EXPECT_EQ(got.status, DECRYPT_DONE);
  EXPECT_EQ(got.recipient, 0u);
  EXPECT_EQ(got.deciphered, 18u);
  EXPECT_EQ(got.packets, stream.encrypted.size() / 188);
  EXPECT_TRUE(got.key_checked);
  EXPECT_EQ(got.key_list_pid, KEY_LIST);
}

TEST(StreamDecryptor, EachRecipientsPrivateKeyDeciphers) {
  EncryptedStream stream = standard_stream();
  Outcome got = with_private_key(stream.encrypted, "rsa2048.key");
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
  EXPECT_EQ(got.recipient, 1u);
}

TEST(StreamDecryptor, ANameChoosesTheRecipient) {
  EncryptedStream stream = standard_stream();
  Outcome got = with_private_key(stream.encrypted, "rsa2048.key", std::string("Receiver Two"));
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
  EXPECT_EQ(got.recipient, 1u);
}

TEST(StreamDecryptor, OnlyTheScramblingBitsAndTheEncipheredBlocksChange) {
  EncryptedStream stream = standard_stream();
  Outcome got = with_private_key(stream.encrypted, "rsa1024.key");
  ASSERT_EQ(got.output.size(), stream.encrypted.size());
  for (size_t packet = 0; packet < got.output.size(); packet += 188) {
    const auto in = static_cast<unsigned char>(stream.encrypted[packet + 3]);
    const auto out = static_cast<unsigned char>(got.output[packet + 3]);
    EXPECT_EQ(out, in & 0x3F) << packet;
    const size_t start = payload_start(stream.encrypted, packet);
    const size_t whole = (188 - start) / 16 * 16;
    // Header and adaptation field stay, and so do the bytes behind the last whole block.
    EXPECT_EQ(got.output.substr(packet, 3), stream.encrypted.substr(packet, 3));
    EXPECT_EQ(got.output.substr(packet + 4, start - 4), stream.encrypted.substr(packet + 4, start - 4));
    EXPECT_EQ(got.output.substr(packet + start + whole, 188 - start - whole),
              stream.encrypted.substr(packet + start + whole, 188 - start - whole));
    if ((in >> 6) != 2) {
      EXPECT_EQ(got.output.substr(packet, 188), stream.encrypted.substr(packet, 188)) << packet;
    }
  }
}

TEST(StreamDecryptor, TheContentKeyGivesTheSameWithoutTheKeyList) {
  EncryptedStream stream = standard_stream();
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key(), writer);
  Fed result = run(decryptor, stream.encrypted);
  EXPECT_TRUE(result.finished) << decryptor.message;
  EXPECT_EQ(output, stream.expected);
  EXPECT_TRUE(decryptor.key_checked);
  EXPECT_FALSE(decryptor.key_list.has_value());
  EXPECT_EQ(decryptor.warning, "");
}

TEST(StreamDecryptor, TheContentKeyNeedsNoTables) {
  EncryptedStream stream(KEY_HEX);
  media(stream);
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key(), writer);
  EXPECT_TRUE(run(decryptor, stream.encrypted).finished) << decryptor.message;
  EXPECT_EQ(output, stream.expected);
}

TEST(StreamDecryptor, AnyChunkingGivesTheSameOutput) {
  EncryptedStream stream = standard_stream();
  for (size_t chunk : {1u, 2u, 187u, 188u, 189u, 376u, 1000u}) {
    Outcome got = with_private_key(stream.encrypted, "rsa1024.key", std::nullopt, chunk);
    EXPECT_TRUE(got.finished) << chunk;
    EXPECT_EQ(got.output, stream.expected) << chunk;
  }
}

TEST(StreamDecryptor, NoBytesWithNoBufferChangeNothing) {
  EncryptedStream stream = standard_stream();
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(private_key("rsa1024.key"), std::nullopt, writer);
  // Before any packet, and again with part of a packet held.
  EXPECT_TRUE(decryptor.feed(nullptr, 0));
  std::string bytes = stream.encrypted;
  EXPECT_TRUE(decryptor.feed(reinterpret_cast<unsigned char*>(bytes.data()), 100));
  EXPECT_TRUE(decryptor.feed(nullptr, 0));
  EXPECT_TRUE(
      decryptor.feed(reinterpret_cast<unsigned char*>(bytes.data()) + 100, bytes.size() - 100));
  EXPECT_TRUE(decryptor.finish()) << decryptor.message;
  EXPECT_EQ(output, stream.expected);
}

TEST(StreamDecryptor, NistBlocksDecipherToTheirPlainText) {
  // NIST SP 800-38A F.1.2, ECB-AES128.Decrypt: cipher text blocks in, plain text blocks out.
  const std::string hex =
      "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
      "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4";
  const std::string plain_hex =
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
  auto bytes = [](const std::string& text) {
    StreamBytes out;
    for (size_t i = 0; i < text.size(); i += 2)
      out.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return out;
  };
  StreamBytes payload = bytes(hex);
  payload.push_back(0x5A);  // a tail byte in clear
  RawPacket packet{AUDIO, false, 3, 2, {}, payload};
  std::string encrypted = Veldrin::Testing::raw_packet(packet);
  StreamBytes plain = bytes(plain_hex);
  plain.push_back(0x5A);
  std::string expected = Veldrin::Testing::raw_packet({AUDIO, false, 3, 0, {}, plain});

  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key("2b7e151628aed2a6abf7158809cf4f3c"), writer);
  EXPECT_TRUE(run(decryptor, encrypted).finished);
  EXPECT_EQ(output, expected);
}

TEST(StreamDecryptor, PacketsAheadOfTheKeyListAreHeldAndComeOutDeciphered) {
  EncryptedStream stream = two_recipients();
  media(stream, 0);
  program_tables(stream);
  media(stream, 1);
  stream.key_list(KEY_LIST);
  media(stream, 2);
  Outcome got = with_private_key(stream.encrypted, "rsa1024.key");
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
}

TEST(StreamDecryptor, AKeyListAheadOfItsPmtIsFoundAmongTheHeldPackets) {
  EncryptedStream stream = two_recipients();
  stream.pat(1, PMT_PID);
  media(stream, 0);
  stream.key_list(KEY_LIST);
  media(stream, 1);
  stream.pmt(1, PMT_PID, {{0x02, VIDEO}, {0x03, AUDIO}}, KEY_LIST);
  media(stream, 2);
  Outcome got = with_private_key(stream.encrypted, "rsa2048.key");
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
}

TEST(StreamDecryptor, AKeyListOfSeveralPacketsWithCounterZeroIsGathered) {
  const Certificate receiver = certificate("rsa2048.pem");
  EncryptedStream stream(KEY_HEX, {receiver, receiver, receiver});
  ASSERT_EQ(stream.list().size(), 954u);  // six packets
  program_tables(stream);
  stream.key_list(KEY_LIST);
  media(stream);
  Outcome got = with_private_key(stream.encrypted, "rsa2048.key");
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
  ASSERT_TRUE(got.key_list.has_value());
  EXPECT_EQ(got.key_list->recipients.size(), 3u);
}

TEST(StreamDecryptor, AStreamCutInsideAKeyListFindsTheNextOne) {
  const Certificate receiver = certificate("rsa2048.pem");
  EncryptedStream stream(KEY_HEX, {receiver, receiver});
  program_tables(stream);
  const StreamBytes list = stream.list();
  ASSERT_GT(list.size(), 2 * 184u);
  // The tail of a list whose head was cut off: its packets carry no payload_unit_start.
  stream.key_list(KEY_LIST, StreamBytes(list.begin() + 184, list.end()));
  for (size_t at = 0; at + 188 <= stream.encrypted.size(); at += 188) {
    if (static_cast<unsigned char>(stream.encrypted[at + 2]) == (KEY_LIST & 0xFF)) {
      stream.encrypted[at + 1] = static_cast<char>(stream.encrypted[at + 1] & ~0x40);
      stream.expected[at + 1] = static_cast<char>(stream.expected[at + 1] & ~0x40);
    }
  }
  media(stream, 0);
  stream.key_list(KEY_LIST);
  media(stream, 1);
  Outcome got = with_private_key(stream.encrypted, "rsa2048.key");
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
}

TEST(StreamDecryptor, ADamagedCopyOfTheKeyListIsOvercomeByAWholeOne) {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  StreamBytes damaged = stream.list();
  damaged[damaged.size() - 1] ^= 0x01;
  stream.key_list(KEY_LIST, damaged);
  media(stream, 0);
  stream.key_list(KEY_LIST);
  media(stream, 1);
  Outcome got = with_private_key(stream.encrypted, "rsa1024.key");
  EXPECT_TRUE(got.finished) << got.message;
  EXPECT_EQ(got.output, stream.expected);
}

TEST(StreamDecryptor, PacketsOfOtherScramblingControlsStayAsTheyAre) {
  EncryptedStream stream(KEY_HEX);
  stream.add({AUDIO, false, 1, 1, {}, data_payload(184)});
  stream.add({AUDIO, false, 2, 3, {}, data_payload(184)});
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key(), writer);
  EXPECT_TRUE(run(decryptor, stream.encrypted).finished);
  EXPECT_EQ(output, stream.encrypted);
  EXPECT_EQ(decryptor.deciphered, 0u);
}

TEST(StreamDecryptor, AScrambledPacketWhosePayloadCantBeFoundStaysAsItIs) {
  // Adaptation field length 184: longer than the packet can hold.
  std::string packet = Veldrin::Testing::raw_packet({AUDIO, false, 0, 2, {}, data_payload(184)});
  packet[3] = static_cast<char>(0x80 | 0x30);
  packet[4] = static_cast<char>(184);
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key(), writer);
  EXPECT_TRUE(run(decryptor, packet).finished);
  EXPECT_EQ(output, packet);
}

TEST(StreamDecryptor, AContentKeyWithoutACheckablePacketGivesAWarning) {
  EncryptedStream stream(KEY_HEX);
  stream.add_enciphered({VIDEO, false, 1, 0, {}, data_payload(184)});
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key(), writer);
  EXPECT_TRUE(run(decryptor, stream.encrypted).finished);
  EXPECT_EQ(output, stream.expected);
  EXPECT_FALSE(decryptor.key_checked);
  EXPECT_EQ(decryptor.warning,
            "the key could not be checked: no enciphered packet starts a PES packet");
}

TEST(StreamDecryptor, AStreamWithoutEncipheredPacketsComesOutAsItWent) {
  EncryptedStream stream(KEY_HEX);
  program_tables(stream);
  stream.key_list(KEY_LIST);
  stream.add({VIDEO, true, 0, 0, {}, pes_payload(184, 0xE0)});
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key(), writer);
  EXPECT_TRUE(run(decryptor, stream.encrypted).finished);
  EXPECT_EQ(output, stream.encrypted);
  EXPECT_EQ(decryptor.warning, "");
}

TEST(StreamDecryptor, ListModeReadsTheKeyListAndWantsNoMoreInput) {
  EncryptedStream stream = standard_stream();
  StreamDecryptor decryptor;
  std::vector<unsigned char> bytes(stream.encrypted.begin(), stream.encrypted.end());
  EXPECT_FALSE(decryptor.feed(bytes.data(), bytes.size()));
  EXPECT_FALSE(decryptor.failed());
  EXPECT_TRUE(decryptor.finish());
  ASSERT_TRUE(decryptor.key_list.has_value());
  EXPECT_EQ(decryptor.key_list->recipients.size(), 2u);
  EXPECT_EQ(decryptor.key_list_pid, KEY_LIST);
  EXPECT_EQ(decryptor.program_number, 1);
  EXPECT_EQ(decryptor.pmt_pid, PMT_PID);
  // It stopped at the last of the three packets of the key list, behind PAT and PMT.
  EXPECT_EQ(decryptor.packets, 5u);
}

// Failures: the status, the message, and nothing written.

struct Failed {
  DecryptStatus status;
  std::string message;
  std::string output;
};

Failed fail_with_private_key(const std::string& stream, const std::string& key_file = "rsa1024.key",
                             std::optional<std::string> name = std::nullopt,
                             uint64_t hold_limit = StreamDecryptor::DEFAULT_HOLD_LIMIT) {
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(private_key(key_file), std::move(name), writer);
  decryptor.hold_limit = hold_limit;
  Fed result = run(decryptor, stream);
  EXPECT_FALSE(result.finished);
  return {decryptor.status, decryptor.message, output};
}

TEST(StreamDecryptorFailure, NoPat) {
  EncryptedStream stream = two_recipients();
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_NO_KEY_LIST);
  EXPECT_EQ(got.message, "no key list: no PAT");
  EXPECT_EQ(got.output, "");
}

TEST(StreamDecryptorFailure, EmptyInputHasNoPat) {
  Failed got = fail_with_private_key("");
  EXPECT_EQ(got.status, DECRYPT_NO_KEY_LIST);
  EXPECT_EQ(got.message, "no key list: no PAT");
}

TEST(StreamDecryptorFailure, APatWithTheNetworkPidAloneNamesNoProgram) {
  EncryptedStream stream = two_recipients();
  stream.pat(0, 0x10);
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_NO_KEY_LIST);
  EXPECT_EQ(got.message, "no key list: the PAT names no program");
}

TEST(StreamDecryptorFailure, NoPmt) {
  EncryptedStream stream = two_recipients();
  stream.pat(1, PMT_PID);
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_NO_KEY_LIST);
  EXPECT_EQ(got.message, "no key list: no PMT of program 1 on PID 4096");
}

TEST(StreamDecryptorFailure, APmtWithoutTheCaDescriptor) {
  EncryptedStream stream = two_recipients();
  stream.pat(1, PMT_PID);
  stream.pmt(1, PMT_PID, {{0x02, VIDEO}}, KEY_LIST, 0, false);
  stream.key_list(KEY_LIST);
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_NO_KEY_LIST);
  EXPECT_EQ(got.message, "no key list: the PMT of program 1 (PID 4096) has no CA descriptor with "
                         "CA_system_ID 0x4B4C");
}

TEST(StreamDecryptorFailure, NoKeyListSection) {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_NO_KEY_LIST);
  EXPECT_EQ(got.message, "no key list: no key list section on PID 8190");
}

TEST(StreamDecryptorFailure, AKeyListWithABadCrcIsDamaged) {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  StreamBytes damaged = stream.list();
  damaged[damaged.size() - 2] ^= 0x40;
  stream.key_list(KEY_LIST, damaged);
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_BAD_KEY_LIST);
  EXPECT_EQ(got.message,
            "damaged key list on PID 8190: the CRC doesn't match the section's bytes");
  EXPECT_EQ(got.output, "");
}

// The list with a changed byte and its CRC made good again.
StreamBytes changed_list(StreamBytes list, size_t at, unsigned char value) {
  list[at] = value;
  const size_t crc_at = list.size() - 4;
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 1; i < crc_at; i++) {
    crc ^= uint32_t{list[i]} << 24;
    for (int bit = 0; bit < 8; bit++) crc = (crc & 0x80000000) ? (crc << 1) ^ 0x04C11DB7 : crc << 1;
  }
  for (size_t i = 0; i < 4; i++) list[crc_at + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
  return list;
}

TEST(StreamDecryptorFailure, AKeyListWithABadAtomSizeIsDamaged) {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  // The size of "VERS", at byte 20 of the block, says 7.
  stream.key_list(KEY_LIST, changed_list(stream.list(), 20, 0x07));
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_BAD_KEY_LIST);
  EXPECT_EQ(got.message, "damaged key list on PID 8190: atom at byte 16 has size 7, less than its "
                         "8-byte header");
}

TEST(StreamDecryptorFailure, AKeyListCutShortByTheEndOfTheStreamIsDamaged) {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  media(stream);
  const StreamBytes list = stream.list();
  stream.key_list(KEY_LIST, StreamBytes(list.begin(), list.begin() + 184));
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_BAD_KEY_LIST);
  EXPECT_EQ(got.message, "damaged key list on PID 8190: the stream ends inside the section");
}

TEST(StreamDecryptorFailure, AnotherContentCipherIsRefused) {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  // "ENCT" byte 1, at byte 36 of the block: 2^8 bits.
  stream.key_list(KEY_LIST, changed_list(stream.list(), 36, 0x08));
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_BAD_KEY_LIST);
  EXPECT_EQ(got.message, "the key list on PID 8190 names the content cipher AES-256; AES-128 is "
                         "the one known");
}

TEST(StreamDecryptorFailure, APrivateKeyOfNoRecipientIsAWrongKey) {
  EncryptedStream stream(KEY_HEX, {certificate("rsa2048.pem")});
  program_tables(stream);
  stream.key_list(KEY_LIST);
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted, "rsa1024.key");
  EXPECT_EQ(got.status, DECRYPT_WRONG_KEY);
  EXPECT_EQ(got.message, "wrong key: the private key unwraps the content key for no recipient of "
                         "the key list on PID 8190 (it names \"Receiver Two\")");
  EXPECT_EQ(got.output, "");
}

TEST(StreamDecryptorFailure, ANamedRecipientThatTheKeyDoesNotUnwrapIsAWrongKey) {
  EncryptedStream stream = standard_stream();
  Failed got = fail_with_private_key(stream.encrypted, "rsa1024.key", std::string("Receiver Two"));
  EXPECT_EQ(got.status, DECRYPT_WRONG_KEY);
  EXPECT_EQ(got.message, "wrong key: the private key unwraps the content key for no recipient of "
                         "the key list on PID 8190 named \"Receiver Two\"");
}

TEST(StreamDecryptorFailure, ANameNoRecipientHas) {
  EncryptedStream stream = standard_stream();
  Failed got = fail_with_private_key(stream.encrypted, "rsa1024.key", std::string("Nobody"));
  EXPECT_EQ(got.status, DECRYPT_WRONG_KEY);
  EXPECT_EQ(got.message, "no recipient of the key list on PID 8190 is named \"Nobody\" (it names "
                         "\"A\", \"Receiver Two\")");
}

TEST(StreamDecryptorFailure, AKeyListWithoutRecipientsHasNoKeyToUnwrap) {
  EncryptedStream stream(KEY_HEX);
  program_tables(stream);
  stream.key_list(KEY_LIST);
  media(stream);
  Failed got = fail_with_private_key(stream.encrypted);
  EXPECT_EQ(got.status, DECRYPT_WRONG_KEY);
  EXPECT_EQ(got.message, "the key list on PID 8190 has no recipients: the content key isn't in it");
}

TEST(StreamDecryptorFailure, AWrongContentKeyFailsOnTheFirstAudioPacketThatStartsAPesPacket) {
  EncryptedStream stream = standard_stream();
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key("ffffffffffffffffffffffffffffffff"), writer);
  Fed result = run(decryptor, stream.encrypted);
  EXPECT_FALSE(result.finished);
  EXPECT_EQ(decryptor.status, DECRYPT_WRONG_KEY);
  // The first audio packet: it starts a PES packet and is enciphered.
  size_t audio = 0;
  while (static_cast<unsigned char>(stream.encrypted[audio + 2]) != (AUDIO & 0xFF)) audio += 188;
  EXPECT_EQ(audio, 188u * 8);  // PAT, PMT, three of key list, three of video
  EXPECT_EQ(decryptor.message, "wrong key: the enciphered packet at byte " +
                                   std::to_string(audio) +
                                   " (PID 257) starts a PES packet but doesn't decipher to its "
                                   "start code 00 00 01");
}

TEST(StreamDecryptorFailure, ALastPacketCutShortIsSaid) {
  EncryptedStream stream = standard_stream();
  const std::string cut = stream.encrypted.substr(0, stream.encrypted.size() - 88);
  Failed got = fail_with_private_key(cut);
  EXPECT_EQ(got.status, DECRYPT_BAD_STREAM);
  EXPECT_EQ(got.message, "cut short: the last packet, at byte " +
                             std::to_string(stream.encrypted.size() - 188) +
                             ", has 100 of its 188 bytes");
}

TEST(StreamDecryptorFailure, ALostSyncByteIsSaid) {
  EncryptedStream stream = standard_stream();
  std::string shifted = stream.encrypted;
  shifted.insert(188 * 4, 1, '\x00');
  Failed got = fail_with_private_key(shifted);
  EXPECT_EQ(got.status, DECRYPT_BAD_STREAM);
  EXPECT_EQ(got.message, "no sync byte (0x47) at byte 752: not a stream of 188-byte transport "
                         "packets");
}

TEST(StreamDecryptorFailure, AKeyListBeyondTheHoldLimitIsNotWaitedFor) {
  EncryptedStream stream = two_recipients();
  program_tables(stream);
  media(stream, 0);
  media(stream, 1);
  stream.key_list(KEY_LIST);
  Failed got = fail_with_private_key(stream.encrypted, "rsa1024.key", std::nullopt, 188 * 10);
  EXPECT_EQ(got.status, DECRYPT_NO_KEY_LIST);
  EXPECT_EQ(got.message, "no key list in the first 1880 bytes: no key list section on PID 8190");
  EXPECT_EQ(got.output, "");
  // Within a limit that reaches its last packet, the 19th, the same stream deciphers.
  Outcome good = with_private_key(stream.encrypted, "rsa1024.key", std::nullopt, 65536, 188 * 19);
  EXPECT_TRUE(good.finished) << good.message;
  EXPECT_EQ(good.output, stream.expected);
}

// A writer whose every write fails.
class FailingWriter : public Korvix::Channel::Writer {
 public:
  void basic_write(const unsigned char*, size_t) override {
    throw Korvix::Channel::Error(1, "Stream failed");
  }
};

TEST(StreamDecryptorFailure, AnOutputThatCantBeWrittenEndsTheRun) {
  EncryptedStream stream = standard_stream();
  FailingWriter writer;
  StreamDecryptor decryptor(private_key("rsa1024.key"), std::nullopt, writer);
  Fed result = run(decryptor, stream.encrypted);
  EXPECT_FALSE(result.fed);
  EXPECT_FALSE(result.finished);
  EXPECT_EQ(decryptor.status, DECRYPT_FILE_ERROR);
  EXPECT_EQ(decryptor.message, "the output can't be written (Stream failed)");
}

TEST(StreamDecryptorFailure, AfterAFailureNothingMoreIsTaken) {
  std::string output;
  Korvix::Channel::StringWriter writer(output);
  StreamDecryptor decryptor(content_key(), writer);
  std::vector<unsigned char> garbage(188, 0x00);
  EXPECT_FALSE(decryptor.feed(garbage.data(), garbage.size()));
  EncryptedStream stream = standard_stream();
  std::vector<unsigned char> good(stream.encrypted.begin(), stream.encrypted.end());
  EXPECT_FALSE(decryptor.feed(good.data(), good.size()));
  EXPECT_FALSE(decryptor.finish());
  EXPECT_EQ(decryptor.message, "no sync byte (0x47) at byte 0: not a stream of 188-byte "
                               "transport packets");
  EXPECT_EQ(output, "");
}

TEST(StreamDecryptor, DamagedInputNeverCrashesOrHangs) {
  EncryptedStream stream = standard_stream();
  std::mt19937 random(12);
  for (int round = 0; round < 300; round++) {
    std::string damaged = stream.encrypted;
    const int changes = 1 + static_cast<int>(random() % 8);
    for (int i = 0; i < changes; i++) {
      size_t at = random() % damaged.size();
      if (at % 188 == 0) at++;  // keep the sync bytes, so that the tables are read on
      damaged[at] = static_cast<char>(random());
    }
    if (round % 10 == 0) damaged.resize(random() % damaged.size());
    for (bool list_only : {false, true}) {
      std::string output;
      Korvix::Channel::StringWriter writer(output);
      StreamDecryptor listing;
      StreamDecryptor deciphering(private_key("rsa1024.key"), std::nullopt, writer);
      StreamDecryptor& decryptor = list_only ? listing : deciphering;
      run(decryptor, damaged, 1 + random() % 400);
      EXPECT_TRUE(decryptor.failed() || output.size() == damaged.size() || list_only);
      EXPECT_LE(output.size(), damaged.size());
    }
  }
}

}  // namespace
}  // namespace Veldrin::IndexGen
