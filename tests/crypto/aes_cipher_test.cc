#include "crypto/aes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Korvix::Crypto {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes from_hex(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 2)
    bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
  return bytes;
}

Bytes iv_bytes(const AESCipher& cipher) {
  return Bytes(cipher.iv.key, cipher.iv.key + 16);
}

// NIST SP 800-38A: the key and the four plain text blocks of its AES-128 examples.
const std::string KEY = "2b7e151628aed2a6abf7158809cf4f3c";
const Bytes PLAIN = from_hex(
    "6bc1bee22e409f96e93d7e117393172a"
    "ae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52ef"
    "f69f2445df4f9b17ad2b417be66c3710");

// F.1.1, ECB-AES128.Encrypt.
const Bytes ECB_CIPHER = from_hex(
    "3ad77bb40d7a3660a89ecaf32466ef97"
    "f5d3d58503b9699de785895a96fdbaaf"
    "43b1cd7f598ece23881b00e3ed030688"
    "7b0c785e27e8ad3f8223207104725dd4");

// F.2.1, CBC-AES128.Encrypt.
const std::string CBC_IV = "000102030405060708090a0b0c0d0e0f";
const Bytes CBC_CIPHER = from_hex(
    "7649abac8119b246cee98e9b12e9197d"
    "5086cb9b507219ee95db113a917678b2"
    "73bed6b8e3c1743b7116e69e22229516"
    "3ff1caa1681fac09120eca307586e1a7");

// F.5.1, CTR-AES128.Encrypt.
const std::string CTR_COUNTER = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
const Bytes CTR_CIPHER = from_hex(
    "874d6191b620e3261bef6864990db6ce"
    "9806f66b7970fdff8617187bb9fffdff"
    "5ae4df3edbd5d35e5b4f09020db03eab"
    "1e031dda2fbe03d1792170a0f3009cee");

AESCipher ecb() {
  AESCipher cipher;
  cipher.key.read_hex(KEY);
  return cipher;
}

AESCipher cbc() {
  AESCipher cipher = ecb();
  cipher.iv.read_hex(CBC_IV);
  return cipher;
}

AESCipher ctr(const std::string& counter = CTR_COUNTER) {
  AESCipher cipher = ecb();
  cipher.iv.read_hex(counter);
  cipher.ctr = true;
  return cipher;
}

Bytes slice(const Bytes& bytes, size_t from, size_t to) {
  return Bytes(bytes.begin() + static_cast<long>(from), bytes.begin() + static_cast<long>(to));
}

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(AESCipher, EcbEnciphersTheNistExampleAndDeciphersItBack) {
  AESCipher cipher = ecb();
  Bytes data = PLAIN;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, ECB_CIPHER);
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, false));
  EXPECT_EQ(data, PLAIN);
}

TEST(AESCipher, EcbWith192And256BitKeysGivesTheNistExamples) {
  AESCipher cipher;
  cipher.key = AESKey(true, 192);
  cipher.key.read_hex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b");
  Bytes data = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(data.data(), 16, true));
  EXPECT_EQ(data, from_hex("bd334f1d6e45f25ff712a214571fa5cc"));  // F.1.3

  cipher.key = AESKey(true, 256);
  cipher.key.read_hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
  data = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(data.data(), 16, true));
  EXPECT_EQ(data, from_hex("f3eed1bdb5d2a03c064b5a7e3db181f8"));  // F.1.5
  ASSERT_TRUE(cipher.encrypt(data.data(), 16, false));
  EXPECT_EQ(data, slice(PLAIN, 0, 16));
}

TEST(AESCipher, EcbWithALengthOf15ChangesNothingAndReturnsTrue) {
  AESCipher cipher = ecb();
  Bytes data = PLAIN;
  EXPECT_TRUE(cipher.encrypt(data.data(), 15, true));
  EXPECT_EQ(data, PLAIN);
}

TEST(AESCipher, EcbWithANegativeLengthChangesNothing) {
  AESCipher cipher = ecb();
  Bytes data = PLAIN;
  EXPECT_TRUE(cipher.encrypt(data.data(), -1, true));
  EXPECT_TRUE(cipher.encrypt(data.data(), -64, false));
  EXPECT_TRUE(cipher.encrypt(data.data(), INT32_MIN, true));
  EXPECT_EQ(data, PLAIN);
}

