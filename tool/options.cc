#include "tool/options.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "index2/block.h"

namespace Veldrin::Tool {

namespace {

enum OptionId {
  OPTION_HELP,
  OPTION_QUIET,
  OPTION_VERBOSE,
  OPTION_FORMAT,
  OPTION_ENCRYPT,
  OPTION_CA_PID,
  OPTION_DUMP,
  OPTION_SEEK_ONLY,
  OPTION_SEEK_PCR_ONLY,
  OPTION_TABLES,
  OPTION_TRIM_PMT,
  OPTION_NO_TABLES,
  OPTION_OFFSET_FILE,
  OPTION_INDEX_SYNC_FILE,
  OPTION_INDEX_LINKS,
  OPTION_INDEX_PRECISION,
  OPTION_INDEX_FLAGS,
  OPTION_INDEX_BLOCK_SIZE,
  OPTION_INDEX_EXTERNAL_FRAMES,
  OPTION_INDEX_EXTERNAL_FILE,
  OPTION_KEY,
  OPTION_KEY_ENCRYPT,
};

struct OptionName {
  OptionId id;
  const char* short_name;
  const char* long_name;
  bool takes_argument;
};

constexpr OptionName OPTIONS[] = {
    {OPTION_HELP, "-?", "--help", false},
    {OPTION_QUIET, "-q", "--quiet", false},
    {OPTION_VERBOSE, "-v", "--verbose", false},
    {OPTION_FORMAT, "-f", "--format", true},
    {OPTION_ENCRYPT, "-e", "--encrypt", true},
    {OPTION_CA_PID, "-c", "--ca-pid", true},
    {OPTION_DUMP, "-d", "--dump", false},
    {OPTION_SEEK_ONLY, "-s", "--seek-only", false},
    {OPTION_SEEK_PCR_ONLY, "-S", "--seek-pcr-only", false},
    {OPTION_TABLES, "-t", "--tables", false},
    {OPTION_TRIM_PMT, "-T", "--trim-pmt", false},
    {OPTION_NO_TABLES, "-n", "--no-tables", false},
    {OPTION_OFFSET_FILE, "-O", "--offset-file", true},
    {OPTION_INDEX_SYNC_FILE, "-Is", "--index-sync-file", true},
    {OPTION_INDEX_LINKS, "-In", "--index-links", true},
    {OPTION_INDEX_PRECISION, "-Ip", "--index-precision", true},
    {OPTION_INDEX_FLAGS, "-If", "--index-flags", true},
    {OPTION_INDEX_BLOCK_SIZE, "-Ib", "--index-blocksize", true},
    {OPTION_INDEX_EXTERNAL_FRAMES, "-Ix", "--index-external-frames", false},
    {OPTION_INDEX_EXTERNAL_FILE, "-IX", "--index-external-file", true},
    {OPTION_KEY, "-Ek", "--key", true},
    {OPTION_KEY_ENCRYPT, "-Ee", "--key-encrypt", true},
};

const char* const USAGE_BODY =
    " [options] <input TS file> [<output VDX file>]\n"
    "\n"
    "General options:\n"
    "  -?  --help           Print this help\n"
    "  -q  --quiet          More quiet\n"
    "  -v  --verbose        More verbose\n"
    "  -f  --format <fmt>   Format to use (VDX|vdx|VDX2|vdx2). Default is VDX2.\n"
    "  -e  --encrypt <file> Encrypt stream and write to file\n"
    "  -c  --ca-pid <n>     Capture CA data from PID\n"
    "  -d  --dump           Dump selected TS stream to stdout\n"
    "  -s  --seek-only      Generate offset index for seek only (no frames)\n"
    "  -S  --seek-pcr-only  As -s but using only PCR values (not video frames)\n"
    "  -t  --tables         Include captured PAT/PMT/CAT before each block (default)\n"
    "  -T  --trim-pmt       Trim non-video,non-CA pids from PMT\n"
    "  -n  --no-tables      Don't include captured PAT/PMT/CAT\n"
    "  -O  --offset-file <file>  Sync offsets to the given file by PCR\n"
    "\n"
    "Index format options (VDX):\n"
    "  -In --index-links <n>  Set number of backward/forward links in blocks (16)\n"
    "  -Ip --index-precision <n> Set the precision of the offset index (65536)\n"
    "\n"
    "Index format options (VDX2):\n"
    "  -If --index-flags <n>  Set flags (0)\n"
    "  -Ib --index-blocksize <n> Set the block size for the index (256)\n"
    "  -Ix --index-external-frames  Create an external frame file (.vdf)\n"
    "  -IX --index-external-file <file>  Create an external frame file\n"
    "\n"
    "Encryption options:\n"
    "  -Ek --key <key text> Set the key from hex string\n"
    "  -Ee --key-encrypt <file> Encrypt the key using given a PEM file\n"
    "                           Can be issued multiple times\n"
    "\n"
    "Creates an indexed I-frame VDX file from an MPEG-2 transport stream\n"
    "If output not specified, appends .vdx2 or .vdx to the input filename according to the "
    "format\n"
    "\n";

// strtol in base 10, cut to the low 32 bits.
int32_t number_32(const char* text) {
  return static_cast<int32_t>(static_cast<uint32_t>(std::strtol(text, nullptr, 10)));
}

uint16_t number_16(const char* text) {
  return static_cast<uint16_t>(std::strtol(text, nullptr, 10));
}

std::string lower_case(const char* text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

const OptionName* match(const char* arg, bool argument_available) {
  for (const OptionName& option : OPTIONS) {
    if (option.takes_argument && !argument_available) continue;
    if (std::strcmp(arg, option.short_name) == 0 || std::strcmp(arg, option.long_name) == 0)
      return &option;
  }
  return nullptr;
}

bool is_option(const char* arg) {
  return arg[0] == '-' && arg[1] != '\0';
}

}  // namespace

void print_usage(std::ostream& out, const std::string& program) {
  out << BANNER << "\n\nUsage:\n  " << program << USAGE_BODY;
  out.flush();
}

ParseOutcome parse_options(int argc, const char* const* argv, Settings& settings, std::ostream& out,
                           std::ostream& err) {
  ParseOutcome outcome;
  int i = 1;
  for (; i < argc && is_option(argv[i]); ++i) {
    const char* arg = argv[i];
    const OptionName* option = match(arg, i + 1 < argc);
    if (option == nullptr) {
      err << "Unknown option " << arg << " ignored" << std::endl;
      continue;
    }
    const char* value = option->takes_argument ? argv[++i] : nullptr;
    switch (option->id) {
      case OPTION_HELP:
        print_usage(out, argv[0] != nullptr ? argv[0] : "");
        outcome.finished = true;
        outcome.status = STATUS_OK;
        return outcome;
      case OPTION_QUIET:
        settings.log_level--;
        break;
      case OPTION_VERBOSE:
        settings.log_level++;
        break;
      case OPTION_FORMAT: {
        std::string format = lower_case(value);
        if (format == "vdx") {
          settings.format = FORMAT_VDX;
        } else if (format == "vdx2") {
          settings.format = FORMAT_VDX2;
        } else {
          // The number, not the text typed: the setting as it stands.
          err << "Unknown format " << settings.format << " specified" << std::endl;
          outcome.finished = true;
          outcome.status = STATUS_UNKNOWN_FORMAT;
          return outcome;
        }
        break;
      }
      case OPTION_ENCRYPT:
        settings.encrypt_file = value;
        settings.encrypt = true;
        break;
      case OPTION_CA_PID:
        settings.ca_pid = number_16(value);
        break;
      case OPTION_DUMP:
        settings.dump = true;
        break;
      case OPTION_SEEK_ONLY:
        settings.seek_only = true;
        break;
      case OPTION_SEEK_PCR_ONLY:
        settings.seek_only = true;
        settings.pcr_only = true;
        break;
      case OPTION_TABLES:
        settings.include_tables = true;
        break;
      case OPTION_TRIM_PMT:
        settings.trim_pmt = true;
        break;
      case OPTION_NO_TABLES:
        settings.include_tables = false;
        break;
      case OPTION_OFFSET_FILE:
      case OPTION_INDEX_SYNC_FILE:
        settings.offset_file = value;
        break;
      case OPTION_INDEX_LINKS:
        settings.index_links = number_32(value);
        break;
      case OPTION_INDEX_PRECISION:
        settings.index_precision = number_32(value);
        break;
      case OPTION_INDEX_FLAGS:
        settings.index_flags = number_32(value);
        break;
      case OPTION_INDEX_BLOCK_SIZE:
        settings.index_block_size = number_32(value);
        break;
      case OPTION_INDEX_EXTERNAL_FRAMES:
        settings.external_frames = true;
        break;
      case OPTION_INDEX_EXTERNAL_FILE:
        settings.external_file = value;
        settings.external_frames = true;
        break;
      case OPTION_KEY:
        settings.key_text = value;
        break;
      case OPTION_KEY_ENCRYPT:
        settings.key_encrypt_files.push_back(value);
        break;
    }
  }
  if (settings.external_frames) {
    settings.index_flags |= static_cast<int32_t>(Index2::FLAG_EXTERNAL_FRAMES);
  }
  outcome.next = i;
  return outcome;
}

bool take_names(int argc, const char* const* argv, int next, Settings& settings) {
  if (next >= argc) return false;
  settings.input_file = argv[next];
  if (next + 1 < argc) {
    settings.output_file = argv[next + 1];
  } else {
    settings.output_file = settings.input_file + (settings.format == FORMAT_VDX ? ".vdx" : ".vdx2");
  }
  if (settings.external_frames && settings.external_file.empty())
    settings.external_file = settings.input_file + ".vdf";
  return true;
}

}  // namespace Veldrin::Tool
