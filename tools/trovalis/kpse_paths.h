// The search paths of kpathsea, TeX Live's finder, written as trovalis
// file-type paths, for `trovalis init`.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace cli {

struct KpsePaths {
  // kpathsea's trees ($TEXMF) that exist, in its order.
  std::vector<std::string> trees;
  // Per file type: the path for programs without a section of their own
  // (missing for the types whose path names the engine: fmt, base, mem).
  std::map<std::string, std::string> common;
  // Per program: the types whose path differs for it.
  std::map<std::string, std::map<std::string, std::string>> programs;
};

// Asks kpsewhich for its trees and each type's path (per program for the
// engines and tools with paths of their own). `formats` maps trovalis
// type names to kpathsea format names. False when kpsewhich is not there.
bool kpse_paths(const std::map<std::string, std::string> &formats, KpsePaths &out);

}  // namespace cli
