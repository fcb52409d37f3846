#ifndef VELDRIN_TOOL_DUMP_FAILURE_H
#define VELDRIN_TOOL_DUMP_FAILURE_H

#include <string>

#include "tool/dump_status.h"

namespace Veldrin::Tool {

// A failure that ends a run of vdx2dump with a message on standard error and a status.
struct DumpFailure {
  DumpStatus status;
  std::string message;
};

}  // namespace Veldrin::Tool

#endif
