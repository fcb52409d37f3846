#ifndef VELDRIN_TOOL_DUMP_RUN_H
#define VELDRIN_TOOL_DUMP_RUN_H

#include <ostream>

namespace Veldrin::Tool {

// The whole run of vdx2dump, with standard output and standard error given; gives the exit
// status (DumpStatus).
int run_vdx2dump(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace Veldrin::Tool

#endif
