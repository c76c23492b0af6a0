// The shared message log: reading it, following it, posting to it.
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "library.h"

namespace cli {
namespace {

constexpr const char *kLogUsage =
    "Usage: trovalis log [-n N] [--follow]\n"
    "Print the newest N lines (default 20, at most 1024) of the shared message\n"
    "log of all processes of this user, oldest first. With --follow (-f), keep\n"
    "printing lines as other processes post them, until interrupted.\n";

constexpr const char *kPostUsage =
    "Usage: trovalis post [-t TYPE] TEXT\n"
    "Post TEXT to the shared message log with the given type (default 1;\n"
    "4 counts as a warning).\n";

constexpr int kLogLines = 1024;

// Prints lines the library copied, one per line on the screen: relayed
// output keeps its line end in the log.
void print_lines(const std::vector<char> &buf, int count) {
  for (int i = 0; i < count; ++i) {
    std::string l(&buf[static_cast<size_t>(i) * QDM_MESSAGE_BYTES]);
    while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.pop_back();
    std::printf("%s\n", l.c_str());
  }
  std::fflush(stdout);
}

// The post count and the lines are copied together, under the cache lock:
// read one after the other, a line posted in between would be missed or
// printed twice.
int follow(const tool::Api *api, unsigned seen) {
  std::vector<char> buf(static_cast<size_t>(kLogLines) * QDM_MESSAGE_BYTES);
  const timespec pause = {0, 200 * 1000 * 1000};
  for (;;) {
    nanosleep(&pause, nullptr);
    unsigned now = seen;
    const int got = api->QDMCopyMessages(&seen, buf.data(), kLogLines, &now);
    const long fresh = static_cast<int32_t>(now - seen);
    seen = now;
    // A count that went back means the region was rebuilt: nothing to
    // show. More posts than lines copied: say so rather than pretend the
    // output is complete.
    if (fresh <= 0) continue;
    if (fresh > got) std::printf("... %ld lines missed ...\n", fresh - got);
    print_lines(buf, got);
  }
}

}  // namespace

int cmd_log(int argc, char **argv) {
  long n = 20;
  bool follow_on = false;
  for (int i = 0; i < argc; ++i) {
    if (is_help(argv[i])) {
      std::fputs(kLogUsage, stdout);
      return kExitOk;
    }
    if (std::strcmp(argv[i], "-n") == 0 && i + 1 < argc) {
      if (!parse_int(argv[++i], 0, 1024, &n))
        return usage_error(kLogUsage, "-n takes a count from 0 to 1024");
    } else if (std::strcmp(argv[i], "--follow") == 0 || std::strcmp(argv[i], "-f") == 0) {
      follow_on = true;
    } else {
      return usage_error(kLogUsage, "unexpected argument");
    }
  }
  const tool::Api *api = tool::load();
  if (api == nullptr) return kExitNotFound;
  std::vector<char> buf(static_cast<size_t>(n > 0 ? n : 1) * QDM_MESSAGE_BYTES);
  unsigned seen = 0;
  print_lines(buf, api->QDMCopyMessages(nullptr, buf.data(), static_cast<int>(n), &seen));
  return follow_on ? follow(api, seen) : kExitOk;
}

int cmd_post(int argc, char **argv) {
  long type = 1;
  const char *text = nullptr;
  for (int i = 0; i < argc; ++i) {
    if (is_help(argv[i])) {
      std::fputs(kPostUsage, stdout);
      return kExitOk;
    }
    if (std::strcmp(argv[i], "-t") == 0 && i + 1 < argc) {
      if (!parse_int(argv[++i], -2147483647L - 1, 2147483647L, &type))
        return usage_error(kPostUsage, "-t takes a 32-bit integer");
    } else if (text == nullptr) {
      text = argv[i];
    } else {
      return usage_error(kPostUsage, "only one TEXT may be given");
    }
  }
  if (text == nullptr) return usage_error(kPostUsage, "TEXT is missing");
  const tool::Api *api = tool::load();
  if (api == nullptr) return kExitNotFound;
  api->QDMMessage("trovalis: ", text, static_cast<int>(type));
  return kExitOk;
}

}  // namespace cli
