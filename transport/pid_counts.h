#ifndef VELDRIN_TRANSPORT_PID_COUNTS_H
#define VELDRIN_TRANSPORT_PID_COUNTS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace Veldrin::IndexGen {

// A count per PID, in a flat table: a look-up is an index, and emptying all counts costs one
// step, since each count remembers the round it belongs to and one of an earlier round reads
// as 0. Every 16-bit value has its place, so that no two PIDs ever share one.
class PidCounts {
 public:
  PidCounts() : counts(PLACES, 0), rounds(PLACES, 0) {}

  // The count of pid, made 0 first if it belongs to an earlier round.
  uint64_t& operator[](uint16_t pid) {
    if (rounds[pid] != round) {
      rounds[pid] = round;
      counts[pid] = 0;
    }
    return counts[pid];
  }
  uint64_t count(uint16_t pid) const { return rounds[pid] == round ? counts[pid] : 0; }
  void clear() {
    if (++round == 0) {
      // After four thousand million rounds the marks start again.
      std::fill(rounds.begin(), rounds.end(), 0);
      round = 1;
    }
  }

  // Equal when every PID has the count of the map, 0 where the map has none.
  friend bool operator==(const PidCounts& counts, const std::map<uint16_t, uint64_t>& map) {
    for (size_t pid = 0; pid < PLACES; ++pid) {
      const auto found = map.find(static_cast<uint16_t>(pid));
      const uint64_t expected = found == map.end() ? 0 : found->second;
      if (counts.count(static_cast<uint16_t>(pid)) != expected) return false;
    }
    return true;
  }

 private:
  static constexpr size_t PLACES = 65536;

  std::vector<uint64_t> counts;
  std::vector<uint32_t> rounds;
  uint32_t round = 1;
};

}  // namespace Veldrin::IndexGen

#endif
