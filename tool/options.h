#ifndef VELDRIN_TOOL_OPTIONS_H
#define VELDRIN_TOOL_OPTIONS_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tool/exit_status.h"

namespace Veldrin::Tool {

constexpr const char* BANNER = "Veldrin MPEG2 Transport Stream indexer version 3.1.6";

// The index format of a run; the unknown-format message prints the number.
enum IndexFormat : int32_t {
  FORMAT_VDX = 0,
  FORMAT_VDX2 = 1,
};

// Everything the command line decides for a run, with its defaults.
struct Settings {
  int32_t log_level = 2;
  IndexFormat format = FORMAT_VDX2;
  int32_t index_links = 16;
  int32_t index_precision = 65536;
  int32_t index_flags = 0;
  int32_t index_block_size = 256;
  bool external_frames = false;
  std::string external_file;
  std::string offset_file;
  bool encrypt = false;
  std::string encrypt_file;
  std::string key_text;
  std::vector<std::string> key_encrypt_files;  // in the order given
  uint16_t ca_pid = 0;
  bool dump = false;
  bool seek_only = false;
  bool pcr_only = false;
  bool include_tables = true;
  bool trim_pmt = false;
  std::string input_file;
  std::string output_file;
  uint32_t start_offset = 0;
};

// What the option loop leaves for the run.
struct ParseOutcome {
  bool finished = false;  // the run ends here with status
  ExitStatus status = STATUS_OK;
  int next = 1;  // index of the first positional argument; argc if there is none
};

// The usage text; program is the first entry of the argument vector as given.
void print_usage(std::ostream& out, const std::string& program);

// The option loop. Usage goes to out; the messages of the loop go straight to err, since the
// log isn't connected yet. Ends the run for the help options (0) and an unknown format (2).
// Afterwards an external frame file forces bit 0 of the index flags.
ParseOutcome parse_options(int argc, const char* const* argv, Settings& settings, std::ostream& out,
                           std::ostream& err);

// Takes the input and output names from argv[next] on and derives the names not given, before
// "-" stands for standard input. False if there is no positional argument.
bool take_names(int argc, const char* const* argv, int next, Settings& settings);

}  // namespace Veldrin::Tool

#endif
