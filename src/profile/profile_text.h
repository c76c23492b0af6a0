// Scanning the INI text format of a file copy: section heads, lines and key lines.
#pragma once

#include <cstddef>
#include <cstdint>

#include "profile/ini_store.h"

namespace trv {

// Letter case is folded for ASCII only, whatever the host's locale: file
// names and keys must compare the same way in every process.
inline char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
int ascii_casecmp(const char *a, const char *b);

// "[" section "]" with its NUL. Section names in configurations are a few
// dozen bytes; a longer name cannot be built and is treated as not found.
inline constexpr size_t kHeadBytes = 256;
struct Head {
  char text[kHeadBytes];
  int32_t len;
};
// False when `section` is null or too long for the head buffer.
bool build_head(const char *section, Head *head);

// Position of the first section head that begins with `head` (case folded),
// or -1.
int32_t find_section(const INIF *f, const Head &head);

// Position of the line after the one that holds `pos`.
int32_t next_line(const INIF *f, int32_t pos);

// The walk over the lines of a section for a key line.
struct KeyWalk {
  int32_t line = -1;  // start of the first line "key=...", or -1
  int32_t value = -1; // position after its '='
  int32_t end = -1;   // start of the line that ended the walk ('[' or the suffix)
};
// Walks the lines after the head line at `head_pos` up to the next line that
// begins with '['; the first key line of `key` ends the walk early.
KeyWalk find_key(const INIF *f, int32_t head_pos, const char *key);

// True when the byte ends a listed entry: 0 to 10 or 128 to 255.
inline bool is_control(char c) {
  const signed char s = static_cast<signed char>(c);
  return s >= 0 ? s <= 10 : true;
}

}  // namespace trv
