// Chained hash tables, move-to-front (LRU) lists and text lists that live in
// the shared arena and link their entries by data-area offsets.
#include "core/containers.h"

#include <strings.h>

#include <cstdint>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "core/lru_index.h"
#include "core/region.h"
#include "trovalis.h"

namespace trv {

namespace walk_detail {
int64_t g_shared_steps = -1;
int g_budget_depth = 0;
}  // namespace walk_detail

uint32_t hash_index(const char *key, uint32_t buckets) {
  uint32_t h = 0;
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(key); *p; ++p) {
    int c = static_cast<signed char>(*p);  // bytes 0x80..0xFF count as negative
    if (c >= 'a' && c <= 'z') c -= 'a' - 'A';
    h = (2 * h + static_cast<uint32_t>(c)) % buckets;
  }
  return h;
}

int32_t hash_bucket_count(int32_t table) {
  if (table <= 0) return 0;
  const char *t = at(table, HashLayout::kHeads);
  const int32_t n = t != nullptr ? loadi(t) : 0;
  if (n <= 0 || at(table, HashLayout::kHeads + 4 * static_cast<int64_t>(n)) == nullptr) {
    note_damage("a hash table does not fit in the arena");
    return 0;
  }
  return n;
}

uint32_t hash(int32_t table, const char *key) {
  const int32_t n = hash_bucket_count(table);
  return n > 0 ? hash_index(key, static_cast<uint32_t>(n)) : 0;
}

int32_t hash_bucket_head(int32_t table, uint32_t index) {
  const int32_t n = hash_bucket_count(table);
  if (n <= 0 || index >= static_cast<uint32_t>(n)) return 0;
  return loadi(at(table, HashLayout::kHeads + 4 * static_cast<int64_t>(index) + 4) +
               HashLayout::kHeads + 4 * static_cast<int64_t>(index));
}

const char *entry_key(int32_t entry) {
  if (entry <= 0 || at(entry, EntryLayout::kKey) == nullptr) return nullptr;
  return text_at(entry + EntryLayout::kKey);
}

int32_t entry_value(int32_t entry) {
  const char *e = at(entry, EntryLayout::kKey);
  return entry > 0 && e ? loadi(e + EntryLayout::kValue) : 0;
}

int32_t entry_next(int32_t entry) {
  const char *e = at(entry, EntryLayout::kKey);
  return entry > 0 && e ? loadi(e + EntryLayout::kNext) : 0;
}

void entry_set_value(int32_t entry, int32_t value) {
  char *e = at(entry, EntryLayout::kKey);
  if (entry > 0 && e) storei(e + EntryLayout::kValue, value);
}

namespace {

void entry_set_next(int32_t entry, int32_t next) {
  char *e = at(entry, EntryLayout::kKey);
  if (entry > 0 && e) storei(e + EntryLayout::kNext, next);
}

// Reserves and fills an entry, with `prefix` bytes in front of it (zeroed);
// -1 (after salloc's exhaustion line) when the arena is full, in which case
// the caller changes nothing. A key longer than readers accept (kTextMax)
// would read as a broken link: it is refused.
int32_t new_entry(const char *key, int32_t value, int32_t next, int32_t prefix = 0) {
  const size_t len = std::strlen(key);
  if (len > static_cast<size_t>(kTextMax)) return -1;
  const int64_t bytes = prefix + static_cast<int64_t>(len) + EntryLayout::kOverhead;
  const int32_t off = salloc(static_cast<int>(bytes));
  if (off < 0) return -1;
  char *p = at(off, bytes);
  std::memset(p, 0, static_cast<size_t>(prefix));
  char *e = p + prefix;
  storei(e + EntryLayout::kNext, next);
  storei(e + EntryLayout::kValue, value);
  std::memcpy(e + EntryLayout::kKey, key, len + 1);
  return off + prefix;
}

// Address of the word that holds bucket `index`'s head; the caller has
// checked the table with hash_bucket_count and index < bucket count.
char *bucket_word(int32_t table, uint32_t index) {
  return at(table, HashLayout::kHeads + 4 * static_cast<int64_t>(index) + 4) +
         HashLayout::kHeads + 4 * static_cast<int64_t>(index);
}

// The last entry of a chain (bounded walk), or 0 for an empty chain.
int32_t chain_tail(int32_t first) {
  int32_t last = 0;
  walk_chain(first, [&](int32_t e) {
    last = e;
    return true;
  });
  return last;
}

const char *lru_name(int32_t list) {
  const char *n = text_at(list + LruHeadLayout::kName);
  return n ? n : "";
}

}  // namespace

}  // namespace trv

