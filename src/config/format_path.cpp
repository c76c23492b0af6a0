// Format records: each file type's search path, suffixes, make command and
// answer cache, built once per program key and kept in the shared region.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/containers.h"
#include "core/failed_reads.h"
#include "core/region.h"
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

// Fills a new record from the type's definition: path, then "+" and the
// suffixes, then "*" and the make command.
void build_record(int32_t record, const char *type) {
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
        const int make = stradd(star + 1);
        set_word(record, kMake, make > 0 ? make : 0);
        *star = '\0';
      }
      const int text = stradd(suffixes);
      set_word(record, kSuffixes, text > 0 ? text : 0);
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
  int32_t first = 0;
  for (char **d = dirs; *d != nullptr; ++d) {
    trace("Chunk= ", *d);
    first = list_append(first, *d, 0);
    std::free(*d);
  }
  std::free(dirs);
  set_word(record, kSearchPath, first > 0 ? first : 0);
}

}  // namespace
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

  const int32_t record = salloc(kRecordBytes);
  if (record < 0) return nullptr;
  std::memset(at(record, kRecordBytes), 0, kRecordBytes);
  lru_insert(table, type, record);
  const int answers = lru_create_indexed(type);
  set_word(record, kAnswers, answers > 0 ? answers : 0);
  const FailedReadWatch reads;
  build_record(record, type);
  if (reads.failed()) {
    // Built from a file this process could not read: the record serves
    // this process's request only. Its entry (the list's first since the
    // lookup) reads as "none" from now on, so the next request builds the
    // record again.
    lru_lookup(table, type);
    const char *head = at(table, LruHeadLayout::kName);
    const int32_t first = head != nullptr ? loadi(head + LruHeadLayout::kFirst) : 0;
    if (first > 0 && entry_value(first) == record) entry_set_value(first, 0);
  }
  return at(record, kRecordBytes);
}
