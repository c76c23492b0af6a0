// Hash tables, move-to-front lists and text lists in the shared arena.
#pragma once

#include <cstdint>

namespace trv {

// Bucket index of `key` in a table of `buckets` buckets (buckets > 0).
uint32_t hash_index(const char *key, uint32_t buckets);
// Bucket index of `key` in the table at offset `table`; 0 for a bad table.
uint32_t hash(int32_t table, const char *key);

// Checked views of an entry record at a data-area offset; each returns
// nullptr / 0 for an offset that does not hold a whole entry.
const char *entry_key(int32_t entry);
int32_t entry_value(int32_t entry);
int32_t entry_next(int32_t entry);
void entry_set_value(int32_t entry, int32_t value);

// Head of bucket `index` of a table (0 for none or a bad table).
int32_t hash_bucket_head(int32_t table, uint32_t index);
int32_t hash_bucket_count(int32_t table);

// An LRU list with an index (core/lru_index.h) beside it, for lists that
// grow to thousands of keys: the answer caches. The same list for every
// reader; -1 when the arena is full, and a list without an index when only
// the index did not fit.
int32_t lru_create_indexed(const char *name);

// Visits a chain from `first`, at most max_walk() entries; `visit` returns
// false to stop. Returns the number of entries visited.
template <class F>
int64_t walk_chain(int32_t first, F &&visit, bool first_is_link = false);

}  // namespace trv

#include "core/containers_inl.h"
