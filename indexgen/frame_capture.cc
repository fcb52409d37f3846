#include "indexgen/frame_capture.h"

#include <iterator>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/string_writer.h"
#include "foundation/log/stream.h"
#include "indexgen/pes_edits.h"
#include "indexgen/time_base.h"
#include "transport/pes.h"
#include "transport/ts_writer.h"

namespace Veldrin::IndexGen {

int32_t FrameCapture::capture(const TSPacket& packet, double npt, Parser& parser) {
  CapturedPacket& record = queue.emplace_back(packet);
  record.npt = npt;
  if (record.packet.payload_unit_start) {
    Korvix::Channel::BlockReader block(record.packet.payload.data(), record.packet.payload.size());
    PESReader reader(block);
    int32_t payload_length = 0;
    if (!reader.read_header(record.pes_header, payload_length)) {
      Korvix::Log::Error error;
      error << "PES header larger than TS packet - likely to fail!" << std::endl;
    }
    // A failed read leaves what it consumed as the header.
    record.pes_header_length = block.offset;
    if (record.pes_header_length != 0) ++group_starts;
  }

  // The PCR of the source never reaches a frame.
  if (record.packet.pcr >= 0.0) {
    record.packet.pcr = -1.0;
    record.modified = true;
  }
  if (strip_time_stamps(record)) record.modified = true;
  parser.parse(record);
  return flush();
}

int32_t FrameCapture::flush() {
  if (queue.empty()) return 0;
  // Packets ahead of the first PES start that no parser needs.
  while (queue.front().pes_header_length == 0 && queue.front().state == PACKET_FREE) {
    queue.pop_front();
    if (queue.empty()) return 0;
  }
  // The group of the newest PES packet always stays.
  const size_t later_starts = group_starts - (queue.front().pes_header_length != 0 ? 1 : 0);
  if (later_starts == 0) return 0;
  const Group begin = queue.begin();
  Group end = std::next(begin);
  while (end->pes_header_length == 0) ++end;
  for (Group it = begin; it != end; ++it) {
    if (it->state == PACKET_HELD) return 0;
  }
  resolve(begin, end);
  uint32_t total = 0;
  for (Group it = begin; it != end; ++it) {
    if (it->state == PACKET_FRAME) total += static_cast<uint32_t>(it->packet.payload.size());
  }
  set_pes_length(*begin, total);
  const int32_t count = emit(begin, end);
  if (begin->pes_header_length != 0) --group_starts;
  queue.pop_front_until(end);
  return count;
}

void FrameCapture::resolve(Group begin, Group end) {
  CapturedPacket& first = *begin;
  for (Group it = begin; it != end; ++it) {
    CapturedPacket& record = *it;
    record.state = !record.markers.empty() || in_frame ? PACKET_FRAME : PACKET_SKIPPED;
    apply_markers(record);
    if (record.holds_start) {
      // The first record of the PES packet gets the frame's time, whichever holds the start.
      first.frame_start = true;
      if (&record != &first) first.preamble = record.preamble;
      if (first.preamble.empty()) {
        first.modified = true;
        first.packet.pcr = first.npt;
        insert_pts(first);
      }
    }
    if (record.starts_frame()) {
      in_frame = true;
    } else if (record.ends_frame()) {
      in_frame = false;
    }
    if (&record != &first && first.state == PACKET_SKIPPED && record.state == PACKET_FRAME) {
      // A frame that begins later in the PES packet keeps its PES header in a packet of its own.
      first.packet.payload.resize(static_cast<size_t>(first.pes_header_length), 0);
      first.state = PACKET_FRAME;
    }
  }
}

int32_t FrameCapture::emit(Group begin, Group end) {
  const bool dumping = dump && !seek_only;
  int32_t count = 0;
  for (Group it = begin; it != end; ++it) {
    CapturedPacket& record = *it;
    if (record.state != PACKET_SKIPPED) {
      if (record.frame_start && record.pes_header_length != 0) {
        // Each frame counts its continuity from zero and says so with the discontinuity flag.
        continuity = 0;
        write_frame_head(record);
        if (record.preamble.empty()) record.packet.discontinuity = true;
        ++count;
        if (dumping) dump_buffer += tables;
      }
      // The bytes are built in a string kept for the purpose and lent to the record while the
      // writer takes them, so that no packet needs a string of its own.
      packetise(record.packet, continuity, packet_bytes);
      record.data.swap(packet_bytes);
      if (dumping) dump_buffer += record.data;
      if (record.ends_frame()) {
        if (dumping) {
          dump_output.write(dump_buffer.data(), static_cast<std::streamsize>(dump_buffer.size()));
        }
        dump_buffer.clear();
      }
    }
    writer->add_packet(record);
    if (record.state != PACKET_SKIPPED) record.data.swap(packet_bytes);
  }
  return count;
}

void FrameCapture::write_frame_head(CapturedPacket& record) {
  if (include_tables) {
    programs.copy_packets_to(tables);
    writer->set_tables(tables);
  }
  if (!record.preamble.empty()) {
    // Without fresh tables for each frame, the preambles add up here.
    const std::string packets = preamble_packets(record);
    tables += packets;
    writer->set_frame_preamble(packets);
  }
}

std::string FrameCapture::preamble_packets(const CapturedPacket& record) {
  // The preamble carries the frame's time in whole seconds.
  const double time = static_cast<double>(truncate_to_int32(record.npt));

  PESHeader header;
  header.stream_number = 0xE0;
  header.stream_class = PES_CLASS_VIDEO;
  header.pts = time;
  header.dts = -1.0;
  std::string bytes;
  Korvix::Channel::StringWriter pes_writer(bytes);
  PESWriter(pes_writer).write_packet(header, record.preamble);

  TSPacket prototype;
  prototype.pid = programs.video_pid;
  prototype.payload_unit_start = true;
  prototype.discontinuity = true;
  prototype.pcr = time;
  std::string out;
  Korvix::Channel::StringWriter string_writer(out);
  TSWriter ts_writer(string_writer);
  size_t done = 0;
  while (done < bytes.size()) {
    // Every packet repeats the PCR; only the first starts the unit.
    int32_t remaining = static_cast<int32_t>(bytes.size() - done);
    if (!ts_writer.write_packet(prototype,
                                reinterpret_cast<const unsigned char*>(bytes.data()) + done,
                                remaining, continuity)) {
      break;
    }
    if (remaining <= 0) break;
    done += static_cast<size_t>(remaining);
    prototype.payload_unit_start = false;
    prototype.discontinuity = false;
  }
  return out;
}

}  // namespace Veldrin::IndexGen
