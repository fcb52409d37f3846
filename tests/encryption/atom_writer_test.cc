#include "encryption/atom.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "foundation/channel/block_writer.h"
#include "foundation/channel/stream_writer.h"

namespace Veldrin::IndexGen {
namespace {

using Bytes = std::vector<unsigned char>;

// The key list's atom types with their kinds.
AtomFormats key_list_formats() {
  return {{"VDKL", atom_container}, {"VERS", atom_data}, {"ENCT", atom_data},
          {"KEYR", atom_container}, {"PKCN", atom_data}, {"KEYE", atom_data},
          {"EKEY", atom_data}};
}

struct Written {
  bool result;
  Bytes bytes;
};

// Writes into a block of the given room; the bytes are those before the writer stopped.
Written write_atom(const Atom& atom, size_t room = 4096,
                   const AtomFormats& formats = key_list_formats()) {
  Bytes block(room, 0xEE);
  Korvix::Channel::BlockWriter writer(block.data(), block.size());
  AtomWriter atoms(writer, formats);
  bool result = atoms.write(atom);
  block.resize(static_cast<size_t>(writer.offset));
  return {result, block};
}

Bytes header_of(const std::string& name, uint64_t size) {
  Bytes block(64, 0xEE);
  Korvix::Channel::BlockWriter writer(block.data(), block.size());
  AtomFormats formats;
  AtomWriter atoms(writer, formats);
  EXPECT_TRUE(atoms.write_header(name, size));
  block.resize(static_cast<size_t>(writer.offset));
  return block;
}

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(AtomWriter, DataAtomVersWithTwoBytes) {
  Written written = write_atom(Atom("VERS", {0x00, 0x01}));
  EXPECT_TRUE(written.result);
  EXPECT_EQ(written.bytes, Bytes({0x00, 0x00, 0x00, 0x0A, 'V', 'E', 'R', 'S', 0x00, 0x01}));
}

TEST(AtomWriter, ContainerWithNoChildrenIsItsHeaderAlone) {
  Written written = write_atom(Atom("VDKL"));
  EXPECT_TRUE(written.result);
  EXPECT_EQ(written.bytes, Bytes({0x00, 0x00, 0x00, 0x08, 'V', 'D', 'K', 'L'}));
}

TEST(AtomWriter, KeyListWithoutCertificatesIs29Bytes) {
  Atom root("VDKL");
  root.children.push_back(Atom("VERS", {0x00, 0x01}));
  root.children.push_back(Atom("ENCT", {0x00, 0x07, 0x00}));
  Written written = write_atom(root);
  EXPECT_TRUE(written.result);
  const Bytes expected = {0x00, 0x00, 0x00, 0x1D, 'V', 'D', 'K',  'L',  0x00, 0x00,
                          0x00, 0x0A, 'V',  'E',  'R', 'S', 0x00, 0x01, 0x00, 0x00,
                          0x00, 0x0B, 'E',  'N',  'C', 'T', 0x00, 0x07, 0x00};
  EXPECT_EQ(written.bytes, expected);
}

TEST(AtomWriter, KeyRecordWritesItsThreeChildrenInOrder) {
  Atom record("KEYR");
  record.children.push_back(Atom("PKCN", {'A'}));
  record.children.push_back(Atom("KEYE", {0x01, 0x0A, 0x00}));
  Bytes wrapped(129);
  for (size_t i = 0; i < wrapped.size(); i++) wrapped[i] = static_cast<unsigned char>(i);
  record.children.push_back(Atom("EKEY", wrapped));
  Written written = write_atom(record);
  EXPECT_TRUE(written.result);
  Bytes expected = {0x00, 0x00, 0x00, 0xA5, 'K', 'E', 'Y', 'R',  // 165
                    0x00, 0x00, 0x00, 0x09, 'P', 'K', 'C', 'N',  'A',  0x00,
                    0x00, 0x00, 0x0B, 'K',  'E', 'Y', 'E', 0x01, 0x0A, 0x00,
                    0x00, 0x00, 0x00, 0x89, 'E', 'K', 'E', 'Y'};  // 137
  expected = concat(expected, wrapped);
  EXPECT_EQ(written.bytes, expected);
  EXPECT_EQ(written.bytes.size(), 165u);
}

TEST(AtomWriter, NameOfThreeCharactersEndsTheTypeInAZeroByte) {
  Written written = write_atom(Atom("abc", {0xFF}));
  EXPECT_TRUE(written.result);
  EXPECT_EQ(written.bytes, Bytes({0x00, 0x00, 0x00, 0x09, 'a', 'b', 'c', 0x00, 0xFF}));
  EXPECT_EQ(write_atom(Atom("")).bytes, Bytes({0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x00}));
}

TEST(AtomWriter, NameOfFiveCharactersIsAUuidAtomWithElevenZeros) {
  Written written = write_atom(Atom("ABCDE", {0x42}));
  EXPECT_TRUE(written.result);
  const Bytes expected = {0x00, 0x00, 0x00, 0x19, 'u',  'u',  'i',  'd',  'A',
                          'B',  'C',  'D',  'E',  0x00, 0x00, 0x00, 0x00, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x42};
  EXPECT_EQ(written.bytes, expected);
}

TEST(AtomWriter, NameOfTwentyCharactersKeepsItsFirstSixteen) {
  Written written = write_atom(Atom("ABCDEFGHIJKLMNOPQRST"));
  EXPECT_TRUE(written.result);
  const Bytes expected = {0x00, 0x00, 0x00, 0x18, 'u', 'u', 'i', 'd', 'A', 'B', 'C', 'D',
                          'E',  'F',  'G',  'H',  'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P'};
  EXPECT_EQ(written.bytes, expected);
}

TEST(AtomWriter, UuidContainerWritesItsChildren) {
  AtomFormats formats = {{"com.example.box", atom_container}};
  Atom box("com.example.box");
  box.children.push_back(Atom("VERS", {0x00, 0x01}));
  Written written = write_atom(box, 4096, formats);
  EXPECT_TRUE(written.result);
  const Bytes expected = {0x00, 0x00, 0x00, 0x22, 'u', 'u', 'i', 'd', 'c',  'o', 'm', '.',
                          'e',  'x',  'a',  'm',  'p', 'l', 'e', '.', 'b',  'o', 'x', 0x00,
                          0x00, 0x00, 0x00, 0x0A, 'V', 'E', 'R', 'S', 0x00, 0x01};
  EXPECT_EQ(written.bytes, expected);
}

TEST(AtomWriter, LargeSizeIsWrittenAsOneThenSixtyFourBits) {
  EXPECT_EQ(header_of("VDKL", 0x100000008), Bytes({0x00, 0x00, 0x00, 0x01, 'V', 'D', 'K', 'L', 0x00,
                                                   0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x08}));
  EXPECT_EQ(header_of("VDKL", 0xFFFFFFFF), Bytes({0xFF, 0xFF, 0xFF, 0xFF, 'V', 'D', 'K', 'L'}));
}

TEST(AtomWriter, LargeSizeOfAUuidAtomGoesBetweenTypeAndName) {
  const Bytes expected = {0x00, 0x00, 0x00, 0x01, 'u',  'u',  'i',  'd',  0x00, 0x00, 0x00,
                          0x05, 0x00, 0x00, 0x00, 0x20, 'l',  'a',  'r',  'g',  'e',  0x00,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(header_of("large", 0x500000020), expected);
}

TEST(AtomWriter, HeaderOfAnAtomIsItsSizeAndType) {
  Atom root("VDKL");
  root.children.push_back(Atom("VERS", {0x00, 0x01}));
  Bytes block(16, 0xEE);
  Korvix::Channel::BlockWriter writer(block.data(), block.size());
  AtomFormats formats;
  AtomWriter atoms(writer, formats);
  EXPECT_TRUE(atoms.write_header(root));
  EXPECT_EQ(writer.offset, 8u);
  EXPECT_EQ(Bytes(block.begin(), block.begin() + 8),
            Bytes({0x00, 0x00, 0x00, 0x12, 'V', 'D', 'K', 'L'}));
}

// A container named in the formats writes only its children, so the data its size counted
// when it had no children isn't written.
TEST(AtomWriter, ContainerIgnoresItsData) {
  Atom root("VDKL", {0x01, 0x02, 0x03});
  Written written = write_atom(root);
  EXPECT_TRUE(written.result);
  EXPECT_EQ(written.bytes, Bytes({0x00, 0x00, 0x00, 0x0B, 'V', 'D', 'K', 'L'}));
  root.children.push_back(Atom("VERS", {0x00, 0x01}));
  EXPECT_EQ(write_atom(root).bytes, Bytes({0x00, 0x00, 0x00, 0x12, 'V', 'D', 'K', 'L', 0x00, 0x00,
                                           0x00, 0x0A, 'V', 'E', 'R', 'S', 0x00, 0x01}));
}

// A data atom writes its data alone, though its size counted its children.
TEST(AtomWriter, DataAtomIgnoresItsChildren) {
  Atom atom("VERS", {0xAA});
  atom.children.push_back(Atom("ENCT", {0x00, 0x07, 0x00}));
  Written written = write_atom(atom);
  EXPECT_TRUE(written.result);
  EXPECT_EQ(written.bytes, Bytes({0x00, 0x00, 0x00, 0x13, 'V', 'E', 'R', 'S', 0xAA}));
}

TEST(AtomWriter, NameMissingFromTheFormatsOrOfAnotherKindIsData) {
  Atom atom("KEYR", {0x01});
  atom.children.push_back(Atom("PKCN"));
  AtomFormats none;
  EXPECT_EQ(write_atom(atom, 64, none).bytes,
            Bytes({0x00, 0x00, 0x00, 0x10, 'K', 'E', 'Y', 'R', 0x01}));
  AtomFormats other = {{"KEYR", 7}};
  EXPECT_EQ(write_atom(atom, 64, other).bytes,
            Bytes({0x00, 0x00, 0x00, 0x10, 'K', 'E', 'Y', 'R', 0x01}));
}

TEST(AtomWriter, WritesThroughAStreamWriter) {
  Atom root("VDKL");
  root.children.push_back(Atom("VERS", {0x00, 0x01}));
  std::ostringstream stream;
  Korvix::Channel::StreamWriter writer(stream);
  AtomFormats formats = key_list_formats();
  AtomWriter atoms(writer, formats);
  EXPECT_TRUE(atoms.write(root));
  EXPECT_EQ(stream.str(), std::string("\0\0\0\x12VDKL\0\0\0\x0AVERS\0\x01", 18));
  EXPECT_EQ(writer.offset, 18u);
}

TEST(AtomWriter, FailsWhenTheHeaderDoesNotFit) {
  Written written = write_atom(Atom("VERS", {0x00, 0x01}), 6);
  EXPECT_FALSE(written.result);
  EXPECT_EQ(written.bytes, Bytes({0x00, 0x00, 0x00, 0x0A, 'V', 'E'}));
  EXPECT_FALSE(write_atom(Atom("ABCDEFGH"), 20).result);
  EXPECT_FALSE(write_atom(Atom("VDKL"), 0).result);
}

TEST(AtomWriter, FailsWhenTheDataDoesNotFitAndWritesNoneOfIt) {
  Written written = write_atom(Atom("VERS", {0x00, 0x01, 0x02}), 10);
  EXPECT_FALSE(written.result);
  EXPECT_EQ(written.bytes, Bytes({0x00, 0x00, 0x00, 0x0B, 'V', 'E', 'R', 'S'}));
}

TEST(AtomWriter, ContainerStopsAtTheFirstChildThatFails) {
  Atom root("VDKL");
  root.children.push_back(Atom("VERS", {0x00, 0x01}));
  root.children.push_back(Atom("ENCT", {0x00, 0x07, 0x00}));
  root.children.push_back(Atom("VERS", {0x00, 0x02}));
  Written written = write_atom(root, 8 + 10 + 9);
  EXPECT_FALSE(written.result);
  // The root's header, the first child, and the second child's header.
  EXPECT_EQ(written.bytes.size(), 26u);
  EXPECT_EQ(Bytes(written.bytes.begin() + 18, written.bytes.end()),
            Bytes({0x00, 0x00, 0x00, 0x0B, 'E', 'N', 'C', 'T'}));
}

TEST(AtomWriter, FailsOnAStreamThatHasFailed) {
  std::ostringstream stream;
  stream.setstate(std::ios::badbit);
  Korvix::Channel::StreamWriter writer(stream);
  AtomFormats formats = key_list_formats();
  AtomWriter atoms(writer, formats);
  EXPECT_FALSE(atoms.write(Atom("VERS", {0x00, 0x01})));
  EXPECT_FALSE(atoms.write_header(Atom("VDKL")));
}

}  // namespace
}  // namespace Veldrin::IndexGen
