// Test harness: copies of the test process made by fork, each running one
// function, with a line-based channel both ways. A child inherits the
// attachment and the lock handles, as a host's forked child would.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "support/sandbox.h"

namespace trv::test {

class Forked {
 public:
  // Runs `body` in a child that ends with _exit(body's result), so nothing
  // of the test framework runs there.
  explicit Forked(const std::function<int(Forked &)> &body);
  ~Forked();  // kills and reaps a child that is still there
  Forked(const Forked &) = delete;
  Forked &operator=(const Forked &) = delete;

  // Child side. hear() blocks; "" when the parent went away.
  void say(const std::string &line);
  std::string hear();

  // Parent side. read_line gives "" after timeout_ms or at end of output.
  std::string read_line(int timeout_ms = 10000);
  void tell(const std::string &line);
  // Sends sig (none when 0) and reaps the child; its exit status, or 128 +
  // the signal that ended it; -1 when there is none (any more).
  int kill_and_wait(int sig);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int up_[2] = {-1, -1}, down_[2] = {-1, -1};
  std::string from_child_, from_parent_;
};

// Milliseconds on the monotonic clock since an arbitrary start.
}  // namespace trv::test
