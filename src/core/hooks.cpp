// The load-time and unload-time hooks of trovalis.so.
#include <cstdlib>

#include "trovalis.h"

extern "C" {

__attribute__((constructor)) static void initializer1() {
  if (DllEntryPoint(nullptr, 1, nullptr) == 0) std::exit(1);
}

__attribute__((destructor)) static void finalizer1() { DllEntryPoint(nullptr, 2, nullptr); }

}  // extern "C"
