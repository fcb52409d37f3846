#include "encryption/atom_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/channel/block_writer.h"

namespace Veldrin::IndexGen {
namespace {

using Bytes = std::vector<unsigned char>;

AtomFormats formats() {
  return {{"VDKL", atom_container}, {"VERS", atom_data}, {"ENCT", atom_data},
          {"KEYR", atom_container}, {"PKCN", atom_data}, {"KEYE", atom_data},
          {"EKEY", atom_data}};
}

Bytes written(const Atom& atom) {
  Bytes block(static_cast<size_t>(atom.size()));
  Korvix::Channel::BlockWriter writer(block.data(), block.size());
  const AtomFormats kinds = formats();
  EXPECT_TRUE(AtomWriter(writer, kinds).write(atom));
  return block;
}

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

struct Read {
  bool result;
  std::vector<Atom> atoms;
  std::string error;
};

Read read(const Bytes& bytes, uint64_t first_byte = 0) {
  const AtomFormats kinds = formats();
  AtomReader reader(kinds);
  Read got;
  got.result = reader.read(bytes.data(), bytes.size(), got.atoms, first_byte);
  got.error = reader.error;
  return got;
}

Atom key_list_tree() {
  Atom root("VDKL");
  root.children.emplace_back("VERS", Bytes{0x00, 0x01});
  root.children.emplace_back("ENCT", Bytes{0x00, 0x07, 0x00});
  Atom recipient("KEYR");
  recipient.children.emplace_back("PKCN", text("A"));
  recipient.children.emplace_back("KEYE", Bytes{0x01, 0x0A, 0x00});
  recipient.children.emplace_back("EKEY", Bytes{0x00, 0xAA, 0xBB});
  root.children.push_back(recipient);
  return root;
}

TEST(AtomReader, ReadsBackTheTreeTheWriterWrote) {
  Read got = read(written(key_list_tree()));
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 1u);
  const Atom& root = got.atoms[0];
  EXPECT_EQ(root.name, "VDKL");
  EXPECT_TRUE(root.data.empty());
  ASSERT_EQ(root.children.size(), 3u);
  EXPECT_EQ(root.children[0].name, "VERS");
  EXPECT_EQ(root.children[0].data, Bytes({0x00, 0x01}));
  EXPECT_EQ(root.children[1].name, "ENCT");
  EXPECT_EQ(root.children[1].data, Bytes({0x00, 0x07, 0x00}));
  const Atom& recipient = root.children[2];
  EXPECT_EQ(recipient.name, "KEYR");
  ASSERT_EQ(recipient.children.size(), 3u);
  EXPECT_EQ(recipient.children[0].data, text("A"));
  EXPECT_EQ(recipient.children[1].data, Bytes({0x01, 0x0A, 0x00}));
  EXPECT_EQ(recipient.children[2].data, Bytes({0x00, 0xAA, 0xBB}));
  EXPECT_EQ(root.size(), key_list_tree().size());
}

TEST(AtomReader, ReadsAHandWrittenDataAtom) {
  Read got = read(Bytes{0x00, 0x00, 0x00, 0x0A, 'V', 'E', 'R', 'S', 0x00, 0x01});
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 1u);
  EXPECT_EQ(got.atoms[0].name, "VERS");
  EXPECT_EQ(got.atoms[0].data, Bytes({0x00, 0x01}));
}

TEST(AtomReader, NoBytesAreNoAtoms) {
  Read got = read(Bytes{});
  EXPECT_TRUE(got.result);
  EXPECT_TRUE(got.atoms.empty());
  EXPECT_EQ(got.error, "");
}

TEST(AtomReader, AContainerWithNoChildrenIsItsHeaderAlone) {
  Read got = read(Bytes{0x00, 0x00, 0x00, 0x08, 'K', 'E', 'Y', 'R'});
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 1u);
  EXPECT_EQ(got.atoms[0].name, "KEYR");
  EXPECT_TRUE(got.atoms[0].children.empty());
}

TEST(AtomReader, AtomsOneBehindTheOtherComeInOrder) {
  Read got = read(concat(written(Atom("VERS", {0x00, 0x01})), written(Atom("ENCT", {7}))));
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 2u);
  EXPECT_EQ(got.atoms[0].name, "VERS");
  EXPECT_EQ(got.atoms[1].name, "ENCT");
  EXPECT_EQ(got.atoms[1].data, Bytes({7}));
}

