#include "encryption/packet_cipher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "encryption/key_list.h"
#include "support/key_material.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {
namespace {

using Bytes = std::vector<unsigned char>;
using Korvix::Crypto::Certificate;
using Veldrin::Testing::KeyMaterial;

Bytes from_hex(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 2)
    bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
  return bytes;
}

// NIST SP 800-38A, F.1.1 ECB-AES128: the key, four plain text blocks and their cipher text.
const std::string NIST_KEY = "2b7e151628aed2a6abf7158809cf4f3c";
const Bytes NIST_PLAIN = from_hex(
    "6bc1bee22e409f96e93d7e117393172a"
    "ae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52ef"
    "f69f2445df4f9b17ad2b417be66c3710");
const Bytes NIST_CIPHER = from_hex(
    "3ad77bb40d7a3660a89ecaf32466ef97"
    "f5d3d58503b9699de785895a96fdbaaf"
    "43b1cd7f598ece23881b00e3ed030688"
    "7b0c785e27e8ad3f8223207104725dd4");

// The i-th 16-byte block, counting round the four blocks.
Bytes block_of(const Bytes& blocks, size_t i) {
  const size_t at = 16 * (i % 4);
  return Bytes(blocks.begin() + static_cast<long>(at), blocks.begin() + static_cast<long>(at + 16));
}

// A payload of whole NIST plain text blocks, cycling, with tail bytes behind them.
Bytes nist_payload(size_t blocks, size_t tail) {
  Bytes payload;
  for (size_t i = 0; i < blocks; i++) {
    Bytes block = block_of(NIST_PLAIN, i);
    payload.insert(payload.end(), block.begin(), block.end());
  }
  for (size_t i = 0; i < tail; i++) payload.push_back(static_cast<unsigned char>(0xA0 + i));
  return payload;
}

TSPacket packet_with(const Bytes& payload) {
  TSPacket packet;
  packet.pid = 0x101;
  packet.payload_unit_start = true;
  packet.random_access = true;
  packet.pcr = 1.5;
  packet.continuity_counter = 7;
  packet.offset = 188 * 9;
  packet.payload = payload;
  return packet;
}

TEST(AESPacketEncryptor, FullPayloadHasItsFirst176BytesEncipheredAndItsLast8InClear) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  const Bytes payload = nist_payload(11, 8);
  ASSERT_EQ(payload.size(), 184u);
  TSPacket packet = packet_with(payload);
  encryptor.encrypt(packet);
  ASSERT_EQ(packet.payload.size(), 184u);
  for (size_t i = 0; i < 11; i++) {
    Bytes got(packet.payload.begin() + static_cast<long>(16 * i),
              packet.payload.begin() + static_cast<long>(16 * i + 16));
    EXPECT_EQ(got, block_of(NIST_CIPHER, i)) << "block " << i;
  }
  EXPECT_EQ(Bytes(packet.payload.begin() + 176, packet.payload.end()),
            Bytes(payload.begin() + 176, payload.end()));
  EXPECT_EQ(packet.scrambling_control, 2);
}

TEST(AESPacketEncryptor, OtherFieldsOfThePacketStayAsTheyWere) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  TSPacket packet = packet_with(nist_payload(2, 3));
  encryptor.encrypt(packet);
  EXPECT_EQ(packet.pid, 0x101);
  EXPECT_TRUE(packet.payload_unit_start);
  EXPECT_FALSE(packet.discontinuity);
  EXPECT_TRUE(packet.random_access);
  EXPECT_EQ(packet.pcr, 1.5);
  EXPECT_EQ(packet.continuity_counter, 7);
  EXPECT_EQ(packet.offset, 188u * 9);
  EXPECT_EQ(packet.payload.size(), 35u);
}

TEST(AESPacketEncryptor, FifteenBytesStayAsTheyAreButThePacketIsMarkedScrambled) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  const Bytes payload = nist_payload(0, 15);
  TSPacket packet = packet_with(payload);
  encryptor.encrypt(packet);
  EXPECT_EQ(packet.payload, payload);
  EXPECT_EQ(packet.scrambling_control, 2);
}

TEST(AESPacketEncryptor, AnEmptyPayloadIsMarkedScrambled) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  TSPacket packet = packet_with({});
  encryptor.encrypt(packet);
  EXPECT_TRUE(packet.payload.empty());
  EXPECT_EQ(packet.scrambling_control, 2);
}

TEST(AESPacketEncryptor, AnyEarlierScramblingControlBecomesTwo) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  for (int32_t before : {0, 1, 2, 3}) {
    TSPacket packet = packet_with(nist_payload(1, 0));
    packet.scrambling_control = before;
    encryptor.encrypt(packet);
    EXPECT_EQ(packet.scrambling_control, 2) << before;
  }
}

TEST(AESPacketEncryptor, IdenticalBlocksAtTheSamePlaceInTwoPacketsGiveIdenticalCipherText) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  Bytes first = nist_payload(3, 5);
  Bytes second = nist_payload(3, 5);
  // Only the middle block differs between the two.
  for (size_t i = 16; i < 32; i++) second[i] ^= 0xFF;
  TSPacket a = packet_with(first);
  TSPacket b = packet_with(second);
  encryptor.encrypt(a);
  encryptor.encrypt(b);
  EXPECT_EQ(Bytes(a.payload.begin(), a.payload.begin() + 16),
            Bytes(b.payload.begin(), b.payload.begin() + 16));
  EXPECT_NE(Bytes(a.payload.begin() + 16, a.payload.begin() + 32),
            Bytes(b.payload.begin() + 16, b.payload.begin() + 32));
  EXPECT_EQ(Bytes(a.payload.begin() + 32, a.payload.begin() + 48),
            Bytes(b.payload.begin() + 32, b.payload.begin() + 48));
}

