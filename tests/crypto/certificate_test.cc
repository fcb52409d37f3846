#include "crypto/certificate.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/key_material.h"

namespace Korvix::Crypto {
namespace {

using Bytes = std::vector<unsigned char>;
using Veldrin::Testing::KeyMaterial;

const KeyMaterial& material() {
  return KeyMaterial::get();
}

Certificate certificate_of(const std::string& text) {
  Certificate certificate;
  certificate.read_pem(text);
  return certificate;
}

Certificate certificate_file(const std::string& name) {
  return certificate_of(material().text(name));
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// The Base64 lines of a PEM certificate, each with its line end, without the two lines around.
std::string bare_body(const std::string& pem) {
  const std::string begin = "-----BEGIN CERTIFICATE-----\n";
  const std::string end = "-----END CERTIFICATE-----\n";
  size_t from = pem.find(begin);
  size_t to = pem.find(end);
  if (from == std::string::npos || to == std::string::npos) return "";
  return pem.substr(from + begin.size(), to - from - begin.size());
}

TEST(Certificate, WithoutACertificateEverythingIsInvalid) {
  Certificate certificate;
  EXPECT_EQ(certificate.x509, nullptr);
  EXPECT_EQ(certificate.write_pem(), "INVALID!");
  EXPECT_EQ(certificate.get_cn(), "INVALID!");
  std::ostringstream stream;
  stream << certificate;
  EXPECT_EQ(stream.str(), "INVALID!");
  RSAKey key;
  key.read_pem(material().text("rsa1024.pub"));
  ASSERT_TRUE(key.valid);
  EXPECT_FALSE(certificate.get_rsa_key(key));
  EXPECT_FALSE(key.valid);
}

TEST(Certificate, ReadsAPemCertificateWithItsNameAndRsaKey) {
  Certificate certificate = certificate_file("rsa1024.pem");
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "A");
  RSAKey key(true);
  ASSERT_TRUE(certificate.get_rsa_key(key));
  EXPECT_TRUE(key.valid);
  EXPECT_FALSE(key.is_private);
  EXPECT_EQ(key.cipher_size(), 128);
  EXPECT_EQ(key.max_plaintext(), 117);
  EXPECT_EQ(key.write_pem(), material().text("rsa1024.pub"));
}

TEST(Certificate, ReadsA2048BitCertificateAndFindsTheCommonNameAmongOtherAttributes) {
  Certificate certificate = certificate_file("rsa2048.pem");
  EXPECT_EQ(certificate.get_cn(), "Receiver Two");
  RSAKey key;
  ASSERT_TRUE(certificate.get_rsa_key(key));
  EXPECT_EQ(key.cipher_size(), 256);
  EXPECT_EQ(key.write_pem(), material().text("rsa2048.pub"));
}

TEST(Certificate, WritesThePemTextOpensslWrote) {
  EXPECT_EQ(certificate_file("rsa1024.pem").write_pem(), material().text("rsa1024.pem"));
  std::ostringstream stream;
  stream << certificate_file("rsa2048.pem");
  EXPECT_EQ(stream.str(), material().text("rsa2048.pem"));
}

TEST(Certificate, ReadsTheDerFormThroughTheSameCall) {
  Certificate certificate = certificate_file("rsa1024.der");
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "A");
  EXPECT_EQ(certificate.write_pem(), material().text("rsa1024.pem"));
}

TEST(Certificate, RefusesATruncatedOrDamagedDerCertificate) {
  std::string der = material().text("rsa1024.der");
  EXPECT_EQ(certificate_of(der.substr(0, der.size() - 1)).x509, nullptr);
  EXPECT_EQ(certificate_of(der.substr(0, 4)).x509, nullptr);
  std::string damaged = der;
  damaged[1] = static_cast<char>(0x83);  // a length of three bytes where there are two
  EXPECT_EQ(certificate_of(damaged).x509, nullptr);
  EXPECT_EQ(certificate_of("\x80").x509, nullptr);
}

TEST(Certificate, ReadsATrustedCertificateAndWritesItWithoutItsTrustSettings) {
  std::string text = material().text("trusted.pem");
  ASSERT_EQ(text.rfind("-----BEGIN TRUSTED CERTIFICATE-----\n", 0), 0u);
  Certificate certificate = certificate_of(text);
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "A");
  EXPECT_EQ(certificate.write_pem(), material().text("rsa1024.pem"));
}

