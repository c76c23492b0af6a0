// The search for one file name along a search path: databases first, the
// disk where no database covers an element, and link files beside programs.
#include "search/dirsearch.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/containers.h"
#include "core/failed_reads.h"
#include "core/lock.h"
#include "core/message.h"
#include "core/region.h"
#include "core/validate.h"
#include "platform/platform.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr const char *kTooLong = "WARNING: path too long, not searched: ";

using Visited = std::set<std::pair<dev_t, ino_t>>;

// A directory a walk visited, and what stat said of it.
struct Visit {
  std::string path;
  platform::DirState state;
};

struct Walk {
  const char *name;
  size_t name_len;
  Visited visited;
  bool told_too_long = false;
  // The directories visited, in order, while the walk may be remembered;
  // `whole` goes false when it skipped anything (a path too long, a
  // directory it could not read, the depth limit).
  std::vector<Visit> *visits = nullptr;
  bool whole = true;
};

// The last walks of this process that found nothing, by tree. A name not
// cached is usually asked along several trees, and a tree without ls-R is
// walked for each: a batch of 1,000 names reads the same directories 1,000
// times. A remembered walk visits its directories again in the same order
// with one stat each, looking for the name as the walk would; a directory
// whose stat changed (an entry added or removed, its mode, what the path
// leads to) or that is gone sends the search back to a real walk, which is
// remembered in its place. Only walks of at most kMemoDirs directories are
// kept, and kMemoTrees of them.
constexpr size_t kMemoDirs = 512, kMemoTrees = 8;
struct Memo {
  std::string root;
  std::vector<Visit> visits;
};
std::vector<Memo> g_memos;

// One line per walk: a deep tree can hold many over-long names, and the
// shared log keeps only the last 1024 lines of every process.
void too_long(Walk &w, const char *dir) {
  w.whole = false;
  if (w.told_too_long) return;
  w.told_too_long = true;
  message(kTooLong, dir);
}

DIR *open_dir(const char *dir) {
  DIR *d;
  do {
    d = opendir(dir);
  } while (d == nullptr && errno == EINTR);
  return d;
}

// d_type spares a stat for the entries that cannot be directories; links
// and entries of unknown type are looked at with stat, which follows links.
bool maybe_dir(const dirent *ent) {
#ifdef DT_UNKNOWN
  return ent->d_type == DT_DIR || ent->d_type == DT_LNK || ent->d_type == DT_UNKNOWN;
#else
  (void)ent;
  return true;
#endif
}

// `st` is dir's stat, taken by the caller.
char *walk(char *dir, const struct stat &st, Walk &w, int depth) {
  // A directory reached a second time (through a symbolic link) was
  // searched in full the first time, so a cycle ends here.
  if (!w.visited.emplace(st.st_dev, st.st_ino).second) return nullptr;
  if (depth > kMaxDepth) {
    w.whole = false;
    return nullptr;
  }
  if (w.visits != nullptr) {
    if (w.visits->size() < kMemoDirs) w.visits->push_back({dir, platform::dir_state(st)});
    else w.whole = false;
  }

  const size_t n = std::strlen(dir);
  if (n + 1 + w.name_len < static_cast<size_t>(kSearchBuf)) {
    dir[n] = '/';
    std::memcpy(dir + n + 1, w.name, w.name_len + 1);
    if (access(dir, R_OK) == 0) {
      if (Trace) message("OK: ", dir);
      return dir;
    }
    note_failed_read(dir, errno);
    dir[n] = '\0';
  } else {
    too_long(w, dir);
  }

  if (Trace) message("Scan: ", dir);
  DIR *d = open_dir(dir);
  if (d == nullptr) {
    const int err = errno;
    w.whole = false;
    message("ERROR: Can't opendir: ", dir);
    note_failed_read(dir, err);
    return nullptr;
  }
  char *found = nullptr;
  while (const dirent *ent = readdir(d)) {
    if (std::strcmp(ent->d_name, ".") == 0 || std::strcmp(ent->d_name, "..") == 0) continue;
    if (!maybe_dir(ent)) continue;
    const size_t len = std::strlen(ent->d_name);
    if (n + 1 + len >= static_cast<size_t>(kSearchBuf)) {
      too_long(w, dir);
      continue;
    }
    dir[n] = '/';
    std::memcpy(dir + n + 1, ent->d_name, len + 1);
    struct stat sub;
    if (stat(dir, &sub) != 0) {
      const int err = errno;
      w.whole = false;
      message("ERROR: Can't access directory: ", dir);
      note_failed_read(dir, err);
      continue;
    }
    if (!S_ISDIR(sub.st_mode)) continue;
    found = walk(dir, sub, w, depth + 1);
    if (found != nullptr) break;
  }
  if (found == nullptr) dir[n] = '\0';
  closedir(d);
  return found;
}

