#ifndef VDX_TESTS_INDEX2_WORKED_LAYOUT_H
#define VDX_TESTS_INDEX2_WORKED_LAYOUT_H

// A small index written out by hand: block size 256, file flags 0; one frame at source offset
// 2048000 with play time 12.5 s, one table packet, no video headers, a first packet whose PES
// header was rewritten, then three unchanged packets at 2048188, 2048376 and 2048564.

#include <cstddef>
#include <initializer_list>
#include <vector>

namespace Veldrin::Testing {

using Bytes = std::vector<unsigned char>;

// A PAT packet: PID 0, one program 1 on PMT PID 0x100, stuffed with 0xFF.
inline Bytes worked_table_packet() {
  Bytes p = {0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1,
             0x00, 0x00, 0x00, 0x01, 0xE1, 0x00, 0x12, 0x34, 0x56, 0x78};
  p.resize(188, 0xFF);
  return p;
}

// The payload of the frame's first packet after its PES header was rewritten: 176 bytes, a PES
// header with a PTS, a sequence header start code and then picture bytes.
inline Bytes worked_first_payload() {
  Bytes p = {0x00, 0x00, 0x01, 0xE0, 0x00, 0x00, 0x80, 0x80, 0x05,
             0x21, 0x00, 0x11, 0x3C, 0x69, 0x00, 0x00, 0x01, 0xB3};
  for (unsigned i = static_cast<unsigned>(p.size()); i < 176; ++i)
    p.push_back(static_cast<unsigned char>(i * 7 + 3));
  return p;
}

// That packet rendered: PID 0x100 with payload_unit_start, continuity 7, an adaptation field with
// the discontinuity flag and a PCR of 12.5 s (base 1125000, extension 0), then the payload.
inline Bytes worked_first_packet() {
  Bytes p = {0x47, 0x41, 0x00, 0x37, 0x07, 0x90, 0x00, 0x08, 0x95, 0x44, 0x7E, 0x00};
  const Bytes payload = worked_first_payload();
  p.insert(p.end(), payload.begin(), payload.end());
  return p;
}

// The 768 bytes of the file.
inline Bytes worked_layout() {
  Bytes f;
  auto put = [&f](std::initializer_list<unsigned char> bytes) {
    f.insert(f.end(), bytes.begin(), bytes.end());
  };
  auto zeros = [&f](size_t n) { f.insert(f.end(), n, 0x00); };
  auto put_bytes = [&f](const Bytes& bytes) { f.insert(f.end(), bytes.begin(), bytes.end()); };

  put({0x56, 0x44, 0x58, 0x32});  // magic
  put({0x00, 0x00, 0x01, 0x00});  // header size 256
  put({0x00, 0x00, 0x00, 0x00});  // file flags
  put({0x00, 0x00, 0x01, 0x00});  // block size 256
  zeros(240);

  put({0x00, 0x00, 0x00, 0x00, 0x00, 0x1F, 0x40, 0x00});  // offset 2048000
  put({0x00, 0x00, 0x30, 0xD4});                          // NPT 12500 ms
  put({0x00, 0x00, 0x00, 0x03});                          // INTRA and NEW-NPT
  put({0x00, 0x02});                                      // count 2
  put({0x00, 0x00});                                      // index 0
  put({0x00, 0x00, 0x00, 0x00});                          // ref length
  put({0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});  // ref offset
  put({0x00, 0x00, 0x00, 0xBC});                          // data length 188
  put_bytes(worked_table_packet());
  zeros(32);

  put({0x00, 0x00, 0x00, 0x00, 0x00, 0x1F, 0x40, 0x00});  // offset 2048000
  put({0x00, 0x00, 0x30, 0xD4});                          // NPT 12500 ms
  put({0x00, 0x00, 0x00, 0x0C});                          // VIDEO-START and REF
  put({0x00, 0x02});                                      // count 2
  put({0x00, 0x01});                                      // index 1
  put({0x00, 0x00, 0x02, 0x34});                          // ref length 564
  put({0x00, 0x00, 0x00, 0x00, 0x00, 0x1F, 0x40, 0xBC});  // ref offset 2048188
  put({0x00, 0x00, 0x00, 0xBC});                          // data length 188
  put_bytes(worked_first_packet());
  zeros(32);
  return f;
}

}  // namespace Veldrin::Testing

#endif
