#ifndef VELDRIN_INDEXGEN_PES_EDITS_H
#define VELDRIN_INDEXGEN_PES_EDITS_H

#include <cstdint>

#include "indexgen/captured_packet.h"

namespace Veldrin::IndexGen {

// The edits that make a frame's PES packet stand on its own, each on one record.

// Takes PTS and DTS out of the PES header at the start of the payload: the rest of the header
// moves down and its end becomes stuffing, so that the header keeps its length. True when the
// header was rewritten, also when it had no stamps; the room freed is counted in the record.
bool strip_time_stamps(CapturedPacket& record);

// Cuts the payload by the record's markers: the PES header always stays, the bytes between it
// and a start marker go, and so do the bytes behind a final end marker.
void apply_markers(CapturedPacket& record);

// Puts the record's packet.pcr into its PES header as a PTS, growing the header where the
// stripping didn't free room enough. False, and nothing changed, when there is no time, no
// header, or no room.
bool insert_pts(CapturedPacket& record);

// Sets PES_packet_length in the first record of a PES packet whose kept payloads add up to
// total bytes: unbounded (0) when that is below 6 or too long for the field.
void set_pes_length(CapturedPacket& first, uint32_t total);

}  // namespace Veldrin::IndexGen

#endif
