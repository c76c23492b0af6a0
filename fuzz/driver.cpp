// The libFuzzer driver of every target: TROVALIS_FUZZ_TARGET names the one
// to run (fuzz.h lists them).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz.h"

namespace {
void (*g_target)(const uint8_t *, size_t) = nullptr;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const char *name = std::getenv("TROVALIS_FUZZ_TARGET");
  for (const trv::fuzz::Target &t : trv::fuzz::kTargets)
    if (name != nullptr && std::strcmp(name, t.name) == 0) g_target = t.run;
  if (g_target == nullptr) {
    std::fprintf(stderr, "set TROVALIS_FUZZ_TARGET to one of:");
    for (const trv::fuzz::Target &t : trv::fuzz::kTargets) std::fprintf(stderr, " %s", t.name);
    std::fprintf(stderr, "\n");
    std::exit(2);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  g_target(data, size);
  return 0;
}
