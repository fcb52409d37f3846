#ifndef KORVIX_CRYPTO_CERTIFICATE_H
#define KORVIX_CRYPTO_CERTIFICATE_H

#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "crypto/rsa.h"

struct x509_st;

namespace Korvix::Crypto {

// An X.509 certificate, read from DER or PEM text.
class Certificate {
 public:
  Certificate();
  // Copies share the certificate, which is never changed in place.
  Certificate(const Certificate& other);
  Certificate& operator=(const Certificate& other);
  Certificate(Certificate&& other) noexcept;
  Certificate& operator=(Certificate&& other) noexcept;
  ~Certificate();

  // Takes three forms: DER when any byte has its top bit set; else PEM when the text holds a
  // "BEGIN TRUSTED CERTIFICATE" or "BEGIN CERTIFICATE" line, anywhere; else a bare Base64 body,
  // which is wrapped in those lines first. x509 is null when the text doesn't parse.
  void read_pem(const std::string& text);
  // Reads the stream until it reports end of file or failure.
  void read_pem(std::istream& stream);

  // "INVALID!" without a certificate, an empty string when the text can't be made.
  std::string write_pem() const;

  // The RSA public key of the subject: clears valid of key, then gives true and a valid public key
  // if the certificate holds one; a key of another type is refused.
  bool get_rsa_key(RSAKey& key) const;

  // The raw bytes of the subject's first commonName up to its first zero byte, at most 255; empty
  // without one; "INVALID!" without a certificate.
  std::string get_cn() const;

  struct X509Free {
    void operator()(x509_st* certificate) const;
  };

  std::unique_ptr<x509_st, X509Free> x509;
};

std::istream& operator>>(std::istream& stream, Certificate& certificate);
std::ostream& operator<<(std::ostream& stream, const Certificate& certificate);

}  // namespace Korvix::Crypto

#endif
