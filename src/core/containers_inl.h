// Bounded chain walk shared by every reader of arena lists.
#pragma once

#include "core/region.h"
#include "core/validate.h"

namespace trv {

namespace walk_detail {
inline constexpr const char *kBadLink = "a list link leads outside the arena";
inline constexpr const char *kLoop = "a list runs in a circle";
inline constexpr const char *kTooLong = "lists hold more entries than the arena has room for";
// Steps left to the walks of the outermost WalkBudget; < 0 when none lives.
extern int64_t g_shared_steps;
extern int g_budget_depth;
}  // namespace walk_detail

// Walks of one traversal that nests walks (a walk of programs, inside it one
// of their file types, inside that one of answers) each end, but a damaged
// region could still make the product of their lengths enormous. While a
// WalkBudget lives, all walks draw on one budget of steps: as many as the
// data area could hold entries (a sound region holds each entry in one
// list), twice over.
class WalkBudget {
 public:
  WalkBudget() {
    if (walk_detail::g_budget_depth++ == 0) walk_detail::g_shared_steps = 2 * max_walk();
  }
  ~WalkBudget() {
    if (--walk_detail::g_budget_depth == 0) walk_detail::g_shared_steps = -1;
  }
  WalkBudget(const WalkBudget &) = delete;
  WalkBudget &operator=(const WalkBudget &) = delete;
};

// The first offset is the caller's: one that holds no entry is "none",
// unless `first_is_link` says it was read from the region (a list head). A
// link read from an entry that leads nowhere, a circle (found by Brent's
// method: the walk stops within two rounds of it) or a list longer than
// the data area can hold is damage: noted, and the walk ends there.
template <class F>
int64_t walk_chain(int32_t first, F &&visit, bool first_is_link) {
  using namespace walk_detail;
  const int64_t limit = max_walk();
  const bool shared = g_budget_depth > 0;
  int64_t n = 0;
  int32_t tortoise = first;
  int64_t power = 1, lap = 0;
  for (int32_t e = first; e > 0; ++n) {
    if (entry_key(e) == nullptr) {
      if (n > 0 || first_is_link) note_damage(kBadLink);
      break;
    }
    if (n >= limit || (shared && --g_shared_steps < 0)) {
      note_damage(kTooLong);
      break;
    }
    const int32_t next = entry_next(e);
    if (!visit(e)) return n + 1;
    if (next < 0) {
      note_damage(kBadLink);
      return n + 1;
    }
    if (next == tortoise) {
      note_damage(kLoop);
      return n + 1;
    }
    if (++lap == power) {
      tortoise = next;
      power *= 2;
      lap = 0;
    }
    e = next;
  }
  return n;
}

}  // namespace trv
