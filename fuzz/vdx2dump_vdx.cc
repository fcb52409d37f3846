// vdx2dump on VDX index files and the recording they refer to.

#include <cstddef>
#include <cstdint>

#include "fuzz/vdx2dump_run.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Veldrin::Fuzz::run_vdx2dump_on(data, size, "VDXF");
  return 0;
}
