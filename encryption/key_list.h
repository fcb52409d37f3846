#ifndef VELDRIN_ENCRYPTION_KEY_LIST_H
#define VELDRIN_ENCRYPTION_KEY_LIST_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "crypto/aes.h"
#include "crypto/certificate.h"
#include "crypto/rsa.h"
#include "encryption/atom.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {

// The key list tells a receiver how to get the content key of an encrypted copy: a tree of atoms
// ("VDKL" holding "VERS", "ENCT" and one "KEYR" per recipient with "PKCN", "KEYE", "EKEY") in one
// private section, carried in the stream on the PID that the CA descriptor of the rewritten PMT
// names.
constexpr uint8_t KEY_LIST_TABLE_ID = 0x4B;         // 'K'
constexpr uint16_t KEY_LIST_CA_SYSTEM_ID = 0x4B4C;  // "KL"
constexpr uint8_t KEY_LIST_STREAM_TYPE = 5;         // the stream entry of the key list PID
constexpr uint16_t KEY_LIST_VERSION = 1;
constexpr size_t CONTENT_KEY_SIZE = 16;  // AES-128
// "ENCT": AES (family 0) with a key of 2^7 bits.
constexpr unsigned char CONTENT_CIPHER_AES_128[3] = {0x00, 0x07, 0x00};
// Family byte of "KEYE": the content key is wrapped with RSA.
constexpr unsigned char KEY_WRAPPING_RSA = 0x01;

// The atom types of the key list with the kind under which they are written and read.
AtomFormats key_list_formats();

// The second byte of "KEYE": the floor of log2 of the modulus in bits, 0xFF for no modulus.
unsigned char modulus_size_code(int32_t cipher_size);

// The key list section, pointer_field first, for the 16 bytes of key and, in this order, each
// certificate that holds an RSA key (the others leave no trace). The key is wrapped with
// PKCS#1 v1.5; should that fail, the wrapped key stays all zero. Empty when the section would be
// longer than a section writer writes (a body of more than 1017 bytes).
std::vector<unsigned char> make_key_list(
    const Korvix::Crypto::AESKey& key,
    const std::vector<Korvix::Crypto::Certificate>& certificates);

// One "KEYR" of a key list read back.
struct KeyListRecipient {
  std::string name;                        // "PKCN": the certificate's commonName, may be empty
  std::vector<unsigned char> key_type;     // "KEYE", 3 bytes
  std::vector<unsigned char> wrapped_key;  // "EKEY" behind its leading zero byte
};

// A key list read back.
struct KeyList {
  uint16_t version = 0;               // "VERS"
  std::vector<unsigned char> cipher;  // "ENCT", 3 bytes
  std::vector<KeyListRecipient> recipients;

  bool aes_128() const;
};

// Reads a key list section from the bytes gathered on its PID, pointer_field first. Gives the
// status of the section reader: SECTION_INCOMPLETE while bytes are missing; SECTION_BAD, with the
// reason in error, for a section_length out of range, a CRC that doesn't match, a table_id other
// than 0x4B, or a tree that isn't a key list of version 1 (see read_key_list_atoms); SECTION_GOOD
// with list filled. current_next_indicator is 0 in a key list and isn't looked at.
class KeyListReader {
 public:
  int32_t read(const unsigned char* data, size_t length, KeyList& list);

  std::string error;
};

// Reads the atom tree of a key list: exactly one "VDKL" filling all length bytes, holding "VERS"
// of 2 bytes, "ENCT" of 3 bytes and any number of "KEYR" in that order, each "KEYR" holding
// "PKCN", "KEYE" of 3 bytes and "EKEY" (a zero byte and the wrapped key) in that order. Byte
// positions in error count from first_byte. False with error for anything else, including a
// "VERS" other than 1.
bool read_key_list_atoms(const unsigned char* data, size_t length, KeyList& list,
                         std::string& error, uint64_t first_byte = 0);

// What unwrapping the content key came to.
enum UnwrapResult {
  UNWRAPPED,           // key holds the content key; recipient is its index
  NO_RECIPIENTS,       // the list has no "KEYR"
  NO_RECIPIENT_NAMED,  // no "KEYR" has the name asked for
  NOT_UNWRAPPED,       // the private key unwraps none of the recipients tried
};

// Unwraps the content key with a private RSA key: from the recipients of the given name in list
// order, or from every recipient in turn without a name, until one gives exactly 16 bytes. A
// recipient whose wrapped key isn't as long as the private key's modulus is passed over.
UnwrapResult unwrap_content_key(const KeyList& list, const Korvix::Crypto::RSAKey& private_key,
                                const std::optional<std::string>& name, Korvix::Crypto::AESKey& key,
                                size_t& recipient);

// "AES-128" for 00 07 00, else a description of the three bytes.
std::string describe_content_cipher(const std::vector<unsigned char>& cipher);
// "RSA-2048" for 01 0B 00, else a description of the three bytes.
std::string describe_key_type(const std::vector<unsigned char>& key_type);

// The key list as text, one line per fact: version, content cipher, the recipients with their
// names, key types and wrapped key sizes.
void list_key_list(std::ostream& out, const KeyList& list);

}  // namespace Veldrin::IndexGen

#endif
