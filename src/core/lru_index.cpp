// Hash indexes of LRU lists in the shared arena (see lru_index.h).
#include "core/lru_index.h"

#include <strings.h>

#include <cstring>

#include "core/containers.h"
#include "core/region.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr const char *kBadIndex = "an answer cache index";

// The slot count of a sound index, else 0 (damage noted).
int32_t slots_of(int32_t index) {
  const char *t = at(index, IndexLayout::kSlots);
  const int32_t n = t != nullptr ? loadi(t) : 0;
  if (n <= 0 || (n & (n - 1)) != 0 ||
      at(index, IndexLayout::kSlots + IndexLayout::kSlotBytes * static_cast<int64_t>(n)) == nullptr) {
    note_damage(kBadIndex);
    return 0;
  }
  return n;
}

char *slot(int32_t index, uint32_t i) {
  return at(index + IndexLayout::kSlots + IndexLayout::kSlotBytes * static_cast<int64_t>(i),
            IndexLayout::kSlotBytes);
}

// Puts (hash, entry) into the first free slot from the hash's home, in a
// table known to have one; no key is compared (the caller knows the key is
// not there yet).
void place(int32_t index, uint32_t mask, uint32_t h, int32_t entry) {
  for (uint32_t i = h & mask;; i = (i + 1) & mask) {
    char *s = slot(index, i);
    if (loadi(s + 4) == 0) {
      store32(s, h);
      storei(s + 4, entry);
      return;
    }
  }
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

int32_t index_create(int32_t slots) {
  const int64_t bytes = IndexLayout::kSlots + IndexLayout::kSlotBytes * static_cast<int64_t>(slots);
  if (slots <= 0 || bytes > INT32_MAX) return -1;
  const int32_t off = salloc(static_cast<int>(bytes));
  if (off < 0) return -1;
  std::memset(at(off, bytes), 0, static_cast<size_t>(bytes));
  storei(at(off, 4), slots);
  return off;
}

int32_t index_find(int32_t index, const char *key) {
  const int32_t n = slots_of(index);
  if (n == 0) return -1;
  const uint32_t h = index_hash(key), mask = static_cast<uint32_t>(n - 1);
  // A sound table always has a free slot, so a probe that visits every
  // slot has met damage.
  for (uint32_t i = h & mask, probes = 0; probes < static_cast<uint32_t>(n); i = (i + 1) & mask, ++probes) {
    const char *s = slot(index, i);
    const int32_t e = loadi(s + 4);
    if (e == 0) return 0;
    if (load32(s) != h) continue;
    const char *k = e > IndexedEntryLayout::kPrefix ? entry_key(e) : nullptr;
    if (k == nullptr) break;
    if (strcasecmp(k, key) == 0) return e;
  }
  note_damage(kBadIndex);
  return -1;
}

void index_add(int32_t list, int32_t entry) {
  char *head = at(list, LruHeadLayout::kName);
  const int32_t index = head != nullptr ? loadi(head + LruHeadLayout::kIndex) : 0;
  const int32_t n = index > 0 ? slots_of(index) : 0;
  const char *key = entry_key(entry);
  if (n == 0 || key == nullptr) return;
  const uint32_t h = index_hash(key), mask = static_cast<uint32_t>(n - 1);
  // The key's slot, when an older entry has it (the new entry hides that
  // one from look-ups, so it takes its slot), else the first free one.
  for (uint32_t i = h & mask, probes = 0; probes < static_cast<uint32_t>(n); i = (i + 1) & mask, ++probes) {
    char *s = slot(index, i);
    const int32_t e = loadi(s + 4);
    if (e != 0 && load32(s) == h) {
      const char *k = entry_key(e);
      if (k != nullptr && strcasecmp(k, key) == 0) {
        storei(s + 4, entry);
        return;
      }
      continue;
    }
    if (e != 0) continue;
    char *words = at(index, IndexLayout::kSlots);
    // One slot always stays free, so that every probe ends; a table that a
    // full arena kept from doubling takes no more (a name it lacks is only
    // not cached).
    const uint32_t count = load32(words + IndexLayout::kCount) + 1u;
    if (count >= static_cast<uint32_t>(n)) return;
    store32(s, h);
    storei(s + 4, entry);
    store32(words + IndexLayout::kCount, count);
    if (2 * static_cast<uint64_t>(count) <= static_cast<uint64_t>(n) || n > INT32_MAX / 32) return;
    // More than half full: a table of twice the slots takes every pair, by
    // its stored hash, without reading a single entry. The old table stays
    // behind in the arena.
    const int32_t bigger = index_create(2 * n);
    if (bigger < 0) return;
    const uint32_t wide = static_cast<uint32_t>(2 * n - 1);
    for (uint32_t j = 0; j < static_cast<uint32_t>(n); ++j) {
      const char *old = slot(index, j);
      if (loadi(old + 4) != 0) place(bigger, wide, load32(old), loadi(old + 4));
    }
    storei(at(bigger, IndexLayout::kSlots) + IndexLayout::kCount, static_cast<int32_t>(count));
    storei(at(list, LruHeadLayout::kName) + LruHeadLayout::kIndex, bigger);
    return;
  }
  note_damage(kBadIndex);  // no free slot: not a table this code made
}

}  // namespace trv
