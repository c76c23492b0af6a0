// Search path splitting: {a,b} alternatives, string arrays, directory checks.
#include "config/braces.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/failed_reads.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr char kQuotes[] = "\"'`";

// Each list multiplies the alternatives of a piece: fifty {a,b} in one value
// would make 2^50 of them and hold the process for ever. No real path has a
// thousand directories in one piece, so a piece that would have more is
// taken as it stands (and is then dropped as an absent directory).
constexpr size_t kMaxAlternatives = 1024;
constexpr const char *kTooMany = "ERROR: More than 1024 alternatives in: ";

bool brace_whitespace(char c) { return c == ' ' || c == '\t' || c == '\n'; }

char *copy_chars(const char *text, size_t n) {
  char *s = static_cast<char *>(std::malloc(n + 1));
  if (s == nullptr) return nullptr;
  std::memcpy(s, text, n);
  s[n] = '\0';
  return s;
}

// An array of `count` null pointers plus the terminator, so that a
// partially filled array can always be released with free_array.
char **new_array(size_t count) {
  return static_cast<char **>(std::calloc(count + 1, sizeof(char *)));
}

char **singleton(const char *text, size_t n) {
  char **a = new_array(1);
  if (a == nullptr) return nullptr;
  a[0] = copy_chars(text, n);
  if (a[0] == nullptr) {
    std::free(a);
    return nullptr;
  }
  return a;
}

// Kept out of brace_expand so that its line buffer is not part of every
// frame of the recursion over a long path.
__attribute__((noinline)) void report_too_many(const char *text) { message(kTooMany, text); }

__attribute__((noinline)) void report_unmatched(const char *text) {
  char line[256];
  std::snprintf(line, sizeof line, "%s: Unmatched {", text);
  message(line, "");
}

// Moves the strings of `tail` behind those of `head`; both arrays are
// consumed. Unlike array_concat this joins alternatives, it does not
// combine them.
char **append_array(char **head, char **tail) {
  const size_t h = static_cast<size_t>(array_len(head));
  const size_t t = static_cast<size_t>(array_len(tail));
  char **joined = static_cast<char **>(std::realloc(head, (h + t + 1) * sizeof(char *)));
  if (joined == nullptr) {
    free_array(head);
    free_array(tail);
    return nullptr;
  }
  std::memcpy(joined + h, tail, t * sizeof(char *));
  joined[h + t] = nullptr;
  std::free(tail);
  return joined;
}

// The accepted directories of one path, grown as needed. Paths longer than
// 64 directories are rare but legitimate (a tree list in a variable), and
// dropping the excess would hide files without a word, so the list grows
// rather than stopping at 64.
struct DirList {
  char **items = nullptr;
  size_t count = 0, room = 0;

  bool push(char *dir) {
    if (count + 1 >= room) {
      const size_t more = room == 0 ? 16 : room * 2;
      char **grown = static_cast<char **>(std::realloc(items, more * sizeof(char *)));
      if (grown == nullptr) return false;
      items = grown;
      room = more;
    }
    items[count++] = dir;
    items[count] = nullptr;
    return true;
  }
};

// Brace-expands one ";"-separated piece and keeps what OKDir accepts. Each
// string is either moved into the list or freed here.
bool add_piece(DirList &list, const char *piece) {
  char **all = brace_expand(piece);
  if (all == nullptr) return false;
  bool ok = true;
  for (char **d = all; *d != nullptr; ++d) {
    if (ok && OKDir(*d)) {
      if (list.push(*d)) continue;
      ok = false;
    }
    std::free(*d);
  }
  std::free(all);
  return ok;
}

}  // namespace

int array_len(char **array) {
  int n = 0;
  if (array != nullptr)
    while (array[n] != nullptr) ++n;
  return n;
}

void free_array(char **array) {
  if (array == nullptr) return;
  for (char **p = array; *p != nullptr; ++p) std::free(*p);
  std::free(array);
}

char **copy_array(char **array) {
  if (array == nullptr) return nullptr;
  const size_t n = static_cast<size_t>(array_len(array));
  char **copy = new_array(n);
  if (copy == nullptr) return nullptr;
  for (size_t i = 0; i < n; ++i) {
    copy[i] = copy_chars(array[i], std::strlen(array[i]));
    if (copy[i] == nullptr) {
      free_array(copy);
      return nullptr;
    }
  }
  return copy;
}

char **array_concat(char **first, char **second) {
  if (first == nullptr) return copy_array(second);
  if (second == nullptr) return first;  // what a copy would be, without the copy

  const size_t n1 = static_cast<size_t>(array_len(first));
  const size_t n2 = static_cast<size_t>(array_len(second));
  char **result = new_array(n1 * n2);
  if (result != nullptr) {
    size_t k = 0;
    for (size_t j = 0; j < n2; ++j) {
      const size_t lb = std::strlen(second[j]);
      for (size_t i = 0; i < n1; ++i, ++k) {
        const size_t la = std::strlen(first[i]);
        char *s = static_cast<char *>(std::malloc(la + lb + 1));
        if (s == nullptr) {
          free_array(result);
          result = nullptr;
          break;
        }
        std::memcpy(s, first[i], la);
        std::memcpy(s + la, second[j], lb + 1);
        result[k] = s;
      }
      if (result == nullptr) break;
    }
  }
  free_array(first);
  return result;
}

