// Alias files: the plain "aliases" list and the "aliases.ini" profile, read
// into the alias table (requested name to the name to try instead).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/failed_reads.h"
#include "db/db.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr const char *kLoadAlias = "Load File Alias Data Base: ";
constexpr int kKeyList = 64000;
// Values are read as 127 characters at most; the names built from keys and
// values get room for a suffix beyond that. A key too long for its buffer
// cannot be a file name and is skipped rather than cut into another name.
constexpr int kValue = 128;
constexpr int kName = 512;

bool blank(char c) { return c == ' ' || c == '\t'; }

void enter(int table, const char *alias, const char *target) {
  const int copy = stradd(target);
  if (copy > 0) hash_insert(table, alias, copy);
}

// key + suffix -> value + suffix, both only when they fit.
void enter_suffixed(int table, const char *key, const char *value, const char *suffix) {
  char from[kName], to[kName];
  const int a = std::snprintf(from, sizeof from, "%s%s", key, suffix);
  const int b = std::snprintf(to, sizeof to, "%s%s", value, suffix);
  if (a < 0 || a >= kName || b < 0 || b >= kName) return;
  enter(table, from, to);
}

// Calls visit(key, value) for each key of the section, in file order.
template <class F>
void each_key(const char *section, char *file, char *keys, F &&visit) {
  keys[0] = keys[1] = '\0';
  GetPrivateProfileString(section, nullptr, "", keys, kKeyList, file);
  char value[kValue];
  for (const char *k = keys; *k; k += std::strlen(k) + 1) {
    GetPrivateProfileString(section, k, "", value, sizeof value, file);
    visit(k, value);
  }
}

}  // namespace

int alias_build(int table, const char *file) {
  std::FILE *f;
  do {
    f = std::fopen(file, "r");
  } while (f == nullptr && errno == EINTR);
  if (f == nullptr) {
    note_failed_read(file, errno);
    return 0;
  }
  if (Trace_Load) message(kLoadAlias, file);

  PieceReader reader(f);
  char line[PieceReader::kPiece + 1];
  for (int got; (got = reader.next(line)) >= 0;) {
    // Both CR and LF go: a file written with CR LF ends would otherwise
    // keep a CR in every alias, and no request would ever match one.
    strip_controls(line, got, 2);
    if (line[0] == '\0' || line[0] == '%' || line[0] == '#') continue;
    char *target = line;
    while (blank(*target)) ++target;
    char *end = target;
    while (*end && !blank(*end)) ++end;
    if (end == target || *end == '\0') continue;
    *end = '\0';
    char *alias = end + 1;
    while (blank(*alias)) ++alias;
    if (*alias == '\0') continue;
    enter(table, alias, target);
  }
  if (std::ferror(f)) note_failed_read(file, EIO);
  std::fclose(f);
  return 1;
}

int alias_ini_build(int table, const char *file) {
  char *keys = static_cast<char *>(std::malloc(kKeyList));
  if (Trace_Load) message(kLoadAlias, file);
  if (keys == nullptr) return 1;
  // The profile reader may rewrite "\" in the name it is given.
  char name[4096];
  std::snprintf(name, sizeof name, "%s", file);

  each_key("TeXFonts", name, keys, [&](const char *k, const char *v) {
    enter_suffixed(table, k, v, ".tfm");
    enter_suffixed(table, k, v, ".vf");
  });
  each_key("Truncated", name, keys, [&](const char *k, const char *v) { enter(table, v, k); });
  each_key("Aliases", name, keys, [&](const char *k, const char *v) { enter(table, k, v); });
  std::free(keys);
  return 1;
}

}  // namespace trv
