#include "transport/table_packets.h"

#include <limits>

#include "foundation/channel/string_writer.h"

namespace Veldrin::IndexGen {

bool TablePackets::write_next(TSWriter& writer) {
  if (done()) return true;
  if (taken > 0 && unit_start == UNIT_START_FIRST_PACKET) prototype.payload_unit_start = false;
  const size_t left = length - taken;
  const int32_t wanted = left > static_cast<size_t>(std::numeric_limits<int32_t>::max())
                             ? std::numeric_limits<int32_t>::max()
                             : static_cast<int32_t>(left);
  int32_t count = wanted;
  int32_t continuity = prototype.continuity_counter;
  const bool written = writer.write_packet(prototype, section + taken, count, continuity);
  // Every packet takes at least one byte, so the cut always ends.
  taken += count > 0 && count <= wanted ? static_cast<size_t>(count) : left;
  return written;
}

std::string table_packets(const TSPacket& packet, const std::vector<unsigned char>& section) {
  TSPacket prototype = header_fields(packet);
  prototype.payload_unit_start = true;
  std::string out;
  Korvix::Channel::StringWriter string_writer(out);
  TSWriter writer(string_writer);
  TablePackets cut(prototype, section.data(), section.size(), UNIT_START_EVERY_PACKET);
  while (!cut.done()) cut.write_next(writer);
  return out;
}

}  // namespace Veldrin::IndexGen
