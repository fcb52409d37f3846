#include "transport/held_queue.h"

#include <gtest/gtest.h>

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
