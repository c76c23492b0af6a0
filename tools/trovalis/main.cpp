// trovalis: the maintainer's tool over the library's public interface.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.h"
#include "library.h"
#include "trovalis_config.h"

extern char **environ;

namespace cli {

int usage_error(const char *usage, const char *problem) {
  if (problem) std::fprintf(stderr, "trovalis: %s\n", problem);
  std::fputs(usage, stderr);
  return kExitUsage;
}

bool is_help(const char *arg) {
  return std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0;
}

bool parse_int(const char *text, long lo, long hi, long *out) {
  char *end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

bool reset_running_cache() {
  const std::string self = tool::own_path();
  char *const argv[] = {const_cast<char *>(self.c_str()), const_cast<char *>("reset"), nullptr};
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int err = posix_spawn(&pid, self.c_str(), &fa, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&fa);
  if (err != 0) return false;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace cli

namespace {

constexpr const char *kUsage =
    "Usage: trovalis [--help] [--version] [-v] COMMAND [ARGS...]\n"
    "\n"
    "  -v, --verbose  show the library's start-up line (NEW or REUSED region)\n"
    "\n"
    "Finding files:\n"
    "  find [-p PROGRAM] TYPE NAME...  print the path of each NAME of file type TYPE\n"
    "  why [-p PROGRAM] TYPE NAME      explain how NAME is found, or why it is not\n"
    "  request [REQUEST...|-]          answer front-end requests (from stdin with -)\n"
    "  expand [-p PROGRAM] TEXT        expand the variables in TEXT\n"
    "  path [-p PROGRAM] TEXT          list the existing directories TEXT expands to\n"
    "\n"
    "Setting up:\n"
    "  init [--tree DIR]... [-o FILE]  write a TEXMF.INI for existing TeX trees\n"
    "  mklsr [--no-reset] DIR...       write the ls-R database of each tree DIR\n"
    "\n"
    "TeX Live's programs:\n"
    "  run COMMAND [ARGS...]           run COMMAND with its look-ups answered by trovalis\n"
    "\n"
    "Maintaining the cache:\n"
    "  newfile PATH                    enter a newly written file into the databases\n"
    "  reset                           rebuild the cache from the configuration files\n"
    "  report                          print the cache report\n"
    "  log [-n N] [--follow]           print the shared message log\n"
    "  post [-t TYPE] TEXT             post TEXT to the shared message log\n"
    "\n"
    "Run 'trovalis COMMAND --help' for a command's options. Exit status: 0 success,\n"
    "1 not found (or the cache could not be attached), 2 usage error.\n"
    "\n"
    "Environment:\n"
    "  TROVALIS_INSTANCE     suffix for the shared region and lock names\n"
    "  TROVALIS_MAP_SIZE     bytes of a newly created shared region\n"
    "  TROVALIS_INI          the main configuration file\n"
    "  TROVALIS_KPATHSEA     off or verify: the kpathsea bridge (trovalis run)\n";

struct Command {
  const char *name;
  int (*run)(int, char **);
};

constexpr Command kCommands[] = {
    {"find", cli::cmd_find},       {"why", cli::cmd_why},         {"request", cli::cmd_request},
    {"expand", cli::cmd_expand},   {"path", cli::cmd_path},       {"newfile", cli::cmd_newfile},
    {"reset", cli::cmd_reset},     {"report", cli::cmd_report},   {"log", cli::cmd_log},
    {"post", cli::cmd_post},       {"mklsr", cli::cmd_mklsr},     {"init", cli::cmd_init},
    {"run", cli::cmd_run},
};

}  // namespace

int main(int argc, char **argv) {
  int first = 1;
  if (argc > 1 && (std::strcmp(argv[1], "-v") == 0 || std::strcmp(argv[1], "--verbose") == 0)) {
    tool::set_verbose(true);
    first = 2;
  }
  if (argc <= first) return cli::usage_error(kUsage, "a command is required");
  const char *cmd = argv[first];
  if (cli::is_help(cmd)) {
    std::fputs(kUsage, stdout);
    return cli::kExitOk;
  }
  if (std::strcmp(cmd, "--version") == 0) {
    std::printf("trovalis %s\n", TROVALIS_VERSION);
    return cli::kExitOk;
  }
  for (const Command &c : kCommands)
    if (std::strcmp(cmd, c.name) == 0) return c.run(argc - first - 1, argv + first + 1);
  return cli::usage_error(kUsage, (std::string("unknown command '") + cmd + "'").c_str());
}
