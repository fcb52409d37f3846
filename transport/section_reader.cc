#include "transport/section_reader.h"

#include "crypto/crc.h"
#include "foundation/channel/block_reader.h"

namespace Veldrin::IndexGen {

namespace {

constexpr size_t CRC_SIZE = 4;
// table_id and the two bytes that hold section_length.
constexpr size_t SECTION_HEAD_SIZE = 3;

uint32_t word_at(const std::vector<unsigned char>& data, size_t position) {
  return (static_cast<uint32_t>(data[position]) << 8) | data[position + 1];
}

void read_descriptors(SectionReader& reader, const unsigned char* start, size_t length,
                      std::list<Descriptor>& descriptors) {
  Korvix::Channel::BlockReader block(start, length);
  // A loop that ends where its bytes do is the usual case, and needs no failed read to say so;
  // a descriptor cut short still ends it through the read that fails.
  while (block.offset < block.length) {
    Descriptor descriptor;
    if (!reader.read_descriptor(block, descriptor)) return;
    descriptors.push_back(std::move(descriptor));
  }
}

}  // namespace

SectionStatus SectionReader::read_section(SectionHeader& header) {
  try {
    uint8_t pointer_field = reader.read_byte();
    reader.read(nullptr, pointer_field);

    data.resize(SECTION_HEAD_SIZE);
    reader.read(data.data(), SECTION_HEAD_SIZE);
    header.table_id = data[0];
    uint32_t length = word_at(data, 1) & 0x0FFF;
    if (length < SECTION_LENGTH_MIN || length > SECTION_LENGTH_MAX) return SECTION_BAD;

    data.resize(SECTION_HEAD_SIZE + length);
    reader.read(data.data() + SECTION_HEAD_SIZE, length);

    size_t body = data.size() - CRC_SIZE;
    uint32_t stored = (static_cast<uint32_t>(data[body]) << 24) |
                      (static_cast<uint32_t>(data[body + 1]) << 16) |
                      (static_cast<uint32_t>(data[body + 2]) << 8) | data[body + 3];
    Korvix::Crypto::CRC crc(0, false, false);
    if (crc.calculate(data.data(), body) != stored) return SECTION_BAD;

    header.version = (data[5] >> 1) & 0x1F;
    header.current_next = (data[5] & 1) != 0;
    header.section_number = data[6];
    // The shortest section (length 4) ends before last_section_number; it then reads as 0.
    header.last_section_number = data.size() > 7 ? data[7] : 0;
    return SECTION_GOOD;
  } catch (const Korvix::Channel::Error&) {
    return SECTION_INCOMPLETE;
  }
}

SectionStatus SectionReader::read(PATSection& pat) {
  SectionStatus status = read_section(pat);
  if (status != SECTION_GOOD) return status;
  pat.id = static_cast<uint16_t>(word_at(data, 3));
  if (data.size() < 16) return SECTION_GOOD;
  for (size_t position = 8; position + 4 + CRC_SIZE <= data.size(); position += 4) {
    // A repeated program_number overwrites the earlier entry.
    pat.programs[static_cast<uint16_t>(word_at(data, position))] =
        static_cast<uint16_t>(word_at(data, position + 2) & 0x1FFF);
  }
  return SECTION_GOOD;
}

SectionStatus SectionReader::read(PMTSection& pmt) {
  SectionStatus status = read_section(pmt);
  if (status != SECTION_GOOD) return status;
  size_t size = data.size();
  if (size < 12) return SECTION_BAD;
  pmt.id = static_cast<uint16_t>(word_at(data, 3));
  pmt.pcr_pid = static_cast<uint16_t>(word_at(data, 8) & 0x1FFF);
  size_t program_info_length = word_at(data, 10) & 0x0FFF;
  if (program_info_length + 12 > size) return SECTION_BAD;
  read_descriptors(*this, data.data() + 12, program_info_length, pmt.descriptors);

  // The only guard of this loop: fewer than 5 bytes before the CRC are still read as an entry,
  // with CRC bytes as its tail.
  size_t position = program_info_length + 12;
  for (;;) {
    if (position >= size - CRC_SIZE) return SECTION_GOOD;
    if (position + 5 > size) return SECTION_BAD;
    PMTStream stream;
    stream.stream_type = data[position];
    stream.pid = static_cast<uint16_t>(word_at(data, position + 1) & 0x1FFF);
    size_t es_info_length = word_at(data, position + 3) & 0x0FFF;
    size_t start = position + 5;
    position = start + es_info_length;
    if (position > size) return SECTION_BAD;
    read_descriptors(*this, data.data() + start, es_info_length, stream.descriptors);
    pmt.streams.push_back(std::move(stream));
  }
}

SectionStatus SectionReader::read(CATSection& cat) {
  SectionStatus status = read_section(cat);
  if (status != SECTION_GOOD) return status;
  // The count is the size less 12, cut to 16 bits. Below 12 bytes that wraps; the block is
  // then held to the bytes that the section has behind byte 8.
  size_t count = (data.size() - 12) & 0xFFFF;
  size_t present = data.size() > 8 ? data.size() - 8 : 0;
  if (count > present) count = present;
  read_descriptors(*this, data.data() + (present > 0 ? 8 : data.size()), count, cat.descriptors);
  return SECTION_GOOD;
}

bool SectionReader::read_descriptor(Korvix::Channel::Reader& source, Descriptor& descriptor) {
  try {
    descriptor.tag = source.read_byte();
    uint8_t length = source.read_byte();
    descriptor.data.resize(length);
    source.read(descriptor.data.data(), length);
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

}  // namespace Veldrin::IndexGen
