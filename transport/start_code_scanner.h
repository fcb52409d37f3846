#ifndef VELDRIN_TRANSPORT_START_CODE_SCANNER_H
#define VELDRIN_TRANSPORT_START_CODE_SCANNER_H

#include <cstddef>
#include <cstdint>

namespace Veldrin::IndexGen {

// Where a byte lies that stands some bytes ahead of a start code's value byte.
struct BytePlace {
  bool in_previous = false;  // in the payload scanned before the one that holds the value byte
  int32_t position = 0;      // its index; in the previous payload negative, counted from its end
};

// What a scan found: the value byte of a start code.
struct StartCode {
  size_t index = 0;           // of the value byte; the end of the scanned range if none was found
  int32_t prefix_length = 0;  // 3 or 4: the zeros counted, up to three, and the 0x01; 0 if none

  bool found() const { return prefix_length != 0; }
  // The place of the byte `back` bytes ahead of the value byte, when the scan of the payload that
  // holds it began at scan_start: the prefix of a start code may have begun in the payload
  // scanned before.
  BytePlace place_back(size_t scan_start, size_t back) const {
    if (index >= scan_start + back) return {false, static_cast<int32_t>(index - back)};
    return {true, static_cast<int32_t>(index - scan_start) - static_cast<int32_t>(back)};
  }
};

// Finds start codes, two or more zero bytes and a 0x01 ahead of the value byte, in a stream of
// bytes that arrives in pieces: the counters carry over from one call to the next, so that a
// start code may lie across payloads. Each caller does its own work between the finds. The
// counting is that of H.264, which also tells a four-byte prefix from a three-byte one; it finds
// the value bytes at the same places as MPEG-2's counting, which scan_state() gives.
class StartCodeScanner {
 public:
  // Scans data from index `from` up to `to`, and stops behind the first value byte.
  StartCode find(const unsigned char* data, size_t from, size_t to);
  // Forgets a prefix under way, as across a packet that can't be read. last_byte stays: it
  // counts for nothing without a prefix.
  void forget() { prefix_length = 0; }
  // The counters as MPEG-2 counts: 0, 1, 2 for zero bytes seen (2 for two or more), 3 for a
  // complete prefix, so that the next byte is the value.
  int32_t scan_state() const;

  // Zero bytes seen, up to three; one more for a 0x01 behind two or three of them.
  int32_t prefix_length = 0;
  uint8_t last_byte = 0;  // the byte scanned last
  // The straightforward scan, one step per byte, kept as the reference that the fast scan must
  // match byte for byte.
  bool byte_by_byte = false;
  // The fast scan looks at 32 places at a time where the processor has AVX2, else at 16. Both
  // find the same places; the field lets a test run either.
  bool wide = wide_scan_available();

  static bool wide_scan_available();

 private:
  // The first place in [from, to) of two zero bytes followed by a zero or a one, or of zeros
  // alone up to to; to if there is none.
  static size_t prefix_start(const unsigned char* data, size_t from, size_t to, bool wide);
  StartCode find_byte_by_byte(const unsigned char* data, size_t from, size_t to);
};

}  // namespace Veldrin::IndexGen

#endif
