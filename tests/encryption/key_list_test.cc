#include "encryption/key_list.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/key_material.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {
namespace {

using Bytes = std::vector<unsigned char>;
using Korvix::Crypto::AESKey;
using Korvix::Crypto::Certificate;
using Korvix::Crypto::RSAKey;
using Veldrin::Testing::KeyMaterial;
using Veldrin::Testing::ScratchDir;

const KeyMaterial& material() {
  return KeyMaterial::get();
}

Certificate certificate_text(const std::string& text) {
  Certificate certificate;
  certificate.read_pem(text);
  EXPECT_NE(certificate.x509, nullptr);
  return certificate;
}

Certificate certificate(const std::string& name) {
  return certificate_text(material().text(name));
}

// A certificate of rsa2048.key with the subject /CN=A, made once.
Certificate rsa2048_named_a() {
  static const bool made = [] {
    material().openssl({"req", "-x509", "-new", "-key", "rsa2048.key", "-subj", "/CN=A", "-days",
                        "30", "-out", "rsa2048-a.pem"});
    return true;
  }();
  EXPECT_TRUE(made);
  return certificate("rsa2048-a.pem");
}

RSAKey private_key(const std::string& name) {
  RSAKey key(true);
  key.read_pem(material().text(name));
  EXPECT_TRUE(key.valid) << name;
  return key;
}

AESKey key_of(const std::string& hex) {
  AESKey key;
  key.read_hex(hex);
  return key;
}

const std::string KEY_HEX = "00112233445566778899aabbccddeeff";

Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

Bytes slice(const Bytes& bytes, size_t from, size_t count) {
  return Bytes(bytes.begin() + static_cast<long>(from),
               bytes.begin() + static_cast<long>(from + count));
}

uint32_t be32(const Bytes& bytes, size_t at) {
  return (uint32_t{bytes.at(at)} << 24) | (uint32_t{bytes.at(at + 1)} << 16) |
         (uint32_t{bytes.at(at + 2)} << 8) | bytes.at(at + 3);
}

// CRC-32 of MPEG-2 sections worked out bit by bit, apart from the table-driven one under test:
// polynomial 0x04C11DB7, most significant bit first, all ones at the start, no final inversion.
uint32_t crc_bit_by_bit(const unsigned char* data, size_t length) {
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < length; i++) {
    crc ^= uint32_t{data[i]} << 24;
    for (int bit = 0; bit < 8; bit++)
      crc = (crc & 0x80000000) ? (crc << 1) ^ 0x04C11DB7 : crc << 1;
  }
  return crc;
}

// The section of a block (pointer_field first), whose CRC must be that of its bytes.
void expect_good_crc(const Bytes& block) {
  ASSERT_GE(block.size(), 5u);
  const size_t crc_at = block.size() - 4;
  EXPECT_EQ(be32(block, crc_at), crc_bit_by_bit(block.data() + 1, crc_at - 1));
}

