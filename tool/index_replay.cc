#include "tool/index_replay.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <vector>

#include "foundation/channel/stream_reader.h"
#include "index/index_reader.h"
#include "index2/block.h"
#include "tool/dump_failure.h"

namespace Veldrin::Tool {

namespace {

constexpr size_t COPY_CHUNK = 65536;

// Copies length bytes from offset of the source to out, through buffer.
void copy_range(std::istream& source, const std::string& name, uint64_t offset, uint64_t length,
                std::vector<char>& buffer, std::ostream& out) {
  auto fail = [&] {
    return DumpFailure{DUMP_BAD_INDEX, name + ": reference of " + std::to_string(length) +
                                           " bytes at " + std::to_string(offset) +
                                           " runs past its end"};
  };
  if (offset > static_cast<uint64_t>(std::numeric_limits<std::streamoff>::max())) throw fail();
  source.clear();
  source.seekg(static_cast<std::streamoff>(offset));
  uint64_t left = length;
  while (left > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(left, buffer.size()));
    source.read(buffer.data(), static_cast<std::streamsize>(want));
    const auto got = static_cast<size_t>(source.gcount());
    out.write(buffer.data(), static_cast<std::streamsize>(got));
    if (got < want) throw fail();
    left -= got;
  }
}

void replay_vdx2(std::istream& in, const std::string& source_name, std::ostream& out) {
  Korvix::Channel::StreamReader reader(in);
  Index2::Header header;
  header.read(reader);

  std::ifstream source(source_name, std::ios::in | std::ios::binary);
  if (!source) {
    throw DumpFailure{DUMP_CANT_OPEN,
                      "can't open source " + source_name + ": " + std::strerror(errno)};
  }
  std::vector<char> buffer(COPY_CHUNK);
  Index2::Block block;
  block.size = header.block_size;
  while (in.peek() != std::char_traits<char>::eof()) {
    block.read(reader);
    // A group replays as each block's inline data followed by its reference.
    out.write(block.data.data(), static_cast<std::streamsize>(block.data.size()));
    if ((block.flags & Index2::FLAG_REF) && block.ref_length != 0)
      copy_range(source, source_name, block.ref_offset, block.ref_length, buffer, out);
  }
}

void replay_vdx(std::istream& in, std::ostream& out) {
  Korvix::Channel::StreamReader channel(in);
  Index::IndexReader reader(channel);
  reader.read_header();
  Index::FrameBlock block;
  while (reader.read_block(block))
    out.write(block.data.data(), static_cast<std::streamsize>(block.data.size()));
}

}  // namespace

void replay_index(std::istream& in, IndexFormat format, const std::string& source,
                  std::ostream& out) {
  if (format == IndexFormat::VDX2)
    replay_vdx2(in, source, out);
  else
    replay_vdx(in, out);
}

}  // namespace Veldrin::Tool
