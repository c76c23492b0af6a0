// Fuzz target: front-end requests.
//
// The input is one request (up to its first NUL), as a host would pass it
// to QDMFind: searches with or without a program, forgetting answers,
// variable and directory queries, management commands. The answer is never
// null, and a sound region stays sound whatever was asked.
//
// A file type names its own search path when TEXMF.INI does not define it,
// so a request for the type "/" followed by "//" would walk the whole disk:
// requests whose type could name a directory outside the scratch
// installation are not run. So are the commands that run programs.
#include <strings.h>

#include <cstring>
#include <string>

#include "core/region.h"
#include "core/validate.h"
#include "support.h"
#include "targets.h"
#include "trovalis.h"

namespace trv::fuzz {

namespace {

bool harmless(const std::string &request) {
  if (request.empty() || request[0] == '?' || request[0] == '!') {
    // Modes that would run make commands on a miss.
    return strncasecmp(request.c_str(), "!Make", 5) != 0 &&
           strncasecmp(request.c_str(), "!*Make", 6) != 0;
  }
  const size_t lt = request.find('<');
  const size_t gt = request.find('>', lt == std::string::npos ? 0 : lt);
  if (lt == std::string::npos || gt == std::string::npos) return true;
  const std::string type = request.substr(lt + 1, gt - lt - 1);
  return type.find_first_of("/\\$~.:{") == std::string::npos;
}

}  // namespace

void fuzz_qdmfind(const uint8_t *data, size_t size) {
  std::string request(reinterpret_cast<const char *>(data), size);
  request = request.substr(0, request.find('\0'));
  if (!harmless(request)) return;
  scratch();
  restore();
  const char *answer;
  {
    QuietStdout quiet;
    answer = QDMFind(request.c_str());
  }
  FUZZ_CHECK(answer != nullptr);
  FUZZ_CHECK(strnlen(answer, 4096) < 4096);
  FUZZ_CHECK(check_region().fault == Fault::None);
}

}  // namespace trv::fuzz
