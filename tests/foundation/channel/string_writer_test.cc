#include "foundation/channel/string_writer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Korvix::Channel::StringWriter;

TEST(StringWriter, AppendsBytesInNetworkOrderAndCountsThem) {
  std::string text = "x";
  StringWriter writer(text);
  writer.write_nbo_16(0x0102);
  writer.write_nbo_32(0x03040506);
  writer.write_byte(0x1FF);
  EXPECT_EQ(text, std::string("x\x01\x02\x03\x04\x05\x06\xFF", 8));
  EXPECT_EQ(writer.offset, 7u);
}

TEST(StringWriter, SkipAppendsZeros) {
  std::string text;
  StringWriter writer(text);
  writer.skip(300);
  EXPECT_EQ(text, std::string(300, '\0'));
  EXPECT_EQ(writer.offset, 300u);
}

TEST(StringWriter, CannotRewind) {
  std::string text;
  StringWriter writer(text);
  writer.write_byte(1);
  EXPECT_FALSE(writer.rewindable());
  try {
    writer.rewind(1);
    FAIL() << "rewind succeeded";
  } catch (const Korvix::Channel::Error& error) {
    EXPECT_EQ(error.error, 2);
    EXPECT_EQ(error.text, "Can't rewind");
  }
  EXPECT_EQ(text, std::string(1, '\x01'));
}

}  // namespace
