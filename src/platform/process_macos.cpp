// macOS: the executable's path from the dynamic loader; semaphore checks;
// file stamps and the per-user configuration folder.
#include <mach-o/dyld.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "trovalis.h"

namespace trv::platform {

bool executable_path_override(char *buf, size_t size, bool *used);

bool executable_path(char *buf, size_t size) {
  bool used = false;
  const bool ok = executable_path_override(buf, size, &used);
  if (used) return ok;
  if (size == 0 || size > UINT32_MAX) return false;
  uint32_t len = static_cast<uint32_t>(size);
  if (_NSGetExecutablePath(buf, &len) != 0) {  // too small: len says how much
    buf[0] = '\0';
    return false;
  }
  return true;
}

// sem_getvalue is not implemented for named semaphores on macOS.
bool semaphore_known_free(sem_t *) { return false; }

// macOS keeps named semaphores in the kernel; there is no file to check.
bool semaphore_file_ok(const char *, const char **) { return true; }

// The system's own place for application support data.
const char *user_config_folder() { return GetSystemFolder(26); }

}  // namespace trv::platform
