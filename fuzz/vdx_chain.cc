// The whole indexing chain from bytes to a VDX index, with its links and precision from the
// input.

#include <cstddef>
#include <cstdint>

#include "fuzz/index_chain.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Veldrin::Fuzz::run_index_chain(data, size, Veldrin::Fuzz::ChainFormat::VDX);
  return 0;
}
