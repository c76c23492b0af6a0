// Test harness: sandbox directories with their own TEXMF.INI, HOME and
// region instance, in-process attachment, and child processes.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace trv::test {

// A temporary directory holding a small TeX installation:
//   ROOT/TEXMF.INI, ROOT/bin/, ROOT/home/ (HOME)
// with a region instance name of its own. The destructor removes the
// directory and every shared object and semaphore of the instance.
class Sandbox {
 public:
  explicit Sandbox(const std::string &ini_text = "[QDM]\n");
  ~Sandbox();
  Sandbox(const Sandbox &) = delete;
  Sandbox &operator=(const Sandbox &) = delete;

  const std::string &root() const { return root_; }
  const std::string &home() const { return home_; }
  const std::string &instance() const { return instance_; }
  std::string path(const std::string &rel) const { return root_ + "/" + rel; }

  // Writes a file (creating its directories) relative to the root.
  void write(const std::string &rel, const std::string &text) const;
  // Copies the C test host to ROOT/REL (default bin/host) and returns its path.
  std::string install_host(const std::string &rel = "bin/host") const;

  // Names of the instance's shared objects, as the library derives them.
  std::string region_name() const;
  std::string lock_name() const;
  std::string download_lock_name() const;

  // Environment for child processes: HOME, TROVALIS_INSTANCE, and APPDATA,
  // USERPROFILE and XDG_CONFIG_HOME removed, plus `extra`.
  std::vector<std::string> env(const std::map<std::string, std::string> &extra = {}) const;

 private:
  std::string root_, home_, instance_;
};

// A named semaphore's value, 1 free or 0 taken, found by taking it and
// giving it back (macOS has no sem_getvalue for named semaphores).
int sem_value(sem_t *sem);

// pipe() with both ends close-on-exec (macOS has no pipe2).
bool cloexec_pipe(int fds[2]);

// One line from fd (without the LF), what follows it kept in *buffered;
// "" at end of input or once timeout_ms (< 0: never) passed.
std::string read_line_from(int fd, std::string *buffered, int timeout_ms);
// Milliseconds on the monotonic clock since an arbitrary start.
long now_ms();

// What a finished child printed and how it ended.
struct RunResult {
  int status = -1;     // exit status, or 128 + signal
  std::string out, err;
};

// Runs argv with the environment `env` and waits for it.
RunResult run(const std::vector<std::string> &argv, const std::vector<std::string> &env,
              const std::string &input = "");

// A child left running; its standard output can be read line by line.
class Child {
 public:
  Child(const std::vector<std::string> &argv, const std::vector<std::string> &env);
  ~Child();
  // One line of the child's standard output, as read_line_from with 10 s.
  std::string read_line();
  // Sends `sig` and reaps the child, so that it no longer exists (a zombie
  // would still answer a liveness probe). Returns RunResult::status.
  int kill_and_wait(int sig);
  int wait();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int out_fd_ = -1;
  std::string buffered_;
};

// Attaches this process to the sandbox's region as if it were the program
// ROOT/bin/PROG (the environment is set as for a child).
// Detach with detach_region(); the Sandbox removes the objects.
bool attach_region(const Sandbox &box, const std::string &prog = "bin/prog");
void detach_region();

// Sets an environment variable for the rest of the test and puts the old
// value back at the end of the scope.
class ScopedEnv {
 public:
  ScopedEnv(const char *name, const char *value);  // value nullptr: unset
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv &) = delete;
  ScopedEnv &operator=(const ScopedEnv &) = delete;

 private:
  std::string name_, old_;
  bool had_;
};

// Test fixture base: a sandbox and this process attached to its region.
class AttachedTest {
 public:
  explicit AttachedTest(const std::string &ini_text = "[QDM]\n");
  ~AttachedTest();
  Sandbox box;

 private:
  ScopedEnv home_, instance_, appdata_, userprofile_, xdg_;
};

std::string read_file(const std::string &path);

// Puts this process's search and front-end modes back at the end of a
// test (or at restore()): MakeLocked, AutoDownload, ConsoleErr,
// WaitPassMessages, Trace, ProgName, the configuration files and the
// common and section tables it uses.
class SavedModes {
 public:
  SavedModes();
  ~SavedModes() { restore(); }
  SavedModes(const SavedModes &) = delete;
  SavedModes &operator=(const SavedModes &) = delete;
  void restore() const;

 private:
  int make_[2], download_[2], console_, wait_, trace_, common_, sectdir_;
  char prog_[64], *ini_, *user_ini_;
};

}  // namespace trv::test
