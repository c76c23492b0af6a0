// Administrator rights: obtaining them once per process and starting a
// program with them whose standard output is read through a pipe.
#pragma once

#include <sys/types.h>

#include <cstdio>

namespace trv::platform {

// A program started by admin_execute. Read its output from `fd` until the
// read yields nothing, then hand the run to admin_finish.
struct AdminRun {
  int fd = -1;                  // read end of the program's standard output
  pid_t pid = -1;               // child to reap; -1 when there is none to wait for
  std::FILE *stream = nullptr;  // owns fd where the system hands out a stream
};

// Creates the process's authorization reference into *ref. False when the
// system refuses; *ref is then left alone. The reference is never freed.
bool admin_create(void **ref);

// Asks for administrator rights on the reference, letting the system ask
// the user for consent where it can. True when they were granted.
bool admin_copy_rights(void *ref);

// Starts the program at path with administrator rights. args holds the
// arguments after the program name and ends with nullptr. On success *run
// describes the started program and true is returned; false when it could
// not be started (missing or not executable, included).
bool admin_execute(void *ref, const char *path, const char *const args[], AdminRun *run);

// Closes the pipe of a run and waits for its program to end, so that no
// zombie is left behind. Safe on a run that failed to start.
void admin_finish(AdminRun *run);

}  // namespace trv::platform