// The search finds the line anywhere, and the reader skips to it.
TEST(Certificate, ReadsAPemFileWithTextAheadOfTheCertificate) {
  std::string text = material().text("leading.pem");
  ASSERT_EQ(text.rfind("Certificate:\n", 0), 0u);
  Certificate certificate = certificate_of(text);
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "Receiver Two");
}

TEST(Certificate, ReadsTheCertificateBehindAKeyBlockAndTheFirstOfTwo) {
  Certificate behind_key =
      certificate_of(material().text("rsa1024.key") + material().text("rsa2048.pem"));
  EXPECT_EQ(behind_key.get_cn(), "Receiver Two");
  Certificate first_of_two =
      certificate_of(material().text("rsa2048.pem") + material().text("rsa1024.pem"));
  EXPECT_EQ(first_of_two.get_cn(), "Receiver Two");
}

// Any byte with its top bit set makes the text DER, whatever else it holds.
TEST(Certificate, PemTextWithANonAsciiCharacterIsTakenForDerAndRefused) {
  std::string text = "Subject: Zo\xC3\xAB\n" + material().text("rsa1024.pem");
  EXPECT_EQ(certificate_of(text).x509, nullptr);
}

TEST(Certificate, RefusesPemWhoseBase64IsDamaged) {
  std::string text = material().text("rsa1024.pem");
  // A character outside the Base64 alphabet stops the decoder with an error.
  std::string damaged = text;
  damaged[damaged.find('\n') + 10] = '*';
  EXPECT_EQ(certificate_of(damaged).x509, nullptr);
  // Without its END line the reader meets the end of the text looking for one.
  std::string cut = text.substr(0, text.find("-----END"));
  EXPECT_EQ(certificate_of(cut).x509, nullptr);
}

// The lines end in "\r\n", so the search for "-----BEGIN CERTIFICATE-----\n" fails and the text
// is wrapped like a bare body. The reader takes the lines between the added BEGIN line and the
// first END line as Base64, cleaned of their line ends: the first of them is the file's own
// BEGIN line, and decoding stops at its first '-', before any byte. So there's nothing to parse.
TEST(Certificate, APemFileWithCrLfLineEndsIsWrappedAndGivesNoCertificate) {
  std::string text = replace_all(material().text("rsa1024.pem"), "\n", "\r\n");
  EXPECT_EQ(certificate_of(text).x509, nullptr);
}

// Wrapping puts the BEGIN and END lines around the body, which then reads as the certificate.
TEST(Certificate, ABareBodyWithItsLastLineEndIsWrappedAndRead) {
  std::string body = bare_body(material().text("rsa1024.pem"));
  ASSERT_EQ(body.back(), '\n');
  Certificate certificate = certificate_of(body);
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "A");
  EXPECT_EQ(certificate.write_pem(), material().text("rsa1024.pem"));
  // Lines of CRLF in a bare body are cleaned like any other line ends.
  EXPECT_EQ(certificate_of(replace_all(body, "\n", "\r\n")).get_cn(), "A");
}

// Without its last line end, the added END line is glued to the last Base64 line. No line then
// starts with "-----END ", and the reader meets the end of the text still looking for one.
TEST(Certificate, ABareBodyWithoutItsLastLineEndGivesNoCertificate) {
  std::string body = bare_body(material().text("rsa1024.pem"));
  body.pop_back();
  EXPECT_EQ(certificate_of(body).x509, nullptr);
}

