// Process attach and detach: shared state that other subsystems read.
#pragma once

namespace trv {

// The TROVALIS_INSTANCE suffix in force ("" when unset), including its
// leading '-'; appended to every named object of the system.
const char *instance_suffix();

// True when this process runs on a private region because the shared one
// could not be trusted.
bool region_is_private();

}  // namespace trv
