#ifndef VELDRIN_INDEXGEN_H264_PARSER_H
#define VELDRIN_INDEXGEN_H264_PARSER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/log/stream.h"
#include "indexgen/captured_packet.h"
#include "indexgen/parser.h"
#include "transport/start_code_scanner.h"

namespace Veldrin::IndexGen {

enum CaptureState {
  CAPTURE_NONE = 0,      // no frame open, no unit being collected
  CAPTURE_IDR = 1,       // frame open, started by an IDR slice
  CAPTURE_RECOVERY = 2,  // frame open, started at a recovery point
  CAPTURE_NON_IDR = 3,   // frame open, started by a reference slice after an SPS
  COLLECT_AUD = 4,       // collecting an access unit delimiter
  COLLECT_SPS = 5,
  COLLECT_PPS = 6,
  COLLECT_SEI = 7,
};

// NAL unit types that the parser acts on.
constexpr uint8_t NAL_SLICE = 1;
constexpr uint8_t NAL_IDR_SLICE = 5;
constexpr uint8_t NAL_SEI = 6;
constexpr uint8_t NAL_SPS = 7;
constexpr uint8_t NAL_PPS = 8;
constexpr uint8_t NAL_AUD = 9;

// A recovery point further away than this many frames isn't used.
constexpr int32_t MAX_RECOVERY_FRAMES = 10;
// Bytes of a slice gathered for reading its header up to frame_num.
constexpr size_t SLICE_HEADER_BYTES = 8;

// Finds the pictures of an H.264 stream at which play can start: IDR pictures, pictures at an SEI
// recovery point and, until one of those is seen, reference pictures right after an SPS. Each
// gets a start marker on its first slice's start code, the kept AUD, SPS, PPS and SEI as its
// preamble, and an end marker behind its last slice. The end of a picture shows only when
// frame_num changes in the next one, so the record of the possible end is held back.
class H264Parser : public Parser {
 public:
  H264Parser() = default;
  H264Parser(const H264Parser&) = delete;
  H264Parser& operator=(const H264Parser&) = delete;

  void parse(CapturedPacket& r) override;

  StartCodeScanner scanner;  // carries a start code across packets
  CaptureState state = CAPTURE_NONE;
  int32_t recovery_frames = -1;  // pictures left to the recovery point; negative when none
  int32_t last_frame_num = -1;   // negative when unknown
  bool entry_seen = false;       // an IDR or recovery capture has been started
  bool headers_seen = false;     // an SPS has just gone by, with only SEI, SPS and PPS since
  std::string unit;              // the collected unit, or the first bytes of a slice
  std::string aud;               // the kept units, with their start codes
  std::string sps;
  std::string pps;
  std::string sei;  // every SEI since the last slice, joined
  int32_t frame_num_bits = 0;
  CapturedPacket* previous = nullptr;     // not owned; the last record with a payload
  CapturedPacket* capture_end = nullptr;  // not owned; where the open frame would end
  int32_t capture_end_position = 0;
  uint8_t last_unit_type = 0;

 private:
  // Gathers the bytes of the payload and takes each NAL unit as its start code is found.
  void scan(CapturedPacket& r);
  void unit_step(CapturedPacket& r, uint8_t b, const StartCode& code, size_t h);
  bool frame_num_changed();
  void end_capture();
  void finish_unit(int32_t n);
  void capture_decision(uint8_t type, bool reference, CapturedPacket* start_record,
                        int32_t start_position);
  int32_t read_sps(const std::string& sps);
  int32_t read_sei(const std::string& sei);

  Korvix::Log::Streams log;
};

}  // namespace Veldrin::IndexGen

#endif