// Wrapped, the key's own BEGIN line reads as Base64, and its END line names "PUBLIC KEY" where
// the reader waits for "CERTIFICATE": a bad end line.
TEST(Certificate, APemFileWithOnlyAPublicKeyGivesNoCertificate) {
  EXPECT_EQ(certificate_file("rsa1024.pub").x509, nullptr);
  EXPECT_EQ(certificate_file("rsa1024.key").x509, nullptr);
}

// Wrapped, the empty text is a BEGIN line right before its END line: a block without data.
TEST(Certificate, AnEmptyFileGivesNoCertificate) {
  EXPECT_EQ(certificate_file("empty").x509, nullptr);
  EXPECT_EQ(certificate_of("").x509, nullptr);
  std::ifstream stream(material().path("empty"), std::ios::binary);
  Certificate certificate;
  stream >> certificate;
  EXPECT_EQ(certificate.x509, nullptr);
}

TEST(Certificate, ADirectoryOrAMissingFileGivesNoCertificate) {
  std::ifstream directory(material().path("directory"), std::ios::binary);
  Certificate from_directory;
  from_directory.read_pem(directory);
  EXPECT_EQ(from_directory.x509, nullptr);
  std::ifstream missing(material().path("no such file"), std::ios::binary);
  Certificate from_missing;
  from_missing.read_pem(missing);
  EXPECT_EQ(from_missing.x509, nullptr);
}

TEST(Certificate, ReadsFromAStreamToItsEnd) {
  std::ifstream stream(material().path("leading.pem"), std::ios::binary);
  Certificate certificate;
  stream >> certificate;
  EXPECT_EQ(certificate.get_cn(), "Receiver Two");
  std::istringstream der(material().text("rsa1024.der"));
  Certificate from_der;
  from_der.read_pem(der);
  EXPECT_EQ(from_der.get_cn(), "A");
}

TEST(Certificate, AStreamThatHasFailedGivesNoCertificate) {
  std::istringstream stream(material().text("rsa1024.pem"));
  stream.setstate(std::ios::failbit);
  Certificate certificate;
  stream >> certificate;
  EXPECT_EQ(certificate.x509, nullptr);
}

TEST(Certificate, AFailedReadLeavesNoCertificate) {
  Certificate certificate = certificate_file("rsa1024.pem");
  ASSERT_NE(certificate.x509, nullptr);
  certificate.read_pem("not a certificate");
  EXPECT_EQ(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "INVALID!");
}

// A block that says it is enciphered wants a pass phrase. There is none, and the reader fails
// instead of asking at the terminal.
TEST(Certificate, AnEncipheredPemBlockFailsWithoutAsking) {
  std::string text = material().text("rsa1024.pem");
  const std::string begin = "-----BEGIN CERTIFICATE-----\n";
  text.insert(begin.size(), "Proc-Type: 4,ENCRYPTED\nDEK-Info: DES-EDE3-CBC,0001020304050607\n\n");
  EXPECT_EQ(certificate_of(text).x509, nullptr);
}

TEST(Certificate, AnEcCertificateIsReadButGivesNoRsaKey) {
  Certificate certificate = certificate_file("ec.pem");
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "Curve");
  RSAKey key;
  key.read_pem(material().text("rsa1024.pub"));
  ASSERT_TRUE(key.valid);
  EXPECT_FALSE(certificate.get_rsa_key(key));
  EXPECT_FALSE(key.valid);
  EXPECT_EQ(key.cipher_size(), 0);
  Bytes to(128, 0xEE);
  const unsigned char plain[16] = {};
  EXPECT_FALSE(key.encrypt(plain, 16, to.data()));
  EXPECT_EQ(to, Bytes(128, 0xEE));
}

TEST(Certificate, WithoutACommonNameTheNameIsEmpty) {
  Certificate certificate = certificate_file("nocn.pem");
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "");
  RSAKey key;
  EXPECT_TRUE(certificate.get_rsa_key(key));
  EXPECT_EQ(key.cipher_size(), 128);
}

