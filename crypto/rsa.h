#ifndef KORVIX_CRYPTO_RSA_H
#define KORVIX_CRYPTO_RSA_H

#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

struct evp_pkey_st;

namespace Korvix::Crypto {

// An RSA key, public or with its private half, with PKCS#1 v1.5 padding in all four directions:
// a public key enciphers and recovers what a private key signed; a private key deciphers and
// signs (the raw type-1 padding, no digest). Failures show in valid and in the results, never as
// an exception.
class RSAKey {
 public:
  explicit RSAKey(bool is_private_ = false);
  // Copies share the key, which is never changed in place.
  RSAKey(const RSAKey& other);
  RSAKey& operator=(const RSAKey& other);
  RSAKey(RSAKey&& other) noexcept;
  RSAKey& operator=(RSAKey&& other) noexcept;
  ~RSAKey();

  // A private key if is_private or force_private is set ("BEGIN RSA PRIVATE KEY", "BEGIN PRIVATE
  // KEY" or "BEGIN ENCRYPTED PRIVATE KEY"; an encrypted one needs its pass phrase, and an empty
  // phrase never prompts), else a public key in the SubjectPublicKeyInfo form ("BEGIN PUBLIC
  // KEY"). A key that isn't RSA is refused. Success sets valid; a failure changes nothing.
  // force_private doesn't change is_private.
  void read_pem(const std::string& text, const std::string& pass_phrase = "",
                bool force_private = false);
  // Reads the stream to its end first.
  void read_pem(std::istream& stream, const std::string& pass_phrase = "",
                bool force_private = false);

  // A new key of bits bits with the public exponent given; on success replaces the key and sets
  // valid, and leaves is_private as it is. A failure changes nothing.
  void generate(int32_t bits, uint64_t exponent);

  // "INVALID!" without a key. A private key unless force_public is set: "BEGIN RSA PRIVATE KEY",
  // enciphered with DES-EDE3-CBC under the pass phrase when one is given; else "BEGIN PUBLIC KEY".
  // An empty string when the text can't be made.
  std::string write_pem(const std::string& pass_phrase = "", bool force_public = false) const;
  void write_pem(std::ostream& stream, const std::string& pass_phrase = "",
                 bool force_public = false) const;

  // length bytes of from, at most max_plaintext, into cipher_size bytes of to; a private key
  // signs them, a public one enciphers them. to is untouched on failure.
  bool encrypt(const unsigned char* from, int32_t length, unsigned char* to) const;
  // cipher_size bytes of from; a private key deciphers them, a public one recovers what was
  // signed. Gives the length of the plain text written to to (which must hold max_plaintext
  // bytes), 0 on failure.
  int32_t decrypt(const unsigned char* from, unsigned char* to) const;

  // The size of the modulus in bytes, 0 without a key.
  int32_t cipher_size() const;
  // cipher_size less the 11 bytes of PKCS#1 v1.5 padding, 0 without a key.
  int32_t max_plaintext() const;

  struct KeyFree {
    void operator()(evp_pkey_st* key) const;
  };

  // The key, an OpenSSL EVP_PKEY of type RSA.
  std::unique_ptr<evp_pkey_st, KeyFree> rsa;
  bool is_private;
  bool valid = false;

 private:
  bool usable() const { return valid && rsa != nullptr; }
};

std::istream& operator>>(std::istream& stream, RSAKey& key);
std::ostream& operator<<(std::ostream& stream, const RSAKey& key);

}  // namespace Korvix::Crypto

#endif
