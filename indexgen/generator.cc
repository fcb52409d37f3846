#include "indexgen/generator.h"

#include "foundation/log/stream.h"
#include "indexgen/h264_parser.h"
#include "indexgen/mpeg2_parser.h"

namespace Veldrin::IndexGen {

IndexGenerator::IndexGenerator(IndexWriter* writer_, bool include_tables, bool dump, bool seek_only,
                               bool pcr_only_, bool trim_pmt, uint16_t ca_pid,
                               std::ostream& dump_output)
    : writer(writer_),
      pcr_only(pcr_only_),
      programs(trim_pmt, ca_pid),
      frames(writer_, programs, include_tables, dump, seek_only, dump_output) {}

void IndexGenerator::process(TSPacket& packet) {
  // Every PCR of every PID counts for the time base, also ahead of any table.
  const bool measured = time_base.update(packet);
  if (pcr_only) {
    // The first PCR of the stream isn't indexed: it has no rate, and its time is 0.
    if (measured) {
      Korvix::Log::Detail detail;
      detail << "Captured PCR value " << time_base.duration << " at offset " << packet.offset
             << std::endl;
      writer->add_pcr(packet.offset, time_base.duration);
      ++block_count;
    }
    return;
  }
  // Only packets of the video stream become records; all others are done with here.
  if (!dispatch(packet)) return;
  block_count += frames.capture(packet, time_base.npt(), *parser);
}

bool IndexGenerator::dispatch(const TSPacket& packet) {
  const uint16_t pid = packet.pid;
  if (pid == PAT_PID) {
    const uint16_t old_pmt_pid = programs.pmt_pid;
    const uint16_t old_program_number = programs.program_number;
    programs.handle_pat(packet);
    if (programs.pmt_pid != old_pmt_pid || programs.program_number != old_program_number) {
      Korvix::Log::Summary summary;
      summary << "PMT on PID: " << programs.pmt_pid
              << " (program number: " << programs.program_number << ")" << std::endl;
    }
    return false;
  }
  // Once the video is known the PMT is never looked at again.
  if (pid == programs.pmt_pid && programs.video_type == VIDEO_UNKNOWN) {
    const uint16_t old_ca_pid = programs.ca_pid;
    programs.handle_pmt(packet);
    if (programs.video_type != VIDEO_UNKNOWN) {
      Korvix::Log::Summary summary;
      summary << "Detected " << video_type_name(programs.video_type)
              << " video stream on PID: " << programs.video_pid << std::endl;
      if (programs.video_type == VIDEO_MPEG2) {
        parser = std::make_unique<MPEG2Parser>();
      } else {
        parser = std::make_unique<H264Parser>();
      }
    }
    if (programs.ca_pid != old_ca_pid) {
      Korvix::Log::Summary summary;
      summary << "Found CA data for capture on PID: " << programs.ca_pid << std::endl;
    }
    return false;
  }
  if (pid == CAT_PID) {
    if (programs.cat_packets.empty()) {
      Korvix::Log::Summary summary;
      summary << "Found CAT" << std::endl;
    }
    programs.handle_cat(packet);
    return false;
  }
  if (pid == programs.ca_pid) {
    programs.capture_ca(packet);
    return false;
  }
  return programs.video_type != VIDEO_UNKNOWN && pid == programs.video_pid;
}

}  // namespace Veldrin::IndexGen
