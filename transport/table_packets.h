#ifndef VELDRIN_TRANSPORT_TABLE_PACKETS_H
#define VELDRIN_TRANSPORT_TABLE_PACKETS_H

#include <cstddef>
#include <string>
#include <vector>

#include "transport/packet.h"
#include "transport/ts_writer.h"

namespace Veldrin::IndexGen {

// Which packets of a cut carry the prototype's payload_unit_start.
enum UnitStart {
  UNIT_START_EVERY_PACKET,  // each packet starts from the prototype as it was given
  UNIT_START_FIRST_PACKET,  // the flag is cleared in the prototype after the first packet
};

// Cuts a written section, pointer_field first, into transport packets, one at a time, so that
// the caller can pass each one on before the next is written. Every packet takes the header
// fields of the prototype and loads its continuity counter afresh from the prototype's, so that
// all packets of one cut carry the same counter.
class TablePackets {
 public:
  // The prototype and the section must outlive the cut; the section may be the prototype's
  // own payload.
  TablePackets(TSPacket& prototype_, const unsigned char* section_, size_t length_,
               UnitStart unit_start_)
      : prototype(prototype_), section(section_), length(length_), unit_start(unit_start_) {}

  bool done() const { return taken >= length; }
  // Writes the next packet and gives the writer's result. Whatever the writer left as the count
  // it took is taken, also after a failure: a writer that fails at its first byte has taken the
  // whole rest, and the cut ends.
  bool write_next(TSWriter& writer);

  TSPacket& prototype;
  const unsigned char* section;
  size_t length;
  UnitStart unit_start;
  size_t taken = 0;  // section bytes written so far
};

// The whole cut as a string of packets, each with payload_unit_start set and the input's
// header fields and counter: how the captured tables are kept.
std::string table_packets(const TSPacket& packet, const std::vector<unsigned char>& section);

}  // namespace Veldrin::IndexGen

#endif
