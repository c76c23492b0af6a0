// Scanning the INI text format of a file copy: section heads, lines and key lines.
#include "profile/profile_text.h"

#include <cstring>

namespace trv {

namespace {

// Last position that scans may read: the suffix's NUL. Nothing a caller
// looks for is a NUL, so every comparison stops there at the latest.
int32_t scan_limit(const INIF *f) { return f->Size + kSuffixBytes - 1; }

// True when the `n` bytes at text position `pos` equal `s`, letters folded.
bool matches_at(const INIF *f, int32_t pos, const char *s, size_t n) {
  if (static_cast<int64_t>(pos) + static_cast<int64_t>(n) > scan_limit(f)) return false;
  const char *t = INIF_text(f) + pos;
  for (size_t i = 0; i < n; ++i)
    if (ascii_lower(t[i]) != ascii_lower(s[i])) return false;
  return true;
}

}  // namespace

int ascii_casecmp(const char *a, const char *b) {
  for (;; ++a, ++b) {
    const unsigned char x = static_cast<unsigned char>(ascii_lower(*a));
    const unsigned char y = static_cast<unsigned char>(ascii_lower(*b));
    if (x != y || x == 0) return x - y;
  }
}

bool build_head(const char *section, Head *head) {
  if (section == nullptr) return false;
  const size_t n = std::strlen(section);
  if (n + 3 > sizeof head->text) return false;
  head->text[0] = '[';
  std::memcpy(head->text + 1, section, n);
  head->text[n + 1] = ']';
  head->text[n + 2] = '\0';
  head->len = static_cast<int32_t>(n + 2);
  return true;
}

int32_t find_section(const INIF *f, const Head &head) {
  for (int32_t i = 0; i < f->Sections; ++i) {
    const int32_t pos = static_cast<int32_t>(f->BodyIndex[i] - f->Body);
    if (matches_at(f, pos, head.text, static_cast<size_t>(head.len))) return pos;
  }
  return -1;
}

int32_t next_line(const INIF *f, int32_t pos) {
  const int32_t limit = scan_limit(f);
  if (pos >= limit) return f->Size + 1;
  const char *t = INIF_text(f);
  const void *lf = std::memchr(t + pos, '\n', static_cast<size_t>(limit - pos));
  if (lf == nullptr) return f->Size + 1;
  return static_cast<int32_t>(static_cast<const char *>(lf) - t) + 1;
}

KeyWalk find_key(const INIF *f, int32_t head_pos, const char *key) {
  const char *t = INIF_text(f);
  const size_t n = std::strlen(key);
  KeyWalk w;
  // The suffix's "[]" at Size + 1 ends the walk at the latest.
  for (int32_t line = next_line(f, head_pos);; line = next_line(f, line)) {
    if (line > f->Size + 1) line = f->Size + 1;
    if (t[line] == '[') {
      w.end = line;
      return w;
    }
    if (matches_at(f, line, key, n) && t[line + static_cast<int32_t>(n)] == '=') {
      w.line = line;
      w.value = line + static_cast<int32_t>(n) + 1;
      return w;
    }
  }
}

}  // namespace trv
