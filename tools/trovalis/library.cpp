// Finds and loads trovalis.so relative to the tool's own location.
#include "library.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
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

// What the library writes on stderr while it attaches is caught in a pipe
// and passed on afterwards, without the attach line unless the user asked
// for it. A failed attach ends the process inside dlopen; the exit handler
// passes the report on then. A pipe rather than a temporary file: making
// and dropping a file costs a fresh process a good part of what the attach
// costs. Both ends are non-blocking, so that should the library ever write
// more than a pipe holds, the rest is lost rather than the tool stopped.
struct StderrCatch {
  int read_fd = -1;
  int saved = -1;
};
StderrCatch g_catch;

void pass_on_caught() {
  if (g_catch.saved < 0) return;
  std::fflush(stderr);
  dup2(g_catch.saved, STDERR_FILENO);  // closes the pipe's last write end
  close(g_catch.saved);
  g_catch.saved = -1;
  std::string text;
  char buf[4096];
  for (;;) {
    const ssize_t n = read(g_catch.read_fd, buf, sizeof buf);
    if (n > 0) text.append(buf, static_cast<size_t>(n));
    else if (!(n < 0 && errno == EINTR)) break;
  }
  close(g_catch.read_fd);
  g_catch.read_fd = -1;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    const char *line = text.data() + start;
    if (g_verbose || text.compare(start, 18, "Opened Memory is '") != 0)
      std::fwrite(line, 1, end - start, stderr);
    start = end;
  }
}

void catch_stderr() {
  int fds[2];
  if (pipe(fds) != 0) return;  // nothing caught: the line shows
  for (const int fd : fds) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  std::fflush(stderr);
  g_catch.saved = dup(STDERR_FILENO);
  if (g_catch.saved < 0 || dup2(fds[1], STDERR_FILENO) < 0) {
    if (g_catch.saved >= 0) close(g_catch.saved);
    g_catch.saved = -1;
    close(fds[0]);
    close(fds[1]);
    return;
  }
  close(fds[1]);
  g_catch.read_fd = fds[0];
  static bool registered = false;
  if (!registered) registered = std::atexit(pass_on_caught) == 0;
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