TEST(AtomReader, SizesZeroAndTwoToSevenAreRefused) {
  for (const unsigned char size : Bytes{0, 2, 3, 4, 5, 6, 7}) {
    Read got = read(Bytes{0x00, 0x00, 0x00, size, 'V', 'E', 'R', 'S', 0x00, 0x01});
    EXPECT_FALSE(got.result) << int{size};
    EXPECT_EQ(got.error, "atom at byte 0 has size " + std::to_string(size) +
                             ", less than its 8-byte header");
  }
}

TEST(AtomReader, ASizePastTheEndIsRefused) {
  Read got = read(Bytes{0x00, 0x00, 0x00, 0x0B, 'V', 'E', 'R', 'S', 0x00, 0x01});
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom \"VERS\" at byte 0 has size 11, past the end of the 10 bytes left "
                       "for it");
}

TEST(AtomReader, AHugeSizeIsRefusedWithoutReadingOn) {
  Read got = read(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 'V', 'E', 'R', 'S', 0x00, 0x01});
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom \"VERS\" at byte 0 has size 4294967295, past the end of the 10 "
                       "bytes left for it");
}

TEST(AtomReader, AHeaderCutShortIsRefused) {
  Read got = read(Bytes{0x00, 0x00, 0x00, 0x0A, 'V'});
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom at byte 0 cut short: 5 bytes left of its 8-byte header");
}

TEST(AtomReader, SixtyFourBitSizeIsRead) {
  Bytes bytes{0x00, 0x00, 0x00, 0x01, 'V', 'E', 'R', 'S', 0, 0, 0, 0, 0, 0, 0, 0x12, 0x00, 0x01};
  Read got = read(bytes);
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 1u);
  EXPECT_EQ(got.atoms[0].name, "VERS");
  EXPECT_EQ(got.atoms[0].data, Bytes({0x00, 0x01}));
}

TEST(AtomReader, SixtyFourBitSizeBelowItsSixteenByteHeaderIsRefused) {
  Bytes bytes{0x00, 0x00, 0x00, 0x01, 'V', 'E', 'R', 'S', 0, 0, 0, 0, 0, 0, 0, 0x0F, 0x00, 0x01};
  Read got = read(bytes);
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom \"VERS\" at byte 0 has size 15, less than its 16-byte header");
}

TEST(AtomReader, SixtyFourBitSizePastTheEndIsRefused) {
  Bytes bytes{0x00, 0x00, 0x00, 0x01, 'V', 'E', 'R', 'S',
              0x80, 0, 0, 0, 0, 0, 0, 0x12, 0x00, 0x01};
  Read got = read(bytes);
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom \"VERS\" at byte 0 has size 9223372036854775826, past the end of "
                       "the 18 bytes left for it");
}

TEST(AtomReader, SixtyFourBitSizeFieldCutShortIsRefused) {
  Read got = read(Bytes{0x00, 0x00, 0x00, 0x01, 'V', 'E', 'R', 'S', 0, 0, 0});
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom at byte 0 cut short: 11 bytes left of its 16-byte header");
}

TEST(AtomReader, UuidTypeGivesTheLongNameWithoutItsPadding) {
  Bytes bytes = written(Atom("ABCDE", {0x42}));
  ASSERT_EQ(bytes.size(), 25u);
  Read got = read(bytes);
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 1u);
  EXPECT_EQ(got.atoms[0].name, "ABCDE");
  EXPECT_EQ(got.atoms[0].data, Bytes({0x42}));
}

TEST(AtomReader, UuidNameOfTwentyCharactersComesBackAsItsFirstSixteen) {
  Read got = read(written(Atom("ABCDEFGHIJKLMNOPQRST", {})));
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 1u);
  EXPECT_EQ(got.atoms[0].name, "ABCDEFGHIJKLMNOP");
}

TEST(AtomReader, UuidNameCutShortIsRefused) {
  Bytes bytes{0x00, 0x00, 0x00, 0x18, 'u', 'u', 'i', 'd', 'A', 'B', 'C'};
  Read got = read(bytes);
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom at byte 0 cut short: 11 bytes left of its 24-byte header");
}

