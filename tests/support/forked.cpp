// Test harness: forked copies of the test process with a channel each way.
// Lines are shorter than PIPE_BUF, so each is written whole at once (or not
// at all, to a reader that left).
#include "support/forked.h"
#include "support/sandbox.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace trv::test {

Forked::Forked(const std::function<int(Forked &)> &body) {
  if (!cloexec_pipe(up_) || !cloexec_pipe(down_)) return;
  std::fflush(nullptr);  // nothing buffered may be written twice
  pid_ = fork();
  for (int *theirs : {pid_ == 0 ? &down_[1] : &down_[0], pid_ == 0 ? &up_[0] : &up_[1]})
    close(std::exchange(*theirs, -1));
  if (pid_ == 0) _exit(body(*this));
}

Forked::~Forked() {
  kill_and_wait(SIGKILL);
  for (int fd : {up_[0], up_[1], down_[0], down_[1]}) close(fd);
}

void Forked::say(const std::string &line) { (void)!::write(up_[1], (line + "\n").data(), line.size() + 1); }
std::string Forked::hear() { return read_line_from(down_[0], &from_parent_, -1); }
std::string Forked::read_line(int timeout_ms) { return read_line_from(up_[0], &from_child_, timeout_ms); }
void Forked::tell(const std::string &line) { (void)!::write(down_[1], (line + "\n").data(), line.size() + 1); }
int Forked::kill_and_wait(int sig) {
  const pid_t pid = std::exchange(pid_, -1);
  int st = 0;
  if (pid <= 0 || (sig > 0 && ::kill(pid, sig) != 0) || ::kill(pid, SIGCONT) != 0 || waitpid(pid, &st, 0) != pid)
    return -1;  // SIGCONT: a stopped child would not die of SIGTERM
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

}  // namespace trv::test
