#include "foundation/log/distributor.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/log/capturing_channel.h"
#include "foundation/log/stream.h"

namespace Korvix::Log {
namespace {

// Tells whether the distributor's lock is free at the moment of asking.
class ProbedDistributor : public Distributor {
 public:
  bool unlocked() {
    if (!mutex.try_lock()) return false;
    mutex.unlock();
    return true;
  }
};

// Records the order in which channels are reached.
class OrderChannel : public Channel {
 public:
  OrderChannel(std::vector<int>& order_, int id_) : order(order_), id(id_) {}
  void log(Message&) override { order.push_back(id); }

  std::vector<int>& order;
  int id;
};

class ThrowingChannel : public Channel {
 public:
  void log(Message&) override { throw std::runtime_error("sink broke"); }
};

TEST(Distributor, WithoutChannelsLogReturnsAtOnce) {
  Distributor distributor;
  Message message{2, Stamp(1), "nobody hears"};
  distributor.log(message);
  EXPECT_TRUE(distributor.channels.empty());
  EXPECT_EQ(message.text, "nobody hears");
}

TEST(Distributor, ForwardsInOrderOfConnection) {
  Distributor distributor;
  std::vector<int> order;
  OrderChannel first(order, 1), second(order, 2), third(order, 3);
  distributor.connect(second);
  distributor.connect(first);
  distributor.connect(third);
  Message message{1, Stamp(), "x"};
  distributor.log(message);
  EXPECT_EQ(order, (std::vector<int>{2, 1, 3}));
}

TEST(Distributor, PassesTheSameMessageObjectToEveryChannel) {
  Distributor distributor;
  CapturingChannel a, b;
  distributor.connect(a);
  distributor.connect(b);
  Message message{3, Stamp(42), "line"};
  distributor.log(message);
  ASSERT_EQ(a.addresses.size(), 1u);
  ASSERT_EQ(b.addresses.size(), 1u);
  EXPECT_EQ(a.addresses[0], &message);
  EXPECT_EQ(b.addresses[0], &message);
  EXPECT_EQ(b.messages[0].level, 3);
  EXPECT_EQ(b.messages[0].timestamp, Stamp(42));
  EXPECT_EQ(b.messages[0].text, "line");
}

TEST(Distributor, DisconnectOfChannelConnectedTwiceRemovesBoth) {
  Distributor distributor;
  CapturingChannel twice, other;
  distributor.connect(twice);
  distributor.connect(other);
  distributor.connect(twice);
  distributor.disconnect(twice);
  ASSERT_EQ(distributor.channels.size(), 1u);
  EXPECT_EQ(distributor.channels[0], &other);
  Message message{1, Stamp(), "x"};
  distributor.log(message);
  EXPECT_TRUE(twice.messages.empty());
  EXPECT_EQ(other.messages.size(), 1u);
}

TEST(Distributor, DisconnectOfUnknownChannelChangesNothing) {
  Distributor distributor;
  CapturingChannel connected, stranger;
  distributor.connect(connected);
  distributor.disconnect(stranger);
  EXPECT_EQ(distributor.channels.size(), 1u);
}

TEST(Distributor, ChannelConnectedTwiceGetsEachMessageTwice) {
  Distributor distributor;
  CapturingChannel channel;
  distributor.connect(channel);
  distributor.connect(channel);
  Message message{1, Stamp(), "x"};
  distributor.log(message);
  EXPECT_EQ(channel.messages.size(), 2u);
}

TEST(Distributor, ThrowingChannelLeavesThroughTheLockRelease) {
  ProbedDistributor distributor;
  ThrowingChannel thrower;
  CapturingChannel after;
  distributor.connect(thrower);
  distributor.connect(after);
  Message message{1, Stamp(), "x"};
  EXPECT_THROW(distributor.log(message), std::runtime_error);
  EXPECT_TRUE(distributor.unlocked());
  EXPECT_TRUE(after.messages.empty());
}

TEST(Distributor, LoggerIsTheProcessWideRoot) {
  CapturingChannel capture;
  logger.connect(capture);
  Summary(logger) << "to the root\n";
  Summary() << "by default\n";
  logger.disconnect(capture);
  Summary() << "after disconnecting\n";
  ASSERT_EQ(capture.messages.size(), 2u);
  EXPECT_EQ(capture.messages[0].text, "to the root");
  EXPECT_EQ(capture.messages[1].text, "by default");
}

}  // namespace
}  // namespace Korvix::Log
