#include "transport/start_code_scanner.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::hex;

// Every start code of one payload as "index/prefix length", scanning from `from`.
std::vector<std::string> codes(StartCodeScanner& scanner, const Bytes& bytes, size_t from = 0) {
  std::vector<std::string> out;
  while (from < bytes.size()) {
    const StartCode code = scanner.find(bytes.data(), from, bytes.size());
    if (!code.found()) {
      EXPECT_EQ(code.index, bytes.size());
      break;
    }
    out.push_back(std::to_string(code.index) + "/" + std::to_string(code.prefix_length));
    from = code.index + 1;
  }
  return out;
}

using Found = std::vector<std::string>;

TEST(StartCodeScanner, ThreeByteStartCodeGivesTheValueByteAndPrefixThree) {
  StartCodeScanner scanner;
  EXPECT_EQ(codes(scanner, hex("00 00 01 B3 14 00")), (Found{"3/3"}));
}

TEST(StartCodeScanner, FourByteStartCodeGivesPrefixFour) {
  StartCodeScanner scanner;
  EXPECT_EQ(codes(scanner, hex("AA 00 00 00 01 65 88")), (Found{"5/4"}));
}

TEST(StartCodeScanner, ZerosAreCountedUpToThree) {
  StartCodeScanner scanner;
  EXPECT_EQ(codes(scanner, hex("00 00 00 00 00 00 01 09")), (Found{"7/4"}));
}

TEST(StartCodeScanner, OneZeroAheadOfTheOneIsNoPrefix) {
  // The twin of 00 00 01 B3 with a zero lost, and one with the 01 changed.
  StartCodeScanner scanner;
  EXPECT_TRUE(codes(scanner, hex("00 01 B3 00 00 02 B3")).empty());
  EXPECT_EQ(scanner.prefix_length, 0);
  EXPECT_EQ(scanner.last_byte, 0xB3);
}

TEST(StartCodeScanner, ValueByteNeverCountsAsAZeroOfANextPrefix) {
  // The picture start code's value 00 is followed by 00 01: one zero only.
  StartCodeScanner scanner;
  EXPECT_EQ(codes(scanner, hex("00 00 01 00 00 01 B3")), (Found{"3/3"}));
  StartCodeScanner twin;
  EXPECT_EQ(codes(twin, hex("00 00 01 00 00 00 01 B3")), (Found{"3/3", "7/3"}));
}

TEST(StartCodeScanner, BackToBackStartCodes) {
  StartCodeScanner scanner;
  EXPECT_EQ(codes(scanner, hex("00 00 01 09 00 00 00 01 67 00 00 01 01")),
            (Found{"3/3", "8/4", "12/3"}));
}

TEST(StartCodeScanner, PrefixCarriesAcrossCalls) {
  StartCodeScanner scanner;
  EXPECT_TRUE(codes(scanner, hex("AA 00 00")).empty());
  EXPECT_EQ(scanner.prefix_length, 2);
  EXPECT_EQ(codes(scanner, hex("01 B3")), (Found{"1/3"}));
  StartCodeScanner split_after_one;
  EXPECT_TRUE(codes(split_after_one, hex("AA 00 00 01")).empty());
  EXPECT_EQ(codes(split_after_one, hex("B3 11")), (Found{"0/3"}));
}

TEST(StartCodeScanner, ScanStopsAtTheEndOfTheRangeGiven) {
  StartCodeScanner scanner;
  const Bytes bytes = hex("00 00 01 B3 00 00 01 B8");
  StartCode code = scanner.find(bytes.data(), 0, 3);
  EXPECT_FALSE(code.found());
  EXPECT_EQ(code.index, 3u);
  code = scanner.find(bytes.data(), 3, 4);
  EXPECT_TRUE(code.found());
  EXPECT_EQ(code.index, 3u);
  code = scanner.find(bytes.data(), 4, 4);
  EXPECT_FALSE(code.found());
  EXPECT_EQ(code.index, 4u);
}

