#ifndef VELDRIN_TRANSPORT_SYNC_H
#define VELDRIN_TRANSPORT_SYNC_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "transport/pid_counts.h"
#include "transport/pipe.h"

namespace Veldrin::IndexGen {

// Thrown when no packet of the offset file matches an input packet.
class SyncFailureException {};

// Replaces each packet's offset by the position of the same packet in a second copy of the
// stream, the offset file. A packet's identity is the last PCR at or before it on any PID, its
// PID, and its ordinal among that PID's packets since that PCR.
class SyncPipe : public TSPipe {
 public:
  SyncPipe() = default;
  virtual ~SyncPipe() = default;
  SyncPipe(const SyncPipe&) = delete;
  SyncPipe& operator=(const SyncPipe&) = delete;

  bool open(const std::string& path);
  void process(TSPacket& packet) override;
  uint64_t find_offset(uint16_t pid, uint64_t count, double pcr);

  // The offset file is read in large blocks and only the packet headers in them are parsed:
  // it is walked once, in step with the input, and its payloads are never looked at.
  static constexpr size_t BLOCK_SIZE = 1 << 18;

  std::unique_ptr<std::ifstream> file;  // null until open
  uint64_t position = 0;                // of the next packet header in the offset file
  double input_pcr = -1.0;
  PidCounts input_counts;  // packets of each PID since input_pcr
  double file_pcr = -1.0;
  PidCounts file_counts;  // packets of each PID of the offset file since file_pcr

 private:
  // Reads the header at position and moves position to the next multiple of 188 behind the
  // header and its adaptation field, as a reader that trusts those multiples does. False when
  // the first byte isn't the sync byte or the file ends before that multiple.
  bool next_header(uint16_t& pid, double& pcr);
  // At least count bytes from offset `at` on in the block, or as many as are left of the file.
  size_t fill(uint64_t at, size_t count);

  std::vector<unsigned char> block;
  uint64_t block_start = 0;  // offset in the file of block[0]
  size_t block_size = 0;     // bytes of block holding file bytes
  bool at_end = false;       // the file gave its last byte
};

}  // namespace Veldrin::IndexGen

#endif
