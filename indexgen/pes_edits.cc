#include "indexgen/pes_edits.h"

#include <cstring>
#include <vector>

#include "foundation/channel/block_writer.h"
#include "foundation/log/stream.h"
#include "transport/clock.h"
#include "transport/pes.h"

namespace Veldrin::IndexGen {

namespace {

// Deletes count bytes from index at on, within the bounds of the payload.
void erase_bytes(Payload& payload, int64_t at, int64_t count) {
  const int64_t size = static_cast<int64_t>(payload.size());
  if (at < 0) at = 0;
  if (at > size) at = size;
  if (count > size - at) count = size - at;
  if (count <= 0) return;
  payload.erase(payload.begin() + at, payload.begin() + at + count);
}

}  // namespace

bool strip_time_stamps(CapturedPacket& record) {
  if (record.pes_header_length == 0) return false;
  Payload& payload = record.packet.payload;
  if (payload.size() < PES_FIXED_HEADER_SIZE) {
    Korvix::Log::Error error;
    error << "Could not clear PTS and DTS from PES"
          << " (payload shorter than min PES header length)" << std::endl;
    return false;
  }
  const size_t header_data = payload[PES_HEADER_DATA_LENGTH_INDEX];
  if (PES_FIXED_HEADER_SIZE + header_data > payload.size()) {
    Korvix::Log::Error error;
    error << "Could not clear PTS and DTS from PES"
          << " (PES header larger than TS)" << std::endl;
    return false;
  }
  const unsigned char flags = payload[PES_FLAGS_INDEX];
  size_t removed = 0;
  if (flags & PES_PTS_FLAG) removed += TIME_STAMP_SIZE;
  if (flags & PES_DTS_FLAG) removed += TIME_STAMP_SIZE;
  if (PES_FIXED_HEADER_SIZE + removed > payload.size()) return false;

  // The rest of the header moves down; the header keeps its length and ends in stuffing. A
  // header too short for its own stamps has nothing to move.
  const size_t kept = header_data > removed ? header_data - removed : 0;
  unsigned char* start = payload.data() + PES_FIXED_HEADER_SIZE;
  std::memmove(start, start + removed, kept);
  std::memset(start + kept, 0xFF, header_data - kept);
  payload[PES_FLAGS_INDEX] = static_cast<unsigned char>(flags & 0x3F);
  record.freed_header_bytes += removed;
  return true;
}

void apply_markers(CapturedPacket& record) {
  if (record.markers.empty()) return;
  Payload& payload = record.packet.payload;
  const size_t old_size = payload.size();
  // Index of the last byte kept so far; -1 keeps all to the end.
  int64_t kept_to = static_cast<int64_t>(record.pes_header_length) - 1;
  int64_t removed = 0;
  for (const FrameMarker& marker : record.markers) {
    const int64_t position = marker.position;
    if (marker.is_end) {
      kept_to = position - removed;
    } else {
      const int64_t from = position - removed;
      const int64_t gap = from - kept_to - 1;
      if (gap >= 0) {
        erase_bytes(payload, kept_to + 1, gap);
      } else {
        payload.resize(payload.size() + static_cast<size_t>(-gap), 0);
      }
      removed += gap;
      kept_to = -1;
    }
  }
  if (kept_to >= 0) payload.resize(static_cast<size_t>(kept_to) + 1, 0);
  if (payload.size() != old_size) record.modified = true;
}

bool insert_pts(CapturedPacket& record) {
  Payload& payload = record.packet.payload;
  if (record.packet.pcr < 0.0 || record.pes_header_length == 0 ||
      payload.size() < PES_FIXED_HEADER_SIZE + TIME_STAMP_SIZE) {
    return false;
  }
  const size_t extra = record.freed_header_bytes < TIME_STAMP_SIZE
                           ? TIME_STAMP_SIZE - static_cast<size_t>(record.freed_header_bytes)
                           : 0;
  const size_t header_data = payload[PES_HEADER_DATA_LENGTH_INDEX];
  const size_t header = extra + header_data;
  if (header + PES_FIXED_HEADER_SIZE > payload.size()) return false;

  if (extra != 0) {
    // Room for the stamp: the elementary stream moves up.
    const size_t old_size = payload.size();
    const size_t es_start = PES_FIXED_HEADER_SIZE + header_data;
    payload.resize(old_size + extra);
    std::memmove(payload.data() + es_start + extra, payload.data() + es_start, old_size - es_start);
  }
  // The rest of the header moves behind the stamp; trailing stuffing falls away.
  const size_t moved = header > TIME_STAMP_SIZE ? header - TIME_STAMP_SIZE : 0;
  std::memmove(payload.data() + PES_FIXED_HEADER_SIZE + TIME_STAMP_SIZE,
               payload.data() + PES_FIXED_HEADER_SIZE, moved);

  Korvix::Channel::BlockWriter block(payload.data() + PES_FIXED_HEADER_SIZE, TIME_STAMP_SIZE);
  write_time_stamp(block, PREFIX_PTS_ONLY, record.packet.pcr);

  payload[PES_FLAGS_INDEX] |= PES_PTS_FLAG;
  payload[PES_HEADER_DATA_LENGTH_INDEX] = static_cast<unsigned char>(header_data + extra);
  record.pes_header_length += extra;
  return true;
}

void set_pes_length(CapturedPacket& first, uint32_t total) {
  // Below 6 bytes, or too long for the field: unbounded.
  const uint32_t length = total - 6;
  const uint32_t value = length <= 0xFFFF ? length : 0;
  Payload& payload = first.packet.payload;
  if (payload.size() < PES_LENGTH_INDEX + 2) return;
  const uint32_t old_value =
      (static_cast<uint32_t>(payload[PES_LENGTH_INDEX]) << 8) | payload[PES_LENGTH_INDEX + 1];
  if (old_value == value) return;
  Korvix::Channel::BlockWriter block(payload.data() + PES_LENGTH_INDEX, 2);
  block.write_nbo_16(value);
  first.modified = true;
}

}  // namespace Veldrin::IndexGen
