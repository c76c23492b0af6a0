// Linux: administrator rights through a non-interactive privilege helper.
//
// There is no consent dialog to show from inside a library that may have no
// terminal, so rights come from a helper that either grants them at once or
// refuses: the program named by TROVALIS_PRIV_HELPER when set, else sudo
// (which grants when its credentials are cached or no password is needed).
// A process already running as root needs no helper at all.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/admin.h"

namespace trv::platform {

namespace {

// Linux keeps no state behind the reference; it only has to be non-null.
int g_reference;

// The helper in force, or nullptr when the process may run programs itself.
const char *helper() {
  const char *h = std::getenv("TROVALIS_PRIV_HELPER");
  if (h != nullptr && h[0] != '\0') return h;
  return geteuid() == 0 ? nullptr : "sudo";
}

// name looked up along PATH when it holds no '/', into out. Done before the
// fork: the child of a possibly threaded host may only call what is safe
// after fork, and execvp is not on that list.
bool resolve(const char *name, char *out, size_t size) {
  if (std::strchr(name, '/') != nullptr) {
    return std::snprintf(out, size, "%s", name) < static_cast<int>(size);
  }
  const char *path = std::getenv("PATH");
  if (path == nullptr || path[0] == '\0') path = "/usr/bin:/bin";
  for (const char *p = path;;) {
    const char *end = std::strchr(p, ':');
    const size_t len = end ? static_cast<size_t>(end - p) : std::strlen(p);
    // An empty element of PATH stands for the current directory.
    const int n = len == 0 ? std::snprintf(out, size, "%s", name)
                           : std::snprintf(out, size, "%.*s/%s", static_cast<int>(len), p, name);
    if (n > 0 && static_cast<size_t>(n) < size && access(out, X_OK) == 0) return true;
    if (end == nullptr) return false;
    p = end + 1;
  }
}

// Waits for pid. False when its status cannot be had (a host that ignores
// SIGCHLD has its children reaped by the system).
bool reap(pid_t pid, int *status) {
  int st = 0;
  pid_t r;
  do {
    r = waitpid(pid, &st, 0);
  } while (r < 0 && errno == EINTR);
  if (status != nullptr) *status = st;
  return r == pid;
}

// Starts argv (argv[0] already resolved to a path) with standard input from
// /dev/null and standard output on out_fd (/dev/null when -1). Returns the
// child's pid, or -1 when it could not be started: an exec that fails in the
// child is reported back through a close-on-exec pipe, which closes without
// a word when the exec succeeds.
pid_t spawn(const char *const argv[], int out_fd) {
  const int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (devnull < 0) return -1;
  int err[2];
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(devnull);
    return -1;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    // Lift every descriptor above the standard three first: in a host that
    // closed its standard streams, devnull or a pipe end may itself be 0, 1
    // or 2 and would be overwritten by the dup2 onto it.
    const int null_fd = fcntl(devnull, F_DUPFD_CLOEXEC, 3);
    const int to = out_fd >= 0 ? fcntl(out_fd, F_DUPFD_CLOEXEC, 3) : null_fd;
    int report = fcntl(err[1], F_DUPFD_CLOEXEC, 3);
    if (report < 0) report = err[1];
    int e = EMFILE;
    if (null_fd >= 0 && to >= 0) {
      dup2(null_fd, 0);
      dup2(to, 1);
      if (out_fd < 0) dup2(null_fd, 2);
      execv(argv[0], const_cast<char *const *>(argv));
      e = errno;
    }
    ssize_t w;
    do {
      w = write(report, &e, sizeof e);
    } while (w < 0 && errno == EINTR);
    _exit(127);
  }
  close(devnull);
  close(err[1]);
  if (pid < 0) {
    close(err[0]);
    return -1;
  }
  int e = 0;
  ssize_t n;
  do {
    n = read(err[0], &e, sizeof e);
  } while (n < 0 && errno == EINTR);
  close(err[0]);
  if (n > 0) {
    reap(pid, nullptr);
    errno = e;
    return -1;
  }
  return pid;
}

}  // namespace

bool admin_create(void **ref) {
  *ref = &g_reference;
  return true;
}

// Asking the helper to run `true` without a prompt (-n) tells whether it
// would run the setup program: exit status 0 grants, anything else refuses.
bool admin_copy_rights(void *) {
  const char *h = helper();
  if (h == nullptr) return true;
  char prog[PATH_MAX];
  if (!resolve(h, prog, sizeof prog)) return false;
  const char *const argv[] = {prog, "-n", "true", nullptr};
  const pid_t pid = spawn(argv, -1);
  if (pid < 0) return false;
  int status = 0;
  return reap(pid, &status) && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool admin_execute(void *, const char *path, const char *const args[], AdminRun *run) {
  *run = AdminRun{};
  // Checked here as well as by the exec: through a helper, a missing
  // program would only show as a helper that printed nothing.
  if (path == nullptr || access(path, X_OK) != 0) return false;

  std::vector<const char *> argv;
  char prog[PATH_MAX];
  if (const char *h = helper()) {
    if (!resolve(h, prog, sizeof prog)) return false;
    argv = {prog, "-n", path};
  } else {
    argv = {path};
  }
  for (const char *const *a = args; a != nullptr && *a != nullptr; ++a) argv.push_back(*a);
  argv.push_back(nullptr);

  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return false;
  const pid_t pid = spawn(argv.data(), out[1]);
  close(out[1]);
  if (pid < 0) {
    close(out[0]);
    return false;
  }
  run->fd = out[0];
  run->pid = pid;
  return true;
}

void admin_finish(AdminRun *run) {
  if (run->stream != nullptr) {
    std::fclose(run->stream);
  } else if (run->fd >= 0) {
    close(run->fd);
  }
  if (run->pid > 0) reap(run->pid, nullptr);
  *run = AdminRun{};
}

}  // namespace trv::platform
