// The fuzz targets, one entry point per parser or reader, and what they
// share: a scratch installation with this process attached to a region of
// its own, the region's state put back after every input, and the check
// that turns a broken promise into a finding. The targets are linked into
// the one libFuzzer driver and into the test that replays saved inputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace trv::fuzz {

// Each takes any bytes. A crash, a sanitizer report or a failed FUZZ_CHECK
// is a finding; returning is a pass.
void fuzz_region(const uint8_t *data, size_t size);   // damaged region images
void fuzz_ini(const uint8_t *data, size_t size);      // INI reader and writer
void fuzz_db(const uint8_t *data, size_t size);       // ls-R and alias readers
void fuzz_expand(const uint8_t *data, size_t size);   // var_expand
void fuzz_qdmfind(const uint8_t *data, size_t size);  // front-end requests

struct Target {
  const char *name;  // also the directory of its saved inputs, fuzz/corpus/NAME
  void (*run)(const uint8_t *, size_t);
};
inline constexpr Target kTargets[] = {
    {"region", fuzz_region}, {"ini", fuzz_ini},         {"db", fuzz_db},
    {"expand", fuzz_expand}, {"qdmfind", fuzz_qdmfind},
};

// A directory holding a small installation (TEXMF.INI, a texmf tree with
// ls-R and alias files) with this process attached to a region of its own
// (1 MB) whose names are removed at once, so nothing is left in shared
// memory however the process ends. Made on first use; the region then holds
// cached answers, values, messages, a frame and pooled texts, and that state
// is what restore() puts back.
const std::string &scratch();
// Puts back the region as scratch() left it, and the per-process switches
// and program name. `whole` copies the whole mapping; otherwise only the
// header and the arena in use then (enough for targets that only allocate).
void restore(bool whole = false);
// Makes this process reload every INI file at its next access (the targets
// rewrite the same file within one second, which its time stamp and size
// may not tell).
void forget_ini_copies();
// Writes bytes to a file under scratch(); returns its path.
std::string write_scratch(const std::string &rel, const uint8_t *data, size_t size);
// Detaches and removes the scratch directory (for the replay test, whose
// process goes on with other tests).
void release();

// Standard output goes to /dev/null while one lives (the cache report).
class QuietStdout {
 public:
  QuietStdout();
  ~QuietStdout();
  QuietStdout(const QuietStdout &) = delete;
  QuietStdout &operator=(const QuietStdout &) = delete;

 private:
  int saved_ = -1;
};

[[noreturn]] void fail(const char *what, const char *file, int line);

}  // namespace trv::fuzz

#define FUZZ_CHECK(c) ((c) ? (void)0 : ::trv::fuzz::fail(#c, __FILE__, __LINE__))
