#include "indexgen/program_tables.h"

#include <iterator>
#include <list>
#include <utility>

#include "foundation/log/stream.h"
#include "transport/section_writer.h"
#include "transport/sections.h"
#include "transport/table_packets.h"
#include "transport/ts_writer.h"

namespace Veldrin::IndexGen {

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

void ProgramTables::handle_pat(const TSPacket& packet) {
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

void ProgramTables::handle_pmt(const TSPacket& packet) {
  PMTSection pmt;
  if (pmt_section.add(packet.payload, pmt) != SECTION_GOOD) return;
  if (pmt.id != program_number) return;

  if (ca_pid == 0) {
    for (const Descriptor& descriptor : pmt.descriptors) {
      if (descriptor.tag == CA_DESCRIPTOR_TAG && descriptor.data.size() == 4) {
        ca_pid =
            static_cast<uint16_t>(((descriptor.data[2] * 256) + descriptor.data[3]) & TS_PID_MASK);
        break;
      }
    }
  }

  // The last video stream of the program wins.
  video_type = VIDEO_UNKNOWN;
  std::list<PMTStream> kept;
  for (const PMTStream& stream : pmt.streams) {
    if (stream.stream_type == STREAM_TYPE_MPEG2_VIDEO ||
        stream.stream_type == STREAM_TYPE_H264_VIDEO) {
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

void ProgramTables::handle_cat(const TSPacket& packet) {
  CATSection cat;
  if (cat_section.add(packet.payload, cat) != SECTION_GOOD) return;
  if (!cat.current_next) return;
  cat_packets = table_packets(packet, written_section(cat));
}

void ProgramTables::capture_ca(const TSPacket& packet) {
  if (ca_packet.empty()) {
    Korvix::Log::Summary summary;
    summary << "Capturing CA data from PID: " << ca_pid << std::endl;
  }
  // The packet that write_record would write, composed where the last one was: the key list of
  // an encrypted copy comes by here at each of its insertions.
  ca_packet.resize(TS_PACKET_SIZE);
  ca_packet.resize(compose_record(packet, reinterpret_cast<unsigned char*>(ca_packet.data())));
}

void ProgramTables::copy_packets_to(std::string& out) const {
  out.assign(pat_packet);
  out += pmt_packets;
  out += cat_packets;
  out += ca_packet;
}

}  // namespace Veldrin::IndexGen
