#ifndef VELDRIN_TRANSPORT_SYNC_H
#define VELDRIN_TRANSPORT_SYNC_H

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "foundation/channel/stream_reader.h"
#include "transport/pid_counts.h"
#include "transport/pipe.h"
#include "transport/ts_reader.h"

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

  // Destroyed in the reverse order: the packet reader, the channel, then the file.
  std::unique_ptr<std::ifstream> file;                    // null until open
  std::unique_ptr<Korvix::Channel::StreamReader> reader;  // on file; its offset is the position
  std::unique_ptr<TSReader> ts_reader;                    // on reader
  double input_pcr = -1.0;
  PidCounts input_counts;  // packets of each PID since input_pcr
  double file_pcr = -1.0;
  PidCounts file_counts;  // packets of each PID of the offset file since file_pcr
};

}  // namespace Veldrin::IndexGen

#endif
