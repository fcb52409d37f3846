#include "tool/json_dump.h"

#include <cstdint>
#include <string>

#include "foundation/channel/error.h"
#include "foundation/channel/stream_reader.h"
#include "foundation/text/json_writer.h"
#include "foundation/text/text.h"
#include "index/index_file.h"
#include "index/index_reader.h"
#include "index2/block.h"
#include "tool/stored_npt.h"

namespace Veldrin::Tool {

namespace {

using Korvix::Text::JsonWriter;

// Pretty at the top; each block and each table entry on a line of its own.
constexpr int32_t JSON_INDENT = 2;
constexpr int32_t JSON_FLAT_DEPTH = 2;

void write_data(JsonWriter& json, const std::string& data) {
  json.key("data").string_value(
      Korvix::Text::bytes_to_hex(reinterpret_cast<const unsigned char*>(data.data()), data.size()));
}

void write_flag_names(JsonWriter& json, uint32_t flags) {
  json.key("flag_names");
  json.begin_array();
  if (flags & Index2::FLAG_NEW_NPT) json.string_value("NEW_NPT");
  if (flags & Index2::FLAG_INTRA) json.string_value("INTRA");
  if (flags & Index2::FLAG_REF) json.string_value("REF");
  if (flags & Index2::FLAG_VIDEO_START) json.string_value("VIDEO_START");
  json.end_array();
}

void write_sizes(JsonWriter& json, const char* name, const std::vector<uint32_t>& sizes) {
  json.key(name);
  json.begin_array();
  for (uint32_t size : sizes) json.unsigned_value(size);
  json.end_array();
}

// Ends a document whose blocks array stands open, after a read that failed.
void end_with_error(JsonWriter& json, const Korvix::Channel::Error& error) {
  json.end_array();
  json.key("error").string_value("damaged or cut short (" + error.text + ")");
  json.end_object();
  json.finish();
}

// Opens the document with the index's name and format, and opens its header object.
void begin_document(JsonWriter& json, const std::string& name, const char* format) {
  json.begin_object();
  json.key("index").string_value(name);
  json.key("format").string_value(format);
  json.key("header");
  json.begin_object();
}

// Writes the blocks array, one block a call of write_block until it returns false, and ends the
// document. A read that fails ends the document with the error, which goes on to the caller.
template <typename WriteBlock>
void write_blocks(JsonWriter& json, WriteBlock write_block) {
  json.key("blocks");
  json.begin_array();
  try {
    while (write_block()) {
    }
  } catch (const Korvix::Channel::Error& error) {
    end_with_error(json, error);
    throw;
  }
  json.end_array();
  json.end_object();
  json.finish();
}

void dump_vdx2(std::istream& in, const std::string& name, std::ostream& out, bool show_data) {
  Korvix::Channel::StreamReader reader(in);
  Index2::Header header;
  header.read(reader);
  const uint64_t header_size = reader.offset;

  JsonWriter json(out, JSON_INDENT, JSON_FLAT_DEPTH);
  begin_document(json, name, "VDX2");
  json.key("header_size").unsigned_value(header_size);
  json.key("flags").unsigned_value(header.flags);
  json.key("external_frames").bool_value((header.flags & Index2::FLAG_EXTERNAL_FRAMES) != 0);
  json.key("block_size").unsigned_value(header.block_size);
  json.end_object();

  Index2::Block block;
  block.size = header.block_size;
  uint64_t number = 0;
  uint64_t groups = 0;  // groups begun so far
  write_blocks(json, [&] {
    if (in.peek() == std::char_traits<char>::eof()) return false;
    const uint64_t position = reader.offset;
    block.read(reader);
    const bool grouped = block.count != 0;
    if (grouped && (block.index == 0 || groups == 0)) ++groups;
    json.begin_object();
    json.key("number").unsigned_value(number++);
    json.key("position").unsigned_value(position);
    json.key("offset").unsigned_value(block.offset);
    json.key("npt_ms").unsigned_value(stored_milliseconds(block.npt));
    json.key("flags").unsigned_value(block.flags);
    write_flag_names(json, block.flags);
    json.key("count").unsigned_value(block.count);
    json.key("index").unsigned_value(block.index);
    json.key("group");
    if (grouped)
      json.unsigned_value(groups - 1);
    else
      json.null_value();
    json.key("ref_length").unsigned_value(block.ref_length);
    json.key("ref_offset").unsigned_value(block.ref_offset);
    json.key("data_length").unsigned_value(block.data.size());
    if (show_data) write_data(json, block.data);
    json.end_object();
    return true;
  });
}

void dump_vdx(std::istream& in, const std::string& name, std::ostream& out, bool show_data) {
  Korvix::Channel::StreamReader channel(in);
  Index::IndexReader reader(channel);
  reader.read_header();

  JsonWriter json(out, JSON_INDENT, JSON_FLAT_DEPTH);
  begin_document(json, name, "VDX");
  json.key("header_size").unsigned_value(reader.header_size);
  json.key("version").unsigned_value(reader.version);
  json.key("blocks").unsigned_value(reader.blocks);
  json.key("precision").unsigned_value(reader.precision);
  json.key("entries").unsigned_value(reader.table.size());
  json.end_object();
  json.key("table");
  json.begin_array();
  for (size_t i = 0; i < reader.table.size(); ++i) {
    const Index::TableEntry& entry = reader.table[i];
    json.begin_object();
    json.key("number").unsigned_value(i);
    json.key("source_position").unsigned_value(uint64_t{reader.precision} * i);
    json.key("block_page").unsigned_value(entry.block_page);
    json.key("block_position").unsigned_value(uint64_t{entry.block_page} * Index::PAGE_SIZE);
    json.key("npt_ms").unsigned_value(stored_milliseconds(entry.npt));
    json.key("offset").unsigned_value(entry.offset);
    json.end_object();
  }
  json.end_array();

  Index::FrameBlock block;
  uint64_t number = 0;
  write_blocks(json, [&] {
    if (!reader.read_block(block)) return false;
    json.begin_object();
    json.key("number").unsigned_value(number++);
    json.key("position").unsigned_value(block.position);
    json.key("size").unsigned_value(block.size);
    json.key("npt_ms").unsigned_value(stored_milliseconds(block.npt));
    json.key("offset").unsigned_value(block.offset);
    write_sizes(json, "forward", block.forward);
    write_sizes(json, "backward", block.backward);
    if (show_data) write_data(json, block.data);
    json.end_object();
    return true;
  });
}

}  // namespace

void dump_index_json(std::istream& in, IndexFormat format, const std::string& name,
                     std::ostream& out, bool show_data) {
  if (format == IndexFormat::VDX2)
    dump_vdx2(in, name, out, show_data);
  else
    dump_vdx(in, name, out, show_data);
}

}  // namespace Veldrin::Tool
