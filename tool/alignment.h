#ifndef VELDRIN_TOOL_ALIGNMENT_H
#define VELDRIN_TOOL_ALIGNMENT_H

#include <cstdint>
#include <istream>

namespace Veldrin::Tool {

// Bytes read from the start of a file to look for the first packet.
constexpr uint32_t ALIGNMENT_WINDOW = 188000;
// Sync bytes, one packet apart, that a start position needs.
constexpr uint32_t ALIGNMENT_PACKETS = 10;
// Start positions are looked at below this one, eleven packets short of the window's end.
constexpr uint32_t ALIGNMENT_LIMIT = ALIGNMENT_WINDOW - 11 * 188;

// The first position of window (ALIGNMENT_WINDOW bytes) at which ALIGNMENT_PACKETS sync bytes
// stand 188 bytes apart; false if there is none below ALIGNMENT_LIMIT.
bool find_alignment(const unsigned char* window, uint32_t& position);

// Reads the start of a file and seeks it to the first packet, whose position goes to
// start_offset. The count that the read gave isn't looked at: what wasn't read stays zero. A
// file shorter than the window is left failed at its end, so the seek has no effect there.
bool align_stream(std::istream& stream, uint32_t& start_offset);

}  // namespace Veldrin::Tool

#endif
