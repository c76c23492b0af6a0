// The remedies for a missing file: running the type's make command
// (AutoMake) and installing a package from the network index with the setup
// program (AutoDownload), serialised among all processes by the download
// lock.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/attach.h"
#include "core/lock.h"
#include "core/region.h"
#include "platform/admin.h"
#include "platform/platform.h"
#include "search/dirsearch.h"
#include "search/search.h"
#include "trovalis.h"

extern "C" {
void *myAuthorizationRef = nullptr;
int AuthRef = 0;
}

namespace trv {

namespace {

constexpr char kWrapper[] = "Quenmark.exe";
constexpr char kSetup[] = "setup";
// The setup program's output is relayed in pieces of at most this many bytes.
constexpr int kReadPiece = 126;

// What NotifyState hands the host's state notifier: a make command is
// running, and nothing is running any more.
constexpr int kStateMaking = 1;
constexpr int kStateIdle = 0;

constexpr char kCreateFailed[] = "ERROR: OSX AuthorizationCreate failed.";
constexpr char kRightsFailed[] = "ERROR: OSX AuthorizationCopyRights ";
constexpr char kRightsFailedText[] = "priveleges failed";
constexpr char kCantExecute[] = "ERROR: Can't execute setup program ";

// The download lock for one run: opened when made, waited for on request,
// released and closed when the run ends, whichever way it ends.
//
// Another process runs QDMReset under the cache lock while it holds the
// download lock, so waiting for the download lock with the cache lock held
// could wait forever. Callers release the cache lock before a remedy; should
// one not, the run goes on without the download lock rather than risk that.
class DownloadRun {
 public:
  DownloadRun() {
    if (cache_lock_held()) {
      message("ERROR: ", "download lock not taken: the cache lock is held");
      return;
    }
    char name[sizeof Download_Lock + 64];
    const char *why = nullptr;
    if (!download_lock_name(name, sizeof name)) {
      errno = ENAMETOOLONG;
    } else if (!platform::semaphore_file_ok(name, &why)) {
      // The lock's name carries no user id, so another user's semaphore
      // (or something that is no semaphore) may stand under it. That does
      // not change while the process runs: it is reported once, in the
      // log, and the runs go on unserialised. The cache lock's own check
      // would print the start-up report on standard error at every run.
      if (!unusable_told_) report(why, name);
      unusable_told_ = true;
      return;
    } else {
      lock_ = CreateMutex(nullptr, 0, name);
    }
    set_lock_timing(lock_, kDownloadLockTiming);
    if (lock_ == nullptr) report(LastErr(), name);
  }
  ~DownloadRun() {
    if (lock_ == nullptr) return;
    if (waited_) ReleaseMutex(lock_);
    mtx_close(lock_);
  }
  DownloadRun(const DownloadRun &) = delete;
  DownloadRun &operator=(const DownloadRun &) = delete;

  // No time limit: a make command or a download takes as long as it takes.
  // Only a holder that died is taken over (see core/lock.h).
  void wait() {
    if (lock_ == nullptr) return;
    WaitForSingleObject(lock_, -1);
    waited_ = true;
  }

 private:
  static void report(const char *reason, const char *name) {
    char text[256];
    std::snprintf(text, sizeof text, "[%s] of creating MUTEX '%s'", reason, name);
    message("ERROR: ", text);
  }

