// The parts of the lock's companion object that both systems share: the
// checks of an opened object, its mapping, and the ticket locks (whose
// commands differ: holder_linux.cpp and holder_macos.cpp name them).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/holder.h"

namespace trv::platform {

namespace {

// A one-byte lock record at `ticket` (l_pid 0, as OFD requests require).
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

int holder_checked(int fd, const char **why) {
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
  if (bad == nullptr) return fd;
  close(fd);
  errno = err;
  *why = bad;
  return -1;
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
  return fcntl_retrying(fd, kTicketSetLock, &fl) == 0;
}

// The query reports only locks of other processes (or other open file
// descriptions), which is what a waiter asks: it never probes its own ticket.
Liveness holder_probe(int fd, uint64_t ticket) {
  struct flock fl = ticket_range(F_WRLCK, ticket);
  if (fcntl_retrying(fd, kTicketGetLock, &fl) != 0) return Liveness::kUnknown;
  return fl.l_type == F_UNLCK ? Liveness::kDead : Liveness::kAlive;
}

}  // namespace trv::platform
