#ifndef VELDRIN_TRANSPORT_SECTION_ASSEMBLER_H
#define VELDRIN_TRANSPORT_SECTION_ASSEMBLER_H

#include <vector>

#include "transport/payload.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {

// Gathers the payloads of one table PID until they hold a section. Every payload is appended
// whole, whatever payload_unit_start and the continuity counter say, so that a lost packet
// shows only as a CRC failure. The gathered bytes are read from their start each time; they
// are kept while the section is incomplete, and dropped once it has been read, good or bad,
// together with whatever stood behind it: a second section or stuffing.
class SectionAssembler {
 public:
  // Appends the payload and reads the model, which is expected fresh, from the gathered bytes.
  SectionStatus add(const std::vector<unsigned char>& payload, PATSection& pat);
  SectionStatus add(const std::vector<unsigned char>& payload, PMTSection& pmt);
  SectionStatus add(const std::vector<unsigned char>& payload, CATSection& cat);
  // The same for a packet's payload as it stands, without a copy.
  SectionStatus add(const Payload& payload, PATSection& pat);
  SectionStatus add(const Payload& payload, PMTSection& pmt);
  SectionStatus add(const Payload& payload, CATSection& cat);

  std::vector<unsigned char> data;  // the bytes gathered since the last section
};

}  // namespace Veldrin::IndexGen

#endif
