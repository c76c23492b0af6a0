// The named re-entrant lock over POSIX semaphores.
#include "core/lock.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "platform/platform.h"

namespace trv {

namespace {
// Handles are never freed (another part of the process may still hold one
// after mtx_close); they are chained here so that they stay reachable.
QDMLock *g_handles = nullptr;

// Waits on the semaphore, retrying a wait that a signal interrupted: an
// interrupted wait has not taken the semaphore, and counting it as a take
// would let two processes into the region at once.
int wait_retrying(sem_t *sem) {
  for (;;) {
    if (sem_wait(sem) == 0) return 0;
    if (errno != EINTR) return -1;
  }
}
}  // namespace

bool cache_lock_held() { return Lock != nullptr && Lock->sem != nullptr && Lock->count > 0; }

QDMLock *CreateMutex(const void *, int, const char *name) {
  QDMLock *lock = new (std::nothrow) QDMLock;
  if (lock == nullptr) return nullptr;
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
  const int r = wait_retrying(lock->sem);
  lock->count++;
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
    return sem_post(lock->sem);
  }
  return 1;
}

int mtx_close(QDMLock *lock) {
  if (lock == nullptr || lock->sem == nullptr) return 0;
  if (lock->count > 0) {
    std::fprintf(stderr, "UNLOCKING MUTEX BEFORE CLOSING: sem_close(%d)\n", lock->count);
    sem_post(lock->sem);
  }
  lock->count--;
  int r;
  if (lock->priv) {
    r = sem_destroy(lock->sem);
  } else {
    r = sem_close(lock->sem);
  }
  lock->sem = nullptr;  // later calls on this handle find no semaphore
  return r;
}

}  // namespace trv