char *recurse(char *dir, const char *name) {
  struct stat st;
  if (stat(dir, &st) != 0) {
    const int err = errno;
    message("WARNING: absent directory: ", dir);
    note_failed_read(dir, err);
    return nullptr;
  }
  if (!S_ISDIR(st.st_mode)) {
    message("WARNING: is not a directory: ", dir);
    return nullptr;
  }
  // Trace lines tell what a real walk reads, so with tracing on every walk
  // is real.
  const size_t name_len = std::strlen(name);
  Memo *memo = nullptr;
  for (Memo &m : g_memos)
    if (m.root == dir) memo = &m;
  if (memo != nullptr && !Trace) {
    bool same = !memo->visits.empty() && memo->visits.front().state == platform::dir_state(st);
    for (size_t i = 0; same && i < memo->visits.size(); ++i) {
      const Visit &v = memo->visits[i];
      struct stat now;
      same = i == 0 || (stat(v.path.c_str(), &now) == 0 && platform::dir_state(now) == v.state);
      if (same && v.path.size() + 1 + name_len >= static_cast<size_t>(kSearchBuf)) same = false;
      if (!same) break;
      std::memcpy(dir, v.path.data(), v.path.size());
      dir[v.path.size()] = '/';
      std::memcpy(dir + v.path.size() + 1, name, name_len + 1);
      if (access(dir, R_OK) == 0) return dir;
      note_failed_read(dir, errno);
    }
    std::memcpy(dir, memo->visits.front().path.c_str(), memo->visits.front().path.size() + 1);
    if (same) return nullptr;
  }
  Walk w{name, name_len, {}};
  std::vector<Visit> visits;
  if (!Trace) w.visits = &visits;
  char *found = walk(dir, st, w, 0);
  if (found != nullptr || Trace) return found;
  // A directory whose entries changed within the last seconds may change
  // again within the same tick of the file system's clock, which its stat
  // would not show: such a walk is not remembered (the "racy" case).
  const time_t settled = time(nullptr) - 2;
  for (const Visit &v : visits)
    if (v.state.mtime_sec >= settled) w.whole = false;
  if (!w.whole) {
    if (memo != nullptr) memo->visits.clear();
    return nullptr;
  }
  if (memo == nullptr) {
    if (g_memos.size() >= kMemoTrees) g_memos.erase(g_memos.begin());
    g_memos.push_back({dir, {}});
    memo = &g_memos.back();
  }
  memo->visits = std::move(visits);
  return nullptr;
}

// The elements of a search path, copied out under the lock: the disk walk
// runs without it, and a reset in another process may meanwhile roll the
// arena back and rewrite the list.
std::vector<std::string> elements(int list) {
  std::vector<std::string> out;
  QuietCacheGuard guard;
  if (!region_mapped()) return out;
  const uint32_t damage = damage_seen();
  walk_chain(list, [&](int32_t e) {
    out.emplace_back(entry_key(e));
    return true;
  });
  // A damaged list is taken as empty rather than searched (see fetch in
  // request.cpp).
  if (damage_seen() != damage) out.clear();
  return out;
}

}  // namespace

std::vector<std::string> copy_list(int list) { return elements(list); }

