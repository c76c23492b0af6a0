// Database lookup: whether a loaded ls-R covers a path element, the "//"
// matching of database directories against elements, and db_search.
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "core/containers.h"
#include "core/failed_reads.h"
#include "core/lock.h"
#include "core/region.h"
#include "db/db.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr int kCandidates = 64;
// Attempts at placing the text after a "//" that one match may make. An
// element with several "//" against a deep path could otherwise cost time
// exponential in their number; real elements stay far below this.
constexpr long kMatchBudget = 100000;

bool is_sep(char c) { return c == '/' || c == '\\'; }

// ASCII letters only, as strcasecmp in the C locale: the library's own fold
// rather than the locale's tolower, which costs a call per character.
char fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

bool same(char a, char b) {
  if (is_sep(a) && is_sep(b)) return true;
  return fold(a) == fold(b);
}

// Cases, for the path /t/fonts/tfm/public/cm/cmr10.tfm:
//   /t/fonts//          admits: "//" takes any run of directories
//   /t//cm/             admits: the text after "//" starts at a component
//   /T/FONTS/TFM/PUBLIC/CM  admits: case aside, the file is directly in it
//   /t/fonts/tfm/       refuses: the file is two directories further down
//   /t/fonts/vf//       refuses: the text before "//" differs
// and an element that opens with "//" admits nothing: the wildcard needs at
// least one character of the path matched before it.
int match_from(const char *path, const char *elt, long *budget) {
  const char *p = path, *e = elt;
  while (*p && *e) {
    if (same(*p, *e)) {
      ++p;
      ++e;
      continue;
    }
    if (is_sep(*e) && p > path && e > elt && is_sep(e[-1])) {
      while (is_sep(*e)) ++e;
      if (*e == '\0') return 1;
      for (const char *q = p; *q; ++q) {
        if (q > path && is_sep(q[-1]) && same(*q, *e)) {
          if (--*budget < 0) return 0;
          if (match_from(q, e, budget)) return 1;
        }
      }
      return 0;
    }
    return 0;
  }
  if (*e != '\0') return 0;
  if (is_sep(*p)) ++p;
  for (; *p; ++p)
    if (is_sep(*p)) return 0;
  return 1;
}

// Copies src into out[size]; false (out untouched beyond) when it does not fit.
bool append(char *out, size_t size, size_t *len, const char *src, size_t n) {
  if (*len + n >= size) return false;
  std::memcpy(out + *len, src, n);
  *len += n;
  out[*len] = '\0';
  return true;
}

bool covered(const char *element) {
  bool yes = false;
  walk_chain(hdr(Word::DB_Dirs), [&](int32_t e) {
    yes = elt_in_db(entry_key(e), element) != 0;
    return !yes;
  });
  return yes;
}

// The name and its aliases, in chain order, at most kCandidates in all.
// The texts point into the region, so they are used under the lock.
int candidates(const char *name, const char **out) {
  int n = 0;
  out[n++] = name;
  const int32_t aliases = hdr(Word::Alias_Hash);
  if (aliases <= 0) return n;
  walk_chain(hash_bucket_head(aliases, hash(aliases, name)), [&](int32_t e) {
    if (strcasecmp(entry_key(e), name) != 0) return true;
    if (const char *target = text_at(entry_value(e))) out[n++] = target;
    return n < kCandidates;
  });
  if (Trace_ALS) {
    // Cut to what the log line can carry; a partial last name is dropped.
    char text[256];
    size_t len = 0;
    text[0] = '\0';
    for (int i = 0; i < n; ++i) {
      const size_t before = len;
      if (!append(text, sizeof text, &len, out[i], std::strlen(out[i])) ||
          !append(text, sizeof text, &len, " ", 1)) {
        text[before] = '\0';
        break;
      }
    }
    message("Aliases: ", text);
  }
  return n;
}

}  // namespace

int elt_in_db(const char *root, const char *element) {
  if (root == nullptr || element == nullptr) return 0;
  if (root[0] == ':' && element[0] == ':') return 1;
  const char *r = root, *e = element;
  while (*r && *e && same(*r, *e)) {
    ++r;
    ++e;
  }
  return *r == '\0';
}

