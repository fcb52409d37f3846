#ifndef VELDRIN_TRANSPORT_PES_H
#define VELDRIN_TRANSPORT_PES_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/channel/reader.h"
#include "foundation/channel/writer.h"

namespace Veldrin::IndexGen {

// Stream classes of a PES header, by stream_id.
enum PESStreamClass : int32_t {
  PES_CLASS_VIDEO = 0,  // 0xE0 to 0xEF
  PES_CLASS_AUDIO = 1,  // 0xC0 to 0xDF
  PES_CLASS_OTHER = 2,  // any other id; no optional header is read or written
};

// Where the fields of a PES header with the optional header stand, counted from the start code.
constexpr size_t PES_LENGTH_INDEX = 4;  // PES_packet_length, two bytes
constexpr size_t PES_FLAGS_INDEX = 7;   // the byte with PTS_DTS_flags
constexpr size_t PES_HEADER_DATA_LENGTH_INDEX = 8;
constexpr size_t PES_FIXED_HEADER_SIZE = 9;  // the time stamps follow
// PTS_DTS_flags, in the byte at PES_FLAGS_INDEX.
constexpr uint8_t PES_PTS_FLAG = 0x80;
constexpr uint8_t PES_DTS_FLAG = 0x40;

// Time stamps are seconds; a negative value means the stamp is absent. Whoever makes one sets
// pts and dts to -1.0 first, since read_header writes them only when the stream has them.
struct PESHeader {
  uint8_t stream_number = 0;
  PESStreamClass stream_class = PES_CLASS_VIDEO;
  int32_t scrambling_control = 0;
  bool data_alignment = false;
  double pts = -1.0;
  double dts = -1.0;
  int32_t stuffing_length = 0;
};

class PESReader {
 public:
  explicit PESReader(Korvix::Channel::Reader& reader_) : reader(reader_) {}

  // The reader stands at the packet_start_code_prefix. payload_length is -1 for an unbounded
  // packet (PES_packet_length 0).
  bool read_header(PESHeader& header, int32_t& payload_length);

  Korvix::Channel::Reader& reader;
};

class PESWriter {
 public:
  explicit PESWriter(Korvix::Channel::Writer& writer_) : writer(writer_) {}

  // A negative payload_length writes an unbounded header.
  bool write_header(const PESHeader& header, int32_t payload_length);
  bool write_packet(const PESHeader& header, const std::string& data);

  Korvix::Channel::Writer& writer;
};

}  // namespace Veldrin::IndexGen

#endif
