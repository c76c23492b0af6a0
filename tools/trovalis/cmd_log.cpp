// The shared message log: reading it, following it, posting to it.
#include <time.h>

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

// The newest n lines, oldest first, copied: the texts live in the shared
// region, where other processes may post over them.
std::vector<std::string> newest(const tool::Api *api, int n) {
  std::vector<char *> texts(static_cast<size_t>(n) + 1);
  const int got = api->QDMGetMessages(texts.data(), n);
  std::vector<std::string> lines;
  for (int i = got - 1; i >= 0; --i) {
    // Relayed output keeps its line end; one line on the screen per message.
    std::string &l = lines.emplace_back(texts[static_cast<size_t>(i)]);
    while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.pop_back();
  }
  return lines;
}

// Posts seen so far: the total counter of the queue.
long total(const tool::Api *api) {
  const int *info = api->QDMMsgInfo();
  return info != nullptr ? info[1] : 0;
}

int follow(const tool::Api *api) {
  long seen = total(api);
  const timespec pause = {0, 200 * 1000 * 1000};
  for (;;) {
    nanosleep(&pause, nullptr);
    const long now = total(api);
    if (now == seen) continue;
    long fresh = now - seen;
    if (fresh < 0 || fresh > 1024) {
      // Either the region was rebuilt or more was posted than the queue
      // holds; say so rather than pretend the output is complete.
      if (fresh > 1024) std::printf("... %ld lines missed ...\n", fresh - 1024);
      fresh = fresh < 0 ? 0 : 1024;
    }
    for (const std::string &l : newest(api, static_cast<int>(fresh))) std::printf("%s\n", l.c_str());
    std::fflush(stdout);
    seen = now;
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
  for (const std::string &l : newest(api, static_cast<int>(n))) std::printf("%s\n", l.c_str());
  std::fflush(stdout);
  return follow_on ? follow(api) : kExitOk;
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
