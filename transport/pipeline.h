#ifndef VELDRIN_TRANSPORT_PIPELINE_H
#define VELDRIN_TRANSPORT_PIPELINE_H

#include <cstdint>
#include <vector>

#include "foundation/channel/reader.h"
#include "transport/pipe.h"

namespace Veldrin::IndexGen {

// The head of the chain: takes raw bytes in chunks of any size, finds packets in them and hands
// each to the attached stages.
class TSPipeline : public TSPipe {
 public:
  explicit TSPipeline(uint64_t offset_ = 0) : offset(offset_) {}

  void process(TSPacket& packet) override;
  void read(const unsigned char* data, int32_t length);
  bool read_packet(Korvix::Channel::Reader& reader, TSPacket& packet);

  std::vector<unsigned char> buffer;  // bytes not yet consumed
  uint64_t offset;                    // stream position of the first byte of buffer
};

}  // namespace Veldrin::IndexGen

#endif
