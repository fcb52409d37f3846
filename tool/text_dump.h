#ifndef VELDRIN_TOOL_TEXT_DUMP_H
#define VELDRIN_TOOL_TEXT_DUMP_H

#include <istream>
#include <ostream>

#include "tool/index_format.h"

namespace Veldrin::Tool {

// Prints the header and every block of an index, the stream standing at its start. show_inline
// adds a hex dump of the inline data of VDX2 blocks and of the frame data of VDX blocks. What
// was printed stays printed when the file turns out damaged or cut: the Korvix::Channel::Error
// of the reader passes to the caller.
void dump_index_text(std::istream& in, IndexFormat format, std::ostream& out, bool show_inline);

}  // namespace Veldrin::Tool

#endif
