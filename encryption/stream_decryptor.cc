#include "encryption/stream_decryptor.h"

#include <algorithm>
#include <cstring>

#include "encryption/atom_reader.h"
#include "encryption/packet_cipher.h"
#include "foundation/channel/block_reader.h"
#include "foundation/channel/error.h"
#include "transport/section_reader.h"
#include "transport/sections.h"
#include "transport/ts_reader.h"

namespace Veldrin::IndexGen {

namespace {

constexpr uint8_t PAT_TABLE_ID = 0x00;
constexpr uint8_t PMT_TABLE_ID = 0x02;
constexpr auto MAX_PAYLOAD = static_cast<size_t>(TS_PAYLOAD_MAX);
constexpr size_t AES_BLOCK = 16;
constexpr size_t SCRAMBLING_BYTE = 3;  // the byte of the header with the scrambling bits
constexpr unsigned char SCRAMBLING_BITS = 0xC0;
constexpr size_t CA_DESCRIPTOR_SIZE = 4;  // CA_system_ID and CA_PID

constexpr auto PACKET = static_cast<size_t>(TS_PACKET_SIZE);

// The gathering rule of the section reader, with one addition: an empty buffer starts only at a
// packet that starts a unit, since anything else is the tail of a section whose head was missed.
bool gather(std::vector<unsigned char>& data, const TSPacket& header, const unsigned char* payload,
            size_t length) {
  if (data.empty() && !header.payload_unit_start) return false;
  data.insert(data.end(), payload, payload + length);
  return true;
}

std::string names_of(const KeyList& list) {
  std::string names;
  for (const KeyListRecipient& recipient : list.recipients) {
    if (!names.empty()) names += ", ";
    // Appended piece by piece: gcc 12 at -O3 takes "\"" + text for an overlapping copy.
    names += '"';
    names += printable_bytes(recipient.name);
    names += '"';
  }
  return names;
}

}  // namespace

StreamDecryptor::StreamDecryptor() : mode(LIST_ONLY) {}

StreamDecryptor::StreamDecryptor(const Korvix::Crypto::RSAKey& private_key_,
                                 std::optional<std::string> name, Korvix::Channel::Writer& output_)
    : mode(PRIVATE_KEY),
      output(&output_),
      private_key(private_key_),
      recipient_name(std::move(name)) {}

StreamDecryptor::StreamDecryptor(const Korvix::Crypto::AESKey& content_key,
                                 Korvix::Channel::Writer& output_)
    : mode(CONTENT_KEY), output(&output_) {
  cipher.key = content_key;
  key_known = true;
}

bool StreamDecryptor::fail(DecryptStatus failure, std::string text) {
  if (!failed()) {
    status = failure;
    message = std::move(text);
  }
  return false;
}

bool StreamDecryptor::feed(unsigned char* data, size_t length) {
  if (failed() || done) return false;
  size_t at = 0;
  if (partial_length > 0) {
    const size_t count = std::min(PACKET - partial_length, length);
    if (count > 0) std::memcpy(partial + partial_length, data, count);
    partial_length += count;
    at = count;
    if (partial_length < PACKET) return true;
    partial_length = 0;
    bool pass = false;
    if (!take(partial, packets * PACKET, pass)) return false;
    if (pass && !write(partial, PACKET)) return false;
  }

  // Packets that pass in place go out in one write per run.
  size_t run = at;
  for (; length - at >= PACKET; at += PACKET) {
    bool pass = false;
    if (!take(data + at, packets * PACKET, pass)) return false;
    if (!pass) {
      if (!write(data + run, at - run)) return false;
      run = at + PACKET;
    }
  }
  if (!write(data + run, at - run)) return false;

  partial_length = length - at;
  // No bytes may come with no buffer at all.
  if (partial_length > 0) std::memcpy(partial, data + at, partial_length);
  return true;
}

bool StreamDecryptor::finish() {
  if (failed()) return false;
  if (done) return true;
  if (partial_length > 0)
    return fail(DECRYPT_BAD_STREAM, "cut short: the last packet, at byte " +
                                        std::to_string(packets * PACKET) + ", has " +
                                        std::to_string(partial_length) + " of its " +
                                        std::to_string(PACKET) + " bytes");
  if (!key_known) {
    fail_without_key_list(false);
    return false;
  }
  if (mode == CONTENT_KEY && deciphered > 0 && !key_checked)
    warning = "the key could not be checked: no enciphered packet starts a PES packet";
  return true;
}

StreamDecryptor::Header StreamDecryptor::parse(const unsigned char* packet) const {
  Header header;
  Korvix::Channel::BlockReader block(packet, PACKET);
  TSReader reader(block);
  if (!reader.read_header(header.packet, header.payload_length)) return header;
  if (header.payload_length < 0 || static_cast<size_t>(header.payload_length) > MAX_PAYLOAD)
    return header;
  header.usable = true;
  header.payload_at = PACKET - static_cast<size_t>(header.payload_length);
  return header;
}

bool StreamDecryptor::take(unsigned char* packet, uint64_t position, bool& pass) {
  packets++;
  if (packet[0] != TS_SYNC_BYTE)
    return fail(DECRYPT_BAD_STREAM, "no sync byte (0x47) at byte " + std::to_string(position) +
                                        ": not a stream of " + std::to_string(PACKET) +
                                        "-byte transport packets");
  if (key_known) {
    pass = true;
    return decipher(packet, position);
  }

  held.insert(held.end(), packet, packet + PACKET);
  observe_tables(parse(packet), packet);
  if (failed() || done) return false;
  if (key_known) return release_held();
  if (held.size() >= hold_limit) {
    fail_without_key_list(true);
    return false;
  }
  return true;
}

bool StreamDecryptor::decipher(unsigned char* packet, uint64_t position) {
  if ((packet[SCRAMBLING_BYTE] >> 6) != SCRAMBLING_CONTROL_ENCRYPTED) return true;
  const Header header = parse(packet);
  // Without a payload that can be found, the packet stays as it is.
  if (!header.usable) return true;
  unsigned char* payload = packet + header.payload_at;
  const size_t whole = static_cast<size_t>(header.payload_length) / AES_BLOCK * AES_BLOCK;
  cipher.encrypt(payload, static_cast<int32_t>(whole), false);
  packet[SCRAMBLING_BYTE] &= static_cast<unsigned char>(~SCRAMBLING_BITS);
  deciphered++;

  if (!key_checked && header.packet.payload_unit_start && whole >= AES_BLOCK) {
    if (payload[0] != 0x00 || payload[1] != 0x00 || payload[2] != 0x01)
      return fail(DECRYPT_WRONG_KEY,
                  "wrong key: the enciphered packet at byte " + std::to_string(position) +
                      " (PID " + std::to_string(header.packet.pid) +
                      ") starts a PES packet but doesn't decipher to its start code 00 00 01");
    key_checked = true;
  }
  return true;
}

void StreamDecryptor::observe_tables(const Header& header, const unsigned char* packet) {
  // Tables are never enciphered; a scrambled packet on a table PID isn't one of them.
  if (!header.usable || header.packet.scrambling_control != 0) return;
  const uint16_t pid = header.packet.pid;
  if (key_list_pid_known && pid == key_list_pid)
    observe_key_list(header, packet);
  else if (pid == PAT_PID)
    observe_pat(header, packet);
  else if (program_known && pid == pmt_pid)
    observe_pmt(header, packet);
}

void StreamDecryptor::observe_pat(const Header& header, const unsigned char* packet) {
  if (!gather(pat_data, header.packet, packet + header.payload_at,
              static_cast<size_t>(header.payload_length)))
    return;
  Korvix::Channel::BlockReader block(pat_data.data(), pat_data.size());
  SectionReader reader(block);
  PATSection pat;
  const int32_t read = reader.read(pat);
  if (read == SECTION_INCOMPLETE) return;
  pat_data.clear();
  if (read != SECTION_GOOD || pat.table_id != PAT_TABLE_ID || !pat.current_next) return;
  pat_seen = true;
  // The first program: program_number 0 names the network PID, not a program.
  for (const auto& [number, pid] : pat.programs) {
    if (number == 0) continue;
    if (!program_known || number != program_number || pid != pmt_pid) {
      program_number = number;
      pmt_pid = pid;
      program_known = true;
      pmt_data.clear();
    }
    break;
  }
}

void StreamDecryptor::observe_pmt(const Header& header, const unsigned char* packet) {
  if (!gather(pmt_data, header.packet, packet + header.payload_at,
              static_cast<size_t>(header.payload_length)))
    return;
  Korvix::Channel::BlockReader block(pmt_data.data(), pmt_data.size());
  SectionReader reader(block);
  PMTSection pmt;
  const int32_t read = reader.read(pmt);
  if (read == SECTION_INCOMPLETE) return;
  pmt_data.clear();
  if (read != SECTION_GOOD || pmt.table_id != PMT_TABLE_ID || pmt.id != program_number) return;
  pmt_seen = true;
  if (key_list_pid_known) return;
  for (const Descriptor& descriptor : pmt.descriptors) {
    if (descriptor.tag != CA_DESCRIPTOR_TAG || descriptor.data.size() < CA_DESCRIPTOR_SIZE)
      continue;
    const unsigned int system = (unsigned{descriptor.data[0]} << 8) | descriptor.data[1];
    if (system != KEY_LIST_CA_SYSTEM_ID) continue;
    key_list_pid = static_cast<uint16_t>(((descriptor.data[2] & 0x1Fu) << 8) | descriptor.data[3]);
    key_list_pid_known = true;
    break;
  }
  if (!key_list_pid_known) return;

  // The key list may have gone out ahead of the PMT that announces it: look among the held
  // packets too. The packet at hand is a PMT packet, held already.
  for (size_t at = 0; at + PACKET <= held.size(); at += PACKET) {
    if (key_known || done || failed()) return;
    const unsigned char* earlier = held.data() + at;
    const Header seen = parse(earlier);
    if (seen.usable && seen.packet.scrambling_control == 0 && seen.packet.pid == key_list_pid)
      observe_key_list(seen, earlier);
  }
}

void StreamDecryptor::observe_key_list(const Header& header, const unsigned char* packet) {
  if (!gather(key_list_data, header.packet, packet + header.payload_at,
              static_cast<size_t>(header.payload_length)))
    return;
  KeyListReader reader;
  KeyList list;
  const int32_t read = reader.read(key_list_data.data(), key_list_data.size(), list);
  if (read == SECTION_INCOMPLETE) return;
  key_list_data.clear();
  if (read != SECTION_GOOD) {
    // A later copy may be whole; the error stands if none comes.
    key_list_error = reader.error;
    return;
  }
  key_list_read(std::move(list));
}

void StreamDecryptor::key_list_read(KeyList list) {
  key_list = std::move(list);
  if (mode == LIST_ONLY) {
    done = true;
    return;
  }
  const std::string where = "the key list on PID " + std::to_string(key_list_pid);
  if (!key_list->aes_128()) {
    fail(DECRYPT_BAD_KEY_LIST, where + " names the content cipher " +
                                   describe_content_cipher(key_list->cipher) +
                                   "; AES-128 is the one known");
    return;
  }
  Korvix::Crypto::AESKey key;
  size_t index = 0;
  switch (unwrap_content_key(*key_list, private_key, recipient_name, key, index)) {
    case UNWRAPPED:
      cipher.key = key;
      key_known = true;
      recipient = index;
      return;
    case NO_RECIPIENTS:
      fail(DECRYPT_WRONG_KEY, where + " has no recipients: the content key isn't in it");
      return;
    case NO_RECIPIENT_NAMED:
      fail(DECRYPT_WRONG_KEY, "no recipient of " + where + " is named \"" +
                                  printable_bytes(recipient_name.value_or("")) + "\" (it names " +
                                  names_of(*key_list) + ")");
      return;
    case NOT_UNWRAPPED:
      fail(DECRYPT_WRONG_KEY,
           "wrong key: the private key unwraps the content key for no recipient of " + where +
               (recipient_name ? " named \"" + printable_bytes(*recipient_name) + "\""
                               : " (it names " + names_of(*key_list) + ")"));
      return;
  }
}

bool StreamDecryptor::release_held() {
  for (size_t at = 0; at < held.size(); at += PACKET) {
    if (!decipher(held.data() + at, at)) return false;
  }
  if (!write(held.data(), held.size())) return false;
  held.clear();
  held.shrink_to_fit();
  return true;
}

bool StreamDecryptor::write(const unsigned char* data, size_t length) {
  if (output == nullptr || length == 0) return true;
  try {
    output->write(data, length);
    return true;
  } catch (const Korvix::Channel::Error& error) {
    return fail(DECRYPT_FILE_ERROR, "the output can't be written (" + error.text + ")");
  }
}

void StreamDecryptor::fail_without_key_list(bool at_limit) {
  if (!key_list_error.empty()) {
    fail(DECRYPT_BAD_KEY_LIST,
         "damaged key list on PID " + std::to_string(key_list_pid) + ": " + key_list_error);
    return;
  }
  if (!at_limit && !key_list_data.empty()) {
    fail(DECRYPT_BAD_KEY_LIST, "damaged key list on PID " + std::to_string(key_list_pid) +
                                   ": the stream ends inside the section");
    return;
  }
  std::string reason;
  if (!pat_seen)
    reason = "no PAT";
  else if (!program_known)
    reason = "the PAT names no program";
  else if (!pmt_seen)
    reason = "no PMT of program " + std::to_string(program_number) + " on PID " +
             std::to_string(pmt_pid);
  else if (!key_list_pid_known)
    reason = "the PMT of program " + std::to_string(program_number) + " (PID " +
             std::to_string(pmt_pid) + ") has no CA descriptor with CA_system_ID 0x4B4C";
  else
    reason = "no key list section on PID " + std::to_string(key_list_pid);
  fail(DECRYPT_NO_KEY_LIST,
       (at_limit ? "no key list in the first " + std::to_string(held.size()) + " bytes: "
                 : std::string("no key list: ")) +
           reason);
}

}  // namespace Veldrin::IndexGen
