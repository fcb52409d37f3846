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
  // The carried-over bytes (less than a packet, and the start of the next chunk behind them
  // while it is read) have their room from the start, so that reading never allocates.
  explicit TSPipeline(uint64_t offset_ = 0) : offset(offset_) { buffer.reserve(CARRY_ROOM); }

  void process(TSPacket& packet) override;
  void read(const unsigned char* data, int32_t length);
  bool read_packet(Korvix::Channel::Reader& reader, TSPacket& packet);

  static constexpr size_t CARRY_ROOM = 1024;

  std::vector<unsigned char> buffer;  // bytes not yet consumed
  uint64_t offset;                    // stream position of the first byte of buffer

 private:
  // Where a scan of the bytes of one read call left off.
  struct ScanEnd {
    size_t position = 0;  // of the hunt, counted from the start of the scanned bytes
    bool kept = false;    // the bytes from position on wait for the next call
  };
  // Hunts and reads packets in bytes from `from` on while a sync byte lies before `stop`.
  // `end` is where the bytes of this call end, which is what a packet may read up to.
  ScanEnd scan(const unsigned char* bytes, size_t from, size_t stop, size_t end,
               uint64_t first_offset);
  // Reads the packet whose sync byte is at bytes[0], with `available` bytes to the end; gives
  // the count of bytes the reading passed over, and whether the packet is good.
  bool parse_packet(const unsigned char* bytes, size_t available, TSPacket& packet,
                    size_t& consumed);
};

}  // namespace Veldrin::IndexGen

#endif
