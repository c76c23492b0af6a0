// Fuzz target: brace expansion and the splitting of search paths.
//
// The input is a path. brace_expand must give at least one alternative (the
// text itself when it has no "{"), all made of the input's own characters; expand_braces must give a
// list (of directories that exist) and leave no ';' in any of them.
#include <bitset>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/braces.h"
#include "support.h"
#include "targets.h"
#include "trovalis.h"

namespace trv::fuzz {

void fuzz_braces(const uint8_t *data, size_t size) {
  scratch();
  std::string text(reinterpret_cast<const char *>(data), size);
  text = text.substr(0, text.find('\0'));
  std::bitset<256> used;
  for (unsigned char c : text) used.set(c);

  char **all = brace_expand(text.c_str());
  FUZZ_CHECK(all != nullptr && all[0] != nullptr);
  if (text.find('{') == std::string::npos) FUZZ_CHECK(all[1] == nullptr && text == all[0]);
  for (char **a = all; *a != nullptr; ++a)
    for (const char *c = *a; *c; ++c) FUZZ_CHECK(used.test(static_cast<unsigned char>(*c)));
  free_array(all);

  std::string path = text;
  char **dirs = expand_braces(path.data());
  FUZZ_CHECK(dirs != nullptr);
  for (char **d = dirs; *d != nullptr; ++d) {
    FUZZ_CHECK(std::strchr(*d, ';') == nullptr || text.find_first_of("{}") != std::string::npos);
    std::free(*d);
  }
  std::free(dirs);
}

}  // namespace trv::fuzz
