// Search requests: a file type and a name in, a path out, with the shared
// answer cache in front of the search and the remedies for missing files
// behind it.
#include <strings.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "config/format_path.h"
#include "core/containers.h"
#include "core/failed_reads.h"
#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "search/dirsearch.h"
#include "search/search.h"
#include "trovalis.h"

namespace trv {

FormatWords read_record(const char *record) {
  FormatWords w;
  if (record == nullptr) return w;
  w.answers = loadi(record);
  w.search_path = loadi(record + 4);
  w.suffixes = loadi(record + 8);
  w.make = loadi(record + 12);
  return w;
}

namespace {

// Status answers are handed out as char *, as every answer is; callers
// must not write to them.
char kNoFormat[] = "[Can't determine Format]";
// Section and key limits of the definition lookup.
constexpr size_t kSectionMax = 63;
constexpr size_t kKeyMax = 127;
constexpr int kValueBuf = 256;

// Per-process answer storage: the path buffer the search writes into, the
// copy of a cached answer, and the quoted-name copy.
char g_buf[kSearchBuf];
char g_cached[kSearchBuf];
char g_quoted[kQuotedBuf];

// What the search needs of a format record, copied out under the cache
// lock: the search itself runs without it, and a reset in another process
// may meanwhile roll the arena back and reuse the record's space.
using Record = FormatParts;

// The text at a record word into `to`; false (and `to` empty) for none.
bool copy_text(std::string &to, int32_t offset) {
  const char *t = offset > 0 ? text_at(offset) : nullptr;
  to.assign(t != nullptr ? t : "");
  return t != nullptr;
}

// Copies a cached answer out of the region. Answers were stored from the
// 260-byte path buffer, so a longer text can only come from a damaged
// region; it is cut rather than trusted.
char *copy_cached(int32_t offset) {
  const char *t = text_at(offset);
  if (t == nullptr) {
    note_damage("a cached answer");
    return nullptr;
  }
  const size_t n = strnlen(t, sizeof g_cached - 1);
  std::memcpy(g_cached, t, n);
  g_cached[n] = '\0';
  return g_cached;
}

const char *program_key() { return ProgName[0] != '\0' ? ProgName : "QDM"; }

// Fetches the record under the lock the caller holds and copies it out.
// With the arena too full to hold the record, the format is read into this
// process's memory instead: the search goes on, it only caches nothing.
bool fetch(const char *type, Record &rec) {
  const char *record = FormatPath(program_key(), type);
  if (record == nullptr) {
    if (!region_mapped()) return false;
    read_format(type, rec);
    return true;
  }
  const FormatWords w = read_record(record);
  // Assigned over the strings of the previous search, which keep their
  // memory: a batch of searches then allocates nothing here.
  size_t n = 0;
  const uint32_t damage = damage_seen();
  walk_chain(w.search_path, [&](int32_t e) {
    if (n < rec.path.size()) rec.path[n].assign(entry_key(e));
    else rec.path.emplace_back(entry_key(e));
    ++n;
    return true;
  });
  rec.path.resize(n);
  // A damaged list may name any directories, as many as the arena holds
  // entries; searching them all could take hours. It is taken as empty.
  if (damage_seen() != damage) rec.path.clear();
  rec.has_suffixes = copy_text(rec.suffixes, w.suffixes);
  rec.has_make = copy_text(rec.make, w.make);
  return true;
}

// Which record the shared search record (see search) was copied from.
struct Fetched {
  uint64_t mapping = 0;  // the mapping it was read in (Mapping::serial)
  int32_t record = 0;
  uint32_t resets = 0;
} g_fetched;

bool refetch(const char *type, Record &rec) {
  CacheGuard guard;
  return fetch(type, rec);
}

bool net_marker(const char *r) { return r != nullptr && r[0] == ':' && hdr(Word::Net_Index) != 0; }

// The definition lookup over profile files already copied out of the
// region. `section` is at most 63 characters, `key` at most 127.
char *definition(const std::vector<std::string> &files, const char *name, char *buf) {
  char section[kSectionMax + 1];
  const char *open = ProgName[0] == '[' ? ProgName + 1 : ProgName;
  size_t sn = std::strcspn(open, "]");
  if (sn > kSectionMax) sn = kSectionMax;
  std::memcpy(section, open, sn);
  section[sn] = '\0';

  char key[kKeyMax + 1];
  size_t kn = strnlen(name, kKeyMax);
  std::memcpy(key, name, kn);
  key[kn] = '\0';

  char value[kValueBuf];
  auto lookup = [&]() {
    for (const std::string &f : files) {
      char file[4096];
      if (f.size() >= sizeof file) continue;
      std::memcpy(file, f.c_str(), f.size() + 1);
      GetPrivateProfileString(section, key, "", value, sizeof value, file);
      if (value[0] != '\0') return true;
    }
    return false;
  };
  // abcdef, then abcde*, abcd*, ... a*, *: the last character of the key
  // turns into '*' and the one after it goes. An empty name tries "*".
  size_t star = kn;  // where the matching key's '*' stands; kn when exact
  bool found = kn > 0 && lookup();
  for (size_t len = kn > 0 ? kn : 1; !found && len >= 1; --len) {
    key[len - 1] = '*';
    key[len] = '\0';
    star = len - 1;
    found = lookup();
  }
  if (!found) return nullptr;

  const char *tail = star < std::strlen(name) ? name + star : "";
  size_t out = 0;
  for (const char *v = value; *v != '\0'; ++v) {
    const char *piece = *v == '*' ? tail : v;
    const size_t len = *v == '*' ? std::strlen(tail) : 1;
    if (out + len >= static_cast<size_t>(kSearchBuf)) break;  // cut to the buffer
    std::memcpy(buf + out, piece, len);
    out += len;
  }
  buf[out] = '\0';
  return buf;
}

void trace(const char *prefix, const char *text) {
  if (Trace) message(prefix, text);
}

char *search(const char *type, const char *name, int origin) {
  origin = origin != 0 ? 1 : 0;
  int download = AutoDownload[origin];
  int make_mode = MakeLocked[origin];
  if (make_mode < -2) make_mode = -2;
  if (make_mode > 1) make_mode = 1;
  bool may_make = make_mode < 0 || (make_mode == 0 && ConsoleErr != 0);
  const bool to_window = make_mode <= -2 || (make_mode == -1 && ConsoleErr == 0);

  bool ignore_miss = false;
  if (type[0] == '*') {
    ++type;
    ignore_miss = true;
  }
  if (name[0] == '"') {
    const size_t n = strnlen(name + 1, sizeof g_quoted - 1);
    std::memcpy(g_quoted, name + 1, n);
    g_quoted[n] = '\0';
    if (n > 0 && g_quoted[n - 1] == '"') g_quoted[n - 1] = '\0';
    name = g_quoted;
  }
  trace("INFO: Getting file Type path: ", type);

  // The format record found under the lock at the start. While no reset has
  // run since (Reset_Count), its offset still holds it and the answer is
  // stored there without looking the program and type up again; after one,
  // the record is fetched anew. Call with the lock held.
  int32_t record_at = -1;
  uint32_t record_resets = 0;
  uint64_t record_mapping = 0;  // the mapping record_at is an offset in
  // Almost no installation has mirrors: then a found file is not offered
  // to them, which spares a take of the lock per search. A reset that adds
  // mirrors meanwhile is like one that comes right after the offer.
  bool no_mirrors = false;
  const auto current_record = [&]() -> const char * {
    // A region that replaced this one may hold any count: the mapping is
    // compared too.
    if (record_at > 0 && g_map.serial == record_mapping &&
        static_cast<uint32_t>(hdr(Word::Reset_Count)) == record_resets)
      return at(record_at, 16);
    return FormatPath(program_key(), type);
  };

  // An outcome that rests on a file this process could not read is its
  // own: it is answered but not cached, nor is a download marker.
  const FailedReadWatch reads;
  // One record serves every search of the process; a search started
  // inside another (from a make command's host, say) has its own.
  static Record shared;
  static bool shared_busy = false;
  Record own;
  Record &rec = shared_busy ? own : shared;
  const bool owner = !shared_busy;
  shared_busy = true;
  struct Release {
    bool owner;
    ~Release() {
      if (owner) shared_busy = false;
    }
  } release{owner};
  char *r = nullptr;
  bool search_again;
  int32_t c;
  {
    CacheGuard guard;
    repair_damage();
    // No record (a full arena) means nothing cached: the search runs.
    const char *record = FormatPath(program_key(), type);
    record_at = offset_of(record);
    record_resets = static_cast<uint32_t>(hdr(Word::Reset_Count));
    record_mapping = g_map.serial;
    no_mirrors = hdr(Word::Mirror_List) == 0;
    const int32_t answers = read_record(record).answers;
    c = answers > 0 ? lru_lookup(answers, name) : 0;
    if (c > 1) r = copy_cached(c);
    search_again = c == 0 || (c == 1 && ignore_miss) ||
                   (c > 1 && (r == nullptr || (net_marker(r) && download > 0)));
    // The shared copy still holds this record when the previous search
    // fetched it and no reset has run since: a batch of names of one type
    // copies the search path once.
    const bool fetched = owner && record_at > 0 && g_fetched.mapping == g_map.serial &&
                         g_fetched.record == record_at && g_fetched.resets == record_resets;
    if (search_again && !fetched) {
      g_fetched = {};
      if (!fetch(type, rec)) return kNoFormat;
      if (owner && record_at > 0) g_fetched = {g_map.serial, record_at, record_resets};
    }
  }
  trace("INFO: file Type path got.", "");
  if (!search_again) {
    if (c == 1) return nullptr;
    if (net_marker(r)) return download == 0 ? r : nullptr;
    return r;
  }

  char candidate[kCandidateBuf];
  const size_t name_len = std::strlen(name);
  for (;;) {
    r = nullptr;
    if (rec.path.empty()) {
      message("There is no path for file type: ", type);
    } else if (name_len >= sizeof candidate) {
      // A name the candidate buffer cannot hold is not searched: cutting it
      // would look for a different file.
      message("WARNING: name too long, not searched: ", name);
    } else {
      std::memcpy(candidate, name, name_len + 1);
      if (rec.has_suffixes && std::strchr(name, '.') == nullptr) {
        for_each_suffix(rec.suffixes.c_str(), [&](const char *suffix, size_t len) {
          if (name_len + len >= sizeof candidate) return true;
          std::memcpy(candidate + name_len, suffix, len);
          candidate[name_len + len] = '\0';
          trace("Search File: ", candidate);
          r = search_elements(rec.path, candidate, g_buf);
          return r == nullptr;
        });
      } else if (ProgName[0] == '[') {
        trace("Search Definition: ", candidate);
        r = definition(rec.path, candidate, g_buf);
        break;  // a definition is answered as it stands
      } else {
        trace("Search File: ", candidate);
        r = search_elements(rec.path, candidate, g_buf);
      }
      if (r != nullptr && r[0] != ':' && strcasecmp(type, "Program") == 0) r = find_AppBundle(r);
    }

    if (net_marker(r)) {
      if (download >= -1 && !reads.failed()) {
        CacheGuard guard;
        const FormatWords w = read_record(current_record());
        if (w.answers != 0) {
          const int32_t c = lru_lookup(w.answers, name);
          const char *cached = c > 1 ? text_at(c) : nullptr;
          if (cached == nullptr || strcasecmp(cached, r) != 0) {
            const int text = stradd(r);
            if (text > 0) lru_insert(w.answers, name, text);
          }
        }
      }
      if (download > 0) {
        auto_download(r);
        download = -2;
        g_fetched = {};
        if (!refetch(type, rec)) return kNoFormat;
        continue;
      }
      if (download < 0) {
        if (download < -1) message("ERROR: Can't download ", r);
        trace("File: ", "NONE");
        return nullptr;
      }
    }

    if (r != nullptr && !no_mirrors) Process_Mirror(r);
    if (may_make && r == nullptr && !rec.make.empty()) {
      auto_make(rec.make.c_str(), name, to_window);
      may_make = false;
      g_fetched = {};
      if (!refetch(type, rec)) return kNoFormat;
      continue;
    }
    break;
  }

  if (!reads.failed()) {
    CacheGuard guard;
    const FormatWords w = read_record(current_record());
    if (w.answers != 0) {
      const int32_t c = lru_lookup(w.answers, name);
      if (c > 1) {
        if (char *cached = copy_cached(c)) return cached;  // another answer won
      } else if (r != nullptr) {
        const int text = stradd(r);
        if (text > 0) lru_insert(w.answers, name, text);
      } else if (c == 0) {
        lru_insert(w.answers, name, 1);
      }
    }
  }
  trace("File: ", r != nullptr ? r : "NONE");
  return r;
}

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" {

char *_QDMSearch(const char *type, const char *name, int origin) {
  if (type == nullptr || name == nullptr) return nullptr;
  try {
    return search(type, name, origin);
  } catch (...) {  // out of memory copying a record: not found
    return nullptr;
  }
}

char *QDMSearch(const char *type, const char *name) { return _QDMSearch(type, name, 0); }

char *search_definition(int list, const char *name, char *buf) {
  if (name == nullptr || buf == nullptr) return nullptr;
  try {
    return definition(copy_list(list), name, buf);
  } catch (...) {
    return nullptr;
  }
}

}  // extern "C"
