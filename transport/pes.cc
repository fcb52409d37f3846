#include "transport/pes.h"

#include "transport/clock.h"

namespace Veldrin::IndexGen {

bool PESReader::read_header(PESHeader& header, int32_t& payload_length) {
  try {
    uint32_t start = reader.read_nbo_32();
    if ((start >> 8) != 1) return false;
    uint8_t stream_id = start & 0xFF;
    int32_t packet_length = reader.read_nbo_16();

    if ((stream_id & 0xF0) == 0xE0) {
      header.stream_class = PES_CLASS_VIDEO;
      header.stream_number = stream_id & 0x0F;
    } else if ((stream_id & 0xE0) == 0xC0) {
      header.stream_class = PES_CLASS_AUDIO;
      header.stream_number = stream_id & 0x1F;
    } else {
      // Any other id has no optional header parsed, private_stream_1 included.
      header.stream_class = PES_CLASS_OTHER;
      header.stream_number = stream_id;
      reader.skip(static_cast<uint64_t>(packet_length));
      header.scrambling_control = 0;
      header.data_alignment = false;
      payload_length = 0;
      return true;
    }

    uint32_t flags = reader.read_nbo_16();
    header.scrambling_control = static_cast<int32_t>((flags & 0x3000) >> 12);
    header.data_alignment = (flags & 0x400) != 0;
    int32_t header_length = reader.read_byte();
    int32_t consumed = 0;
    // The two flags are taken one by one: the forbidden value 01 reads a DTS and no PTS.
    if (flags & PES_PTS_FLAG) {
      header.pts = read_time_stamp(reader);
      consumed += static_cast<int32_t>(TIME_STAMP_SIZE);
    }
    if (flags & PES_DTS_FLAG) {
      header.dts = read_time_stamp(reader);
      consumed += static_cast<int32_t>(TIME_STAMP_SIZE);
    }
    header.stuffing_length = header_length - consumed;
    // A header shorter than its time stamps fails as a skip would; the reader never steps back.
    if (header.stuffing_length < 0) return false;
    reader.skip(static_cast<uint64_t>(header.stuffing_length));

    payload_length = packet_length == 0 ? -1 : packet_length - 3 - header_length;
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

bool PESWriter::write_header(const PESHeader& header, int32_t payload_length) {
  try {
    bool has_pts = header.pts >= 0.0;
    bool has_dts = header.dts >= 0.0;
    uint32_t stream_id = header.stream_number;
    if (header.stream_class == PES_CLASS_VIDEO) {
      stream_id |= 0xE0;
    } else if (header.stream_class == PES_CLASS_AUDIO) {
      stream_id |= 0xC0;
    }
    writer.write_nbo_32(0x100 + stream_id);

    int32_t header_length = header.stuffing_length;
    if (has_pts) header_length += static_cast<int32_t>(TIME_STAMP_SIZE);
    if (has_dts) header_length += static_cast<int32_t>(TIME_STAMP_SIZE);

    // A length that doesn't fit the field is written as 0, unbounded.
    int64_t packet_length = static_cast<int64_t>(payload_length) + header_length + 3;
    if (payload_length >= 0 && packet_length <= 0xFFFF) {
      writer.write_nbo_16(static_cast<uint32_t>(packet_length));
    } else {
      writer.write_nbo_16(0);
    }
    // The length above counted an optional header that other streams don't get.
    if (header.stream_class != PES_CLASS_VIDEO && header.stream_class != PES_CLASS_AUDIO) {
      return true;
    }

    uint32_t flags = 0x8000 | (static_cast<uint32_t>(header.scrambling_control) << 12);
    if (header.data_alignment) flags |= 0x400;
    // A DTS without a PTS is written, but the flags don't announce it.
    if (has_pts) flags |= has_dts ? PES_PTS_FLAG | PES_DTS_FLAG : PES_PTS_FLAG;
    writer.write_nbo_16(flags);
    writer.write_byte(static_cast<uint32_t>(header_length));

    if (has_pts)
      write_time_stamp(writer, has_dts ? PREFIX_PTS_WITH_DTS : PREFIX_PTS_ONLY, header.pts);
    if (has_dts) write_time_stamp(writer, PREFIX_DTS, header.dts);
    for (int32_t i = 0; i < header.stuffing_length; i++) writer.write_byte(0xFF);
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

bool PESWriter::write_packet(const PESHeader& header, const std::string& data) {
  if (!write_header(header, static_cast<int32_t>(data.size()))) return false;
  try {
    writer.write(data);
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

}  // namespace Veldrin::IndexGen
