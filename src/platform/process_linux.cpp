// Linux: the executable's path from /proc, the semaphore's value and
// backing file, file stamps and the per-user configuration folder.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace trv::platform {

bool executable_path_override(char *buf, size_t size, bool *used);

bool executable_path(char *buf, size_t size) {
  bool used = false;
  const bool ok = executable_path_override(buf, size, &used);
  if (used) return ok;
  if (size == 0) return false;
  const ssize_t n = readlink("/proc/self/exe", buf, size);
  if (n <= 0 || static_cast<size_t>(n) >= size) {
    buf[0] = '\0';
    return false;
  }
  buf[n] = '\0';
  return true;
}

bool semaphore_known_free(sem_t *sem) {
  int value = 0;
  return sem_getvalue(sem, &value) == 0 && value > 0;
}

// glibc keeps a named semaphore "/name" as the file /dev/shm/sem.name.
bool semaphore_file_ok(const char *name, const char **why) {
  char path[PATH_MAX];
  const char *bare = name[0] == '/' ? name + 1 : name;
  if (std::snprintf(path, sizeof path, "/dev/shm/sem.%s", bare) >= static_cast<int>(sizeof path))
    return true;
  struct stat st {};
  if (lstat(path, &st) != 0) return true;  // not there yet: sem_open makes ours
  if (!S_ISREG(st.st_mode)) {
    *why = "not a regular file";
    return false;
  }
  if (st.st_uid != geteuid()) {
    *why = "owned by another user";
    return false;
  }
  return true;
}

// The XDG base directory rule: a relative $XDG_CONFIG_HOME is ignored.
const char *user_config_folder() {
  static char folder[PATH_MAX];
  const char *xdg = std::getenv("XDG_CONFIG_HOME");
  const char *home = std::getenv("HOME");
  if (xdg != nullptr && xdg[0] == '/')
    std::snprintf(folder, sizeof folder, "%s", xdg);
  else if (home != nullptr && home[0] != '\0')
    std::snprintf(folder, sizeof folder, "%s/.config", home);
  else
    folder[0] = '\0';
  return folder;
}

}  // namespace trv::platform