using namespace trv;

extern "C" {

int hash_create(int n) {
  if (n <= 0 || n > (INT32_MAX - HashLayout::kOverhead) / 4) return -1;
  const int32_t off = salloc(4 * n + HashLayout::kOverhead);
  if (off < 0) return -1;
  char *t = at(off, 4 * static_cast<int64_t>(n) + HashLayout::kOverhead);
  std::memset(t, 0, 4 * static_cast<size_t>(n) + HashLayout::kOverhead);
  storei(t, n);
  return off;
}

// Appends at the end of the chain: the first entry for a key stays the one
// that look-ups find.
void hash_insert(int table, const char *key, int value) {
  const int32_t n = hash_bucket_count(table);
  if (n <= 0) return;
  const uint32_t b = hash_index(key, static_cast<uint32_t>(n));
  const int32_t e = new_entry(key, value, 0);
  if (e < 0) return;
  const int32_t head = loadi(bucket_word(table, b));
  if (head == 0) {
    storei(bucket_word(table, b), e);
  } else {
    entry_set_next(chain_tail(head), e);
  }
}

// Prepends: the new entry shadows every earlier one with the same key.
void hash_insert_revert(int table, const char *key, int value) {
  const int32_t n = hash_bucket_count(table);
  if (n <= 0) return;
  const uint32_t b = hash_index(key, static_cast<uint32_t>(n));
  const int32_t e = new_entry(key, value, loadi(bucket_word(table, b)));
  if (e < 0) return;
  storei(bucket_word(table, b), e);
}

int hash_lookup(int table, const char *key) {
  const int32_t n = hash_bucket_count(table);
  if (n <= 0) return 0;
  int32_t found = 0;
  walk_chain(loadi(bucket_word(table, hash_index(key, static_cast<uint32_t>(n)))),
             [&](int32_t e) {
               if (strcasecmp(entry_key(e), key) != 0) return true;
               found = entry_value(e);
               return false;
             });
  return found;
}

int lru_create(const char *name) {
  const size_t len = std::strlen(name);
  if (len > static_cast<size_t>(INT32_MAX - LruHeadLayout::kOverhead)) return -1;
  const int32_t off = salloc(static_cast<int>(len) + LruHeadLayout::kOverhead);
  if (off < 0) return -1;
  char *h = at(off, static_cast<int64_t>(len) + LruHeadLayout::kOverhead);
  storei(h + LruHeadLayout::kFirst, 0);
  storei(h + LruHeadLayout::kCount, 0);
  storei(h + LruHeadLayout::kIndex, 0);
  std::memcpy(h + LruHeadLayout::kName, name, len + 1);
  return off;
}

// Only the first entry is compared: callers look a key up first (moving it
// to the front) and then insert, which changes it in place.
void lru_insert(int list, const char *key, int value) {
  char *h = at(list, LruHeadLayout::kName);
  if (list <= 0 || h == nullptr) return;
  int32_t first = loadi(h + LruHeadLayout::kFirst);
  int32_t target = 0;
  const char *first_key = entry_key(first);
  if (first > 0 && first_key != nullptr && strcasecmp(first_key, key) == 0) {
    target = first;
  } else {
    // An indexed list's entries carry the prefix words from the start: the
    // index word is set when the list is made and never becomes 0.
    const bool indexed = loadi(h + LruHeadLayout::kIndex) > 0;
    target = new_entry(key, value, first > 0 ? first : 0,
                       indexed ? IndexedEntryLayout::kPrefix : 0);
    if (target < 0) return;
    storei(h + LruHeadLayout::kFirst, target);
    store32(h + LruHeadLayout::kCount, load32(h + LruHeadLayout::kCount) + 1u);
    if (indexed) {
      if (first > 0) indexed_set_prev(first, target);
      index_add(list, target);
    }
  }
  entry_set_value(target, value);
  if (Trace_LRU) {
    char text[128];
    std::snprintf(text, sizeof text, "(%s)%s -> %d", lru_name(list), entry_key(target), value);
    message("LRU Insert: ", text);
  }
}

int lru_lookup(int list, const char *key) {
  char *h = at(list, LruHeadLayout::kName);
  if (list <= 0 || h == nullptr) return 0;
  const int32_t first = loadi(h + LruHeadLayout::kFirst);
  const int32_t index = loadi(h + LruHeadLayout::kIndex);
  int32_t prev = 0, found = -1;
  // The front entry first: a program asks the names it just asked again
  // and again, and that entry is read anyway, while the index lies on
  // pages of its own that a fresh process has not touched yet.
  const char *first_key = index > 0 ? entry_key(first) : nullptr;
  if (first_key != nullptr && strcasecmp(first_key, key) == 0) {
    found = first;
  } else if (index > 0) {
    found = index_find(index, key);
    // The entry before the one found must link to it; when it does not,
    // the prefix words are damaged and the list is walked instead.
    if (found > 0 && found != first) {
      prev = indexed_prev(found);
      if (prev <= 0 || entry_next(prev) != found) {
        note_damage("an answer cache index");
        found = -1;
      }
    }
  }
  if (found < 0) {
    found = 0;
    prev = 0;
    // Lists without an index stay short (programs, file types); the first
    // letter is compared before the whole key, and the key is read in
    // place (the walk has checked that it ends inside the region).
    const int first_letter = std::tolower(static_cast<unsigned char>(key[0]));
    walk_chain(
        first,
        [&](int32_t e) {
          const char *k = at(e + EntryLayout::kKey, 1);
          if (std::tolower(static_cast<unsigned char>(k[0])) == first_letter &&
              strcasecmp(k, key) == 0) {
            found = e;
            return false;
          }
          prev = e;
          return true;
        },
        true);
  }
  char text[128];
  if (found == 0) {
    if (Trace_LRU) {
      std::snprintf(text, sizeof text, "(%s)%s -> NONE", lru_name(list), key);
      message("LRU Lookup: ", text);
    }
    return 0;
  }
  if (found != first) {
    const int32_t next = entry_next(found);
    entry_set_next(prev, next);
    entry_set_next(found, first);
    storei(h + LruHeadLayout::kFirst, found);
    if (index > 0) {
      if (next > 0) indexed_set_prev(next, prev);
      indexed_set_prev(first, found);
      indexed_set_prev(found, 0);
    }
  }
  const int32_t value = entry_value(found);
  if (Trace_LRU) {
    std::snprintf(text, sizeof text, "(%s)%s -> %d", lru_name(list), key, value);
    message("LRU Lookup: ", text);
  }
  return value;
}

char *lru_head(int list) {
  const char *h = at(list, LruHeadLayout::kName);
  if (list <= 0 || h == nullptr) return nullptr;
  const int32_t first = loadi(h + LruHeadLayout::kFirst);
  if (entry_key(first) == nullptr) return nullptr;
  return at(first, EntryLayout::kKey);
}

int list_append(int list, const char *text, int value) {
  const int32_t e = new_entry(text, value, 0);
  if (e < 0) return list;
  if (list <= 0) return e;
  entry_set_next(chain_tail(list), e);
  return list;
}

char *next_key(const char *entry) {
  const int32_t off = offset_of(entry);
  if (off < 0) return nullptr;
  const int32_t next = entry_next(off);
  if (entry_key(next) == nullptr) return nullptr;
  return at(next, EntryLayout::kKey);
}

}  // extern "C"

namespace trv {

int32_t lru_create_indexed(const char *name) {
  const int32_t list = lru_create(name);
  if (list <= 0) return list;
  const int32_t index = index_create(IndexLayout::kFirstSlots);
  if (index > 0) storei(at(list, LruHeadLayout::kName) + LruHeadLayout::kIndex, index);
  return list;
}

}  // namespace trv
