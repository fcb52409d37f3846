#ifndef VELDRIN_INDEXGEN_TIME_BASE_H
#define VELDRIN_INDEXGEN_TIME_BASE_H

#include <cstdint>

#include "transport/packet.h"

namespace Veldrin::IndexGen {

// The 33-bit clock of PCR and PTS wraps after 2^33 / 90000 seconds.
constexpr double PCR_WRAP = 95443.71765555555;
constexpr double PCR_HALF_WRAP = 47721.858827777774;
// PCR distances outside these bounds, in seconds, don't count for the time base or the rates.
constexpr double PCR_GAP_MIN = 0.01;
constexpr double PCR_GAP_MAX = 10.0;

// A double truncated to a signed 32-bit number; a value that doesn't fit, or isn't a number,
// gives -2147483648 as the processor's conversion does.
int32_t truncate_to_int32(double value);

// The time base of a stream and its bit rates, from the PCRs of every PID alike: the time of the
// last accepted PCR counted from the first, and the bits between accepted PCRs over their
// distance. A distance outside the bounds is logged as a gap and leaves everything as it was.
class TimeBase {
 public:
  // Takes the PCR of a packet, if it has one. True when the PCR was accepted and measured: not
  // the first PCR of the stream, and not a gap.
  bool update(const TSPacket& packet);
  // The time that a packet carries: that of the last accepted PCR, 0.0 before the first.
  double npt() const { return duration < 0.0 ? 0.0 : duration; }

  double first_pcr = -1.0;        // seconds, raw; negative before the first PCR
  double duration = -1.0;         // seconds from first_pcr to the last accepted PCR
  uint64_t last_offset = 0;       // of the packet of the last accepted PCR
  uint64_t first_offset = 0;      // of the packet of the first PCR
  int32_t min_rate = 2147483647;  // bits per second
  int32_t max_rate = 0;
};

}  // namespace Veldrin::IndexGen

#endif