TEST(StartCodeScanner, ScanFromAnIndexLeavesTheBytesAheadOfItAlone) {
  // A PES header that holds a start code itself is skipped by starting behind it.
  StartCodeScanner scanner;
  EXPECT_EQ(codes(scanner, hex("00 00 01 E0 00 00 80 00 00 5A 5A"), 9), Found{});
  EXPECT_EQ(scanner.last_byte, 0x5A);
}

TEST(StartCodeScanner, ForgettingDropsAPrefixUnderWay) {
  StartCodeScanner scanner;
  EXPECT_TRUE(codes(scanner, hex("00 00 01")).empty());
  EXPECT_EQ(scanner.scan_state(), 3);
  scanner.forget();
  EXPECT_EQ(scanner.scan_state(), 0);
  EXPECT_TRUE(codes(scanner, hex("B3 00 00 01 B8")).size() == 1);
}

TEST(StartCodeScanner, ScanStateCountsAsMpeg2Does) {
  const std::vector<std::pair<std::string, int32_t>> cases = {
      {"", 0},           {"00", 1},    {"00 00", 2},    {"00 00 00", 2}, {"00 00 00 00", 2},
      {"00 00 01", 3},   {"00 01", 0}, {"00 00 02", 0}, {"01", 0},       {"00 00 01 B3", 0},
      {"00 00 00 01", 3}};
  for (const auto& [text, state] : cases) {
    StartCodeScanner scanner;
    codes(scanner, hex(text));
    EXPECT_EQ(scanner.scan_state(), state) << text;
  }
}

TEST(StartCodeScanner, PlaceOfAPrefixByteInThisPayloadOrThePreviousOne) {
  // Right behind a PES header of 9 bytes: the prefix starts at the header's end; the byte ahead
  // of it is the last of the previous payload.
  StartCode code{12, 3};
  BytePlace first = code.place_back(9, 3);
  EXPECT_FALSE(first.in_previous);
  EXPECT_EQ(first.position, 9);
  BytePlace before = code.place_back(9, 4);
  EXPECT_TRUE(before.in_previous);
  EXPECT_EQ(before.position, -1);
  // 00 00 01 split 2 to 1: the value byte at index 1 of the next payload.
  BytePlace split = StartCode{1, 3}.place_back(0, 3);
  EXPECT_TRUE(split.in_previous);
  EXPECT_EQ(split.position, -2);
}

// The fast scans this processor can run: 16 places at a time always, 32 with AVX2.
std::vector<bool> scan_widths() {
  std::vector<bool> widths{false};
  if (StartCodeScanner::wide_scan_available()) widths.push_back(true);
  return widths;
}

// Scans bytes in pieces of 1 to max_piece bytes, each its own run of calls as each payload is,
// with the fast scan and the byte-by-byte reference side by side: they find the same start
// codes and end each piece with the same counters. Gives the count of start codes found.
size_t agree_with_reference(const Bytes& bytes, std::mt19937& random, size_t max_piece,
                            bool wide) {
  size_t found = 0;
  StartCodeScanner fast;
  fast.wide = wide;
  StartCodeScanner reference;
  reference.byte_by_byte = true;
  size_t at = 0;
  while (at < bytes.size()) {
    const size_t end = std::min(bytes.size(), at + 1 + random() % max_piece);
    size_t from = at;
    for (;;) {
      const StartCode a = fast.find(bytes.data(), from, end);
      const StartCode b = reference.find(bytes.data(), from, end);
      EXPECT_EQ(a.index, b.index) << "piece " << at << " to " << end;
      EXPECT_EQ(a.prefix_length, b.prefix_length) << "piece " << at << " to " << end;
      EXPECT_EQ(fast.prefix_length, reference.prefix_length) << "piece " << at << " to " << end;
      EXPECT_EQ(fast.last_byte, reference.last_byte) << "piece " << at << " to " << end;
      if (a.index != b.index || !a.found()) break;
      ++found;
      from = a.index + 1;
    }
    at = end;
  }
  return found;
}