// The same block with its CRC made good again after a change.
Bytes with_fresh_crc(Bytes block) {
  const size_t crc_at = block.size() - 4;
  const uint32_t crc = crc_bit_by_bit(block.data() + 1, crc_at - 1);
  for (size_t i = 0; i < 4; i++)
    block[crc_at + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
  return block;
}

// The list without certificates, byte for byte: pointer_field, section header with
// section_length 38 and table_id_extension FFFF, the 29 atom bytes, and the CRC, worked out
// independently (a bit-by-bit computation outside this project) as 46 73 2D C1.
const Bytes EMPTY_LIST = {
    0x00,                                                        // pointer_field
    0x4B, 0xB0, 0x26, 0xFF, 0xFF, 0xC0, 0x00, 0x00,              // section header
    0x00, 0x00, 0x00, 0x1D, 'V',  'D',  'K',  'L',               // "VDKL", 29 bytes
    0x00, 0x00, 0x00, 0x0A, 'V',  'E',  'R',  'S',  0x00, 0x01,  // "VERS", version 1
    0x00, 0x00, 0x00, 0x0B, 'E',  'N',  'C',  'T',  0x00, 0x07, 0x00,  // "ENCT", AES-128
    0x46, 0x73, 0x2D, 0xC1};                                     // CRC

// Where the first "KEYR" starts in a block: behind pointer_field, section header, the "VDKL"
// header, "VERS" and "ENCT".
constexpr size_t FIRST_RECIPIENT = 1 + 8 + 8 + 10 + 11;

TEST(KeyList, WithoutCertificatesIsTheFortyTwoByteSection) {
  Bytes list = make_key_list(key_of(KEY_HEX), {});
  EXPECT_EQ(list, EMPTY_LIST);
  EXPECT_EQ(list.size(), 42u);
  expect_good_crc(list);
}

TEST(KeyList, WithoutCertificatesDoesNotDependOnTheKey) {
  EXPECT_EQ(make_key_list(key_of("ffeeddccbbaa99887766554433221100"), {}), EMPTY_LIST);
  EXPECT_EQ(make_key_list(AESKey(), {}), EMPTY_LIST);
}

TEST(KeyList, OneThousandTwentyFourBitCertificateNamedAGivesARecipientOf165Bytes) {
  Bytes list = make_key_list(key_of(KEY_HEX), {certificate("rsa1024.pem")});
  // "VDKL" of 29 + 165 = 194 bytes; section_length 194 + 9 = 203; block 1 + 3 + 203.
  ASSERT_EQ(list.size(), 207u);
  EXPECT_EQ(slice(list, 0, 9), Bytes({0x00, 0x4B, 0xB0, 0xCB, 0xFF, 0xFF, 0xC0, 0x00, 0x00}));
  EXPECT_EQ(slice(list, 9, 8), Bytes({0x00, 0x00, 0x00, 0xC2, 'V', 'D', 'K', 'L'}));
  EXPECT_EQ(slice(list, 9 + 8, 21), slice(EMPTY_LIST, 17, 21));
  const size_t r = FIRST_RECIPIENT;
  EXPECT_EQ(slice(list, r, 8), Bytes({0x00, 0x00, 0x00, 0xA5, 'K', 'E', 'Y', 'R'}));
  EXPECT_EQ(slice(list, r + 8, 9), Bytes({0x00, 0x00, 0x00, 0x09, 'P', 'K', 'C', 'N', 'A'}));
  EXPECT_EQ(slice(list, r + 17, 11),
            Bytes({0x00, 0x00, 0x00, 0x0B, 'K', 'E', 'Y', 'E', 0x01, 0x0A, 0x00}));
  EXPECT_EQ(slice(list, r + 28, 9), Bytes({0x00, 0x00, 0x00, 0x89, 'E', 'K', 'E', 'Y', 0x00}));
  EXPECT_EQ(r + 37 + 128 + 4, list.size());
  expect_good_crc(list);
}

TEST(KeyList, TheWrappedKeyGivesTheContentKeyToOpensslWithTheCertificatesPrivateKey) {
  Bytes list = make_key_list(key_of(KEY_HEX), {certificate("rsa2048.pem")});
  // "PKCN" holds "Receiver Two"; "EKEY" has its zero byte, then 256 wrapped bytes.
  const size_t wrapped_at = FIRST_RECIPIENT + 8 + (8 + 12) + 11 + 9;
  ASSERT_EQ(list.size(), wrapped_at + 256 + 4);
  EXPECT_EQ(slice(list, wrapped_at - 9, 8), Bytes({0x00, 0x00, 0x01, 0x09, 'E', 'K', 'E', 'Y'}));
  ScratchDir dir;
  const Bytes wrapped = slice(list, wrapped_at, 256);
  ASSERT_TRUE(Veldrin::Testing::write_file(dir.file("wrapped.bin"),
                                           std::string(wrapped.begin(), wrapped.end())));
  const std::string plain =
      material().openssl({"pkeyutl", "-decrypt", "-inkey", "rsa2048.key", "-pkeyopt",
                          "rsa_padding_mode:pkcs1", "-in", dir.file("wrapped.bin")});
  EXPECT_EQ(Veldrin::Testing::hex_of(plain), KEY_HEX);
}

TEST(KeyList, TwoThousandFortyEightBitKeyTypeIs010B00) {
  Bytes list = make_key_list(key_of(KEY_HEX), {certificate("rsa2048.pem")});
  const size_t r = FIRST_RECIPIENT;
  // 292 + 12 for the name "Receiver Two".
  EXPECT_EQ(be32(list, r), 304u);
  EXPECT_EQ(slice(list, r + 8 + 20, 11),
            Bytes({0x00, 0x00, 0x00, 0x0B, 'K', 'E', 'Y', 'E', 0x01, 0x0B, 0x00}));
}

TEST(KeyList, ACertificateWhoseKeyIsNotRsaLeavesNoRecipient) {
  EXPECT_EQ(make_key_list(key_of(KEY_HEX), {certificate("ec.pem")}), EMPTY_LIST);
  Bytes list = make_key_list(key_of(KEY_HEX), {certificate("ec.pem"), certificate("rsa1024.pem")});
  ASSERT_EQ(list.size(), 207u);
  EXPECT_EQ(slice(list, FIRST_RECIPIENT + 8, 9),
            Bytes({0x00, 0x00, 0x00, 0x09, 'P', 'K', 'C', 'N', 'A'}));
}

TEST(KeyList, AnEmptyCertificateLeavesNoRecipient) {
  EXPECT_EQ(make_key_list(key_of(KEY_HEX), {Certificate()}), EMPTY_LIST);
}

TEST(KeyList, ACertificateWithoutCommonNameHasAPkcnOfEightBytes) {
  Bytes list = make_key_list(key_of(KEY_HEX), {certificate("nocn.pem")});
  const size_t r = FIRST_RECIPIENT;
  EXPECT_EQ(slice(list, r, 8), Bytes({0x00, 0x00, 0x00, 0xA4, 'K', 'E', 'Y', 'R'}));
  EXPECT_EQ(slice(list, r + 8, 8), Bytes({0x00, 0x00, 0x00, 0x08, 'P', 'K', 'C', 'N'}));
  EXPECT_EQ(slice(list, r + 16, 4), Bytes({0x00, 0x00, 0x00, 0x0B}));
  expect_good_crc(list);
}

TEST(KeyList, TwoCertificatesWithTheSameNameGiveTwoRecipientsInTheirOrder) {
  const size_t r = FIRST_RECIPIENT;
  Bytes list = make_key_list(key_of(KEY_HEX), {certificate("rsa1024.pem"), rsa2048_named_a()});
  // 1024-bit "A": 165 bytes; 2048-bit "A": 293 bytes.
  ASSERT_EQ(list.size(), r + 165 + 293 + 4);
  EXPECT_EQ(slice(list, r, 8), Bytes({0x00, 0x00, 0x00, 0xA5, 'K', 'E', 'Y', 'R'}));
  EXPECT_EQ(slice(list, r + 17 + 8, 3), Bytes({0x01, 0x0A, 0x00}));
  const size_t second = r + 165;
  EXPECT_EQ(slice(list, second, 8), Bytes({0x00, 0x00, 0x01, 0x25, 'K', 'E', 'Y', 'R'}));
  EXPECT_EQ(slice(list, second + 8, 9), Bytes({0x00, 0x00, 0x00, 0x09, 'P', 'K', 'C', 'N', 'A'}));
  EXPECT_EQ(slice(list, second + 17 + 8, 3), Bytes({0x01, 0x0B, 0x00}));

  Bytes reversed = make_key_list(key_of(KEY_HEX), {rsa2048_named_a(), certificate("rsa1024.pem")});
  ASSERT_EQ(reversed.size(), list.size());
  EXPECT_EQ(slice(reversed, r, 4), Bytes({0x00, 0x00, 0x01, 0x25}));
  EXPECT_EQ(slice(reversed, r + 293, 4), Bytes({0x00, 0x00, 0x00, 0xA5}));
}

TEST(KeyList, ThreeTwoThousandFortyEightBitCertificatesFitAndTheFourthEmptiesTheList) {
  const Certificate receiver = certificate("rsa2048.pem");
  Bytes three = make_key_list(key_of(KEY_HEX), {receiver, receiver, receiver});
  // Atoms 29 + 3 x 304 = 941 bytes.
  EXPECT_EQ(three.size(), 1 + 8 + 941 + 4u);
  expect_good_crc(three);
  EXPECT_TRUE(make_key_list(key_of(KEY_HEX), {receiver, receiver, receiver, receiver}).empty());
}

TEST(KeyList, AtomsOf1017BytesAreWrittenAnd1018GiveAnEmptyList) {
  const Certificate receiver = certificate("rsa2048.pem");
  // Two recipients of 304 bytes and one 1024-bit one of 164 + L: 29 + 608 + 164 + L = 801 + L.
  const Certificate long_216 = certificate_text(
      material().subject_certificate("long216", {"UTF8String:" + std::string(216, 'x')}));
  const Certificate long_217 = certificate_text(
      material().subject_certificate("long217", {"UTF8String:" + std::string(217, 'x')}));
  ASSERT_EQ(long_216.get_cn().size(), 216u);

  Bytes limit = make_key_list(key_of(KEY_HEX), {receiver, receiver, long_216});
  ASSERT_EQ(limit.size(), 1030u);
  // section_length 1017 + 9 = 1026 = 0x402.
  EXPECT_EQ(slice(limit, 0, 4), Bytes({0x00, 0x4B, 0xB4, 0x02}));
  expect_good_crc(limit);
  EXPECT_TRUE(make_key_list(key_of(KEY_HEX), {receiver, receiver, long_217}).empty());
}

TEST(KeyList, ModulusSizeCodeIsTheFloorOfLog2OfTheBits) {
  EXPECT_EQ(modulus_size_code(128), 10);
  EXPECT_EQ(modulus_size_code(256), 11);
  EXPECT_EQ(modulus_size_code(129), 10);
  EXPECT_EQ(modulus_size_code(512), 12);
  EXPECT_EQ(modulus_size_code(1), 3);
  EXPECT_EQ(modulus_size_code(0), 0xFF);
}

// Reading back.

struct ReadList {
  int32_t status;
  KeyList list;
  std::string error;
};

ReadList read_list(const Bytes& block) {
  KeyListReader reader;
  ReadList got;
  got.status = reader.read(block.data(), block.size(), got.list);
  got.error = reader.error;
  return got;
}

TEST(KeyListReader, ReadsTheListWithoutCertificates) {
  ReadList got = read_list(EMPTY_LIST);
  ASSERT_EQ(got.status, SECTION_GOOD) << got.error;
  EXPECT_EQ(got.list.version, 1);
  EXPECT_EQ(got.list.cipher, Bytes({0x00, 0x07, 0x00}));
  EXPECT_TRUE(got.list.aes_128());
  EXPECT_TRUE(got.list.recipients.empty());
}

TEST(KeyListReader, ReadsRecipientsWithNameKeyTypeAndWrappedKey) {
  Bytes block = make_key_list(key_of(KEY_HEX), {certificate("rsa1024.pem"), certificate("nocn.pem"),
                                                certificate("rsa2048.pem")});
  ReadList got = read_list(block);
  ASSERT_EQ(got.status, SECTION_GOOD) << got.error;
  ASSERT_EQ(got.list.recipients.size(), 3u);
  EXPECT_EQ(got.list.recipients[0].name, "A");
  EXPECT_EQ(got.list.recipients[0].key_type, Bytes({0x01, 0x0A, 0x00}));
  EXPECT_EQ(got.list.recipients[0].wrapped_key, slice(block, FIRST_RECIPIENT + 37, 128));
  EXPECT_EQ(got.list.recipients[1].name, "");
  EXPECT_EQ(got.list.recipients[1].wrapped_key.size(), 128u);
  EXPECT_EQ(got.list.recipients[2].name, "Receiver Two");
  EXPECT_EQ(got.list.recipients[2].key_type, Bytes({0x01, 0x0B, 0x00}));
  EXPECT_EQ(got.list.recipients[2].wrapped_key.size(), 256u);
}

TEST(KeyListReader, BytesBehindTheSectionAreNotLookedAt) {
  Bytes block = EMPTY_LIST;
  block.insert(block.end(), 100, 0xFF);
  EXPECT_EQ(read_list(block).status, SECTION_GOOD);
}

TEST(KeyListReader, APointerFieldIsFollowed) {
  Bytes block = EMPTY_LIST;
  block[0] = 2;
  block.insert(block.begin() + 1, {0xAA, 0xBB});
  EXPECT_EQ(read_list(block).status, SECTION_GOOD);
}

TEST(KeyListReader, AChangedCrcByteIsADamagedList) {
  for (size_t at : {38u, 41u}) {
    Bytes block = EMPTY_LIST;
    block[at] ^= 0x01;
    ReadList got = read_list(block);
    EXPECT_EQ(got.status, SECTION_BAD) << at;
    EXPECT_EQ(got.error, "the CRC doesn't match the section's bytes");
  }
}

TEST(KeyListReader, AChangedAtomByteWithItsCrcLeftIsADamagedList) {
  Bytes block = EMPTY_LIST;
  block[16] = 'X';  // "VDKL" becomes "VDKX"
  ReadList got = read_list(block);
  EXPECT_EQ(got.status, SECTION_BAD);
  EXPECT_EQ(got.error, "the CRC doesn't match the section's bytes");
}

TEST(KeyListReader, ACutListIsIncomplete) {
  for (size_t keep : {0u, 1u, 3u, 9u, 41u}) {
    Bytes block(EMPTY_LIST.begin(), EMPTY_LIST.begin() + static_cast<long>(keep));
    EXPECT_EQ(read_list(block).status, SECTION_INCOMPLETE) << keep;
  }
}

TEST(KeyListReader, AnotherTableIdIsRefused) {
  Bytes block = EMPTY_LIST;
  block[1] = 0x4A;
  ReadList got = read_list(with_fresh_crc(block));
  EXPECT_EQ(got.status, SECTION_BAD);
  EXPECT_EQ(got.error, "table_id 0x4A where a key list has 0x4B");
}

TEST(KeyListReader, ASectionLengthOutOfRangeIsRefused) {
  Bytes block = EMPTY_LIST;
  block[2] = 0xBF;
  block[3] = 0xFE;
  ReadList got = read_list(block);
  EXPECT_EQ(got.status, SECTION_BAD);
  EXPECT_EQ(got.error, "section_length 4094 is out of range (4 to 4093)");
}

TEST(KeyListReader, ASectionTooShortForAKeyListIsRefused) {
  // section_length 8: table_id_extension, version, section_number and the CRC, and no
  // last_section_number.
  Bytes shortest = {0x00, 0x4B, 0xB0, 0x08, 0xFF, 0xFF, 0xC0, 0x00, 0, 0, 0, 0};
  ReadList got = read_list(with_fresh_crc(shortest));
  EXPECT_EQ(got.status, SECTION_BAD);
  EXPECT_EQ(got.error, "the section is too short to hold a key list");
}

TEST(KeyListReader, AnAtomSizeRunningPastTheSectionIsRefusedWithItsPlace) {
  Bytes block = EMPTY_LIST;
  block[20] = 0x20;  // "VERS" says 32 bytes
  ReadList got = read_list(with_fresh_crc(block));
  EXPECT_EQ(got.status, SECTION_BAD);
  // Bytes count from the table_id: "VDKL" at 8, "VERS" at 16 with the 21 bytes of its parent.
  EXPECT_EQ(got.error, "atom \"VERS\" at byte 16 has size 32, past the end of the 21 bytes left "
                       "for it");
}

TEST(KeyListReader, AnAtomSizeBelowItsHeaderIsRefusedWithItsPlace) {
  Bytes block = EMPTY_LIST;
  block[20] = 0x07;  // "VERS" says 7 bytes
  ReadList got = read_list(with_fresh_crc(block));
  EXPECT_EQ(got.status, SECTION_BAD);
  EXPECT_EQ(got.error, "atom at byte 16 has size 7, less than its 8-byte header");
}

TEST(KeyListReader, ARootSizeCutShortIsRefused) {
  Bytes block = EMPTY_LIST;
  block[12] = 0x1C;  // "VDKL" says 28 bytes, one less than it holds
  ReadList got = read_list(with_fresh_crc(block));
  EXPECT_EQ(got.status, SECTION_BAD);
  EXPECT_EQ(got.error, "atom \"ENCT\" at byte 26 has size 11, past the end of the 10 bytes left "
                       "for it");
}

// A block around atoms given as they are, with a good CRC.
Bytes block_of_atoms(const Bytes& atoms) {
  Bytes block = {0x00, 0x4B, 0xB0, 0x00, 0xFF, 0xFF, 0xC0, 0x00, 0x00};
  const size_t section_length = atoms.size() + 9;
  block[2] = static_cast<unsigned char>(0xB0 | (section_length >> 8));
  block[3] = static_cast<unsigned char>(section_length & 0xFF);
  block.insert(block.end(), atoms.begin(), atoms.end());
  block.insert(block.end(), 4, 0);
  return with_fresh_crc(block);
}

// An atom with a 4-character name, written out by hand.
Bytes atom(const std::string& name, const Bytes& body) {
  const size_t size = 8 + body.size();
  Bytes bytes(size);
  for (size_t i = 0; i < 4; i++) {
    bytes[i] = static_cast<unsigned char>(size >> (24 - 8 * i));
    bytes[4 + i] = static_cast<unsigned char>(name.at(i));
  }
  for (size_t i = 0; i < body.size(); i++) bytes[8 + i] = body[i];
  return bytes;
}

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const Bytes VERS = atom("VERS", {0x00, 0x01});
const Bytes ENCT = atom("ENCT", {0x00, 0x07, 0x00});

Bytes recipient(const Bytes& ekey = {0x00, 0xAB}) {
  return atom("KEYR", join({atom("PKCN", text("R")), atom("KEYE", {0x01, 0x0A, 0x00}),
                            atom("EKEY", ekey)}));
}

std::string error_of(const Bytes& atoms) {
  ReadList got = read_list(block_of_atoms(atoms));
  EXPECT_EQ(got.status, SECTION_BAD);
  return got.error;
}

TEST(KeyListReader, HandBuiltListWithARecipientIsRead) {
  ReadList got = read_list(block_of_atoms(atom("VDKL", join({VERS, ENCT, recipient()}))));
  ASSERT_EQ(got.status, SECTION_GOOD) << got.error;
  ASSERT_EQ(got.list.recipients.size(), 1u);
  EXPECT_EQ(got.list.recipients[0].name, "R");
  EXPECT_EQ(got.list.recipients[0].wrapped_key, Bytes({0xAB}));
}

TEST(KeyListReader, TheTreeMustBeAsTheListIsWritten) {
  EXPECT_EQ(error_of({}), "there are no atoms");
  EXPECT_EQ(error_of(atom("VDKX", {})), "the first atom is \"VDKX\", not \"VDKL\"");
  EXPECT_EQ(error_of(join({atom("VDKL", join({VERS, ENCT})), VERS})),
            "\"VERS\" stands behind \"VDKL\"");
  EXPECT_EQ(error_of(atom("VDKL", {})), "\"VDKL\" ends where \"VERS\" belongs");
  EXPECT_EQ(error_of(atom("VDKL", join({ENCT, VERS}))),
            "\"VDKL\" holds \"ENCT\" where \"VERS\" belongs");
  EXPECT_EQ(error_of(atom("VDKL", join({atom("VERS", {0x00, 0x01, 0x00}), ENCT}))),
            "\"VERS\" has 3 data bytes, not 2");
  EXPECT_EQ(error_of(atom("VDKL", join({atom("VERS", {0x00, 0x02}), ENCT}))),
            "it is of version 2; version 1 is the one known");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS}))), "\"VDKL\" ends where \"ENCT\" belongs");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS, atom("ENCT", {0x00, 0x07})}))),
            "\"ENCT\" has 2 data bytes, not 3");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS, ENCT, VERS}))),
            "\"VDKL\" holds \"VERS\" where only \"KEYR\" may follow");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS, ENCT, recipient(), atom("KEYR", {})}))),
            "recipient 2: \"KEYR\" ends where \"PKCN\" belongs");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS, ENCT,
                                        atom("KEYR", join({atom("PKCN", {}), atom("EKEY", {0})}))}))),
            "recipient 1: \"KEYR\" holds \"EKEY\" where \"KEYE\" belongs");
  EXPECT_EQ(error_of(atom("VDKL",
                          join({VERS, ENCT,
                                atom("KEYR", join({atom("PKCN", {}), atom("KEYE", {1, 10}),
                                                   atom("EKEY", {0})}))}))),
            "recipient 1: \"KEYE\" has 2 data bytes, not 3");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS, ENCT,
                                        atom("KEYR", join({atom("PKCN", {}), atom("KEYE", {1, 10, 0}),
                                                           atom("EKEY", {0}), atom("EKEY", {0})}))}))),
            "recipient 1: \"KEYR\" holds \"EKEY\" behind \"EKEY\"");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS, ENCT, recipient({})}))),
            "recipient 1: \"EKEY\" doesn't start with a zero byte");
  EXPECT_EQ(error_of(atom("VDKL", join({VERS, ENCT, recipient({0x01, 0xAB})}))),
            "recipient 1: \"EKEY\" doesn't start with a zero byte");
}

