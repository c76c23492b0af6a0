// Internal side of the file databases: the ls-R and alias loaders and the
// name matchers that the lookup, the registration of new files and the
// mirrors share. None of these is exported.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace trv {

// Bucket counts of the two tables the reset builds.
inline constexpr int kDbBuckets = 15991;
inline constexpr int kAliasBuckets = 1009;
// The network marker that stands in DB_Dirs for every network root.
inline constexpr const char *kNetMarker = ":*:";
// Size of a path buffer handed between the search and the lookup.
inline constexpr int kPathBuf = 260;

// Loads the ls-R format file `file` into the database table at `table`.
// 1 when the file was opened and made at least one entry (its root is then
// appended to DB_Dirs), else 0. The caller holds the cache lock.
int db_build(int table, const char *file);

// 1 when a component of the directory line (as read, with its ":") other
// than the first character begins with "." and is not just ".".
int ignore_dir_p(const char *line);

// Plain alias file: 1 when it could be opened. The caller holds the lock.
int alias_build(int table, const char *file);
// Alias profile ([TeXFonts], [Truncated], [Aliases]): always 1.
int alias_ini_build(int table, const char *file);

// 1 when the database root covers the path element (the root is a prefix
// of it, letter case and "/" versus "\" aside; network roots cover every
// network element).
int elt_in_db(const char *root, const char *element);

// 1 when the element admits `path` (a database directory followed by a
// file name), with "//" standing for any run of directories below.
int match(const char *path, const char *element);

// Reads a stream the way fgets with a 128-byte buffer does: pieces of at
// most 127 characters, each ending at its LF when one comes first. A long
// line is therefore seen as several pieces, which both database formats
// rely on. Reads the file in large blocks, so it costs little per line.
class PieceReader {
 public:
  static constexpr int kPiece = 127;
  explicit PieceReader(std::FILE *f) : f_(f) {}
  // The next piece, NUL-terminated, in `out` (kPiece + 1 bytes), and its
  // length; -1 at the end of the file. A NUL byte read ends the text early,
  // as it would for a reader of C strings.
  int next(char *out);

 private:
  std::FILE *f_;
  char block_[1 << 15];
  size_t pos_ = 0, len_ = 0;
  bool eof_ = false;
};

// Removes up to `count` trailing characters below 32 (CR, LF and the like)
// from the text of length n; returns the new length.
int strip_controls(char *text, int n, int count);

// hash_index for a table of `buckets` buckets, without a division per
// character (the load hashes every name of every ls-R). Same result.
uint32_t fast_hash_index(const char *key, uint32_t buckets);

}  // namespace trv
