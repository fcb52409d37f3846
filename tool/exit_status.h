#ifndef VELDRIN_TOOL_EXIT_STATUS_H
#define VELDRIN_TOOL_EXIT_STATUS_H

namespace Veldrin::Tool {

// The exit statuses of the indexer and of the index inspector. The two share the first three.
enum ExitStatus : int {
  STATUS_OK = 0,              // done, or help asked for
  STATUS_USAGE = 1,           // no input named (the inspector: a bad command line)
  STATUS_CANT_OPEN = 2,       // a file can't be opened
  STATUS_UNKNOWN_FORMAT = 2,  // the indexer: an unknown -f value ends as a file that can't open
  STATUS_BAD_INDEX = 3,       // the inspector: not an index file, or a damaged or cut one
  STATUS_NO_ALIGNMENT = 6,    // no packet alignment at the start of the input file
  STATUS_NO_OFFSET_FILE = 7,  // the offset file can't be opened
  STATUS_SYNC_LOST = 9,       // the offset file lost step with the input before its end
};

}  // namespace Veldrin::Tool

#endif
