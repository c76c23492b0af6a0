// Fuzz target: the alias readers.
//
// The first byte chooses the plain "aliases" list (even) or the
// "aliases.ini" profile (odd); the rest is the file. It is loaded into a
// fresh alias table of a populated region, which must then pass
// check_region(), and the database search asks for names through it.
#include <string>

#include "core/region.h"
#include "core/validate.h"
#include "db/db.h"
#include "support.h"
#include "targets.h"
#include "trovalis.h"

namespace trv::fuzz {

void fuzz_alias(const uint8_t *data, size_t size) {
  if (size == 0) return;
  scratch();
  restore();
  const bool profile = data[0] % 2 == 1;
  const std::string file = write_scratch(profile ? "alias/aliases.ini" : "alias/aliases", data + 1, size - 1);
  forget_ini_copies();

  const int table = hash_create(kAliasBuckets);
  FUZZ_CHECK(table > 0);
  set_hdr(Word::Alias_Hash, table);
  FUZZ_CHECK((profile ? alias_ini_build(table, file.c_str()) : alias_build(table, file.c_str())) == 1);
  FUZZ_CHECK(check_region().fault == Fault::None);

  // Every key the file could have made leads somewhere or nowhere; the
  // search through the aliases must answer either way.
  const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  char out[kPathBuf];
  const std::string element = scratch() + "/texmf/fonts//";
  for (size_t at = 0; at < text.size() && at < 2000;) {
    size_t end = text.find_first_of(std::string(" \t\n=\0", 5), at);
    if (end == std::string::npos) end = text.size();
    if (end > at) {
      const std::string name = text.substr(at, end - at);
      char *r = db_search(name.c_str(), element.c_str(), out);
      FUZZ_CHECK(r == nullptr || r == out);
    }
    at = end + 1;
  }
}

}  // namespace trv::fuzz
