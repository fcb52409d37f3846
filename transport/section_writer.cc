#include "transport/section_writer.h"

#include "crypto/crc.h"
#include "foundation/channel/block_writer.h"

namespace Veldrin::IndexGen {

namespace {

// Bytes before the body: table_id, section_length, table_id_extension, version,
// section_number and last_section_number.
constexpr size_t SECTION_HEADER_SIZE = 8;

size_t descriptors_size(const std::list<Descriptor>& descriptors) {
  size_t size = 0;
  for (const Descriptor& descriptor : descriptors) size += 2 + descriptor.data.size();
  return size;
}

template <typename Section>
std::vector<unsigned char> write_into_buffer(const Section& section) {
  std::vector<unsigned char> bytes(SECTION_BUFFER_SIZE);
  Korvix::Channel::BlockWriter block(bytes.data(), bytes.size());
  SectionWriter writer(block);
  writer.write(section);
  bytes.resize(static_cast<size_t>(block.offset));
  return bytes;
}

}  // namespace

bool SectionWriter::write_section(const SectionHeader& header) {
  if (data.size() > SECTION_WRITE_LIMIT) return false;
  // Too short to hold the common fields: nothing is written.
  if (data.size() < SECTION_HEADER_SIZE) return false;
  try {
    writer.write_byte(0);  // pointer_field
    size_t length = data.size() + 1;
    data[0] = header.table_id;
    data[1] = static_cast<unsigned char>(0xB0 | ((length >> 8) & 0x0F));
    data[2] = static_cast<unsigned char>(length & 0xFF);
    // version isn't masked: a spill lands in the reserved bits, which are ones already.
    data[5] = static_cast<unsigned char>(0xC0 | (header.current_next ? 1 : 0) |
                                         (static_cast<uint32_t>(header.version) << 1));
    data[6] = header.section_number;
    data[7] = header.last_section_number;
    writer.write(data.data(), data.size());
    Korvix::Crypto::CRC crc(0, false, false);
    writer.write_nbo_32(crc.calculate(data.data(), data.size()));
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

bool SectionWriter::write(const PATSection& pat) {
  data.assign(SECTION_HEADER_SIZE + 4 * pat.programs.size(), 0);
  Korvix::Channel::BlockWriter body(data.data(), data.size());
  body.skip(3);
  body.write_nbo_16(pat.id);
  body.skip(3);
  for (const auto& [program, pid] : pat.programs) {
    body.write_nbo_16(program);
    body.write_byte((pid >> 8) | 0xE0);
    body.write_byte(pid & 0xFF);
  }
  return write_section(pat);
}

bool SectionWriter::write(const PMTSection& pmt) {
  size_t program_info_length = descriptors_size(pmt.descriptors);
  size_t total = 12 + program_info_length;
  for (const PMTStream& stream : pmt.streams) total += 5 + descriptors_size(stream.descriptors);
  data.assign(total & 0xFFFF, 0);
  // A section beyond 16 bits of length can't be built in its cut size, and is far beyond what
  // write_section sends anyway.
  if (total > 0xFFFF) return false;

  Korvix::Channel::BlockWriter head(data.data(), data.size());
  head.skip(3);
  head.write_nbo_16(pmt.id);
  head.skip(3);
  head.write_byte((pmt.pcr_pid >> 8) | 0xE0);
  head.write_byte(pmt.pcr_pid & 0xFF);
  head.write_byte(((program_info_length >> 8) | 0xF0) & 0xFF);
  head.write_byte(program_info_length & 0xFF);

  size_t position = 12;
  Korvix::Channel::BlockWriter program_info(data.data() + position, program_info_length);
  for (const Descriptor& descriptor : pmt.descriptors) write_descriptor(program_info, descriptor);
  position += program_info_length;

  for (const PMTStream& stream : pmt.streams) {
    size_t es_info_length = descriptors_size(stream.descriptors);
    Korvix::Channel::BlockWriter entry(data.data() + position, 5);
    entry.write_byte(stream.stream_type);
    entry.write_byte((stream.pid >> 8) | 0xE0);
    entry.write_byte(stream.pid & 0xFF);
    entry.write_byte(((es_info_length >> 8) | 0xF0) & 0xFF);
    entry.write_byte(es_info_length & 0xFF);
    position += 5;
    Korvix::Channel::BlockWriter es_info(data.data() + position, es_info_length);
    for (const Descriptor& descriptor : stream.descriptors) write_descriptor(es_info, descriptor);
    position += es_info_length;
  }
  return write_section(pmt);
}

bool SectionWriter::write(const CATSection& cat) {
  // The size is cut to 16 bits; descriptors beyond the cut size don't fit the block, and their
  // failed writes are not looked at.
  size_t size = descriptors_size(cat.descriptors) & 0xFFFF;
  data.assign(SECTION_HEADER_SIZE + size, 0);
  data[3] = 0xFF;  // reserved table_id_extension, whatever was read
  data[4] = 0xFF;
  Korvix::Channel::BlockWriter body(data.data() + SECTION_HEADER_SIZE, size);
  for (const Descriptor& descriptor : cat.descriptors) write_descriptor(body, descriptor);
  return write_section(cat);
}

bool SectionWriter::write(const RawSection& raw) {
  data.assign(SECTION_HEADER_SIZE + raw.data.size(), 0);
  data[3] = 0xFF;
  data[4] = 0xFF;
  Korvix::Channel::BlockWriter body(data.data() + SECTION_HEADER_SIZE, raw.data.size());
  body.write(raw.data.data(), raw.data.size());
  return write_section(raw);
}

bool SectionWriter::write_descriptor(Korvix::Channel::Writer& target,
                                     const Descriptor& descriptor) {
  try {
    target.write_byte(descriptor.tag);
    target.write_byte(descriptor.data.size() & 0xFF);
    target.write(descriptor.data.data(), descriptor.data.size());
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

std::vector<unsigned char> written_section(const PATSection& pat) {
  return write_into_buffer(pat);
}

std::vector<unsigned char> written_section(const PMTSection& pmt) {
  return write_into_buffer(pmt);
}

std::vector<unsigned char> written_section(const CATSection& cat) {
  return write_into_buffer(cat);
}

std::vector<unsigned char> written_section(const RawSection& raw) {
  return write_into_buffer(raw);
}

}  // namespace Veldrin::IndexGen
