#include "encryption/key_list.h"

#include <cstring>

#include "encryption/atom_reader.h"
#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/string_writer.h"
#include "transport/section_reader.h"
#include "transport/section_writer.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {

namespace {

// table_id to last_section_number, before the atoms.
constexpr size_t SECTION_HEADER_SIZE = 8;
constexpr size_t CRC_SIZE = 4;
constexpr size_t TYPE_BYTES = 3;  // "ENCT" and "KEYE"

std::vector<unsigned char> text_bytes(const std::string& text) {
  return std::vector<unsigned char>(text.begin(), text.end());
}

// Appended piece by piece: gcc 12 at -O3 takes "\"" + text for an overlapping copy.
std::string quoted(const std::string& name) {
  std::string text(1, '"');
  text += printable_bytes(name);
  text += '"';
  return text;
}

std::string hex_byte(unsigned int value) {
  static constexpr char DIGITS[] = "0123456789ABCDEF";
  return std::string{DIGITS[(value >> 4) & 0x0F], DIGITS[value & 0x0F]};
}

std::string hex_bytes(const std::vector<unsigned char>& bytes) {
  std::string text;
  for (unsigned char byte : bytes) {
    if (!text.empty()) text += ' ';
    text += hex_byte(byte);
  }
  return text;
}

// The next child of a container, which must be of the given name and, unless size is 0, hold
// exactly size data bytes.
const Atom* expect(const Atom& parent, size_t& next, const std::string& name, size_t size,
                   std::string& error, const std::string& context) {
  if (next >= parent.children.size()) {
    error = context + quoted(parent.name) + " ends where " + quoted(name) + " belongs";
    return nullptr;
  }
  const Atom& child = parent.children[next];
  if (child.name != name) {
    error = context + quoted(parent.name) + " holds " + quoted(child.name) + " where " +
            quoted(name) + " belongs";
    return nullptr;
  }
  if (size != 0 && child.data.size() != size) {
    error = context + quoted(name) + " has " + std::to_string(child.data.size()) +
            " data bytes, not " + std::to_string(size);
    return nullptr;
  }
  next++;
  return &child;
}

// "AES-128" from a family and a size code; empty when the bytes don't say.
std::string named_type(const std::vector<unsigned char>& bytes) {
  if (bytes.size() != TYPE_BYTES || bytes[2] != 0 || bytes[1] >= 32) return "";
  const char* family = bytes[0] == 0 ? "AES" : bytes[0] == 1 ? "RSA" : nullptr;
  if (family == nullptr) return "";
  return std::string(family) + "-" + std::to_string(uint64_t{1} << bytes[1]);
}

}  // namespace

AtomFormats key_list_formats() {
  return {{"VDKL", atom_container}, {"VERS", atom_data}, {"ENCT", atom_data},
          {"KEYR", atom_container}, {"PKCN", atom_data}, {"KEYE", atom_data},
          {"EKEY", atom_data}};
}

unsigned char modulus_size_code(int32_t cipher_size) {
  if (cipher_size <= 0) return 0xFF;
  uint64_t bits = 8 * static_cast<uint64_t>(cipher_size);
  unsigned char halvings = 0;
  while (bits > 1) {
    bits /= 2;
    halvings++;
  }
  return halvings;
}

