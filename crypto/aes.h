#ifndef KORVIX_CRYPTO_AES_H
#define KORVIX_CRYPTO_AES_H

#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "foundation/channel/reader.h"
#include "foundation/channel/writer.h"

struct evp_cipher_ctx_st;
struct evp_cipher_st;

namespace Korvix::Crypto {

// An AES key or initialisation vector: up to 32 bytes, of which bits / 8 count.
class AESKey {
 public:
  static constexpr size_t MAX_BYTES = 32;

  explicit AESKey(bool is_key_ = true, int32_t bits_ = 128);

  // Reads bits / 4 hexadecimal digits with no check of any kind: each character, taken as an
  // unsigned byte and made upper case, counts as its code less 48 below 'A', else less 55. Stops
  // early at the end of the text; the bytes no digit reaches keep what they held. Sets valid.
  void read_hex(std::istream& stream);
  void read_hex(const std::string& text);
  // bits / 8 bytes as lower-case digit pairs; leaves the stream in decimal, fill blank, width 0.
  void write_hex(std::ostream& stream) const;
  std::string to_hex() const;

  void get_key_bytes(unsigned char* out) const;
  void set_key_bytes(const unsigned char* in);
  // Fills the key from the random generator; whether that succeeded isn't looked at.
  void set_random();
  // The raw bytes through a channel; Korvix::Channel::Error passes through. read leaves valid
  // as it is.
  void read(Korvix::Channel::Reader& reader);
  void write(Korvix::Channel::Writer& writer) const;

  // The bytes that count: bits / 8, within 0 and MAX_BYTES whatever bits holds.
  size_t byte_count() const;

  unsigned char key[MAX_BYTES] = {};
  int32_t bits;
  bool is_key;
  bool valid = false;
};

std::istream& operator>>(std::istream& stream, AESKey& key);
std::ostream& operator<<(std::ostream& stream, const AESKey& key);

// Enciphers or deciphers a buffer in place. The mode follows from the fields: ECB without a
// valid iv, CBC with one (the iv moves on, so that successive calls chain), CTR when ctr is set
// (128-bit keys and a valid iv only; each call starts a fresh keystream block).
class AESCipher {
 public:
  AESCipher();
  AESCipher(const AESKey& key_, const AESKey& iv_, bool ctr_ = false);
  AESCipher(const AESCipher& other);
  AESCipher& operator=(const AESCipher& other);
  ~AESCipher();

  // ECB and CBC work on the whole 16-byte blocks of length and leave the bytes behind them
  // alone; a negative length is no data. False when CTR is asked for without a 128-bit key and
  // a valid iv, and when the key's bits are none of 128, 192 and 256: data is then unchanged.
  bool encrypt(unsigned char* data, int32_t length, bool encryption);

  AESKey key;
  AESKey iv{false};
  bool ctr = false;

 private:
  struct ContextFree {
    void operator()(evp_cipher_ctx_st* context) const;
  };

  bool run(const evp_cipher_st* cipher, unsigned char* data, int32_t length, bool encryption);

  // Kept from call to call so that enciphering a packet allocates nothing. The key schedule is
  // kept as well, and made again only when the cipher (key length and mode), the key bytes or the
  // direction differ from the last call: every byte written stays the same, since ECB holds no
  // state and CBC and CTR take the iv afresh at each call.
  std::unique_ptr<evp_cipher_ctx_st, ContextFree> context;
  const evp_cipher_st* context_cipher = nullptr;  // null: not keyed
  unsigned char context_key[AESKey::MAX_BYTES] = {};
  bool context_encryption = false;
};

}  // namespace Korvix::Crypto

#endif
