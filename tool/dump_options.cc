#include "tool/dump_options.h"

#include <charconv>
#include <cmath>
#include <system_error>

namespace Veldrin::Tool {

void print_dump_usage(std::ostream& out, const std::string& program) {
  out << "Usage:\n"
      << "  " << program << " [options] <index file>\n"
      << "\n"
      << "Shows a VDX2 or VDX index file; the format is told by its first bytes.\n"
      << "\n"
      << "Options:\n"
      << "  -?  --help             Print this help\n"
      << "  -x  --inline           Also show the inline data of VDX2 blocks and the frame\n"
      << "                         data of VDX blocks as hexadecimal\n"
      << "  -j  --json             Show the index, or the entry point of --at, as one JSON\n"
      << "                         document; NPT in whole milliseconds\n"
      << "  -a  --at <seconds>     Instead of the dump, show the entry point that a player\n"
      << "                         starts from for this normal play time: the last intra\n"
      << "                         frame at or before it (the first one for an earlier\n"
      << "                         time), as one line of entry=, block=, position=, npt=,\n"
      << "                         offset= and, with an external frame file, frame_offset=\n"
      << "  -c  --check <source>   Instead of the dump, check the index against the\n"
      << "                         recording it describes: one line a problem, then a\n"
      << "                         summary. <source> is as for --replay.\n"
      << "  -r  --replay <source>  Instead of the dump, write the indexed frames to standard\n"
      << "                         output as a transport stream, the way a player sends them.\n"
      << "                         <source> is the stream that was indexed, or the frame file\n"
      << "                         (.vdf) of a VDX2 index made with external frames. A VDX\n"
      << "                         index holds its frames itself and doesn't read <source>.\n"
      << "\n"
      << "Exit status: 0 done, 1 bad command line, 2 a file can't be opened or standard\n"
      << "output can't be written, 3 not an index file, a damaged or cut one, or no entry\n"
      << "point for --at, 4 --check found problems.\n";
}

bool parse_seconds(const std::string& text, double& seconds) {
  const char* begin = text.data();
  const char* end = begin + text.size();
  // from_chars takes a minus sign but no plus sign.
  if (begin != end && *begin == '+' && end - begin > 1 && begin[1] != '-') ++begin;
  double value = 0.0;
  const auto result = std::from_chars(begin, end, value, std::chars_format::general);
  if (result.ec != std::errc() || result.ptr != end || !std::isfinite(value)) return false;
  seconds = value;
  return true;
}

namespace {

// The value of an option that takes one; false, with the message on err, if none is left.
bool take_value(int argc, const char* const* argv, int& i, const std::string& program,
                const std::string& what, std::string& value, std::ostream& err) {
  if (i + 1 >= argc) {
    err << program << ": " << argv[i] << " needs " << what << "\n";
    return false;
  }
  value = argv[++i];
  return true;
}

}  // namespace

DumpParse parse_dump_options(int argc, const char* const* argv, DumpOptions& options,
                             std::ostream& out, std::ostream& err) {
  const std::string program = argc > 0 ? argv[0] : "vdx2dump";
  const DumpParse usage_error{true, DUMP_USAGE};
  bool have_index = false;
  bool replay = false;
  bool at = false;
  bool check = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-?" || arg == "--help") {
      print_dump_usage(out, program);
      return DumpParse{true, DUMP_OK};
    }
    if (arg == "-x" || arg == "--inline") {
      options.show_inline = true;
    } else if (arg == "-j" || arg == "--json") {
      options.json = true;
    } else if (arg == "-r" || arg == "--replay") {
      if (!take_value(argc, argv, i, program, "the source file", options.source, err))
        return usage_error;
      replay = true;
      options.mode = DumpMode::REPLAY;
    } else if (arg == "-c" || arg == "--check") {
      if (!take_value(argc, argv, i, program, "the source file", options.source, err))
        return usage_error;
      check = true;
      options.mode = DumpMode::CHECK;
    } else if (arg == "-a" || arg == "--at") {
      std::string text;
      if (!take_value(argc, argv, i, program, "a time in seconds", text, err)) return usage_error;
      if (!parse_seconds(text, options.seconds)) {
        err << program << ": " << arg << " needs a time in seconds, not " << text << "\n";
        return usage_error;
      }
      at = true;
      options.mode = DumpMode::AT;
    } else if (arg.size() > 1 && arg[0] == '-') {
      err << program << ": unknown option " << arg << "\n";
      print_dump_usage(err, program);
      return usage_error;
    } else if (!have_index) {
      options.index = arg;
      have_index = true;
    } else {
      err << program << ": only one index file, please: " << arg << "\n";
      return usage_error;
    }
  }
  if (int{replay} + int{at} + int{check} > 1) {
    err << program << ": --replay, --at and --check don't go together; choose one\n";
    return usage_error;
  }
  if (options.json && (replay || check)) {
    err << program << ": --json goes with the dump and --at only\n";
    return usage_error;
  }
  if (!have_index) {
    print_dump_usage(err, program);
    return usage_error;
  }
  return DumpParse{};
}

}  // namespace Veldrin::Tool
