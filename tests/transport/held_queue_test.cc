#include "transport/held_queue.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace Veldrin::IndexGen {
namespace {

std::vector<std::string> contents(const HeldQueue<std::string>& queue) {
  return std::vector<std::string>(queue.begin(), queue.end());
}

TEST(HeldQueue, RecordsLeaveInTheOrderTheyCame) {
  HeldQueue<std::string> queue;
  EXPECT_TRUE(queue.empty());
  queue.emplace_back("a");
  queue.emplace_back(3, 'b');
  EXPECT_EQ(queue.size(), 2u);
  EXPECT_EQ(queue.front(), "a");
  EXPECT_EQ(queue.back(), "bbb");
  queue.pop_front();
  EXPECT_EQ(contents(queue), (std::vector<std::string>{"bbb"}));
  queue.pop_front();
  EXPECT_TRUE(queue.empty());
}

TEST(HeldQueue, RecordsNeverMoveWhileOthersComeAndGo) {
  HeldQueue<std::string> queue;
  std::string& held = queue.emplace_back("held");
  queue.emplace_back("second");
  const std::string* address = &held;
  for (int i = 0; i < 1000; ++i) queue.emplace_back(std::to_string(i));
  EXPECT_EQ(&queue.front(), address);
  EXPECT_EQ(held, "held");
  std::string& later = *std::next(queue.begin());
  queue.pop_front();
  EXPECT_EQ(&queue.front(), &later);
  EXPECT_EQ(later, "second");
}

TEST(HeldQueue, FrontRunUpToAnEndLeavesAtOnce) {
  HeldQueue<std::string> queue;
  for (const char* text : {"a", "b", "c", "d"}) queue.emplace_back(text);
  std::string& kept = *std::next(queue.begin(), 2);
  queue.pop_front_until(std::next(queue.begin(), 2));
  EXPECT_EQ(contents(queue), (std::vector<std::string>{"c", "d"}));
  EXPECT_EQ(&queue.front(), &kept);
  queue.pop_front_until(queue.begin());
  EXPECT_EQ(queue.size(), 2u);
  queue.pop_front_until(queue.end());
  EXPECT_TRUE(queue.empty());
}

TEST(HeldQueue, ComingAndGoingAroundTheRingKeepsTheOrder) {
  HeldQueue<std::string> queue;
  // More than the ring's first length of 16, with the front moving all the while.
  int next = 0;
  for (int round = 0; round < 50; ++round) {
    queue.emplace_back(std::to_string(next++));
    queue.emplace_back(std::to_string(next++));
    queue.pop_front();
  }
  ASSERT_EQ(queue.size(), 50u);
  std::vector<std::string> expected;
  for (int i = 50; i < 100; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(contents(queue), expected);
  EXPECT_EQ(queue.front(), "50");
  EXPECT_EQ(queue.back(), "99");
}

TEST(HeldQueue, QueueOfSteadyLengthUsesTheSameNodesAgain) {
  HeldQueue<std::string> queue;
  for (const char* text : {"a", "b", "c"}) queue.emplace_back(text);
  std::set<const std::string*> nodes;
  for (int i = 0; i < 100; ++i) {
    queue.pop_front();
    nodes.insert(&queue.emplace_back(std::to_string(i)));
  }
  for (const std::string& record : queue) nodes.insert(&record);
  EXPECT_EQ(nodes.size(), 3u);
  EXPECT_EQ(contents(queue), (std::vector<std::string>{"97", "98", "99"}));
}

// A record whose making can fail, and which counts the records alive.
struct Fragile {
  static inline int alive = 0;
  Fragile() { ++alive; }
  explicit Fragile(int value_) : value(value_) {
    if (value < 0) throw std::invalid_argument("negative");
    ++alive;
  }
  Fragile(const Fragile& other) : value(other.value) { ++alive; }
  Fragile& operator=(const Fragile&) = default;
  ~Fragile() { --alive; }
  int value = 0;
};

TEST(HeldQueue, ARecordThatFailsToBeMadeLeavesTheQueueAsItWas) {
  {
    HeldQueue<Fragile> queue;
    queue.emplace_back(1);
    queue.emplace_back(2);
    queue.pop_front();
    // The spare node of the record that left is the one the failing record takes.
    EXPECT_THROW(queue.emplace_back(-1), std::invalid_argument);
    ASSERT_EQ(queue.size(), 1u);
    EXPECT_EQ(queue.front().value, 2);
    // The node is a spare again, whole, and the next record takes it.
    Fragile& next = queue.emplace_back(3);
    EXPECT_EQ(next.value, 3);
    EXPECT_EQ(queue.size(), 2u);
    EXPECT_EQ(Fragile::alive, 2);
    queue.pop_front();
    queue.pop_front();
    EXPECT_TRUE(queue.empty());
  }
  // Every record made was also unmade, spares included.
  EXPECT_EQ(Fragile::alive, 0);
}

}  // namespace
}  // namespace Veldrin::IndexGen
