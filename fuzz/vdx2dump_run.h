#ifndef VELDRIN_FUZZ_VDX2DUMP_RUN_H
#define VELDRIN_FUZZ_VDX2DUMP_RUN_H

// vdx2dump over an index file and the recording it refers to, both cut from one input: the text
// and JSON dumps with the inline data, the entry point query, the check against the recording
// and the replay, each run as the command line would run it.
//
// Layout of an input:
//   bytes 0-3   where the rest is cut: the index file is the magic of the format followed by
//               the first (value % (rest + 1)) bytes, the recording what follows
//   bytes 4-7   the time of --at in milliseconds, signed
//   then        the rest

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "tool/dump_run.h"

namespace Veldrin::Fuzz {

constexpr size_t DUMP_HEADER_SIZE = 8;

inline void write_file(const std::string& name, const unsigned char* data, size_t size) {
  std::ofstream file(name, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (!file) std::abort();
}

// Runs vdx2dump with these arguments; every status is a possible answer to a damaged file, but
// one outside those the tool documents is not.
inline void run_dump(const std::vector<std::string>& arguments) {
  std::vector<const char*> argv;
  argv.push_back("vdx2dump");
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  NullBuffer discard;
  std::ostream out(&discard);
  std::ostringstream err;
  const int status = Tool::run_vdx2dump(static_cast<int>(argv.size()), argv.data(), out, err);
  if (status < 0 || status > 4) std::abort();
}

// magic is the four bytes that open an index of the format under test.
inline void run_vdx2dump_on(const uint8_t* data, size_t size, const char (&magic)[5]) {
  const ScratchDir& scratch = ScratchDir::get();
  Choices choices(data, size);
  const uint32_t cut = choices.u32();
  const int32_t at_ms = static_cast<int32_t>(choices.u32());
  choices.skip_to(DUMP_HEADER_SIZE);
  const uint8_t* rest = choices.rest();
  const size_t rest_size = choices.rest_size();
  const size_t index_size = cut % (rest_size + 1);

  const std::string index = scratch.file("dumped.index");
  const std::string source = scratch.file("dumped.ts");
  {
    std::ofstream file(index, std::ios::binary | std::ios::trunc);
    file.write(magic, 4);
    file.write(reinterpret_cast<const char*>(rest), static_cast<std::streamsize>(index_size));
    if (!file) std::abort();
  }
  write_file(source, rest + index_size, rest_size - index_size);

  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.3f", at_ms / 1000.0);

  run_dump({"--inline", index});
  run_dump({"--json", "--inline", index});
  run_dump({"--at", seconds, index});
  run_dump({"--json", "--at", seconds, index});
  run_dump({"--check", source, index});
  run_dump({"--replay", source, index});
}

}  // namespace Veldrin::Fuzz

#endif
