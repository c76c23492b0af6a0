// Platform services shared by the POSIX systems we run on.
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/platform.h"
#include "trovalis_config.h"

namespace trv::platform {

namespace {
char g_override[1024];
bool g_has_override = false;
}  // namespace

void set_executable_path_override(const char *path) {
  g_has_override = path != nullptr && std::strlen(path) < sizeof g_override;
  if (g_has_override) std::strcpy(g_override, path);
}

bool executable_path_override(char *buf, size_t size, bool *used) {
  *used = g_has_override;
  if (!g_has_override) return false;
  const size_t len = std::strlen(g_override);
  if (len >= size) {
    if (size > 0) buf[0] = '\0';
    return false;
  }
  std::memcpy(buf, g_override, len + 1);
  return true;
}

#if TROVALIS_HAVE_SEM_CLOCKWAIT || TROVALIS_HAVE_SEM_TIMEDWAIT
int sem_wait_for(sem_t *sem, long ms) {
  // The monotonic clock where the system can wait on it, so that a change
  // of the wall clock neither stretches a slice nor cuts it to nothing.
#if TROVALIS_HAVE_SEM_CLOCKWAIT
  constexpr clockid_t kClock = CLOCK_MONOTONIC;
#else
  constexpr clockid_t kClock = CLOCK_REALTIME;
#endif
  timespec deadline{};
  clock_gettime(kClock, &deadline);
  deadline.tv_sec += ms / 1000;
  deadline.tv_nsec += (ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  for (;;) {
#if TROVALIS_HAVE_SEM_CLOCKWAIT
    if (sem_clockwait(sem, kClock, &deadline) == 0) return 0;
#else
    if (sem_timedwait(sem, &deadline) == 0) return 0;
#endif
    if (errno != EINTR) return errno;
  }
}
#else
// No timed wait at all (macOS): poll with sem_trywait, backing off from
// 1 ms to 20 ms so that a short wait stays short and a long one costs little.
int sem_wait_for(sem_t *sem, long ms) {
  long waited = 0, step = 1;
  for (;;) {
    if (sem_trywait(sem) == 0) return 0;
    if (errno != EAGAIN && errno != EINTR) return errno;
    if (waited >= ms) return ETIMEDOUT;
    timespec pause{0, step * 1000000L};
    nanosleep(&pause, nullptr);
    waited += step;
    if (step < 20) step *= 2;
  }
}
#endif

FileStamp file_stamp(const char *path) {
  FileStamp s;
  struct stat st {};
  if (stat(path, &st) != 0) return s;
#ifdef __APPLE__
  const timespec &mtime = st.st_mtimespec;
#else
  const timespec &mtime = st.st_mtim;
#endif
  s.size = st.st_size;
  s.mtime_sec = mtime.tv_sec;
  s.mtime_nsec = static_cast<int32_t>(mtime.tv_nsec);
  s.inode = static_cast<int64_t>(st.st_ino);
  return s;
}

DirState dir_state(const struct stat &st) {
#ifdef __APPLE__
  const timespec &mtime = st.st_mtimespec, &ctime = st.st_ctimespec;
#else
  const timespec &mtime = st.st_mtim, &ctime = st.st_ctim;
#endif
  DirState d;
  d.dev = static_cast<int64_t>(st.st_dev);
  d.inode = static_cast<int64_t>(st.st_ino);
  d.mtime_sec = mtime.tv_sec;
  d.mtime_nsec = static_cast<int32_t>(mtime.tv_nsec);
  d.ctime_sec = ctime.tv_sec;
  d.ctime_nsec = static_cast<int32_t>(ctime.tv_nsec);
  return d;
}

}  // namespace trv::platform
