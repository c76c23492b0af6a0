// Loading the ls-R databases, the alias files beside them and the network
// index into the shared region at each configuration reset.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "config/stamps.h"
#include "core/attach.h"
#include "core/containers.h"
#include "core/failed_reads.h"
#include "core/region.h"
#include "db/db.h"
#include "profile/ini_store.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr const char *kNoEntries = "WARNING: No usable entries in ";
constexpr const char *kGenerateHint =
    "WARNING: Use 'Options|Directories ...' editor dialog to generate ls-R";

// Every file a load looks for is stamped first, found or not, so that one
// that appears later is noticed as well as one that changes.
bool readable(const char *file) {
  stamp_file(file);
  return access(file, R_OK) == 0;
}

// Working paths are sized for any path the system accepts rather than cut:
// a cut path would name some other file.
constexpr size_t kLongPath = 4096;

bool is_sep(char c) { return c == '/' || c == '\\'; }

std::FILE *open_read(const char *file) {
  std::FILE *f;
  do {
    f = std::fopen(file, "r");
  } while (f == nullptr && errno == EINTR);
  return f;
}

// dir + "/" + leaf with every "\" turned into "/"; false when it does not
// fit. No "/" is added after a dir that already ends with one: the file's
// directory becomes the database root, and a root such as /t// would be a
// prefix of no search path element, so the database would never be used.
bool join(char *out, size_t size, const char *dir, const char *leaf) {
  const size_t n = std::strlen(dir);
  const char *sep = n > 0 && is_sep(dir[n - 1]) ? "" : "/";
  const int w = std::snprintf(out, size, "%s%s%s", dir, sep, leaf);
  if (w < 0 || static_cast<size_t>(w) >= size) return false;
  adjust_filename(out);
  return true;
}

// The network index pattern comes from a file, so it is never handed to
// printf: only "%s" (up to three times, each the configuration folder) and
// "%%" are honoured; any other "%" stands for itself.
bool format_pattern(char *out, size_t size, const char *pattern, const char *folder) {
  size_t o = 0;
  int used = 0;
  auto put = [&](const char *s, size_t n) {
    if (o + n >= size) return false;
    std::memcpy(out + o, s, n);
    o += n;
    return true;
  };
  for (const char *p = pattern; *p; ++p) {
    bool ok;
    if (p[0] == '%' && p[1] == 's' && used < 3) {
      ok = put(folder, std::strlen(folder));
      ++used;
      ++p;
    } else if (p[0] == '%' && p[1] == '%') {
      ok = put("%", 1);
      ++p;
    } else {
      ok = put(p, 1);
    }
    if (!ok) return false;
  }
  out[o] = '\0';
  return true;
}

// Joins the network marker to TEXMF so that every path built from it also
// gets network elements: {a,b} becomes {a,b,:*:}. A value that is not a
// brace list (a single tree such as /t) is made one, {/t,:*:}, since
// overwriting its last character would corrupt the tree's name; an
// undefined TEXMF is taken as an empty list and becomes {:*:}. Either way
// the value read back is never null.
void join_network_to_texmf() {
  const char *got = _QDMValue("common", "TEXMF");
  char value[kLongPath];
  std::snprintf(value, sizeof value, "%s", got ? got : "");
  message("Got TEXMF = ", value);

  char joined[kLongPath + 16];
  const size_t n = std::strlen(value);
  if (n > 0 && value[n - 1] == '}') {
    value[n - 1] = '\0';
    std::snprintf(joined, sizeof joined, "%s,%s}", value, kNetMarker);
  } else if (n > 0) {
    std::snprintf(joined, sizeof joined, "{%s,%s}", value, kNetMarker);
  } else {
    std::snprintf(joined, sizeof joined, "{%s}", kNetMarker);
  }
  _QDMSetValue("common", "TEXMF", joined, 0);
  message("Set TEXMF = ", joined);
  const char *back = _QDMValue("common", "TEXMF");
  message("Got TEXMF = ", back ? back : "");
}

// The first element of the type ls-R's search path (0: an empty path), or
// -1 when the type has no record.
int32_t ls_r_path() {
  const char *record = FormatPath("QDM", "ls-R");
  if (record == nullptr) return -1;
  return loadi(record + 4);
}

