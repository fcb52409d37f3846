#include "crypto/aes.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/error.h"

namespace Korvix::Crypto {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes key_bytes(const AESKey& key) {
  return Bytes(key.key, key.key + AESKey::MAX_BYTES);
}

// 32 bytes: the given ones, then zeros.
Bytes padded(Bytes bytes) {
  bytes.resize(AESKey::MAX_BYTES, 0x00);
  return bytes;
}

const Bytes NIST_KEY = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                        0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};

TEST(AESKey, StartsAsAValid128BitKeyOfZeroBytesThatIsNotYetValid) {
  AESKey key;
  EXPECT_EQ(key_bytes(key), Bytes(32, 0x00));
  EXPECT_EQ(key.bits, 128);
  EXPECT_TRUE(key.is_key);
  EXPECT_FALSE(key.valid);
  AESKey iv(false, 256);
  EXPECT_FALSE(iv.is_key);
  EXPECT_EQ(iv.bits, 256);
  EXPECT_EQ(key_bytes(iv), Bytes(32, 0x00));
}

TEST(AESKey, ReadHexOfLowerAndUpperCaseGivesTheSameBytesAndToHexGivesLowerCase) {
  AESKey lower;
  lower.read_hex("2b7e151628aed2a6abf7158809cf4f3c");
  AESKey upper;
  upper.read_hex("2B7E151628AED2A6ABF7158809CF4F3C");
  EXPECT_EQ(key_bytes(lower), padded(NIST_KEY));
  EXPECT_EQ(key_bytes(upper), padded(NIST_KEY));
  EXPECT_TRUE(lower.valid);
  EXPECT_TRUE(upper.valid);
  EXPECT_EQ(upper.to_hex(), "2b7e151628aed2a6abf7158809cf4f3c");
}

TEST(AESKey, ReadHexOfAnEmptyTextLeavesTheBytesAndSetsValid) {
  AESKey key;
  key.set_key_bytes(NIST_KEY.data());
  key.valid = false;
  key.read_hex("");
  EXPECT_EQ(key_bytes(key), padded(NIST_KEY));
  EXPECT_TRUE(key.valid);
}

TEST(AESKey, ReadHexOfFortyDigitsReadsThirtyTwoAndLeavesTheRestInTheStream) {
  AESKey key;
  std::istringstream stream("2b7e151628aed2a6abf7158809cf4f3c01234567");
  key.read_hex(stream);
  EXPECT_EQ(key_bytes(key), padded(NIST_KEY));
  std::string rest;
  stream >> rest;
  EXPECT_EQ(rest, "01234567");
}

TEST(AESKey, ReadHexOfThirtyOneDigitsLeavesTheLastByteWithItsLowNibbleZero) {
  AESKey key;
  key.read_hex("2b7e151628aed2a6abf7158809cf4f3");
  Bytes expected = NIST_KEY;
  expected[15] = 0x30;
  EXPECT_EQ(key_bytes(key), padded(expected));
}

TEST(AESKey, ReadHexOfAShortTextOverAFreshKeyLeavesTheRemainingBytesZero) {
  AESKey key;
  key.read_hex("abc");
  EXPECT_EQ(key_bytes(key), padded({0xab, 0xc0}));
  EXPECT_TRUE(key.valid);
}

TEST(AESKey, ReadHexOfAShortTextLeavesTheBytesBehindItAsTheyWere) {
  AESKey key;
  key.set_key_bytes(NIST_KEY.data());
  key.read_hex("0000");
  Bytes expected = NIST_KEY;
  expected[0] = 0x00;
  expected[1] = 0x00;
  EXPECT_EQ(key_bytes(key), padded(expected));
}

