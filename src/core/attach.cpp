// Library start-up and shut-down: attaching a process to the per-user shared
// region (creating and laying it out when this is the first process) and
// detaching it.
#include "core/attach.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "config/stamps.h"
#include "core/lock.h"
#include "core/region.h"
#include "core/repair.h"
#include "core/validate.h"
#include "platform/platform.h"
#include "trovalis.h"
#include "trovalis_config.h"

namespace trv {

namespace {

constexpr size_t kInstanceMax = 32;
constexpr int64_t kMinMapSize = 1 << 20;   // room for the fixed objects and a cache
constexpr int64_t kMaxMapSize = 1 << 30;   // offsets are signed 32-bit

char g_instance[kInstanceMax + 2];  // "-" + instance
char g_main_ini[PATH_MAX];          // TROVALIS_INI, made absolute; "" when unset
bool g_private = false;

bool report(const char *caption, const char *format, ...) __attribute__((format(printf, 2, 3)));
bool report(const char *caption, const char *format, ...) {
  char text[512];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  MessageBox_S(text, caption);
  return false;
}

// TROVALIS_INI names the main configuration file for a program that lives
// far from any TEXMF.INI (/usr/bin/pdftex). It is checked at every attach,
// not only by the process that creates the region, so that a wrong value
// fails the same way whichever program runs first. A relative name is taken
// from the current directory, without resolving links: the file's own
// directory is SELFAUTOPARENT.
bool read_main_ini() {
  g_main_ini[0] = '\0';
  const char *value = std::getenv("TROVALIS_INI");
  if (value == nullptr || value[0] == '\0') return true;
  char cwd[PATH_MAX] = "";
  if (value[0] != '/' && getcwd(cwd, sizeof cwd) == nullptr) cwd[0] = '\0';
  const int n = std::snprintf(g_main_ini, sizeof g_main_ini, "%s%s%s", cwd, cwd[0] ? "/" : "",
                              value);
  struct stat st {};
  if (n <= 0 || static_cast<size_t>(n) >= sizeof g_main_ini || stat(g_main_ini, &st) != 0 ||
      !S_ISREG(st.st_mode) || access(g_main_ini, R_OK) != 0) {
    g_main_ini[0] = '\0';
    return report(TDSError, "Can't locate TEXMF.INI file: TROVALIS_INI=%s names no readable file",
                  value);
  }
  return true;
}

// TROVALIS_INSTANCE and TROVALIS_MAP_SIZE. Malformed values fail the attach
// rather than being ignored: falling back to the user's real cache or to a
// size nobody asked for would be worse than stopping.
bool read_knobs() {
  g_instance[0] = '\0';
  if (const char *inst = std::getenv("TROVALIS_INSTANCE"); inst != nullptr && *inst) {
    const size_t len = std::strlen(inst);
    bool ok = len <= kInstanceMax;
    for (size_t i = 0; ok && i < len; ++i) {
      const char c = inst[i];
      ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '_';
    }
    if (!ok)
      return report(TDSError,
                    "TROVALIS_INSTANCE must be at most %zu letters, digits, '-' or '_'",
                    kInstanceMax);
    std::snprintf(g_instance, sizeof g_instance, "-%s", inst);
  }
  if (const char *size = std::getenv("TROVALIS_MAP_SIZE"); size != nullptr && *size) {
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(size, &end, 10);
    if (errno != 0 || *end != '\0' || v < kMinMapSize || v > kMaxMapSize)
      return report(TDSError, "TROVALIS_MAP_SIZE must be a byte count from %lld to %lld",
                    static_cast<long long>(kMinMapSize), static_cast<long long>(kMaxMapSize));
    Map_Size = View_Len = static_cast<int>(v);
  }
  return read_main_ini();
}

// Maps a region that only this process sees, with the shared layout, so that
// a process refused the shared region still works (uncached by others).
char *map_private() {
  void *p = mmap(nullptr, static_cast<size_t>(View_Len), PROT_READ | PROT_WRITE,
                 MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : static_cast<char *>(p);
}

// An existing object is mapped only when it is a regular file of ours that
// is large enough to hold the whole view; `why` says what is wrong.
bool object_trusted(const struct stat &st, const char **why) {
  if (!S_ISREG(st.st_mode)) *why = "is not a regular file";
  else if (st.st_uid != geteuid()) *why = "is owned by another user";
  else if (st.st_size < View_Len) *why = "is smaller than the mapped length";
  else return true;
  return false;
}

// Makes the object's memory real now where the system allows it, so that a
// full shared-memory file system is reported here and not by a SIGBUS in the
// middle of some later write.
bool reserve_memory(int fd) {
#if TROVALIS_HAVE_POSIX_FALLOCATE
  const int r = posix_fallocate(fd, 0, Map_Size);
  if (r != 0 && r != EINVAL && r != EOPNOTSUPP) {
    errno = r;
    return false;
  }
#else
  (void)fd;
#endif
  return true;
}

// The creator died before it finished: Mem_Mark is written only at the end of
// the layout, so a region without it (or with no version at all) is rebuilt.
bool incomplete(const char *base) {
  const int32_t version = loadi(base + 4 * static_cast<int>(Word::Version));
  const int32_t mark = loadi(base + 4 * static_cast<int>(Word::Mem_Mark));
  return version == 0 || (version == kLayoutVersion && mark <= 0);
}

// TROVALIS_INI when set; else tries dir + "TEXMF.INI" and
// dir + ".zelvan/TEXMF.INI" from the executable's directory up to the root,
// and the first that exists is the main file.
bool locate_main_ini(char *out, size_t size) {
  if (g_main_ini[0] != '\0') {
    const int n = std::snprintf(out, size, "%s", g_main_ini);
    return n > 0 && static_cast<size_t>(n) < size;
  }
  char path[PATH_MAX];
  if (GetModuleFileName(nullptr, path, sizeof path) == 0) return false;
  static const char *const kCandidates[] = {"TEXMF.INI", ".zelvan/TEXMF.INI"};
  for (;;) {
    char *slash = std::strrchr(path, '/');
    if (slash == nullptr) return false;
    slash[1] = '\0';
    for (const char *name : kCandidates) {
      const int n = std::snprintf(out, size, "%s%s", path, name);
      if (n > 0 && static_cast<size_t>(n) < size && access(out, F_OK) == 0) return true;
    }
    *slash = '\0';
  }
}

// First-time layout of a new region, in the order that fixes the arena
// layout. Returns false when TEXMF.INI cannot be found.
bool first_time_init() {
  set_hdr(Word::Version, kLayoutVersion);
  set_hdr(Word::Local_INI, 0);
  set_hdr(Word::Env_String, -1);
  set_hdr(Word::Mem_Used, 0);
  set_hdr(Word::Mem_Max, Map_Size - kMemMaxSlack);
  set_hdr(Word::Msg_Table, 0);
  set_hdr(Word::AppData_Dir, 0);
  QDMClearPool();
  stradd("MEM");

  char folder[PATH_MAX] = "";
  const char *env = std::getenv("APPDATA");
  if (env == nullptr) env = std::getenv("USERPROFILE");
  std::snprintf(folder, sizeof folder, "%s", env ? env : platform::user_config_folder());
  char user_ini[PATH_MAX + 16];
  if (folder[0] != '\0') {
    OemToChar(folder, folder);
    set_hdr(Word::AppData_Dir, stradd(folder));
    const size_t n = std::strlen(folder);
    std::snprintf(folder + n, sizeof folder - n, "/Zelvan TeX");
    struct stat st {};
    if (stat(folder, &st) != 0 && MkDirs(folder) != 0) {
      MessageBox_S(folder, "Trovalis: initialization error - can't create directory");
      folder[0] = '\0';
    }
  }
  if (folder[0] != '\0')
    std::snprintf(user_ini, sizeof user_ini, "%s/TEXMF.INI", folder);
  else
    std::snprintf(user_ini, sizeof user_ini, "Zelvan.INI");
  set_hdr(Word::Local_INI, stradd(user_ini));

  char main_ini[PATH_MAX];
  if (!locate_main_ini(main_ini, sizeof main_ini)) return false;
  set_hdr(Word::Common_INI, stradd(main_ini));

  set_hdr(Word::Msg_Max, kMsgMax);
  set_hdr(Word::Msg_Len, kMsgLen);
  const int32_t table = salloc(kMsgMax * 4 + 4);
  set_hdr(Word::Msg_Count, 0);
  set_hdr(Word::Msg_Held, 0);
  for (int i = 0; i <= kMsgMax; ++i) {
    const int32_t slot = salloc(kMsgLen + 5);
    if (table >= 0 && slot >= 0) storei(at(table + 4 * i, 4), slot + MsgSlotLayout::kText);
  }
  set_hdr(Word::Msg_Table, table > 0 ? table : 0);

  set_hdr(Word::Frame_Size, kFrameTableBytes);
  const int32_t frames = salloc(kFrameTableBytes);
  if (frames > 0) std::memset(at(frames, kFrameTableBytes), 0, kFrameTableBytes);
  set_hdr(Word::Frame_Table, frames > 0 ? frames : 0);

  set_hdr(Word::Image_Size, kImagePoolBytes);
  const int32_t images = salloc(kImagePoolBytes);
  if (images > 0) std::memset(at(images, kImagePoolBytes), 0, kImagePoolBytes);
  set_hdr(Word::Image_Pool, images > 0 ? images : 0);

  if (Trace) {
    message("Initializing ", Map_Name);
    message("Basic Cofiguration Files:", "");
    message(" Common: ", main_ini);
    message(" User: ", user_ini);
  }
  set_hdr(Word::Mem_Mark, hdr(Word::Mem_Used));
  set_hdr(Word::Shared_Trace, Trace);
  // Mem_Mark is already set, but the tables above it are not yet built;
  // INIFile is needed by the reset before the attach sets it for good.
  QDMReset();
  return true;
}

void program_name() {
  char path[256];
  GetModuleFileName(nullptr, path, sizeof path);
  const char *slash = std::strrchr(path, '/');
  if (slash == nullptr) return;
  const char *name = slash + 1;
  const size_t len = std::strcspn(name, ".");
  std::snprintf(ProgName, sizeof ProgName, "%.*s", static_cast<int>(len), name);
  const int q = strcasecmp(ProgName, "Quenmark") == 0;
  MakeLocked[0] = MakeLocked[1] = q;
}

// Every failure after the lock was taken gives the lock back before it is
// reported, so that other processes are not held up by the report.
bool fail_locked(const char *caption, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
bool fail_locked(const char *caption, const char *format, ...) {
  ReleaseMutex(Lock);
  char text[512];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  MessageBox_S(text, caption);
  return false;
}

bool attach() {
  if (!read_knobs()) return false;
  const unsigned uid = static_cast<unsigned>(getuid());
  std::snprintf(Map_Name, sizeof Map_Name, "/zelvan-tds-mem-%u%s", uid, g_instance);
  std::snprintf(Cache_Lock, sizeof Cache_Lock, "/zelvan-tds-cache-%u%s", uid, g_instance);
  ConsoleErr = 0;
  StateNotifierProc = nullptr;
  g_private = false;

  Lock = CreateMutex(nullptr, 0, Cache_Lock);
  if (Lock == nullptr)
    return report(TDSError, "ERROR [%s] in creating of MUTEX Name=`%s'", LastErr(), Cache_Lock);
  g_private = Lock->priv;
  // A holder that died may have left the region half-written; the process
  // that takes the lock over repairs it (after mapping it, when that
  // happens in this very wait).
  Lock->after_takeover = cache_lock_taken_over;
  WaitForSingleObject(Lock, -1);

  Init = 1;
  int fd = -1;
  char *base = nullptr;
  if (!g_private) {
    fd = shm_open(Map_Name, O_RDWR, 0777);
    if (fd >= 0) {
      Init = 0;
    } else if (errno == EACCES) {
      report(TDSError, "Shared Memory Name=`%s' cannot be opened (%s); using a private region",
             Map_Name, LastErr());
      g_private = true;
    } else {
      fd = shm_open(Map_Name, O_RDWR | O_CREAT, 0777);
      if (fd < 0)
        return fail_locked(TDSError, "ERROR [%s] in creating of Shared Memory Name=`%s', Size=%d",
                           LastErr(), Map_Name, Map_Size);
    }
  }
  struct stat st {};
  if (fd >= 0) {
    fstat(fd, &st);
    std::fprintf(stderr, "Opened Memory is '%s', size=%d\n", Init ? "NEW" : "REUSED",
                 static_cast<int>(st.st_size));
    const char *why = nullptr;
    if (Init == 1) {
      if (ftruncate(fd, Map_Size) != 0 || !reserve_memory(fd)) {
        report(TDSError, "ERROR [%s] in sizing of Shared Memory Name=`%s', Size=%d", LastErr(),
               Map_Name, Map_Size);
        // Mapping an object without backing memory would fault later; remove
        // it so the next process tries again, and work privately meanwhile.
        shm_unlink(Map_Name);
        close(fd);
        fd = -1;
        g_private = true;
      }
    } else if (!object_trusted(st, &why)) {
      report(TDSError, "Shared Memory Name=`%s' %s; using a private region", Map_Name, why);
      close(fd);
      fd = -1;
      g_private = true;
    }
  }
  if (g_private) {
    Init = 1;
    base = map_private();
  } else {
    void *p = mmap(nullptr, static_cast<size_t>(View_Len), PROT_READ | PROT_WRITE, MAP_SHARED,
                   fd, 0);
    base = p == MAP_FAILED ? nullptr : static_cast<char *>(p);
  }
  if (base == nullptr) {
    const int err = errno;
    if (fd >= 0) close(fd);
    errno = err;
    return fail_locked(TDSError, "ERROR [%s] in Mapping of Shared Memory Name=`%s', Size=%d/%d",
                       LastErr(), Map_Name, static_cast<int>(st.st_size), View_Len);
  }
  hMap = fd;
  Ptr_trovalis = base;
  g_map.base = base;
  g_map.length = View_Len;

  if (Init == 0 && incomplete(base)) {
    std::memset(base, 0, static_cast<size_t>(View_Len));
    Init = 1;
  }
  // A region made by this layout is checked cheaply (header words and the
  // message slot table, see validate.h) before anything trusts it. Damage to
  // what creation lays out is rebuilt like an unfinished region; damage above
  // the mark is repaired by a reset below, once the program name is known.
  // A region larger than this process maps is not judged from part of it.
  const char *damaged = nullptr;
  forget_damage();  // what was noted concerned an earlier mapping
  set_partial_view(Init == 0 && st.st_size > View_Len);
  if (Init == 0 && st.st_size == View_Len) {
    const Finding f = check_header();
    if (f.fault == Fault::Recreate) {
      damaged = f.what;
      report(TDSError, "Shared Memory Name=`%s' is damaged (%s); rebuilding it", Map_Name, f.what);
      std::memset(base, 0, static_cast<size_t>(View_Len));
      Init = 1;
    } else if (f.fault == Fault::Rebuild) {
      note_damage(f.what);
    }
  }

  program_name();

  if (Init == 1) {
    drop_pending_repair();
    if (!first_time_init()) return fail_locked(TDSError, "Can't locate TEXMF.INI file.");
    if (damaged != nullptr) report_damage(damaged);
  } else {
    repair_damage();
    const int32_t env = hdr(Word::Env_String);
    const char *text = env >= 0 ? text_at(env) : nullptr;
    if (text != nullptr && std::getenv("USERPROFILE") == nullptr && std::strchr(text, '=')) {
      putenv(strdup(text));  // putenv keeps the pointer: hand it a private copy
    }
    repair_pending_region();
    // ls-R files and configuration rewritten since the last reset (by
    // TeX Live's tools, say) are taken in now, once, while later
    // processes wait for the lock. A region of another layout is never
    // written (it is refused below).
    const char *changed = nullptr;
    if (hdr(Word::Version) == kLayoutVersion && stamps_changed(&changed)) {
      message("INFO: Resetting, changed since the last reset: ", changed);
      QDMReset();
    }
  }
  ReleaseMutex(Lock);

  if (hdr(Word::Version) != kLayoutVersion)
    return report("Zelvan Trovalis Error", "There is already running incompatible version of QDM");

  const char *common = text_at(hdr(Word::Common_INI));
  const char *local = text_at(hdr(Word::Local_INI));
  INIFile = const_cast<char *>(common);
  Zelvan_INI = const_cast<char *>(local ? local : "Zelvan.INI");
  Common = hdr(Word::Common_Hash);
  SectDir = hdr(Word::SectDir_Hash);
  Trace = hdr(Word::Shared_Trace);
  return true;
}

int detach() {
  if (g_map.base == nullptr) return 1;
  UnRegisterProcessFrames(static_cast<int>(getpid()));
  mtx_close(Lock);
  munmap(g_map.base, static_cast<size_t>(g_map.length));
  g_map = Mapping{};
  Ptr_trovalis = nullptr;
  if (hMap >= 0) close(hMap);
  hMap = 0;
  return 1;
}

}  // namespace

bool recreate_region() {
  if (!region_mapped()) return false;
  // Kept across the rebuild, so that other processes that met the same
  // damage see that it was dealt with.
  const int32_t resets = hdr(Word::Reset_Count);
  std::memset(g_map.base, 0, static_cast<size_t>(g_map.length));
  set_hdr(Word::Reset_Count, resets);
  return first_time_init();
}

const char *instance_suffix() { return g_instance; }
bool region_is_private() { return g_private; }

}  // namespace trv

extern "C" int DllEntryPoint(void *, int reason, void *) {
  if (reason == 1) return trv::attach() ? 1 : 0;
  if (reason == 2) return trv::detach();
  return 0;
}
