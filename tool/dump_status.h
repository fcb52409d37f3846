#ifndef VELDRIN_TOOL_DUMP_STATUS_H
#define VELDRIN_TOOL_DUMP_STATUS_H

namespace Veldrin::Tool {

// The exit statuses of vdx2dump, all in one place.
enum DumpStatus : int {
  DUMP_OK = 0,         // done, --help, or a check that found nothing
  DUMP_USAGE = 1,      // bad command line
  DUMP_CANT_OPEN = 2,  // a file can't be opened, or standard output can't be written
  DUMP_BAD_INDEX = 3,  // not an index, a damaged or cut one, or no entry point for --at
  DUMP_PROBLEMS = 4,   // --check found problems
};

}  // namespace Veldrin::Tool

#endif