// Each character is its code less 48 below 'A' (65), else less 55, after the C locale's toupper;
// an even digit is shifted left by 4 and cut to 8 bits, an odd one added modulo 256.
TEST(AESKey, ReadHexTakesAnyCharacterThroughTheDigitArithmetic) {
  struct Case {
    std::string text;
    unsigned char byte;
  };
  const Case cases[] = {
      {"::", 0xAA},        // ':' is 58, 58 - 48 = 10
      {"@@", 0x10},        // '@' is 64, 64 - 48 = 16: (16 << 4) cut to 8 bits is 0, then + 16
      {"gG", 0x10},        // 'G' is 71, 71 - 55 = 16: 0, then + 16
      {"zz", 0x53},        // 'Z' is 90, 90 - 55 = 35: (35 << 4) & 0xFF = 0x30, 0x30 + 35
      {" 0", 0x00},        // ' ' is 32, 32 - 48 = -16: (-16 << 4) & 0xFF = 0; then + 0
      {"0 ", 0xF0},        // 0, then 0 - 16 modulo 256
      {"\xE9\xE9", 0xD2},  // 233 is no letter in the C locale: 233 - 55 = 178 = 0xB2;
                           // (0xB2 << 4) & 0xFF = 0x20, 0x20 + 0xB2
  };
  for (const Case& c : cases) {
    AESKey key;
    key.read_hex(c.text);
    EXPECT_EQ(key.key[0], c.byte) << "text " << c.text;
    EXPECT_EQ(key.key[1], 0x00) << "text " << c.text;
  }
  // A zero byte is a character like any other: 0 - 48 = -48, (-48 << 4) & 0xFF = 0; then 1 - 48
  // = -47, and 0 - 47 modulo 256 is 0xD1.
  AESKey key;
  key.read_hex(std::string("\0\x01", 2));
  EXPECT_EQ(key.key[0], 0xD1);
}

TEST(AESKey, ReadHexDoesNotSkipWhitespace) {
  AESKey key;
  std::istringstream stream(" 2b");
  stream >> key;
  // ' ' gives 0 in the high nibble, '2' adds 2; 'b' starts the next byte as 0xB0.
  EXPECT_EQ(key.key[0], 0x02);
  EXPECT_EQ(key.key[1], 0xB0);
}

TEST(AESKey, ReadHexCountsDigitsByBits) {
  AESKey key(true, 64);
  key.read_hex("0102030405060708090a");
  EXPECT_EQ(key_bytes(key), padded({1, 2, 3, 4, 5, 6, 7, 8}));
  AESKey wide(true, 256);
  wide.read_hex(std::string(64, 'f') + "00");
  EXPECT_EQ(key_bytes(wide), Bytes(32, 0xFF));
}

TEST(AESKey, BitsOutsideTheKeyBufferAreKeptToItsThirtyTwoBytes) {
  AESKey huge(true, 1 << 20);
  EXPECT_EQ(huge.byte_count(), 32u);
  huge.read_hex(std::string(100, '1'));
  EXPECT_EQ(key_bytes(huge), Bytes(32, 0x11));
  EXPECT_EQ(huge.to_hex(), std::string(64, '1'));

  AESKey negative(true, -128);
  EXPECT_EQ(negative.byte_count(), 0u);
  negative.read_hex("ffff");
  EXPECT_EQ(key_bytes(negative), Bytes(32, 0x00));
  EXPECT_TRUE(negative.valid);
  EXPECT_EQ(negative.to_hex(), "");

  AESKey odd(true, 20);  // 20 / 8 is 2 bytes, 20 / 4 is 5 digits
  odd.read_hex("123456");
  EXPECT_EQ(odd.byte_count(), 2u);
  EXPECT_EQ(key_bytes(odd), padded({0x12, 0x34, 0x50}));
  EXPECT_EQ(odd.to_hex(), "1234");
}

TEST(AESKey, ReadHexStopsAtTheEndOfTheStream) {
  AESKey key;
  std::istringstream stream("a");
  key.read_hex(stream);
  EXPECT_EQ(key.key[0], 0xA0);
  EXPECT_TRUE(key.valid);
  EXPECT_TRUE(stream.eof());
}

TEST(AESKey, WriteHexLeavesTheStreamInDecimalWithBlankFillAndNoWidth) {
  AESKey key;
  key.set_key_bytes(NIST_KEY.data());
  std::ostringstream stream;
  stream << std::hex << std::uppercase << std::setfill('*') << std::setw(40) << key << 255 << '|'
         << std::setw(0) << 7;
  EXPECT_EQ(stream.str(), "2b7e151628aed2a6abf7158809cf4f3c255|7");
  std::ostringstream plain;
  plain << key;
  plain << std::setw(4) << 42;
  EXPECT_EQ(plain.str(), "2b7e151628aed2a6abf7158809cf4f3c  42");
}

