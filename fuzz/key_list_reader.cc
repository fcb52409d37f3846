// The key list reader of the decryptor: a key list section as it is gathered from its PID, or an
// atom tree that the target wraps in a section with a good CRC (so that the search goes into the
// atoms rather than into CRCs), or the tree read alone. A list read whole is listed, and its
// content key unwrapped with a private key of this process.
//
// Layout of an input:
//   byte 0   value % 3: 0 the section as it stands, pointer_field first; 1 an atom tree to wrap;
//            2 an atom tree read by itself
//   byte 1   bit 0: unwrap for the name of the first recipient rather than for any
//   then     the bytes

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "crypto/aes.h"
#include "crypto/crc.h"
#include "crypto/rsa.h"
#include "encryption/key_list.h"
#include "fuzz/fuzz_support.h"
#include "transport/sections.h"

namespace Crypto = Korvix::Crypto;
namespace Fuzz = Veldrin::Fuzz;
namespace IndexGen = Veldrin::IndexGen;

namespace {

// The section of a key list around an atom tree: pointer_field, table_id 0x4B, the length, the
// table_id_extension 0xFFFF, version 0 with current_next 0, section numbers 0, the tree and the
// CRC.
std::vector<unsigned char> wrap(const unsigned char* atoms, size_t length) {
  const size_t section_length = length + 9;
  std::vector<unsigned char> section = {
      0x00,
      IndexGen::KEY_LIST_TABLE_ID,
      static_cast<unsigned char>(0xB0 | ((section_length >> 8) & 0x0F)),
      static_cast<unsigned char>(section_length & 0xFF),
      0xFF,
      0xFF,
      0xC0,
      0x00,
      0x00};
  section.insert(section.end(), atoms, atoms + length);
  const uint32_t crc = Crypto::CRC(0, false, false).calculate(section.data() + 1, section.size() - 1);
  for (int shift = 24; shift >= 0; shift -= 8) {
    section.push_back(static_cast<unsigned char>((crc >> shift) & 0xFF));
  }
  return section;
}

// What a good key list always is: version 1, three bytes of content cipher, three of key type.
void use(const IndexGen::KeyList& list, bool by_name) {
  if (list.version != IndexGen::KEY_LIST_VERSION || list.cipher.size() != 3) std::abort();
  for (const IndexGen::KeyListRecipient& recipient : list.recipients) {
    if (recipient.key_type.size() != 3) std::abort();
  }
  Fuzz::NullBuffer discard;
  std::ostream out(&discard);
  IndexGen::list_key_list(out, list);
  out << IndexGen::describe_content_cipher(list.cipher) << list.aes_128();

  std::optional<std::string> name;
  if (by_name && !list.recipients.empty()) name = list.recipients.front().name;
  Crypto::AESKey key;
  size_t recipient = 0;
  const IndexGen::UnwrapResult result =
      IndexGen::unwrap_content_key(list, Fuzz::private_key(), name, key, recipient);
  if (result == IndexGen::UNWRAPPED && recipient >= list.recipients.size()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::Choices choices(data, size);
  const uint8_t mode = choices.byte() % 3;
  const bool by_name = (choices.byte() & 1) != 0;
  const unsigned char* rest = choices.rest();
  const size_t rest_size = choices.rest_size();

  IndexGen::KeyList list;
  if (mode == 2) {
    std::string error;
    const bool good = IndexGen::read_key_list_atoms(rest, rest_size, list, error);
    if (good != error.empty()) std::abort();
    if (good) use(list, by_name);
    return 0;
  }
  std::vector<unsigned char> section;
  if (mode == 1) {
    section = wrap(rest, rest_size);
  } else {
    section.assign(rest, rest + rest_size);
  }
  IndexGen::KeyListReader reader;
  const int32_t status = reader.read(section.data(), section.size(), list);
  if (status == IndexGen::SECTION_BAD && reader.error.empty()) std::abort();
  if (status == IndexGen::SECTION_GOOD) use(list, by_name);
  return 0;
}
