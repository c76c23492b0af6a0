// The few services whose implementation differs between macOS and Linux.
#pragma once

#include <sys/stat.h>

#include <semaphore.h>

#include <cstddef>
#include <cstdint>

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

// What tells one version of a file from another: a file rewritten in place
// or replaced by a rename differs in at least one of these. All 0 for a
// file that is not there (no file has inode 0).
struct FileStamp {
  int64_t size = 0;
  int64_t mtime_sec = 0;
  int64_t inode = 0;
  int32_t mtime_nsec = 0;
};

// The stamp of `path` (following links); all 0 when it cannot be looked at.
FileStamp file_stamp(const char *path);

// What a directory's stat says that changes whenever its entries, its
// mode or owner, or the directory a path leads to change: device, inode,
// and the modification and status-change times to the nanosecond.
struct DirState {
  int64_t dev = 0, inode = 0;
  int64_t mtime_sec = 0, ctime_sec = 0;
  int32_t mtime_nsec = 0, ctime_nsec = 0;
  friend bool operator==(const DirState &, const DirState &) = default;
};
DirState dir_state(const struct stat &st);

// The folder that holds the per-user folder when neither APPDATA nor
// USERPROFILE names one: ~/Library on macOS; on Linux $XDG_CONFIG_HOME when
// it is an absolute path, else ~/.config. Empty when HOME is not set
// either (Linux).
const char *user_config_folder();

}  // namespace trv::platform
