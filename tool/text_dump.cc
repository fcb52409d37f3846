#include "tool/text_dump.h"

#include <cstdint>
#include <string>

#include "foundation/channel/stream_reader.h"
#include "index/index_reader.h"
#include "index2/block.h"

namespace Veldrin::Tool {

namespace {

void dump_vdx2(std::istream& in, std::ostream& out, bool show_inline) {
  Korvix::Channel::StreamReader reader(in);
  Index2::Header header;
  header.read(reader);
  header.dump(out);
  Index2::Block block;
  block.size = header.block_size;
  // The file has no trailer: it ends after its last whole block.
  while (in.peek() != std::char_traits<char>::eof()) {
    block.read(reader);
    block.dump(out, show_inline);
  }
}

void dump_vdx(std::istream& in, std::ostream& out, bool show_inline) {
  Korvix::Channel::StreamReader channel(in);
  Index::IndexReader reader(channel);
  reader.read_header();
  reader.dump_header(out);
  Index::FrameBlock block;
  for (uint32_t number = 0; reader.read_block(block); ++number)
    Index::IndexReader::dump_block(out, block, number, show_inline);
}

}  // namespace

void dump_index_text(std::istream& in, IndexFormat format, std::ostream& out, bool show_inline) {
  if (format == IndexFormat::VDX2)
    dump_vdx2(in, out, show_inline);
  else
    dump_vdx(in, out, show_inline);
}

}  // namespace Veldrin::Tool