TEST(AtomReader, UuidSizeBelowItsTwentyFourByteHeaderIsRefused) {
  Bytes bytes = written(Atom("ABCDE", {0x42}));
  bytes[3] = 0x10;
  Read got = read(bytes);
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom \"ABCDE\" at byte 0 has size 16, less than its 24-byte header");
}

TEST(AtomReader, UuidWithSixtyFourBitSizeHasAThirtyTwoByteHeader) {
  Bytes bytes{0x00, 0x00, 0x00, 0x01, 'u', 'u', 'i', 'd', 0, 0, 0, 0, 0, 0, 0, 0x21};
  Bytes name{'L', 'O', 'N', 'G', 'E', 'R', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  bytes = concat(concat(bytes, name), Bytes{0x5A});
  Read got = read(bytes);
  ASSERT_TRUE(got.result) << got.error;
  ASSERT_EQ(got.atoms.size(), 1u);
  EXPECT_EQ(got.atoms[0].name, "LONGER");
  EXPECT_EQ(got.atoms[0].data, Bytes({0x5A}));
}

TEST(AtomReader, ThreeCharacterNameLosesItsZeroByte) {
  Bytes bytes = written(Atom("ABC", {0x01}));
  EXPECT_EQ(bytes, Bytes({0x00, 0x00, 0x00, 0x09, 'A', 'B', 'C', 0x00, 0x01}));
  Read got = read(bytes);
  ASSERT_TRUE(got.result) << got.error;
  EXPECT_EQ(got.atoms[0].name, "ABC");
}

TEST(AtomReader, AChildRunningPastItsContainerIsRefusedAtItsOwnByte) {
  // "VDKL" says 18 bytes, so its child "VERS" of 12 has only 10 left, though the data holds more.
  Bytes bytes{0x00, 0x00, 0x00, 0x12, 'V', 'D', 'K', 'L', 0x00, 0x00, 0x00, 0x0C,
              'V',  'E',  'R',  'S',  0x00, 0x01, 0x00, 0x02, 0x00, 0x00};
  Read got = read(bytes);
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom \"VERS\" at byte 8 has size 12, past the end of the 10 bytes left "
                       "for it");
}

TEST(AtomReader, BytesLeftOverInAContainerAreRefused) {
  Bytes bytes{0x00, 0x00, 0x00, 0x15, 'V', 'D', 'K', 'L', 0x00, 0x00, 0x00, 0x0A,
              'V',  'E',  'R',  'S',  0x00, 0x01, 0x00, 0x00, 0x00};
  Read got = read(bytes);
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom at byte 18 cut short: 3 bytes left of its 8-byte header");
}

TEST(AtomReader, PositionsCountFromTheFirstByteGiven) {
  Read got = read(Bytes{0x00, 0x00, 0x00, 0x03, 'V', 'E', 'R', 'S'}, 8);
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom at byte 8 has size 3, less than its 8-byte header");
}

TEST(AtomReader, NestingOfThirtyTwoContainersIsReadAndThirtyThreeIsRefused) {
  auto nested = [](int levels) {
    Atom atom("KEYR");
    for (int i = 1; i < levels; i++) {
      Atom outer("KEYR");
      outer.children.push_back(atom);
      atom = outer;
    }
    return atom;
  };
  // The body of the k-th container is read at depth k and starts at byte 8 k.
  Read deep = read(written(nested(32)));
  EXPECT_TRUE(deep.result) << deep.error;
  Read deeper = read(written(nested(33)));
  EXPECT_FALSE(deeper.result);
  EXPECT_EQ(deeper.error, "atoms nested deeper than 32 levels at byte 264");
}

TEST(AtomReader, NamesWithOddBytesArePrintedEscaped) {
  Read got = read(Bytes{0x00, 0x00, 0x00, 0x0A, 'V', 0x01, '\\', 'S', 0x00});
  EXPECT_FALSE(got.result);
  EXPECT_EQ(got.error, "atom \"V\\x01\\x5cS\" at byte 0 has size 10, past the end of the 9 "
                       "bytes left for it");
}

TEST(PrintableBytes, KeepsPrintableTextAndEscapesTheRest) {
  EXPECT_EQ(printable_bytes("Receiver Two"), "Receiver Two");
  EXPECT_EQ(printable_bytes(std::string("a\0b\xff\\", 5)), "a\\x00b\\xff\\x5c");
  EXPECT_EQ(printable_bytes(""), "");
}

}  // namespace
}  // namespace Veldrin::IndexGen
