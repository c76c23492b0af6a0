// The named re-entrant lock over POSIX semaphores, and taking it over from
// a holder that died.
#include "core/lock.h"

#include <fcntl.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <new>

#include "core/holder.h"
#include "core/message.h"
#include "platform/platform.h"

namespace trv {

namespace {

constexpr char kTakenOver[] = "lock `%s' taken over from dead process %d";
constexpr char kAdopted[] = "lock `%s' taken by no live process for %ld s; taken over";

// Handles are never freed (another part of the process may still hold one
// after mtx_close); they are chained here so that they stay reachable.
QDMLock *g_handles = nullptr;

// Waits on the semaphore, retrying a wait that a signal interrupted: an
// interrupted wait has not taken the semaphore, and counting it as a take
// would let two processes into the region at once. Used where there is no
// holder record to watch.
int wait_retrying(sem_t *sem) {
  for (;;) {
    if (sem_wait(sem) == 0) return 0;
    if (errno != EINTR) return -1;
  }
}

// The semaphore is binary: a post while it is already free would let two
// processes in from then on. Only a process that bypassed the holder record
// (or a take adopted from it) can make that happen; the check costs a load.
int post_once(sem_t *sem) {
  if (platform::semaphore_known_free(sem)) return 0;
  return sem_post(sem);
}

// The outermost give: marks the record, posts, marks it again.
int give(QDMLock *lock) {
  Holder *h = lock->holder;
  const bool recorded = h != nullptr && h->ticket != 0;
  if (recorded) holder_give_begin(h);
  const int r = post_once(lock->sem);
  if (recorded) holder_give_end(h);
  return r;
}

long since_ms(std::chrono::steady_clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - start)
                               .count());
}

// Waits for the semaphore in slices; after each slice that ends with the
// semaphore still taken, looks at the holder record (core/holder.cpp says
// why each case is safe). Returns 0 when the lock is ours, by a take or by
// a takeover (then *taken is filled in), or -1 when the wait failed.
int wait_watching(QDMLock *lock, Takeover *taken, bool *took_over) {
  using Clock = std::chrono::steady_clock;
  Holder *h = lock->holder;
  const Clock::time_point start = Clock::now();
  bool timing = false;      // the orphan deadline is running
  uint64_t unrecorded = 0;  // for this state word
  Clock::time_point since{};
  for (;;) {
    const int r = platform::sem_wait_for(lock->sem, lock->slice_ms);
    if (r == 0) {
      if (holder_claim(h)) return 0;
      continue;  // a takeover adopted this take before we recorded it
    }
    if (r != ETIMEDOUT) {
      errno = r;
      return -1;
    }
    const Sighting s = holder_sight(h);
    if (s.kind == Sighting::kLive) {
      timing = false;
      continue;
    }
    if (s.kind == Sighting::kUnrecorded) {
      if (!timing || s.word != unrecorded) {
        timing = true;
        unrecorded = s.word;
        since = Clock::now();
        continue;
      }
      if (since_ms(since) < lock->orphan_ms) continue;
      // Given meanwhile? Then it is an ordinary take, not an adoption.
      if (sem_trywait(lock->sem) == 0) {
        if (holder_claim(h)) return 0;
        continue;
      }
    }
    int32_t former = 0;
    if (holder_seize(h, s.word, &former)) {
      *took_over = true;
      taken->former_pid = former;
      taken->died_holding = s.kind == Sighting::kDiedHolding;
      taken->waited_ms = since_ms(start);
      return 0;
    }
    timing = false;
  }
}

void log_takeover(QDMLock *, const Takeover &t) {
  if (t.died_holding) messagef("WARNING: ", kTakenOver, t.name, t.former_pid);
  else messagef("WARNING: ", kAdopted, t.name, t.waited_ms / 1000);
}

// A forked child does not hold its parent's locks: it starts with every
// counter at 0 (so it never posts a semaphore it did not take), with a
// private stand-in free again, and without the parent's tickets.
void after_fork_in_child() {
  for (QDMLock *l = g_handles; l != nullptr; l = l->next_handle) {
#ifndef __APPLE__  // there is no private stand-in there (see CreateMutex)
    if (l->priv && l->sem != nullptr && l->count > 0) sem_init(&l->priv_sem, 0, 1);
#endif
    l->count = 0;
  }
  holder_forget_after_fork();
}

}  // namespace

