#include "transport/payload.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace Veldrin::IndexGen {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes counting(size_t count, unsigned char first = 0) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(first + i);
  return bytes;
}

TEST(Payload, AFullPacketPayloadStaysInsideTheRecord) {
  Payload payload(counting(184));
  EXPECT_EQ(payload.capacity(), 184u);
  const unsigned char* inside = reinterpret_cast<const unsigned char*>(&payload);
  EXPECT_GE(payload.data(), inside);
  EXPECT_LT(payload.data(), inside + sizeof(Payload));
  EXPECT_EQ(payload, counting(184));
}

TEST(Payload, GrowingPastOnePacketKeepsEveryByte) {
  Payload payload(counting(180));
  payload.insert(payload.begin(), {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22});
  EXPECT_EQ(payload.size(), 188u);
  EXPECT_GE(payload.capacity(), 188u);
  Bytes expected = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22};
  const Bytes tail = counting(180);
  expected.insert(expected.end(), tail.begin(), tail.end());
  EXPECT_EQ(payload, expected);
  const unsigned char* inside = reinterpret_cast<const unsigned char*>(&payload);
  EXPECT_TRUE(payload.data() < inside || payload.data() >= inside + sizeof(Payload));
}

TEST(Payload, InsertingItsOwnBytesCopiesThemFirst) {
  Payload payload(counting(6, 1));  // 01 02 03 04 05 06
  payload.insert(payload.begin() + 2, payload.begin(), payload.begin() + 4);
  EXPECT_EQ(payload, (Bytes{1, 2, 1, 2, 3, 4, 3, 4, 5, 6}));
  Payload big(counting(184));
  big.insert(big.end(), big.begin(), big.begin() + 3);  // grows while reading itself
  Bytes expected = counting(184);
  expected.insert(expected.end(), {0, 1, 2});
  EXPECT_EQ(big, expected);
}

TEST(Payload, EraseMovesTheTailDown) {
  Payload payload(counting(10));
  const auto at = payload.erase(payload.begin() + 2, payload.begin() + 5);
  EXPECT_EQ(*at, 5);
  EXPECT_EQ(payload, (Bytes{0, 1, 5, 6, 7, 8, 9}));
  payload.erase(payload.begin());
  EXPECT_EQ(payload, (Bytes{1, 5, 6, 7, 8, 9}));
}

TEST(Payload, MovingTakesTheBytesAndLeavesTheSourceEmpty) {
  for (const size_t size : {size_t{0}, size_t{5}, size_t{184}, size_t{400}}) {
    Payload source(counting(size));
    Payload target(std::move(source));
    EXPECT_EQ(target, counting(size)) << size;
    EXPECT_TRUE(source.empty()) << size;  // NOLINT: the state after a move is part of the type
    EXPECT_EQ(source.capacity(), 184u) << size;
    Payload again(counting(300, 7));
    again = std::move(target);
    EXPECT_EQ(again, counting(size)) << size;
  }
}

TEST(Payload, CopiesAreEqualAndIndependent) {
  Payload original(counting(200));
  Payload copy(original);
  EXPECT_EQ(copy, original);
  copy[0] = 0xFF;
  EXPECT_EQ(original[0], 0);
  EXPECT_FALSE(copy == original);
  Payload shorter(counting(199));
  EXPECT_FALSE(shorter == original);
  EXPECT_TRUE(shorter < original);
}

TEST(Payload, CopiesOfEveryInlineLengthHoldExactlyTheSourceBytes) {
  for (size_t size = 0; size <= Payload::INLINE_CAPACITY; ++size) {
    const Payload source(counting(size, 9));
    const Payload copy(source);
    EXPECT_EQ(copy, counting(size, 9)) << size;
    EXPECT_EQ(copy.capacity(), Payload::INLINE_CAPACITY) << size;
    Payload assigned(counting(3));
    assigned = source;
    EXPECT_EQ(assigned, counting(size, 9)) << size;
  }
}

TEST(Payload, CopyOfAnInlinePayloadOverOneOnTheHeapTakesOnlyTheSourceBytes) {
  Payload target(counting(300, 1));
  ASSERT_GT(target.capacity(), Payload::INLINE_CAPACITY);
  const Payload source(counting(5, 40));
  target = source;
  EXPECT_EQ(target, counting(5, 40));
  EXPECT_EQ(target.capacity(), Payload::INLINE_CAPACITY);
  // It grows again as any payload does.
  target.insert(target.end(), 250, 0xAB);
  Bytes expected = counting(5, 40);
  expected.insert(expected.end(), 250, 0xAB);
  EXPECT_EQ(target, expected);
}

TEST(Payload, CopyOfAHeapPayloadKeepsEveryByte) {
  const Payload source(counting(400, 2));
  Payload target(counting(10));
  target = source;
  EXPECT_EQ(target, counting(400, 2));
  const Payload copy(source);
  EXPECT_EQ(copy, counting(400, 2));
}

TEST(Payload, ConvertsToAndFromAVectorOfBytes) {
  const Bytes bytes = counting(50, 3);
  const Payload payload = bytes;
  const Bytes back = payload;
  EXPECT_EQ(back, bytes);
  EXPECT_EQ(Payload{}, Bytes{});
}

// Random edits on a payload and on a vector give the same bytes at every step.
TEST(Payload, BehavesAsAVectorOfBytesUnderRandomEdits) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    Payload payload;
    Bytes vector;
    for (int step = 0; step < 60; ++step) {
      const size_t at = vector.empty() ? 0 : random() % (vector.size() + 1);
      const auto value = static_cast<unsigned char>(random());
      switch (random() % 7) {
        case 0:
          payload.push_back(value);
          vector.push_back(value);
          break;
        case 1: {
          const size_t count = random() % 120;
          payload.insert(payload.begin() + at, count, value);
          vector.insert(vector.begin() + static_cast<std::ptrdiff_t>(at), count, value);
          break;
        }
        case 2: {
          const Bytes more = counting(random() % 90, value);
          payload.insert(payload.begin() + at, more.begin(), more.end());
          vector.insert(vector.begin() + static_cast<std::ptrdiff_t>(at), more.begin(), more.end());
          break;
        }
        case 3:
          if (!vector.empty()) {
            const size_t last = at + random() % (vector.size() - std::min(at, vector.size()) + 1);
            const size_t end = std::min(last, vector.size());
            payload.erase(payload.begin() + at, payload.begin() + end);
            vector.erase(vector.begin() + static_cast<std::ptrdiff_t>(at),
                         vector.begin() + static_cast<std::ptrdiff_t>(end));
          }
          break;
        case 4: {
          const size_t size = random() % 400;
          payload.resize(size, value);
          vector.resize(size, value);
          break;
        }
        case 5: {
          const Bytes bytes = counting(random() % 250, value);
          payload.assign(bytes.begin(), bytes.end());
          vector.assign(bytes.begin(), bytes.end());
          break;
        }
        default:
          payload.clear();
          vector.clear();
          break;
      }
      ASSERT_EQ(payload.size(), vector.size()) << round << " " << step;
      ASSERT_EQ(payload, vector) << round << " " << step;
    }
  }
}

}  // namespace
}  // namespace Veldrin::IndexGen
