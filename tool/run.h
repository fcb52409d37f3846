#ifndef VELDRIN_TOOL_RUN_H
#define VELDRIN_TOOL_RUN_H

namespace Veldrin::Tool {

// The whole run of the indexer; gives the exit status.
int run(int argc, char** argv);

}  // namespace Veldrin::Tool

#endif
