// Shows what an index file holds, or replays the frames it indexes as a transport stream.
// Reads both formats, told apart by their magic: VDX2 (inline data and references) and VDX
// (frames copied into linked, page-aligned blocks).

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>

#include "foundation/channel/error.h"
#include "foundation/channel/stream_reader.h"
#include "index/index_file.h"
#include "index/index_reader.h"
#include "index2/block.h"
#include "tool/exit_status.h"

namespace {

using Veldrin::Tool::STATUS_BAD_INDEX;
using Veldrin::Tool::STATUS_CANT_OPEN;
using Veldrin::Tool::STATUS_OK;
using Veldrin::Tool::STATUS_USAGE;

constexpr size_t COPY_CHUNK = 65536;

struct Options {
  bool show_inline = false;
  bool replay = false;
  std::string source;
  std::string index;
};

// A failure that ends the run with a message and a status.
struct Failure {
  int status;
  std::string message;
};

void usage(std::ostream& out, const std::string& program) {
  out << "Usage:\n"
      << "  " << program << " [options] <index file>\n"
      << "\n"
      << "Shows a VDX2 or VDX index file; the format is told by its first bytes.\n"
      << "\n"
      << "Options:\n"
      << "  -?  --help             Print this help\n"
      << "  -x  --inline           Also show the inline data of VDX2 blocks and the frame\n"
      << "                         data of VDX blocks as hexadecimal\n"
      << "  -r  --replay <source>  Instead of the dump, write the indexed frames to standard\n"
      << "                         output as a transport stream, the way a player sends them.\n"
      << "                         <source> is the stream that was indexed, or the frame file\n"
      << "                         (.vdf) of a VDX2 index made with external frames. A VDX\n"
      << "                         index holds its frames itself and doesn't read <source>.\n"
      << "\n"
      << "Exit status: 0 done, 1 bad command line, 2 a file can't be opened or standard\n"
      << "output can't be written, 3 not an index file, or a damaged or cut one.\n";
}

// Copies length bytes from offset of the source to standard output.
void copy_range(std::istream& source, const std::string& name, uint64_t offset, uint64_t length) {
  auto fail = [&] {
    return Failure{STATUS_BAD_INDEX, name + ": reference of " + std::to_string(length) +
                                         " bytes at " + std::to_string(offset) +
                                         " runs past its end"};
  };
  if (offset > static_cast<uint64_t>(std::numeric_limits<std::streamoff>::max())) throw fail();
  source.clear();
  source.seekg(static_cast<std::streamoff>(offset));
  static char buffer[COPY_CHUNK];
  uint64_t left = length;
  while (left > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(left, COPY_CHUNK));
    source.read(buffer, static_cast<std::streamsize>(want));
    const auto got = static_cast<size_t>(source.gcount());
    std::cout.write(buffer, static_cast<std::streamsize>(got));
    if (got < want) throw fail();
    left -= got;
  }
}

void open_source(std::ifstream& source, const std::string& name) {
  source.open(name, std::ios::in | std::ios::binary);
  if (!source) {
    throw Failure{STATUS_CANT_OPEN, "can't open source " + name + ": " + std::strerror(errno)};
  }
}

void run_vdx2(std::istream& in, const Options& options) {
  Korvix::Channel::StreamReader reader(in);
  Veldrin::Index2::Header header;
  header.read(reader);

  std::ifstream source;
  if (options.replay)
    open_source(source, options.source);
  else
    header.dump(std::cout);

  Veldrin::Index2::Block block;
  block.size = header.block_size;
  // The file has no trailer: it ends after its last whole block.
  while (in.peek() != std::char_traits<char>::eof()) {
    block.read(reader);
    if (!options.replay) {
      block.dump(std::cout, options.show_inline);
      continue;
    }
    // A group replays as each block's inline data followed by its reference.
    std::cout.write(block.data.data(), static_cast<std::streamsize>(block.data.size()));
    if ((block.flags & Veldrin::Index2::FLAG_REF) && block.ref_length != 0)
      copy_range(source, options.source, block.ref_offset, block.ref_length);
  }
}

void run_vdx(std::istream& in, const Options& options) {
  Korvix::Channel::StreamReader channel(in);
  Veldrin::Index::IndexReader reader(channel);
  reader.read_header();
  if (!options.replay) reader.dump_header(std::cout);

  Veldrin::Index::FrameBlock block;
  for (uint32_t number = 0; reader.read_block(block); ++number) {
    if (options.replay)
      std::cout.write(block.data.data(), static_cast<std::streamsize>(block.data.size()));
    else
      Veldrin::Index::IndexReader::dump_block(std::cout, block, number, options.show_inline);
  }
}

void run(const Options& options) {
  std::ifstream in(options.index, std::ios::in | std::ios::binary);
  if (!in) {
    throw Failure{STATUS_CANT_OPEN, "can't open " + options.index + ": " + std::strerror(errno)};
  }
  unsigned char magic_bytes[4] = {0, 0, 0, 0};
  in.read(reinterpret_cast<char*>(magic_bytes), sizeof(magic_bytes));
  const bool whole = in.gcount() == sizeof(magic_bytes);
  const uint32_t magic = (uint32_t{magic_bytes[0]} << 24) | (uint32_t{magic_bytes[1]} << 16) |
                         (uint32_t{magic_bytes[2]} << 8) | magic_bytes[3];
  if (!whole || (magic != Veldrin::Index2::VDX2_MAGIC && magic != Veldrin::Index::VDX_MAGIC)) {
    throw Failure{STATUS_BAD_INDEX, options.index + " is neither a VDX2 nor a VDX index file"};
  }
  in.clear();
  in.seekg(0);

  try {
    if (magic == Veldrin::Index2::VDX2_MAGIC)
      run_vdx2(in, options);
    else
      run_vdx(in, options);
  } catch (const Korvix::Channel::Error& e) {
    // "EOF" and "Stream failed" are what a cut file gives.
    throw Failure{STATUS_BAD_INDEX, options.index + ": damaged or cut short (" + e.text + ")"};
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const std::string program = argc > 0 ? argv[0] : "vdx2dump";

  Options options;
  bool have_index = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-?" || arg == "--help") {
      usage(std::cout, program);
      return STATUS_OK;
    }
    if (arg == "-x" || arg == "--inline") {
      options.show_inline = true;
    } else if (arg == "-r" || arg == "--replay") {
      if (i + 1 >= argc) {
        std::cerr << program << ": " << arg << " needs the source file\n";
        return STATUS_USAGE;
      }
      options.replay = true;
      options.source = argv[++i];
    } else if (arg.size() > 1 && arg[0] == '-') {
      std::cerr << program << ": unknown option " << arg << "\n";
      usage(std::cerr, program);
      return STATUS_USAGE;
    } else if (!have_index) {
      options.index = arg;
      have_index = true;
    } else {
      std::cerr << program << ": only one index file, please: " << arg << "\n";
      return STATUS_USAGE;
    }
  }
  if (!have_index) {
    usage(std::cerr, program);
    return STATUS_USAGE;
  }

  try {
    run(options);
  } catch (const Failure& failure) {
    std::cout.flush();
    std::cerr << program << ": " << failure.message << "\n";
    return failure.status;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << program << ": can't write to standard output\n";
    return STATUS_CANT_OPEN;
  }
  return STATUS_OK;
}
