#ifndef VELDRIN_TOOL_EXIT_STATUS_H
#define VELDRIN_TOOL_EXIT_STATUS_H

namespace Veldrin::Tool {

// The exit statuses of the indexer. The index inspector has its own, in dump_status.h.
enum ExitStatus : int {
  STATUS_OK = 0,              // done, or help asked for
  STATUS_USAGE = 1,           // no input named
  STATUS_CANT_OPEN = 2,       // a file can't be opened
  STATUS_UNKNOWN_FORMAT = 2,  // an unknown -f value ends as a file that can't open
  STATUS_NO_ALIGNMENT = 6,    // no packet alignment at the start of the input file
  STATUS_NO_OFFSET_FILE = 7,  // the offset file can't be opened
  STATUS_SYNC_LOST = 9,       // the offset file lost step with the input before its end
};

}  // namespace Veldrin::Tool

#endif