TEST(AESCipher, EcbOfThirtySevenBytesLeavesTheLastFiveAlone) {
  AESCipher cipher = ecb();
  Bytes data = slice(PLAIN, 0, 37);
  ASSERT_TRUE(cipher.encrypt(data.data(), 37, true));
  EXPECT_EQ(data, concat(slice(ECB_CIPHER, 0, 32), slice(PLAIN, 32, 37)));
  ASSERT_TRUE(cipher.encrypt(data.data(), 37, false));
  EXPECT_EQ(data, slice(PLAIN, 0, 37));
}

TEST(AESCipher, EcbEncipherThenDecipherBringsTheWholeBlocksBack) {
  AESCipher cipher;
  cipher.key.read_hex("000102030405060708090a0b0c0d0e0f");
  Bytes data(188);
  for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<unsigned char>(i * 7);
  const Bytes original = data;
  ASSERT_TRUE(cipher.encrypt(data.data(), 188, true));
  EXPECT_NE(slice(data, 0, 176), slice(original, 0, 176));
  EXPECT_EQ(slice(data, 176, 188), slice(original, 176, 188));
  ASSERT_TRUE(cipher.encrypt(data.data(), 188, false));
  EXPECT_EQ(data, original);
}

TEST(AESCipher, EcbBlocksAreEncipheredAloneSoEqualBlocksGiveEqualCipherText) {
  AESCipher cipher = ecb();
  Bytes data = concat(slice(PLAIN, 0, 16), slice(PLAIN, 0, 16));
  ASSERT_TRUE(cipher.encrypt(data.data(), 32, true));
  EXPECT_EQ(data, concat(slice(ECB_CIPHER, 0, 16), slice(ECB_CIPHER, 0, 16)));
}

TEST(AESCipher, CbcEnciphersTheNistExampleAndLeavesTheLastCipherBlockAsIv) {
  AESCipher cipher = cbc();
  Bytes data = PLAIN;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, CBC_CIPHER);
  EXPECT_EQ(iv_bytes(cipher), slice(CBC_CIPHER, 48, 64));
}

TEST(AESCipher, CbcDeciphersTheNistExample) {
  AESCipher cipher = cbc();
  Bytes data = CBC_CIPHER;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, false));
  EXPECT_EQ(data, PLAIN);
  EXPECT_EQ(iv_bytes(cipher), slice(CBC_CIPHER, 48, 64));
}

TEST(AESCipher, CbcOverTwoCallsEqualsOneCallOverBothBuffers) {
  AESCipher cipher = cbc();
  Bytes first = slice(PLAIN, 0, 32);
  Bytes second = slice(PLAIN, 32, 64);
  ASSERT_TRUE(cipher.encrypt(first.data(), 32, true));
  ASSERT_TRUE(cipher.encrypt(second.data(), 32, true));
  EXPECT_EQ(concat(first, second), CBC_CIPHER);

  AESCipher back = cbc();
  ASSERT_TRUE(back.encrypt(first.data(), 32, false));
  ASSERT_TRUE(back.encrypt(second.data(), 16, false));
  ASSERT_TRUE(back.encrypt(second.data() + 16, 16, false));
  EXPECT_EQ(concat(first, second), PLAIN);
}

TEST(AESCipher, CbcOfThirtySevenBytesLeavesTheLastFiveAloneAndChainsOnTheSecondBlock) {
  AESCipher cipher = cbc();
  Bytes data = slice(PLAIN, 0, 37);
  ASSERT_TRUE(cipher.encrypt(data.data(), 37, true));
  EXPECT_EQ(data, concat(slice(CBC_CIPHER, 0, 32), slice(PLAIN, 32, 37)));
  EXPECT_EQ(iv_bytes(cipher), slice(CBC_CIPHER, 16, 32));
  // The next call goes on from the second cipher block as if the five bytes weren't there.
  Bytes rest = slice(PLAIN, 32, 64);
  ASSERT_TRUE(cipher.encrypt(rest.data(), 32, true));
  EXPECT_EQ(rest, slice(CBC_CIPHER, 32, 64));
}

