#include "transport/sync.h"

#include <algorithm>
#include <cstring>

#include "transport/clock.h"
#include "transport/packet.h"

namespace Veldrin::IndexGen {

bool SyncPipe::open(const std::string& path) {
  file = std::make_unique<std::ifstream>(path, std::ios::in | std::ios::binary);
  if (file->fail()) {
    file.reset();
    return false;
  }
  position = 0;
  block.assign(BLOCK_SIZE, 0);
  block_start = 0;
  block_size = 0;
  at_end = false;
  return true;
}

void SyncPipe::process(TSPacket& packet) {
  if (packet.pcr >= 0.0 && packet.pcr != input_pcr) {
    input_pcr = packet.pcr;
    input_counts.clear();
  }
  uint64_t count = ++input_counts[packet.pid];
  uint64_t found = find_offset(packet.pid, count, input_pcr);
  TSPacket copy = packet;
  copy.offset = found;
  for (TSPipe* pipe : pipes) pipe->process(copy);
}

uint64_t SyncPipe::find_offset(uint16_t pid, uint64_t count, double pcr) {
  if (file == nullptr) throw SyncFailureException();
  for (;;) {
    // Taken before the header, so that on a good file it is a multiple of 188.
    const uint64_t start = position;
    uint16_t packet_pid = 0;
    double packet_pcr = -1.0;
    if (!next_header(packet_pid, packet_pcr)) throw SyncFailureException();
    if (packet_pcr >= 0.0 && packet_pcr != file_pcr) {
      file_pcr = packet_pcr;
      file_counts.clear();
    }
    ++file_counts[packet_pid];
    if (pcr != file_pcr) continue;
    // Tested at every packet of the interval; only a packet of pid can first make it true.
    if (file_counts[pid] == count) return start;
  }
}

bool SyncPipe::next_header(uint16_t& pid, double& pcr) {
  // The longest header: four bytes, the adaptation field's length and flags, and a PCR.
  constexpr size_t LONGEST_HEADER = 12;
  size_t available = fill(position, LONGEST_HEADER);
  const unsigned char* bytes = block.data() + (position - block_start);
  if (available < 4 || bytes[0] != TS_SYNC_BYTE) return false;
  pid = static_cast<uint16_t>((bytes[1] << 8 | bytes[2]) & TS_PID_MASK);
  pcr = -1.0;
  // The end of what is read of the header; the payload flag is never looked at.
  size_t end = 4;
  if ((bytes[3] & TS_ADAPTATION_FIELD) != 0) {
    if (available < 5) return false;
    const size_t length = bytes[4];
    end = 5;
    if (length != 0) {
      if (available < 6) return false;
      const uint8_t flags = bytes[5];
      end = 6;
      if ((flags & ADAPTATION_PCR) != 0) {
        if (available < LONGEST_HEADER) return false;
        const uint64_t high = static_cast<uint64_t>(bytes[6]) << 24 |
                              static_cast<uint64_t>(bytes[7]) << 16 |
                              static_cast<uint64_t>(bytes[8]) << 8 | bytes[9];
        const uint16_t low = static_cast<uint16_t>(bytes[10] << 8 | bytes[11]);
        const uint64_t base = high * 2 + ((low >> 15) & 1);
        pcr = to_seconds(base * PCR_EXTENSION_RANGE + (low & 0x1FFu), PCR_CLOCK);
        end = LONGEST_HEADER;
      }
      // An adaptation field longer than the packet is skipped all the same, and the next
      // multiple of 188 behind it may lie a packet further on.
      end = std::max(end, 5 + length);
    }
  }
  const uint64_t packet_end = position + end;
  const uint64_t next = (packet_end + TS_PACKET_SIZE - 1) / TS_PACKET_SIZE * TS_PACKET_SIZE;
  const size_t span = static_cast<size_t>(next - position);
  if (fill(position, span) < span) return false;
  position = next;
  return true;
}

size_t SyncPipe::fill(uint64_t at, size_t count) {
  // Positions only grow, and never past the bytes already checked to be in the file.
  size_t from = static_cast<size_t>(at - block_start);
  if (block_size - from >= count || at_end) return block_size - from;
  std::memmove(block.data(), block.data() + from, block_size - from);
  block_start = at;
  block_size -= from;
  while (block_size < count && !at_end) {
    file->read(reinterpret_cast<char*>(block.data() + block_size),
               static_cast<std::streamsize>(block.size() - block_size));
    const size_t got = static_cast<size_t>(file->gcount());
    block_size += got;
    // A short read is the end of the file, or a failure to read on: the same to the walk.
    if (file->fail() || got == 0) at_end = true;
  }
  return block_size;
}

}  // namespace Veldrin::IndexGen
