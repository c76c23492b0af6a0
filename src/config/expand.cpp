// Expansion of $NAME and ${NAME} references into a fixed-size buffer.
#include <cstdio>
#include <cstring>

#include "trovalis.h"

namespace trv {
namespace {

// Names are ASCII only: a byte above 127 ends a name whatever the locale.
bool name_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_';
}

bool same_name(const char *a, const char *b) {
  for (;; ++a, ++b) {
    char x = *a, y = *b;
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
    if (x == '\0') return true;
  }
}

// Appends `text` to the buffer as far as it fits; the buffer stays
// terminated, so a deep chain is cut rather than overrun.
void append_cut(char *buf, size_t size, size_t &used, const char *text) {
  const size_t n = std::strlen(text);
  const size_t fit = used + n < size ? n : size - 1 - used;
  std::memcpy(buf + used, text, fit);
  used += fit;
  buf[used] = '\0';
}

// True when `name` is already being expanded; logs the cycle, innermost
// reference first: A <- B <- A.
bool is_cycle(const char *name, const QDMVarRef *chain) {
  const QDMVarRef *hit = chain;
  while (hit != nullptr && !(hit->name != nullptr && same_name(hit->name, name))) hit = hit->next;
  if (hit == nullptr) return false;
  char text[256];
  size_t used = 0;
  text[0] = '\0';
  append_cut(text, sizeof text, used, name);
  for (const QDMVarRef *r = chain; r != nullptr; r = r->next) {
    append_cut(text, sizeof text, used, " <- ");
    append_cut(text, sizeof text, used, r->name ? r->name : "");
    if (r == hit) break;
  }
  message("ERROR: Variable Recursion: ", text);
  return true;
}

void missed_terminator(const char *text, const QDMVarRef *chain) {
  if (chain == nullptr) {
    message("ERROR: Missed variable terminator ('}') in string: ", text);
    return;
  }
  const char *owner = chain->name ? chain->name : "";
  message("ERROR: Missed variable terminator ('}') in definition of: ", owner);
  char prefix[256];
  // A name too long for the line is cut: the log line is cut shorter still.
  std::snprintf(prefix, sizeof prefix, "ERROR: %s=", owner);
  message(prefix, text);
}

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" int var_expand(char *text, char *out, int capacity, QDMVarRef *chain) {
  if (out == nullptr || capacity < 1) return capacity;
  int remaining = capacity;
  out[0] = '\0';
  if (text == nullptr) return remaining;

  char *p = text;
  while (*p != '\0') {
    char *dollar = std::strchr(p, '$');
    if (dollar == nullptr) dollar = p + std::strlen(p);
    const size_t n = static_cast<size_t>(dollar - p);
    if (n > 0) {
      if (n >= static_cast<size_t>(remaining)) {
        message("Truncated expansion of: ", p);
        std::memcpy(out, p, static_cast<size_t>(remaining) - 1);
        out[remaining - 1] = '\0';
        return 1;
      }
      std::memcpy(out, p, n);
      out += n;
      *out = '\0';
      remaining -= static_cast<int>(n);
      p = dollar;
    }
    if (*p == '\0') break;

    char *name, *end, *resume;
    if (p[1] == '{') {
      char *close = std::strchr(p + 2, '}');
      if (close == nullptr) {
        // The "${" is dropped and what follows is read as plain text, so
        // pre${A gives preA.
        missed_terminator(text, chain);
        p += 2;
        continue;
      }
      name = p + 2;
      end = close;
      resume = close + 1;
    } else if (name_char(p[1])) {
      name = p + 1;
      end = name;
      while (name_char(*end)) ++end;
      resume = end;
    } else {
      message("ERROR: Bad variable expression: ", p);
      if (remaining >= 2) {
        *out++ = '$';
        *out = '\0';
        --remaining;
      }
      ++p;
      continue;
    }

    // The name is cut out in place (the text may be a value cached in the
    // region) and the cut character put back on every way out.
    const char saved = *end;
    *end = '\0';
    if (is_cycle(name, chain)) {
      *end = saved;
      return remaining;
    }
    if (char *value = cnf_get(name)) {
      QDMVarRef ref{chain, name};
      const int left = var_expand(value, out, remaining, &ref);
      out += remaining - left;
      remaining = left;
    }
    *end = saved;
    p = resume;
  }
  return remaining;
}
