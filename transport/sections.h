#ifndef VELDRIN_TRANSPORT_SECTIONS_H
#define VELDRIN_TRANSPORT_SECTIONS_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <vector>

namespace Veldrin::IndexGen {

// The common fields at the head of each section.
struct SectionHeader {
  uint8_t table_id = 0;
  uint8_t version = 0;
  bool current_next = false;
  uint8_t section_number = 0;
  uint8_t last_section_number = 0;
};

struct Descriptor {
  uint8_t tag = 0;
  std::vector<unsigned char> data;  // without tag and length
};

struct PATSection : SectionHeader {
  uint16_t id = 0;                        // transport_stream_id
  std::map<uint16_t, uint16_t> programs;  // program_number to PMT PID
};

struct PMTStream {
  uint8_t stream_type = 0;
  uint16_t pid = 0;
  std::list<Descriptor> descriptors;
};

struct PMTSection : SectionHeader {
  uint16_t id = 0;  // program_number
  uint16_t pcr_pid = 0;
  std::list<Descriptor> descriptors;
  std::list<PMTStream> streams;
};

struct CATSection : SectionHeader {
  std::list<Descriptor> descriptors;
};

// A section the system makes up itself: the body as it is.
struct RawSection : SectionHeader {
  std::vector<unsigned char> data;
};

// What reading a section gives.
enum SectionStatus : int32_t {
  SECTION_INCOMPLETE = 0,  // the bytes ran out before the section ended
  SECTION_BAD = 1,         // length out of range, CRC mismatch, or a body that contradicts itself
  SECTION_GOOD = 2,        // a whole good section was read
};

// stream_type values of a PMT entry that the system acts on.
constexpr uint8_t STREAM_TYPE_MPEG2_VIDEO = 0x02;
constexpr uint8_t STREAM_TYPE_H264_VIDEO = 0x1B;

// Descriptor tags.
constexpr uint8_t CA_DESCRIPTOR_TAG = 9;

// Section length bounds that a reader accepts.
constexpr uint32_t SECTION_LENGTH_MIN = 4;
constexpr uint32_t SECTION_LENGTH_MAX = 4093;
// Largest section that the writer emits, without the CRC.
constexpr size_t SECTION_WRITE_LIMIT = 1025;
// Buffer that holds any written section: pointer_field, section, CRC.
constexpr size_t SECTION_BUFFER_SIZE = 1030;

}  // namespace Veldrin::IndexGen

#endif
