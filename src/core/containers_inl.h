// Bounded chain walk shared by every reader of arena lists.
#pragma once

#include "core/region.h"

namespace trv {

template <class F>
int64_t walk_chain(int32_t first, F &&visit) {
  const int64_t limit = max_walk();
  int64_t n = 0;
  for (int32_t e = first; e > 0 && n < limit; ++n) {
    if (entry_key(e) == nullptr) break;
    int32_t next = entry_next(e);
    if (!visit(e)) return n + 1;
    e = next;
  }
  return n;
}

}  // namespace trv
