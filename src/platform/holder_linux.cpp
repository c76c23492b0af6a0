// Linux: the lock's companion as a shared-memory object beside its
// semaphore, with open-file-description locks as lifetime locks.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/holder.h"

namespace trv::platform {

const int kTicketSetLock = F_OFD_SETLK;
const int kTicketGetLock = F_OFD_GETLK;

// "/name" (or "name") becomes "/name.holder", which glibc keeps as
// /dev/shm/name.holder beside the semaphore's /dev/shm/sem.name.
bool holder_object_name(const char *lock_name, char *buf, size_t size) {
  const char *bare = lock_name[0] == '/' ? lock_name + 1 : lock_name;
  const int n = std::snprintf(buf, size, "/%s.holder", bare);
  return n > 0 && static_cast<size_t>(n) < size;
}

int holder_open(const char *lock_name, const char **why) {
  char name[256];
  if (!holder_object_name(lock_name, name, sizeof name)) {
    *why = "has too long a name";
    errno = ENAMETOOLONG;
    return -1;
  }
  // glibc's shm_open adds O_NOFOLLOW and O_CLOEXEC; both are asked for
  // anyway because the lifetime lock must not pass to programs we exec
  // (a make command would keep a dead holder looking alive).
  const int fd = shm_open(name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    *why = "cannot be opened";
    return -1;
  }
  return holder_checked(fd, why);
}

int holder_remove(const char *lock_name) {
  char name[256];
  if (!holder_object_name(lock_name, name, sizeof name)) return -1;
  return shm_unlink(name);
}

}  // namespace trv::platform
