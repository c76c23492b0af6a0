// The text front end: one request in, one answer out. Searches with an
// optional program name, variable and directory queries, and the "!"
// commands that switch this process's modes.
#include <strings.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {
namespace {

constexpr size_t kRequestMax = 255;
constexpr int kAnswerBuf = 4096;

char g_answer[kAnswerBuf];

// Status answers go out as char *, like every answer; callers must not
// write to them.
char kInvalidFormat[] = "[Invalid request format]";
char kInvalidCommand[] = "[invalid QDM management command]";
char kNotFound[] = "[file not found]";
char kRecycled[] = "[QDM Cache has been recycled]";

char *answer(const char *text) {
  std::strncpy(g_answer, text, sizeof g_answer - 1);
  g_answer[sizeof g_answer - 1] = '\0';
  return g_answer;
}

void set_modes(int *modes, int both, int value) {
  modes[0] = value;
  if (both) modes[1] = value;
}

// Reads the leading decimal digits of text; 0 when there are none, and
// INT_MAX for a number that does not fit.
int leading_number(const char *text) {
  long long v = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    v = v * 10 + (*text - '0');
    if (v > INT_MAX) return INT_MAX;
  }
  return static_cast<int>(v);
}

char *command(const char *request) {
  struct Mode {
    const char *command;
    int *modes;
    int both;
    int value;
    const char *answer;
  };
  static const Mode kModes[] = {
      {"!Make", MakeLocked, 1, 0, "[AutoMake is enabled]"},
      {"!NoMake", MakeLocked, 1, 1, "[AutoMake is disabled]"},
      {"!MakeAlways", MakeLocked, 1, -1, "[AutoMake is always enabled]"},
      {"!MakeAlways+", MakeLocked, 1, -2, "[AutoMake is always enabled with output to MW]"},
      {"!*Make", MakeLocked, 0, 0, "[AutoMake for internal search is enabled]"},
      {"!*MakeAlways", MakeLocked, 0, -1, "[AutoMake for internal search is always enabled]"},
      {"!*MakeAlways+", MakeLocked, 0, -2,
       "[AutoMake for internal search is always enabled with output via MW]"},
      {"!AutoDownload=ON", AutoDownload, 1, 1, "[AutoDownload is enabled]"},
      {"!AutoDownload=INFO", AutoDownload, 1, 0, "[AutoDownload is in INFO mode.]"},
      {"!AutoDownload=OFF", AutoDownload, 1, -1, "[AutoDownload is disabled]"},
      {"!*AutoDownload=ON", AutoDownload, 0, 1, "[AutoDownload for internal search is enabled]"},
      {"!*AutoDownload=INFO", AutoDownload, 0, 0,
       "[AutoDownload for internal search is in INFO mode.]"},
      {"!*AutoDownload=OFF", AutoDownload, 0, -1,
       "[AutoDownload for internal search is disabled]"},
  };

  if (strcasecmp(request, "!Finish") == 0) {
    CacheGuard guard;
    QDMReset();
    return answer("[QDM is Finished NOW]");
  }
  if (strcasecmp(request, "!Trace") == 0) {
    Trace = 1;
    if (region_mapped()) set_hdr(Word::Shared_Trace, 1);
    return answer("[QDM trace mode switched ON]");
  }
  if (strcasecmp(request, "!Usage") == 0) {
    Print_Cache();
    return answer("[Usage is printed]");
  }
  for (const Mode &m : kModes) {
    if (strcasecmp(request, m.command) == 0) {
      set_modes(m.modes, m.both, m.value);
      return answer(m.answer);
    }
  }
  constexpr size_t kWaitLen = 13;  // "!WaitPassMSG="
  if (strncasecmp(request, "!WaitPassMSG=", kWaitLen) == 0) {
    const char *value = request + kWaitLen;
    if (strcasecmp(value, "OFF") == 0) {
      WaitPassMessages = -1;
      return answer("[Wait will not pass GUI messages]");
    }
    if (strcasecmp(value, "AUTO") == 0) {
      WaitPassMessages = 0;
      return answer("[Wait will automatically determine when pass GUI messages]");
    }
    if (strcasecmp(value, "ON") == 0) {
      WaitPassMessages = 0;
      return answer("[Wait will automatically determine when pass GUI messages (COMPAT)]");
    }
    WaitPassMessages = leading_number(value);
    return answer("[Wait will pass selected set of GUI messages]");
  }
  return kInvalidCommand;
}

