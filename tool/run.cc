#include "tool/run.h"

namespace Veldrin::Tool {

int run(int, char**) { return 1; }

}  // namespace Veldrin::Tool
