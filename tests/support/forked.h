// Test harness: copies of the test process made by fork, each running one
// function, with a line-based channel both ways. For tests of processes
// that share a lock or a region: a child inherits the attachment and the
// lock handles, as a host's forked child would.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace trv::test {

class Forked {
 public:
  // Runs `body` in a child; its result is the child's exit status. The
  // child ends with _exit, so nothing of the test framework runs there.
  explicit Forked(const std::function<int(Forked &)> &body);
  ~Forked();  // kills and reaps a child that is still there
  Forked(const Forked &) = delete;
  Forked &operator=(const Forked &) = delete;

  // Child side.
  void say(const std::string &line);
  std::string hear();  // blocks; "" when the parent went away

  // Parent side. read_line gives "" after timeout_ms or at end of output.
  std::string read_line(int timeout_ms = 10000);
  void tell(const std::string &line);
  void signal(int sig);
  // Sends sig and reaps the child, so that it is gone (not a zombie).
  // Returns the exit status, or 128 + signal.
  int kill_and_wait(int sig);
  int wait();
  pid_t pid() const { return pid_; }

 private:
  static std::string line_from(int fd, std::string *buffered, int timeout_ms);
  pid_t pid_ = -1;
  int to_parent_[2] = {-1, -1};
  int to_child_[2] = {-1, -1};
  std::string from_child_, from_parent_;
};

// Milliseconds on the monotonic clock since an arbitrary start.
long now_ms();

}  // namespace trv::test
