// trovalis: the maintainer's tool over the library's public interface.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "library.h"
#include "trovalis_config.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;

constexpr const char *kUsage =
    "Usage: trovalis [--help] [--version] COMMAND [ARGS...]\n"
    "\n"
    "Commands:\n"
    "  log [-n N]            print the newest N (default 20) lines of the shared\n"
    "                        message log, oldest first\n"
    "  post [-t TYPE] TEXT   post TEXT to the shared message log\n"
    "\n"
    "Run 'trovalis COMMAND --help' for a command's options.\n"
    "\n"
    "Environment:\n"
    "  TROVALIS_INSTANCE     suffix for the shared region and lock names\n"
    "  TROVALIS_MAP_SIZE     bytes of a newly created shared region\n";

constexpr const char *kLogUsage =
    "Usage: trovalis log [-n N]\n"
    "Print the newest N lines (default 20, at most 1024) of the shared message\n"
    "log of all processes of this user, oldest first.\n";

constexpr const char *kPostUsage =
    "Usage: trovalis post [-t TYPE] TEXT\n"
    "Post TEXT to the shared message log with the given type (default 1;\n"
    "4 counts as a warning).\n";

int usage_error(const char *usage, const char *problem) {
  if (problem) std::fprintf(stderr, "trovalis: %s\n", problem);
  std::fputs(usage, stderr);
  return kExitUsage;
}

bool is_help(const char *arg) { return std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0; }

bool parse_int(const char *text, long lo, long hi, long *out) {
  char *end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

int cmd_log(int argc, char **argv) {
  long n = 20;
  for (int i = 0; i < argc; ++i) {
    if (is_help(argv[i])) {
      std::fputs(kLogUsage, stdout);
      return kExitOk;
    }
    if (std::strcmp(argv[i], "-n") == 0 && i + 1 < argc) {
      if (!parse_int(argv[++i], 0, 1024, &n))
        return usage_error(kLogUsage, "-n takes a count from 0 to 1024");
    } else {
      return usage_error(kLogUsage, "unexpected argument");
    }
  }
  const tool::Api *api = tool::load();
  if (api == nullptr) return 1;
  std::vector<char *> texts(static_cast<size_t>(n) + 1);
  const int got = api->QDMGetMessages(texts.data(), static_cast<int>(n));
  // Copy before printing: the texts live in the shared region, where other
  // processes may post over them.
  std::vector<std::string> lines;
  for (int i = got - 1; i >= 0; --i) lines.emplace_back(texts[static_cast<size_t>(i)]);
  for (const std::string &l : lines) std::printf("%s\n", l.c_str());
  return kExitOk;
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
  if (api == nullptr) return 1;
  api->QDMMessage("trovalis: ", text, static_cast<int>(type));
  return kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage_error(kUsage, "a command is required");
  const char *cmd = argv[1];
  if (is_help(cmd)) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  if (std::strcmp(cmd, "--version") == 0) {
    std::printf("trovalis %s\n", TROVALIS_VERSION);
    return kExitOk;
  }
  if (std::strcmp(cmd, "log") == 0) return cmd_log(argc - 2, argv + 2);
  if (std::strcmp(cmd, "post") == 0) return cmd_post(argc - 2, argv + 2);
  return usage_error(kUsage, (std::string("unknown command '") + cmd + "'").c_str());
}