  static inline bool unusable_told_ = false;
  QDMLock *lock_ = nullptr;
  bool waited_ = false;
};

// The path of `file` in the calling program's directory into out (size
// bytes): the program's path with everything after its last '/' replaced by
// file. False when that does not fit; out then holds as much as fits.
bool beside_program(const char *file, char *out, size_t size) {
  char self[kSearchBuf];
  GetModuleFileName(nullptr, self, sizeof self);
  const char *slash = std::strrchr(self, '/');
  const int dir = slash ? static_cast<int>(slash - self) + 1 : 0;
  const int n = std::snprintf(out, size, "%.*s%s", dir, self, file);
  return n >= 0 && static_cast<size_t>(n) < size;
}

// Runs the command through the wrapper beside the program and relays every
// line it writes to the log.
void make_through_wrapper(const char *command, const char *name) {
  char wrapper[kSearchBuf];
  char line[kSearchBuf];  // the command, then its output lines
  // A command cut to fit would run something else than the type's make
  // command (a cut name makes the wrong file): refuse it instead.
  int n = -1;
  if (beside_program(kWrapper, wrapper, sizeof wrapper))
    n = std::snprintf(line, sizeof line, "\"%s\" %s %s", wrapper, command, name);
  if (n < 0 || static_cast<size_t>(n) >= sizeof line) {
    message("ERROR: Make command too long, not run: ", name);
    return;
  }
  message("Running ", line);
  std::FILE *pipe = popen(line, "r");
  if (pipe == nullptr) {
    message("ERROR: popen -- ", popen_lasterror());
    return;
  }
  // fgets stops at the buffer's end too, so a long line arrives in pieces
  // of at most 259 characters; each piece keeps its line end, if it has one.
  while (std::fgets(line, sizeof line, pipe) != nullptr) message("Message: ", line);
  pclose(pipe);
}

// Runs the command on the console; its output goes to this process's own
// streams.
void make_on_console(const char *command, const char *name) {
  char line[kSearchBuf];
  const int n = std::snprintf(line, sizeof line, "%s %s", command, name);
  if (n < 0 || static_cast<size_t>(n) >= sizeof line) {
    message("ERROR: Make command too long, not run: ", name);
    return;
  }
  std::fprintf(stderr, "\nRunning [%s]\n", line);
  std::fflush(stdout);  // what the host wrote so far comes before the command's output
  // The exit status is not examined: the search that follows tells whether
  // the file was made.
  [[maybe_unused]] const int status = std::system(line);
}

// Writes all n bytes to standard output, as far as it takes them.
void write_out(const char *bytes, size_t n) {
  while (n > 0) {
    const ssize_t w = write(STDOUT_FILENO, bytes, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return;
    bytes += w;
    n -= static_cast<size_t>(w);
  }
}

// Copies the setup program's output to standard output and to the log until
// the program closes it, which is how the end of the installation is known.
void relay(int fd) {
  std::fflush(stdout);
  for (;;) {
    message("Reading ...", "");
    char piece[kReadPiece + 1];
    ssize_t n;
    do {
      n = read(fd, piece, kReadPiece);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) break;
    write_out(piece, static_cast<size_t>(n));
    piece[n] = '\0';
    message("Line: ", piece);
  }
}

// Package spec of a marker ":package:path": the network index path, '+' and
// the package name. False when it does not fit.
bool package_spec(const char *marker, char *out, size_t size) {
  const char *pkg = marker[0] == ':' ? marker + 1 : marker;
  const char *end = std::strchr(pkg, ':');
  const int pkg_len = static_cast<int>(end ? static_cast<size_t>(end - pkg) : std::strlen(pkg));
  const int32_t index = hdr(Word::Net_Index);
  const char *index_path = index > 0 ? text_at(index) : nullptr;
  const int n = std::snprintf(out, size, "%s+%.*s", index_path ? index_path : "", pkg_len, pkg);
  return n >= 0 && static_cast<size_t>(n) < size;
}

// Obtains the rights and runs the setup program with "-d" and the package spec.
void run_setup(const char *pkg_spec) {
  if (AuthRef == 0) {
    AuthRef = platform::admin_create(&myAuthorizationRef) ? 1 : -1;
    if (AuthRef < 0) message(kCreateFailed, "");
  }
  if (AuthRef != 1) return;
  if (!platform::admin_copy_rights(myAuthorizationRef)) {
    message(kRightsFailed, kRightsFailedText);
    return;
  }
  char path[kSearchBuf];
  // A path that does not fit is not a program that can be run; it is
  // reported with as much of it as fits.
  if (!beside_program(kSetup, path, sizeof path)) {
    message(kCantExecute, path);
    return;
  }
  const char *setup = find_AppBundle(path);
  message("Running ", setup);
  const char *const args[] = {"-d", pkg_spec, nullptr};
  platform::AdminRun run;
  if (!platform::admin_execute(myAuthorizationRef, setup, args, &run)) {
    message(kCantExecute, setup);
    return;
  }
  relay(run.fd);
  platform::admin_finish(&run);
}

}  // namespace

bool download_lock_name(char *buf, size_t size) {
  // Download_Lock fills its array exactly; a host may have written it
  // without a terminator.
  const int n = std::snprintf(buf, size, "%.*s%s",
                              static_cast<int>(strnlen(Download_Lock, sizeof Download_Lock)),
                              Download_Lock, instance_suffix());
  return n >= 0 && static_cast<size_t>(n) < size;
}

void auto_make(const char *command, const char *name, bool to_window) {
  DownloadRun run;
  NotifyState(kStateMaking);
  run.wait();
  if (to_window) make_through_wrapper(command, name);
  else make_on_console(command, name);
  NotifyState(kStateIdle);
}

void auto_download(const char *marker) {
  message("INFO: Downloading ", marker);
  char pkg_spec[kCandidateBuf];
  const bool fits = package_spec(marker, pkg_spec, sizeof pkg_spec);
  if (fits) message("INFO: Downloading and Installing: ", pkg_spec);
  else message("ERROR: Package name too long, not downloaded: ", marker);

  DownloadRun run;
  run.wait();
  if (fits) run_setup(pkg_spec);

  // Reset even when nothing was installed: the search that follows then
  // meets the marker again and reports it, the same way for every failure.
  message("INFO: ", "QDMRestart...");
  {
    CacheGuard guard;
    QDMReset();
  }
  message("Search again", "");
  NotifyState(kStateIdle);
}

}  // namespace trv
