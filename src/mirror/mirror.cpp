// Mirrors: the list of mirror trees built at each reset, and the copy of a
// found file from a mirror into the mirror's local tree.
#include <cstdio>
#include <cstring>

#include "core/containers.h"
#include "core/lock.h"
#include "core/region.h"
#include "db/db.h"
#include "trovalis.h"

namespace trv {
namespace {

constexpr const char *kSection = "Mirrors";
// A local directory beginning with this marks a mirror used in place.
constexpr char kInPlace = '-';

constexpr int kListingBytes = 1024;  // one file's key listing of the section
constexpr int kValueBytes = 64;      // a local directory as read
constexpr int kExpandBytes = 128;    // a key or value after expansion
constexpr int kFileNameBytes = 4096;

constexpr const char *kNotCached = "WARNING: the file will not be cached: ";
constexpr const char *kCantOpen = "WARNING: Can't open file: ";
constexpr const char *kNoDirectory = "ERROR: Can't create directory for file: ";
constexpr const char *kCantWrite = "ERROR: Can't open for write file: ";

bool is_sep(char c) { return c == '/' || c == '\\'; }

// Appends the [Mirrors] entries of one configuration file, in the order of
// its key lines. The caller holds the cache lock.
void load_file(const char *file) {
  // The profile calls rewrite "\" in the file name, and the globals may
  // point into the region or at constant text: work on a copy.
  char name[kFileNameBytes];
  if (file == nullptr || file[0] == '\0') return;
  if (std::snprintf(name, sizeof name, "%s", file) >= static_cast<int>(sizeof name)) return;

  char keys[kListingBytes];
  keys[0] = '\0';
  const int n = GetPrivateProfileString(kSection, nullptr, "", keys, sizeof keys, name);
  const char *end = keys + (n < 0 ? 0 : n < kListingBytes ? n : kListingBytes - 1);
  for (char *key = keys; key < end && *key != '\0'; key += std::strlen(key) + 1) {
    char value[kValueBytes];
    GetPrivateProfileString(kSection, key, "", value, sizeof value, name);
    char expanded[kExpandBytes];
    var_expand(value, expanded, sizeof expanded, nullptr);
    const int local = stradd(expanded);
    // The key is expanded as read; both texts may name variables.
    var_expand(key, expanded, sizeof expanded, nullptr);
    if (local < 0) continue;  // the arena is full; salloc has said so
    set_hdr(Word::Mirror_List, list_append(hdr(Word::Mirror_List), expanded, local));
  }
}

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" {

int Load_Mirrors(void) {
  if (!region_mapped()) return 0;
  set_hdr(Word::Mirror_List, 0);
  // The per-user file first: the first entry for a mirror directory wins.
  load_file(Zelvan_INI);
  load_file(INIFile);
  return 0;
}

char *Process_Mirror(char *path) {
  if (path == nullptr || !region_mapped()) return path;

  char dest[kPathBuf];
  dest[0] = '\0';
  bool matched = false, in_place = false, fits = false;
  {
    // The search calls this without the lock; the list is read under it so
    // that a reset in another process cannot change it under the walk.
    QuietCacheGuard guard;
    const size_t path_len = std::strlen(path);
    walk_chain(hdr(Word::Mirror_List), [&](int32_t e) {
      const char *dir = entry_key(e);
      const size_t dir_len = std::strlen(dir);
      // "/net/texmf" covers "/net/texmf/a.tfm" but neither "/net/texmf"
      // itself nor "/net/texmf2/a.tfm".
      if (dir_len > path_len || !elt_in_db(dir, path) || !is_sep(path[dir_len])) return true;
      const char *local = text_at(entry_value(e));
      // An empty local directory would put the copy at the file system's
      // root (the local directory followed by the path's remainder), which
      // is never what was meant: such an entry is passed over as if it were
      // not there, so a later entry for the same tree may still apply.
      if (local == nullptr || local[0] == '\0') return true;
      matched = true;
      in_place = local[0] == kInPlace;
      if (in_place) return false;
      const int n = std::snprintf(dest, sizeof dest, "%s%s", local, path + dir_len);
      fits = n >= 0 && n < static_cast<int>(sizeof dest);
      return false;
    });
  }
  if (!matched || in_place) return path;

  // A destination beyond the caller's buffer cannot be answered: the file
  // is used from the mirror.
  if (fits && Copy_File(path, dest)) {
    std::memcpy(path, dest, std::strlen(dest) + 1);
  } else {
    message(kNotCached, path);
  }
  return path;
}

int Copy_File(const char *source, char *destination) {
  if (source == nullptr || destination == nullptr) return 0;
  for (char *p = destination; *p; ++p)
    if (*p == '\\') *p = '/';
  if (Trace) {
    message("Copy file: ", source);
    message("To:        ", destination);
  }

  std::FILE *in = std::fopen(source, "rb");
  if (in == nullptr) {
    message(kCantOpen, source);
    return 0;
  }
  std::FILE *out = Open_File(destination);
  if (out == nullptr) {
    std::fclose(in);
    return 0;
  }
  // Errors while copying are not looked at: a short copy counts as made.
  char block[1 << 14];
  size_t n;
  while ((n = std::fread(block, 1, sizeof block, in)) > 0) std::fwrite(block, 1, n, out);
  std::fclose(in);
  std::fclose(out);
  return 1;
}

FILE *Open_File(const char *path) {
  if (path == nullptr) return nullptr;
  std::FILE *f = std::fopen(path, "wb");
  if (f != nullptr) return f;

  // Room for every destination Process_Mirror builds; a longer path could
  // not have its directory made from a cut copy, so it is only reported.
  char dir[kPathBuf];
  const int n = std::snprintf(dir, sizeof dir, "%s", path);
  char *slash = n >= 0 && n < static_cast<int>(sizeof dir) ? std::strrchr(dir, '/') : nullptr;
  if (slash != nullptr) {
    *slash = '\0';
    // MkDirs fails for a directory that exists too, so a file that cannot
    // be created in an existing directory is reported here.
    if (MkDirs(dir) != 0) {
      message(kNoDirectory, path);
      return nullptr;
    }
    f = std::fopen(path, "wb");
  }
  if (f == nullptr) message(kCantWrite, path);
  return f;
}

}  // extern "C"
