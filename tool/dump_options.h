#ifndef VELDRIN_TOOL_DUMP_OPTIONS_H
#define VELDRIN_TOOL_DUMP_OPTIONS_H

#include <ostream>
#include <string>

#include "tool/dump_status.h"

namespace Veldrin::Tool {

// What vdx2dump does with the index.
enum class DumpMode {
  DUMP,    // header and blocks, as text or JSON
  REPLAY,  // the indexed frames as a transport stream
  AT,      // the entry point for a time
  CHECK,   // the index against its recording
};

// Everything the command line of vdx2dump decides.
struct DumpOptions {
  DumpMode mode = DumpMode::DUMP;
  bool show_inline = false;
  bool json = false;
  double seconds = 0.0;  // of --at
  std::string source;    // of --replay and --check
  std::string index;
};

// What the option loop leaves for the run.
struct DumpParse {
  bool finished = false;  // the run ends here with status
  DumpStatus status = DUMP_OK;
};

// The usage text; program is the first entry of the argument vector as given.
void print_dump_usage(std::ostream& out, const std::string& program);

// Reads the whole command line. Options may stand before or after the index name. The help
// ends the run with the usage on out; a bad command line ends it with a message on err.
DumpParse parse_dump_options(int argc, const char* const* argv, DumpOptions& options,
                             std::ostream& out, std::ostream& err);

// A time in seconds as typed: decimal, with an optional sign, fraction and exponent, and nothing
// behind it. False for anything else, and for values that are not finite.
bool parse_seconds(const std::string& text, double& seconds);

}  // namespace Veldrin::Tool

#endif
