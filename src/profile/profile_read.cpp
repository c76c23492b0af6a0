// Profile reads: values, key and section listings, and reads through a list of files.
#include <climits>
#include <cstring>

#include "core/containers.h"
#include "profile/ini_store.h"
#include "profile/profile_text.h"
#include "trovalis.h"

namespace trv {

namespace {

// Both bytes that mark "no list" when the file or the section is missing.
int no_list(char *buf, int size) {
  if (buf != nullptr && size > 0) buf[0] = '\0';
  if (buf != nullptr && size > 1) buf[1] = '\0';
  return 0;
}

// The default is cut to the buffer; callers give buffers that hold it, and
// one that does not must still not be overrun.
int copy_default(const char *def, char *buf, int size) {
  if (buf == nullptr || size <= 0) return 0;
  if (def == nullptr) def = "";
  size_t n = std::strlen(def);
  if (n > static_cast<size_t>(size) - 1) n = static_cast<size_t>(size) - 1;
  std::memcpy(buf, def, n);
  buf[n] = '\0';
  return static_cast<int>(n);
}

// Appends `n` bytes and a NUL when they leave room for at least one more
// NUL beyond; false, with nothing appended, when they do not.
bool append_entry(char *buf, int size, int *used, const char *entry, int64_t n) {
  if (static_cast<int64_t>(size) - *used <= n + 2) return false;
  std::memcpy(buf + *used, entry, static_cast<size_t>(n));
  *used += static_cast<int>(n);
  buf[(*used)++] = '\0';
  return true;
}

// Each name runs from after its '[' to the next ']' in the text, across line
// ends if need be (the suffix's "[]" bounds it). The result counts the
// closing NUL.
int list_sections(const INIF *f, char *buf, int size) {
  if (buf == nullptr || size <= 0) return 0;
  const char *t = INIF_text(f);
  const int32_t limit = f->Size + kSuffixBytes - 1;
  int used = 0;
  for (int32_t i = 0; i < f->Sections; ++i) {
    const int32_t name = static_cast<int32_t>(f->BodyIndex[i] - f->Body) + 1;
    const void *close = std::memchr(t + name, ']', static_cast<size_t>(limit - name));
    const int64_t n = close ? static_cast<const char *>(close) - (t + name) : 0;
    if (!append_entry(buf, size, &used, t + name, n)) break;
  }
  buf[used] = '\0';
  return used + 1;
}

// Keys of the section at `head_pos`, or whole lines; comment lines are
// skipped either way. The result does not count the closing NUL. In
// whole-line mode the empty line that the suffix makes after a text ending
// in LF is listed like any other empty line of the last section.
int list_keys(const INIF *f, int32_t head_pos, char *buf, int size, bool whole_lines) {
  if (buf == nullptr || size <= 0) return 0;
  const char *t = INIF_text(f);
  int used = 0;
  for (int32_t line = next_line(f, head_pos); line <= f->Size && t[line] != '[';
       line = next_line(f, line)) {
    if (t[line] == ';') continue;
    int32_t e = line;
    while (!is_control(t[e]) && (whole_lines || t[e] != '=')) ++e;
    if (!whole_lines && t[e] != '=') continue;
    if (!append_entry(buf, size, &used, t + line, e - line)) break;
  }
  buf[used] = '\0';
  return used;
}

int copy_value(const INIF *f, int32_t value, char *buf, int size) {
  if (buf == nullptr || size <= 0) return 0;
  const char *t = INIF_text(f);
  const int32_t limit = f->Size + kSuffixBytes - 1;
  const void *lf = std::memchr(t + value, '\n', static_cast<size_t>(limit - value));
  int64_t n = lf ? static_cast<const char *>(lf) - (t + value) : 0;
  if (n >= size) n = size - 1;
  std::memcpy(buf, t + value, static_cast<size_t>(n));
  buf[n] = '\0';
  if (n > 0 && buf[n - 1] == '\r') buf[--n] = '\0';
  return static_cast<int>(n);
}

}  // namespace

// GetPrivateProfileString with the listing mode as an argument: whole-line
// listing is asked for only by GetPrivateProfileSection, so no process-wide
// flag has to be set around the call.
static int read_profile(const char *section, const char *key, const char *def, char *buf, int size,
                 char *file, bool whole_lines) {
  const INIF *f = find_INIF(file, false);
  if (f == nullptr) {
    if (section == nullptr || key == nullptr) return no_list(buf, size);
    return copy_default(def, buf, size);
  }
  if (section == nullptr) return list_sections(f, buf, size);

  Head head;
  const int32_t pos = build_head(section, &head) ? find_section(f, head) : -1;
  if (pos < 0) {
    if (key == nullptr) return no_list(buf, size);
    return copy_default(def, buf, size);
  }
  if (key == nullptr) return list_keys(f, pos, buf, size, whole_lines);

  const KeyWalk w = find_key(f, pos, key);
  if (w.line < 0) return copy_default(def, buf, size);
  return copy_value(f, w.value, buf, size);
}

}  // namespace trv

using trv::read_profile;

extern "C" {

int GetPrivateProfileString(const char *section, const char *key, const char *default_value,
                            char *buffer, int size, char *file) {
  return read_profile(section, key, default_value, buffer, size, file, false);
}

int GetPrivateProfileSection(const char *section, char *buffer, int size, char *file) {
  if (buffer != nullptr && size > 0) buffer[0] = '\0';
  if (buffer != nullptr && size > 1) buffer[1] = '\0';
  return read_profile(section, nullptr, "", buffer, size, file, true);
}

int GetPrivateProfileSectionNames(char *buffer, int size, char *file) {
  return read_profile(nullptr, nullptr, nullptr, buffer, size, file, false);
}

int GetProfileString(const char *section, const char *key, const char *default_value,
                     char *buffer, int size) {
  char win[] = "WIN.INI";
  return read_profile(section, key, default_value, buffer, size, win, false);
}

int GetProfileStringEx(int list, const char *section, const char *key, char *buffer, int size) {
  if (buffer == nullptr || size <= 0) return 0;
  buffer[0] = '\0';
  int found = 0;
  trv::walk_chain(list, [&](int32_t entry) {
    const char *name = trv::entry_key(entry);
    // The name is copied out of the shared region: rewriting its separators
    // there would change shared data without the cache lock.
    char copy[PATH_MAX];
    const size_t n = strnlen(name, sizeof copy);
    if (n == sizeof copy) {
      message(trv::kCantOpenMessage, name);
      return true;
    }
    std::memcpy(copy, name, n + 1);
    read_profile(section, key, "", buffer, size, copy, false);
    if (buffer[0] != '\0') {
      found = 1;
      return false;
    }
    return true;
  });
  return found;
}

}  // extern "C"
