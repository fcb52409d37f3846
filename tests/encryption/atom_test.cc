#include "encryption/atom.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Veldrin::IndexGen {
namespace {

using Bytes = std::vector<unsigned char>;

TEST(Atom, DataAtomIsItsEightByteHeaderAndItsData) {
  EXPECT_EQ(Atom("VERS", {0x00, 0x01}).size(), 10u);
  EXPECT_EQ(Atom("ENCT", {0x00, 0x07, 0x00}).size(), 11u);
  EXPECT_EQ(Atom("VERS").size(), 8u);
  EXPECT_EQ(Atom().size(), 8u);
}

TEST(Atom, ContainerIsItsHeaderAndItsChildren) {
  Atom root("VDKL");
  EXPECT_EQ(root.size(), 8u);
  root.children.push_back(Atom("VERS", {0x00, 0x01}));
  root.children.push_back(Atom("ENCT", {0x00, 0x07, 0x00}));
  EXPECT_EQ(root.size(), 0x1Du);  // 8 + 10 + 11
}

// One certificate with a 1024-bit key and the name "A": 8 + (8 + 1) + 11 + (9 + 128).
TEST(Atom, KeyRecordOfA1024BitKeyNamedAIs165Bytes) {
  Atom record("KEYR");
  record.children.push_back(Atom("PKCN", {'A'}));
  record.children.push_back(Atom("KEYE", {0x01, 0x0A, 0x00}));
  Bytes wrapped(129, 0x00);
  record.children.push_back(Atom("EKEY", wrapped));
  EXPECT_EQ(record.size(), 165u);
  Atom unnamed("PKCN");
  EXPECT_EQ(unnamed.size(), 8u);
}

TEST(Atom, NamesLongerThanFourCharactersHaveA24ByteHeader) {
  EXPECT_EQ(Atom("abc").size(), 8u);
  EXPECT_EQ(Atom("abcd").size(), 8u);
  EXPECT_EQ(Atom("abcde").size(), 24u);
  EXPECT_EQ(Atom(std::string(20, 'n'), {1, 2, 3}).size(), 27u);
}

TEST(Atom, ChildrenCountInsteadOfDataWhenThereAreAny) {
  Atom atom("DATA", {0xAA, 0xBB});
  EXPECT_EQ(atom.size(), 10u);
  atom.children.push_back(Atom("VERS", {0x00, 0x01}));
  EXPECT_EQ(atom.size(), 18u);
}

TEST(Atom, SizesAddUpThroughEveryLevel) {
  Atom leaf("LEAF", Bytes(100, 0x01));
  Atom middle("MIDL");
  middle.children = {leaf, leaf, leaf};            // 8 + 3 * 108 = 332
  Atom root("ROOTATOM");                           // a long name: 24-byte header
  root.children = {middle, middle, Atom("EMTY")};  // 24 + 332 + 332 + 8
  EXPECT_EQ(root.size(), 696u);
}

// The 64-bit size field is added when header and body pass 0xFFFFFFFF.
TEST(Atom, FramedSizeAddsTheLargeSizeFieldAbove32Bits) {
  EXPECT_EQ(Atom::framed_size("VDKL", 0), 8u);
  EXPECT_EQ(Atom::framed_size("VDKL", 0xFFFFFFF7), 0xFFFFFFFFu);
  EXPECT_EQ(Atom::framed_size("VDKL", 0xFFFFFFF8), 0x100000008u);
  EXPECT_EQ(Atom::framed_size("abcde", 0xFFFFFFE7), 0xFFFFFFFFu);
  EXPECT_EQ(Atom::framed_size("abcde", 0xFFFFFFE8), 0x100000008u);
  EXPECT_EQ(Atom::framed_size("abc", 0x500000000), 0x500000010u);
}

TEST(Atom, FramedSizeIsWhatSizeUses) {
  Atom atom("abcdef", Bytes(40, 0x00));
  EXPECT_EQ(atom.size(), Atom::framed_size("abcdef", 40));
  EXPECT_EQ(atom.size(), 64u);
}

TEST(Atom, CopiesAreDeep) {
  Atom original("ROOT");
  original.children.push_back(Atom("KID1", {1, 2}));
  Atom copy = original;
  copy.children[0].data.push_back(3);
  copy.children.push_back(Atom("KID2"));
  EXPECT_EQ(original.children.size(), 1u);
  EXPECT_EQ(original.children[0].data, Bytes({1, 2}));
  EXPECT_EQ(original.size(), 18u);
  EXPECT_EQ(copy.size(), 27u);
}

}  // namespace
}  // namespace Veldrin::IndexGen
