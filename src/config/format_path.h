// A file type's format, read from its definition in process memory: what a
// format record holds, for a search that cannot store the record.
#pragma once

#include <string>
#include <vector>

namespace trv {

struct FormatParts {
  std::vector<std::string> path;  // accepted directories, in path order
  // A definition may hold an empty suffix text ("+" with nothing after it),
  // which is not the same as none: a name without '.' is then not found.
  bool has_suffixes = false;
  std::string suffixes;
  bool has_make = false;
  std::string make;
};

// Reads the definition of `type` (with the trace lines of a record being
// built) for the current program. Call with the cache lock held: values are
// read through the region. Throws std::bad_alloc.
void read_format(const char *type, FormatParts &parts);

}  // namespace trv
