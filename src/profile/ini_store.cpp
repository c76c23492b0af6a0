// The INI file store: name resolution, loading, reloading and in-place edits of file copies.
#include "profile/ini_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/stamps.h"
#include "core/failed_reads.h"
#include "platform/platform.h"
#include "profile/profile_text.h"

extern "C" {
INIF *INI_File = nullptr;
}

namespace trv {

namespace {

constexpr char kAbsent[] = "WARNING: absent INI-file: ";
constexpr char kCantReload[] = "ERROR: Can't reload (not opened) INI file: ";
constexpr char kIncomplete[] = "WARNING: Incomplete load of INI file: ";
constexpr char kNoIndex[] = "ERROR: Failed reallocating index for: ";
constexpr char kCantWrite[] = "ERROR: Can't write INI-file: ";
constexpr char kWriteShort[] = "ERROR: Can't write complete INI-file: ";
constexpr char kCantStat[] = "ERROR: Can't access just saved INI-file: ";

// Body sizes are 32-bit; the allocation adds 32 bytes to the capacity.
constexpr int64_t kMaxCapacity = INT32_MAX - 32;

int open_retry(const char *path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Reads up to `want` bytes; returns the count read before end of file or an
// error.
int32_t read_upto(int fd, char *to, int32_t want) {
  int32_t got = 0;
  while (got < want) {
    const ssize_t n = read(fd, to + got, static_cast<size_t>(want - got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<int32_t>(n);
  }
  return got;
}

int32_t write_all(int fd, const char *from, int32_t len) {
  int32_t put = 0;
  while (put < len) {
    const ssize_t n = write(fd, from + put, static_cast<size_t>(len - put));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    put += static_cast<int32_t>(n);
  }
  return put;
}

void close_fd(int fd) {
  // A close interrupted by a signal has still released the descriptor.
  close(fd);
}

void put_suffix(INIF *f) { std::memcpy(f->Body + f->Size, kINIF_Suffix, kSuffixBytes); }

void push_front(INIF *f) {
  f->Next = INI_File;
  INI_File = f;
}

void free_INIF(INIF *f) {
  std::free(f->Name);
  std::free(f->Body);
  std::free(f->BodyIndex);
  std::free(f);
}

// Counts the section heads of the text that the three pieces make when laid
// end to end: a '[' at position 0 or right after an LF.
struct Piece {
  const char *p;
  int32_t n;
};
int32_t count_heads(const Piece (&pieces)[3]) {
  int32_t heads = 0;
  char prev = '\n';
  for (const Piece &piece : pieces) {
    for (int32_t i = 0; i < piece.n; ++i) {
      if (piece.p[i] == '[' && prev == '\n') ++heads;
      prev = piece.p[i];
    }
  }
  return heads;
}

// Gives BodyIndex room for `heads` + 1 entries. A shrink that the allocator
// refuses keeps the larger array, which is just as good.
bool reserve_index(INIF *f, int32_t heads) {
  if (f->BodyIndex != nullptr && heads == f->Sections) return true;
  void *p = std::realloc(f->BodyIndex, (static_cast<size_t>(heads) + 1) * sizeof(char *));
  if (p == nullptr) {
    if (f->BodyIndex != nullptr && heads < f->Sections) return true;
    message(kNoIndex, f->Name);
    return false;
  }
  f->BodyIndex = static_cast<char **>(p);
  return true;
}

void fill_index(INIF *f, int32_t heads) {
  int32_t k = 0;
  for (int32_t i = 0; i < f->Size && k < heads; ++i)
    if (f->Body[i] == '[' && (i == 0 || f->Body[i - 1] == '\n')) f->BodyIndex[k++] = f->Body + i;
  f->Sections = k;
}

// The name to use for `name`: a bare name (no separator) is, when there is a
// per-user folder,
// built in `out` inside the per-user folder, lowered, and that
// directory is made when missing; any other name is the caller's own string.
// Null when the built name would not fit `out`; a name cut short would
// designate some other file, so it is refused instead.
char *resolve_name(char *name, char (&out)[kResolvedNameBytes]) {
  if (name == nullptr) return nullptr;
  const char *folder = platform::user_config_folder();
  if (std::strpbrk(name, "\\/") != nullptr || folder[0] == '\0') return adjust_filename(name);

  const int dir_len = std::snprintf(out, sizeof out, "%s%s", folder, kProfileSubdir);
  if (dir_len < 0 || static_cast<size_t>(dir_len) + 1 + std::strlen(name) >= sizeof out) return nullptr;
  if (access(out, F_OK) != 0) MkDirs(out);  // its failure shows when the file is used
  char *p = out + dir_len;
  *p++ = '/';
  for (const char *s = name; *s; ++s) *p++ = ascii_lower(*s);
  *p = '\0';
  return adjust_filename(out);
}

// Loads the file behind the open descriptor into a record that has no text
// yet. False when memory ran short (reported); the record is then unchanged.
bool first_load(INIF *f, int fd, const struct stat &st) {
  if (!realloc_Body(f, st.st_size)) return false;
  f->MTime = static_cast<int32_t>(st.st_mtime);
  errno = 0;
  f->Size = read_upto(fd, f->Body, static_cast<int32_t>(st.st_size));
  if (f->Size != st.st_size) note_failed_read(f->Name, errno != 0 ? errno : EIO);
  put_suffix(f);
  return rescan_BodyIndex(f);
}

}  // namespace

char *adjust_filename(char *name) {
  if (name == nullptr) return nullptr;
  // Only backslashes are stored, so a name with nothing to change may be
  // read-only.
  for (char *p = name; *p; ++p)
    if (*p == '\\') *p = '/';
  return name;
}

INIF *alloc_INIF(const char *name) {
  INIF *f = static_cast<INIF *>(std::calloc(1, sizeof(INIF)));
  if (f == nullptr) return nullptr;
  const size_t n = std::strlen(name) + 1;
  f->Name = static_cast<char *>(std::malloc(n));
  if (f->Name == nullptr) {
    std::free(f);
    return nullptr;
  }
  std::memcpy(f->Name, name, n);
  return f;
}

bool realloc_Body(INIF *f, int64_t length) {
  if (length < 0) length = 0;
  const int64_t need = length + 8;
  if (f->Capacity >= need) return true;
  const int64_t capacity = need / 1024 * 1024 + 1024;
  char *body = capacity <= kMaxCapacity
                   ? static_cast<char *>(std::malloc(static_cast<size_t>(capacity) + 32))
                   : nullptr;
  if (body == nullptr) {
    message(kNoBodyMessage, f->Name);
    note_failed_read(f->Name, ENOMEM);
    return false;
  }
  // A fresh buffer rather than realloc: the index entries are moved while the
  // old buffer they point into is still valid.
  if (f->Body != nullptr) {
    std::memcpy(body, f->Body, static_cast<size_t>(f->Size) + kSuffixBytes);
    for (int32_t i = 0; i < f->Sections; ++i) f->BodyIndex[i] = body + (f->BodyIndex[i] - f->Body);
    std::free(f->Body);
    f->Body = body;
  } else {
    f->Body = body;
    f->Size = 0;
    put_suffix(f);
  }
  f->Capacity = static_cast<int32_t>(capacity);
  return true;
}

bool rescan_BodyIndex(INIF *f) {
  const Piece text[3] = {{INIF_text(f), f->Size}, {nullptr, 0}, {nullptr, 0}};
  const int32_t heads = count_heads(text);
  if (!reserve_index(f, heads)) return false;
  if (f->Body != nullptr) fill_index(f, heads);
  else f->Sections = 0;
  return true;
}

bool reload_Modified_Body(INIF *f) {
  // Where the file cannot be looked at or read now, the old copy serves
  // this process; it may be stale, so nothing is cached from it.
  struct stat st;
  if (stat(f->Name, &st) != 0) {
    note_failed_read(f->Name, errno);
    return true;
  }
  if (static_cast<int32_t>(st.st_mtime) == f->MTime && static_cast<int64_t>(st.st_size) == f->Size)
    return true;
  const int fd = open_retry(f->Name, O_RDONLY);
  if (fd < 0) {
    const int err = errno;
    message(kCantReload, f->Name);
    note_failed_read(f->Name, err);
    return true;
  }
  if (!realloc_Body(f, st.st_size)) {
    close_fd(fd);
    return false;
  }
  f->MTime = static_cast<int32_t>(st.st_mtime);
  errno = 0;
  f->Size = read_upto(fd, f->Body, static_cast<int32_t>(st.st_size));
  if (f->Size != st.st_size) {
    const int err = errno != 0 ? errno : EIO;
    message(kIncomplete, f->Name);
    note_failed_read(f->Name, err);
  }
  put_suffix(f);
  close_fd(fd);
  if (!rescan_BodyIndex(f)) {
    // The old text is already overwritten and the index cannot describe the
    // new one: hold an empty copy and forget the time stamp, so that the next
    // access loads the file again.
    f->Size = 0;
    put_suffix(f);
    f->Sections = 0;
    f->MTime = 0;
    return false;
  }
  return true;
}

INIF *find_INIF(char *name, bool for_write) {
  char built[kResolvedNameBytes];
  const char *resolved = resolve_name(name, built);
  if (resolved == nullptr) {
    message(kCantOpenMessage, name);
    return nullptr;
  }

  // A reset stamps every file it reads, and reads what the stamp
  // describes: a copy kept from before is loaded again, since a rewrite
  // within the same second and of the same size would not show as stale.
  const bool first_in_reset = stamp_file(resolved);
  INIF *prev = nullptr;
  for (INIF *f = INI_File; f != nullptr; prev = f, f = f->Next) {
    if (ascii_casecmp(f->Name, resolved) != 0) continue;
    if (prev != nullptr) {
      prev->Next = f->Next;
      push_front(f);
    }
    if (first_in_reset) f->MTime = INT32_MIN;
    return reload_Modified_Body(f) ? f : nullptr;
  }

  struct stat st;
  if (stat(resolved, &st) != 0) {
    note_failed_read(resolved, errno);
    if (!for_write) {
      message(kAbsent, resolved);
      return nullptr;
    }
    INIF *f = alloc_INIF(resolved);
    if (f == nullptr) {
      message(kCantOpenMessage, resolved);
      return nullptr;
    }
    push_front(f);
    return f;
  }

  const int fd = open_retry(resolved, O_RDONLY);
  const int err = fd < 0 ? errno : ENOMEM;
  INIF *f = fd >= 0 ? alloc_INIF(resolved) : nullptr;
  if (f == nullptr) {
    if (fd >= 0) close_fd(fd);
    message(kCantOpenMessage, resolved);
    note_failed_read(resolved, err);
    return nullptr;
  }
  const bool loaded = first_load(f, fd, st);
  close_fd(fd);
  if (!loaded) {
    free_INIF(f);
    return nullptr;
  }
  push_front(f);
  return f;
}

bool splice_Body(INIF *f, int32_t pos, int32_t remove, const char *insert, int32_t insert_len) {
  if (pos < 0 || remove < 0 || insert_len < 0 || pos > f->Size || remove > f->Size - pos)
    return false;
  const int64_t new_size = static_cast<int64_t>(f->Size) - remove + insert_len;
  if (!realloc_Body(f, new_size)) return false;

  const int32_t tail = pos + remove;
  const Piece after[3] = {
      {f->Body, pos}, {insert, insert_len}, {f->Body + tail, f->Size - tail}};
  const int32_t heads = count_heads(after);
  if (!reserve_index(f, heads)) return false;

  std::memmove(f->Body + pos + insert_len, f->Body + tail,
               static_cast<size_t>(f->Size - tail) + kSuffixBytes);
  if (insert_len > 0) std::memcpy(f->Body + pos, insert, static_cast<size_t>(insert_len));
  f->Size = static_cast<int32_t>(new_size);
  fill_index(f, heads);
  return true;
}

void save_INIF(INIF *f) {
  const int fd = open_retry(f->Name, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (fd < 0) {
    message(kCantWrite, f->Name);
    return;
  }
  if (write_all(fd, INIF_text(f), f->Size) < f->Size) message(kWriteShort, f->Name);
  close_fd(fd);
  struct stat st;
  if (stat(f->Name, &st) != 0) {
    message(kCantStat, f->Name);
    return;
  }
  // Size stays the length of the text in memory: after a short write the
  // file's size differs from it, and the next access reloads what the file
  // really holds.
  f->MTime = static_cast<int32_t>(st.st_mtime);
}

}  // namespace trv
