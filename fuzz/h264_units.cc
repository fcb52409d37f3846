// The H.264 parser on an elementary stream: the SPS, SEI and slice headers it reads through the
// bit reader, the units it collects and the captures it starts and ends, with the stream cut
// into packet payloads as the generator hands them over.
//
// Layout of an input:
//   byte 0   log level in the low two bits
//   byte 1   payload size: 1 + value % 184
//   byte 2   every value-th payload is scrambled; 0 for none
//   byte 3   PES header length of every fourth payload, value % 24, at most the payload
//   then     the byte stream, start codes and NAL units

#include <cstddef>
#include <cstdint>
#include <list>

#include "fuzz/fuzz_support.h"
#include "indexgen/captured_packet.h"
#include "indexgen/h264_parser.h"

namespace Fuzz = Veldrin::Fuzz;
namespace IndexGen = Veldrin::IndexGen;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::Choices choices(data, size);
  Fuzz::QuietLog::get().set_level(choices.byte() & 3);
  const size_t payload_size = 1 + choices.byte() % 184u;
  const uint8_t scramble_every = choices.byte();
  const size_t header_length = choices.byte() % 24u;
  const uint8_t* stream = choices.rest();
  const size_t stream_size = choices.rest_size();

  // The parser keeps pointers to the records it holds, so these stay where they are; the others
  // leave from the front, as they leave the generator's queue.
  std::list<IndexGen::CapturedPacket> records;
  IndexGen::H264Parser parser;
  size_t position = 0;
  uint64_t count = 0;
  while (position < stream_size) {
    const size_t length =
        stream_size - position < payload_size ? stream_size - position : payload_size;
    IndexGen::TSPacket packet;
    packet.pid = 0x100;
    packet.offset = count * 188;
    packet.continuity_counter = static_cast<int32_t>(count % 16);
    packet.payload.assign(stream + position, stream + position + length);
    if (scramble_every != 0 && count % scramble_every == scramble_every - 1u) {
      packet.scrambling_control = 2;
    }
    IndexGen::CapturedPacket& record = records.emplace_back(packet);
    if (count % 4 == 0) {
      record.packet.payload_unit_start = true;
      record.pes_header_length = header_length < length ? header_length : length;
    }
    parser.parse(record);
    while (!records.empty() && records.front().state != IndexGen::PACKET_HELD) {
      records.pop_front();
    }
    position += length;
    ++count;
  }
  return 0;
}