// Random bytes rich in zeros and ones, cut into random pieces.
TEST(StartCodeScanner, FastScanAgreesWithTheByteByByteReference) {
  size_t found = 0;
  for (uint32_t seed = 1; seed <= 50; ++seed) {
    std::mt19937 random(seed);
    Bytes bytes(5000);
    for (unsigned char& b : bytes) {
      const uint32_t pick = random() % 8;
      b = pick < 4 ? 0 : pick < 5 ? 1 : static_cast<unsigned char>(random());
    }
    for (const bool wide : scan_widths()) {
      std::mt19937 pieces(seed);
      found += agree_with_reference(bytes, pieces, 200, wide);
      if (::testing::Test::HasFailure()) FAIL() << "seed " << seed << " wide " << wide;
    }
  }
  EXPECT_GT(found, 1000u);
}

// Long runs without a zero, as in coded pictures, with start codes and lone zeros here and
// there, scanned in pieces of any length: the many-bytes-at-a-time search agrees with the
// reference, at every alignment.
TEST(StartCodeScanner, FastScanAgreesWithTheReferenceOnSparseZeros) {
  size_t found = 0;
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 random(seed);
    Bytes bytes(20000);
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(2 + random() % 254);
    for (int n = 0; n < 150; ++n) {
      const size_t at = random() % (bytes.size() - 5);
      switch (random() % 5) {
        case 0: bytes[at] = 0; break;                                   // a lone zero
        case 1: bytes[at] = bytes[at + 1] = 0; break;                   // a pair, no one
        case 2: bytes[at] = bytes[at + 1] = 0, bytes[at + 2] = 1; break;
        case 3: bytes[at] = bytes[at + 1] = bytes[at + 2] = 0, bytes[at + 3] = 1; break;
        default: bytes[at] = 0, bytes[at + 1] = 1; break;               // one zero and a one
      }
    }
    for (const bool wide : scan_widths()) {
      std::mt19937 pieces(seed);
      found += agree_with_reference(bytes, pieces, 400, wide);
      if (::testing::Test::HasFailure()) FAIL() << "seed " << seed << " wide " << wide;
    }
  }
  EXPECT_GT(found, 2000u);
}

// Coded video is full of two zeros followed by a larger byte (00 00 03 and the like), which
// begin no start code; among them runs of zeros, and zeros, pairs and triples at the ends of
// pieces of payload length.
TEST(StartCodeScanner, FastScanAgreesWithTheReferenceAmongPairsOfZerosThatBeginNothing) {
  size_t found = 0;
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 random(seed);
    Bytes bytes(20000);
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(2 + random() % 254);
    for (int n = 0; n < 1500; ++n) {
      const size_t at = random() % (bytes.size() - 6);
      switch (random() % 6) {
        case 0: bytes[at] = bytes[at + 1] = 0, bytes[at + 2] = 3; break;
        case 1: bytes[at] = bytes[at + 1] = 0, bytes[at + 2] = 2; break;
        case 2: bytes[at] = bytes[at + 1] = 0, bytes[at + 2] = 0x80; break;
        case 3: bytes[at] = bytes[at + 1] = bytes[at + 2] = bytes[at + 3] = 0; break;
        case 4: bytes[at] = bytes[at + 1] = 0, bytes[at + 2] = 1; break;
        default: bytes[at] = bytes[at + 1] = bytes[at + 2] = 0, bytes[at + 3] = 1; break;
      }
    }
    for (const bool wide : scan_widths()) {
      std::mt19937 pieces(seed);
      found += agree_with_reference(bytes, pieces, 184, wide);
      if (::testing::Test::HasFailure()) FAIL() << "seed " << seed << " wide " << wide;
    }
  }
  EXPECT_GT(found, 10000u);
}

