// Fuzz target: the ls-R reader.
//
// The input is an ls-R file. It is loaded into a fresh database table of a
// populated region; the region must then pass check_region(), and look-ups
// of names from the file run over it.
#include <algorithm>
#include <cstring>
#include <string>

#include "core/region.h"
#include "core/validate.h"
#include "db/db.h"
#include "support.h"
#include "targets.h"
#include "trovalis.h"

namespace trv::fuzz {

void fuzz_lsr(const uint8_t *data, size_t size) {
  const std::string root = scratch() + "/lsr/";
  restore();
  const std::string file = write_scratch("lsr/ls-R", data, size);

  const int table = hash_create(kDbBuckets);
  FUZZ_CHECK(table > 0);
  set_hdr(Word::DB_Hash, table);
  const int loaded = db_build(table, file.c_str());
  FUZZ_CHECK(loaded == 0 || loaded == 1);
  const Finding f = check_region();
  FUZZ_CHECK(f.fault == Fault::None);

  // The first and the last line of the input as names, found or not under
  // the file's own root and below it.
  const std::string text(reinterpret_cast<const char *>(data), size);
  const size_t last = text.find_last_of('\n', text.size() >= 2 ? text.size() - 2 : 0);
  char out[kPathBuf];
  for (std::string name : {text.substr(0, text.find('\n')),
                           last == std::string::npos ? text : text.substr(last + 1)}) {
    name = name.substr(0, name.find_first_of(std::string("\r\n\0", 3)));
    name.resize(std::min(name.size(), size_t{PieceReader::kPiece}));
    for (const std::string &element : {root, root + "sub//", root + "//"}) {
      char *r = db_search(name.c_str(), element.c_str(), out);
      FUZZ_CHECK(r == nullptr || r == out);
    }
  }
}

}  // namespace trv::fuzz
