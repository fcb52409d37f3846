#ifndef VDX_TESTS_INDEXGEN_STREAM_BUILDER_H
#define VDX_TESTS_INDEXGEN_STREAM_BUILDER_H

// Small synthetic streams for the indexer's tests: tables, PES headers and 188-byte packets,
// written out bit by bit from the MPEG-2 systems layout.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "transport/packet.h"
#include "transport/test_bytes.h"

namespace VdxTest {

inline Bytes be16(uint64_t value) {
  return Bytes{static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
}

inline Bytes repeat(unsigned char value, size_t count) {
  return Bytes(count, value);
}

inline std::string as_string(const Bytes& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

inline Bytes as_bytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

// Eight bytes of section header: table_id, syntax bit and length, extension, version, numbers.
// The length counts the body given plus the CRC.
inline Bytes section_head(unsigned char table_id, uint32_t extension, uint32_t version,
                          bool current_next, size_t body_size) {
  uint32_t length = static_cast<uint32_t>(5 + body_size + 4);
  return concat({Bytes{table_id, static_cast<unsigned char>(0xB0 | (length >> 8)),
                       static_cast<unsigned char>(length)},
                 be16(extension),
                 Bytes{static_cast<unsigned char>(0xC0 | (version << 1) | (current_next ? 1 : 0)),
                       0x00, 0x00}});
}

// A section with pointer_field 0 in front and its CRC behind.
inline Bytes with_pointer(const Bytes& section) {
  return concat({Bytes{0x00}, with_crc(section)});
}

inline Bytes pat_section(uint32_t transport_stream_id,
                         const std::vector<std::pair<uint32_t, uint32_t>>& programs,
                         uint32_t version = 0, bool current_next = true) {
  Bytes body;
  for (const auto& [number, pid] : programs) {
    body = concat({body, be16(number), be16(0xE000 | pid)});
  }
  return concat(
      {section_head(0x00, transport_stream_id, version, current_next, body.size()), body});
}

inline Bytes descriptor(unsigned char tag, const Bytes& data) {
  return concat({Bytes{tag, static_cast<unsigned char>(data.size())}, data});
}

struct Stream {
  unsigned char type;
  uint32_t pid;
  Bytes descriptors;
};

inline Bytes pmt_section(uint32_t program_number, uint32_t pcr_pid, const Bytes& program_info,
                         const std::vector<Stream>& streams, uint32_t version = 0,
                         bool current_next = true) {
  Bytes body = concat({be16(0xE000 | pcr_pid), be16(0xF000 | program_info.size()), program_info});
  for (const Stream& stream : streams) {
    body = concat({body, Bytes{stream.type}, be16(0xE000 | stream.pid),
                   be16(0xF000 | stream.descriptors.size()), stream.descriptors});
  }
  return concat({section_head(0x02, program_number, version, current_next, body.size()), body});
}

inline Bytes cat_section(const Bytes& descriptors, uint32_t version = 0, bool current_next = true) {
  return concat(
      {section_head(0x01, 0xFFFF, version, current_next, descriptors.size()), descriptors});
}

// The five bytes of a time stamp in 90 kHz ticks, with the given four-bit prefix.
inline Bytes time_stamp(unsigned prefix, uint64_t ticks) {
  return Bytes{static_cast<unsigned char>((prefix << 4) | ((ticks >> 29) & 0x0E) | 1),
               static_cast<unsigned char>(ticks >> 22),
               static_cast<unsigned char>(((ticks >> 14) & 0xFE) | 1),
               static_cast<unsigned char>(ticks >> 7),
               static_cast<unsigned char>(((ticks << 1) & 0xFE) | 1)};
}

// A video PES header (stream_id 0xE0) with optional PTS and DTS in ticks (negative: absent),
// extra stuffing bytes, and the given PES_packet_length.
inline Bytes pes_header(uint32_t packet_length, int64_t pts, int64_t dts = -1, size_t stuffing = 0,
                        unsigned char stream_id = 0xE0) {
  Bytes stamps;
  unsigned char flags = 0;
  if (pts >= 0 && dts >= 0) {
    flags = 0xC0;
    stamps = concat(
        {time_stamp(3, static_cast<uint64_t>(pts)), time_stamp(1, static_cast<uint64_t>(dts))});
  } else if (pts >= 0) {
    flags = 0x80;
    stamps = time_stamp(2, static_cast<uint64_t>(pts));
  }
  return concat({Bytes{0x00, 0x00, 0x01, stream_id}, be16(packet_length), Bytes{0x80, flags},
                 Bytes{static_cast<unsigned char>(stamps.size() + stuffing)}, stamps,
                 repeat(0xFF, stuffing)});
}

// Header options of a transport packet.
struct PacketOptions {
  bool payload_unit_start = false;
  bool discontinuity = false;
  bool random_access = false;
  int scrambling = 0;
  int64_t pcr_27mhz = -1;  // negative: no PCR
};

// One 188-byte packet with the payload given; whatever room is left goes to an adaptation field
// of stuffing. A field is present whenever flags, a PCR or stuffing need it.
inline Bytes ts_packet(uint32_t pid, unsigned continuity, const Bytes& payload,
                       const PacketOptions& options = {}) {
  Bytes adaptation;
  unsigned char flags = (options.discontinuity ? 0x80 : 0) | (options.random_access ? 0x40 : 0) |
                        (options.pcr_27mhz >= 0 ? 0x10 : 0);
  bool needed = flags != 0 || payload.size() < 184;
  if (needed) {
    Bytes field;
    if (flags != 0 || payload.size() <= 182) field.push_back(flags);
    if (options.pcr_27mhz >= 0) {
      uint64_t base = static_cast<uint64_t>(options.pcr_27mhz) / 300;
      uint64_t extension = static_cast<uint64_t>(options.pcr_27mhz) % 300;
      field = concat(
          {field,
           Bytes{static_cast<unsigned char>(base >> 25), static_cast<unsigned char>(base >> 17),
                 static_cast<unsigned char>(base >> 9), static_cast<unsigned char>(base >> 1),
                 static_cast<unsigned char>(((base & 1) << 7) | 0x7E | (extension >> 8)),
                 static_cast<unsigned char>(extension)}});
    }
    size_t room = 184 - 1 - payload.size();
    if (field.size() < room) field = concat({field, repeat(0xFF, room - field.size())});
    adaptation = concat({Bytes{static_cast<unsigned char>(field.size())}, field});
  }
  unsigned char control = static_cast<unsigned char>(
      (static_cast<unsigned>(options.scrambling) << 6) | (needed ? 0x20u : 0u) |
      (payload.empty() ? 0u : 0x10u) | (payload.empty() ? 0 : (continuity & 0x0F)));
  Bytes out = concat({Bytes{0x47}, be16((options.payload_unit_start ? 0x4000 : 0) | pid),
                      Bytes{control}, adaptation, payload});
  return out;
}

// The record a packet reader makes of such a packet.
inline Veldrin::IndexGen::TSPacket packet_record(uint32_t pid, unsigned continuity,
                                                 const Bytes& payload, uint64_t offset,
                                                 const PacketOptions& options = {}) {
  Veldrin::IndexGen::TSPacket packet;
  packet.pid = static_cast<uint16_t>(pid);
  packet.payload_unit_start = options.payload_unit_start;
  packet.discontinuity = options.discontinuity;
  packet.random_access = options.random_access;
  packet.scrambling_control = options.scrambling;
  packet.pcr = options.pcr_27mhz >= 0 ? static_cast<double>(options.pcr_27mhz) / 27000000.0 : -1.0;
  packet.continuity_counter = static_cast<int32_t>(continuity);
  packet.payload = payload;
  packet.offset = offset;
  return packet;
}

}  // namespace VdxTest

#endif
