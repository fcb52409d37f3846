#include "foundation/channel/buffered_writer.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/channel/block_writer.h"
#include "foundation/channel/string_writer.h"
#include "tests/foundation/channel/error_of.h"

namespace {

using Korvix::Channel::BlockWriter;
using Korvix::Channel::BufferedWriter;
using Korvix::Channel::StringWriter;

const unsigned char BYTES[] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j'};

TEST(BufferedWriter, SmallWritesWaitUntilTheNextOneDoesNotFit) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 8);
  writer.write(BYTES, 3);
  writer.write(BYTES + 3, 3);
  EXPECT_EQ(text, "");
  writer.write(BYTES + 6, 3);
  EXPECT_EQ(text, "abcdef");
  EXPECT_EQ(writer.used, 3u);
  writer.flush();
  EXPECT_EQ(text, "abcdefghi");
  EXPECT_EQ(writer.used, 0u);
}

TEST(BufferedWriter, WriteThatFillsTheBufferExactlyStaysGathered) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 4);
  writer.write(BYTES, 1);
  writer.write(BYTES + 1, 3);
  EXPECT_EQ(text, "");
  EXPECT_EQ(writer.used, 4u);
  writer.write(BYTES + 4, 1);
  EXPECT_EQ(text, "abcd");
}

TEST(BufferedWriter, WriteAsLargeAsTheCapacityGoesStraightOnAfterWhatWasGathered) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 4);
  writer.write(BYTES, 2);
  writer.write(BYTES + 2, 4);
  EXPECT_EQ(text, "abcdef");
  EXPECT_EQ(writer.used, 0u);
  EXPECT_EQ(target.offset, 6u);
}

TEST(BufferedWriter, OffsetCountsGatheredBytesToo) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 16);
  writer.write_nbo_32(0x01020304);
  writer.write_byte(5);
  EXPECT_EQ(writer.offset, 5u);
  EXPECT_EQ(target.offset, 0u);
  writer.flush();
  EXPECT_EQ(text, std::string("\x01\x02\x03\x04\x05", 5));
}

TEST(BufferedWriter, FlushWithNothingGatheredWritesNothing) {
  unsigned char none[1] = {0};
  BlockWriter target(none, 0);
  BufferedWriter writer(target, 4);
  EXPECT_EQ(error_of([&] { writer.flush(); }).error, -1);
  EXPECT_EQ(target.offset, 0u);
}

TEST(BufferedWriter, FailedFlushLosesWhatWasGatheredAndTheWriterGoesOn) {
  unsigned char room[4] = {0, 0, 0, 0};
  BlockWriter target(room, sizeof room);
  BufferedWriter writer(target, 8);
  writer.write(BYTES, 6);
  // The target takes 4 bytes; 6 don't fit, so it throws and the 6 are gone.
  EXPECT_NE(error_of([&] { writer.flush(); }).error, -1);
  EXPECT_EQ(writer.used, 0u);
  writer.write(BYTES + 6, 4);
  writer.flush();
  EXPECT_EQ(std::string(room, room + 4), "ghij");
}

TEST(BufferedWriter, WriteThatFlushesIntoAFailingTargetIsLostWithTheGatheredBytes) {
  unsigned char room[2] = {0, 0};
  BlockWriter target(room, sizeof room);
  BufferedWriter writer(target, 4);
  writer.write(BYTES, 3);
  EXPECT_NE(error_of([&] { writer.write(BYTES + 3, 2); }).error, -1);
  EXPECT_EQ(writer.used, 0u);
  EXPECT_EQ(writer.offset, 3u);
  writer.write(BYTES + 5, 2);
  writer.flush();
  EXPECT_EQ(std::string(room, room + 2), "fg");
}

TEST(BufferedWriter, CapacityOfZeroHoldsOneByte) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 0);
  EXPECT_EQ(writer.buffer.size(), 1u);
  writer.write(BYTES, 3);
  EXPECT_EQ(text, "abc");
}

TEST(BufferedWriter, RoomFilledInPlaceCountsOnceCommitted) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 8);
  writer.write(BYTES, 2);
  unsigned char* room = writer.room(3);
  ASSERT_EQ(room, writer.buffer.data() + 2);
  room[0] = 'x';
  room[1] = 'y';
  writer.commit(2);
  EXPECT_EQ(writer.offset, 4u);
  writer.flush();
  EXPECT_EQ(text, "abxy");
}

TEST(BufferedWriter, RoomThatDoesNotFitFlushesFirst) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 8);
  writer.write(BYTES, 6);
  unsigned char* room = writer.room(3);
  EXPECT_EQ(text, "abcdef");
  EXPECT_EQ(room, writer.buffer.data());
}

TEST(BufferedWriter, RoomThatFitsExactlyBehindWhatIsGatheredFlushesNothing) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 8);
  writer.write(BYTES, 5);
  EXPECT_EQ(writer.room(3), writer.buffer.data() + 5);
  EXPECT_EQ(text, "");
  EXPECT_EQ(writer.used, 5u);
}

TEST(BufferedWriter, NoRoomBeyondTheCapacity) {
  std::string text;
  StringWriter target(text);
  BufferedWriter writer(target, 8);
  writer.write(BYTES, 2);
  EXPECT_EQ(writer.room(9), nullptr);
  EXPECT_EQ(writer.used, 2u);
  EXPECT_EQ(text, "");
  EXPECT_NE(writer.room(8), nullptr);
  EXPECT_EQ(text, "ab");
}

}  // namespace
