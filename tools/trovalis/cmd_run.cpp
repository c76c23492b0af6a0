// trovalis run: runs a TeX Live program with the kpathsea bridge preloaded,
// so that its look-ups are answered from the shared cache.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.h"
#include "library.h"

namespace cli {
namespace {

constexpr const char *kUsage =
    "Usage: trovalis run COMMAND [ARGS...]\n"
    "Run COMMAND with the kpathsea bridge preloaded: TeX Live's programs (pdflatex,\n"
    "bibtex, dvips, kpsewhich ...) then find their files through the shared cache,\n"
    "and kpathsea answers whatever trovalis cannot. TROVALIS_INI is set to the\n"
    "configuration this tool uses unless it is set already; TROVALIS_KPATHSEA=off\n"
    "hands every look-up to kpathsea, =verify asks both and logs disagreements.\n";

#ifdef __APPLE__
constexpr const char *kBridgeFile = "trovalis-kpathsea.dylib";
constexpr const char *kPreloadVar = "DYLD_INSERT_LIBRARIES";
constexpr char kPreloadSep = ':';
#else
constexpr const char *kBridgeFile = "trovalis-kpathsea.so";
constexpr const char *kPreloadVar = "LD_PRELOAD";
constexpr char kPreloadSep = ' ';
#endif

std::string own_directory() {
  const std::string path = tool::own_path();
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The bridge installed beside the library (DIST/lib), or beside the tool in
// a build tree.
std::string bridge_path() {
  const std::string dir = own_directory();
  for (const std::string &c : {dir + "/../lib/" + kBridgeFile, dir + "/" + kBridgeFile})
    if (access(c.c_str(), R_OK) == 0) return c;
  return "";
}

// The TEXMF.INI the library finds for this tool: in its directory or one
// above it, as TEXMF.INI or .zelvan/TEXMF.INI.
std::string tool_configuration() {
  std::string dir = own_directory();
  for (;;) {
    for (const char *name : {"/TEXMF.INI", "/.zelvan/TEXMF.INI"})
      if (access((dir + name).c_str(), R_OK) == 0) return dir + name;
    const size_t slash = dir.rfind('/');
    if (slash == std::string::npos || dir.empty()) return "";
    dir.resize(slash);
  }
}

}  // namespace

int cmd_run(int argc, char **argv) {
  if (argc == 0) return usage_error(kUsage, "a command is required");
  if (is_help(argv[0])) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  const std::string bridge = bridge_path();
  if (bridge.empty()) {
    std::fprintf(stderr, "trovalis run: %s not found beside the library; running %s without it\n",
                 kBridgeFile, argv[0]);
  } else {
    const char *old = std::getenv(kPreloadVar);
    std::string preload = bridge;
    if (old != nullptr && old[0] != '\0')
      preload = std::strstr(old, bridge.c_str()) ? old : bridge + kPreloadSep + old;
    setenv(kPreloadVar, preload.c_str(), 1);
  }
  const char *ini = std::getenv("TROVALIS_INI");
  if (ini == nullptr || ini[0] == '\0') {
    const std::string found = tool_configuration();
    if (found.empty())
      std::fprintf(stderr, "trovalis run: no TEXMF.INI beside the tool and TROVALIS_INI is not "
                           "set; kpathsea answers alone\n");
    else
      setenv("TROVALIS_INI", found.c_str(), 1);
  }
  execvp(argv[0], argv);
  std::fprintf(stderr, "trovalis run: cannot run %s: %s\n", argv[0], std::strerror(errno));
  return errno == ENOENT ? 127 : 126;
}

}  // namespace cli
