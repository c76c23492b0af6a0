// Linux: the lock's companion as a shared-memory object beside its
// semaphore, with open-file-description locks as lifetime locks.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/holder.h"

namespace trv::platform {

namespace {

// A one-byte lock record at `ticket`; l_pid must be 0 for OFD requests.
struct flock ticket_range(short type, uint64_t ticket) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = static_cast<off_t>(ticket);
  fl.l_len = 1;
  return fl;
}

int fcntl_retrying(int fd, int cmd, struct flock *fl) {
  for (;;) {
    if (fcntl(fd, cmd, fl) == 0) return 0;
    if (errno != EINTR) return -1;
  }
}

}  // namespace

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
  struct stat st {};
  const char *bad = nullptr;
  int err = 0;  // set where a call failed, so that the report can say why
  if (fstat(fd, &st) != 0) {
    bad = "cannot be examined";
    err = errno;
  } else if (!S_ISREG(st.st_mode)) {
    bad = "is not a regular file";
  } else if (st.st_uid != geteuid()) {
    bad = "is owned by another user";
  } else if ((st.st_mode & 077) != 0) {
    bad = "is open to other users";
  } else if (st.st_size == 0 && ftruncate(fd, static_cast<off_t>(kHolderObjectBytes)) != 0) {
    bad = "cannot be sized";
    err = errno;
  } else if (st.st_size != 0 && st.st_size < static_cast<off_t>(kHolderObjectBytes)) {
    bad = "is too short";
  }
  if (bad != nullptr) {
    close(fd);
    errno = err;
    *why = bad;
    return -1;
  }
  return fd;
}

void *holder_map(int fd) {
  void *p = mmap(nullptr, kHolderObjectBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void holder_unmap(void *map) {
  if (map != nullptr) munmap(map, kHolderObjectBytes);
}

bool holder_lock_ticket(int fd, uint64_t ticket) {
  struct flock fl = ticket_range(F_WRLCK, ticket);
  return fcntl_retrying(fd, F_OFD_SETLK, &fl) == 0;
}

Liveness holder_probe(int fd, uint64_t ticket) {
  struct flock fl = ticket_range(F_WRLCK, ticket);
  if (fcntl_retrying(fd, F_OFD_GETLK, &fl) != 0) return Liveness::kUnknown;
  return fl.l_type == F_UNLCK ? Liveness::kDead : Liveness::kAlive;
}

int holder_remove(const char *lock_name) {
  char name[256];
  if (!holder_object_name(lock_name, name, sizeof name)) return -1;
  return shm_unlink(name);
}

}  // namespace trv::platform
