// Test harness: forked copies of the test process with a channel each way.
#include "support/forked.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

namespace trv::test {

Forked::Forked(const std::function<int(Forked &)> &body) {
  if (pipe2(to_parent_, O_CLOEXEC) != 0 || pipe2(to_child_, O_CLOEXEC) != 0) return;
  std::fflush(nullptr);  // nothing buffered may be written twice
  pid_ = fork();
  if (pid_ == 0) {
    close(to_parent_[0]);
    close(to_child_[1]);
    to_parent_[0] = to_child_[1] = -1;
    _exit(body(*this));
  }
  close(to_parent_[1]);
  close(to_child_[0]);
  to_parent_[1] = to_child_[0] = -1;
}

Forked::~Forked() {
  if (pid_ > 0) kill_and_wait(SIGKILL);
  for (int fd : {to_parent_[0], to_parent_[1], to_child_[0], to_child_[1]})
    if (fd >= 0) close(fd);
}

void Forked::say(const std::string &line) {
  const std::string text = line + "\n";
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(to_parent_[1], text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

std::string Forked::hear() { return line_from(to_child_[0], &from_parent_, -1); }

std::string Forked::read_line(int timeout_ms) {
  return line_from(to_parent_[0], &from_child_, timeout_ms);
}

void Forked::tell(const std::string &line) {
  const std::string text = line + "\n";
  if (::write(to_child_[1], text.data(), text.size()) < 0) return;
}

std::string Forked::line_from(int fd, std::string *buffered, int timeout_ms) {
  const long deadline = now_ms() + timeout_ms;
  for (;;) {
    const size_t nl = buffered->find('\n');
    if (nl != std::string::npos) {
      std::string line = buffered->substr(0, nl);
      buffered->erase(0, nl + 1);
      return line;
    }
    const long left = timeout_ms < 0 ? -1 : deadline - now_ms();
    if (timeout_ms >= 0 && left <= 0) return "";
    pollfd p{fd, POLLIN, 0};
    const int r = poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return "";
    char buf[256];
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return "";
    buffered->append(buf, static_cast<size_t>(n));
  }
}

void Forked::signal(int sig) {
  if (pid_ > 0) ::kill(pid_, sig);
}

int Forked::kill_and_wait(int sig) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, sig);
  ::kill(pid_, SIGCONT);  // a stopped child would not die of SIGTERM
  return wait();
}

int Forked::wait() {
  if (pid_ <= 0) return -1;
  int st = 0;
  while (waitpid(pid_, &st, 0) < 0) {
    if (errno != EINTR) {
      pid_ = -1;
      return -1;
    }
  }
  pid_ = -1;
  if (WIFEXITED(st)) return WEXITSTATUS(st);
  if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
  return -1;
}

long now_ms() {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now().time_since_epoch())
                               .count());
}

}  // namespace trv::test
