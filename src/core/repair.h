// Putting the shared region right after the cache lock was taken over.
#pragma once

#include "core/lock.h"

namespace trv {

// The cache lock's takeover hook: notes the takeover and, when the region
// is mapped, repairs it at once (the lock is held). In an attach the region
// is not mapped yet; the attach calls repair_pending_region() once it is.
void cache_lock_taken_over(QDMLock *lock, const Takeover &what);
void repair_pending_region();
// A region created afresh has nothing to repair.
void drop_pending_repair();

// Makes the message slot table designate each slot exactly once again and
// brings Msg_Count into range. Returns the number of table words replaced.
// The cache lock must be held.
int repair_message_queue();

}  // namespace trv
