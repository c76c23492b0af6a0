// Configuration values: per-user file over TEXMF.INI, cached per section in
// the shared region, and variables resolved through the environment, the
// program's own sections, "memory" and "common".
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/failed_reads.h"
#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "trovalis.h"

extern "C" {
char QDMAns[256];
}

namespace trv {
namespace {

constexpr int kSectionBuckets = 97;
constexpr int32_t kKnownEmpty = 1;

// The value table of a section, made on first use; 0 when the directory is
// unusable or the arena is full (the value is then read but not cached).
int32_t section_table(const char *section) {
  const int32_t dir = hdr(Word::SectDir_Hash);
  if (dir <= 0) return 0;
  const int32_t table = hash_lookup(dir, section);
  if (table > 0) return table;
  const int32_t made = hash_create(kSectionBuckets);
  if (made <= 0) return 0;
  hash_insert(dir, section, made);
  return made;
}

// Reads section/key from one configuration file into QDMAns.
void read_file(const char *file, const char *section, const char *key) {
  QDMAns[0] = '\0';
  if (file == nullptr) return;
  char path[4096];
  std::snprintf(path, sizeof path, "%s", file);
  GetPrivateProfileString(section, key, "", QDMAns, sizeof QDMAns, path);
}

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" {

char *_QDMValue(const char *section, const char *key) {
  if (section == nullptr || key == nullptr) return nullptr;
  const int32_t table = section_table(section);
  int32_t word = table > 0 ? hash_lookup(table, key) : 0;
  char *result = nullptr;
  if (word == 0) {
    // A value read while a file could not be read is answered but not
    // cached: for other processes it may well be there.
    const FailedReadWatch reads;
    read_file(Zelvan_INI, section, key);
    if (QDMAns[0] == '\0') {
      read_file(INIFile, section, key);
      // "#N" in the main file names a system folder; in the per-user file
      // it is taken literally.
      if (QDMAns[0] == '#') {
        const char *folder = GetSystemFolder(std::atoi(QDMAns + 1));
        if (folder[0] != '\0') std::snprintf(QDMAns, sizeof QDMAns, "%s", folder);
      }
    }
    const bool keep = !reads.failed();
    if (QDMAns[0] != '\0') {
      word = keep ? stradd(QDMAns) : 0;
      if (word > 0 && table > 0) hash_insert(table, key, word);
      // With the arena full the value is still answered, from QDMAns; it is
      // simply not cached.
      result = word > 0 ? at(word, 1) : QDMAns;
    } else {
      if (keep && table > 0) hash_insert(table, key, kKnownEmpty);
      word = kKnownEmpty;
    }
  } else if (word != kKnownEmpty) {
    result = const_cast<char *>(text_at(word));
  }
  if (Trace_XVAR && result != nullptr) {
    char line[128];  // cut to the trace buffer
    std::snprintf(line, sizeof line, "%s = [%s]%s", key, section, result);
    message("Var: ", line);
  }
  return result;
}

int _QDMSetValue(const char *section, const char *key, const char *value, int persist) {
  if (section == nullptr || key == nullptr) return 0;
  const int32_t table = section_table(section);
  if (table > 0) {
    int32_t word = 0;
    if (value != nullptr) word = value[0] == '\0' ? kKnownEmpty : stradd(value);
    // A failed copy leaves the key uncached, so the files are read again
    // rather than a stale value being kept.
    hash_insert_revert(table, key, word > 0 ? word : 0);
  }
  if (persist && value != nullptr && Zelvan_INI != nullptr) {
    char path[4096];
    std::snprintf(path, sizeof path, "%s", Zelvan_INI);
    WritePrivateProfileString(section, key, value, path);
  }
  return 0;
}

char *_QDMVar(const char *name) {
  if (name == nullptr) return nullptr;
  if (hdr(Word::Moderation) != 0) {
    // Only variables listed in the moderation section come from the
    // environment, under the name given there.
    if (const char *mapped = _QDMValue(ModerationSection, name)) {
      if (char *env = std::getenv(mapped)) return env;
    }
  } else if (char *env = std::getenv(name)) {
    message("WARNING: There is inherited environment variable: ", name);
    return env;
  }
  // ProgName lists the program's sections, most specific first. Each is cut
  // out in place and the "," put back, as log lines meanwhile show.
  for (char *p = ProgName; *p != '\0';) {
    char *comma = std::strchr(p, ',');
    if (comma) *comma = '\0';
    char *value = _QDMValue(p, name);
    if (comma) *comma = ',';
    if (value) return value;
    if (comma == nullptr) break;
    p = comma + 1;
  }
  if (char *value = _QDMValue("memory", name)) return value;
  return _QDMValue("common", name);
}

char *cnf_get(char *names) {
  if (names == nullptr) return nullptr;
  char *p = names;
  for (;;) {
    char *comma = std::strchr(p, ',');
    if (comma == nullptr) return _QDMVar(p);
    *comma = '\0';
    char *value = _QDMVar(p);
    *comma = ',';
    if (value) return value;
    p = comma + 1;
  }
}

char *QDMValue(const char *section, const char *key) {
  CacheGuard guard;
  repair_damage();
  return _QDMValue(section, key);
}

int QDMSetValue(const char *section, const char *key, const char *value) {
  CacheGuard guard;
  repair_damage();
  return _QDMSetValue(section, key, value, 1);
}

char *QDMVar(const char *name) {
  CacheGuard guard;
  repair_damage();
  return _QDMVar(name);
}

}  // extern "C"
