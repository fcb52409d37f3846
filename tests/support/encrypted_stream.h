#ifndef VDX_TESTS_SUPPORT_ENCRYPTED_STREAM_H
#define VDX_TESTS_SUPPORT_ENCRYPTED_STREAM_H

// Synthetic encrypted copies for the tests of the receiving side, built packet by packet in raw
// bytes, beside what deciphering them must give. A target that uses this header links
// vdx_encryption.

#include <cstdint>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "crypto/aes.h"
#include "crypto/certificate.h"
#include "encryption/key_list.h"
#include "foundation/channel/block_writer.h"
#include "transport/section_writer.h"
#include "transport/sections.h"

namespace Veldrin::Testing {

using StreamBytes = std::vector<unsigned char>;

// One transport packet, field by field.
struct RawPacket {
  uint16_t pid = 0;
  bool unit_start = false;
  uint8_t continuity = 0;
  uint8_t scrambling = 0;
  // The adaptation field behind its length byte (flags, PCR, private data ...); whatever room the
  // payload leaves is filled up behind it with 0xFF. A payload shorter than 184 bytes gets a field
  // in any case, of a flags byte 0 and stuffing when this is empty.
  StreamBytes adaptation;
  StreamBytes payload;
};

// The 188 bytes of a packet.
inline std::string raw_packet(const RawPacket& packet) {
  if (packet.payload.size() > 184 || (packet.payload.size() == 184 && !packet.adaptation.empty()))
    throw std::logic_error("payload too long for the packet");
  const bool field = !packet.adaptation.empty() || packet.payload.size() < 184;
  std::string bytes;
  bytes += static_cast<char>(0x47);
  bytes += static_cast<char>((packet.unit_start ? 0x40 : 0) | ((packet.pid >> 8) & 0x1F));
  bytes += static_cast<char>(packet.pid & 0xFF);
  const int control = (field ? 0x20 : 0) | (packet.payload.empty() ? 0 : 0x10);
  bytes += static_cast<char>((packet.scrambling << 6) | control | (packet.continuity & 0x0F));
  if (field) {
    const size_t length = 183 - packet.payload.size();
    if (packet.adaptation.size() > length) throw std::logic_error("adaptation field too long");
    bytes += static_cast<char>(length);
    StreamBytes body = packet.adaptation;
    if (body.empty() && length > 0) body.push_back(0x00);
    body.resize(length, 0xFF);
    bytes.append(body.begin(), body.end());
  }
  bytes.append(packet.payload.begin(), packet.payload.end());
  return bytes;
}

// An adaptation field body with a PCR and, if given, transport private data.
inline StreamBytes pcr_field(uint64_t base, uint16_t extension, const StreamBytes& private_data = {},
                             bool random_access = false) {
  StreamBytes field;
  field.push_back(static_cast<unsigned char>(0x10 | (private_data.empty() ? 0 : 0x02) |
                                             (random_access ? 0x40 : 0)));
  field.push_back(static_cast<unsigned char>(base >> 25));
  field.push_back(static_cast<unsigned char>(base >> 17));
  field.push_back(static_cast<unsigned char>(base >> 9));
  field.push_back(static_cast<unsigned char>(base >> 1));
  field.push_back(static_cast<unsigned char>(((base & 1) << 7) | 0x7E | ((extension >> 8) & 1)));
  field.push_back(static_cast<unsigned char>(extension & 0xFF));
  if (!private_data.empty()) {
    field.push_back(static_cast<unsigned char>(private_data.size()));
    field.insert(field.end(), private_data.begin(), private_data.end());
  }
  return field;
}

// A payload of the given size that starts a PES packet of the stream id, then counts on.
inline StreamBytes pes_payload(size_t size, unsigned char stream_id, unsigned char seed = 0) {
  StreamBytes payload(size);
  for (size_t i = 0; i < size; i++) payload[i] = static_cast<unsigned char>(seed + 7 * i);
  const StreamBytes head = {0x00, 0x00, 0x01, stream_id, 0x00, 0x00, 0x80, 0x00, 0x00};
  for (size_t i = 0; i < head.size() && i < size; i++) payload[i] = head[i];
  return payload;
}

// A payload of the given size that holds no PES start.
inline StreamBytes data_payload(size_t size, unsigned char seed = 0x20) {
  StreamBytes payload(size);
  for (size_t i = 0; i < size; i++) payload[i] = static_cast<unsigned char>(seed + 3 * i + 1);
  return payload;
}

// The bytes a section writer gives for a model, pointer_field first.
template <typename Section>
StreamBytes written_section(const Section& section) {
  StreamBytes buffer(Veldrin::IndexGen::SECTION_BUFFER_SIZE);
  Korvix::Channel::BlockWriter writer(buffer.data(), buffer.size());
  Veldrin::IndexGen::SectionWriter sections(writer);
  if (!sections.write(section)) throw std::logic_error("section not written");
  buffer.resize(static_cast<size_t>(writer.offset));
  return buffer;
}

// A stream as the encrypted copy has it (encrypted) and as deciphering it must give it back
// (expected): packets added as they are stand in both; enciphered packets stand in clear in
// expected, and in encrypted with the whole blocks of their payload enciphered and
// transport_scrambling_control 2.
class EncryptedStream {
 public:
  explicit EncryptedStream(const std::string& key_hex,
                           std::vector<Korvix::Crypto::Certificate> certificates_ = {})
      : certificates(std::move(certificates_)) {
    key.read_hex(key_hex);
    cipher.key = key;
  }

