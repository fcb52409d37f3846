#ifndef VELDRIN_TRANSPORT_SECTION_WRITER_H
#define VELDRIN_TRANSPORT_SECTION_WRITER_H

#include <vector>

#include "foundation/channel/writer.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {

// Turns the section models back into section bytes with a fresh CRC, pointer_field first.
class SectionWriter {
 public:
  explicit SectionWriter(Korvix::Channel::Writer& writer_) : writer(writer_) {}

  bool write(const PATSection& pat);
  bool write(const PMTSection& pmt);
  bool write(const CATSection& cat);
  bool write(const RawSection& raw);
  bool write_section(const SectionHeader& header);
  bool write_descriptor(Korvix::Channel::Writer& target, const Descriptor& descriptor);

  Korvix::Channel::Writer& writer;
  std::vector<unsigned char> data;  // the section under construction
};

// A model written whole, pointer_field first, into a buffer of SECTION_BUFFER_SIZE bytes, the
// most that a written section takes; gives the bytes written, none when the writer refused it.
std::vector<unsigned char> written_section(const PATSection& pat);
std::vector<unsigned char> written_section(const PMTSection& pmt);
std::vector<unsigned char> written_section(const CATSection& cat);
std::vector<unsigned char> written_section(const RawSection& raw);

}  // namespace Veldrin::IndexGen

#endif