char brace_gobbler(const char *text, size_t *position, int wanted) {
  size_t i = *position;
  int level = 0;
  char quote = '\0';
  bool escaped = false;
  for (; text[i] != '\0'; ++i) {
    const char c = text[i];
    if (escaped) {
      escaped = false;
      continue;
    }
    // Single quotes keep backslashes literal, as in the shells this path
    // syntax comes from.
    if (c == '\\' && quote != '\'') {
      escaped = true;
      continue;
    }
    if (quote != '\0') {
      if (c == quote) quote = '\0';
      continue;
    }
    if (std::strchr(kQuotes, c) != nullptr) {
      quote = c;
      continue;
    }
    if (c == wanted && level == 0) {
      // A lone "{" standing between blanks, such as in "a { b } c" or "{}",
      // is plain text, not a list.
      if (c == '{' && (i == 0 || brace_whitespace(text[i - 1])) &&
          (brace_whitespace(text[i + 1]) || text[i + 1] == '\0' || text[i + 1] == '}'))
        continue;
      // "${" belongs to a variable reference; it still nests below, so the
      // "," and "}" inside it are no list syntax.
      if (!(c == '{' && i > 0 && text[i - 1] == '$')) break;
    }
    if (c == '{')
      ++level;
    else if (c == '}' && level > 0)
      --level;
  }
  *position = i;
  return text[i];
}

char **expand_amble(const char *amble) {
  char **result = nullptr;
  size_t start = 0;
  for (;;) {
    size_t i = start;
    const char c = brace_gobbler(amble, &i, ',');
    char *piece = copy_chars(amble + start, i - start);
    if (piece == nullptr) {
      free_array(result);
      return nullptr;
    }
    char **partial = brace_expand(piece);
    std::free(piece);
    if (partial == nullptr) {
      free_array(result);
      return nullptr;
    }
    result = result == nullptr ? partial : append_array(result, partial);
    if (result == nullptr) return nullptr;
    // A trailing "," leaves an empty last piece: x{y,} gives xy and x. Past
    // the limit the caller gives up, so the rest need not be made.
    if (c == '\0' || static_cast<size_t>(array_len(result)) > kMaxAlternatives) return result;
    start = i + 1;
  }
}

char **brace_expand(const char *text) {
  size_t i = 0;
  char c = brace_gobbler(text, &i, '{');
  char **result = singleton(text, i);
  if (result == nullptr || c == '\0') return result;

  const size_t start = ++i;
  c = brace_gobbler(text, &i, '}');
  if (c == '\0') {
    report_unmatched(text);
    free_array(result);
    return singleton(text, std::strlen(text));
  }

  char *amble = copy_chars(text + start, i - start);
  if (amble == nullptr) {
    free_array(result);
    return nullptr;
  }
  char **alternatives = expand_amble(amble);
  std::free(amble);
  if (alternatives == nullptr) {
    free_array(result);
    return nullptr;
  }
  char **rest = brace_expand(text + i + 1);
  if (rest == nullptr) {
    free_array(result);
    free_array(alternatives);
    return nullptr;
  }
  // The preamble is one string, so the product is the two counts'.
  if (static_cast<size_t>(array_len(alternatives)) * static_cast<size_t>(array_len(rest)) >
      kMaxAlternatives) {
    report_too_many(text);
    free_array(result);
    free_array(alternatives);
    free_array(rest);
    return singleton(text, std::strlen(text));
  }
  result = array_concat(result, alternatives);
  free_array(alternatives);
  if (result != nullptr) result = array_concat(result, rest);
  free_array(rest);
  return result;
}

}  // namespace trv

using namespace trv;

extern "C" {

int OKDir(const char *dir) {
  if (dir == nullptr) return 0;
  // "!!" is the directory search's business; the check is on what follows.
  if (dir[0] == '!' && dir[1] == '!') dir += 2;
  // A network root lives in the index, not on disk.
  if (dir[0] == ':') return 1;
  if (dir[0] == '.') {
    if (Trace) message("WARNING: pass relative directory: ", dir);
    return 0;
  }

  // "//" asks for the whole subtree; the directory itself is what must exist.
  const size_t n = std::strlen(dir);
  int ok = 0;
  if (n > 3 && dir[n - 1] == '/' && dir[n - 2] == '/') {
    char top[PATH_MAX];
    // A name too long for the buffer is too long for access() as well.
    if (n - 2 < sizeof top) {
      std::memcpy(top, dir, n - 2);
      top[n - 2] = '\0';
      ok = access(top, R_OK) == 0;
      if (!ok) note_failed_read(top, errno);
    }
  } else {
    ok = access(dir, R_OK) == 0;
    if (!ok) note_failed_read(dir, errno);
  }
  if (Trace) message(ok ? "Accept directory: " : "Pass absent directory: ", dir);
  return ok;
}

char **expand_braces(char *path) {
  if (path == nullptr) return new_array(0);
  DirList list;
  bool ok = true;
  // Quotes and escapes are left to brace_expand: here only the depth decides
  // whether a ";" separates directories.
  int depth = 0;
  char *piece = path;
  for (char *p = path; ok && *p != '\0'; ++p) {
    if (*p == '{') {
      ++depth;
    } else if (*p == '}') {
      --depth;
    } else if (*p == ';' && depth == 0) {
      *p = '\0';
      ok = add_piece(list, piece);
      piece = p + 1;
    }
  }
  if (ok) ok = add_piece(list, piece);
  if (ok && list.items == nullptr) {
    list.items = new_array(0);
    ok = list.items != nullptr;
  }
  if (!ok) {
    free_array(list.items);
    message("ERROR: Memory Allocation problem", "");
    return nullptr;
  }
  return list.items;
}

}  // extern "C"