  void add(const RawPacket& packet) {
    const std::string bytes = raw_packet(packet);
    encrypted += bytes;
    expected += bytes;
  }

  void add_enciphered(RawPacket packet) {
    packet.scrambling = 0;
    expected += raw_packet(packet);
    const auto whole = static_cast<int32_t>(packet.payload.size() / 16 * 16);
    cipher.encrypt(packet.payload.data(), whole, true);
    packet.scrambling = 2;
    encrypted += raw_packet(packet);
  }

  void pat(uint16_t program, uint16_t pmt_pid, uint8_t continuity = 0) {
    Veldrin::IndexGen::PATSection section;
    section.id = 1;
    section.current_next = true;
    section.programs[program] = pmt_pid;
    add({0, true, continuity, 0, {}, written_section(section)});
  }

  // The PMT as the encrypted copy rewrites it: the streams given, a CA descriptor for the key
  // list PID at program level, and the stream entry of type 5 for it.
  void pmt(uint16_t program, uint16_t pmt_pid, const std::vector<std::pair<uint8_t, uint16_t>>& streams,
           uint16_t key_list_pid, uint8_t continuity = 0, bool with_ca = true) {
    Veldrin::IndexGen::PMTSection section;
    section.table_id = 2;
    section.id = program;
    section.current_next = true;
    section.pcr_pid = streams.empty() ? 0x1FFF : streams.front().second;
    for (const auto& [type, pid] : streams) {
      Veldrin::IndexGen::PMTStream stream;
      stream.stream_type = type;
      stream.pid = pid;
      section.streams.push_back(stream);
    }
    if (with_ca) {
      Veldrin::IndexGen::Descriptor ca;
      ca.tag = Veldrin::IndexGen::CA_DESCRIPTOR_TAG;
      ca.data = {0x4B, 0x4C, static_cast<unsigned char>(0xE0 | (key_list_pid >> 8)),
                 static_cast<unsigned char>(key_list_pid & 0xFF)};
      section.descriptors.push_back(ca);
      Veldrin::IndexGen::PMTStream entry;
      entry.stream_type = Veldrin::IndexGen::KEY_LIST_STREAM_TYPE;
      entry.pid = key_list_pid;
      section.streams.push_back(entry);
    }
    add({pmt_pid, true, continuity, 0, {}, written_section(section)});
  }

  // The key list of the key and certificates, or the block given, in packets of continuity
  // counter 0, only the first with payload_unit_start.
  void key_list(uint16_t pid, const StreamBytes& block) {
    for (size_t at = 0; at < block.size(); at += 184) {
      const size_t count = std::min<size_t>(184, block.size() - at);
      RawPacket packet{pid, at == 0, 0, 0, {}, {}};
      packet.payload.assign(block.begin() + static_cast<long>(at),
                            block.begin() + static_cast<long>(at + count));
      add(packet);
    }
  }
  void key_list(uint16_t pid) { key_list(pid, list()); }

  StreamBytes list() const { return Veldrin::IndexGen::make_key_list(key, certificates); }

  Korvix::Crypto::AESKey key;
  Korvix::Crypto::AESCipher cipher;
  std::vector<Korvix::Crypto::Certificate> certificates;
  std::string encrypted;
  std::string expected;
};

}  // namespace Veldrin::Testing

#endif
