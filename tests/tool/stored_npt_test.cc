#include "tool/stored_npt.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace Veldrin::Tool {
namespace {

TEST(StoredNpt, EveryStoredMillisecondComesBackExactly) {
  for (uint32_t ms = 0; ms < 200000; ++ms) ASSERT_EQ(stored_milliseconds(ms / 1000.0), ms) << ms;
  for (uint32_t ms : {4294967295u, 4294967294u, 2147483648u, 3600000u * 24u})
    EXPECT_EQ(stored_milliseconds(ms / 1000.0), ms) << ms;
}

TEST(StoredNpt, NegativeAndNanGiveZero) {
  EXPECT_EQ(stored_milliseconds(-1.0), 0u);
  EXPECT_EQ(stored_milliseconds(0.0 / 0.0), 0u);
}

TEST(StoredNpt, SecondsHaveThreeDecimals) {
  EXPECT_EQ(milliseconds_as_seconds(12500), "12.500");
  EXPECT_EQ(milliseconds_as_seconds(7), "0.007");
  EXPECT_EQ(milliseconds_as_seconds(0), "0.000");
  EXPECT_EQ(milliseconds_as_seconds(60010), "60.010");
  EXPECT_EQ(milliseconds_as_seconds(4294967295u), "4294967.295");
}

}  // namespace
}  // namespace Veldrin::Tool
