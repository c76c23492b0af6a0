// Cache maintenance: entering newly written files into the database and
// forgetting the cached answers that they make stale.
#include <strings.h>

#include <cstdio>
#include <cstring>

#include "core/containers.h"
#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "db/db.h"
#include "search/search.h"
#include "trovalis.h"

namespace trv {
namespace {

// The copy of the new file's path, and the buffer for the ls-R file name and
// the stem: both hold at most 255 characters.
constexpr size_t kPathCopy = 256;
constexpr size_t kNameBuf = 256;
constexpr int kRecordBytes = 16;

// The format record at `offset`, read as its four words; all zero when the
// offset does not hold a whole record.
FormatWords record_at(int32_t offset) {
  return offset > 0 ? read_record(at(offset, kRecordBytes)) : FormatWords{};
}

// Forgets the answer cached for key in the answer cache `answers`: the
// look-up brings the entry to the front, where the insertion finds it and
// sets it to 0 ("not cached") in place. 1 when there was an answer or a
// cached miss to forget.
int forget(int32_t answers, const char *key) {
  if (answers <= 0 || lru_lookup(answers, key) <= 0) return 0;
  lru_insert(answers, key, 0);
  return 1;
}

// Visits (program name, program table) for each entry of the root list and
// (type entry, format record) for each entry of its table. Only answer
// caches are looked up (and so reordered) while these lists are walked.
template <class F>
void for_each_record(F &&visit) {
  WalkBudget budget;
  const char *root = at(hdr(Word::Root_LRU), LruHeadLayout::kName);
  if (hdr(Word::Root_LRU) <= 0 || root == nullptr) return;
  walk_chain(loadi(root + LruHeadLayout::kFirst), [&](int32_t program) {
    const int32_t table = entry_value(program);
    const char *head = table > 0 ? at(table, LruHeadLayout::kName) : nullptr;
    if (head == nullptr) return true;
    walk_chain(loadi(head + LruHeadLayout::kFirst), [&](int32_t type) {
      visit(record_at(entry_value(type)));
      return true;
    });
    return true;
  });
}

// The first database directory that holds dir, or nullptr. The network
// marker is skipped: the network index lists files that are not installed,
// so a file just written on disk never belongs to it.
const char *database_of(const char *dir) {
  const char *found = nullptr;
  walk_chain(hdr(Word::DB_Dirs), [&](int32_t e) {
    const char *root = entry_key(e);
    if (root[0] == ':' || !elt_in_db(root, dir)) return true;
    found = root;
    return false;
  });
  return found;
}

// Enters file into the database at root (dir is its directory, with the
// trailing '/') and appends it to root's ls-R file.
void enter_into_database(const char *root, char *dir, const char *file) {
  const int table = hdr(Word::DB_Hash);
  if (table > 0) {
    const int text = stradd(dir);
    if (text > 0) hash_insert(table, file, text);
  }

  const size_t dir_len = std::strlen(dir);
  dir[dir_len - 1] = '\0';
  const size_t root_len = std::strlen(root);
  // The directory relative to the database directory: empty for a file
  // directly in it, which the section header "./:" gives back to the loader
  // as the database directory itself.
  const char *relative = dir_len - 1 > root_len ? dir + root_len : "";
  while (*relative == '/') ++relative;

  static constexpr const char *kCantUpdate = "ERROR: Can't update ls-R file: ";
  char lsr[kNameBuf];
  const int n = std::snprintf(lsr, sizeof lsr, "%sls-R", root);
  // A name that does not fit is cut for the message and not opened: the cut
  // name would be some other file.
  if (n < 0 || static_cast<size_t>(n) >= sizeof lsr) {
    message(kCantUpdate, lsr);
    return;
  }
  std::FILE *f = std::fopen(lsr, "a");
  if (f == nullptr) {
    message(kCantUpdate, lsr);
    return;
  }
  message("QDMNewFile: Updating ", lsr);
  const bool written = std::fprintf(f, "\n./%s:\n%s\n", relative, file) >= 0;
  if (std::fclose(f) != 0 || !written) message(kCantUpdate, lsr);
}

// The suffix of the type's suffix text that equals tail (from the file's
// first '.'), without regard to case.
bool suffix_matches(int32_t suffixes, const char *tail) {
  const char *text = suffixes > 0 ? text_at(suffixes) : nullptr;
  const size_t tail_len = std::strlen(tail);
  bool matched = false;
  for_each_suffix(text, [&](const char *suffix, size_t len) {
    matched = len == tail_len && strncasecmp(suffix, tail, len) == 0;
    return !matched;
  });
  return matched;
}

int new_file(const char *path) {
  char copy[kPathCopy];
  const size_t len = std::strlen(path);
  std::memcpy(copy, path, len + 1);
  for (char *p = copy; *p; ++p)
    if (*p == '\\') *p = '/';
  char *slash = std::strrchr(copy, '/');
  if (slash == nullptr || slash[1] == '\0') return 0;

  // The file name after the last separator; `copy` keeps its directory.
  char file[kPathCopy];
  std::memcpy(file, slash + 1, std::strlen(slash + 1) + 1);

  CacheGuard guard;
  repair_damage();
  message("QDMNewFile: ", copy);
  slash[1] = '\0';
  if (const char *root = database_of(copy)) enter_into_database(root, copy, file);

  message("QDMNewFile: Clearing Requests for: ", file);
  // A request for the name without its suffix (cmr10 for cmr10.tfm) was
  // cached under the stem, for every type that would have added the
  // suffix. Only the whole tail from the first '.' counts: a.b.tfm has the
  // tail .b.tfm, which no single suffix equals.
  const char *dot = std::strchr(file, '.');
  char stem[kNameBuf];
  const size_t stem_len = dot != nullptr ? static_cast<size_t>(dot - file) : 0;
  std::memcpy(stem, file, stem_len);
  stem[stem_len] = '\0';

  int count = 0;
  for_each_record([&](const FormatWords &r) {
    count += forget(r.answers, file);
    if (dot != nullptr && suffix_matches(r.suffixes, dot)) {
      message("QDMNewFile: Clearing shortcut: ", stem);
      count += forget(r.answers, stem);
    }
  });
  return count;
}

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" {

int QDMNewFile(const char *path) {
  if (path == nullptr) return 0;
  // A path the 256-byte buffers cannot hold is refused before the lock is
  // taken, like a path without a separator. It is worth a warning: the
  // caller made a file that searches will not learn about, and nothing
  // else would tell why.
  if (strnlen(path, kPathCopy) >= kPathCopy) {
    message("WARNING: QDMNewFile: path too long, ignored: ", path);
    return 0;
  }
  return new_file(path);
}

int QDMRecycle(const char *type, const char *name) {
  if (type == nullptr || name == nullptr) return 0;
  CacheGuard guard;
  repair_damage();
  WalkBudget budget;
  int count = 0;
  const char *root = at(hdr(Word::Root_LRU), LruHeadLayout::kName);
  if (hdr(Word::Root_LRU) <= 0 || root == nullptr) return 0;
  // The root list is walked; the program tables and answer caches looked
  // up (and so reordered) are other lists.
  walk_chain(loadi(root + LruHeadLayout::kFirst), [&](int32_t program) {
    const int32_t record = lru_lookup(entry_value(program), type);
    count += forget(record_at(record).answers, name);
    return true;
  });
  return count;
}

}  // extern "C"