std::vector<unsigned char> make_key_list(const Korvix::Crypto::AESKey& key,
                                         const std::vector<Korvix::Crypto::Certificate>& certificates) {
  Atom root("VDKL");
  root.children.emplace_back("VERS", std::vector<unsigned char>{0x00, 0x01});
  root.children.emplace_back("ENCT", std::vector<unsigned char>(std::begin(CONTENT_CIPHER_AES_128),
                                                                std::end(CONTENT_CIPHER_AES_128)));

  unsigned char raw_key[CONTENT_KEY_SIZE] = {};
  try {
    Korvix::Channel::BlockWriter key_writer(raw_key, sizeof raw_key);
    key.write(key_writer);
  } catch (const Korvix::Channel::Error&) {
    // A key of more than 128 bits fills the 16 bytes and stops there.
  }

  for (const Korvix::Crypto::Certificate& certificate : certificates) {
    Korvix::Crypto::RSAKey rsa;
    if (!certificate.get_rsa_key(rsa)) continue;
    const int32_t cipher_size = rsa.cipher_size();
    std::vector<unsigned char> wrapped(1 + static_cast<size_t>(cipher_size > 0 ? cipher_size : 0), 0);
    // A failure leaves the wrapped key all zero, and it goes into the list as it is.
    rsa.encrypt(raw_key, static_cast<int32_t>(sizeof raw_key), wrapped.data() + 1);

    Atom recipient("KEYR");
    recipient.children.emplace_back("PKCN", text_bytes(certificate.get_cn()));
    recipient.children.emplace_back(
        "KEYE", std::vector<unsigned char>{KEY_WRAPPING_RSA, modulus_size_code(cipher_size), 0x00});
    recipient.children.emplace_back("EKEY", std::move(wrapped));
    root.children.push_back(recipient);
  }

  std::vector<unsigned char> atoms(static_cast<size_t>(root.size()));
  Korvix::Channel::BlockWriter atom_writer(atoms.data(), atoms.size());
  const AtomFormats formats = key_list_formats();
  AtomWriter(atom_writer, formats).write(root);

  RawSection raw;
  raw.table_id = KEY_LIST_TABLE_ID;
  raw.version = 0;
  raw.current_next = false;
  raw.section_number = 0;
  raw.last_section_number = 0;
  raw.data = std::move(atoms);

  std::string section;
  Korvix::Channel::StringWriter section_writer(section);
  // Over the limit of the section writer nothing at all is written, and the list stays empty.
  if (!SectionWriter(section_writer).write(raw)) return {};
  return std::vector<unsigned char>(section.begin(), section.end());
}

bool KeyList::aes_128() const {
  return cipher.size() == TYPE_BYTES &&
         std::memcmp(cipher.data(), CONTENT_CIPHER_AES_128, TYPE_BYTES) == 0;
}

int32_t KeyListReader::read(const unsigned char* data, size_t length, KeyList& list) {
  error.clear();
  Korvix::Channel::BlockReader block(data, length);
  SectionReader reader(block);
  SectionHeader header;
  const int32_t status = reader.read_section(header);
  if (status == SECTION_INCOMPLETE) return status;
  const std::vector<unsigned char>& section = reader.data;
  if (status == SECTION_BAD) {
    // The reader stops after the first three bytes when the length is out of range.
    if (section.size() <= 3) {
      const unsigned int section_length =
          section.size() == 3 ? ((section[1] & 0x0Fu) << 8) | section[2] : 0;
      error = "section_length " + std::to_string(section_length) + " is out of range (" +
              std::to_string(SECTION_LENGTH_MIN) + " to " + std::to_string(SECTION_LENGTH_MAX) +
              ")";
    } else {
      error = "the CRC doesn't match the section's bytes";
    }
    return SECTION_BAD;
  }
  if (header.table_id != KEY_LIST_TABLE_ID) {
    error = "table_id 0x" + hex_byte(header.table_id) + " where a key list has 0x" +
            hex_byte(KEY_LIST_TABLE_ID);
    return SECTION_BAD;
  }
  if (section.size() < SECTION_HEADER_SIZE + CRC_SIZE) {
    error = "the section is too short to hold a key list";
    return SECTION_BAD;
  }
  KeyList read;
  if (!read_key_list_atoms(section.data() + SECTION_HEADER_SIZE,
                           section.size() - SECTION_HEADER_SIZE - CRC_SIZE, read, error,
                           SECTION_HEADER_SIZE))
    return SECTION_BAD;
  list = std::move(read);
  return SECTION_GOOD;
}

