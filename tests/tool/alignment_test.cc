#include "tool/alignment.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace Veldrin::Tool {
namespace {

// A packet whose only sync byte is its first; the rest holds no 0x47.
std::string packet(unsigned char fill = 0xFF) {
  std::string bytes(188, static_cast<char>(fill));
  bytes[0] = 0x47;
  return bytes;
}

std::string packets(size_t count) {
  std::string bytes;
  for (size_t i = 0; i < count; ++i) bytes += packet();
  return bytes;
}

// The alignment window with the bytes placed at position; the rest zero.
std::vector<unsigned char> window_with(size_t position, const std::string& bytes) {
  std::vector<unsigned char> window(ALIGNMENT_WINDOW, 0);
  for (size_t i = 0; i < bytes.size() && position + i < window.size(); ++i)
    window[position + i] = static_cast<unsigned char>(bytes[i]);
  return window;
}

TEST(Alignment, TenSyncBytesOnePacketApartAlign) {
  uint32_t position = 12345;
  ASSERT_TRUE(find_alignment(window_with(100, packets(10)).data(), position));
  EXPECT_EQ(position, 100u);
}

TEST(Alignment, NineSyncBytesDoNotAlign) {
  uint32_t position = 12345;
  EXPECT_FALSE(find_alignment(window_with(100, packets(9)).data(), position));
  EXPECT_EQ(position, 12345u);
}

TEST(Alignment, AllZeroWindowDoesNotAlign) {
  uint32_t position = 0;
  EXPECT_FALSE(find_alignment(window_with(0, "").data(), position));
}

TEST(Alignment, TheFirstAcceptedPositionWins) {
  std::string bytes = packets(12);
  bytes[5] = 0x47;  // a stray sync byte that isn't followed by others
  uint32_t position = 0;
  ASSERT_TRUE(find_alignment(window_with(0, bytes).data(), position));
  EXPECT_EQ(position, 0u);
  // Two interleaved runs: the earlier start wins although both are whole.
  std::vector<unsigned char> window = window_with(300, packets(10));
  for (size_t k = 0; k < 10; ++k) window[250 + 188 * k] = 0x47;
  ASSERT_TRUE(find_alignment(window.data(), position));
  EXPECT_EQ(position, 250u);
}

TEST(Alignment, LastPositionLookedAtIs185931) {
  EXPECT_EQ(ALIGNMENT_LIMIT, 185932u);
  uint32_t position = 0;
  ASSERT_TRUE(find_alignment(window_with(185931, packets(10)).data(), position));
  EXPECT_EQ(position, 185931u);
  EXPECT_FALSE(find_alignment(window_with(185932, packets(10)).data(), position));
  EXPECT_FALSE(find_alignment(window_with(186000, packets(10)).data(), position));
}

TEST(Alignment, StreamIsSoughtToTheFirstPacket) {
  std::string file = std::string(100, '\x01') + packets(1100);
  std::istringstream stream(file);
  uint32_t start_offset = 0;
  ASSERT_TRUE(align_stream(stream, start_offset));
  EXPECT_EQ(start_offset, 100u);
  EXPECT_TRUE(stream.good());
  EXPECT_EQ(stream.tellg(), std::streampos(100));
  EXPECT_EQ(stream.get(), 0x47);
}

TEST(Alignment, ShortFileThatAlignsIsLeftFailedSoNothingIsRead) {
  std::string file = std::string(100, '\x01') + packets(10);
  std::istringstream stream(file);
  uint32_t start_offset = 0;
  ASSERT_TRUE(align_stream(stream, start_offset));
  EXPECT_EQ(start_offset, 100u);
  EXPECT_TRUE(stream.fail());
  char chunk[16];
  stream.read(chunk, sizeof chunk);
  EXPECT_EQ(stream.gcount(), 0);
}

TEST(Alignment, FewerThanTenPacketsDoNotAlign) {
  std::istringstream stream(packets(9));
  uint32_t start_offset = 7;
  EXPECT_FALSE(align_stream(stream, start_offset));
  EXPECT_EQ(start_offset, 7u);
}

TEST(Alignment, EmptyStreamDoesNotAlign) {
  std::istringstream stream("");
  uint32_t start_offset = 0;
  EXPECT_FALSE(align_stream(stream, start_offset));
}

TEST(Alignment, StreamStartingTooLateDoesNotAlign) {
  std::istringstream stream(std::string(185932, '\0') + packets(20));
  uint32_t start_offset = 0;
  EXPECT_FALSE(align_stream(stream, start_offset));
}

}  // namespace
}  // namespace Veldrin::Tool