TEST(KeyListReader, AnotherContentCipherIsReadAndNotAes128) {
  ReadList got = read_list(block_of_atoms(atom("VDKL", join({VERS, atom("ENCT", {0, 8, 0})}))));
  ASSERT_EQ(got.status, SECTION_GOOD) << got.error;
  EXPECT_FALSE(got.list.aes_128());
  EXPECT_EQ(describe_content_cipher(got.list.cipher), "AES-256");
}

// Unwrapping.

KeyList read_back(const Bytes& block) {
  ReadList got = read_list(block);
  EXPECT_EQ(got.status, SECTION_GOOD) << got.error;
  return got.list;
}

TEST(KeyListUnwrap, EachPrivateKeyUnwrapsItsOwnRecipient) {
  KeyList list = read_back(make_key_list(
      key_of(KEY_HEX), {certificate("rsa1024.pem"), certificate("rsa2048.pem")}));
  for (const auto& [file, expected] :
       std::vector<std::pair<std::string, size_t>>{{"rsa1024.key", 0}, {"rsa2048.key", 1}}) {
    AESKey key;
    size_t recipient = 99;
    EXPECT_EQ(unwrap_content_key(list, private_key(file), std::nullopt, key, recipient), UNWRAPPED)
        << file;
    EXPECT_EQ(recipient, expected);
    EXPECT_EQ(key.to_hex(), KEY_HEX);
    EXPECT_TRUE(key.valid);
  }
}

