#include "transport/pipeline.h"

#include <algorithm>
#include <cstring>

#include "foundation/channel/block_reader.h"
#include "foundation/log/stream.h"
#include "transport/clock.h"
#include "transport/ts_reader.h"

namespace Veldrin::IndexGen {

namespace {

// A packet whose sync byte lies in the bytes kept from the last call reads at most this far
// past it: four header bytes, the field's length and flags, a PCR, and a skip to the end of an
// adaptation field of 255 bytes.
constexpr size_t LONGEST_PACKET_READ = 4 + 1 + 255;
// Bytes of a new chunk copied behind the kept ones, so that such a packet reads from one piece.
constexpr size_t JOIN_SIZE = 2 * LONGEST_PACKET_READ;
static_assert(TSPipeline::CARRY_ROOM >= TS_PACKET_SIZE + JOIN_SIZE);

uint32_t nbo_32(const unsigned char* bytes) {
  return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
         static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

void log_error(const char* text) {
  Korvix::Log::Error error;
  error << text << std::endl;
}

}  // namespace

void TSPipeline::process(TSPacket& packet) {
  for (TSPipe* pipe : pipes) pipe->process(packet);
}

// The bytes of a call are the kept ones followed by the new chunk, as if joined in one buffer.
// Packets that begin in the chunk are read straight from it; only those that begin in the kept
// bytes are read from a copy of the kept bytes with the start of the chunk behind them. What is
// left over at the end is all that is copied to be kept.
void TSPipeline::read(const unsigned char* data, int32_t length) {
  const size_t count = length > 0 ? static_cast<size_t>(length) : 0;
  const size_t kept = buffer.size();
  const size_t end = kept + count;
  ScanEnd at;
  try {
    if (kept != 0) {
      if (count != 0) buffer.insert(buffer.end(), data, data + std::min(count, JOIN_SIZE));
      at = scan(buffer.data(), 0, kept, end, offset);
      buffer.resize(kept);
    }
    if (!at.kept) {
      ScanEnd in_chunk = scan(data, at.position - kept, count, count, offset + kept);
      at.position = kept + in_chunk.position;
      at.kept = in_chunk.kept;
    }
  } catch (...) {
    // Not a failure of the stream's bytes: every byte of this call stays for the next one.
    buffer.resize(kept);
    if (count != 0) buffer.insert(buffer.end(), data, data + count);
    throw;
  }
  offset += at.position;
  if (!at.kept || at.position == end) {
    buffer.clear();
  } else if (at.position >= kept) {
    buffer.assign(data + (at.position - kept), data + count);
  } else {
    buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(at.position));
    if (count != 0) buffer.insert(buffer.end(), data, data + count);
  }
}

TSPipeline::ScanEnd TSPipeline::scan(const unsigned char* bytes, size_t from, size_t stop,
                                     size_t end, uint64_t first_offset) {
  size_t position = from;
  for (;;) {
    // Hunt for the sync byte; the bytes passed over are dropped. It is nearly always the very
    // next byte.
    if (position >= stop) return {std::max(position, stop), false};
    if (bytes[position] != TS_SYNC_BYTE) {
      const void* found = std::memchr(bytes + position, TS_SYNC_BYTE, stop - position);
      if (found == nullptr) return {stop, false};
      position = static_cast<size_t>(static_cast<const unsigned char*>(found) - bytes);
    }
    if (end - position < static_cast<size_t>(TS_PACKET_SIZE)) return {position, true};
    TSPacket packet;
    packet.offset = first_offset + position;
    size_t consumed = 0;
    const bool good = parse_packet(bytes + position, end - position, packet, consumed);
    position += consumed;
    if (!good) continue;
    try {
      for (TSPipe* pipe : pipes) pipe->process(packet);
    } catch (const Korvix::Channel::Error&) {
      // A stage failed: the bytes behind this packet wait for the next call.
      return {position, true};
    }
  }
}

// The same reading as read_packet over a reader on the joined bytes, with the reader's
// stopping places on each failure: a skip past the end leaves the reader where it was, a read
// past the end takes what there is.
bool TSPipeline::parse_packet(const unsigned char* bytes, size_t available, TSPacket& packet,
                              size_t& consumed) {
  const uint16_t word = static_cast<uint16_t>(bytes[1] << 8 | bytes[2]);
  packet.pid = word & TS_PID_MASK;
  packet.payload_unit_start = (word & TS_PAYLOAD_UNIT_START) != 0;
  const uint8_t c = bytes[3];
  packet.scrambling_control = c >> TS_SCRAMBLING_SHIFT;
  packet.continuity_counter = c & TS_CONTINUITY_MASK;
  size_t start = 4;
  size_t length = static_cast<size_t>(TS_PAYLOAD_MAX);
  if ((c & TS_ADAPTATION_FIELD) != 0) {
    const size_t a = bytes[4];
    start = 5;
    --length;
    if (a != 0) {
      const uint8_t flags = bytes[5];
      packet.discontinuity = (flags & ADAPTATION_DISCONTINUITY) != 0;
      packet.random_access = (flags & ADAPTATION_RANDOM_ACCESS) != 0;
      start = 6;
      if ((flags & ADAPTATION_PCR) != 0) {
        const uint64_t high = nbo_32(bytes + 6);
        const uint16_t low = static_cast<uint16_t>(bytes[10] << 8 | bytes[11]);
        const uint64_t base = high * 2 + ((low >> 15) & 1);
        packet.pcr = to_seconds(base * PCR_EXTENSION_RANGE + (low & 0x1FFu), PCR_CLOCK);
        start = 12;
      }
      if (start < 5 + a) {
        if (5 + a > available) {
          consumed = start;
          log_error("Could not read TS header");
          return false;
        }
        start = 5 + a;
      }
      if (a > static_cast<size_t>(TS_PAYLOAD_MAX - 1)) {
        consumed = start;
        log_error("Bad TS payload size");
        return false;
      }
      length -= a;
    }
  }
  if (start + length > available) {
    consumed = available;
    log_error("TS packet truncated");
    return false;
  }
  packet.payload.assign(bytes + start, bytes + start + length);
  consumed = start + length;
  return true;
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