// Every way for a piece of 18 to 80 bytes to end in zeros, ones and a larger byte, around the
// edges between the search many places at a time (16 or 32) and the last places, with one to
// three steps of the wide search ahead of them.
TEST(StartCodeScanner, FastScanAgreesWithTheReferenceAtEveryEndOfAPiece) {
  const unsigned char values[] = {0, 1, 3};
  for (size_t length = 18; length <= 80; ++length) {
    for (int tail = 0; tail < 81; ++tail) {
      Bytes bytes(length, 0x55);
      int code = tail;
      for (size_t k = 0; k < 4; ++k, code /= 3) bytes[length - 1 - k] = values[code % 3];
      for (size_t from = 0; from < 3; ++from) {
        for (const bool wide : scan_widths()) {
          StartCodeScanner fast;
          fast.wide = wide;
          StartCodeScanner reference;
          reference.byte_by_byte = true;
          const StartCode a = fast.find(bytes.data(), from, length);
          const StartCode b = reference.find(bytes.data(), from, length);
          ASSERT_EQ(a.index, b.index) << length << " " << tail << " " << wide;
          ASSERT_EQ(a.prefix_length, b.prefix_length) << length << " " << tail << " " << wide;
          ASSERT_EQ(fast.prefix_length, reference.prefix_length) << length << " " << tail;
          ASSERT_EQ(fast.last_byte, reference.last_byte) << length << " " << tail;
        }
      }
    }
  }
}

// One start code cut into pieces of one byte each but the last: each piece is its own call,
// as each payload is, and the value byte is found in the last.
TEST(StartCodeScanner, PrefixSplitOverTwoThreeAndFourPayloads) {
  for (const char* text : {"00 | 00 01 B3", "00 | 00 | 01 B3", "00 | 00 | 00 | 01 B3",
                           "00 | 00 | 01 | B3"}) {
    StartCodeScanner scanner;
    std::vector<Bytes> pieces;
    std::string rest = text;
    for (size_t bar; (bar = rest.find('|')) != std::string::npos; rest = rest.substr(bar + 1)) {
      pieces.push_back(hex(rest.substr(0, bar)));
    }
    pieces.push_back(hex(rest));
    for (size_t n = 0; n + 1 < pieces.size(); ++n) {
      EXPECT_TRUE(codes(scanner, pieces[n]).empty()) << text;
    }
    const int32_t zeros = text == std::string("00 | 00 | 00 | 01 B3") ? 4 : 3;
    const size_t value = pieces.back().size() - 1;
    EXPECT_EQ(codes(scanner, pieces.back()),
              (Found{std::to_string(value) + "/" + std::to_string(zeros)}))
        << text;
  }
}

// Zeros at the end of a payload that is scanned fast, across a sixteen-byte stretch: the prefix
// goes on into the next payload.
TEST(StartCodeScanner, ZerosAtTheEndOfALongPayloadCarryOver) {
  for (size_t length = 14; length <= 40; ++length) {
    for (size_t zeros = 1; zeros <= 3; ++zeros) {
      Bytes first(length, 0x55);
      for (size_t z = 0; z < zeros; ++z) first[length - 1 - z] = 0;
      StartCodeScanner scanner;
      EXPECT_TRUE(codes(scanner, first).empty());
      const Found expected = zeros == 1 ? Found{} : Found{"1/" + std::to_string(zeros + 1)};
      EXPECT_EQ(codes(scanner, hex("01 B3 44")), expected) << length << " " << zeros;
    }
  }
}

// A packet that can't be read, between the bytes of a prefix, ends it: what follows it is no
// start code.
TEST(StartCodeScanner, ScrambledPacketBetweenTheBytesOfAPrefixEndsIt) {
  StartCodeScanner scanner;
  EXPECT_TRUE(codes(scanner, hex("47 47 00 00")).empty());
  scanner.forget();
  EXPECT_TRUE(codes(scanner, hex("01 B3 00 00")).empty());
  scanner.forget();
  EXPECT_TRUE(codes(scanner, hex("00 01 00")).empty());
  // The counting starts again behind the next one.
  scanner.forget();
  EXPECT_EQ(codes(scanner, hex("00 00 01 B3")), (Found{"3/3"}));
}

}  // namespace
}  // namespace Veldrin::IndexGen
