// Internal side of the directory search along a path.
#pragma once

namespace trv {

// Size of the path buffer the search writes candidates and answers into,
// and of the link result buffer.
inline constexpr int kSearchBuf = 260;

// Deepest directory nesting recurse_dir descends to. A path of 259
// characters cannot nest deeper than this anyway; the bound only matters if
// the visited set is defeated (a file system that reports no inode numbers).
inline constexpr int kMaxDepth = 130;

}  // namespace trv
