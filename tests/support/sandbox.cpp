// Test harness: sandboxes, in-process attachment and child processes.
#include "support/sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/holder.h"
#include "platform/platform.h"
#include "trovalis.h"

extern char **environ;

namespace trv::test {

namespace fs = std::filesystem;

namespace {

std::string unique_instance() {
  static std::atomic<int> counter{0};
  char buf[32];
  std::snprintf(buf, sizeof buf, "t%d_%d", static_cast<int>(getpid()), counter++);
  return buf;
}

std::vector<char *> c_strings(const std::vector<std::string> &v) {
  std::vector<char *> out;
  for (const std::string &s : v) out.push_back(const_cast<char *>(s.c_str()));
  out.push_back(nullptr);
  return out;
}

pid_t spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env, int in_fd,
            int out_fd, int err_fd) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  if (in_fd >= 0) posix_spawn_file_actions_adddup2(&fa, in_fd, 0);
  if (out_fd >= 0) posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
  if (err_fd >= 0) posix_spawn_file_actions_adddup2(&fa, err_fd, 2);
  std::vector<char *> a = c_strings(argv), e = c_strings(env);
  pid_t pid = -1;
  if (posix_spawn(&pid, a[0], &fa, nullptr, a.data(), e.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

int decode(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return -1;
}

int wait_for(pid_t pid) {
  int st = 0;
  while (waitpid(pid, &st, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return decode(st);
}

}  // namespace

Sandbox::Sandbox(const std::string &ini_text) {
  char tmpl[] = "/tmp/trovalis-test-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = tmpl;
  home_ = root_ + "/home";
  fs::create_directories(home_);
  fs::create_directories(root_ + "/bin");
  instance_ = unique_instance();
  write("TEXMF.INI", ini_text);
}

Sandbox::~Sandbox() {
  shm_unlink(region_name().c_str());
  sem_unlink(lock_name().c_str());
  sem_unlink(download_lock_name().c_str());
  platform::holder_remove(lock_name().c_str());
  platform::holder_remove(download_lock_name().c_str());
  std::error_code ec;
  fs::remove_all(root_, ec);
}

void Sandbox::write(const std::string &rel, const std::string &text) const {
  const fs::path p = fs::path(root_) / rel;
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << text;
}

std::string Sandbox::install_host(const std::string &rel) const {
  const fs::path p = fs::path(root_) / rel;
  fs::create_directories(p.parent_path());
  fs::copy_file(TROVALIS_TEST_HOST, p, fs::copy_options::overwrite_existing);
  return p.string();
}

std::string Sandbox::region_name() const {
  return "/zelvan-tds-mem-" + std::to_string(getuid()) + "-" + instance_;
}
std::string Sandbox::lock_name() const {
  return "/zelvan-tds-cache-" + std::to_string(getuid()) + "-" + instance_;
}

std::string Sandbox::download_lock_name() const {
  return "Zelvan TeX 9 AutoDownload Mutex-" + instance_;
}

std::vector<std::string> Sandbox::env(const std::map<std::string, std::string> &extra) const {
  std::map<std::string, std::string> vars;
  for (char **e = environ; *e; ++e) {
    const char *eq = std::strchr(*e, '=');
    if (eq) vars[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
  }
  vars.erase("APPDATA");
  vars.erase("USERPROFILE");
  vars.erase("XDG_CONFIG_HOME");
  vars["HOME"] = home_;
  vars["TROVALIS_INSTANCE"] = instance_;
  for (const auto &[k, v] : extra) vars[k] = v;
  std::vector<std::string> out;
  for (const auto &[k, v] : vars) out.push_back(k + "=" + v);
  return out;
}

int sem_value(sem_t *sem) {
  if (sem_trywait(sem) != 0) return 0;
  sem_post(sem);
  return 1;
}

bool cloexec_pipe(int fds[2]) {
  if (pipe(fds) != 0) return false;
  for (int i = 0; i < 2; ++i) fcntl(fds[i], F_SETFD, FD_CLOEXEC);
  return true;
}

// The child's standard streams are unlinked temporary files: nothing to
// poll, and a grandchild that keeps one open cannot make the wait hang.
RunResult run(const std::vector<std::string> &argv, const std::vector<std::string> &env,
              const std::string &input) {
  FILE *files[3] = {std::tmpfile(), std::tmpfile(), std::tmpfile()};  // in, out, err
  RunResult r;
  if (files[0] && files[1] && files[2]) {
    for (FILE *f : files) fcntl(fileno(f), F_SETFD, FD_CLOEXEC);
    std::fwrite(input.data(), 1, input.size(), files[0]);
    std::fflush(files[0]), std::rewind(files[0]);
    const pid_t pid = spawn(argv, env, fileno(files[0]), fileno(files[1]), fileno(files[2]));
    r.status = pid > 0 ? wait_for(pid) : -1;
    std::string *sinks[] = {&r.out, &r.err};
    for (int i = 0; i < 2; ++i) {
      std::rewind(files[i + 1]);
      char buf[4096];
      for (size_t n; (n = std::fread(buf, 1, sizeof buf, files[i + 1])) > 0;) sinks[i]->append(buf, n);
    }
  }
  for (FILE *f : files)
    if (f) std::fclose(f);
  return r;
}

Child::Child(const std::vector<std::string> &argv, const std::vector<std::string> &env) {
  int out[2];
  if (!cloexec_pipe(out)) return;
  const int devnull = open("/dev/null", O_WRONLY);
  pid_ = spawn(argv, env, -1, out[1], devnull);
  close(devnull);
  close(out[1]);
  out_fd_ = out[0];
}

Child::~Child() {
  if (pid_ > 0) kill_and_wait(SIGKILL);
  if (out_fd_ >= 0) close(out_fd_);
}

std::string Child::read_line() { return read_line_from(out_fd_, &buffered_, 10000); }

std::string read_line_from(int fd, std::string *buffered, int timeout_ms) {
  const long deadline = now_ms() + timeout_ms;
  for (size_t nl; (nl = buffered->find('\n')) == std::string::npos;) {
    pollfd p{fd, POLLIN, 0};
    char chunk[256];
    const long left = deadline > now_ms() ? deadline - now_ms() : 0;
    ssize_t n = poll(&p, 1, timeout_ms < 0 ? -1 : static_cast<int>(left));
    if (n > 0 && (n = ::read(fd, chunk, sizeof chunk)) > 0)
      buffered->append(chunk, static_cast<size_t>(n));
    else if (n == 0 || errno != EINTR)
      return "";
  }
  const std::string line = buffered->substr(0, buffered->find('\n'));
  buffered->erase(0, line.size() + 1);
  return line;
}

long now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int Child::kill_and_wait(int sig) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, sig);
  return wait();
}

int Child::wait() {
  if (pid_ <= 0) return -1;
  const int st = wait_for(pid_);
  pid_ = -1;
  return st;
}

bool attach_region(const Sandbox &box, const std::string &prog) {
  platform::set_executable_path_override(box.path(prog).c_str());
  return DllEntryPoint(nullptr, 1, nullptr) == 1;
}

void detach_region() {
  DllEntryPoint(nullptr, 2, nullptr);
  platform::set_executable_path_override(nullptr);
}

ScopedEnv::ScopedEnv(const char *name, const char *value) : name_(name) {
  const char *old = std::getenv(name);
  had_ = old != nullptr;
  if (had_) old_ = old;
  if (value) setenv(name, value, 1);
  else unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (had_) setenv(name_.c_str(), old_.c_str(), 1);
  else unsetenv(name_.c_str());
}

AttachedTest::AttachedTest(const std::string &ini_text)
    : box(ini_text),
      home_("HOME", box.home().c_str()),
      instance_("TROVALIS_INSTANCE", box.instance().c_str()),
      appdata_("APPDATA", nullptr),
      userprofile_("USERPROFILE", nullptr),
      xdg_("XDG_CONFIG_HOME", nullptr) {
  if (!attach_region(box)) throw std::runtime_error("attach failed");
}

AttachedTest::~AttachedTest() { detach_region(); }

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

SavedModes::SavedModes()
    : console_(ConsoleErr), wait_(WaitPassMessages), trace_(Trace), common_(Common), sectdir_(SectDir),
      ini_(INIFile), user_ini_(Zelvan_INI) {
  std::memcpy(make_, MakeLocked, sizeof make_);
  std::memcpy(download_, AutoDownload, sizeof download_);
  std::memcpy(prog_, ProgName, sizeof prog_);
}

void SavedModes::restore() const {
  std::memcpy(MakeLocked, make_, sizeof make_);
  std::memcpy(AutoDownload, download_, sizeof download_);
  std::memcpy(ProgName, prog_, sizeof prog_);
  ConsoleErr = console_, WaitPassMessages = wait_, Trace = trace_;
  Common = common_, SectDir = sectdir_, INIFile = ini_, Zelvan_INI = user_ini_;
}

}  // namespace trv::test
