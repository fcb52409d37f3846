#ifndef VELDRIN_INDEXGEN_MPEG2_PARSER_H
#define VELDRIN_INDEXGEN_MPEG2_PARSER_H

#include <cstddef>
#include <cstdint>

#include "indexgen/parser.h"

namespace Veldrin::IndexGen {

// Start code values that delimit a frame.
constexpr unsigned char MPEG2_PICTURE_START_CODE = 0x00;
constexpr unsigned char MPEG2_SEQUENCE_HEADER_CODE = 0xB3;

// Finds MPEG-2 video frames: each runs from a sequence header to the picture start code of the
// second picture behind it, so that it holds the headers and the first picture.
class MPEG2Parser : public Parser {
 public:
  void parse(CapturedPacket& packet) override;

  // 0: no byte of a prefix; 1: one zero; 2: two or more zeros; 3: the next byte is the value.
  int32_t scan_state = 0;
  int32_t picture_count = 0;           // picture start codes since the last sequence header
  bool capturing = false;              // a frame is open
  CapturedPacket* previous = nullptr;  // last record with a payload; held; not owned

 private:
  void start_code(CapturedPacket& packet, size_t index, unsigned char value);
  // Places a marker at the prefix offset back from index: in packet if it lies there, else on
  // previous counted from its end. Without previous nothing is placed.
  void place(CapturedPacket& packet, size_t index, size_t back, bool is_end);
};

}  // namespace Veldrin::IndexGen

#endif
