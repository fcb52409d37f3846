#include "crypto/aes.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <sstream>

namespace Korvix::Crypto {

AESKey::AESKey(bool is_key_, int32_t bits_) : bits(bits_), is_key(is_key_) {}

size_t AESKey::byte_count() const {
  if (bits <= 0) return 0;
  return std::min(static_cast<size_t>(bits / 8), MAX_BYTES);
}

void AESKey::read_hex(std::istream& stream) {
  size_t digits = bits <= 0 ? 0 : std::min(static_cast<size_t>(bits / 4), 2 * MAX_BYTES);
  for (size_t i = 0; i < digits; i++) {
    char got;
    if (!stream.get(got)) break;
    unsigned int c = static_cast<unsigned char>(got);
    if (c >= 'a' && c <= 'z') c -= 'a' - 'A';  // toupper of the C locale
    // Modulo 256 throughout: characters below '0' give "negative" digits, as the arithmetic does.
    unsigned int value = c < 65 ? c - 48 : c - 55;
    unsigned char& byte = key[i / 2];
    if (i % 2 == 0)
      byte = static_cast<unsigned char>(value << 4);
    else
      byte = static_cast<unsigned char>(byte + value);
  }
  valid = true;
}

void AESKey::read_hex(const std::string& text) {
  std::istringstream stream(text);
  read_hex(stream);
}

void AESKey::write_hex(std::ostream& stream) const {
  static constexpr char DIGITS[] = "0123456789abcdef";
  char text[2 * MAX_BYTES];
  size_t count = byte_count();
  for (size_t i = 0; i < count; i++) {
    text[2 * i] = DIGITS[key[i] >> 4];
    text[2 * i + 1] = DIGITS[key[i] & 0x0F];
  }
  stream.write(text, static_cast<std::streamsize>(2 * count));
  stream << std::dec;
  stream.fill(' ');
  stream.width(0);
}

std::string AESKey::to_hex() const {
  std::ostringstream stream;
  write_hex(stream);
  return stream.str();
}

void AESKey::get_key_bytes(unsigned char* out) const {
  std::memcpy(out, key, byte_count());
}

void AESKey::set_key_bytes(const unsigned char* in) {
  std::memcpy(key, in, byte_count());
  valid = true;
}

void AESKey::set_random() {
  size_t count = byte_count();
  if (count > 0) RAND_bytes(key, static_cast<int>(count));
  valid = true;
}

void AESKey::read(Korvix::Channel::Reader& reader) {
  reader.read(key, byte_count());
}

void AESKey::write(Korvix::Channel::Writer& writer) const {
  writer.write(key, byte_count());
}

std::istream& operator>>(std::istream& stream, AESKey& key) {
  key.read_hex(stream);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const AESKey& key) {
  key.write_hex(stream);
  return stream;
}

void AESCipher::ContextFree::operator()(evp_cipher_ctx_st* context) const {
  EVP_CIPHER_CTX_free(context);
}

AESCipher::AESCipher() = default;

AESCipher::AESCipher(const AESKey& key_, const AESKey& iv_, bool ctr_)
    : key(key_), iv(iv_), ctr(ctr_) {}

// A copy makes its own context when it first needs one.
AESCipher::AESCipher(const AESCipher& other) : key(other.key), iv(other.iv), ctr(other.ctr) {}

AESCipher& AESCipher::operator=(const AESCipher& other) {
  key = other.key;
  iv = other.iv;
  ctr = other.ctr;
  return *this;
}

AESCipher::~AESCipher() = default;

namespace {

// The cipher of a key length and mode; null for a length AES doesn't have.
const EVP_CIPHER* block_cipher(int32_t bits, bool chained) {
  switch (bits) {
    case 128: {
      // The one a packet cipher asks for at every packet: looked up once.
      static const EVP_CIPHER* const ecb = EVP_aes_128_ecb();
      return chained ? EVP_aes_128_cbc() : ecb;
    }
    case 192:
      return chained ? EVP_aes_192_cbc() : EVP_aes_192_ecb();
    case 256:
      return chained ? EVP_aes_256_cbc() : EVP_aes_256_ecb();
    default:
      return nullptr;
  }
}

}  // namespace

bool AESCipher::encrypt(unsigned char* data, int32_t length, bool encryption) {
  if (ctr) {
    if (key.bits != 128 || !iv.valid) return false;
    // The keystream is enciphered counters, so both directions encipher.
    return run(EVP_aes_128_ctr(), data, std::max(length, 0), true);
  }
  const EVP_CIPHER* cipher = block_cipher(key.bits, iv.valid);
  if (cipher == nullptr) return false;
  // Whole blocks only; no padding is added.
  return run(cipher, data, std::max(length, 0) / 16 * 16, encryption);
}

bool AESCipher::run(const evp_cipher_st* cipher, unsigned char* data, int32_t length,
                    bool encryption) {
  if (!context) {
    context.reset(EVP_CIPHER_CTX_new());
    if (!context) return false;
    context_cipher = nullptr;
  }
  // All the key field is compared and kept, the bytes that count and those that don't: a
  // comparison of known size costs a few instructions at each call, and a change behind the
  // bytes that count only keys the context again.
  const bool keyed = cipher == context_cipher && encryption == context_encryption &&
                     std::memcmp(context_key, key.key, AESKey::MAX_BYTES) == 0;
  const bool chained = iv.valid || ctr;
  if (!keyed) {
    // With the cipher of the last call the context is only keyed again, which allocates nothing.
    const EVP_CIPHER* setup = cipher == context_cipher ? nullptr : cipher;
    context_cipher = nullptr;
    if (EVP_CipherInit_ex(context.get(), setup, nullptr, key.key, chained ? iv.key : nullptr,
                          encryption ? 1 : 0) != 1)
      return false;
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    context_cipher = cipher;
    std::memcpy(context_key, key.key, AESKey::MAX_BYTES);
    context_encryption = encryption;
  } else if (chained) {
    // The same key schedule; only the iv (CBC) or counter (CTR) starts again from the field.
    if (EVP_CipherInit_ex(context.get(), nullptr, nullptr, nullptr, iv.key, encryption ? 1 : 0) !=
        1) {
      context_cipher = nullptr;
      return false;
    }
  }
  if (length == 0) return true;

  int written = 0;
  const int updated = encryption ? EVP_EncryptUpdate(context.get(), data, &written, data, length)
                                 : EVP_DecryptUpdate(context.get(), data, &written, data, length);
  if (updated != 1) {
    context_cipher = nullptr;
    return false;
  }
  if (iv.valid) EVP_CIPHER_CTX_get_updated_iv(context.get(), iv.key, 16);
  return true;
}

}  // namespace Korvix::Crypto
