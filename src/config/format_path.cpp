// Format records: each file type's search path, suffixes, make command and
// answer cache, built once per program key and kept in the shared region.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/containers.h"
#include "core/failed_reads.h"
#include "core/region.h"
#include "config/format_path.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {
namespace {

// The record's four words, in order.
enum RecordWord { kAnswers = 0, kSearchPath = 1, kSuffixes = 2, kMake = 3 };
constexpr int kRecordBytes = 16;

void set_word(int32_t record, RecordWord w, int32_t value) {
  if (char *p = at(record, kRecordBytes)) storei(p + 4 * w, value);
}

void trace(const char *prefix, const char *text) {
  if (Trace) message(prefix, text);
}

// Makes the entry of `type` in `table` read as "none" when it holds
// `record`: the lookup brings it to the front, where it is changed in place.
void drop(int32_t table, const char *type, int32_t record) {
  lru_lookup(table, type);
  const char *head = at(table, LruHeadLayout::kName);
  const int32_t first = head != nullptr ? loadi(head + LruHeadLayout::kFirst) : 0;
  if (first > 0 && entry_value(first) == record) entry_set_value(first, 0);
}

// Stores what was read into a new record: the texts, then the search path.
void store_record(int32_t record, const FormatParts &parts) {
  if (parts.has_make) {
    const int make = stradd(parts.make.c_str());
    set_word(record, kMake, make > 0 ? make : 0);
  }
  if (parts.has_suffixes) {
    const int text = stradd(parts.suffixes.c_str());
    set_word(record, kSuffixes, text > 0 ? text : 0);
  }
  int32_t first = 0;
  for (const std::string &dir : parts.path) first = list_append(first, dir.c_str(), 0);
  set_word(record, kSearchPath, first > 0 ? first : 0);
}

}  // namespace

// The definition: path, then "+" and the suffixes, then "*" and the make
// command.
void read_format(const char *type, FormatParts &parts) {
  parts = FormatParts{};
  trace("Look for a Format: ", type);
  const char *definition = _QDMValue("QDM", type);
  trace("Use the path: ", definition ? definition : "(none)");

  // Values are at most 255 characters (they come from 256-byte reads), so a
  // copy of that size holds any definition whole instead of cutting it.
  char work[256];
  std::snprintf(work, sizeof work, "%s", definition ? definition : type);
  if (definition != nullptr) {
    if (char *plus = std::strchr(work, '+')) {
      *plus = '\0';
      char *suffixes = plus + 1;
      if (char *star = std::strchr(suffixes, '*')) {
        parts.has_make = true;
        parts.make = star + 1;
        *star = '\0';
      }
      parts.has_suffixes = true;
      parts.suffixes = suffixes;
    }
  }
  trace("RAW Search Path: ", work);

  char path[256];
  std::snprintf(path, sizeof path, "%s", work);
  char expanded[4096];
  // The type heads the reference chain, so a definition that refers to a
  // variable named like its own type is caught as a recursion.
  QDMVarRef root{nullptr, type};
  const int left = var_expand(path, expanded, sizeof expanded, &root);
  expanded[sizeof expanded - static_cast<size_t>(left)] = '\0';
  trace("Expanded variables: ", expanded);

  char **dirs = expand_braces(expanded);
  if (dirs == nullptr) return;
  for (char **d = dirs; *d != nullptr; ++d) {
    trace("Chunk= ", *d);
    try {
      parts.path.emplace_back(*d);
    } catch (...) {
      for (char **rest = d; *rest != nullptr; ++rest) std::free(*rest);
      std::free(dirs);
      throw;
    }
    std::free(*d);
  }
  std::free(dirs);
}

}  // namespace trv

using namespace trv;

extern "C" char *FormatPath(const char *program, const char *type) {
  if (type == nullptr) return nullptr;
  const char *key = program != nullptr && program[0] != '\0' ? program : "QDM";
  const int32_t root = hdr(Word::Root_LRU);
  if (root <= 0) return nullptr;
  int32_t table = lru_lookup(root, key);
  if (table <= 0) {
    table = lru_create(key);
    if (table <= 0) return nullptr;
    lru_insert(root, key, table);
  }
  if (const int32_t found = lru_lookup(table, type); found > 0) {
    char *record = at(found, kRecordBytes);
    if (record == nullptr) note_damage("a format record");
    return record;
  }

  // A record that does not fit whole is not kept: a search path cut short
  // would answer every later search of the type wrongly. The caller reads
  // the format into its own memory instead (read_format) and caches nothing.
  const uint32_t refusals = arena_refusals();
  const int32_t record = salloc(kRecordBytes);
  if (record < 0) return nullptr;
  std::memset(at(record, kRecordBytes), 0, kRecordBytes);
  lru_insert(table, type, record);
  const int answers = lru_create_indexed(type);
  set_word(record, kAnswers, answers > 0 ? answers : 0);
  const FailedReadWatch reads;
  try {
    FormatParts parts;
    read_format(type, parts);
    store_record(record, parts);
  } catch (const std::bad_alloc &) {
    drop(table, type, record);
    return nullptr;
  }
  const bool cut = arena_refusals() != refusals;
  if (reads.failed() || cut) {
    // Built from a file this process could not read, or cut short: the
    // record serves this process's request only, or none. Its entry (the
    // list's first since the lookup) reads as "none" from now on, so the
    // next request builds the record again.
    drop(table, type, record);
  }
  return cut ? nullptr : at(record, kRecordBytes);
}
