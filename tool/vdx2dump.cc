// Shows what an index file holds, or replays the frames it indexes as a transport stream.
// Reads both formats, told apart by their magic: VDX2 (inline data and references) and VDX
// (frames copied into linked, page-aligned blocks).

#include <iostream>

#include "tool/dump_run.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  return Veldrin::Tool::run_vdx2dump(argc, argv, std::cout, std::cerr);
}
