// Internal side of the search service: the pieces a search request shares
// with the remedies for missing files, cache maintenance and the report.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace trv {

// Size of the candidate buffer: a name with one suffix appended.
inline constexpr int kCandidateBuf = 168;
// A quoted name is copied into a buffer of this size before its quotes go.
inline constexpr int kQuotedBuf = 128;

// The four words of a format record.
struct FormatWords {
  int32_t answers = 0;     // LRU list of cached answers, keyed by name
  int32_t search_path = 0; // text list of directories
  int32_t suffixes = 0;    // suffix text, ".tfm.TFM"
  int32_t make = 0;        // make command text
};
// Reads the record FormatPath returned; all zero for nullptr.
FormatWords read_record(const char *record);

// Visits the suffixes of a suffix text in order: the text is cut before
// every '.' that is not its first character (".tfm.TFM" gives ".tfm" and
// ".TFM"). visit(const char *suffix, size_t length) returns false to stop.
template <class F>
void for_each_suffix(const char *text, F &&visit) {
  if (text == nullptr || text[0] == '\0') return;
  const char *start = text;
  for (const char *p = text + 1;; ++p) {
    if (*p == '.' || *p == '\0') {
      if (!visit(start, static_cast<size_t>(p - start))) return;
      if (*p == '\0') return;
      start = p;
    }
  }
}

// The download lock's name for this process (the instance suffix
// appended), into buf. False when it does not fit.
bool download_lock_name(char *buf, size_t size);

// AutoMake: runs the make command for name, through the wrapper beside the
// calling program (its output relayed to the log) when to_window is set,
// else on the console. Serialised by the download lock. Call without the
// cache lock held.
void auto_make(const char *command, const char *name, bool to_window);

// AutoDownload: installs the package of a download marker with the setup
// program, then resets the configuration under the cache lock. Serialised
// by the download lock. Call without the cache lock held.
void auto_download(const char *marker);

}  // namespace trv