TEST(Certificate, TheNameIsTheFirstCommonNameOfTheSubject) {
  Certificate certificate = certificate_of(material().subject_certificate(
      "two", {"O=UTF8String:Org", "UTF8String:First", "UTF8String:Second"}));
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), "First");
  RSAKey key;
  ASSERT_TRUE(certificate.get_rsa_key(key));
  EXPECT_EQ(key.write_pem(), material().text("rsa1024.pub"));
}

TEST(Certificate, TheNameIsCutToTheBufferOf256Bytes) {
  std::string long_name(300, 'x');
  long_name[254] = 'y';
  long_name[255] = 'z';
  Certificate certificate =
      certificate_of(material().subject_certificate("long", {"UTF8String:" + long_name}));
  ASSERT_NE(certificate.x509, nullptr);
  EXPECT_EQ(certificate.get_cn(), std::string(254, 'x') + "y");
  Certificate exact = certificate_of(
      material().subject_certificate("exact", {"UTF8String:" + std::string(255, 'e')}));
  EXPECT_EQ(exact.get_cn(), std::string(255, 'e'));
}

// The name is the raw bytes of the attribute, of whatever string type, up to a zero byte. The
// values are written as octet strings given the universal tag of each string type: 12 UTF8String,
// 20 TeletexString, 30 BMPString.
std::string cn_of_raw_string(const std::string& name, int tag, const std::string& hex) {
  return certificate_of(material().subject_certificate(name, {"IMPLICIT:" + std::to_string(tag) +
                                                              "U,FORMAT:HEX,OCTETSTRING:" + hex}))
      .get_cn();
}

TEST(Certificate, TheNameIsTheRawBytesUpToTheFirstZeroByte) {
  EXPECT_EQ(cn_of_raw_string("utf8", 12, "5A6FC3AB"), "Zo\xC3\xAB");
  EXPECT_EQ(cn_of_raw_string("teletex", 20, "5AE9"), "Z\xE9");
  EXPECT_EQ(cn_of_raw_string("zero", 12, "4100424300"), "A");
  // "AB" as a BMPString is 00 41 00 42: the first byte is already zero.
  EXPECT_EQ(cn_of_raw_string("bmp", 30, "00410042"), "");
  EXPECT_EQ(cn_of_raw_string("bmp-high", 30, "41004200"), "A");
}

TEST(Certificate, EncryptWithACertificatesKeyIsDecipheredByOpensslWithThePrivateKey) {
  RSAKey key;
  ASSERT_TRUE(certificate_file("rsa2048.pem").get_rsa_key(key));
  const std::string plain = "0123456789abcdef";
  Bytes wrapped(static_cast<size_t>(key.cipher_size()), 0x00);
  ASSERT_TRUE(
      key.encrypt(reinterpret_cast<const unsigned char*>(plain.data()), 16, wrapped.data()));
  Veldrin::Testing::write_file(material().path("certificate-wrapped.bin"),
                               std::string(wrapped.begin(), wrapped.end()));
  EXPECT_EQ(material().openssl({"pkeyutl", "-decrypt", "-inkey", "rsa2048.key", "-pkeyopt",
                                "rsa_padding_mode:pkcs1", "-in", "certificate-wrapped.bin"}),
            plain);
}

TEST(Certificate, CopiesShareTheCertificateAndOutliveTheOriginal) {
  Certificate copy;
  {
    Certificate original = certificate_file("rsa1024.pem");
    copy = original;
    Certificate constructed(original);
    EXPECT_EQ(constructed.get_cn(), "A");
  }
  EXPECT_EQ(copy.get_cn(), "A");
  Certificate moved(std::move(copy));
  EXPECT_EQ(moved.get_cn(), "A");
  Certificate empty;
  Certificate empty_copy(empty);
  EXPECT_EQ(empty_copy.x509, nullptr);
}

}  // namespace
}  // namespace Korvix::Crypto
