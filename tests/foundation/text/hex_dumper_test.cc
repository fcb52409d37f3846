#include "foundation/text/hex_dumper.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace Korvix::Text {
namespace {

TEST(HexDumper, ShortLinePadsHexToSeparatorPlaces) {
  const unsigned char data[] = {0x41, 0x42, 0x00, 0x7F, 0x7A};
  std::ostringstream out;
  HexDumper(out, 16, 4, true).dump(data, 5);
  EXPECT_EQ(out.str(), "0000: 4142007f 7a                         | AB..z\n");
}

TEST(HexDumper, FullLinesThenShortLine) {
  unsigned char data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<unsigned char>(0x30 + i);
  std::ostringstream out;
  HexDumper(out, 16, 4, true).dump(data, 20);
  EXPECT_EQ(out.str(),
            "0000: 30313233 34353637 38393a3b 3c3d3e3f | 0123456789:;<=>?\n"
            "0010: 40414243                            | @ABC\n");
}

TEST(HexDumper, WithoutAsciiThereIsNoPadding) {
  const unsigned char data[] = {0x01, 0x02, 0x03, 0x04, 0x05};
  std::ostringstream out;
  HexDumper(out, 16, 4, false).dump(data, 5);
  EXPECT_EQ(out.str(), "0000: 01020304 05\n");
}

TEST(HexDumper, SplitZeroMeansNoGroups) {
  const unsigned char data[] = {0xDE, 0xAD, 0xBE};
  std::ostringstream out;
  HexDumper(out, 4, 0, true).dump(data, 3);
  EXPECT_EQ(out.str(), "0000:deadbe   | ...\n");
}

TEST(HexDumper, SmallWidthCountsOffsetsInHex) {
  unsigned char data[18] = {};
  std::ostringstream out;
  HexDumper(out, 8, 0, false).dump(data, 18);
  EXPECT_EQ(out.str(),
            "0000:0000000000000000\n"
            "0008:0000000000000000\n"
            "0010:0000\n");
}

TEST(HexDumper, EmptyOrNegativeLengthPrintsNothingAndResetsStream) {
  std::ostringstream out;
  out << std::hex << std::setfill('*');
  HexDumper(out, 16, 4, true).dump(nullptr, 0);
  HexDumper(out, 16, 4, true).dump(nullptr, -3);
  EXPECT_EQ(out.str(), "");
  out << 255 << std::setw(4) << 1;
  EXPECT_EQ(out.str(), "255   1");
}

TEST(HexDumper, StreamIsDecimalWithBlankFillAfterDump) {
  const unsigned char data[] = {0xFF};
  std::ostringstream out;
  HexDumper(out, 16, 4, true).dump(data, 1);
  out.str("");
  out << 255 << std::setw(4) << 7;
  EXPECT_EQ(out.str(), "255   7");
}

}  // namespace
}  // namespace Korvix::Text
