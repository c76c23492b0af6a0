// The named, re-entrant lock of the system and its RAII guard.
//
// A lock is a POSIX named semaphore shared by every process that opens the
// same name, plus a per-process nesting counter: only the outermost take and
// give touch the semaphore. The cache lock (`Lock`, named by Cache_Lock)
// guards the shared region; the download lock serialises make and download
// runs.
#pragma once

#include <semaphore.h>

#include "trovalis.h"

struct QDMLock {
  int count = 0;             // takes without a matching give, this process
  sem_t *sem = nullptr;      // null when it could not be opened, or closed
  bool priv = false;         // process-private stand-in (see CreateMutex)
  sem_t priv_sem{};          // storage for the private stand-in
  QDMLock *next_handle = nullptr;  // every handle ever made, see lock.cpp
};

namespace trv {

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
