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
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/holder.h"

namespace trv::platform {

const int kTicketSetLock = F_SETLK;
const int kTicketGetLock = F_GETLK;

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
  return holder_checked(fd, why);
}

int holder_remove(const char *lock_name) {
  char path[1200];
  if (!holder_object_name(lock_name, path, sizeof path)) return -1;
  return unlink(path);
}

}  // namespace trv::platform
