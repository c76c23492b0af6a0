// Process attach and detach: shared state that other subsystems read.
#pragma once

#include <cstdint>

namespace trv {

// The TROVALIS_INSTANCE suffix in force ("" when unset), including its
// leading '-'; appended to every named object of the system.
const char *instance_suffix();

// True when this process runs on a private region because the shared one
// could not be trusted.
bool region_is_private();

// Region sizing. A new region is made with TROVALIS_MAP_SIZE bytes, or with
// 8,000,000 from which configuration resets grow it to what the trees need;
// with TROVALIS_MAP_SIZE set it never grows. The cache lock is held.
//
// The bytes of a region that loads `load` bytes of ls-R, alias and index
// files, with room for what a session caches.
int64_t region_bytes_for(int64_t load);
// False when loading `load` more bytes would leave too little room and the
// region may grow: the reset then asks for a larger region instead.
bool region_fits(int64_t load);
// The size a reset asked for (region_fits), or, when the arena refused
// a request during the reset, twice the present size; 0 for none.
int64_t take_region_wish(bool arena_refused);
// Replaces the region by a new object of `bytes` bytes holding what
// creation laid out and the resource pool, and marks the old one replaced;
// the caller then runs a reset in it. False (the region unchanged) when it
// cannot be made; region_fits() then lets this process load what fits.
bool grow_region(int64_t bytes);
// Called at the end of a reset: the arena's refusals so far were the reset's
// own, dealt with by it. Any later one makes the process replace the region
// by one of twice the size at its next outermost take of the cache lock.
void region_refusals_met();

}  // namespace trv
