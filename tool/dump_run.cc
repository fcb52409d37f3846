#include "tool/dump_run.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

#include "foundation/channel/error.h"
#include "tool/dump_failure.h"
#include "tool/dump_options.h"
#include "tool/entry_point.h"
#include "tool/index_check.h"
#include "tool/index_format.h"
#include "tool/index_replay.h"
#include "tool/json_dump.h"
#include "tool/source_file.h"
#include "tool/text_dump.h"

namespace Veldrin::Tool {

namespace {

void show_entry_point(std::istream& in, IndexFormat format, const DumpOptions& options,
                      std::ostream& out) {
  const EntryPoints points = read_entry_points(in, format);
  if (points.points.empty()) {
    // An index of times only, as -S makes it.
    throw DumpFailure{DUMP_BAD_INDEX, options.index + ": no entry points: no frame is indexed"};
  }
  const EntryPoint& point = entry_point_at(points.points, options.seconds);
  if (options.json)
    write_entry_point_json(out, options.index, points, point, options.seconds);
  else
    write_entry_point_text(out, points, point);
}

DumpStatus check(std::istream& in, IndexFormat format, const DumpOptions& options,
                 std::ostream& out) {
  SourceFile source;
  if (!source.open(options.source)) {
    throw DumpFailure{DUMP_CANT_OPEN,
                      "can't open source " + options.source + ": " + std::strerror(errno)};
  }
  const CheckReport report = check_index(in, format, options.index, source, options.source, out);
  return report.problems == 0 ? DUMP_OK : DUMP_PROBLEMS;
}

DumpStatus run(const DumpOptions& options, std::ostream& out) {
  std::ifstream in;
  const IndexFormat format = open_index(in, options.index);
  try {
    switch (options.mode) {
      case DumpMode::CHECK:
        return check(in, format, options, out);
      case DumpMode::AT:
        show_entry_point(in, format, options, out);
        break;
      case DumpMode::REPLAY:
        replay_index(in, format, options.source, out);
        break;
      default:
        if (options.json)
          dump_index_json(in, format, options.index, out, options.show_inline);
        else
          dump_index_text(in, format, out, options.show_inline);
        break;
    }
    return DUMP_OK;
  } catch (const Korvix::Channel::Error& e) {
    // "EOF" and "Stream failed" are what a cut file gives.
    throw DumpFailure{DUMP_BAD_INDEX, options.index + ": damaged or cut short (" + e.text + ")"};
  }
}

}  // namespace

int run_vdx2dump(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  const std::string program = argc > 0 ? argv[0] : "vdx2dump";
  DumpOptions options;
  const DumpParse parse = parse_dump_options(argc, argv, options, out, err);
  if (parse.finished) return parse.status;

  DumpStatus status = DUMP_OK;
  try {
    status = run(options, out);
  } catch (const DumpFailure& failure) {
    out.flush();
    err << program << ": " << failure.message << "\n";
    return failure.status;
  }
  out.flush();
  if (!out) {
    err << program << ": can't write to standard output\n";
    return DUMP_CANT_OPEN;
  }
  return status;
}

}  // namespace Veldrin::Tool
