// Certificate::read_pem on the bytes of a -Ee file (DER, PEM or a bare Base64 body), then what the
// tool asks of a certificate: its RSA key, its common name and its text, which must read back as
// the same certificate.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "crypto/certificate.h"
#include "crypto/rsa.h"

namespace Crypto = Korvix::Crypto;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Crypto::Certificate certificate;
  certificate.read_pem(text);

  // The stream form reads the same text to its end and must come to the same answer.
  std::istringstream stream(text);
  Crypto::Certificate from_stream;
  stream >> from_stream;
  if ((certificate.x509 == nullptr) != (from_stream.x509 == nullptr)) std::abort();

  Crypto::RSAKey key;
  const bool has_key = certificate.get_rsa_key(key);
  if (has_key != key.valid) std::abort();
  // Wrapping a content key is what the tool does with it; a modulus beyond 4,096 bits would
  // only make the run slow.
  if (has_key && key.cipher_size() > 0 && key.cipher_size() <= 512 && key.max_plaintext() >= 16) {
    const unsigned char content_key[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                           0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    std::vector<unsigned char> wrapped(static_cast<size_t>(key.cipher_size()));
    key.encrypt(content_key, 16, wrapped.data());
  }

  const std::string name = certificate.get_cn();
  if (certificate.x509 == nullptr && name != "INVALID!") std::abort();
  if (name.size() > 255) std::abort();

  const std::string pem = certificate.write_pem();
  if (certificate.x509 == nullptr) {
    if (pem != "INVALID!") std::abort();
    return 0;
  }
  if (pem.empty()) return 0;  // no memory for the text
  // OpenSSL may write an encoding that it then refuses to read: a signature algorithm whose
  // parameters came as an empty constructed value goes out as an end-of-contents, which no
  // reader takes. What does read back must be the same certificate.
  Crypto::Certificate again;
  again.read_pem(pem);
  if (again.x509 == nullptr) return 0;
  if (again.write_pem() != pem || again.get_cn() != name) std::abort();
  return 0;
}
