#ifndef VELDRIN_INDEXGEN_GENERATOR_H
#define VELDRIN_INDEXGEN_GENERATOR_H

#include <cstdint>
#include <iostream>
#include <list>
#include <string>

#include "indexgen/captured_packet.h"
#include "indexgen/index_writer.h"
#include "indexgen/parser.h"
#include "transport/pipe.h"
#include "transport/section_assembler.h"

namespace Veldrin::IndexGen {

enum VideoType {
  VIDEO_UNKNOWN = 0,
  VIDEO_MPEG2 = 1,  // PMT stream_type 2
  VIDEO_H264 = 2,   // PMT stream_type 27
};

// "Unknown", "MPEG-2" or "H.264"; any other value gives "Unknown".
const char* video_type_name(int type);

// The last stage of the chain: keeps the time base from PCRs, follows PAT, PMT and CAT, finds
// the video stream, and captures and rewrites its frames for the index writer.
class IndexGenerator : public TSPipe {
 public:
  // dump_output receives the rebuilt frames in dump mode; the tool passes standard output.
  IndexGenerator(IndexWriter* writer, bool include_tables, bool dump, bool seek_only, bool pcr_only,
                 bool trim_pmt, uint16_t ca_pid, std::ostream& dump_output = std::cout);
  ~IndexGenerator();
  IndexGenerator(const IndexGenerator&) = delete;
  IndexGenerator& operator=(const IndexGenerator&) = delete;

  void process(TSPacket& packet) override;

  IndexWriter* writer;  // not owned
  bool include_tables;
  bool dump;
  bool seek_only;
  bool pcr_only;
  bool trim_pmt;
  std::list<CapturedPacket> queue;  // records never move while a parser holds them
  int32_t continuity = 0;
  bool in_frame = false;
  std::string dump_buffer;  // filled only while a dump goes to dump_output
  uint16_t pmt_pid = 0;
  uint16_t program_number = 0;
  uint16_t video_pid = 0;
  VideoType video_type = VIDEO_UNKNOWN;
  uint16_t ca_pid;
  SectionAssembler pat_section;
  std::string pat_packet;
  SectionAssembler pmt_section;
  std::string pmt_packets;
  SectionAssembler cat_section;
  std::string cat_packets;
  std::string ca_packet;
  std::string tables;
  Parser* parser = nullptr;  // owned
  int32_t block_count = 0;
  double first_pcr = -1.0;
  double duration = -1.0;
  uint64_t last_offset = 0;
  uint64_t first_offset = 0;
  int32_t min_rate = 2147483647;
  int32_t max_rate = 0;

  std::ostream& dump_output;

 private:
  // Time base and rates from the packet's PCR; gives the time of the last accepted PCR.
  double update_time(const TSPacket& packet);
  // True for a packet of the video stream.
  bool dispatch(const TSPacket& packet);
  void handle_pat(const TSPacket& packet);
  void handle_pmt(const TSPacket& packet);
  void handle_cat(const TSPacket& packet);
  void capture_ca(const TSPacket& packet);

  // Frame capture of a record already at the end of the queue; gives the frames started.
  int32_t capture(CapturedPacket& record);
  int32_t flush();
  void resolve(std::list<CapturedPacket>::iterator begin, std::list<CapturedPacket>::iterator end);
  void set_pes_length(std::list<CapturedPacket>::iterator begin,
                      std::list<CapturedPacket>::iterator end);
  int32_t emit(std::list<CapturedPacket>::iterator begin, std::list<CapturedPacket>::iterator end);
  void write_frame_head(CapturedPacket& record);
  std::string preamble_packets(const CapturedPacket& record);

  // Records in the queue that begin a PES packet, so that a group's end is found without a walk.
  size_t group_starts = 0;
};

// Helpers of frame capture, on one record.
bool strip_time_stamps(CapturedPacket& record);
void apply_markers(CapturedPacket& record);
bool insert_pts(CapturedPacket& record);

}  // namespace Veldrin::IndexGen

#endif