TEST(AESCipher, CbcWithoutAWholeBlockLeavesDataAndIvAlone) {
  AESCipher cipher = cbc();
  Bytes data = PLAIN;
  EXPECT_TRUE(cipher.encrypt(data.data(), 15, true));
  EXPECT_TRUE(cipher.encrypt(data.data(), -16, true));
  EXPECT_TRUE(cipher.encrypt(data.data(), 0, false));
  EXPECT_EQ(data, PLAIN);
  EXPECT_EQ(iv_bytes(cipher), from_hex(CBC_IV));
}

TEST(AESCipher, CtrEnciphersTheNistExampleAndMovesTheCounterOnByFourBlocks) {
  AESCipher cipher = ctr();
  Bytes data = PLAIN;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, CTR_CIPHER);
  // 0xfeff + 4 in the low bytes of the big-endian counter.
  EXPECT_EQ(iv_bytes(cipher), from_hex("f0f1f2f3f4f5f6f7f8f9fafbfcfdff03"));
}

TEST(AESCipher, CtrDecipheringIsEnciphering) {
  AESCipher cipher = ctr();
  Bytes data = CTR_CIPHER;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, false));
  EXPECT_EQ(data, PLAIN);
}

TEST(AESCipher, CtrTakesEveryByteAndCountsAPartBlockAsAWholeOne) {
  AESCipher cipher = ctr();
  Bytes data = slice(PLAIN, 0, 37);
  ASSERT_TRUE(cipher.encrypt(data.data(), 37, true));
  EXPECT_EQ(data, slice(CTR_CIPHER, 0, 37));
  // Three counter blocks were enciphered, the third for 5 bytes only.
  EXPECT_EQ(iv_bytes(cipher), from_hex("f0f1f2f3f4f5f6f7f8f9fafbfcfdff02"));
}

// Each call starts a fresh keystream at the counter, so a call after a part block doesn't use the
// rest of that block's keystream. The keystream block of counter n is, by the NIST example,
// cipher block n xor plain block n.
TEST(AESCipher, CtrStartsEachCallOnAFreshKeystreamBlock) {
  const Bytes keystream2 = [] {
    Bytes k(16);
    for (size_t i = 0; i < 16; i++) k[i] = CTR_CIPHER[32 + i] ^ PLAIN[32 + i];
    return k;
  }();
  const Bytes keystream3 = [] {
    Bytes k(16);
    for (size_t i = 0; i < 16; i++) k[i] = CTR_CIPHER[48 + i] ^ PLAIN[48 + i];
    return k;
  }();
  AESCipher cipher = ctr();
  Bytes first = slice(PLAIN, 0, 20);
  Bytes second = slice(PLAIN, 20, 40);
  ASSERT_TRUE(cipher.encrypt(first.data(), 20, true));
  ASSERT_TRUE(cipher.encrypt(second.data(), 20, true));
  EXPECT_EQ(first, slice(CTR_CIPHER, 0, 20));
  Bytes expected(20);
  for (size_t i = 0; i < 20; i++)
    expected[i] = PLAIN[20 + i] ^ (i < 16 ? keystream2[i] : keystream3[i - 16]);
  EXPECT_EQ(second, expected);
  EXPECT_EQ(iv_bytes(cipher), from_hex("f0f1f2f3f4f5f6f7f8f9fafbfcfdff03"));
}

// The counter is one 128-bit big-endian number: a carry runs through all of it.
TEST(AESCipher, CtrCarriesAcrossTheWholeCounter) {
  const std::string counters[] = {
      "000102030405060708090a0bffffffff", "000102030405060708090a0c00000000",
      "000102030405060708090a0c00000001", "000102030405060708090a0c00000002"};
  // The keystream, from ECB of the counter blocks.
  AESCipher block = ecb();
  Bytes keystream;
  for (int i = 0; i < 3; i++) keystream = concat(keystream, from_hex(counters[i]));
  ASSERT_TRUE(block.encrypt(keystream.data(), 48, true));

  AESCipher cipher = ctr(counters[0]);
  Bytes data = slice(PLAIN, 0, 40);
  ASSERT_TRUE(cipher.encrypt(data.data(), 40, true));
  for (size_t i = 0; i < 40; i++) EXPECT_EQ(data[i], PLAIN[i] ^ keystream[i]) << "byte " << i;
  EXPECT_EQ(iv_bytes(cipher), from_hex(counters[3]));

  AESCipher wrap = ctr("ffffffffffffffffffffffffffffffff");
  data = slice(PLAIN, 0, 17);
  ASSERT_TRUE(wrap.encrypt(data.data(), 17, true));
  EXPECT_EQ(iv_bytes(wrap), from_hex("00000000000000000000000000000001"));
}

