// Internal side of the directory search along a path.
#pragma once

#include <string>
#include <vector>

namespace trv {

// Size of the path buffer the search writes candidates and answers into,
// and of the link result buffer.
inline constexpr int kSearchBuf = 260;

// Deepest directory nesting recurse_dir descends to. A path of 259
// characters cannot nest deeper than this anyway; the bound only matters if
// the visited set is defeated (a file system that reports no inode numbers).
inline constexpr int kMaxDepth = 130;

// The texts of a text list in the region, copied under the cache lock (taken
// when this process does not hold it).
std::vector<std::string> copy_list(int list);

// search_file over a list already copied out of the region: walks without
// the lock, so a reset in another process cannot pull the list away.
char *search_elements(const std::vector<std::string> &list, const char *name, char *buf);

}  // namespace trv
