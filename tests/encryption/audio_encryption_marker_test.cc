#include "encryption/audio_encryption_marker.h"

#include <gtest/gtest.h>

#include "encryption/marker_support.h"

namespace Veldrin::Testing {
namespace {

using IndexGen::AudioEncryptionMarker;
using IndexGen::MarkedPacket;

TEST(AudioEncryptionMarker, EveryPacketIsEncryptedAndReadyAtOnce) {
  AudioEncryptionMarker marker;
  MarkedPacket first = video_packet(starting_with(hex("00 00 01 C0 00 B8 80 80 05 21 00 01 00 01")),
                                    true, 0x101);
  marker.mark(first);
  EXPECT_TRUE(first.encrypt);
  EXPECT_TRUE(first.ready);
  MarkedPacket second = video_packet(hex("00 00 01 B3 00 00 01 00"), false, 0x101);
  marker.mark(second);
  EXPECT_TRUE(second.encrypt);
  EXPECT_TRUE(second.ready);
}

TEST(AudioEncryptionMarker, DecidesWithoutLookingAtThePacket) {
  AudioEncryptionMarker marker;
  MarkedPacket packet = video_packet({}, true, 0x101);
  packet.encrypt = false;
  marker.mark(packet);
  EXPECT_TRUE(packet.encrypt);
  EXPECT_TRUE(packet.ready);
  EXPECT_TRUE(packet.payload.empty());
}

}  // namespace
}  // namespace Veldrin::Testing
