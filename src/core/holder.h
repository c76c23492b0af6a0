// The holder record of a named lock: which process holds it, so that a
// waiter can tell a holder that died from one that is only slow or stopped.
//
// The record lives in a small companion object per lock name (next to the
// semaphore, see platform/holder.h); its layout is documented in
// docs/region-format.md. The word `holder` goes through these states:
//
//   0            no process has recorded a take since the object was made
//   T            ticket T took the semaphore and has not begun to give it
//   T | kGiving  T is giving it back (between its record and its post)
//   T | kGiven   T gave it back
//
// A process stores its ticket right after its take of the semaphore
// succeeded and marks it given around its post; both are plain atomic
// operations on shared memory, so the uncontended take and give make no
// system call. Only a waiter whose slice ran out looks at the record and
// asks the kernel whether T's lifetime lock is still held.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace trv {

// The companion object. A new object is all zero, which is a valid record:
// no ticket drawn, no holder. Fields are naturally aligned (the object is
// mapped at a page boundary) and accessed only with atomic operations.
struct HolderRecord {
  uint32_t magic;        // kHolderMagic, or 0 in an object nobody has used yet
  uint32_t version;      // kHolderVersion, or 0 likewise
  uint64_t last_ticket;  // the newest ticket drawn; tickets start at 1
  uint64_t holder;       // the state word above
  int32_t holder_pid;    // process id of the latest recorded holder; for messages only
  uint32_t takeovers;    // takeovers since the object was made
  uint8_t reserved[32];
};
static_assert(sizeof(HolderRecord) == 64);
static_assert(offsetof(HolderRecord, magic) == 0);
static_assert(offsetof(HolderRecord, version) == 4);
static_assert(offsetof(HolderRecord, last_ticket) == 8);
static_assert(offsetof(HolderRecord, holder) == 16);
static_assert(offsetof(HolderRecord, holder_pid) == 24);
static_assert(offsetof(HolderRecord, takeovers) == 28);
static_assert(offsetof(HolderRecord, last_ticket) % 8 == 0 && offsetof(HolderRecord, holder) % 8 == 0);

inline constexpr uint32_t kHolderMagic = 0x48565254;  // "TRVH" in a little-endian dump
inline constexpr uint32_t kHolderVersion = 1;
inline constexpr uint64_t kGiving = uint64_t{1} << 62;
inline constexpr uint64_t kGiven = uint64_t{1} << 61;
inline constexpr uint64_t kTicketMask = (uint64_t{1} << 60) - 1;

// This process's side of one lock name, shared by its handles of that name.
struct Holder {
  char name[256];               // the lock's name
  int fd = -1;                  // the companion, carrying our lifetime lock
  HolderRecord *rec = nullptr;  // the companion, mapped
  uint64_t ticket = 0;          // ours; 0 until drawn (again in a forked child)
  int32_t pid = 0;              // ours, kept so that a take needs no getpid
  int users = 0;                // handles of this name in this process
  Holder *next = nullptr;
};

// The holder of lock `name` for one more handle: found among this process's
// holders or opened. nullptr when the companion cannot be used; the first
// such failure in a process is reported once, and the lock then works as a
// plain semaphore whose dead holders go unnoticed.
Holder *holder_acquire(const char *name);
// One handle fewer; the last one closes the companion.
void holder_drop(Holder *h);

// In a forked child: the parent's tickets and lifetime locks are not the
// child's. Closes the inherited descriptors (so that the child does not keep
// the parent's lifetime lock alive on Linux, where the open file description
// is shared) and forgets the tickets; the next take draws a new one. Makes
// only async-signal-safe calls.
void holder_forget_after_fork();

bool holder_renew(Holder *h);
// True when this process has a ticket with its lifetime lock; draws one
// when it has none (first use, or first use after fork).
inline bool holder_ready(Holder *h) { return h->ticket != 0 || holder_renew(h); }

// Records our take right after the semaphore was taken. False when a
// takeover adopted our take before we recorded it (see holder.cpp); the
// caller then does not hold the lock and waits again.
bool holder_claim(Holder *h);
// Marks our hold as ending before the post, and as ended after it.
void holder_give_begin(Holder *h);
void holder_give_end(Holder *h);

// What a waiter makes of the record after a slice in which the semaphore
// stayed taken.
struct Sighting {
  enum Kind {
    kLive,          // a live process is on record (or we cannot tell): wait
    kDiedHolding,   // the recorded holder died without giving: take over now
    kUnrecorded,    // taken, but no live holder on record (see holder.cpp)
  };
  Kind kind = kLive;
  uint64_t word = 0;  // the state word seen
};
Sighting holder_sight(const Holder *h);

// Takes over from the state `word`: succeeds for exactly one of the
// processes that try with the same word. Sets *former_pid to the process id
// last recorded as holder.
bool holder_seize(Holder *h, uint64_t word, int32_t *former_pid);

// Takeovers recorded in the companion since it was made.
uint32_t holder_takeovers(const Holder *h);

}  // namespace trv
