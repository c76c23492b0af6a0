// Fuzz target: matching database paths against search path elements.
//
// The input is a path and an element separated by a NUL. The answer must
// not depend on the letter case of ASCII letters nor on which of "/" and
// "\" separates the components, and covering an element is tested alike.
#include <cctype>
#include <string>

#include "db/db.h"
#include "support.h"
#include "targets.h"

namespace trv::fuzz {

namespace {

std::string upper(std::string s) {
  for (char &c : s)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return s;
}

std::string backslashed(std::string s) {
  for (char &c : s)
    if (c == '/') c = '\\';
  return s;
}

}  // namespace

void fuzz_match(const uint8_t *data, size_t size) {
  const std::string in(reinterpret_cast<const char *>(data), size);
  const size_t cut = in.find('\0');
  const std::string path = in.substr(0, cut);
  std::string element = cut == std::string::npos ? "" : in.substr(cut + 1);
  element = element.substr(0, element.find('\0'));

  const int m = match(path.c_str(), element.c_str());
  FUZZ_CHECK(m == 0 || m == 1);
  FUZZ_CHECK(match(upper(path).c_str(), element.c_str()) == m);
  FUZZ_CHECK(match(path.c_str(), backslashed(element).c_str()) == m);
  const int covered = elt_in_db(path.c_str(), element.c_str());
  FUZZ_CHECK(covered == 0 || covered == 1);
  FUZZ_CHECK(elt_in_db(backslashed(upper(path)).c_str(), element.c_str()) == covered);
}

}  // namespace trv::fuzz
