// Finds and loads trovalis.so relative to the tool's own location.
#include "library.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

namespace tool {
namespace {

#ifdef __APPLE__
constexpr const char *kLibFile = "trovalis.dylib";
#else
constexpr const char *kLibFile = "trovalis.so";
#endif

std::string own_directory() {
  const std::string path = own_path();
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

bool g_verbose = false;

// What the library writes on stderr while it attaches is caught in a
// temporary file and passed on afterwards, without the attach line unless
// the user asked for it. A failed attach ends the process inside dlopen;
// the exit handler passes the report on then.
struct StderrCatch {
  std::FILE *file = nullptr;
  int saved = -1;
};
StderrCatch g_catch;

void pass_on_caught() {
  if (g_catch.saved < 0) return;
  std::fflush(stderr);
  dup2(g_catch.saved, STDERR_FILENO);
  close(g_catch.saved);
  g_catch.saved = -1;
  std::rewind(g_catch.file);
  char line[1024];
  while (std::fgets(line, sizeof line, g_catch.file) != nullptr) {
    if (!g_verbose && std::strncmp(line, "Opened Memory is '", 18) == 0) continue;
    std::fputs(line, stderr);
  }
  std::fclose(g_catch.file);
  g_catch.file = nullptr;
}

void catch_stderr() {
  g_catch.file = std::tmpfile();
  if (g_catch.file == nullptr) return;  // nothing caught: the line shows
  std::fflush(stderr);
  g_catch.saved = dup(STDERR_FILENO);
  if (g_catch.saved < 0 || dup2(fileno(g_catch.file), STDERR_FILENO) < 0) {
    if (g_catch.saved >= 0) close(g_catch.saved);
    g_catch.saved = -1;
    std::fclose(g_catch.file);
    g_catch.file = nullptr;
    return;
  }
  std::atexit(pass_on_caught);
}

template <class F>
bool resolve(void *handle, const char *name, F *&fn) {
  fn = reinterpret_cast<F *>(dlsym(handle, name));
  if (fn == nullptr) std::fprintf(stderr, "trovalis: %s is missing from the library\n", name);
  return fn != nullptr;
}

}  // namespace

const Api *load() {
  static Api api;
  static bool loaded = false;
  if (loaded) return &api;
  const std::string dir = own_directory();
  const std::string candidates[] = {dir + "/../lib/" + kLibFile, dir + "/" + kLibFile};
  void *handle = nullptr;
  std::string errors;
  for (const std::string &c : candidates) {
    if (access(c.c_str(), F_OK) != 0) continue;
    catch_stderr();
    handle = dlopen(c.c_str(), RTLD_NOW | RTLD_GLOBAL);
    pass_on_caught();
    if (handle != nullptr) break;
    errors += std::string("\n  ") + dlerror();
  }
  if (handle == nullptr) {
    std::fprintf(stderr, "trovalis: cannot load %s from %s/../lib or %s%s\n", kLibFile,
                 dir.c_str(), dir.c_str(), errors.c_str());
    return nullptr;
  }
  bool ok = resolve(handle, "QDMCopyMessages", api.QDMCopyMessages);
  ok = resolve(handle, "QDMMessage", api.QDMMessage) && ok;
  ok = resolve(handle, "QDMReady", api.QDMReady) && ok;
  ok = resolve(handle, "_QDMSearch", api.QDMSearch) && ok;
  ok = resolve(handle, "QDMNewFile", api.QDMNewFile) && ok;
  ok = resolve(handle, "QDMFind", api.QDMFind) && ok;
  ok = resolve(handle, "Print_Cache", api.Print_Cache) && ok;
  ok = resolve(handle, "QDMValue", api.QDMValue) && ok;
  ok = resolve(handle, "QDMSetMessageTap", api.QDMSetMessageTap) && ok;
  ok = resolve(handle, "Trace", api.Trace) && ok;
  ok = resolve(handle, "Trace_ALS", api.Trace_ALS) && ok;
  if (!ok) return nullptr;
  loaded = true;
  return &api;
}

void set_verbose(bool on) { g_verbose = on; }

std::string own_path() {
  char buf[PATH_MAX];
#ifdef __APPLE__
  uint32_t len = sizeof buf;
  if (_NSGetExecutablePath(buf, &len) != 0) return "trovalis";
#else
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "trovalis";
  buf[n] = '\0';
#endif
  return buf;
}

}  // namespace tool
