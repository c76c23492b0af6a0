// The libFuzzer entry point of one target program; TROVALIS_FUZZ_TARGET
// names the target's function.
#include <cstddef>
#include <cstdint>

#include "targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  trv::fuzz::TROVALIS_FUZZ_TARGET(data, size);
  return 0;
}