void load_network_index(int32_t *table) {
  char setup[kLongPath];
  const char *ini = INIFile ? INIFile : "";
  std::snprintf(setup, sizeof setup, "%s", ini);
  if (char *slash = std::strrchr(setup, '/')) {
    std::snprintf(slash + 1, sizeof setup - static_cast<size_t>(slash + 1 - setup), "SETUP.INI");
  } else {
    std::snprintf(setup, sizeof setup, "SETUP.INI");
  }

  // Most installations have no SETUP.INI; the default pattern is then taken
  // without asking the profile reader, which would log the absent file at
  // every reset.
  static constexpr const char *kDefaultPattern = "%s\\Update\\ls-R.net";
  char pattern[260];
  stamp_file(setup);
  if (std::strchr(setup, '/') != nullptr && access(setup, F_OK) != 0) {
    std::snprintf(pattern, sizeof pattern, "%s", kDefaultPattern);
  } else {
    GetPrivateProfileString("Info", "TEXMFNETMAP", kDefaultPattern, pattern, sizeof pattern,
                            setup);
  }
  adjust_filename(pattern);

  char folder[kLongPath];
  std::snprintf(folder, sizeof folder, "%s", ini);
  if (char *slash = std::strrchr(folder, '/')) {
    *slash = '\0';
  } else {
    folder[0] = '\0';
  }

  char index[kLongPath];
  if (!format_pattern(index, sizeof index, pattern, folder)) index[0] = '\0';
  message("Checking Network TEXMF Index=", index);
  if (pattern[0] == '\0' || index[0] == '\0' || !readable(index)) return;

  message("Loading Network TEXMF Index=", index);
  // With no local database the table made for them was dropped from the
  // header, but it is still in the arena, empty: the index goes into it.
  if (*table <= 0) {
    const int made = hash_create(kDbBuckets);
    *table = made > 0 ? made : 0;
  }
  if (*table <= 0 || !db_build(*table, index)) return;
  set_hdr(Word::DB_Hash, *table);
  const int name = stradd(index);
  set_hdr(Word::Net_Index, name > 0 ? name : 0);
  join_network_to_texmf();
}

// Appends entries to a database table the way hash_insert does (at the end
// of their bucket chain), but remembers each chain's tail, so a load of
// 100,000 and more names does not walk the chains again for every name. The
// record layout is the containers' own.
class Appender {
 public:
  explicit Appender(int32_t table)
      : table_(table), buckets_(hash_bucket_count(table)),
        tails_(buckets_ > 0 ? new (std::nothrow) int32_t[static_cast<size_t>(buckets_)] : nullptr) {
    if (tails_) std::fill_n(tails_.get(), buckets_, -1);
  }

  // False when the arena is full.
  bool add(const char *key, size_t len, int32_t value) {
    if (!tails_) {
      const int32_t before = hdr(Word::Mem_Used);
      hash_insert(table_, key, value);
      return hdr(Word::Mem_Used) != before;
    }
    const uint32_t b = fast_hash_index(key, static_cast<uint32_t>(buckets_));
    int32_t &tail = tails_[b];
    if (tail < 0) {
      tail = 0;
      walk_chain(hash_bucket_head(table_, b), [&](int32_t e) {
        tail = e;
        return true;
      });
    }
    if (len > static_cast<size_t>(INT32_MAX - EntryLayout::kOverhead)) return true;
    const int64_t bytes = static_cast<int64_t>(len) + EntryLayout::kOverhead;
    const int32_t off = salloc(static_cast<int>(bytes));
    char *e = off < 0 ? nullptr : at(off, bytes);
    if (e == nullptr) return false;
    storei(e + EntryLayout::kNext, 0);
    storei(e + EntryLayout::kValue, value);
    std::memcpy(e + EntryLayout::kKey, key, len + 1);
    const int64_t word = tail > 0 ? static_cast<int64_t>(tail) + EntryLayout::kNext
                                  : table_ + HashLayout::kHeads + 4 * static_cast<int64_t>(b);
    char *link = word <= INT32_MAX ? at(static_cast<int32_t>(word), 4) : nullptr;
    if (link == nullptr) return true;
    storei(link, off);
    tail = off;
    return true;
  }

 private:
  int32_t table_;
  int32_t buckets_;
  std::unique_ptr<int32_t[]> tails_;
};

