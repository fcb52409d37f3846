#include "foundation/text/text.h"

#include <gtest/gtest.h>

#include <cmath>

namespace Korvix::Text {
namespace {

TEST(Text, ToLowerFoldsAsciiAndKeepsHighBytes) {
  EXPECT_EQ(to_lower("MiXeD 123 VDX2"), "mixed 123 vdx2");
  EXPECT_EQ(to_lower(std::string("A\xC4\xFF", 3)), std::string("a\xC4\xFF", 3));
  EXPECT_EQ(to_lower(""), "");
}

TEST(Text, ToUpperFoldsAsciiAndKeepsHighBytes) {
  EXPECT_EQ(to_upper("vdx2 and Vdx"), "VDX2 AND VDX");
  EXPECT_EQ(to_upper(std::string("a\xE4\x80", 3)), std::string("A\xE4\x80", 3));
}

TEST(Text, TextToIntReadsDecimal) {
  EXPECT_EQ(text_to_int("42"), 42);
  EXPECT_EQ(text_to_int("  -17"), -17);
  EXPECT_EQ(text_to_int("+8"), 8);
  EXPECT_EQ(text_to_int("0x10"), 0);
  EXPECT_EQ(text_to_int("010"), 10);
}

TEST(Text, TextToIntStopsAtGarbage) {
  EXPECT_EQ(text_to_int("12abc"), 12);
  EXPECT_EQ(text_to_int("abc"), 0);
  EXPECT_EQ(text_to_int(""), 0);
}

TEST(Text, TextToIntTruncatesToThirtyTwoBits) {
  EXPECT_EQ(text_to_int("4294967297"), 1);
  EXPECT_EQ(text_to_int("2147483648"), -2147483647 - 1);
  EXPECT_EQ(text_to_int("4294967295"), -1);
}

TEST(Text, IntToTextIsDecimal) {
  EXPECT_EQ(int_to_text(0), "0");
  EXPECT_EQ(int_to_text(2), "2");
  EXPECT_EQ(int_to_text(-45), "-45");
  EXPECT_EQ(int_to_text(-2147483647 - 1), "-2147483648");
}

TEST(Text, DoubleToTextDefaultFormatting) {
  EXPECT_EQ(double_to_text(7.25), "7.25");
  EXPECT_EQ(double_to_text(2.0), "2");
  EXPECT_EQ(double_to_text(1e20), "1e+20");
  EXPECT_EQ(double_to_text(0.1234567), "0.123457");
}

TEST(Text, DoubleToTextWithWidthPrecisionAndZeroFill) {
  EXPECT_EQ(double_to_text(7.25, 6, 3, true), "07.250");
  EXPECT_EQ(double_to_text(7.25, 6, 3, false), " 7.250");
  EXPECT_EQ(double_to_text(2.0, 0, 2, false), "2.00");
  EXPECT_EQ(double_to_text(59.9999, 6, 3, true), "60.000");
  EXPECT_EQ(double_to_text(12345.5, 6, 3, true), "12345.500");
}

TEST(Text, DoubleToTextWidthWithoutPrecision) {
  EXPECT_EQ(double_to_text(1.5, 5, 0, false), "  1.5");
  EXPECT_EQ(double_to_text(1.5, 5, 0, true), "001.5");
}

TEST(Text, TextToDouble) {
  EXPECT_EQ(text_to_double("7.25"), 7.25);
  EXPECT_EQ(text_to_double("-1e3x"), -1000.0);
  EXPECT_EQ(text_to_double("x"), 0.0);
}

TEST(Text, SubstituteReplacesEveryOccurrence) {
  EXPECT_EQ(substitute("%*L%*L", "%*L", "2"), "22");
  EXPECT_EQ(substitute("a-b-c", "-", "+-+"), "a+-+b+-+c");
  EXPECT_EQ(substitute("abc", "x", "y"), "abc");
}

TEST(Text, SubstituteNeverRescansItsReplacement) {
  EXPECT_EQ(substitute("aa", "a", "aa"), "aaaa");
  EXPECT_EQ(substitute("xax", "a", "bab"), "xbabx");
}

TEST(Text, SubstituteOfEmptyTextOrEmptyOldIsTheCopy) {
  EXPECT_EQ(substitute("", "a", "b"), "");
  EXPECT_EQ(substitute("abc", "", "b"), "abc");
}

TEST(Text, SubstituteRemovesWithEmptyReplacement) {
  EXPECT_EQ(substitute("a%%b%%", "%%", ""), "ab");
}

TEST(Text, FixedPointIntToTextInsertsPoint) {
  EXPECT_EQ(int_to_text(1234, 2), "12.34");
  EXPECT_EQ(int_to_text(5, 3), "0.005");
  EXPECT_EQ(int_to_text(-5, 3), "-0.005");
  EXPECT_EQ(int_to_text(100, 2), "1.00");
  EXPECT_EQ(int_to_text(7, 0), "7");
}

TEST(Text, FixedPointIntToTextAppendsZerosForNegativeShift) {
  EXPECT_EQ(int_to_text(12, -2), "1200");
  EXPECT_EQ(int_to_text(-3, -1), "-30");
}

TEST(Text, FixedPointTextToIntTakesShiftOff) {
  EXPECT_EQ(text_to_int("12.34", 2), 1234);
  EXPECT_EQ(text_to_int("12.3", 2), 1230);
  EXPECT_EQ(text_to_int("12", 2), 1200);
  EXPECT_EQ(text_to_int("12.345", 2), 1234);
  EXPECT_EQ(text_to_int("0.005", 3), 5);
  EXPECT_EQ(text_to_int("-0.005", 3), -5);
  EXPECT_EQ(text_to_int("1200", -2), 12);
  EXPECT_EQ(text_to_int("garbage", 2), 0);
}

TEST(Text, FixedPointRoundTrip) {
  for (int32_t value : {0, 1, -1, 99, 1000, -123456, 2147483647}) {
    for (int32_t shift : {0, 1, 3, 6})
      EXPECT_EQ(text_to_int(int_to_text(value, shift), shift), value);
  }
}

TEST(Text, FixedPointHugeShiftEndsAndWraps) {
  EXPECT_EQ(text_to_int("1", 2000000000), 0);
  EXPECT_EQ(text_to_int("1", -2000000000), 0);
}

TEST(Text, HexToBytesReadsPairs) {
  unsigned char buffer[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(hex_to_bytes("00fFa5", buffer, 4), 3u);
  EXPECT_EQ(buffer[0], 0x00);
  EXPECT_EQ(buffer[1], 0xFF);
  EXPECT_EQ(buffer[2], 0xA5);
  EXPECT_EQ(buffer[3], 0xEE);
}

TEST(Text, HexToBytesStopsAtMaxAtOddDigitAndAtGarbage) {
  unsigned char buffer[4] = {};
  EXPECT_EQ(hex_to_bytes("0102030405", buffer, 2), 2u);
  EXPECT_EQ(buffer[2], 0x00);
  EXPECT_EQ(hex_to_bytes("123", buffer, 4), 1u);
  EXPECT_EQ(buffer[0], 0x12);
  EXPECT_EQ(hex_to_bytes("12zz34", buffer, 4), 1u);
  EXPECT_EQ(hex_to_bytes("", buffer, 4), 0u);
}

TEST(Text, BytesToHexIsLowerCase) {
  const unsigned char data[] = {0x00, 0xAB, 0x7F, 0x10};
  EXPECT_EQ(bytes_to_hex(data, 4), "00ab7f10");
  EXPECT_EQ(bytes_to_hex(data, 0), "");
}

TEST(Text, NumberParsers) {
  EXPECT_EQ(hex_text_to_int("1fF"), 0x1FFu);
  EXPECT_EQ(hex_text_to_int("0x10"), 0x10u);
  EXPECT_EQ(hex_text_to_int("zz"), 0u);
  EXPECT_EQ(hex_text_to_int64("83aa7e8080000000"), 0x83AA7E8080000000ull);
  EXPECT_EQ(hex_text_to_int64("-"), 0u);
  EXPECT_EQ(text_to_int64("18446744073709551615"), 18446744073709551615ull);
  EXPECT_EQ(text_to_int64("x1"), 0u);
}

TEST(Text, NumberFormatters) {
  EXPECT_EQ(int_to_hex_text(0xBEEF), "beef");
  EXPECT_EQ(int_to_hex_text(0), "0");
  EXPECT_EQ(int64_to_hex_text(0x83AA7E8080000000ull), "83aa7e8080000000");
  EXPECT_EQ(int64_to_text(18446744073709551615ull), "18446744073709551615");
}

}  // namespace
}  // namespace Korvix::Text
