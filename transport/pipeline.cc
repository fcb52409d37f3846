#include "transport/pipeline.h"

#include <cstring>

#include "foundation/channel/block_reader.h"
#include "foundation/log/stream.h"
#include "transport/ts_reader.h"

namespace Veldrin::IndexGen {

void TSPipeline::process(TSPacket& packet) {
  for (TSPipe* pipe : pipes) pipe->process(packet);
}

void TSPipeline::read(const unsigned char* data, int32_t length) {
  if (length > 0) buffer.insert(buffer.end(), data, data + length);
  Korvix::Channel::BlockReader reader(buffer.data(), buffer.size());
  try {
    for (;;) {
      // Hunt for the sync byte. memchr finds it; the skip moves the reader exactly as reading
      // byte by byte would, and runs off the end as that would.
      const unsigned char* here = reader.data;
      size_t left = static_cast<size_t>(reader.length - reader.offset);
      const void* found = left > 0 ? std::memchr(here, TS_SYNC_BYTE, left) : nullptr;
      if (found == nullptr) {
        reader.skip(left);
        throw Korvix::Channel::Error(0, "EOF");
      }
      // memchr found it at or behind here.
      reader.skip(static_cast<uint64_t>(static_cast<const unsigned char*>(found) - here));
      if (reader.length - reader.offset < static_cast<uint64_t>(TS_PACKET_SIZE)) break;
      TSPacket packet;
      packet.offset = offset + reader.offset;
      if (read_packet(reader, packet)) {
        for (TSPipe* pipe : pipes) pipe->process(packet);
      }
    }
  } catch (const Korvix::Channel::Error&) {
    // The hunt ran off the end of the buffer, or a stage failed: the rest waits for next time.
  }
  offset += reader.offset;
  buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(reader.offset));
}

bool TSPipeline::read_packet(Korvix::Channel::Reader& reader, TSPacket& packet) {
  TSReader ts_reader(reader);
  int32_t payload_length = 0;
  if (!ts_reader.read_header(packet, payload_length)) {
    Korvix::Log::Error error;
    error << "Could not read TS header" << std::endl;
    return false;
  }
  if (payload_length < 0 || payload_length > TS_PAYLOAD_MAX) {
    Korvix::Log::Error error;
    error << "Bad TS payload size" << std::endl;
    return false;
  }
  packet.payload.resize(static_cast<size_t>(payload_length));
  try {
    reader.read(packet.payload.data(), packet.payload.size());
  } catch (const Korvix::Channel::Error&) {
    Korvix::Log::Error error;
    error << "TS packet truncated" << std::endl;
    return false;
  }
  return true;
}

}  // namespace Veldrin::IndexGen