// Bytes of the ls-R and alias files along the type ls-R's search path.
int64_t load_bytes(int32_t path) {
  int64_t total = 0;
  char file[kLongPath];
  walk_chain(path, [&](int32_t e) {
    const char *text = entry_key(e);
    const char *d = text + (text[0] == '!' && text[1] == '!' ? 2 : 0);
    for (const char *leaf : {"ls-R", "aliases", "aliases.ini"}) {
      struct stat st {};
      if (join(file, sizeof file, d, leaf) && stat(file, &st) == 0 && S_ISREG(st.st_mode))
        total += st.st_size;
    }
    return true;
  });
  return total;
}

// The database table's bucket count: 15991, or about one bucket per name
// for larger trees (an ls-R line takes some 24 bytes), so that a look-up
// compares a name or two, not dozens, on a tree of 400,000 files.
int db_buckets(int64_t load) {
  const int64_t wanted = (load / 24) | 1;
  return static_cast<int>(std::clamp<int64_t>(wanted, kDbBuckets, 1 << 22));
}

}  // namespace

int ignore_dir_p(const char *line) {
  for (const char *p = line + (line[0] ? 1 : 0); *p; ++p) {
    if (*p == '.' && is_sep(p[-1]) && p[1] != '\0' && !is_sep(p[1])) return 1;
  }
  return 0;
}

int db_build(int table, const char *file) {
  // The root is the file's path without its last 4 characters: for .../ls-R
  // that is its directory with the trailing "/".
  char root[kLongPath];
  const size_t flen = std::strlen(file);
  std::snprintf(root, sizeof root, "%.*s", static_cast<int>(flen > 4 ? flen - 4 : 0), file);

  std::FILE *f = open_read(file);
  if (f == nullptr) {
    note_failed_read(file, errno);
    return 0;
  }
  if (Trace_Load) message("Load DB: ", file);

  PieceReader reader(f);
  Appender table_of(table);
  char line[PieceReader::kPiece + 1];
  char dir[kLongPath + PieceReader::kPiece + 1];
  int32_t current = 0;  // offset of the current directory string; 0: none
  long dirs = 0, files = 0, ignored = 0;
  for (int got; (got = reader.next(line)) >= 0;) {
    const size_t n = static_cast<size_t>(strip_controls(line, got, 2));
    if (n == 0) continue;
    if (line[0] == ':') {
      const char *second = std::strchr(line + 1, ':');
      const size_t keep = second ? static_cast<size_t>(second - line) + 1 : n;
      std::snprintf(root, sizeof root, "%.*s", static_cast<int>(keep), line);
      continue;
    }
    if (line[n - 1] == ':') {
      if (ignore_dir_p(line)) {
        current = 0;
        ++ignored;
        continue;
      }
      line[n - 1] = '/';
      if (line[0] == '.') {
        // n >= 2 here: the line begins with "." and ends with ":".
        const char *rest = line + (n >= 3 && line[2] == '/' ? 3 : 2);
        std::snprintf(dir, sizeof dir, "%s%s", root, rest);
      } else {
        std::snprintf(dir, sizeof dir, "%s", line);
      }
      const int s = stradd(dir);
      current = s > 0 ? s : 0;
      ++dirs;
      continue;
    }
    if (current == 0) continue;
    if (std::strcmp(line, ".") == 0 || std::strcmp(line, "..") == 0) continue;
    // A full arena ends the load: every further name would only add
    // another exhaustion line to the log.
    if (!table_of.add(line, n, current)) break;
    ++files;
  }
  if (std::ferror(f)) note_failed_read(file, EIO);
  std::fclose(f);

  if (files == 0) {
    message(kNoEntries, file);
    message(kGenerateHint, "");
    return 0;
  }
  if (root[0] == ':') std::snprintf(root, sizeof root, "%s", kNetMarker);
  const int32_t list = list_append(hdr(Word::DB_Dirs), root, 0);
  set_hdr(Word::DB_Dirs, list > 0 ? list : 0);
  return 1;
}

