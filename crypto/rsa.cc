#include "crypto/rsa.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstring>
#include <iterator>
#include <vector>

#include "crypto/openssl_support.h"

namespace Korvix::Crypto {

namespace {

struct PKeyContextFree {
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
using PKeyContext = std::unique_ptr<EVP_PKEY_CTX, PKeyContextFree>;

struct BignumFree {
  void operator()(BIGNUM* number) const { BN_free(number); }
};

struct OpenSSLFree {
  void operator()(unsigned char* data) const { OPENSSL_free(data); }
};

// The key of a PEM "PUBLIC KEY" block, the SubjectPublicKeyInfo form alone: the library's own
// public key reader would also take the older "RSA PUBLIC KEY" form.
EVP_PKEY* read_public_key(BIO* bio) {
  unsigned char* bytes = nullptr;
  long length = 0;
  if (PEM_bytes_read_bio(&bytes, &length, nullptr, PEM_STRING_PUBLIC, bio, pass_phrase_callback,
                         const_cast<char*>("")) != 1)
    return nullptr;
  std::unique_ptr<unsigned char, OpenSSLFree> owned(bytes);
  const unsigned char* next = bytes;
  return d2i_PUBKEY(nullptr, &next, length);
}

// The largest modulus OpenSSL works with; a larger key could never be used.
constexpr int32_t MAX_MODULUS_BITS = 16384;

}  // namespace

void RSAKey::KeyFree::operator()(evp_pkey_st* key) const {
  EVP_PKEY_free(key);
}

RSAKey::RSAKey(bool is_private_) : is_private(is_private_) {}

RSAKey::RSAKey(const RSAKey& other) : is_private(other.is_private), valid(other.valid) {
  if (other.rsa && EVP_PKEY_up_ref(other.rsa.get()) == 1) rsa.reset(other.rsa.get());
}

RSAKey& RSAKey::operator=(const RSAKey& other) {
  if (this != &other) {
    RSAKey copy(other);
    *this = std::move(copy);
  }
  return *this;
}

RSAKey::RSAKey(RSAKey&& other) noexcept = default;
RSAKey& RSAKey::operator=(RSAKey&& other) noexcept = default;
RSAKey::~RSAKey() = default;

void RSAKey::read_pem(const std::string& text, const std::string& pass_phrase, bool force_private) {
  MemoryBio bio = memory_bio(text);
  if (!bio) return;
  EVP_PKEY* key;
  if (is_private || force_private) {
    key = PEM_read_bio_PrivateKey(bio.get(), nullptr, pass_phrase_callback,
                                  const_cast<char*>(pass_phrase.c_str()));
  } else {
    key = read_public_key(bio.get());
  }
  std::unique_ptr<evp_pkey_st, KeyFree> read(key);
  if (!read || EVP_PKEY_is_a(read.get(), "RSA") != 1) return;
  rsa = std::move(read);
  valid = true;
}

void RSAKey::read_pem(std::istream& stream, const std::string& pass_phrase, bool force_private) {
  std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  read_pem(text, pass_phrase, force_private);
}

void RSAKey::generate(int32_t bits, uint64_t exponent) {
  // An even exponent or one of 1 can't make a key (an old generator searched for one forever);
  // nor can a modulus outside OpenSSL's limits.
  if (bits <= 0 || bits > MAX_MODULUS_BITS || exponent < 3 || exponent % 2 == 0) return;
  PKeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  std::unique_ptr<BIGNUM, BignumFree> public_exponent(BN_new());
  if (!context || !public_exponent) return;
  if (BN_set_word(public_exponent.get(), exponent) != 1) return;
  if (EVP_PKEY_keygen_init(context.get()) != 1) return;
  if (EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits) <= 0) return;
  if (EVP_PKEY_CTX_set1_rsa_keygen_pubexp(context.get(), public_exponent.get()) <= 0) return;
  EVP_PKEY* key = nullptr;
  if (EVP_PKEY_keygen(context.get(), &key) != 1) return;
  rsa.reset(key);
  valid = true;
}

std::string RSAKey::write_pem(const std::string& pass_phrase, bool force_public) const {
  if (!usable()) return "INVALID!";
  MemoryBio bio(BIO_new(BIO_s_mem()));
  if (!bio) return "";
  int written;
  if (is_private && !force_public) {
    const EVP_CIPHER* cipher = pass_phrase.empty() ? nullptr : EVP_des_ede3_cbc();
    written = PEM_write_bio_PrivateKey_traditional(bio.get(), rsa.get(), cipher, nullptr, 0,
                                                   pass_phrase_callback,
                                                   const_cast<char*>(pass_phrase.c_str()));
  } else {
    written = PEM_write_bio_PUBKEY(bio.get(), rsa.get());
  }
  if (written != 1) return "";
  return memory_bio_text(bio.get());
}

void RSAKey::write_pem(std::ostream& stream, const std::string& pass_phrase,
                       bool force_public) const {
  stream << write_pem(pass_phrase, force_public);
}

bool RSAKey::encrypt(const unsigned char* from, int32_t length, unsigned char* to) const {
  if (!usable() || length < 0 || (from == nullptr && length > 0)) return false;
  PKeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, rsa.get(), nullptr));
  if (!context) return false;
  int ready = is_private ? EVP_PKEY_sign_init(context.get()) : EVP_PKEY_encrypt_init(context.get());
  if (ready != 1 || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) <= 0)
    return false;

  static const unsigned char nothing = 0;
  const unsigned char* in = length > 0 ? from : &nothing;
  std::vector<unsigned char> out(static_cast<size_t>(cipher_size()));
  size_t out_length = out.size();
  // With PKCS#1 padding and no digest, signing is the raw type-1 padding of the bytes given.
  int done = is_private ? EVP_PKEY_sign(context.get(), out.data(), &out_length, in,
                                        static_cast<size_t>(length))
                        : EVP_PKEY_encrypt(context.get(), out.data(), &out_length, in,
                                           static_cast<size_t>(length));
  if (done != 1 || out_length > out.size()) return false;
  std::memcpy(to, out.data(), out_length);
  return true;
}

