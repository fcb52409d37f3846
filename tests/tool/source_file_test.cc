#include "tool/source_file.h"

#include <gtest/gtest.h>

#include <string>

#include "support/index_bytes.h"
#include "support/scratch_dir.h"

namespace Veldrin::Tool {
namespace {

using Testing::ScratchDir;

TEST(SourceFile, SizeIsTheFileLength) {
  ScratchDir dir;
  SourceFile source;
  ASSERT_TRUE(source.open(dir.write("a.ts", std::string(1000, 'x'))));
  EXPECT_EQ(source.size, 1000u);
}

TEST(SourceFile, MissingFileDoesNotOpen) {
  ScratchDir dir;
  SourceFile source;
  EXPECT_FALSE(source.open(dir.file("none.ts")));
}

TEST(SourceFile, ReadGivesTheBytesOrFalsePastTheEnd) {
  ScratchDir dir;
  SourceFile source;
  ASSERT_TRUE(source.open(dir.write("a.ts", "0123456789")));
  unsigned char bytes[4] = {};
  ASSERT_TRUE(source.read(6, bytes, 4));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 4), "6789");
  EXPECT_FALSE(source.read(7, bytes, 4));
  EXPECT_FALSE(source.read(11, bytes, 0));
  EXPECT_FALSE(source.read(~uint64_t{0}, bytes, 2));
  // A failed read leaves the file usable.
  EXPECT_TRUE(source.read(0, bytes, 1));
  EXPECT_EQ(bytes[0], '0');
}

TEST(SourceFile, PacketStartsWhereTwoSyncBytesStandAPacketApart) {
  ScratchDir dir;
  const std::string packets = Testing::ts_packet(256, 0) + Testing::ts_packet(256, 1);
  SourceFile source;
  ASSERT_TRUE(source.open(dir.write("a.ts", "xx" + packets)));
  EXPECT_TRUE(source.packet_starts(2));
  EXPECT_TRUE(source.packet_starts(190));  // the last packet: the file ends behind it
  EXPECT_FALSE(source.packet_starts(0));
  EXPECT_FALSE(source.packet_starts(3));
  EXPECT_FALSE(source.packet_starts(378));
}

TEST(SourceFile, StraySyncByteInAPayloadIsNoPacketStart) {
  ScratchDir dir;
  std::string packets = Testing::ts_packet(256, 0) + Testing::ts_packet(256, 1);
  packets[50] = '\x47';
  SourceFile source;
  ASSERT_TRUE(source.open(dir.write("a.ts", packets)));
  EXPECT_FALSE(source.packet_starts(50));
}

TEST(SourceFile, CutPacketAtTheEndIsNoPacketStart) {
  ScratchDir dir;
  const std::string packets = Testing::ts_packet(256, 0) + Testing::ts_packet(256, 1);
  SourceFile source;
  ASSERT_TRUE(source.open(dir.write("a.ts", packets.substr(0, 300))));
  EXPECT_FALSE(source.packet_starts(188));
  EXPECT_TRUE(source.packet_starts(0));
}

}  // namespace
}  // namespace Veldrin::Tool