bool cache_lock_held() { return Lock != nullptr && Lock->sem != nullptr && Lock->count > 0; }

void set_lock_timing(QDMLock *lock, LockTiming timing) {
  if (lock == nullptr) return;
  lock->slice_ms = timing.slice_ms;
  lock->orphan_ms = timing.orphan_ms;
}

unsigned lock_takeovers(const QDMLock *lock) {
  return lock != nullptr ? holder_takeovers(lock->holder) : 0;
}

QDMLock *CreateMutex(const void *, int, const char *name) {
  static bool fork_handled = false;
  if (!fork_handled) fork_handled = pthread_atfork(nullptr, nullptr, after_fork_in_child) == 0;
  QDMLock *lock = new (std::nothrow) QDMLock;
  if (lock == nullptr) return nullptr;
  set_lock_timing(lock, kCacheLockTiming);
  const char *why = nullptr;
  if (!platform::semaphore_file_ok(name, &why)) {
    // Someone else's semaphore under our name could be held forever or
    // posted at will. Report it and lock within this process only; the
    // attach pairs this with a private region.
    char text[160];
    std::snprintf(text, sizeof text, "Semaphore `%s' is %s; using a private lock", name, why);
    MessageBox_S(text, TDSError);
#ifdef __APPLE__
    delete lock;
    return nullptr;
#else
    if (sem_init(&lock->priv_sem, 0, 1) != 0) {
      delete lock;
      return nullptr;
    }
    lock->priv = true;
    lock->sem = &lock->priv_sem;
#endif
  } else {
    sem_t *sem = sem_open(name, O_CREAT, 0666, 1);
    if (sem == SEM_FAILED) {
      delete lock;
      return nullptr;
    }
    lock->sem = sem;
    lock->holder = holder_acquire(name);
  }
  lock->next_handle = g_handles;
  g_handles = lock;
  return lock;
}

int WaitForSingleObject(QDMLock *lock, int) {
  if (lock == nullptr || lock->sem == nullptr) return 0;
  if (lock->count >= 1) {
    std::fprintf(stderr, "NESTED: sem_wait(%d)\n", lock->count);
    lock->count++;
    return 1;
  }
  Holder *h = lock->holder;
  Takeover taken{h != nullptr ? h->name : "", 0, false, 0};
  bool took_over = false;
  int r;
  if (h == nullptr || !holder_ready(h)) r = wait_retrying(lock->sem);
  else if (sem_trywait(lock->sem) == 0 && holder_claim(h)) r = 0;
  else r = wait_watching(lock, &taken, &took_over);
  lock->count++;
  if (lock->after_take) lock->after_take(lock);
  if (took_over) (lock->after_takeover ? lock->after_takeover : log_takeover)(lock, taken);
  return r;
}

int ReleaseMutex(QDMLock *lock) {
  if (lock == nullptr || lock->sem == nullptr) return 0;
  if (lock->count >= 2) {
    std::fprintf(stderr, "NESTED: sem_post(%d)\n", lock->count);
    lock->count--;
    return 1;
  }
  if (lock->count == 1) {
    lock->count = 0;
    return give(lock);
  }
  return 1;
}

int mtx_close(QDMLock *lock) {
  if (lock == nullptr || lock->sem == nullptr) return 0;
  if (lock->count > 0) {
    std::fprintf(stderr, "UNLOCKING MUTEX BEFORE CLOSING: sem_close(%d)\n", lock->count);
    give(lock);
  }
  lock->count--;
  int r;
  if (lock->priv) {
    r = sem_destroy(lock->sem);
  } else {
    r = sem_close(lock->sem);
  }
  lock->sem = nullptr;  // later calls on this handle find no semaphore
  holder_drop(lock->holder);
  lock->holder = nullptr;
  return r;
}

}  // namespace trv