int PieceReader::next(char *out) {
  size_t o = 0;
  size_t text = SIZE_MAX;  // length up to the first NUL, when one was read
  while (o < static_cast<size_t>(kPiece)) {
    if (pos_ == len_) {
      if (eof_) break;
      len_ = std::fread(block_, 1, sizeof block_, f_);
      pos_ = 0;
      if (len_ == 0) {
        eof_ = true;
        break;
      }
    }
    size_t want = static_cast<size_t>(kPiece) - o;
    if (want > len_ - pos_) want = len_ - pos_;
    const char *start = block_ + pos_;
    const char *lf = static_cast<const char *>(std::memchr(start, '\n', want));
    const size_t take = lf ? static_cast<size_t>(lf - start) + 1 : want;
    // Searched in the block rather than in `out`: reading back bytes just
    // stored costs a stall per line, which shows over 100,000 lines.
    if (text == SIZE_MAX) {
      if (const void *nul = std::memchr(start, '\0', take))
        text = o + static_cast<size_t>(static_cast<const char *>(nul) - start);
    }
    std::memcpy(out + o, start, take);
    o += take;
    pos_ += take;
    if (lf) break;
  }
  out[o] = '\0';
  if (o == 0) return -1;
  return static_cast<int>(text < o ? text : o);
}

int strip_controls(char *text, int n, int count) {
  for (int i = 0; i < count && n > 0 && static_cast<unsigned char>(text[n - 1]) < 32; ++i)
    text[--n] = '\0';
  return n;
}

uint32_t fast_hash_index(const char *key, uint32_t buckets) {
  if (buckets == 0) return 0;
  // The containers reduce modulo the bucket count after every character.
  // For characters below 128 each step is linear, so the reductions can be
  // deferred and done once, or whenever the sum grows large. A byte of 128
  // or more enters as a wrapped 32-bit negative number, which is not linear,
  // and takes the containers' own step.
  uint64_t h = 0;
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(key); *p; ++p) {
    int c = static_cast<signed char>(*p);
    if (c >= 'a' && c <= 'z') c -= 'a' - 'A';
    if (c >= 0) {
      h = 2 * h + static_cast<uint64_t>(c);
      if (h >= (uint64_t{1} << 56)) h %= buckets;
    } else {
      const uint32_t r = static_cast<uint32_t>(h % buckets);
      h = (2 * r + static_cast<uint32_t>(c)) % buckets;
    }
  }
  return static_cast<uint32_t>(h % buckets);
}

}  // namespace trv

using namespace trv;

extern "C" void init_db(void) {
  if (!region_mapped()) return;
  set_hdr(Word::DB_Dirs, 0);

  int32_t table = 0;
  const int32_t path = ls_r_path();
  // Files that would not fit are not loaded here: the reset asks for a
  // larger region and loads them there.
  const int64_t load = path > 0 ? load_bytes(path) : 0;
  if (path > 0 && !region_fits(load)) return;
  if (path < 0) {
    message("ERROR: There is no path type: ", "ls-R");
  } else {
    const int made_db = hash_create(db_buckets(load));
    const int made_alias = hash_create(kAliasBuckets);
    table = made_db > 0 ? made_db : 0;
    const int32_t aliases = made_alias > 0 ? made_alias : 0;
    set_hdr(Word::DB_Hash, table);
    set_hdr(Word::Alias_Hash, aliases);
    int databases = 0, alias_files = 0;

    char d[kLongPath], file[kLongPath];
    walk_chain(path, [&](int32_t e) {
      const char *text = entry_key(e);
      std::snprintf(d, sizeof d, "%s", text + (text[0] == '!' && text[1] == '!' ? 2 : 0));
      if (Trace) message("Check path: ", d);

      if (join(file, sizeof file, d, "ls-R") && readable(file)) {
        if (table > 0 && db_build(table, file)) ++databases;
      } else {
        message("WARNING: There is no file: ", file);
      }

      const int before = alias_files;
      // The plain alias file is looked for as d/aliases, a name this file
      // system can hold; a name with "\" in it would never be found.
      if (aliases > 0 && join(file, sizeof file, d, "aliases") && readable(file) &&
          alias_build(aliases, file))
        ++alias_files;
      if (aliases > 0 && join(file, sizeof file, d, "aliases.ini") && readable(file) &&
          alias_ini_build(aliases, file))
        ++alias_files;
      if (alias_files == before) {
        char where[kLongPath + 16];
        std::snprintf(where, sizeof where, "%s/Aliases[.ini]", d);
        message("WARNING: There is no alias file(s): ", where);
      }
      return true;
    });
    if (databases == 0) set_hdr(Word::DB_Hash, 0);
    if (alias_files == 0) set_hdr(Word::Alias_Hash, 0);
  }
  load_network_index(&table);
}
