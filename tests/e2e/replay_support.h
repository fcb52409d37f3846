#ifndef VDX_TESTS_E2E_REPLAY_SUPPORT_H
#define VDX_TESTS_E2E_REPLAY_SUPPORT_H

#include <string>
#include <vector>

#include "e2e/tool_runner.h"

namespace Veldrin::Testing {

// The full path of a program found on PATH; empty if there is none.
std::string find_program(const std::string& name);

// True when the environment says the tests run in continuous integration (CI=true), where the
// checks that need the decoder must run and never skip.
bool in_ci();

// What the decoder made of a transport stream.
struct Decoded {
  int status = -1;                         // of the decoder
  std::string errors;                      // its error output at level "error"
  std::vector<std::string> hashes;         // MD5 of each decoded picture, in output order
  std::vector<std::string> picture_types;  // "I", "P", "B" of each picture
};

// Decodes the video of a transport stream file with ffmpeg and ffprobe.
Decoded decode(const std::string& path);

// Runs build/vdx2dump with the given arguments.
RunResult run_vdx2dump(const std::vector<std::string>& args, const std::string& working_dir = "");

// Names of the MPEG-2 fixture streams, such as "mpeg2_bframes.ts", in order.
std::vector<std::string> mpeg2_fixtures();

}  // namespace Veldrin::Testing

// Ends the test when ffmpeg is missing: as a failure in CI, as a skip elsewhere.
#define VDX_REQUIRE_FFMPEG()                                                      \
  do {                                                                            \
    if (::Veldrin::Testing::find_program("ffmpeg").empty() ||                     \
        ::Veldrin::Testing::find_program("ffprobe").empty()) {                    \
      if (::Veldrin::Testing::in_ci()) FAIL() << "ffmpeg and ffprobe are needed"; \
      GTEST_SKIP() << "ffmpeg or ffprobe not installed";                          \
    }                                                                             \
  } while (0)

#endif
