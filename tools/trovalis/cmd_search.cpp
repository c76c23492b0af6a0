// The commands that ask the cache: find, why, request, expand, path, and
// the maintenance commands newfile, reset and report.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "library.h"

namespace cli {
namespace {

constexpr size_t kProgramMax = 63;   // ProgName holds 63 characters
constexpr size_t kRequestMax = 255;  // the front end's request buffer

constexpr const char *kFindUsage =
    "Usage: trovalis find [-p PROGRAM] TYPE NAME...\n"
    "Print the path of each NAME of file type TYPE (a type of the [QDM] section\n"
    "of TEXMF.INI), one line per name found, as PROGRAM is answered (default:\n"
    "trovalis, which sees the [common] values unless TEXMF.INI has a section\n"
    "[trovalis]). A name without '.' is tried with the type's suffixes. Nothing\n"
    "is printed for a name not found, and the exit status is then 1.\n";

constexpr const char *kWhyUsage =
    "Usage: trovalis why [-p PROGRAM] TYPE NAME\n"
    "Search NAME of file type TYPE as PROGRAM would, ignoring a cached miss, and\n"
    "show how the answer comes about: the type's definition, its directories,\n"
    "each directory tried, whether a database covered it, aliases tried and the\n"
    "outcome. Exit status 1 when NAME is not found.\n";

constexpr const char *kRequestUsage =
    "Usage: trovalis request [REQUEST...]\n"
    "Answer each REQUEST as the front end does, one answer line per request.\n"
    "Without REQUEST, or with -, requests are read from standard input, one per\n"
    "line. Requests: [PROGRAM]<TYPE>NAME searches (answer: a path or\n"
    "[file not found]), *<TYPE>NAME forgets cached answers, ?[PROGRAM]<TEXT> and\n"
    "??[PROGRAM]<TEXT> expand, !COMMAND switches modes of this process.\n";

constexpr const char *kExpandUsage =
    "Usage: trovalis expand [-p PROGRAM] TEXT\n"
    "Print TEXT with its $VARIABLES expanded as PROGRAM sees them.\n";

constexpr const char *kPathUsage =
    "Usage: trovalis path [-p PROGRAM] TEXT\n"
    "Expand TEXT (variables, {a,b} alternatives, ';' lists) and print the\n"
    "directories that exist, one per line. Exit status 1 when there are none.\n";

constexpr const char *kNewFileUsage =
    "Usage: trovalis newfile PATH\n"
    "Tell the cache that PATH has just been written: it is entered into the\n"
    "database (and the ls-R file) of the tree holding it, and every cached\n"
    "answer for its name is forgotten. Prints how many answers were forgotten.\n";

constexpr const char *kResetUsage =
    "Usage: trovalis reset\n"
    "Rebuild the shared cache from the configuration files and the ls-R\n"
    "databases, as after an installation. Every cached answer is forgotten.\n";

constexpr const char *kReportUsage =
    "Usage: trovalis report\n"
    "Print the cache report: memory in use, configuration files, databases,\n"
    "and every program's file types with their search paths and answers.\n";

struct Args {
  const char *program = nullptr;
  std::vector<const char *> operands;
};

// Parses [-p PROGRAM] [--] OPERAND... Returns -1 when the command should
// run, else the exit status (help printed, or a usage error).
int parse(int argc, char **argv, const char *usage, bool takes_program, Args &args) {
  for (int i = 0; i < argc; ++i) {
    const char *a = argv[i];
    if (!args.operands.empty()) {
      args.operands.push_back(a);
    } else if (is_help(a)) {
      std::fputs(usage, stdout);
      return kExitOk;
    } else if (takes_program && std::strcmp(a, "-p") == 0) {
      if (i + 1 == argc) return usage_error(usage, "-p needs a PROGRAM");
      args.program = argv[++i];
      if (std::strlen(args.program) > kProgramMax)
        return usage_error(usage, "PROGRAM is longer than 63 characters");
    } else if (std::strcmp(a, "--") == 0) {
      for (++i; i < argc; ++i) args.operands.push_back(argv[i]);
    } else if (a[0] == '-' && a[1] != '\0') {
      return usage_error(usage, (std::string("unknown option '") + a + "'").c_str());
    } else {
      args.operands.push_back(a);
    }
  }
  return -1;
}

const tool::Api *load_or_fail() { return tool::load(); }

// "?PROGRAM<TEXT>" (or "??..."), refused when the front end could not take
// it whole.
bool query(const char *marks, const Args &args, const char *usage, std::string &request,
           int &status) {
  if (args.operands.size() != 1) {
    status = usage_error(usage, "exactly one TEXT is required");
    return false;
  }
  const char *text = args.operands[0];
  if (std::strchr(text, '>') != nullptr) {
    status = usage_error(usage, "TEXT may not contain '>'");
    return false;
  }
  request = std::string(marks) + (args.program ? args.program : "") + "<" + text + ">";
  if (request.size() > kRequestMax) {
    status = usage_error(usage, "TEXT is too long (requests hold 255 characters)");
    return false;
  }
  return true;
}

std::vector<std::string> *g_tapped = nullptr;
void tap(const char *text) {
  if (g_tapped != nullptr) g_tapped->emplace_back(text);
}

}  // namespace

int cmd_find(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kFindUsage, true, args); s >= 0) return s;
  if (args.operands.size() < 2)
    return usage_error(kFindUsage, "TYPE and at least one NAME are required");
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  if (args.program != nullptr) api->QDMReady(args.program);
  int status = kExitOk;
  for (size_t i = 1; i < args.operands.size(); ++i) {
    const char *r = api->QDMSearch(args.operands[0], args.operands[i], 1);
    if (r != nullptr && r[0] == '[') {
      std::fprintf(stderr, "trovalis: %s: %s\n", args.operands[0], r);
      return kExitNotFound;
    }
    if (r == nullptr) {
      status = kExitNotFound;
      continue;
    }
    std::printf("%s\n", r);
  }
  return status;
}