TEST(KeyListUnwrap, ANameChoosesTheRecipient) {
  KeyList list = read_back(make_key_list(
      key_of(KEY_HEX), {certificate("rsa1024.pem"), certificate("rsa2048.pem")}));
  AESKey key;
  size_t recipient = 99;
  EXPECT_EQ(unwrap_content_key(list, private_key("rsa2048.key"), std::string("Receiver Two"), key,
                               recipient),
            UNWRAPPED);
  EXPECT_EQ(recipient, 1u);
  EXPECT_EQ(key.to_hex(), KEY_HEX);
  EXPECT_EQ(unwrap_content_key(list, private_key("rsa2048.key"), std::string("A"), key, recipient),
            NOT_UNWRAPPED);
  EXPECT_EQ(
      unwrap_content_key(list, private_key("rsa2048.key"), std::string("Nobody"), key, recipient),
      NO_RECIPIENT_NAMED);
}

TEST(KeyListUnwrap, OfTwoRecipientsWithTheSameNameTheOneThatUnwrapsIsTaken) {
  KeyList list =
      read_back(make_key_list(key_of(KEY_HEX), {rsa2048_named_a(), certificate("rsa1024.pem")}));
  AESKey key;
  size_t recipient = 99;
  EXPECT_EQ(unwrap_content_key(list, private_key("rsa1024.key"), std::string("A"), key, recipient),
            UNWRAPPED);
  EXPECT_EQ(recipient, 1u);
  EXPECT_EQ(key.to_hex(), KEY_HEX);
}

