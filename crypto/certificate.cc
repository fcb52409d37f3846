#include "crypto/certificate.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>

#include "crypto/openssl_support.h"

namespace Korvix::Crypto {

namespace {

const std::string BEGIN_TRUSTED = "-----BEGIN TRUSTED CERTIFICATE-----\n";
const std::string BEGIN = "-----BEGIN CERTIFICATE-----\n";
const std::string END = "-----END CERTIFICATE-----\n";

// The PEM readers ask for a pass phrase when a block says it is enciphered; a certificate has
// none, and an empty one fails at once instead of asking at the terminal.
char* no_pass_phrase() {
  static char empty[] = "";
  return empty;
}

// False when no BIO could be had for the text; certificate is null when it doesn't parse.
bool parse(const std::string& text, X509*& certificate) {
  certificate = nullptr;
  const bool binary = std::any_of(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0x80) != 0; });
  const bool trusted = !binary && text.find(BEGIN_TRUSTED) != std::string::npos;
  const bool bare = !binary && !trusted && text.find(BEGIN) == std::string::npos;
  // The BIO reads the string where it lies, so the wrapped text has to outlive it.
  const std::string wrapped = bare ? BEGIN + text + END : std::string();
  MemoryBio bio = memory_bio(bare ? wrapped : text);
  if (!bio) return false;
  if (binary)
    certificate = d2i_X509_bio(bio.get(), nullptr);
  else if (trusted)
    certificate = PEM_read_bio_X509_AUX(bio.get(), nullptr, pass_phrase_callback, no_pass_phrase());
  else
    certificate = PEM_read_bio_X509(bio.get(), nullptr, pass_phrase_callback, no_pass_phrase());
  return true;
}

}  // namespace

void Certificate::X509Free::operator()(x509_st* certificate) const {
  X509_free(certificate);
}

Certificate::Certificate() = default;

Certificate::Certificate(const Certificate& other) {
  if (other.x509 && X509_up_ref(other.x509.get()) == 1) x509.reset(other.x509.get());
}

Certificate& Certificate::operator=(const Certificate& other) {
  if (this != &other) {
    Certificate copy(other);
    *this = std::move(copy);
  }
  return *this;
}

Certificate::Certificate(Certificate&& other) noexcept = default;
Certificate& Certificate::operator=(Certificate&& other) noexcept = default;
Certificate::~Certificate() = default;

void Certificate::read_pem(const std::string& text) {
  X509* certificate;
  // Without a BIO the certificate stays as it was.
  if (parse(text, certificate)) x509.reset(certificate);
}

void Certificate::read_pem(std::istream& stream) {
  std::string text;
  char chunk[65536];
  while (stream.read(chunk, sizeof chunk) || stream.gcount() > 0)
    text.append(chunk, static_cast<size_t>(stream.gcount()));
  read_pem(text);
}

std::string Certificate::write_pem() const {
  if (!x509) return "INVALID!";
  MemoryBio bio(BIO_new(BIO_s_mem()));
  if (!bio) return "";
  if (PEM_write_bio_X509(bio.get(), x509.get()) != 1) return "";
  return memory_bio_text(bio.get());
}

bool Certificate::get_rsa_key(RSAKey& key) const {
  key.valid = false;
  if (!x509) return false;
  std::unique_ptr<evp_pkey_st, RSAKey::KeyFree> public_key(X509_get_pubkey(x509.get()));
  if (!public_key) return false;
  if (EVP_PKEY_is_a(public_key.get(), "RSA") != 1) {
    key.rsa.reset();
    return false;
  }
  key.rsa = std::move(public_key);
  key.is_private = false;
  key.valid = true;
  return true;
}

std::string Certificate::get_cn() const {
  if (!x509) return "INVALID!";
  char buffer[256] = {};
  const X509_NAME* subject = X509_get_subject_name(x509.get());
  if (subject != nullptr)
    X509_NAME_get_text_by_NID(subject, NID_commonName, buffer, static_cast<int>(sizeof buffer));
  return std::string(buffer);
}

std::istream& operator>>(std::istream& stream, Certificate& certificate) {
  certificate.read_pem(stream);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const Certificate& certificate) {
  stream << certificate.write_pem();
  return stream;
}

}  // namespace Korvix::Crypto
