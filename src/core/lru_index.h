// The index beside an LRU list: a hash table of its entries, so that a
// look-up in an answer cache of 100,000 names costs what it costs in one
// of 20.
//
// The list itself is unchanged: its order, its trace lines and every
// reader that walks it. The index only finds the entry: an open-addressed
// table of (hash, entry) pairs, so that a look-up of a name not cached
// reads the table alone. The entry's prefix word (IndexedEntryLayout)
// names the entry before it, so that moving it to the front needs no walk.
#pragma once

#include <cstdint>

namespace trv {

// Hash of a key, without regard to ASCII case (FNV-1a over the upper-cased
// bytes); a table of n slots starts probing at its low bits.
uint32_t index_hash(const char *key);

// A new, empty index of `slots` slots (a power of two); -1 when the arena
// is full.
int32_t index_create(int32_t slots);

// The entry that look-ups find for `key`: among the entries with that key,
// the newest, which is also the first in the list's order (an older one
// never moves ahead of it, since look-ups never find it). 0 when no entry
// has the key; -1 when the index cannot be trusted (damage is noted) and
// the caller must walk the list instead.
int32_t index_find(int32_t index, const char *key);

// Enters the new entry `entry`, just put in front of the list `list`, into
// the list's index (in place of an older entry with its key), and doubles
// the index when it is more than half full. A full arena leaves the old
// index in use, only fuller.
void index_add(int32_t list, int32_t entry);

// The prefix word of an indexed entry; 0 / nothing for an offset that has
// no room for it.
int32_t indexed_prev(int32_t entry);
void indexed_set_prev(int32_t entry, int32_t prev);

}  // namespace trv