char *search_elements(const std::vector<std::string> &list, const char *name, char *buf) {
  const size_t name_len = std::strlen(name);
  // An empty name would find each directory itself.
  if (name_len == 0) return nullptr;
  for (const std::string &element : list) {
    const char *text = element.c_str();
    if (std::strcmp(text, ".") == 0) continue;
    // "!!" only marks the element; it is searched like any other, the
    // databases first and the disk where none covers it.
    if (text[0] == '!' && text[1] == '!') text += 2;
    if (Trace) message("Check directory: ", text);

    const char *r = db_search(name, text, buf);
    if (r != nullptr && r[0] != '\0') {
      explain("Found in a database: ", buf);
      return buf;
    }
    if (r != nullptr) {
      explain("A database covers it and does not list the name: ", text);
      continue;
    }
    explain("No database covers it; looking on disk: ", text);

    const size_t n = std::strlen(text);
    if (n >= static_cast<size_t>(kSearchBuf)) {
      message(kTooLong, text);
      continue;
    }
    std::memcpy(buf, text, n + 1);
    if (Trace) message("Recursive search: ", buf);
    if (n == 0) continue;
    if (n > 3 && text[n - 1] == '/' && text[n - 2] == '/') {
      buf[n - 2] = '\0';
      if (recurse(buf, name) != nullptr) return buf;
      continue;
    }
    const size_t sep = text[n - 1] == '/' ? 0 : 1;
    if (n + sep + name_len >= static_cast<size_t>(kSearchBuf)) {
      message(kTooLong, text);
      continue;
    }
    if (sep) buf[n] = '/';
    std::memcpy(buf + n + sep, name, name_len + 1);
    if (access(buf, R_OK) == 0) return buf;
  }
  return nullptr;
}

}  // namespace trv

using namespace trv;

extern "C" {

char *search_file(int list, const char *name, char *buf) {
  if (name == nullptr || buf == nullptr) return nullptr;
  try {
    return search_elements(copy_list(list), name, buf);
  } catch (...) {  // out of memory copying the path: nothing found
    return nullptr;
  }
}

char *recurse_dir(char *dir, const char *name) {
  if (dir == nullptr || name == nullptr) return nullptr;
  try {
    return recurse(dir, name);
  } catch (...) {  // out of memory for the visited set
    return nullptr;
  }
}

char *find_AppBundle(char *path) {
  static char link[kSearchBuf];
  if (path == nullptr) return path;

  char lnk[kSearchBuf + 8];
  const int w = std::snprintf(lnk, sizeof lnk, "%s.lnk", path);
  if (w < 0 || static_cast<size_t>(w) >= sizeof lnk) return path;
  struct stat st;
  if (stat(lnk, &st) != 0) return path;
  std::FILE *f;
  do {
    f = std::fopen(lnk, "r");
  } while (f == nullptr && errno == EINTR);
  if (f == nullptr) {
    note_failed_read(lnk, errno);
    return path;
  }
  char text[kSearchBuf - 1];  // the first 258 characters of the first line
  if (std::fgets(text, sizeof text, f) == nullptr) text[0] = '\0';
  std::fclose(f);
  size_t tn = std::strlen(text);
  while (tn > 1 && static_cast<unsigned char>(text[tn - 1]) <= 32) text[--tn] = '\0';

  char target[kSearchBuf];
  std::snprintf(target, sizeof target, "%s", path);
  if (char *slash = std::strrchr(target, '/')) {
    *slash = '\0';
  } else {
    target[0] = '\0';
  }
  const char *rest = text;
  while (std::strncmp(rest, "../", 3) == 0) {
    char *slash = std::strrchr(target, '/');
    if (slash == nullptr) break;
    *slash = '\0';
    rest += 3;
  }
  // A target that does not fit cannot be followed: it is reported like a
  // missing one, with as much of it as fits.
  const int t = std::snprintf(link, sizeof link, "%s/%s", target, rest);
  if (t >= 0 && static_cast<size_t>(t) < sizeof link && stat(link, &st) == 0) return link;
  QDMMessage("WARNING: not present link file: ", link, 4);
  return path;
}

}  // extern "C"
