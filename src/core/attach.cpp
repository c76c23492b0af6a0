// Library start-up and shut-down: attaching a process to the per-user shared
// region (creating and laying it out when this is the first process) and
// detaching it.
#include "core/attach.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
// The size a new object is made with: TROVALIS_MAP_SIZE, which also keeps
// the region from growing, or the default, from which resets grow it to
// what the trees need.
int64_t g_create_size = kDefaultMapSize;
bool g_size_fixed = false;
int64_t g_wish = 0;  // bytes a reset asked for (region_fits)
bool g_growth_failed = false;  // a larger object could not be made: load what fits
uint32_t g_refusals_met = 0;   // arena refusals this process has acted on

// Mappings this process left for a newer region. They stay mapped until the
// process detaches: a pointer handed out before (INIFile, a pool text, an
// answer being copied) must stay readable. At most kRetiredMax are
// remembered for the detach; any more simply stay mapped.
constexpr int kRetiredMax = 16;
Mapping g_retired[kRetiredMax];
int g_retired_count = 0;

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
  g_create_size = kDefaultMapSize;
  g_size_fixed = false;
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
    g_create_size = v;
    g_size_fixed = true;
  }
  return read_main_ini();
}

// Maps a region that only this process sees, with the shared layout, so that
// a process refused the shared region still works (uncached by others).
char *map_private(int64_t length) {
  void *p = mmap(nullptr, static_cast<size_t>(length), PROT_READ | PROT_WRITE,
                 MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : static_cast<char *>(p);
}

// An existing object is mapped, whole, only when it is a regular file of
// ours of a size a region can have; `why` says what is wrong.
bool object_trusted(const struct stat &st, const char **why) {
  if (!S_ISREG(st.st_mode)) *why = "is not a regular file";
  else if (st.st_uid != geteuid()) *why = "is owned by another user";
  else if (st.st_size < kMinMapSize) *why = "is too small for a region";
  else if (st.st_size > kMaxMapSize) *why = "is too large for a region";
  else return true;
  return false;
}

// Makes the object's memory real now where the system allows it, so that a
// full shared-memory file system is reported here and not by a SIGBUS in the
// middle of some later write.
bool reserve_memory(int fd, int64_t size) {
#if TROVALIS_HAVE_POSIX_FALLOCATE
  const int r = posix_fallocate(fd, 0, static_cast<off_t>(size));
  if (r != 0 && r != EINVAL && r != EOPNOTSUPP) {
    errno = r;
    return false;
  }
#else
  (void)fd;
  (void)size;
#endif
  return true;
}

// The creator died before it finished: Mem_Mark is written only at the end of
// the layout, so a region without it (or with no version at all) is rebuilt.
// A region marked as replaced that the name still leads to cannot have been
// replaced (the name is removed first): it is damaged, and rebuilt too.
bool incomplete(const char *base) {
  const int32_t version = loadi(base + 4 * static_cast<int>(Word::Version));
  const int32_t mark = loadi(base + 4 * static_cast<int>(Word::Mem_Mark));
  return version == 0 || version == kReplacedVersion || (version == kLayoutVersion && mark <= 0);
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

// Opens the object under Map_Name, or makes it with `size` bytes when there
// is none, and maps the whole of it; a process refused the object maps a
// private region instead. Sets the mapping, Init (1 for a region to lay
// out) and Map_Size / View_Len. The cache lock is held. False (reported,
// nothing mapped) when no mapping could be made.
bool open_region(int64_t size, bool announce) {
  int fd = -1;
  bool created = false;
  if (!g_private) {
    fd = shm_open(Map_Name, O_RDWR, 0777);
    if (fd < 0 && errno == EACCES) {
      report(TDSError, "Shared Memory Name=`%s' cannot be opened (%s); using a private region",
             Map_Name, LastErr());
      g_private = true;
    } else if (fd < 0) {
      fd = shm_open(Map_Name, O_RDWR | O_CREAT, 0777);
      if (fd < 0)
        return report(TDSError, "ERROR [%s] in creating of Shared Memory Name=`%s', Size=%lld",
                      LastErr(), Map_Name, static_cast<long long>(size));
      created = true;
    }
  }
  struct stat st {};
  if (fd >= 0) {
    fstat(fd, &st);
    if (announce)
      std::fprintf(stderr, "Opened Memory is '%s', size=%d\n", created ? "NEW" : "REUSED",
                   static_cast<int>(st.st_size));
    const char *why = nullptr;
    if (created) {
      if (ftruncate(fd, static_cast<off_t>(size)) != 0 || !reserve_memory(fd, size)) {
        report(TDSError, "ERROR [%s] in sizing of Shared Memory Name=`%s', Size=%lld", LastErr(),
               Map_Name, static_cast<long long>(size));
        // Mapping an object without backing memory would fault later; remove
        // it so the next process tries again, and work privately meanwhile.
        shm_unlink(Map_Name);
        close(fd);
        fd = -1;
        g_private = true;
      } else {
        st.st_size = static_cast<off_t>(size);
      }
    } else if (!object_trusted(st, &why)) {
      report(TDSError, "Shared Memory Name=`%s' %s; using a private region", Map_Name, why);
      close(fd);
      fd = -1;
      g_private = true;
    }
  }
  const int64_t length = g_private ? size : static_cast<int64_t>(st.st_size);
  char *base = nullptr;
  if (g_private) {
    base = map_private(length);
  } else {
    void *p = mmap(nullptr, static_cast<size_t>(length), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    base = p == MAP_FAILED ? nullptr : static_cast<char *>(p);
  }
  if (base == nullptr) {
    const int err = errno;
    if (fd >= 0) close(fd);
    errno = err;
    return report(TDSError, "ERROR [%s] in Mapping of Shared Memory Name=`%s', Size=%lld",
                  LastErr(), Map_Name, static_cast<long long>(length));
  }
  hMap = fd;
  Ptr_trovalis = base;
  static uint64_t serial = 0;
  g_map.base = base;
  g_map.length = length;
  g_map.serial = ++serial;
  Map_Size = View_Len = static_cast<int>(length);
  Init = created || g_private ? 1 : 0;
  return true;
}

// The per-process copies of what the region holds, read once it is ready.
void adopt_region() {
  const char *common = text_at(hdr(Word::Common_INI));
  const char *local = text_at(hdr(Word::Local_INI));
  INIFile = const_cast<char *>(common);
  Zelvan_INI = const_cast<char *>(local ? local : "Zelvan.INI");
  Common = hdr(Word::Common_Hash);
  SectDir = hdr(Word::SectDir_Hash);
  Trace = hdr(Word::Shared_Trace);
}

// After open_region: checks a region this process did not make, lays out
// one that is new (or past repair), and takes in files changed since the
// last reset. False when a new region's TEXMF.INI cannot be found.
bool settle_region() {
  char *base = g_map.base;
  if (Init == 0 && incomplete(base)) {
    std::memset(base, 0, static_cast<size_t>(g_map.length));
    Init = 1;
  }
  // A region made by this layout is checked cheaply (header words and the
  // message slot table, see validate.h) before anything trusts it. Damage to
  // what creation lays out is rebuilt like an unfinished region; damage above
  // the mark is repaired by a reset below, once the program name is known.
  const char *damaged = nullptr;
  forget_damage();  // what was noted concerned an earlier mapping
  if (Init == 0) {
    const Finding f = check_header();
    if (f.fault == Fault::Recreate) {
      damaged = f.what;
      report(TDSError, "Shared Memory Name=`%s' is damaged (%s); rebuilding it", Map_Name, f.what);
      std::memset(base, 0, static_cast<size_t>(g_map.length));
      Init = 1;
    } else if (f.fault == Fault::Rebuild) {
      note_damage(f.what);
    }
  }

  program_name();

  if (Init == 1) {
    drop_pending_repair();
    if (!first_time_init()) return false;
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
  return true;
}

void retire(const Mapping &old, int fd) {
  if (g_retired_count < kRetiredMax) g_retired[g_retired_count++] = old;
  if (fd >= 0) close(fd);
}

void unmap_retired() {
  for (int i = 0; i < g_retired_count; ++i)
    munmap(g_retired[i].base, static_cast<size_t>(g_retired[i].length));
  g_retired_count = 0;
}

// Runs at every outermost take of the cache lock: one word is read. When
// another process has replaced the region, this process maps the object
// that the name now leads to (every reader of the region holds the lock,
// so none is in the middle of a walk), and keeps the old mapping, so that
// nothing it handed out becomes unmapped memory.
void follow_replacement() {
  if (!region_mapped() || hdr(Word::Version) != kReplacedVersion) return;
  const Mapping old = g_map;
  const int old_fd = hMap;
  if (!open_region(g_create_size, false)) {
    g_private = true;  // no object to be had: this process goes on alone
    if (!open_region(g_create_size, false)) return;
  }
  retire(old, old_fd);
  if (!settle_region()) return;
  adopt_region();
}

// A request the arena refused outside a reset (a search's answer, a value)
// was served without caching. At this process's next take of the lock, where
// it holds no offset, the region is replaced by one of twice the size and
// the configuration reset in it: every process's cached answers go, and the
// cache fills again with room to spare. Not with TROVALIS_MAP_SIZE set.
void grow_when_full() {
  const uint32_t refusals = arena_refusals();
  if (refusals == g_refusals_met) return;
  g_refusals_met = refusals;
  if (g_size_fixed || g_growth_failed || !region_mapped() || hdr(Word::Version) != kLayoutVersion)
    return;
  if (grow_region(std::min<int64_t>(2 * g_map.length, kMaxMapSize))) QDMReset();
}

void after_cache_take(QDMLock *) {
  follow_replacement();
  grow_when_full();
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
  Lock->after_take = after_cache_take;
  WaitForSingleObject(Lock, -1);

  if (!open_region(g_create_size, true)) {
    ReleaseMutex(Lock);
    return false;
  }
  if (!settle_region()) return fail_locked(TDSError, "Can't locate TEXMF.INI file.");
  // Nothing of a mapping this attach left behind (a region outgrown while
  // it was laid out) has been handed out yet.
  unmap_retired();
  ReleaseMutex(Lock);

  if (hdr(Word::Version) != kLayoutVersion)
    return report("Zelvan Trovalis Error", "There is already running incompatible version of QDM");
  adopt_region();
  return true;
}

int detach() {
  if (g_map.base == nullptr) return 1;
  UnRegisterProcessFrames(static_cast<int>(getpid()));
  mtx_close(Lock);
  munmap(g_map.base, static_cast<size_t>(g_map.length));
  unmap_retired();
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

namespace {

// Copies what creation laid out, and the resource pool, from the region
// mapped at `from` into the new, larger one mapped now; everything a reset
// builds is left for the reset that follows.
void carry_over(const char *from) {
  std::memcpy(g_map.base, from, kHeaderBytes);
  const auto word = [&](Word w) { return loadi(from + 4 * static_cast<int>(w)); };
  const int32_t mark = word(Word::Mem_Mark), max = word(Word::Mem_Max), low = word(Word::Pool_Low);
  std::memcpy(g_map.base + kHeaderBytes, from + kHeaderBytes, static_cast<size_t>(mark));
  const int32_t new_max = static_cast<int32_t>(g_map.length - kMemMaxSlack);
  const int32_t pool = max - low;  // the texts and the final NUL at Mem_Max - 1
  std::memcpy(g_map.base + kHeaderBytes + new_max - pool, from + kHeaderBytes + low,
              static_cast<size_t>(pool));
  set_hdr(Word::Mem_Max, new_max);
  set_hdr(Word::Pool_Low, new_max - pool);
  set_hdr(Word::Mem_Used, mark);
  for (const Word w : {Word::Root_LRU, Word::Common_Hash, Word::SectDir_Hash, Word::DB_Hash,
                       Word::Alias_Hash, Word::DB_Dirs, Word::Mirror_List, Word::Net_Index})
    set_hdr(w, 0);
}

}  // namespace

int64_t region_bytes_for(int64_t load) {
  // A database entry takes its name and 9 bytes, and each directory its
  // whole path: about 1.5 times the ls-R file's bytes over TeX Live's
  // trees, twice over for trees of short names. Then room for the answers,
  // values and messages of a busy session.
  const int64_t fixed = hdr(Word::Mem_Mark) + kHeaderBytes + kMemMaxSlack;
  int64_t bytes = fixed + 2 * load + (4 << 20) + load / 2;
  bytes = (bytes + (1 << 20) - 1) / (1 << 20) * (1 << 20);
  return std::clamp<int64_t>(bytes, kDefaultMapSize, kMaxMapSize);
}

bool region_fits(int64_t load) {
  if (g_size_fixed || g_growth_failed || !region_mapped()) return true;
  // What is in use, the load, and room for a batch of 20,000 answers.
  const int64_t need = hdr(Word::Mem_Used) + 2 * load + (4 << 20);
  if (need < hdr(Word::Pool_Low) || g_map.length >= kMaxMapSize) return true;
  g_wish = std::max(g_wish, region_bytes_for(load));
  return false;
}

void region_refusals_met() { g_refusals_met = arena_refusals(); }

int64_t take_region_wish(bool arena_refused) {
  int64_t wish = g_wish;
  g_wish = 0;
  if (wish == 0 && arena_refused && !g_size_fixed && region_mapped())
    wish = std::min<int64_t>(2 * g_map.length, kMaxMapSize);
  return wish > g_map.length ? wish : 0;
}

bool grow_region(int64_t bytes) {
  if (g_size_fixed || !region_mapped() || bytes <= g_map.length || bytes > kMaxMapSize ||
      hdr(Word::Version) != kLayoutVersion || check_header().fault != Fault::None)
    return false;
  const Mapping old = g_map;
  const int old_fd = hMap;
  const bool was_private = g_private;
  // The name is removed first, so that it leads to the new object only: a
  // POSIX shared-memory object cannot be resized once sized (macOS), and a
  // process that maps the old one meanwhile keeps valid memory.
  if (!g_private) shm_unlink(Map_Name);
  if (!open_region(bytes, false) || Init != 1) {
    if (g_map.base != old.base) munmap(g_map.base, static_cast<size_t>(g_map.length));
    if (hMap != old_fd && hMap >= 0) close(hMap);
    g_map = old;
    hMap = old_fd;
    Ptr_trovalis = old.base;
    Map_Size = View_Len = static_cast<int>(old.length);
    g_private = was_private;
    g_growth_failed = true;
    // The name no longer leads here. Rather than go on apart from the
    // processes that start now (a file entered in one cache would leave its
    // miss in the other), every process that maps this region, this one
    // included, moves at its next take of the lock to whatever the name
    // leads to then.
    if (!was_private) storei(old.base + 4 * static_cast<int>(Word::Version), kReplacedVersion);
    return false;
  }
  carry_over(old.base);
  // Every other process that maps the old region moves to the new one at
  // its next take of the lock, which this process holds.
  storei(old.base + 4 * static_cast<int>(Word::Version), kReplacedVersion);
  retire(old, old_fd);
  char text[64];
  std::snprintf(text, sizeof text, "%lld bytes", static_cast<long long>(bytes));
  message("INFO: The shared memory was replaced by a larger one of ", text);
  return true;
}

const char *instance_suffix() { return g_instance; }
bool region_is_private() { return g_private; }

}  // namespace trv

extern "C" int DllEntryPoint(void *, int reason, void *) {
  if (reason == 1) return trv::attach() ? 1 : 0;
  if (reason == 2) return trv::detach();
  return 0;
}