int match(const char *path, const char *element) {
  // A network path and a network element are compared after their roots:
  // the marker :*: stands for any package, so ":pkg:fonts/x" and
  // ":*:/fonts//" meet at "fonts".
  const char *p = path, *e = element;
  if (p[0] == ':' && e[0] == ':') {
    const char *pc = std::strchr(p + 1, ':'), *ec = std::strchr(e + 1, ':');
    if (pc && ec) {
      p = pc + 1;
      e = ec + 1;
      if (is_sep(*p)) ++p;
      if (is_sep(*e)) ++e;
    }
  }
  long budget = kMatchBudget;
  // "//" right after the network root counts as following matched text:
  // the root itself was matched.
  if (p != path && e != element && is_sep(e[0]) && is_sep(e[-1])) {
    while (is_sep(*e)) ++e;
    if (*e == '\0') return 1;
    for (const char *q = p; *q; ++q)
      if ((q == p || is_sep(q[-1])) && same(*q, *e) && match_from(q, e, &budget)) return 1;
    return 0;
  }
  return match_from(p, e, &budget);
}

}  // namespace trv

using namespace trv;

extern "C" char *db_search(const char *name, const char *element, char *out) {
  if (name == nullptr || element == nullptr || out == nullptr) return nullptr;
  // The tables are read under the lock: a reset in another process rolls
  // the arena back and rewrites them, and a walk must never follow records
  // half rebuilt. The lock is quiet because the caller may hold it already.
  QuietCacheGuard guard;
  if (!region_mapped()) return nullptr;
  const int32_t table = hdr(Word::DB_Hash);
  if (table <= 0) return nullptr;

  // A name with a directory part (latex/article.cls) searches its last
  // component in element/latex/.
  char used[4096 + 2 * kPathBuf];
  size_t len = 0;
  used[0] = '\0';
  const char *base = name;
  const char *slash = std::strrchr(name, '/');
  const size_t elen = std::strlen(element);
  if (slash != nullptr && slash != name) {
    if (!append(used, sizeof used, &len, element, elen) || !append(used, sizeof used, &len, "/", 1) ||
        !append(used, sizeof used, &len, name, static_cast<size_t>(slash - name)) ||
        !append(used, sizeof used, &len, "/", 1))
      return nullptr;
    base = slash + 1;
  } else {
    if (!append(used, sizeof used, &len, element, elen)) return nullptr;
    if (len == 0 || !is_sep(used[len - 1])) {
      if (!append(used, sizeof used, &len, "/", 1)) return nullptr;
    }
  }
  if (!covered(used)) return nullptr;

  const char *names[kCandidates];
  const int n = candidates(base, names);
  for (int i = 0; i < n; ++i) {
    const char *found = nullptr;
    const int32_t buckets = hash_bucket_count(table);
    if (buckets <= 0) break;
    const uint32_t bucket = fast_hash_index(names[i], static_cast<uint32_t>(buckets));
    walk_chain(hash_bucket_head(table, bucket), [&](int32_t e) {
      // The walk has checked that the key ends inside the region.
      const char *key = at(e + EntryLayout::kKey, 1);
      if (strcasecmp(key, names[i]) != 0) return true;
      const char *dir = text_at(entry_value(e));
      if (dir == nullptr) return true;
      // A path that would not fit the caller's buffer is passed over.
      const size_t dir_len = std::strlen(dir), key_len = std::strlen(key);
      if (dir_len + key_len >= static_cast<size_t>(kPathBuf)) return true;
      std::memcpy(out, dir, dir_len);
      std::memcpy(out + dir_len, key, key_len + 1);
      if (!match(out, used)) return true;
      if (out[0] != ':' && access(out, R_OK) != 0) {
        note_failed_read(out, errno);  // there but unreadable: not a miss to keep
        return true;
      }
      found = out;
      return false;
    });
    if (found != nullptr) return out;
  }
  out[0] = '\0';
  return out;
}