// Splits "prog<middle>rest" in place: the first '<' and the first '>' after
// it. False when either is missing.
bool split(char *text, char **middle, char **rest) {
  char *lt = std::strchr(text, '<');
  if (lt == nullptr) return false;
  char *gt = std::strchr(lt + 1, '>');
  if (gt == nullptr) return false;
  *lt = '\0';
  *gt = '\0';
  *middle = lt + 1;
  *rest = gt + 1;
  return true;
}

// Puts ProgName back when the request ends, whatever way it ends.
class SavedProgName {
 public:
  SavedProgName() { std::memcpy(saved_, ProgName, sizeof saved_); }
  ~SavedProgName() { std::memcpy(ProgName, saved_, sizeof saved_); }
  SavedProgName(const SavedProgName &) = delete;
  SavedProgName &operator=(const SavedProgName &) = delete;

 private:
  char saved_[sizeof ProgName];
};

char *query(char *request) {
  SavedProgName saved;
  const bool directories = request[1] == '?';
  char *program = request + (directories ? 2 : 1);
  char *text, *rest;
  if (!split(program, &text, &rest)) return kInvalidFormat;
  if (program[0] != '\0') QDMReady(program);

  // The lookups behind the expansion read and extend the shared value
  // tables, which only the holder of the cache lock may touch; the lock is
  // re-entrant, so the nested takes inside are harmless.
  CacheGuard guard;
  repair_damage();
  const int left = var_expand(text, g_answer, sizeof g_answer, nullptr);
  g_answer[sizeof g_answer - static_cast<size_t>(left > 0 ? left : 1)] = '\0';
  if (!directories) return g_answer;

  char **dirs = expand_braces(g_answer);
  g_answer[0] = '\0';
  if (dirs == nullptr) return g_answer;
  size_t used = 0;
  for (char **d = dirs; *d != nullptr; ++d) {
    const size_t len = std::strlen(*d);
    const size_t sep = used > 0 ? 1 : 0;
    // Directories that no longer fit are left out whole rather than cut.
    if (used + sep + len < sizeof g_answer) {
      if (sep) g_answer[used++] = ';';
      std::memcpy(g_answer + used, *d, len + 1);
      used += len;
    }
    std::free(*d);
  }
  std::free(dirs);
  return g_answer;
}

char *find(char *request) {
  SavedProgName saved;
  char *type, *name;
  if (!split(request, &type, &name)) return kInvalidFormat;
  if (std::strcmp(request, "*") == 0) {
    QDMRecycle(type, name);
    return kRecycled;
  }
  if (request[0] != '\0') QDMReady(request);
  char *r = _QDMSearch(type, name, 1);
  return r != nullptr ? r : kNotFound;
}

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" {

char *QDMFind(const char *request) {
  if (request == nullptr) return kInvalidFormat;
  // A request the buffer cannot hold is refused: cutting it would search
  // for another name than the one asked for.
  char local[kRequestMax + 1];
  const size_t n = strnlen(request, sizeof local);
  if (n > kRequestMax) return request[0] == '!' ? kInvalidCommand : kInvalidFormat;
  std::memcpy(local, request, n + 1);
  if (local[0] == '!') return command(local);
  if (local[0] == '?') return query(local);
  return find(local);
}

int QDMReady(const char *program) {
  if (program == nullptr) program = "";
  const size_t n = strnlen(program, sizeof ProgName - 1);
  std::memcpy(ProgName, program, n);
  ProgName[n] = '\0';
  return 1;
}

}  // extern "C"
