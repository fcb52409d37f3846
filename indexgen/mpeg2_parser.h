#ifndef VELDRIN_INDEXGEN_MPEG2_PARSER_H
#define VELDRIN_INDEXGEN_MPEG2_PARSER_H

#include <cstddef>
#include <cstdint>

#include "indexgen/parser.h"
#include "transport/start_code_scanner.h"

namespace Veldrin::IndexGen {

// Start code values that delimit a frame.
constexpr unsigned char MPEG2_PICTURE_START_CODE = 0x00;
constexpr unsigned char MPEG2_SEQUENCE_HEADER_CODE = 0xB3;

// Bytes of an MPEG-2 start code prefix, 00 00 01, however many zeros ran ahead of it.
constexpr size_t MPEG2_PREFIX_LENGTH = 3;

// Finds MPEG-2 video frames: each runs from a sequence header to the picture start code of the
// second picture behind it, so that it holds the headers and the first picture.
class MPEG2Parser : public Parser {
 public:
  void parse(CapturedPacket& packet) override;

  // 0: no byte of a prefix; 1: one zero; 2: two or more zeros; 3: the next byte is the value.
  int32_t scan_state() const { return scanner.scan_state(); }

  StartCodeScanner scanner;            // carries a prefix across packets
  int32_t picture_count = 0;           // picture start codes since the last sequence header
  bool capturing = false;              // a frame is open
  CapturedPacket* previous = nullptr;  // last record with a payload; held; not owned

 private:
  void start_code(CapturedPacket& packet, const StartCode& code, unsigned char value);
  // Places a marker on the byte `back` bytes ahead of the value byte: in packet if it lies
  // there, else on previous counted from its end. Without previous nothing is placed.
  void place(CapturedPacket& packet, const StartCode& code, size_t back, bool is_end);
};

}  // namespace Veldrin::IndexGen

#endif
