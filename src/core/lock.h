// The named, re-entrant lock of the system and its RAII guard.
//
// A lock is a POSIX named semaphore shared by every process that opens the
// same name, plus a per-process nesting counter: only the outermost take and
// give touch the semaphore. The cache lock (`Lock`, named by Cache_Lock)
// guards the shared region; the download lock serialises make and download
// runs. A holder record beside the semaphore (core/holder.h) lets a waiter
// take a lock over from a holder that died.
#pragma once

#include <semaphore.h>

#include "trovalis.h"

namespace trv {
struct Holder;
struct Takeover;
}  // namespace trv

struct QDMLock {
  int count = 0;             // takes without a matching give, this process
  sem_t *sem = nullptr;      // null when it could not be opened, or closed
  bool priv = false;         // process-private stand-in (see CreateMutex)
  sem_t priv_sem{};          // storage for the private stand-in
  // Who holds it, so that a holder that died can be taken over; null when
  // the record cannot be used (the lock then waits as a plain semaphore).
  trv::Holder *holder = nullptr;
  long slice_ms = 0;         // a waiter looks at the holder after each slice
  long orphan_ms = 0;        // see "The window" in core/holder.cpp
  // Runs right after this process took the lock over, holding it.
  void (*after_takeover)(QDMLock *lock, const trv::Takeover &what) = nullptr;
  // Runs at every outermost take, before after_takeover.
  void (*after_take)(QDMLock *lock) = nullptr;
  QDMLock *next_handle = nullptr;  // every handle ever made, see lock.cpp
};

namespace trv {

// How a waiter watches a lock's holder. A dead holder on record is taken
// over after the slice in which it is seen; a take that no live process has
// recorded only after the orphan deadline.
struct LockTiming {
  long slice_ms;
  long orphan_ms;
};
// A cache lock hold is a search's cache update or a reset: well under a
// second, a few seconds for a reset over large databases.
inline constexpr LockTiming kCacheLockTiming{100, 30 * 1000};
// A download lock hold is a make run or a package installation; the orphan
// deadline is longer than any of those.
inline constexpr LockTiming kDownloadLockTiming{1000, 60 * 60 * 1000};
void set_lock_timing(QDMLock *lock, LockTiming timing);

// What a waiter that took a lock over knows.
struct Takeover {
  const char *name;   // the lock's name
  int former_pid;     // the process last recorded as holder
  bool died_holding;  // false: adopted a take that no live process recorded
  long waited_ms;     // how long the waiter waited in all
};

// Takeovers of `lock` recorded in its companion since it was made (0 when
// it has none).
unsigned lock_takeovers(const QDMLock *lock);

QDMLock *CreateMutex(const void *attributes, int owned, const char *name);
int WaitForSingleObject(QDMLock *lock, int limit);
int ReleaseMutex(QDMLock *lock);
int mtx_close(QDMLock *lock);

// True when this process holds the cache lock.
bool cache_lock_held();

// Takes the cache lock for its lifetime (no-op when there is no lock, as in
// a process whose attach never ran).
class CacheGuard {
 public:
  CacheGuard() { WaitForSingleObject(Lock, -1); }
  ~CacheGuard() { ReleaseMutex(Lock); }
  CacheGuard(const CacheGuard &) = delete;
  CacheGuard &operator=(const CacheGuard &) = delete;
};

// Takes the cache lock only when this process does not hold it already, so
// that logging from code that may or may not hold it prints no NESTED lines.
class QuietCacheGuard {
 public:
  QuietCacheGuard() : taken_(!cache_lock_held()) {
    if (taken_) WaitForSingleObject(Lock, -1);
  }
  ~QuietCacheGuard() {
    if (taken_) ReleaseMutex(Lock);
  }
  QuietCacheGuard(const QuietCacheGuard &) = delete;
  QuietCacheGuard &operator=(const QuietCacheGuard &) = delete;

 private:
  bool taken_;
};

}  // namespace trv
