#include "crypto/crc.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace Korvix::Crypto {
namespace {

// Bit-by-bit reference, independent of the table: feeds each bit into the register. Written
// without branches on the bits: a branchy form of it was miscompiled at -O2 by one compiler.
uint32_t bitwise(uint32_t poly, bool reflected, bool invert,
                 const std::vector<unsigned char>& data) {
  uint32_t crc = 0xFFFFFFFFu;
  for (const unsigned char value : data) {
    const uint32_t byte = value;
    for (uint32_t i = 0; i < 8; i++) {
      uint32_t feedback;
      if (reflected) {
        feedback = (crc ^ (byte >> i)) & 1u;
        crc >>= 1;
      } else {
        feedback = ((crc >> 31) ^ (byte >> (7 - i))) & 1u;
        crc <<= 1;
      }
      crc ^= poly & (0u - feedback);
    }
  }
  return invert ? ~crc : crc;
}

const std::string CHECK = "123456789";

TEST(CRC, MpegSettingGivesTheMpeg2CheckValue) {
  EXPECT_EQ(CRC(0, false, false).calculate(CHECK), 0x0376E6E7u);
}

TEST(CRC, NotReflectedWithInversionGivesTheBzip2CheckValue) {
  EXPECT_EQ(CRC(0, false, true).calculate(CHECK), 0xFC891918u);
}

TEST(CRC, ReflectedWithInversionGivesTheCommonCrc32CheckValue) {
  EXPECT_EQ(CRC(0, true, true).calculate(CHECK), 0xCBF43926u);
}

TEST(CRC, ReflectedWithoutInversionGivesTheJamCheckValue) {
  EXPECT_EQ(CRC(0, true, false).calculate(CHECK), 0x340BC6D9u);
}

TEST(CRC, CastagnoliReflectedWithInversionGivesItsCheckValue) {
  EXPECT_EQ(CRC(1, true, true).calculate(CHECK), 0xE3069283u);
  EXPECT_EQ(CRC(1, true, false).calculate(CHECK), ~0xE3069283u);
}

TEST(CRC, CastagnoliNotReflectedMatchesTheBitwiseReference) {
  std::vector<unsigned char> data(CHECK.begin(), CHECK.end());
  EXPECT_EQ(CRC(1, false, false).calculate(CHECK), bitwise(0x1EDC6F41, false, false, data));
  EXPECT_EQ(CRC(1, false, true).calculate(CHECK), bitwise(0x1EDC6F41, false, true, data));
}

TEST(CRC, AnyOtherAlgorithmIsCrc32) {
  EXPECT_EQ(CRC(7, false, false).calculate(CHECK), 0x0376E6E7u);
  EXPECT_EQ(CRC(-1, true, true).calculate(CHECK), 0xCBF43926u);
}

TEST(CRC, NoDataGivesAllOnesOrZeroInverted) {
  EXPECT_EQ(CRC(0, false, false).calculate(nullptr, 0), 0xFFFFFFFFu);
  EXPECT_EQ(CRC(0, false, true).calculate(nullptr, 0), 0u);
  EXPECT_EQ(CRC(1, true, false).calculate(std::string()), 0xFFFFFFFFu);
  EXPECT_EQ(CRC(1, true, true).calculate(std::string()), 0u);
}

TEST(CRC, SectionOverItsOwnCrcFieldGivesZero) {
  // A PAT of program 1 on PID 0x1000 with its CRC_32.
  std::vector<unsigned char> section{0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1, 0x00, 0x00,
                                     0x00, 0x01, 0xF0, 0x00, 0x2A, 0xB1, 0x04, 0xB2};
  CRC crc(0, false, false);
  EXPECT_EQ(crc.calculate(section.data(), section.size() - 4), 0x2AB104B2u);
  EXPECT_EQ(crc.calculate(section.data(), section.size()), 0u);
  section[13] ^= 0x01;
  EXPECT_NE(crc.calculate(section.data(), section.size()), 0u);
}

TEST(CRC, TablesHoldThePolynomialAtTheSingleBitEntry) {
  EXPECT_EQ(CRC(0, false, false).table[1], 0x04C11DB7u);
  EXPECT_EQ(CRC(0, true, false).table[128], 0xEDB88320u);
  EXPECT_EQ(CRC(1, false, false).table[1], 0x1EDC6F41u);
  EXPECT_EQ(CRC(1, true, false).table[128], 0x82F63B78u);
  EXPECT_EQ(CRC(0, false, false).table[0], 0u);
}

TEST(CRC, AllSettingsMatchTheBitwiseReferenceOnRandomData) {
  std::mt19937 random(7);
  for (int round = 0; round < 50; round++) {
    std::vector<unsigned char> data(random() % 300);
    for (auto& b : data) b = static_cast<unsigned char>(random());
    for (int algorithm = 0; algorithm < 2; algorithm++) {
      for (bool reflected : {false, true}) {
        for (bool invert : {false, true}) {
          uint32_t poly = algorithm == 1 ? (reflected ? 0x82F63B78u : 0x1EDC6F41u)
                                         : (reflected ? 0xEDB88320u : 0x04C11DB7u);
          EXPECT_EQ(CRC(algorithm, reflected, invert).calculate(data.data(), data.size()),
                    bitwise(poly, reflected, invert, data));
        }
      }
    }
  }
}

TEST(CRC, TextAndBytesAgree) {
  std::vector<unsigned char> data(CHECK.begin(), CHECK.end());
  CRC crc(0, false, false);
  EXPECT_EQ(crc.calculate(CHECK), crc.calculate(data.data(), data.size()));
}

}  // namespace
}  // namespace Korvix::Crypto
