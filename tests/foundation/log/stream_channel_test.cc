#include "foundation/log/stream_channel.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Korvix::Log {
namespace {

// A string sink that counts its flushes.
class CountingBuf : public std::stringbuf {
 public:
  int syncs = 0;

 protected:
  int sync() override {
    ++syncs;
    return std::stringbuf::sync();
  }
};

TEST(StreamChannel, WritesTextAndNewline) {
  std::ostringstream out;
  StreamChannel channel(out);
  Message first{2, Stamp(), "Indexing pipe into -.vdx2"};
  Message second{1, Stamp(), "second"};
  channel.log(first);
  channel.log(second);
  EXPECT_EQ(out.str(), "Indexing pipe into -.vdx2\nsecond\n");
}

TEST(StreamChannel, EmptyTextGivesEmptyLine) {
  std::ostringstream out;
  StreamChannel channel(out);
  Message message{2, Stamp(), ""};
  channel.log(message);
  EXPECT_EQ(out.str(), "\n");
}

TEST(StreamChannel, FlushesAfterEachLine) {
  CountingBuf buf;
  std::ostream out(&buf);
  StreamChannel channel(out);
  Message message{2, Stamp(), "a"};
  channel.log(message);
  EXPECT_EQ(buf.syncs, 1);
  channel.log(message);
  EXPECT_EQ(buf.syncs, 2);
  EXPECT_EQ(buf.str(), "a\na\n");
}

TEST(StreamChannel, IgnoresLevelAndLeavesMessageAlone) {
  std::ostringstream out;
  StreamChannel channel(out);
  Message message{99, Stamp(5), "any level"};
  channel.log(message);
  EXPECT_EQ(out.str(), "any level\n");
  EXPECT_EQ(message.text, "any level");
}

}  // namespace
}  // namespace Korvix::Log
