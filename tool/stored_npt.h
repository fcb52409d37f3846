#ifndef VELDRIN_TOOL_STORED_NPT_H
#define VELDRIN_TOOL_STORED_NPT_H

#include <cstdint>
#include <string>

namespace Veldrin::Tool {

// Both index formats store NPT as whole milliseconds, and their readers give it back as that
// number divided by 1000.0. These undo the division exactly, and show the number as seconds.

// The stored milliseconds of an NPT as the readers give it.
uint32_t stored_milliseconds(double seconds);

// Milliseconds as seconds with three decimals: 12500 is "12.500", 7 is "0.007".
std::string milliseconds_as_seconds(uint32_t milliseconds);

}  // namespace Veldrin::Tool

#endif