TEST(AESCipher, CtrWithoutDataLeavesTheCounter) {
  AESCipher cipher = ctr();
  Bytes data = PLAIN;
  EXPECT_TRUE(cipher.encrypt(data.data(), 0, true));
  EXPECT_TRUE(cipher.encrypt(data.data(), -5, true));
  EXPECT_EQ(data, PLAIN);
  EXPECT_EQ(iv_bytes(cipher), from_hex(CTR_COUNTER));
}

TEST(AESCipher, CtrWithoutAValidIvFailsAndChangesNothing) {
  AESCipher cipher = ecb();
  cipher.ctr = true;
  Bytes data = PLAIN;
  EXPECT_FALSE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, PLAIN);
}

TEST(AESCipher, CtrWithAKeyOtherThan128BitsFailsAndChangesNothing) {
  AESCipher cipher = ctr();
  cipher.key = AESKey(true, 256);
  cipher.key.read_hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
  Bytes data = PLAIN;
  EXPECT_FALSE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, PLAIN);
  EXPECT_EQ(iv_bytes(cipher), from_hex(CTR_COUNTER));
}

TEST(AESCipher, KeyLengthsAesHasNotFailAndChangeNothing) {
  for (int32_t bits : {0, 64, 100, 129, 512, -128}) {
    AESCipher cipher = cbc();
    cipher.key.bits = bits;
    Bytes data = PLAIN;
    EXPECT_FALSE(cipher.encrypt(data.data(), 64, true)) << bits;
    EXPECT_EQ(data, PLAIN) << bits;
    EXPECT_EQ(iv_bytes(cipher), from_hex(CBC_IV)) << bits;
    cipher.iv.valid = false;
    EXPECT_FALSE(cipher.encrypt(data.data(), 64, true)) << bits;
    EXPECT_EQ(data, PLAIN) << bits;
  }
}

TEST(AESCipher, ModeKeyAndDirectionMayChangeFromCallToCall) {
  AESCipher cipher;
  cipher.key.read_hex("000102030405060708090a0b0c0d0e0f");
  Bytes data = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(data.data(), 16, true));  // another key first

  cipher.key.read_hex(KEY);
  data = PLAIN;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, ECB_CIPHER);

  cipher.iv.read_hex(CBC_IV);
  data = CBC_CIPHER;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, false));
  EXPECT_EQ(data, PLAIN);

  cipher.iv.read_hex(CTR_COUNTER);
  cipher.ctr = true;
  data = PLAIN;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, CTR_CIPHER);

  cipher.ctr = false;
  cipher.iv.valid = false;
  data = ECB_CIPHER;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, false));
  EXPECT_EQ(data, PLAIN);
}

TEST(AESCipher, ACopyChainsOnItsOwn) {
  AESCipher original = cbc();
  Bytes first = slice(PLAIN, 0, 16);
  ASSERT_TRUE(original.encrypt(first.data(), 16, true));
  AESCipher copy = original;
  Bytes a = slice(PLAIN, 16, 32);
  Bytes b = slice(PLAIN, 16, 32);
  ASSERT_TRUE(original.encrypt(a.data(), 16, true));
  ASSERT_TRUE(copy.encrypt(b.data(), 16, true));
  EXPECT_EQ(a, slice(CBC_CIPHER, 16, 32));
  EXPECT_EQ(b, slice(CBC_CIPHER, 16, 32));

  AESCipher assigned;
  assigned = original;
  Bytes c = slice(PLAIN, 32, 48);
  ASSERT_TRUE(assigned.encrypt(c.data(), 16, true));
  EXPECT_EQ(c, slice(CBC_CIPHER, 32, 48));
}