int cmd_why(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kWhyUsage, true, args); s >= 0) return s;
  if (args.operands.size() != 2) return usage_error(kWhyUsage, "TYPE and one NAME are required");
  const char *type = args.operands[0];
  const char *name = args.operands[1];
  if (type[0] == '*') ++type;
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  if (args.program != nullptr) api->QDMReady(args.program);
  const std::string program = args.program ? args.program : "";

  const char *definition = api->QDMValue("QDM", type);
  std::printf("file type:   %s, as program %s\n", type, args.program ? args.program : "trovalis");
  if (definition != nullptr && definition[0] != '\0') {
    const std::string def = definition;
    std::printf("definition:  %s=%s\n", type, def.c_str());
    const std::string path = def.substr(0, def.find('+'));
    const std::string request = "??" + program + "<" + path + ">";
    const std::string dirs = request.size() <= kRequestMax ? api->QDMFind(request.c_str()) : "";
    std::printf("directories:%s\n", dirs.empty() ? " none exist" : "");
    for (size_t at = 0; !dirs.empty() && at != std::string::npos;) {
      const size_t semi = dirs.find(';', at);
      std::printf("  %s\n", dirs.substr(at, semi == std::string::npos ? semi : semi - at).c_str());
      at = semi == std::string::npos ? semi : semi + 1;
    }
  } else {
    std::printf("definition:  none in [QDM]; the type's name is taken as its path\n");
  }

  // This process's own switches only: the shared trace would fill every
  // user's log. The front-end origin neither makes nor downloads files
  // unless the process was told to, so asking is harmless.
  std::vector<std::string> lines;
  g_tapped = &lines;
  api->QDMSetMessageTap(tap);
  *api->Trace = 1;
  *api->Trace_ALS = 1;
  const std::string starred = std::string("*") + type;
  const char *r = api->QDMSearch(starred.c_str(), name, 1);
  const std::string answer = r ? r : "";
  *api->Trace = 0;
  *api->Trace_ALS = 0;
  api->QDMSetMessageTap(nullptr);
  g_tapped = nullptr;

  bool searched = false;
  std::printf("trace:\n");
  for (const std::string &l : lines) {
    if (l.rfind("Search ", 0) == 0) searched = true;
    std::printf("  %s\n", l.c_str());
  }
  if (!searched && r != nullptr && r[0] != '[')
    std::printf("answered from the shared cache (run 'trovalis request \"*<%s>%s\"' to forget it)\n",
                type, name);
  if (r == nullptr) {
    std::printf("not found: %s\n", name);
    return kExitNotFound;
  }
  std::printf("%s: %s\n", answer[0] == '[' ? "answer" : "found", answer.c_str());
  return answer[0] == '[' ? kExitNotFound : kExitOk;
}

