// Fuzz target: the INI reader and writer.
//
// The input is the file's text, then after a 0xFF byte NUL-separated
// section, key and value names for a few writes ("-" as a value deletes).
// Every listing and look-up the text offers is read into small buffers
// whose ends are watched; a plain value written must read back.
#include <cstring>
#include <string>

#include "support.h"
#include "targets.h"
#include "trovalis.h"

namespace trv::fuzz {

namespace {

constexpr char kFence = '#';

// Runs a read into a buffer of `len` bytes inside a larger fenced one.
template <class F>
int fenced(int len, F &&read) {
  char buf[48];
  std::memset(buf, kFence, sizeof buf);
  const int got = read(buf, len);
  FUZZ_CHECK(got >= 0 && got <= len);
  for (size_t i = static_cast<size_t>(len); i < sizeof buf; ++i) FUZZ_CHECK(buf[i] == kFence);
  return got;
}

std::string next_field(const std::string &rest, size_t &at) {
  if (at >= rest.size()) return "";
  const size_t end = rest.find('\0', at);
  std::string field = rest.substr(at, end == std::string::npos ? std::string::npos : end - at);
  at += field.size() + 1;
  return field;
}

}  // namespace

void fuzz_ini(const uint8_t *data, size_t size) {
  const std::string in(reinterpret_cast<const char *>(data), size);
  const size_t cut = in.find('\xff');
  const std::string text = in.substr(0, cut);
  std::string path = write_scratch("ini/fuzz.ini", reinterpret_cast<const uint8_t *>(text.data()),
                                   text.size());
  forget_ini_copies();

  for (int len : {1, 2, 7, 24})
    fenced(len, [&](char *b, int n) { return GetPrivateProfileSectionNames(b, n, path.data()); });
  char names[48];
  const int got = GetPrivateProfileSectionNames(names, 40, path.data());
  for (const char *s = names; s < names + got && *s; s += std::strlen(s) + 1) {
    const std::string section(s);
    char keys[48];
    const int k = GetPrivateProfileString(section.c_str(), nullptr, "", keys, 40, path.data());
    for (const char *key = keys; key < keys + k && *key; key += std::strlen(key) + 1) {
      fenced(5, [&](char *b, int n) {
        return GetPrivateProfileString(section.c_str(), key, "dflt", b, n, path.data());
      });
    }
    fenced(9, [&](char *b, int n) { return GetPrivateProfileSection(section.c_str(), b, n, path.data()); });
  }
  if (cut == std::string::npos) return;

  const std::string rest = in.substr(cut + 1);
  for (size_t at = 0; at < rest.size();) {
    const std::string section = next_field(rest, at);
    const std::string key = next_field(rest, at);
    const std::string value = next_field(rest, at);
    const bool remove = value == "-";
    const int r = WritePrivateProfileString(section.c_str(), key.c_str(),
                                            remove ? nullptr : value.c_str(), path.data());
    FUZZ_CHECK(r == 0 || r == 1);
    // A name or value holding a line end or a bracket can make or hide a
    // head; only plain ones must read back.
    if (r == 1 && !remove && value.find_first_of("\n\r") == std::string::npos &&
        section.find_first_of("\n\r]") == std::string::npos &&
        key.find_first_of("\n\r=") == std::string::npos && key[0] != '[' && key[0] != ';' &&
        !key.empty() && !section.empty()) {
      char back[300];
      GetPrivateProfileString(section.c_str(), key.c_str(), "", back, sizeof back, path.data());
      if (value.size() < sizeof back) FUZZ_CHECK(value == back);
    }
  }
}

}  // namespace trv::fuzz
