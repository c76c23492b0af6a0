// Hash indexes of LRU lists in the shared arena (see lru_index.h).
#include "core/lru_index.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "core/containers.h"
#include "core/region.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr const char *kBadIndex = "an answer cache index";

// The word holding bucket `b`'s head; the caller has checked the table.
char *bucket(int32_t index, uint32_t b) {
  return at(index + IndexLayout::kHeads + 4 * static_cast<int64_t>(b), 4);
}

// The bucket count of a sound index, else 0 (damage noted).
int32_t buckets_of(int32_t index) {
  const char *t = at(index, IndexLayout::kHeads);
  const int32_t n = t != nullptr ? loadi(t) : 0;
  if (n <= 0 || (n & (n - 1)) != 0 ||
      at(index, IndexLayout::kHeads + 4 * static_cast<int64_t>(n)) == nullptr) {
    note_damage(kBadIndex);
    return 0;
  }
  return n;
}

void set_chain(int32_t entry, int32_t next) {
  if (char *p = at(entry + IndexedEntryLayout::kChain, 4)) storei(p, next);
}

// Puts `entry` at the head of its bucket.
void link(int32_t index, uint32_t mask, int32_t entry) {
  char *head = bucket(index, index_hash(entry_key(entry)) & mask);
  set_chain(entry, loadi(head));
  storei(head, entry);
}

}  // namespace

uint32_t index_hash(const char *key) {
  uint32_t h = 2166136261u;
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(key); *p; ++p) {
    const unsigned c = *p >= 'a' && *p <= 'z' ? *p - ('a' - 'A') : *p;
    h = (h ^ c) * 16777619u;
  }
  return h;
}

int32_t indexed_prev(int32_t entry) {
  const char *p = entry > IndexedEntryLayout::kPrefix ? at(entry + IndexedEntryLayout::kPrev, 4)
                                                      : nullptr;
  return p != nullptr ? loadi(p) : 0;
}

void indexed_set_prev(int32_t entry, int32_t prev) {
  if (entry <= IndexedEntryLayout::kPrefix) return;
  if (char *p = at(entry + IndexedEntryLayout::kPrev, 4)) storei(p, prev);
}

int32_t indexed_chain(int32_t entry) {
  const char *p = entry > IndexedEntryLayout::kPrefix ? at(entry + IndexedEntryLayout::kChain, 4)
                                                      : nullptr;
  return p != nullptr ? loadi(p) : 0;
}

int32_t index_create(int32_t buckets) {
  const int64_t bytes = IndexLayout::kHeads + 4 * static_cast<int64_t>(buckets);
  if (buckets <= 0 || bytes > INT32_MAX) return -1;
  const int32_t off = salloc(static_cast<int>(bytes));
  if (off < 0) return -1;
  std::memset(at(off, bytes), 0, static_cast<size_t>(bytes));
  storei(at(off, 4), buckets);
  return off;
}

int32_t index_find(int32_t index, const char *key) {
  const int32_t n = buckets_of(index);
  if (n == 0) return -1;
  // A sound chain holds at most the indexed entries; a longer one (a
  // circle) is damage.
  const int64_t indexed = load32(at(index, IndexLayout::kHeads) + IndexLayout::kCount);
  const int64_t limit = std::min<int64_t>(indexed + 1, max_walk());
  int64_t steps = 0;
  for (int32_t e = loadi(bucket(index, index_hash(key) & static_cast<uint32_t>(n - 1))); e != 0;
       e = indexed_chain(e)) {
    const char *k = entry_key(e);
    if (e <= IndexedEntryLayout::kPrefix || k == nullptr || ++steps > limit) {
      note_damage(kBadIndex);
      return -1;
    }
    if (strcasecmp(k, key) == 0) return e;
  }
  return 0;
}

void index_add(int32_t list, int32_t entry) {
  char *head = at(list, LruHeadLayout::kName);
  const int32_t index = head != nullptr ? loadi(head + LruHeadLayout::kIndex) : 0;
  const int32_t n = index > 0 ? buckets_of(index) : 0;
  if (n == 0) return;
  link(index, static_cast<uint32_t>(n - 1), entry);
  char *words = at(index, IndexLayout::kHeads);
  const uint32_t count = load32(words + IndexLayout::kCount) + 1u;
  store32(words + IndexLayout::kCount, count);
  if (count <= static_cast<uint32_t>(n) || n > INT32_MAX / 4) return;

  // Doubled: the entries are linked into the new table from the back of
  // the list to its front, so that of two entries with one key the one
  // nearer the front heads their bucket, as it did before.
  std::vector<int32_t> entries;
  try {
    entries.reserve(count);
    walk_chain(loadi(head + LruHeadLayout::kFirst), [&](int32_t e) {
      entries.push_back(e);
      return true;
    }, true);
  } catch (const std::bad_alloc &) {
    return;
  }
  const int32_t bigger = index_create(2 * n);
  if (bigger < 0) return;
  const uint32_t mask = static_cast<uint32_t>(2 * n - 1);
  for (auto e = entries.rbegin(); e != entries.rend(); ++e) link(bigger, mask, *e);
  storei(at(bigger, IndexLayout::kHeads) + IndexLayout::kCount, static_cast<int32_t>(entries.size()));
  storei(at(list, LruHeadLayout::kName) + LruHeadLayout::kIndex, bigger);
}

}  // namespace trv