TEST(KeyListUnwrap, AnotherPrivateKeyUnwrapsNothing) {
  KeyList list = read_back(make_key_list(key_of(KEY_HEX), {certificate("rsa2048.pem")}));
  // The same modulus size, another key.
  RSAKey other(true);
  other.generate(2048, 65537);
  ASSERT_TRUE(other.valid);
  AESKey key;
  size_t recipient = 99;
  EXPECT_EQ(unwrap_content_key(list, other, std::nullopt, key, recipient), NOT_UNWRAPPED);
  EXPECT_EQ(recipient, 99u);
  EXPECT_EQ(unwrap_content_key(list, private_key("rsa1024.key"), std::nullopt, key, recipient),
            NOT_UNWRAPPED);
}

TEST(KeyListUnwrap, AListWithoutRecipientsHasNothingToUnwrap) {
  KeyList list = read_back(EMPTY_LIST);
  AESKey key;
  size_t recipient = 99;
  EXPECT_EQ(unwrap_content_key(list, private_key("rsa1024.key"), std::nullopt, key, recipient),
            NO_RECIPIENTS);
}

TEST(KeyListUnwrap, AWrappedKeyOfAllZerosUnwrapsToNothing) {
  KeyList list = read_back(make_key_list(key_of(KEY_HEX), {certificate("rsa1024.pem")}));
  list.recipients[0].wrapped_key.assign(128, 0);
  AESKey key;
  size_t recipient = 99;
  EXPECT_EQ(unwrap_content_key(list, private_key("rsa1024.key"), std::nullopt, key, recipient),
            NOT_UNWRAPPED);
}

