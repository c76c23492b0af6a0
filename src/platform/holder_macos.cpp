// macOS: the lock's companion as a file in the per-user temporary
// directory, with classic record locks as lifetime locks.
//
// macOS has no open-file-description locks, and its shared-memory objects
// take no locks at all, hence a plain file. Classic record locks belong to
// the process, not to a descriptor: closing any descriptor of the file drops
// all of the process's locks on it. The core therefore opens each companion
// once per process and closes it only when no handle of that lock is left
// (or in a forked child, which never inherits record locks anyway).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/holder.h"

namespace trv::platform {

namespace {

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

// DARWIN_USER_TEMP_DIR is private to the user (mode 0700) and local, so
// neither another user nor a network file system stands between the
// processes and their record locks. It lasts until restart, like the
// semaphore. Slashes of the lock name become '-'.
bool holder_object_name(const char *lock_name, char *buf, size_t size) {
  char dir[1024];
  const size_t n = confstr(_CS_DARWIN_USER_TEMP_DIR, dir, sizeof dir);
  if (n == 0 || n > sizeof dir) return false;
  const char *bare = lock_name[0] == '/' ? lock_name + 1 : lock_name;
  const size_t dir_len = std::strlen(dir);
  const char *sep = dir_len > 0 && dir[dir_len - 1] == '/' ? "" : "/";
  const int w = std::snprintf(buf, size, "%s%s%s.holder", dir, sep, bare);
  if (w <= 0 || static_cast<size_t>(w) >= size) return false;
  for (char *p = buf + dir_len + std::strlen(sep); *p; ++p)
    if (*p == '/') *p = '-';
  return true;
}

int holder_open(const char *lock_name, const char **why) {
  char path[1200];
  if (!holder_object_name(lock_name, path, sizeof path)) {
    *why = "has no place in the user's temporary directory";
    errno = ENAMETOOLONG;
    return -1;
  }
  const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
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
  return fcntl_retrying(fd, F_SETLK, &fl) == 0;
}

// F_GETLK reports only locks of other processes, which is what a waiter
// asks: the caller never probes its own ticket.
Liveness holder_probe(int fd, uint64_t ticket) {
  struct flock fl = ticket_range(F_WRLCK, ticket);
  if (fcntl_retrying(fd, F_GETLK, &fl) != 0) return Liveness::kUnknown;
  return fl.l_type == F_UNLCK ? Liveness::kDead : Liveness::kAlive;
}

int holder_remove(const char *lock_name) {
  char path[1200];
  if (!holder_object_name(lock_name, path, sizeof path)) return -1;
  return unlink(path);
}

}  // namespace trv::platform
