// The load-time and unload-time hooks of trovalis.so.
#include <cstdlib>
#include <cstring>

#include "trovalis.h"

extern "C" {

// A host that loads the library into a program it does not own (the
// kpathsea bridge) sets TROVALIS_DEFER_ATTACH=1 while it loads it and calls
// DllEntryPoint itself: a failed attach must then leave that program
// running, and what the attach prints goes where the host decides.
__attribute__((constructor)) static void initializer1() {
  const char *defer = std::getenv("TROVALIS_DEFER_ATTACH");
  if (defer != nullptr && std::strcmp(defer, "1") == 0) return;
  if (DllEntryPoint(nullptr, 1, nullptr) == 0) std::exit(1);
}

__attribute__((destructor)) static void finalizer1() { DllEntryPoint(nullptr, 2, nullptr); }

}  // extern "C"
