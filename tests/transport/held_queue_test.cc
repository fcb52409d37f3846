#include "transport/held_queue.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace Veldrin::IndexGen
