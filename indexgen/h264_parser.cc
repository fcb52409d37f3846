#include "indexgen/h264_parser.h"

#include <algorithm>
#include <vector>

#include "foundation/channel/bit_reader.h"
#include "foundation/channel/block_reader.h"

namespace Veldrin::IndexGen {

using Korvix::Channel::BitReader;
using Korvix::Channel::BlockReader;

namespace {

bool in_capture(CaptureState state) {
  return state >= CAPTURE_IDR && state <= CAPTURE_NON_IDR;
}
bool collecting(CaptureState state) {
  return state >= COLLECT_AUD;
}
bool is_slice(uint8_t type) {
  return type == NAL_SLICE || type == NAL_IDR_SLICE;
}

BlockReader reader_on(const std::string& bytes) {
  return BlockReader(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

}  // namespace

void H264Parser::parse(CapturedPacket& r) {
  Payload& payload = r.packet.payload;
  if (r.packet.scrambling_control != 0) {
    // The open frame takes in the scrambled packet to its last byte; a collected unit is lost.
    scanner.forget();
    if (in_capture(state)) {
      // A record that stays previous must stay held: a start code may still put a marker on it.
      if (capture_end != nullptr && !(capture_end == previous && payload.empty())) {
        capture_end->state = PACKET_FREE;
      }
      capture_end = &r;
      capture_end_position = -1;
      r.state = PACKET_HELD;
    } else if (collecting(state)) {
      unit.clear();
      state = CAPTURE_NONE;
    }
  } else {
    scan(r);
  }
  if (payload.empty()) return;
  if (previous != nullptr && previous != capture_end) previous->state = PACKET_FREE;
  previous = &r;
  r.state = PACKET_HELD;
}

void H264Parser::scan(CapturedPacket& r) {
  const unsigned char* p = r.packet.payload.data();
  const size_t size = r.packet.payload.size();
  const size_t h = static_cast<size_t>(r.pes_header_length);
  size_t i = h;
  while (i < size) {
    // Outside a collected unit only the first bytes of a slice are gathered, one run at a time
    // up to the eighth, whose frame_num test comes ahead of that byte's own unit step.
    const bool slice_header = !collecting(state) && unit.size() < SLICE_HEADER_BYTES;
    const size_t end = slice_header ? std::min(size, i + (SLICE_HEADER_BYTES - unit.size())) : size;
    const StartCode code = scanner.find(p, i, end);
    // The value byte of a start code, if any, is the last byte of the run.
    const size_t stop = code.found() ? code.index + 1 : end;
    if (collecting(state) || slice_header) {
      unit.append(reinterpret_cast<const char*>(p + i), stop - i);
    }
    if (slice_header && unit.size() == SLICE_HEADER_BYTES && frame_num_changed() &&
        in_capture(state)) {
      end_capture();
    }
    if (code.found()) unit_step(r, p[code.index], code, h);
    i = stop;
  }
}

bool H264Parser::frame_num_changed() {
  uint32_t value = 0;
  try {
    BlockReader reader(reinterpret_cast<const unsigned char*>(unit.data()), SLICE_HEADER_BYTES);
    BitReader bits(reader);
    bits.read_exp_golomb();  // first_mb_in_slice
    bits.read_exp_golomb();  // slice_type
    bits.read_exp_golomb();  // pic_parameter_set_id
    value = static_cast<uint32_t>(bits.read_bits(frame_num_bits));
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
  // Narrowed to 8 bits on purpose: a frame_num with bit 7 set reads as unknown.
  int32_t frame_num = static_cast<int8_t>(value & 0xFF);
  bool finish = false;
  if (last_frame_num >= 0 && last_frame_num != frame_num) {
    if (state == CAPTURE_IDR || state == CAPTURE_NON_IDR) {
      finish = true;
    } else {
      recovery_frames = static_cast<int32_t>(static_cast<uint32_t>(recovery_frames) - 1u);
      if (recovery_frames < 0) finish = true;
    }
  }
  last_frame_num = frame_num;
  return finish;
}

void H264Parser::end_capture() {
  if (log.detail.enabled()) {
    log.detail << "[end capture";
    if (capture_end != nullptr) log.detail << " (offset: " << capture_end->packet.offset << ")";
    log.detail << "]\n";
  }
  if (capture_end != nullptr) {
    capture_end->add_marker(capture_end_position, true);
    capture_end->state = PACKET_FREE;
  }
  capture_end = nullptr;
  state = CAPTURE_NONE;
}

void H264Parser::unit_step(CapturedPacket& r, uint8_t b, const StartCode& code, size_t h) {
  const size_t n = static_cast<size_t>(code.prefix_length);
  // Where the start code begins.
  const BytePlace start = code.place_back(h, n);
  CapturedPacket* start_record = start.in_previous ? previous : &r;
  const uint8_t type = b & 31;
  const bool reference = (b & 0x60) != 0;
  // A trace line for every unit: built only when it goes somewhere.
  if (log.detail.enabled()) {
    log.detail << "H.264 unit type: " << std::hex << static_cast<int>(type) << std::dec
               << (reference ? " REF IDC" : "") << " (offset: " << r.packet.offset << ")\n";
  }

  if (collecting(state)) finish_unit(code.prefix_length);
  if (in_capture(state)) {
    // Nothing is collected during a capture; a slice only restarts the header bytes.
    if (is_slice(type)) unit.clear();
    if (is_slice(last_unit_type)) {
      // The frame so far ends ahead of this start code.
      if (capture_end != nullptr) capture_end->state = PACKET_FREE;
      const BytePlace end = code.place_back(h, n + 1);
      capture_end = end.in_previous ? previous : &r;
      capture_end_position = end.position;
      if (capture_end != nullptr) capture_end->state = PACKET_HELD;
    }
  } else if (is_slice(type)) {
    unit.clear();
    capture_decision(type, reference, start_record, start.position);
  } else if (type == NAL_AUD || type == NAL_SPS || type == NAL_PPS || type == NAL_SEI) {
    state = type == NAL_AUD   ? COLLECT_AUD
            : type == NAL_SPS ? COLLECT_SPS
            : type == NAL_PPS ? COLLECT_PPS
                              : COLLECT_SEI;
    unit.assign(n - 1, '\0');
    unit.push_back('\x01');
    unit.push_back(static_cast<char>(b));
  }

  if (headers_seen && last_unit_type != NAL_SEI && last_unit_type != NAL_SPS &&
      last_unit_type != NAL_PPS) {
    headers_seen = false;
  }
  if (type == NAL_SPS) headers_seen = true;
  last_unit_type = type;
}

void H264Parser::finish_unit(int32_t n) {
  // The unit has run on into the start code and NAL header just seen.
  size_t cut = static_cast<size_t>(n) + 1;
  unit.resize(unit.size() > cut ? unit.size() - cut : 0);
  switch (state) {
    case COLLECT_AUD:
      aud = unit;
      break;
    case COLLECT_SPS:
      sps = unit;
      frame_num_bits = read_sps(sps);
      break;
    case COLLECT_PPS:
      pps = unit;
      break;
    case COLLECT_SEI: {
      int32_t count = read_sei(unit);
      if (count > MAX_RECOVERY_FRAMES) {
        log.summary << "Ignoring recovery point with " << count << " frames\n";
      } else if (count >= 0) {
        recovery_frames = count;
      }
      sei += unit;
      break;
    }
    default:
      break;
  }
  // unit isn't emptied: only a slice does that.
  state = CAPTURE_NONE;
}

void H264Parser::capture_decision(uint8_t type, bool reference, CapturedPacket* start_record,
                                  int32_t start_position) {
  if (!sps.empty() && !pps.empty()) {
    const char* text = nullptr;
    if (type == NAL_IDR_SLICE) {
      text = "[start IDR capture";
      state = CAPTURE_IDR;
      recovery_frames = -1;
      entry_seen = true;
    } else if (reference && recovery_frames >= 0) {
      text = "[start RP capture";
      state = CAPTURE_RECOVERY;
      entry_seen = true;
    } else if (reference && headers_seen && !entry_seen) {
      text = "[start non-IDR capture";
      state = CAPTURE_NON_IDR;
      recovery_frames = -1;
    }
    if (text != nullptr) {
      unit.clear();
      last_frame_num = -1;
      log.detail << text;
      if (start_record != nullptr) {
        start_record->holds_start = true;
        start_record->add_marker(start_position, false);
        start_record->preamble = aud + sps + pps + sei;
        log.detail << " (offset: " << start_record->packet.offset << ")";
      }
      log.detail << "]\n";
    }
  }
  aud.clear();
  sei.clear();
}

int32_t H264Parser::read_sps(const std::string& bytes) {
  try {
    BlockReader reader = reader_on(bytes);
    while ((reader.read_byte() & 31) != NAL_SPS) {
    }
    const uint8_t profile_idc = reader.read_byte();
    BitReader bits(reader);
    for (int n = 0; n < 4; ++n) bits.read_bit();  // constraint_set0 to 3
    bits.read_bits(4);                            // constraint_set4, 5, reserved
    bits.read_bits(8);                            // level_idc
    bits.read_exp_golomb();                       // seq_parameter_set_id
    if (profile_idc == 100 || profile_idc == 110 || profile_idc == 122 || profile_idc == 144) {
      int32_t chroma_format_idc = bits.read_exp_golomb();
      if ((chroma_format_idc & 0xFF) == 3) bits.read_bit();  // separate_colour_plane_flag
      bits.read_exp_golomb();                                // bit_depth_luma_minus8
      bits.read_exp_golomb();                                // bit_depth_chroma_minus8
      bits.read_bit();                                       // qpprime_y_zero_transform_bypass
      if (bits.read_bit()) {                                 // seq_scaling_matrix_present_flag
        for (int list = 0; list < 8; ++list) {
          if (!bits.read_bit()) continue;
          const int size = list < 6 ? 16 : 64;
          int64_t last = 8;
          int64_t next = 8;
          for (int k = 0; k < size; ++k) {
            if (next != 0) {
              next =
                  (last + Korvix::Channel::signed_exp_golomb(bits.read_exp_golomb()) + 256) % 256;
            }
            if (next != 0) last = next;
          }
        }
      }
    }
    return static_cast<int32_t>(static_cast<uint32_t>(bits.read_exp_golomb()) + 4u);
  } catch (const Korvix::Channel::Error&) {
    log.error << "Could not read frame num length from SPS\n";
    return 0;
  }
}

int32_t H264Parser::read_sei(const std::string& bytes) {
  BlockReader reader = reader_on(bytes);
  try {
    while ((reader.read_byte() & 31) != NAL_SEI) {
    }
    for (;;) {
      uint32_t type = 0;
      uint8_t byte = reader.read_byte();
      while (byte == 255) {
        type += 255;
        byte = reader.read_byte();
      }
      type += byte;
      uint32_t size = 0;
      byte = reader.read_byte();
      while (byte == 255) {
        size += 255;
        byte = reader.read_byte();
      }
      size += byte;
      if (type != 6) {  // not a recovery point
        reader.skip(size);
        continue;
      }
      log.detail << "Recovery Point found in SEI\n";
      try {
        BitReader bits(reader);
        int32_t count = bits.read_exp_golomb();  // recovery_frame_cnt
        log.detail << "Recovery Point in " << count << " frames\n";
        return count;
      } catch (const Korvix::Channel::Error&) {
        log.error << "Failed to read recovery point information\n";
      }
    }
  } catch (const Korvix::Channel::Error&) {
    // The normal way to run off the end of the unit.
    return -1;
  }
}

}  // namespace Veldrin::IndexGen
