#ifndef VELDRIN_INDEXGEN_PROGRAM_TABLES_H
#define VELDRIN_INDEXGEN_PROGRAM_TABLES_H

#include <cstdint>
#include <string>

#include "transport/packet.h"
#include "transport/section_assembler.h"

namespace Veldrin::IndexGen {

enum VideoType {
  VIDEO_UNKNOWN = 0,
  VIDEO_MPEG2 = 1,  // PMT stream_type 2
  VIDEO_H264 = 2,   // PMT stream_type 27
};

// "Unknown", "MPEG-2" or "H.264"; any other value gives "Unknown".
const char* video_type_name(int type);

// The tables of the indexed program: the first program of the PAT, the last video stream of its
// PMT, and the CAT, each kept as a ready packet image to go ahead of every frame; and the newest
// packet of the CA PID. The PMT is taken until it has shown a video stream; the CAT is followed
// for the whole run.
class ProgramTables {
 public:
  ProgramTables(bool trim_pmt_, uint16_t ca_pid_) : trim_pmt(trim_pmt_), ca_pid(ca_pid_) {}

  void handle_pat(const TSPacket& packet);
  void handle_pmt(const TSPacket& packet);
  void handle_cat(const TSPacket& packet);
  void capture_ca(const TSPacket& packet);
  // Replaces out by the packets of the tables as they stand: PAT, PMT, CAT and CA data, each
  // perhaps empty. out keeps its room, since this is done for every frame.
  void copy_packets_to(std::string& out) const;

  bool trim_pmt;         // keep only the video streams and the CA stream in the captured PMT
  uint16_t pmt_pid = 0;  // 0 until a PAT has named one
  uint16_t program_number = 0;
  uint16_t video_pid = 0;  // valid when video_type is known
  VideoType video_type = VIDEO_UNKNOWN;
  uint16_t ca_pid;  // 0 for none
  SectionAssembler pat_section;
  std::string pat_packet;  // one packet
  SectionAssembler pmt_section;
  std::string pmt_packets;  // whole packets
  SectionAssembler cat_section;
  std::string cat_packets;  // whole packets
  std::string ca_packet;    // one packet
};

}  // namespace Veldrin::IndexGen

#endif
