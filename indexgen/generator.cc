#include "indexgen/generator.h"

#include <cmath>
#include <cstring>
#include <sstream>
#include <utility>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/stream_writer.h"
#include "foundation/channel/string_writer.h"
#include "foundation/log/stream.h"
#include "indexgen/h264_parser.h"
#include "indexgen/mpeg2_parser.h"
#include "transport/clock.h"
#include "transport/pes.h"
#include "transport/section_reader.h"
#include "transport/section_writer.h"
#include "transport/table_packets.h"
#include "transport/sections.h"
#include "transport/ts_writer.h"

namespace Veldrin::IndexGen {

namespace {

// The 33-bit clock of PCR and PTS wraps after 2^33 / 90000 seconds.
constexpr double PCR_WRAP = 95443.71765555555;
constexpr double PCR_HALF_WRAP = 47721.858827777774;
// PCR distances outside these bounds don't count for the time base or the rates.
constexpr double PCR_GAP_MIN = 0.01;
constexpr double PCR_GAP_MAX = 10.0;



// What a double gives as a signed 32-bit number: out of range or not a number gives the
// lowest value, as the hardware conversion does.
int32_t to_int32(double value) {
  if (!(value > -2147483649.0 && value < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// Deletes count bytes from index at on, within the bounds of the payload.
void erase_bytes(std::vector<unsigned char>& payload, int64_t at, int64_t count) {
  const int64_t size = static_cast<int64_t>(payload.size());
  if (at < 0) at = 0;
  if (at > size) at = size;
  if (count > size - at) count = size - at;
  if (count <= 0) return;
  payload.erase(payload.begin() + at, payload.begin() + at + count);
}

}  // namespace

const char* video_type_name(int type) {
  switch (type) {
    case VIDEO_MPEG2:
      return "MPEG-2";
    case VIDEO_H264:
      return "H.264";
    default:
      return "Unknown";
  }
}

IndexGenerator::IndexGenerator(IndexWriter* writer_, bool include_tables_, bool dump_,
                               bool seek_only_, bool pcr_only_, bool trim_pmt_, uint16_t ca_pid_,
                               std::ostream& dump_output_)
    : writer(writer_),
      include_tables(include_tables_),
      dump(dump_),
      seek_only(seek_only_),
      pcr_only(pcr_only_),
      trim_pmt(trim_pmt_),
      ca_pid(ca_pid_),
      dump_output(dump_output_) {}

IndexGenerator::~IndexGenerator() {
  delete parser;
}

void IndexGenerator::process(TSPacket& packet) {
  const double npt = update_time(packet);
  if (pcr_only) return;
  if (!dispatch(packet)) return;

  // Only packets of the video stream become records; all others are done with here.
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
  block_count += capture(record);
}

double IndexGenerator::update_time(const TSPacket& packet) {
  double elapsed = duration;
  if (packet.pcr < 0.0) {
    // No PCR: the time of the last accepted one.
  } else if (first_pcr < 0.0) {
    first_pcr = packet.pcr;
    duration = 0.0;
    first_offset = packet.offset;
    last_offset = packet.offset;
    elapsed = 0.0;
  } else {
    elapsed = packet.pcr - first_pcr;
    if (elapsed < -PCR_HALF_WRAP) elapsed += PCR_WRAP;
    double delta = elapsed - duration;
    if (delta < -PCR_HALF_WRAP) delta += PCR_WRAP;
    if (delta < PCR_GAP_MIN || delta > PCR_GAP_MAX || std::isnan(delta)) {
      Korvix::Log::Summary summary;
      summary << "PCR gap of " << delta << " after " << duration << " ignored for rate calculation"
              << std::endl;
      elapsed = duration;
    } else {
      const uint64_t bits = (packet.offset - last_offset) * 8;
      const int32_t rate = to_int32(static_cast<double>(bits) / delta);
      if (rate < min_rate) min_rate = rate;
      if (rate > max_rate) max_rate = rate;
      last_offset = packet.offset;
      duration = elapsed;
      if (pcr_only) {
        Korvix::Log::Detail detail;
        detail << "Captured PCR value " << elapsed << " at offset " << packet.offset << std::endl;
        writer->add_pcr(packet.offset, elapsed);
        ++block_count;
      }
    }
  }
  // Ahead of the first PCR a record keeps 0.0.
  return elapsed < 0.0 ? 0.0 : elapsed;
}

bool IndexGenerator::dispatch(const TSPacket& packet) {
  const uint16_t pid = packet.pid;
  if (pid == PAT_PID) {
    const uint16_t old_pmt_pid = pmt_pid;
    const uint16_t old_program_number = program_number;
    handle_pat(packet);
    if (pmt_pid != old_pmt_pid || program_number != old_program_number) {
      Korvix::Log::Summary summary;
      summary << "PMT on PID: " << pmt_pid << " (program number: " << program_number << ")"
              << std::endl;
    }
    return false;
  }
  if (pid == pmt_pid && video_type == VIDEO_UNKNOWN) {
    const uint16_t old_ca_pid = ca_pid;
    handle_pmt(packet);
    if (video_type != VIDEO_UNKNOWN) {
      Korvix::Log::Summary summary;
      summary << "Detected " << video_type_name(video_type) << " video stream on PID: " << video_pid
              << std::endl;
      delete parser;
      if (video_type == VIDEO_MPEG2) {
        parser = new MPEG2Parser();
      } else {
        parser = new H264Parser();
      }
    }
    if (ca_pid != old_ca_pid) {
      Korvix::Log::Summary summary;
      summary << "Found CA data for capture on PID: " << ca_pid << std::endl;
    }
    return false;
  }
  if (pid == CAT_PID) {
    if (cat_packets.empty()) {
      Korvix::Log::Summary summary;
      summary << "Found CAT" << std::endl;
    }
    handle_cat(packet);
    return false;
  }
  if (pid == ca_pid) {
    capture_ca(packet);
    return false;
  }
  return video_type != VIDEO_UNKNOWN && pid == video_pid;
}

void IndexGenerator::handle_pat(const TSPacket& packet) {
  PATSection pat;
  if (pat_section.add(packet.payload, pat) != SECTION_GOOD) return;
  if (!pat.current_next) return;

  // Keep the lowest program that isn't the network PID entry.
  pat.programs.erase(0);
  if (pat.programs.empty()) return;
  pat.programs.erase(std::next(pat.programs.begin()), pat.programs.end());
  const auto& [number, pid] = *pat.programs.begin();
  if (pid == pmt_pid) return;
  pmt_pid = pid;
  program_number = number;

  // The one-program section always fits one packet.
  pat_packet = table_packets(packet, written_section(pat));
}

void IndexGenerator::handle_pmt(const TSPacket& packet) {
  PMTSection pmt;
  if (pmt_section.add(packet.payload, pmt) != SECTION_GOOD) return;
  if (pmt.id != program_number) return;

  if (ca_pid == 0) {
    for (const Descriptor& descriptor : pmt.descriptors) {
      if (descriptor.tag == CA_DESCRIPTOR_TAG && descriptor.data.size() == 4) {
        ca_pid = static_cast<uint16_t>(((descriptor.data[2] * 256) + descriptor.data[3]) & 0x1FFF);
        break;
      }
    }
  }

  // The last video stream of the program wins.
  video_type = VIDEO_UNKNOWN;
  std::list<PMTStream> kept;
  for (const PMTStream& stream : pmt.streams) {
    if (stream.stream_type == STREAM_TYPE_MPEG2_VIDEO || stream.stream_type == STREAM_TYPE_H264_VIDEO) {
      video_type = stream.stream_type == STREAM_TYPE_MPEG2_VIDEO ? VIDEO_MPEG2 : VIDEO_H264;
      video_pid = stream.pid;
      kept.push_back(stream);
    }
    if (stream.pid == ca_pid) kept.push_back(stream);
  }
  if (video_type == VIDEO_UNKNOWN) return;

  if (trim_pmt) {
    pmt.version = static_cast<uint8_t>(pmt.version + 1);
    pmt.pcr_pid = video_pid;
    pmt.streams = std::move(kept);
  }
  pmt_packets = table_packets(packet, written_section(pmt));
}

void IndexGenerator::handle_cat(const TSPacket& packet) {
  CATSection cat;
  if (cat_section.add(packet.payload, cat) != SECTION_GOOD) return;
  if (!cat.current_next) return;
  cat_packets = table_packets(packet, written_section(cat));
}

void IndexGenerator::capture_ca(const TSPacket& packet) {
  std::string image;
  Korvix::Channel::StringWriter string_writer(image);
  TSWriter(string_writer).write_record(packet);
  if (ca_packet.empty()) {
    Korvix::Log::Summary summary;
    summary << "Capturing CA data from PID: " << ca_pid << std::endl;
  }
  ca_packet = std::move(image);
}

int32_t IndexGenerator::capture(CapturedPacket& record) {
  // The PCR of the source never reaches a frame.
  if (record.packet.pcr >= 0.0) {
    record.packet.pcr = -1.0;
    record.modified = true;
  }
  if (strip_time_stamps(record)) record.modified = true;
  parser->parse(record);
  return flush();
}

int32_t IndexGenerator::flush() {
  if (queue.empty()) return 0;
  // Packets ahead of the first PES start that no parser needs.
  while (queue.front().pes_header_length == 0 && queue.front().state == PACKET_FREE) {
    queue.pop_front();
    if (queue.empty()) return 0;
  }
  // The group of the newest PES packet always stays.
  const size_t later_starts = group_starts - (queue.front().pes_header_length != 0 ? 1 : 0);
  if (later_starts == 0) return 0;
  auto begin = queue.begin();
  auto end = std::next(begin);
  while (end->pes_header_length == 0) ++end;
  for (auto it = begin; it != end; ++it) {
    if (it->state == PACKET_HELD) return 0;
  }
  resolve(begin, end);
  set_pes_length(begin, end);
  const int32_t count = emit(begin, end);
  if (begin->pes_header_length != 0) --group_starts;
  queue.erase(begin, end);
  return count;
}

void IndexGenerator::resolve(std::list<CapturedPacket>::iterator begin,
                             std::list<CapturedPacket>::iterator end) {
  CapturedPacket& first = *begin;
  for (auto it = begin; it != end; ++it) {
    CapturedPacket& record = *it;
    record.state = !record.markers.empty() || in_frame ? PACKET_FRAME : PACKET_SKIPPED;
    apply_markers(record);
    if (record.holds_start) {
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

void IndexGenerator::set_pes_length(std::list<CapturedPacket>::iterator begin,
                                    std::list<CapturedPacket>::iterator end) {
  uint32_t total = 0;
  for (auto it = begin; it != end; ++it) {
    if (it->state == PACKET_FRAME) total += static_cast<uint32_t>(it->packet.payload.size());
  }
  // Below 6 bytes, or too long for the field: unbounded.
  const uint32_t length = total - 6;
  const uint32_t value = length <= 0xFFFF ? length : 0;
  CapturedPacket& first = *begin;
  std::vector<unsigned char>& payload = first.packet.payload;
  if (payload.size() < PES_LENGTH_INDEX + 2) return;
  const uint32_t old_value = (payload[PES_LENGTH_INDEX] << 8) | payload[PES_LENGTH_INDEX + 1];
  if (old_value == value) return;
  Korvix::Channel::BlockWriter block(payload.data() + PES_LENGTH_INDEX, 2);
  block.write_nbo_16(value);
  first.modified = true;
}

int32_t IndexGenerator::emit(std::list<CapturedPacket>::iterator begin,
                             std::list<CapturedPacket>::iterator end) {
  const bool dumping = dump && !seek_only;
  int32_t count = 0;
  for (auto it = begin; it != end; ++it) {
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
      record.data = packetise(record.packet, continuity);
      if (dumping) dump_buffer += record.data;
      if (record.ends_frame()) {
        if (dumping) {
          dump_output.write(dump_buffer.data(), static_cast<std::streamsize>(dump_buffer.size()));
        }
        dump_buffer.clear();
      }
    }
    writer->add_packet(record);
  }
  return count;
}

void IndexGenerator::write_frame_head(CapturedPacket& record) {
  if (include_tables) {
    tables.clear();
    tables += pat_packet;
    tables += pmt_packets;
    tables += cat_packets;
    tables += ca_packet;
    writer->set_tables(tables);
  }
  if (!record.preamble.empty()) {
    // Without fresh tables for each frame, the preambles add up here.
    const std::string packets = preamble_packets(record);
    tables += packets;
    writer->set_frame_preamble(packets);
  }
}

std::string IndexGenerator::preamble_packets(const CapturedPacket& record) {
  // The preamble carries the frame's time in whole seconds.
  const double time = static_cast<double>(to_int32(record.npt));

  PESHeader header;
  header.stream_number = 0xE0;
  header.stream_class = PES_CLASS_VIDEO;
  header.pts = time;
  header.dts = -1.0;
  std::ostringstream pes;
  Korvix::Channel::StreamWriter pes_stream(pes);
  PESWriter pes_writer(pes_stream);
  pes_writer.write_packet(header, record.preamble);
  const std::string bytes = pes.str();

  TSPacket prototype;
  prototype.pid = video_pid;
  prototype.payload_unit_start = true;
  prototype.discontinuity = true;
  prototype.pcr = time;
  std::ostringstream out;
  Korvix::Channel::StreamWriter stream(out);
  TSWriter ts_writer(stream);
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
  return out.str();
}

bool strip_time_stamps(CapturedPacket& record) {
  if (record.pes_header_length == 0) return false;
  std::vector<unsigned char>& payload = record.packet.payload;
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
  std::vector<unsigned char>& payload = record.packet.payload;
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
  std::vector<unsigned char>& payload = record.packet.payload;
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

}  // namespace Veldrin::IndexGen
