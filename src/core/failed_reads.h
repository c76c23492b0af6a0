// Reads that failed for a reason other than the file's absence.
//
// What a process learns from a file it could not read (it ran out of file
// descriptors or memory, met an I/O error, or was refused a file that
// exists) is true for that process only, at that moment. Stored in the
// shared region it would be served to every later process of the user:
// a value looked up as missing, a format record without a path, a cached
// miss. So the readers report such failures here, and whatever builds
// shared state compares the count before and after its work and keeps the
// result to itself when it changed. "The file is not there" is an answer,
// not a failure, and is cached as usual.
#pragma once

#include <cerrno>
#include <cstdint>

namespace trv {

// True when errno value `err` says only that the file does not exist.
inline bool file_absent(int err) { return err == ENOENT || err == ENOTDIR; }

// Records a failed read of `path` with errno value `err` and logs it
// ("WARNING: Not cached, can't read (REASON): PATH"). Absences are not
// recorded: callers may pass any errno value.
void note_failed_read(const char *path, int err);

// Failed reads recorded in this process so far.
uint32_t failed_reads();

// Notes the count at construction; failed() tells whether a read failed
// since.
class FailedReadWatch {
 public:
  FailedReadWatch() : start_(failed_reads()) {}
  bool failed() const { return failed_reads() != start_; }

 private:
  uint32_t start_;
};

}  // namespace trv