int32_t RSAKey::decrypt(const unsigned char* from, unsigned char* to) const {
  if (!usable() || from == nullptr) return 0;
  PKeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, rsa.get(), nullptr));
  if (!context) return 0;
  int ready = is_private ? EVP_PKEY_decrypt_init(context.get())
                         : EVP_PKEY_verify_recover_init(context.get());
  if (ready != 1 || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) <= 0) return 0;
  if (is_private) {
    // Newer libraries answer a bad padding with random bytes instead of a failure; the caller here
    // is told of the failure. Libraries that don't know the setting ignore it.
    unsigned int implicit_rejection = 0;
    OSSL_PARAM params[] = {OSSL_PARAM_construct_uint("implicit-rejection", &implicit_rejection),
                           OSSL_PARAM_END};
    EVP_PKEY_CTX_set_params(context.get(), params);
  }

  const size_t size = static_cast<size_t>(cipher_size());
  std::vector<unsigned char> out(size);
  size_t out_length = out.size();
  int done = is_private
                 ? EVP_PKEY_decrypt(context.get(), out.data(), &out_length, from, size)
                 : EVP_PKEY_verify_recover(context.get(), out.data(), &out_length, from, size);
  if (done != 1 || out_length > out.size()) return 0;
  std::memcpy(to, out.data(), out_length);
  return static_cast<int32_t>(out_length);
}

int32_t RSAKey::cipher_size() const {
  if (!usable()) return 0;
  return EVP_PKEY_get_size(rsa.get());
}

int32_t RSAKey::max_plaintext() const {
  if (!usable()) return 0;
  return cipher_size() - RSA_PKCS1_PADDING_SIZE;
}

std::istream& operator>>(std::istream& stream, RSAKey& key) {
  key.read_pem(stream);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const RSAKey& key) {
  key.write_pem(stream);
  return stream;
}

}  // namespace Korvix::Crypto
