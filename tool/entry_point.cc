#include "tool/entry_point.h"

#include "foundation/channel/stream_reader.h"
#include "foundation/text/json_writer.h"
#include "index/index_reader.h"
#include "tool/stored_npt.h"

namespace Veldrin::Tool {

namespace {

// The block carries on the group of the block ahead of it.
bool continues(const Index2::Block& block, const Index2::Block& previous) {
  return block.count != 0 && block.count == previous.count && block.index == previous.index + 1;
}

EntryPoints read_vdx2(std::istream& in) {
  Korvix::Channel::StreamReader reader(in);
  Index2::Header header;
  header.read(reader);
  EntryPoints points;
  points.format = IndexFormat::VDX2;
  points.external_frames = (header.flags & Index2::FLAG_EXTERNAL_FRAMES) != 0;

  Index2::Block block;
  Index2::Block previous;
  block.size = header.block_size;
  bool have_previous = false;
  // The newest entry point still looks for its first reference within its frame.
  bool awaiting_reference = false;
  for (uint64_t number = 0; in.peek() != std::char_traits<char>::eof(); ++number) {
    const uint64_t position = reader.offset;
    block.read(reader);
    const bool start = starts_frame(block, have_previous ? &previous : nullptr);
    if (start) {
      EntryPoint point;
      point.number = points.points.size();
      point.block = number;
      point.position = position;
      point.npt_ms = stored_milliseconds(block.npt);
      point.offset = block.offset;
      points.points.push_back(point);
      awaiting_reference = points.external_frames;
    } else if (awaiting_reference && !continues(block, previous)) {
      awaiting_reference = false;
    }
    if (awaiting_reference && (block.flags & Index2::FLAG_REF)) {
      points.points.back().has_frame_offset = true;
      points.points.back().frame_offset = block.ref_offset;
      awaiting_reference = false;
    }
    std::swap(previous, block);
    block.size = header.block_size;
    have_previous = true;
  }
  return points;
}

EntryPoints read_vdx(std::istream& in) {
  Korvix::Channel::StreamReader channel(in);
  Index::IndexReader reader(channel);
  reader.read_header();
  EntryPoints points;
  points.format = IndexFormat::VDX;
  Index::FrameBlock block;
  for (uint64_t number = 0; reader.read_block(block); ++number) {
    EntryPoint point;
    point.number = number;
    point.block = number;
    point.position = block.position;
    point.npt_ms = stored_milliseconds(block.npt);
    point.offset = block.offset;
    points.points.push_back(point);
  }
  return points;
}

}  // namespace

bool starts_frame(const Index2::Block& block, const Index2::Block* previous) {
  if (block.count != 0 && block.index == 0) return true;
  if (block.flags & Index2::FLAG_INTRA) return true;
  if (block.flags & Index2::FLAG_VIDEO_START) {
    const bool after_own_tables =
        previous != nullptr && continues(block, *previous) && previous->offset == block.offset;
    return !after_own_tables;
  }
  return false;
}

EntryPoints read_entry_points(std::istream& in, IndexFormat format) {
  return format == IndexFormat::VDX2 ? read_vdx2(in) : read_vdx(in);
}

const EntryPoint& entry_point_at(const std::vector<EntryPoint>& points, double seconds) {
  const EntryPoint* chosen = &points.front();
  // NPT is compared as the readers give it back, so that a time typed as shown compares equal.
  for (const EntryPoint& point : points)
    if (point.npt_ms / 1000.0 <= seconds) chosen = &point;
  return *chosen;
}

void write_entry_point_text(std::ostream& out, const EntryPoints& points, const EntryPoint& point) {
  out << "entry=" << point.number << " block=" << point.block << " position=" << point.position
      << " npt=" << milliseconds_as_seconds(point.npt_ms) << " offset=" << point.offset;
  if (points.external_frames) {
    out << " frame_offset=";
    if (point.has_frame_offset)
      out << point.frame_offset;
    else
      out << "none";
  }
  out << "\n";
}

void write_entry_point_json(std::ostream& out, const std::string& index, const EntryPoints& points,
                            const EntryPoint& point, double seconds) {
  Korvix::Text::JsonWriter json(out);
  json.begin_object();
  json.key("index").string_value(index);
  json.key("format").string_value(index_format_name(points.format));
  json.key("seconds").double_value(seconds);
  json.key("entry_points").unsigned_value(points.points.size());
  json.key("entry").unsigned_value(point.number);
  json.key("block").unsigned_value(point.block);
  json.key("position").unsigned_value(point.position);
  json.key("npt_ms").unsigned_value(point.npt_ms);
  json.key("offset").unsigned_value(point.offset);
  if (points.external_frames) {
    json.key("frame_offset");
    if (point.has_frame_offset)
      json.unsigned_value(point.frame_offset);
    else
      json.null_value();
  }
  json.end_object();
  json.finish();
}

}  // namespace Veldrin::Tool
