// The process's in-memory copies of INI files, shared by the profile and registry calls.
#pragma once

#include <cstddef>
#include <cstdint>

#include "trovalis.h"

// One INI file this process has touched. Records are never freed: they live
// until the process ends, in most-recently-used order from INI_File.
struct INIF {
  INIF *Next;
  char *Name;         // resolved file name, owned
  int32_t MTime;      // whole seconds at the last load or save; 0 if none
  int32_t Size;       // bytes of file text in Body
  int32_t Capacity;   // usable bytes of Body (allocation is 32 more); 0 while null
  char *Body;         // text, then kINIF_Suffix; null until loaded or written
  char **BodyIndex;   // every '[' at the start of a line, in file order
  int32_t Sections;   // entries in BodyIndex
};

namespace trv {

// Copied after the text of every body, never saved: every forward scan finds
// an LF, and the walk over the last section meets the empty head "[]".
inline constexpr char kINIF_Suffix[] = "\n[]\n\n\n";
inline constexpr int32_t kSuffixBytes = 7;  // with its NUL
static_assert(sizeof kINIF_Suffix == kSuffixBytes);

// Reported, with the name, for a file that exists but cannot be used.
inline constexpr char kCantOpenMessage[] = "WARNING: Out of memory or can't open INI-file: ";
// Reported, with the file name, when a body cannot be made large enough.
inline constexpr char kNoBodyMessage[] = "ERROR: Failed reallocating for: ";

// Bare names are built in the per-user folder (~/Library/Zelvan TeX on
// macOS, ~/.config/Zelvan TeX on Linux) in this many bytes.
inline constexpr size_t kResolvedNameBytes = 260;
inline constexpr char kProfileSubdir[] = "/Zelvan TeX";

// Turns every '\' of `name` into '/', in place; null stays null.
char *adjust_filename(char *name);

// A new, unlinked record for `name` with everything else empty; null when
// memory is short.
INIF *alloc_INIF(const char *name);

// Makes room for a text of `length` bytes plus the suffix (growth in steps of
// 1024, never shrinking). False, with "ERROR: Failed reallocating for: "
// reported and the record unchanged, when that cannot be done.
bool realloc_Body(INIF *f, int64_t length);

// Rebuilds BodyIndex and Sections from the text. False, with "ERROR: Failed
// reallocating index for: " reported, when the index cannot grow; the old
// index is then kept.
bool rescan_BodyIndex(INIF *f);

// Re-reads the file when its time stamp or size on disk differs from the
// record. False only when the record could not be brought up to date
// because memory ran short; a file that has gone or cannot be opened leaves
// the old copy, which is still usable.
bool reload_Modified_Body(INIF *f);

// Resolves `name` (rewriting '\' to '/' in it when it holds a separator),
// then finds the process's record for it, reloading a stale one, or loads the
// file. For a write, a missing file gets an empty record. Null when the file
// cannot be used; the reason has been reported.
INIF *find_INIF(char *name, bool for_write);

// The record's text followed by the suffix; for a record without a body, the
// suffix alone (an empty text).
inline const char *INIF_text(const INIF *f) { return f->Body ? f->Body : kINIF_Suffix; }

// Replaces `remove` bytes at `pos` of the text by `insert_len` bytes of
// `insert`, moving the rest and the suffix, and keeps BodyIndex in step.
// False, with the record unchanged and the reason reported, when the body or
// the index cannot grow.
bool splice_Body(INIF *f, int32_t pos, int32_t remove, const char *insert, int32_t insert_len);

// Writes the whole text to the record's file and records its new time stamp.
// Failures are reported; the copy keeps the text either way.
void save_INIF(INIF *f);

}  // namespace trv
