// The few services whose implementation differs between macOS and Linux.
#pragma once

#include <semaphore.h>

#include <cstddef>

namespace trv::platform {

// Full path of the running executable into buf (NUL-terminated). Returns
// false, with buf empty, when it cannot be found or does not fit.
bool executable_path(char *buf, size_t size);

// Tests stand a program in a sandbox directory without copying the test
// binary: while set, executable_path reports this path instead.
void set_executable_path_override(const char *path);

// Waits on `sem` for at most `ms` milliseconds, retrying interrupted waits.
// Returns 0 when taken, ETIMEDOUT on time-out, or another errno value.
int sem_wait_for(sem_t *sem, long ms);

// True when the semaphore's value is known to be above 0 (free). False when
// it is taken, or when the system cannot say (macOS has no sem_getvalue).
bool semaphore_known_free(sem_t *sem);

// Checks that the system file behind the named semaphore `name` (where the
// system keeps one) is a regular file owned by the current user. Sets
// `why` to a short reason when it is not. Returns true when acceptable or
// when the system gives no way to look.
bool semaphore_file_ok(const char *name, const char **why);

}  // namespace trv::platform