bool read_key_list_atoms(const unsigned char* data, size_t length, KeyList& list,
                         std::string& error, uint64_t first_byte) {
  const AtomFormats formats = key_list_formats();
  AtomReader reader(formats);
  std::vector<Atom> atoms;
  if (!reader.read(data, length, atoms, first_byte)) {
    error = reader.error;
    return false;
  }
  if (atoms.empty()) {
    error = "there are no atoms";
    return false;
  }
  if (atoms[0].name != "VDKL") {
    error = "the first atom is " + quoted(atoms[0].name) + ", not \"VDKL\"";
    return false;
  }
  if (atoms.size() > 1) {
    error = quoted(atoms[1].name) + " stands behind \"VDKL\"";
    return false;
  }

  const Atom& root = atoms[0];
  size_t next = 0;
  const Atom* version = expect(root, next, "VERS", 2, error, "");
  if (version == nullptr) return false;
  list.version = static_cast<uint16_t>((version->data[0] << 8) | version->data[1]);
  if (list.version != KEY_LIST_VERSION) {
    error = "it is of version " + std::to_string(list.version) + "; version " +
            std::to_string(KEY_LIST_VERSION) + " is the one known";
    return false;
  }
  const Atom* cipher = expect(root, next, "ENCT", TYPE_BYTES, error, "");
  if (cipher == nullptr) return false;
  list.cipher = cipher->data;

  list.recipients.clear();
  for (; next < root.children.size(); next++) {
    const Atom& entry = root.children[next];
    const std::string context = "recipient " + std::to_string(list.recipients.size() + 1) + ": ";
    if (entry.name != "KEYR") {
      error = "\"VDKL\" holds " + quoted(entry.name) + " where only \"KEYR\" may follow";
      return false;
    }
    size_t field = 0;
    const Atom* name = expect(entry, field, "PKCN", 0, error, context);
    if (name == nullptr) return false;
    const Atom* key_type = expect(entry, field, "KEYE", TYPE_BYTES, error, context);
    if (key_type == nullptr) return false;
    const Atom* wrapped = expect(entry, field, "EKEY", 0, error, context);
    if (wrapped == nullptr) return false;
    if (field < entry.children.size()) {
      error = context + "\"KEYR\" holds " + quoted(entry.children[field].name) +
              " behind \"EKEY\"";
      return false;
    }
    if (wrapped->data.empty() || wrapped->data[0] != 0) {
      error = context + "\"EKEY\" doesn't start with a zero byte";
      return false;
    }
    KeyListRecipient recipient;
    recipient.name.assign(name->data.begin(), name->data.end());
    recipient.key_type = key_type->data;
    recipient.wrapped_key.assign(wrapped->data.begin() + 1, wrapped->data.end());
    list.recipients.push_back(std::move(recipient));
  }
  return true;
}

UnwrapResult unwrap_content_key(const KeyList& list, const Korvix::Crypto::RSAKey& private_key,
                                const std::optional<std::string>& name,
                                Korvix::Crypto::AESKey& key, size_t& recipient) {
  if (list.recipients.empty()) return NO_RECIPIENTS;
  const int32_t cipher_size = private_key.cipher_size();
  std::vector<unsigned char> plain(static_cast<size_t>(cipher_size > 0 ? cipher_size : 0));
  bool named = false;
  for (size_t i = 0; i < list.recipients.size(); i++) {
    const KeyListRecipient& candidate = list.recipients[i];
    if (name && candidate.name != *name) continue;
    named = true;
    if (candidate.key_type.empty() || candidate.key_type[0] != KEY_WRAPPING_RSA) continue;
    if (cipher_size <= 0 || candidate.wrapped_key.size() != static_cast<size_t>(cipher_size))
      continue;
    if (private_key.decrypt(candidate.wrapped_key.data(), plain.data()) !=
        static_cast<int32_t>(CONTENT_KEY_SIZE))
      continue;
    key.bits = 8 * static_cast<int32_t>(CONTENT_KEY_SIZE);
    key.set_key_bytes(plain.data());
    recipient = i;
    return UNWRAPPED;
  }
  return name && !named ? NO_RECIPIENT_NAMED : NOT_UNWRAPPED;
}

std::string describe_content_cipher(const std::vector<unsigned char>& cipher) {
  const std::string named = named_type(cipher);
  return named.empty() ? "unknown (" + hex_bytes(cipher) + ")" : named;
}

std::string describe_key_type(const std::vector<unsigned char>& key_type) {
  if (key_type.size() == TYPE_BYTES && key_type[0] == KEY_WRAPPING_RSA && key_type[1] == 0xFF &&
      key_type[2] == 0)
    return "RSA of unknown size";
  const std::string named = named_type(key_type);
  return named.empty() ? "unknown (" + hex_bytes(key_type) + ")" : named;
}

void list_key_list(std::ostream& out, const KeyList& list) {
  out << "Key list version " << list.version << "\n";
  out << "Content cipher: " << describe_content_cipher(list.cipher) << "\n";
  if (list.recipients.empty()) {
    out << "Recipients: none\n";
    return;
  }
  out << "Recipients: " << list.recipients.size() << "\n";
  for (size_t i = 0; i < list.recipients.size(); i++) {
    const KeyListRecipient& recipient = list.recipients[i];
    out << "  " << i + 1 << ". " << quoted(recipient.name) << ": "
        << describe_key_type(recipient.key_type) << " key, content key wrapped in "
        << recipient.wrapped_key.size() << " bytes\n";
  }
}

}  // namespace Veldrin::IndexGen
