// Windows-style process services over POSIX: message box, errors, shell
// folders, directory creation, module file name.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "trovalis.h"

namespace {
char g_folder[288];

// Copies `text` behind the first `used` bytes of g_folder, cut to fit.
void folder_put(size_t used, const char *text) {
  std::snprintf(g_folder + used, sizeof g_folder - used, "%s", text);
}
}  // namespace

extern "C" {

int MessageBox_S(const char *text, const char *caption) {
  std::fprintf(stderr, "ERROR: %s\nERROR: %s\n", caption, text);
  return 1;
}

const char *LastErr(void) { return std::strerror(errno); }

const char *popen_lasterror(void) { return "Unknown popen error"; }

char *GetSystemFolder(int id) {
  const char *home = std::getenv("HOME");
  folder_put(0, home ? home : "");
  const size_t n = std::strlen(g_folder);
  switch (id) {
    case 5: folder_put(n, "/Documents"); break;     // CSIDL_PERSONAL
    case 20: folder_put(0, "/Library/Fonts"); break;  // CSIDL_FONTS
    case 26: folder_put(n, "/Library"); break;      // CSIDL_APPDATA
    case 28: folder_put(0, "/tmp"); break;          // CSIDL_LOCAL_APPDATA
    case 35: folder_put(0, "/Library/Fonts"); break;  // CSIDL_COMMON_APPDATA
    case 38: folder_put(0, "/Applications"); break;   // CSIDL_PROGRAM_FILES
    case 39: folder_put(n, "/Pictures"); break;     // CSIDL_MYPICTURES
    default: break;                                 // HOME alone
  }
  return g_folder;
}

// Creates from the top down: the recursion climbs only while creation fails,
// so an existing directory is reported as a failure (callers test first).
int MkDirs(char *path) {
  for (char *p = path; *p; ++p)
    if (*p == '\\') *p = '/';
  if (mkdir(path, 0700) == 0) return 0;
  char *slash = std::strrchr(path, '/');
  if (slash == nullptr) return 1;
  *slash = '\0';
  const int parent = MkDirs(path);
  *slash = '/';
  if (parent != 0) return 1;
  return mkdir(path, 0700) == 0 ? 0 : 1;
}

int GetModuleFileName(void *, char *buffer, int size) {
  if (buffer == nullptr || size <= 0) return 0;
  if (!trv::platform::executable_path(buffer, static_cast<size_t>(size))) {
    buffer[0] = '\0';
    return 0;
  }
  return size;
}

void *GetModuleHandle(const char *) { return nullptr; }

void OemToChar(const char *, char *) {}

}  // extern "C"
