#ifndef VDX_TESTS_SUPPORT_USAGE_TEXT_H
#define VDX_TESTS_SUPPORT_USAGE_TEXT_H

#include <string>
#include <vector>

namespace Veldrin::Testing {

// The usage text, line by line, written out as the tool must print it for a program name.
inline std::vector<std::string> expected_usage(const std::string& program) {
  return {
      "Veldrin MPEG2 Transport Stream indexer version 3.1.6",
      "",
      "Usage:",
      "  " + program + " [options] <input TS file> [<output VDX file>]",
      "",
      "General options:",
      "  -?  --help           Print this help",
      "  -q  --quiet          More quiet",
      "  -v  --verbose        More verbose",
      "  -f  --format <fmt>   Format to use (VDX|vdx|VDX2|vdx2). Default is VDX2.",
      "  -e  --encrypt <file> Encrypt stream and write to file",
      "  -c  --ca-pid <n>     Capture CA data from PID",
      "  -d  --dump           Dump selected TS stream to stdout",
      "  -s  --seek-only      Generate offset index for seek only (no frames)",
      "  -S  --seek-pcr-only  As -s but using only PCR values (not video frames)",
      "  -t  --tables         Include captured PAT/PMT/CAT before each block (default)",
      "  -T  --trim-pmt       Trim non-video,non-CA pids from PMT",
      "  -n  --no-tables      Don't include captured PAT/PMT/CAT",
      "  -O  --offset-file <file>  Sync offsets to the given file by PCR",
      "",
      "Index format options (VDX):",
      "  -In --index-links <n>  Set number of backward/forward links in blocks (16)",
      "  -Ip --index-precision <n> Set the precision of the offset index (65536)",
      "",
      "Index format options (VDX2):",
      "  -If --index-flags <n>  Set flags (0)",
      "  -Ib --index-blocksize <n> Set the block size for the index (256)",
      "  -Ix --index-external-frames  Create an external frame file (.vdf)",
      "  -IX --index-external-file <file>  Create an external frame file",
      "",
      "Encryption options:",
      "  -Ek --key <key text> Set the key from hex string",
      "  -Ee --key-encrypt <file> Encrypt the key using given a PEM file",
      "                           Can be issued multiple times",
      "",
      "Creates an indexed I-frame VDX file from an MPEG-2 transport stream",
      "If output not specified, appends .vdx2 or .vdx to the input filename according to the "
      "format",
      "",
  };
}

}  // namespace Veldrin::Testing

#endif
