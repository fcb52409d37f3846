#include "indexgen/time_base.h"

#include <cmath>
#include <limits>

#include "foundation/log/stream.h"

namespace Veldrin::IndexGen {

int32_t truncate_to_int32(double value) {
  // Written as a range test that a NaN fails too, so that no conversion is undefined.
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<int32_t>(value);
  return std::numeric_limits<int32_t>::min();
}

bool TimeBase::update(const TSPacket& packet) {
  if (packet.pcr < 0.0) return false;
  if (first_pcr < 0.0) {
    first_pcr = packet.pcr;
    duration = 0.0;
    first_offset = packet.offset;
    last_offset = packet.offset;
    return false;
  }
  // One correction of the wrap is all the unwrapping there is.
  double elapsed = packet.pcr - first_pcr;
  if (elapsed < -PCR_HALF_WRAP) elapsed += PCR_WRAP;
  double delta = elapsed - duration;
  if (delta < -PCR_HALF_WRAP) delta += PCR_WRAP;
  if (delta < PCR_GAP_MIN || delta > PCR_GAP_MAX || std::isnan(delta)) {
    // Every later PCR compares with the old duration: after a jump the time base stands still
    // until the PCRs come back to within the bounds of it.
    Korvix::Log::Summary summary;
    summary << "PCR gap of " << delta << " after " << duration << " ignored for rate calculation"
            << std::endl;
    return false;
  }
  const uint64_t bits = (packet.offset - last_offset) * 8;
  const int32_t rate = truncate_to_int32(static_cast<double>(bits) / delta);
  if (rate < min_rate) min_rate = rate;
  if (rate > max_rate) max_rate = rate;
  last_offset = packet.offset;
  duration = elapsed;
  return true;
}

}  // namespace Veldrin::IndexGen
