#ifndef VELDRIN_TRANSPORT_SECTION_READER_H
#define VELDRIN_TRANSPORT_SECTION_READER_H

#include <cstdint>
#include <vector>

#include "foundation/channel/reader.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {

// Reads one section from the gathered payload bytes of a table PID. Every read gives
// SECTION_INCOMPLETE (0), SECTION_BAD (1) or SECTION_GOOD (2); nothing is logged.
class SectionReader {
 public:
  explicit SectionReader(Korvix::Channel::Reader& reader_) : reader(reader_) {}

  SectionStatus read_section(SectionHeader& header);
  SectionStatus read(PATSection& pat);
  SectionStatus read(PMTSection& pmt);
  SectionStatus read(CATSection& cat);
  // False at the end of the block or at a descriptor that runs over it.
  bool read_descriptor(Korvix::Channel::Reader& source, Descriptor& descriptor);

  Korvix::Channel::Reader& reader;
  std::vector<unsigned char> data;  // the whole current section, CRC included
};

}  // namespace Veldrin::IndexGen

#endif