TEST(AESCipher, TakesKeyIvAndModeAtConstruction) {
  AESKey key;
  key.read_hex(KEY);
  AESKey iv(false);
  iv.read_hex(CTR_COUNTER);
  AESCipher cipher(key, iv, true);
  Bytes data = PLAIN;
  ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
  EXPECT_EQ(data, CTR_CIPHER);
  AESCipher plain;
  EXPECT_FALSE(plain.ctr);
  EXPECT_FALSE(plain.iv.valid);
  EXPECT_FALSE(plain.iv.is_key);
  EXPECT_TRUE(plain.key.is_key);
}

TEST(AESCipher, AKeyByteChangedInPlaceBetweenCallsIsUsedAtTheNextCall) {
  AESCipher cipher = ecb();
  Bytes first = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(first.data(), 16, true));
  EXPECT_EQ(first, slice(ECB_CIPHER, 0, 16));

  // The same text under the key with its last byte changed, worked out by a cipher of its own.
  cipher.key.key[15] ^= 0x01;
  AESCipher other;
  other.key.read_hex("2b7e151628aed2a6abf7158809cf4f3d");
  Bytes expected = slice(PLAIN, 0, 16);
  ASSERT_TRUE(other.encrypt(expected.data(), 16, true));
  ASSERT_NE(expected, slice(ECB_CIPHER, 0, 16));

  Bytes second = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(second.data(), 16, true));
  EXPECT_EQ(second, expected);

  cipher.key.key[15] ^= 0x01;
  Bytes third = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(third.data(), 16, true));
  EXPECT_EQ(third, slice(ECB_CIPHER, 0, 16));
}

TEST(AESCipher, AKeyByteBehindThoseThatCountChangesNoCipherText) {
  AESCipher cipher = ecb();
  Bytes first = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(first.data(), 16, true));
  EXPECT_EQ(first, slice(ECB_CIPHER, 0, 16));

  // Byte 20 of a 128-bit key is no part of it, in whichever direction.
  cipher.key.key[20] = 0x55;
  Bytes second = slice(PLAIN, 0, 16);
  ASSERT_TRUE(cipher.encrypt(second.data(), 16, true));
  EXPECT_EQ(second, slice(ECB_CIPHER, 0, 16));
  ASSERT_TRUE(cipher.encrypt(second.data(), 16, false));
  EXPECT_EQ(second, slice(PLAIN, 0, 16));
}

TEST(AESCipher, EcbAlternatingDirectionsWithOneKeyGivesEachDirectionsResult) {
  AESCipher cipher = ecb();
  for (int round = 0; round < 3; round++) {
    Bytes data = PLAIN;
    ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
    EXPECT_EQ(data, ECB_CIPHER) << "round " << round;
    ASSERT_TRUE(cipher.encrypt(data.data(), 64, false));
    EXPECT_EQ(data, PLAIN) << "round " << round;
  }
}

TEST(AESCipher, EcbWithOneKeyGivesTheSameCipherTextAtEveryCall) {
  AESCipher cipher = ecb();
  for (int call = 0; call < 4; call++) {
    Bytes data = PLAIN;
    ASSERT_TRUE(cipher.encrypt(data.data(), 64, true));
    EXPECT_EQ(data, ECB_CIPHER) << "call " << call;
  }
}

TEST(AESCipher, CbcIvSetAgainBetweenCallsStartsTheChainAgain) {
  AESCipher cipher = cbc();
  Bytes first = slice(PLAIN, 0, 32);
  ASSERT_TRUE(cipher.encrypt(first.data(), 32, true));
  EXPECT_EQ(first, slice(CBC_CIPHER, 0, 32));
  cipher.iv.read_hex(CBC_IV);
  Bytes again = slice(PLAIN, 0, 32);
  ASSERT_TRUE(cipher.encrypt(again.data(), 32, true));
  EXPECT_EQ(again, slice(CBC_CIPHER, 0, 32));
}

}  // namespace
}  // namespace Korvix::Crypto