TEST(AESPacketEncryptor, TheSamePayloadEnciphersTheSameWayInEveryPacket) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  TSPacket first = packet_with(nist_payload(11, 8));
  encryptor.encrypt(first);
  for (int i = 0; i < 5; i++) {
    TSPacket again = packet_with(nist_payload(11, 8));
    encryptor.encrypt(again);
    EXPECT_EQ(again.payload, first.payload);
  }
}

TEST(AESPacketEncryptor, WithoutKeyTextTheKeyIsAllZero) {
  AESPacketEncryptor encryptor("", {});
  EXPECT_EQ(encryptor.key.to_hex(), std::string(32, '0'));
  EXPECT_TRUE(encryptor.key.valid);
  // FIPS-197 style known answer: AES-128 of the zero block under the zero key.
  TSPacket packet = packet_with(Bytes(16, 0x00));
  encryptor.encrypt(packet);
  EXPECT_EQ(packet.payload, from_hex("66e94bd4ef8a2c3b884cfa59ca342b2e"));
}

TEST(AESPacketEncryptor, AShortKeyTextLeavesTheRestOfTheKeyZero) {
  EXPECT_EQ(AESPacketEncryptor("01", {}).key.to_hex(), "01" + std::string(30, '0'));
  const std::string digits31 = "0123456789abcdef0123456789abcde";
  EXPECT_EQ(AESPacketEncryptor(digits31, {}).key.to_hex(), digits31 + "0");
}

TEST(AESPacketEncryptor, TheCipherIsACopyOfTheKeyInEcbMode) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  EXPECT_EQ(encryptor.key.to_hex(), NIST_KEY);
  EXPECT_EQ(encryptor.cipher.key.to_hex(), NIST_KEY);
  EXPECT_EQ(encryptor.cipher.key.bits, 128);
  EXPECT_FALSE(encryptor.cipher.iv.valid);
  EXPECT_EQ(encryptor.cipher.iv.bits, 128);
  EXPECT_FALSE(encryptor.cipher.ctr);
}

TEST(AESPacketEncryptor, KeyListIsTheListOfTheKeyAndCertificates) {
  AESPacketEncryptor encryptor(NIST_KEY, {});
  std::vector<unsigned char> list;
  encryptor.get_key_list(list);
  EXPECT_EQ(list.size(), 42u);
  EXPECT_EQ(list, make_key_list(encryptor.key, {}));
}

TEST(AESPacketEncryptor, GetKeyListGivesTheSameBytesAtEachCall) {
  Certificate certificate;
  certificate.read_pem(KeyMaterial::get().text("rsa1024.pem"));
  AESPacketEncryptor encryptor(NIST_KEY, {certificate});
  std::vector<unsigned char> first;
  encryptor.get_key_list(first);
  ASSERT_EQ(first.size(), 207u);
  std::vector<unsigned char> second(5, 0xEE);
  encryptor.get_key_list(second);
  EXPECT_EQ(second, first);
  std::vector<unsigned char> third(500, 0xEE);
  encryptor.get_key_list(third);
  EXPECT_EQ(third, first);
  // Wrapping is randomised, so a list made afresh differs in its wrapped key.
  EXPECT_NE(make_key_list(encryptor.key, {certificate}), first);
}

TEST(AESPacketEncryptor, TheKeyListUnwrapsToTheKeyThatEnciphers) {
  Certificate certificate;
  certificate.read_pem(KeyMaterial::get().text("rsa2048.pem"));
  AESPacketEncryptor encryptor("000102030405060708090a0b0c0d0e0f", {certificate});
  std::vector<unsigned char> list;
  encryptor.get_key_list(list);
  KeyList read;
  KeyListReader reader;
  ASSERT_EQ(reader.read(list.data(), list.size(), read), SECTION_GOOD) << reader.error;
  Korvix::Crypto::RSAKey private_key(true);
  private_key.read_pem(KeyMaterial::get().text("rsa2048.key"));
  Korvix::Crypto::AESKey key;
  size_t recipient = 0;
  ASSERT_EQ(unwrap_content_key(read, private_key, std::nullopt, key, recipient), UNWRAPPED);
  EXPECT_EQ(key.to_hex(), "000102030405060708090a0b0c0d0e0f");
}

TEST(AESPacketEncryptor, IsUsedThroughItsInterface) {
  AESPacketEncryptor aes(NIST_KEY, {});
  PacketEncryptor& encryptor = aes;
  TSPacket packet = packet_with(nist_payload(1, 0));
  encryptor.encrypt(packet);
  EXPECT_EQ(packet.payload, block_of(NIST_CIPHER, 0));
  std::vector<unsigned char> list;
  encryptor.get_key_list(list);
  EXPECT_EQ(list.size(), 42u);
}

}  // namespace
}  // namespace Veldrin::IndexGen
