#include "foundation/channel/stream_writer.h"

#include <gtest/gtest.h>

#include <sstream>
#include <streambuf>
#include <string>

#include "foundation/channel/error_of.h"

namespace Korvix::Channel {
namespace {

// A sink that refuses every byte.
class BrokenBuf : public std::streambuf {
 protected:
  int_type overflow(int_type) override { return traits_type::eof(); }
};

// A sink that takes every byte but cannot seek, as a pipe.
class PipeBuf : public std::streambuf {
 public:
  std::string taken;

 protected:
  int_type overflow(int_type c) override {
    taken.push_back(traits_type::to_char_type(c));
    return c;
  }
};

TEST(StreamWriter, WritesBytesAndCountsOffset) {
  std::ostringstream out;
  StreamWriter writer(out);
  EXPECT_EQ(writer.offset, 0u);
  writer.write_nbo_16(0x4142);
  writer.write("cd");
  EXPECT_EQ(out.str(), "ABcd");
  EXPECT_EQ(writer.offset, 4u);
}

TEST(StreamWriter, FailedStreamThrowsStreamFailed) {
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  StreamWriter writer(out);
  Error error = error_of([&] { writer.write_byte(1); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Stream failed");
  EXPECT_EQ(writer.offset, 0u);
}

TEST(StreamWriter, FailedWriteSurfacesOnTheNextOne) {
  BrokenBuf buf;
  std::ostream out(&buf);
  StreamWriter writer(out);
  writer.write_nbo_32(1);
  EXPECT_EQ(writer.offset, 4u);
  Error error = error_of([&] { writer.write_byte(2); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Stream failed");
  EXPECT_EQ(writer.offset, 4u);
}

// A sink that counts the flushes asked of it.
class SyncCountingBuf : public PipeBuf {
 public:
  int syncs = 0;

 protected:
  int sync() override {
    ++syncs;
    return 0;
  }
};

TEST(StreamWriter, AStreamOfUnitBufferingIsFlushedAfterEachWrite) {
  SyncCountingBuf buf;
  std::ostream out(&buf);
  out.setf(std::ios::unitbuf);
  StreamWriter writer(out);
  writer.write("ab");
  writer.write_byte('c');
  EXPECT_EQ(buf.taken, "abc");
  EXPECT_EQ(buf.syncs, 2);
}

TEST(StreamWriter, ATiedStreamIsFlushedBeforeEachWrite) {
  SyncCountingBuf tied_buf;
  std::ostream tied(&tied_buf);
  PipeBuf buf;
  std::ostream out(&buf);
  out.tie(&tied);
  StreamWriter writer(out);
  writer.write("ab");
  writer.write("cd");
  EXPECT_EQ(buf.taken, "abcd");
  EXPECT_EQ(tied_buf.syncs, 2);
}

TEST(StreamWriter, AnOrdinaryStreamIsNotFlushedByWrites) {
  SyncCountingBuf buf;
  std::ostream out(&buf);
  StreamWriter writer(out);
  writer.write("abcd");
  EXPECT_EQ(buf.taken, "abcd");
  EXPECT_EQ(buf.syncs, 0);
  EXPECT_TRUE(out.good());
}

TEST(StreamWriter, SkipWritesZeros) {
  std::ostringstream out;
  StreamWriter writer(out);
  writer.write_byte(0xFF);
  writer.skip(300);
  EXPECT_EQ(out.str(), std::string(1, '\xFF') + std::string(300, '\0'));
  EXPECT_EQ(writer.offset, 301u);
}

TEST(StreamWriter, IsRewindable) {
  std::ostringstream out;
  StreamWriter writer(out);
  EXPECT_TRUE(writer.rewindable());
}

TEST(StreamWriter, RewindLetsBytesBeOverwritten) {
  std::ostringstream out;
  StreamWriter writer(out);
  writer.write("abcd");
  writer.rewind(2);
  EXPECT_EQ(writer.offset, 2u);
  writer.write("XY");
  EXPECT_EQ(out.str(), "abXY");
}

TEST(StreamWriter, RewindAtOffsetZeroThrowsRewoundTooFar) {
  std::ostringstream out;
  StreamWriter writer(out);
  Error error = error_of([&] { writer.rewind(1); });
  EXPECT_EQ(error.error, 1);
  EXPECT_EQ(error.text, "Rewound too far");
}

TEST(StreamWriter, RewindOnPipeThrowsCantRewindWithOffsetSubtracted) {
  PipeBuf buf;
  std::ostream out(&buf);
  StreamWriter writer(out);
  writer.write_nbo_16(0x4142);
  ASSERT_EQ(buf.taken, "AB");
  ASSERT_FALSE(out.fail());
  Error error = error_of([&] { writer.rewind(1); });
  EXPECT_EQ(error.error, 2);
  EXPECT_EQ(error.text, "Can't rewind");
  EXPECT_EQ(writer.offset, 1u);
}

}  // namespace
}  // namespace Korvix::Channel
