// Finds trovalis.so beside the bridge, loads it privately and attaches it
// without a word on the program's standard error.
#include "loader.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "interpose.h"

namespace bridge {
namespace {

// The region's header words the bridge reads to tell a full region
// (docs/region-format.md): the arena's top and its end.
constexpr int kMemUsedWord = 1;
constexpr int kMemMaxWord = 3;
// A region with less free than this after its reset may hold the databases
// only in part; kpathsea answers then.
constexpr int32_t kFullMargin = 128 * 1024;

int32_t header_word(const char *base, int word) {
  int32_t v;
  std::memcpy(&v, base + 4 * word, sizeof v);
  return v;
}

// trovalis.so in the bridge's own directory, else in the directory the
// build installed both into.
bool library_path(char *out, size_t size) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void *>(&load_trovalis), &info) != 0 &&
      info.dli_fname != nullptr) {
    const char *slash = std::strrchr(info.dli_fname, '/');
    if (slash != nullptr) {
      std::snprintf(out, size, "%.*s/%s", static_cast<int>(slash - info.dli_fname),
                    info.dli_fname, kLibraryFile);
      if (access(out, R_OK) == 0) return true;
    }
  }
  std::snprintf(out, size, "%s/%s", TROVALIS_BRIDGE_LIBDIR, kLibraryFile);
  return access(out, R_OK) == 0;
}

template <class F>
bool resolve(void *handle, const char *name, F &fn) {
  fn = reinterpret_cast<F>(dlsym(handle, name));
  return fn != nullptr;
}

// Loads the library with its load-time attach held back (the attach would
// end the program when it fails).
void *open_deferred(const char *path) {
  const char *old = std::getenv("TROVALIS_DEFER_ATTACH");
  char saved[8] = "";
  const bool had = old != nullptr && std::strlen(old) < sizeof saved;
  if (had) std::strcpy(saved, old);
  setenv("TROVALIS_DEFER_ATTACH", "1", 1);
  void *handle = dlopen(path, kPrivateLoad);
  if (had) setenv("TROVALIS_DEFER_ATTACH", saved, 1);
  else unsetenv("TROVALIS_DEFER_ATTACH");
  return handle;
}

// Attaches with standard error sent to /dev/null: the start-up line and
// any report of a failure are not the program's to show. Without a spare
// descriptor nothing is attached.
bool attach_quietly(int (*entry)(void *, int, void *)) {
  const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd < 0) return false;
  std::fflush(stderr);
  const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  if (saved < 0 || dup2(null_fd, STDERR_FILENO) < 0) {
    if (saved >= 0) close(saved);
    close(null_fd);
    return false;
  }
  const int ok = entry(nullptr, 1, nullptr);
  std::fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(null_fd);
  return ok != 0;
}

}  // namespace

bool load_trovalis(Trovalis *out, const char **why, bool *can_log) {
  Trovalis &t = *out;
  *can_log = false;
  char path[PATH_MAX];
  if (!library_path(path, sizeof path)) {
    *why = "trovalis library not found";
    return false;
  }
  void *handle = open_deferred(path);
  if (handle == nullptr) {
    *why = "trovalis library not loaded";
    return false;
  }
  int (*entry)(void *, int, void *) = nullptr;
  char **base = nullptr;
  bool ok = resolve(handle, "DllEntryPoint", entry) && resolve(handle, "Ptr_trovalis", base);
  ok = ok && resolve(handle, "_QDMSearch", t.search) && resolve(handle, "QDMFind", t.find);
  ok = ok && resolve(handle, "QDMValue", t.value) && resolve(handle, "QDMReady", t.ready);
  ok = ok && resolve(handle, "QDMNewFile", t.new_file) && resolve(handle, "QDMMessage", t.post);
  if (!ok) {
    *why = "trovalis library lacks an entry point";
    return false;
  }
  if (!attach_quietly(entry)) {
    *why = "cannot attach the shared region";
    return false;
  }
  *can_log = true;
  const char *region = *base;
  if (region == nullptr ||
      header_word(region, kMemMaxWord) - header_word(region, kMemUsedWord) < kFullMargin) {
    *why = "the shared region is full";
    return false;
  }
  return true;
}

}  // namespace bridge