// Descriptions.

TEST(KeyListText, DescribesCiphersAndKeyTypes) {
  EXPECT_EQ(describe_content_cipher({0x00, 0x07, 0x00}), "AES-128");
  EXPECT_EQ(describe_content_cipher({0x02, 0x07, 0x00}), "unknown (02 07 00)");
  EXPECT_EQ(describe_content_cipher({0x00, 0x07}), "unknown (00 07)");
  EXPECT_EQ(describe_key_type({0x01, 0x0A, 0x00}), "RSA-1024");
  EXPECT_EQ(describe_key_type({0x01, 0x0B, 0x00}), "RSA-2048");
  EXPECT_EQ(describe_key_type({0x01, 0xFF, 0x00}), "RSA of unknown size");
  EXPECT_EQ(describe_key_type({0x01, 0x0B, 0x01}), "unknown (01 0B 01)");
}

TEST(KeyListText, ListsVersionCipherAndRecipients) {
  KeyList list = read_back(make_key_list(
      key_of(KEY_HEX), {certificate("rsa1024.pem"), certificate("rsa2048.pem"),
                        certificate("nocn.pem")}));
  std::ostringstream out;
  list_key_list(out, list);
  EXPECT_EQ(out.str(),
            "Key list version 1\n"
            "Content cipher: AES-128\n"
            "Recipients: 3\n"
            "  1. \"A\": RSA-1024 key, content key wrapped in 128 bytes\n"
            "  2. \"Receiver Two\": RSA-2048 key, content key wrapped in 256 bytes\n"
            "  3. \"\": RSA-1024 key, content key wrapped in 128 bytes\n");
}

TEST(KeyListText, ListsAListWithoutRecipients) {
  std::ostringstream out;
  list_key_list(out, read_back(EMPTY_LIST));
  EXPECT_EQ(out.str(),
            "Key list version 1\n"
            "Content cipher: AES-128\n"
            "Recipients: none\n");
}

}  // namespace
}  // namespace Veldrin::IndexGen
