// Profile writes: inserting, replacing and deleting key lines, appending sections, saving.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "profile/ini_store.h"
#include "profile/profile_text.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr char kCantAddSection[] = "ERROR: Can't add section: ";

bool empty(const char *s) { return s == nullptr || *s == '\0'; }

// Appends "[section]" LF right after the last byte of the text and returns
// the new head's position. A text without a final LF takes the head into its
// last line, where it is no head: the append is then taken back, so that a
// later save cannot write it, and -1 is returned.
int32_t add_section(INIF *f, const char *section, const Head &head) {
  char line[kHeadBytes + 1];
  std::memcpy(line, head.text, static_cast<size_t>(head.len));
  line[head.len] = '\n';
  const int32_t old_size = f->Size;
  if (!splice_Body(f, f->Size, 0, line, head.len + 1)) return -1;
  const int32_t pos = find_section(f, head);
  if (pos < 0) {
    splice_Body(f, old_size, f->Size - old_size, nullptr, 0);  // shrinks: cannot fail
    message(kCantAddSection, section);
  }
  return pos;
}

// The key line's LF may be the suffix's, when the file has no final LF; the
// line is then removed together with the LF before it, which leaves the text
// again without a final LF.
bool delete_line(INIF *f, int32_t line) {
  const int32_t end = next_line(f, line);
  if (end <= f->Size) return splice_Body(f, line, end - line, nullptr, 0);
  return splice_Body(f, line - 1, f->Size - (line - 1), nullptr, 0);
}

// A CR before the LF stays with the line ending.
bool replace_value(INIF *f, int32_t value, const char *text) {
  int32_t end = next_line(f, value) - 1;
  if (end > f->Size) end = f->Size;
  if (end > value && INIF_text(f)[end - 1] == '\r') --end;
  return splice_Body(f, value, end - value, text, static_cast<int32_t>(std::strlen(text)));
}

// Inserts key=value LF after the section's last non-blank line: from the
// line that ended the walk, step back over LF LF and LF CR LF.
bool insert_line(INIF *f, int32_t end, const char *key, const char *value) {
  const char *t = INIF_text(f);
  int32_t p = end;
  for (;;) {
    if (p >= 2 && t[p - 1] == '\n' && t[p - 2] == '\n') {
      p -= 1;
    } else if (p >= 3 && t[p - 1] == '\n' && t[p - 2] == '\r' && t[p - 3] == '\n') {
      p -= 2;
    } else {
      break;
    }
  }

  const size_t k = std::strlen(key), v = std::strlen(value);
  if (k + v + 3 > static_cast<size_t>(INT32_MAX)) {
    message(kNoBodyMessage, f->Name);
    return false;
  }
  // LF key=value LF: the leading LF is used only at the end of a text
  // without a final LF, where the line goes after the suffix's LF.
  char *line = static_cast<char *>(std::malloc(k + v + 3));
  if (line == nullptr) {
    message(kNoBodyMessage, f->Name);
    return false;
  }
  line[0] = '\n';
  std::memcpy(line + 1, key, k);
  line[k + 1] = '=';
  std::memcpy(line + k + 2, value, v);
  line[k + v + 2] = '\n';
  const int32_t n = static_cast<int32_t>(k + v + 2);
  const bool ok = p <= f->Size ? splice_Body(f, p, 0, line + 1, n)
                               : splice_Body(f, f->Size, 0, line, n);
  std::free(line);
  return ok;
}

int write_profile(const char *section, const char *key, const char *value, char *file) {
  INIF *f = find_INIF(file, true);
  if (f == nullptr || empty(section)) return 0;

  Head head;
  const bool head_fits = build_head(section, &head);
  int32_t pos = head_fits ? find_section(f, head) : -1;
  if (pos < 0) {
    if (empty(value) || empty(key)) return 0;
    if (!head_fits) {
      // A name too long to look up could never be found again once added.
      message(kCantAddSection, section);
      return 0;
    }
    pos = add_section(f, section, head);
    if (pos < 0) return 0;
  }
  if (empty(key)) return 0;

  const KeyWalk w = find_key(f, pos, key);
  bool changed;
  if (w.line >= 0) {
    changed = value == nullptr ? delete_line(f, w.line) : replace_value(f, w.value, value);
  } else {
    if (empty(value)) return 0;
    changed = insert_line(f, w.end, key, value);
  }
  if (!changed) return 0;
  save_INIF(f);
  return 1;
}

}  // namespace

}  // namespace trv

extern "C" {

int WritePrivateProfileString(const char *section, const char *key, const char *value,
                              char *file) {
  return trv::write_profile(section, key, value, file);
}

int WriteProfileString(const char *section, const char *key, const char *value) {
  char win[] = "WIN.INI";
  return trv::write_profile(section, key, value, win);
}

}  // extern "C"
