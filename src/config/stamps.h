// The stamps of the files a configuration reset read, so that the first
// process to start after one of them changed resets the cache.
//
// TeX Live's own tools (mktexlsr, texhash, package installs) rewrite ls-R
// files without telling the cache, which would otherwise answer from the
// old contents, and keep its misses, until someone ran a reset. So each
// reset records the size, modification time (to the nanosecond) and inode
// of every file it read or looked for: TEXMF.INI, the per-user file,
// SETUP.INI, each tree's ls-R, aliases and aliases.ini, and the network
// index; a file that was not there is recorded as such. At attach, under
// the cache lock, a process compares them with the files (one stat each);
// on a difference it runs the reset itself, and processes that start
// meanwhile wait for the lock and find the stamps current. Trees searched
// by a directory walk are not watched: `trovalis newfile` tells the cache.
//
// In the region: the reset's first object, at Mem_Mark, is one word that
// holds the offset of the stamp list (0 while there is none); the list is
// written when the reset ends. docs/region-format.md has the layout.
#pragma once

namespace trv {

// Called by the reset: before it reads anything, and right after it rolled
// the arena back (reserves the word at Mem_Mark).
void stamps_begin();
void stamps_reserve();
// Records the stamp of `path` when a reset is running; the caller reads or
// looks for the file after this call. True the first time a reset meets
// the path: a copy of the file kept from before must then be read again.
bool stamp_file(const char *path);
// Stores the list and ends the recording. `complete` false (a read failed
// for a reason other than absence) marks the list stale, so that the next
// process to start resets again; once: where that reset fails too, the
// failure is taken to last, and its list is not marked.
void stamps_end(bool complete);

// With the cache lock held: true when the region's stamp list says a reset
// is due, with `why` the changed file or the reason. A region without a
// list (its arena was full at the end of the reset) is left alone.
bool stamps_changed(const char **why);

}  // namespace trv