int cmd_request(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kRequestUsage, false, args); s >= 0) return s;
  const bool from_stdin =
      args.operands.empty() || (args.operands.size() == 1 && std::strcmp(args.operands[0], "-") == 0);
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  if (!from_stdin) {
    for (const char *req : args.operands) std::printf("%s\n", api->QDMFind(req));
    return kExitOk;
  }
  char *line = nullptr;
  size_t cap = 0;
  ssize_t n;
  while ((n = getline(&line, &cap, stdin)) >= 0) {
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) line[--n] = '\0';
    std::fputs(api->QDMFind(line), stdout);
    std::fputc('\n', stdout);
  }
  std::free(line);
  return kExitOk;
}

int cmd_expand(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kExpandUsage, true, args); s >= 0) return s;
  std::string request;
  int status = kExitOk;
  if (!query("?", args, kExpandUsage, request, status)) return status;
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  std::printf("%s\n", api->QDMFind(request.c_str()));
  return kExitOk;
}

int cmd_path(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kPathUsage, true, args); s >= 0) return s;
  std::string request;
  int status = kExitOk;
  if (!query("??", args, kPathUsage, request, status)) return status;
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  const std::string dirs = api->QDMFind(request.c_str());
  if (dirs.empty()) return kExitNotFound;
  for (size_t at = 0; at != std::string::npos;) {
    const size_t semi = dirs.find(';', at);
    std::printf("%s\n", dirs.substr(at, semi == std::string::npos ? semi : semi - at).c_str());
    at = semi == std::string::npos ? semi : semi + 1;
  }
  return kExitOk;
}

int cmd_newfile(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kNewFileUsage, false, args); s >= 0) return s;
  if (args.operands.size() != 1) return usage_error(kNewFileUsage, "exactly one PATH is required");
  const char *path = args.operands[0];
  if (std::strlen(path) > 255) return usage_error(kNewFileUsage, "PATH is longer than 255 characters");
  if (std::strchr(path, '/') == nullptr && std::strchr(path, '\\') == nullptr)
    return usage_error(kNewFileUsage, "PATH must name the file's directory");
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  std::printf("%d\n", api->QDMNewFile(path));
  return kExitOk;
}

int cmd_reset(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kResetUsage, false, args); s >= 0) return s;
  if (!args.operands.empty()) return usage_error(kResetUsage, "reset takes no arguments");
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  std::printf("%s\n", api->QDMFind("!Finish"));
  return kExitOk;
}

int cmd_report(int argc, char **argv) {
  Args args;
  if (const int s = parse(argc, argv, kReportUsage, false, args); s >= 0) return s;
  if (!args.operands.empty()) return usage_error(kReportUsage, "report takes no arguments");
  const tool::Api *api = load_or_fail();
  if (api == nullptr) return kExitNotFound;
  api->Print_Cache();
  return kExitOk;
}

}  // namespace cli