TEST(AESKey, WriteHexWritesLeadingZerosOfEachByte) {
  AESKey key;
  const Bytes small = {0x00, 0x01, 0x0a, 0x10, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x09};
  key.set_key_bytes(small.data());
  EXPECT_EQ(key.to_hex(), "00010a10ff0000000000000000000009");
}

TEST(AESKey, ToHexOfA256BitKeyHasSixtyFourDigits) {
  AESKey key(true, 256);
  key.read_hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
  EXPECT_EQ(key.to_hex(), "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
}

TEST(AESKey, GetAndSetKeyBytesCopyBitsOverEightBytes) {
  AESKey key;
  Bytes in(32, 0x5A);
  key.set_key_bytes(in.data());
  EXPECT_TRUE(key.valid);
  EXPECT_EQ(key_bytes(key), padded(Bytes(16, 0x5A)));
  Bytes out(32, 0xEE);
  key.get_key_bytes(out.data());
  Bytes expected(16, 0x5A);
  expected.resize(32, 0xEE);
  EXPECT_EQ(out, expected);
}

TEST(AESKey, SetRandomFillsBitsOverEightBytesAndSetsValid) {
  AESKey first;
  AESKey second;
  first.set_random();
  second.set_random();
  EXPECT_TRUE(first.valid);
  // Two draws of 128 bits are equal, or all zero, with a chance of 2 to the -128.
  EXPECT_NE(key_bytes(first), key_bytes(second));
  EXPECT_NE(key_bytes(first), Bytes(32, 0x00));
  EXPECT_EQ(Bytes(first.key + 16, first.key + 32), Bytes(16, 0x00));
}

TEST(AESKey, ReadTakesTheRawBytesAndLeavesValidAlone) {
  Bytes source = NIST_KEY;
  source.push_back(0x99);
  Korvix::Channel::BlockReader reader(source.data(), source.size());
  AESKey key;
  key.read(reader);
  EXPECT_EQ(key_bytes(key), padded(NIST_KEY));
  EXPECT_EQ(reader.offset, 16u);
  EXPECT_FALSE(key.valid);
  key.valid = true;
  Korvix::Channel::BlockReader again(source.data(), source.size());
  key.read(again);
  EXPECT_TRUE(key.valid);
}

TEST(AESKey, ReadOfAShortSourcePassesTheChannelErrorThrough) {
  Bytes source(15, 0x01);
  Korvix::Channel::BlockReader reader(source.data(), source.size());
  AESKey key;
  try {
    key.read(reader);
    FAIL() << "no error";
  } catch (const Korvix::Channel::Error& error) {
    EXPECT_EQ(error.error, 0);
    EXPECT_EQ(error.text, "EOF");
  }
}

TEST(AESKey, WritePutsTheRawBytes) {
  AESKey key;
  key.read_hex("2b7e151628aed2a6abf7158809cf4f3c");
  Bytes out(20, 0xEE);
  Korvix::Channel::BlockWriter writer(out.data(), out.size());
  key.write(writer);
  EXPECT_EQ(writer.offset, 16u);
  Bytes expected = NIST_KEY;
  expected.resize(20, 0xEE);
  EXPECT_EQ(out, expected);
}

TEST(AESKey, WriteIntoTooSmallABlockPassesTheChannelErrorThrough) {
  AESKey key;
  Bytes out(15, 0xEE);
  Korvix::Channel::BlockWriter writer(out.data(), out.size());
  try {
    key.write(writer);
    FAIL() << "no error";
  } catch (const Korvix::Channel::Error& error) {
    EXPECT_EQ(error.error, 1);
    EXPECT_EQ(error.text, "Data block overflowed");
  }
  EXPECT_EQ(out, Bytes(15, 0xEE));
}

}  // namespace
}  // namespace Korvix::Crypto
