// trovalis init: writes a TEXMF.INI for TeX trees that exist already.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "cli.h"
#include "kpse_paths.h"

namespace cli {
namespace {

constexpr const char *kUsage =
    "Usage: trovalis init [--tree DIR]... [--no-kpathsea] [-o FILE [--force]]\n"
    "Write a TEXMF.INI for existing TeX trees: [common] TEXMF lists the trees,\n"
    "[QDM] defines the common TeX file types over them, and the trees' ls-R\n"
    "files are used as databases. Without --tree, the usual TeX Live trees of\n"
    "this machine are used (your ~/texmf first when it exists); where kpsewhich\n"
    "is installed (and without --no-kpathsea), its trees and each type's path,\n"
    "per program for the engines and tools with paths of their own, so that\n"
    "both finders search in the same order. The file goes\n"
    "to standard output, or to FILE with -o (an existing FILE is replaced only\n"
    "with --force). Programs find it in their own directory or any above it.\n";

// Values of one key are read into 256-byte buffers, and a file type's
// definition may hold 63 characters.
constexpr size_t kValueMax = 255;
constexpr size_t kDefinitionMax = 63;

// The file types written, each: name, definition. A '+' starts the suffixes
// tried for a name without '.', a definition without '+' searches such a
// name as it is (cmap files have no suffix).
// `format` is kpathsea's name of the type (kpsewhich -show-path), where
// kpathsea has one.
struct Type {
  const char *name, *definition, *what, *format = nullptr;
};
constexpr Type kTypes[] = {
    {"ls-R", "$TEXMF", "trees whose ls-R databases are loaded"},
    {"tex", "$TEXMF/tex//+.tex", "TeX and LaTeX input: .tex .sty .cls .def .fd ...", "tex"},
    {"tfm", "$TEXMF/fonts/tfm//+.tfm", "font metrics", "tfm"},
    {"vf", "$TEXMF/fonts/vf//+.vf", "virtual fonts", "vf"},
    {"pk", "$TEXMF/fonts/pk//+.pk", "packed bitmap fonts"},
    {"gf", "$TEXMF/fonts/gf//+.gf", "generic bitmap fonts"},
    {"type1", "$TEXMF/fonts/type1//+.pfb.pfa", "Type 1 fonts", "type1 fonts"},
    {"type42", "$TEXMF/fonts/type42//+.t42", "Type 42 fonts", "type42 fonts"},
    {"opentype", "$TEXMF/fonts/{opentype,truetype}//+.otf", "OpenType fonts", "opentype fonts"},
    {"truetype", "$TEXMF/fonts/{truetype,opentype}//+.ttf.ttc", "TrueType fonts", "truetype fonts"},
    {"afm", "$TEXMF/fonts/afm//+.afm", "Adobe font metrics", "afm"},
    {"enc", "$TEXMF/fonts/enc//+.enc", "font encodings", "enc files"},
    {"map", "$TEXMF/fonts/map//+.map", "font maps", "map"},
    {"lig", "$TEXMF/fonts/lig//+.lig", "ligature definitions", "lig files"},
    {"sfd", "$TEXMF/fonts/sfd//+.sfd", "subfont definitions", "subfont definition files"},
    {"cmap", "$TEXMF/fonts/cmap//", "CMap files (no suffix)", "cmap files"},
    {"cid", "$TEXMF/fonts/cid//+.cid.cidmap", "CID maps", "cid maps"},
    {"fea", "$TEXMF/fonts/fea//+.fea", "font feature files", "font feature files"},
    {"misc", "$TEXMF/fonts/misc//", "other font files", "misc fonts"},
    {"ofm", "$TEXMF/fonts/{ofm,tfm}//+.ofm.tfm", "Omega font metrics", "ofm"},
    {"ovf", "$TEXMF/fonts/{ovf,vf}//+.ovf.vf", "Omega virtual fonts", "ovf"},
    {"opl", "$TEXMF/fonts/opl//+.opl", "Omega property lists", "opl"},
    {"ovp", "$TEXMF/fonts/ovp//+.ovp", "Omega virtual property lists", "ovp"},
    {"ocp", "$TEXMF/omega/ocp//+.ocp", "Omega translation processes", "ocp"},
    {"otp", "$TEXMF/omega/otp//+.otp", "Omega translation sources", "otp"},
    {"bib", "$TEXMF/bibtex/bib//+.bib", "BibTeX databases", "bib"},
    {"bst", "$TEXMF/bibtex/{bst,csf}//+.bst", "BibTeX styles", "bst"},
    {"ist", "$TEXMF/makeindex//+.ist", "MakeIndex styles", "ist"},
    {"mf", "$TEXMF/metafont//;$TEXMF/fonts/source//+.mf", "Metafont sources", "mf"},
    {"mft", "$TEXMF/mft//+.mft", "MFT styles", "mft"},
    {"mp", "$TEXMF/metapost//+.mp", "MetaPost sources", "mp"},
    {"fmt", "$TEXMF/web2c//+.fmt", "TeX formats", "fmt"},
    {"base", "$TEXMF/web2c//+.base", "Metafont bases", "base"},
    {"mem", "$TEXMF/web2c//+.mem", "MetaPost mems", "mem"},
    {"lua", "$TEXMF/scripts//;$TEXMF/tex//+.lua", "Lua code", "lua"},
    {"web", "$TEXMF/web//+.web", "WEB sources", "web"},
    {"cweb", "$TEXMF/cweb//+.w", "CWEB sources", "cweb"},
    {"dvips", "$TEXMF/dvips//", "dvips configuration", "dvips config"},
    {"psheader", "$TEXMF/{dvips,fonts/enc,fonts/type1}//+.pro", "PostScript headers",
     "PostScript header"},
    {"pdftex", "$TEXMF/pdftex//", "pdfTeX configuration", "pdftex config"},
    {"scripts", "$TEXMF/scripts//", "scripts of the distribution", "texmfscripts"},
    {"source", "$TEXMF/source//", "sources of packages: .dtx .ins", "TeX system sources"},
};

bool is_dir(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The newest /usr/local/texlive/YYYY of an installation from upstream.
std::string newest_texlive() {
  std::string best;
  if (DIR *d = opendir("/usr/local/texlive")) {
    while (dirent *e = readdir(d)) {
      const std::string n = e->d_name;
      if (n.size() == 4 && n.find_first_not_of("0123456789") == std::string::npos && n > best)
        best = n;
    }
    closedir(d);
  }
  return best.empty() ? "" : "/usr/local/texlive/" + best;
}

// The usual trees, in the order their files take precedence: the user's
// own, the site's, the system's configuration and generated files (formats
// live there), then the distribution's.
std::vector<std::string> usual_trees() {
  std::vector<std::string> candidates;
  if (const char *home = std::getenv("HOME"); home != nullptr && home[0] != '\0')
    candidates.push_back(std::string(home) + "/texmf");
  candidates.insert(candidates.end(), {"/usr/local/share/texmf", "/etc/texmf", "/var/lib/texmf",
                                       "/usr/share/texmf", "/usr/share/texlive/texmf-dist"});
  if (const std::string tl = newest_texlive(); !tl.empty())
    candidates.insert(candidates.end(), {"/usr/local/texlive/texmf-local", tl + "/texmf-var",
                                         tl + "/texmf-config", tl + "/texmf-dist"});
  std::vector<std::string> trees;
  for (const std::string &c : candidates)
    if (is_dir(c)) trees.push_back(c);
  return trees;
}

std::string render(const std::vector<std::string> &trees, const KpsePaths &kp) {
  char date[32];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof date, "%Y-%m-%d", std::localtime(&now));
  std::string list;
  for (const std::string &t : trees) list += (list.empty() ? "" : ",") + t;

  std::string out = "; TEXMF.INI written by 'trovalis init' on " + std::string(date) + ".\n";
  out += "; Trees without an ls-R file are searched on disk; run\n";
  out += "; 'trovalis mklsr TREE' to give one a database.\n\n";
  out += "[common]\nTEXMF={" + list + "}\n";
  if (!kp.common.empty()) out += "; Each type's path as kpathsea searches it (kpsewhich -show-path).\n";
  std::map<std::string, std::string> common = kp.common;
  for (const auto &[program, paths] : kp.programs)
    for (const auto &[type, path] : paths)
      for (const Type &t : kTypes)
        if (type == t.name && common.count(type) == 0)
          common[type] = std::string(t.definition, std::strcspn(t.definition, "+"));
  for (const auto &[type, path] : common) out += "kpse_" + type + "=" + path + "\n";
  out += "\n[QDM]\n";
  for (const Type &t : kTypes) {
    std::string definition = t.definition;
    if (common.count(t.name) > 0) {
      const char *suffixes = std::strchr(t.definition, '+');
      definition = "$kpse_" + std::string(t.name) + (suffixes ? suffixes : "");
    }
    out += "; " + std::string(t.what) + "\n" + t.name + "=" + definition + "\n";
  }
  for (const auto &[program, paths] : kp.programs) {
    out += "\n[" + program + "]\n";
    for (const auto &[type, path] : paths) out += "kpse_" + type + "=" + path + "\n";
  }
  return out;
}

bool write_file(const std::string &path, const std::string &text, bool force) {
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | (force ? 0 : O_EXCL);
  const int fd = open(path.c_str(), flags, 0644);
  if (fd < 0) {
    if (errno == EEXIST)
      std::fprintf(stderr, "trovalis init: %s exists; use --force to replace it\n", path.c_str());
    else
      std::fprintf(stderr, "trovalis init: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      std::fprintf(stderr, "trovalis init: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return close(fd) == 0;
}

}  // namespace

int cmd_init(int argc, char **argv) {
  std::vector<std::string> trees;
  const char *output = nullptr;
  bool force = false, use_kpathsea = true;
  for (int i = 0; i < argc; ++i) {
    const char *a = argv[i];
    if (is_help(a)) {
      std::fputs(kUsage, stdout);
      return kExitOk;
    }
    if (std::strcmp(a, "--tree") == 0 || std::strcmp(a, "-o") == 0) {
      if (i + 1 == argc) return usage_error(kUsage, (std::string(a) + " needs an argument").c_str());
      if (a[1] == 'o') {
        output = argv[++i];
      } else {
        std::string t = argv[++i];
        while (t.size() > 1 && t.back() == '/') t.pop_back();
        trees.push_back(t);
      }
    } else if (std::strcmp(a, "--force") == 0) {
      force = true;
    } else if (std::strcmp(a, "--no-kpathsea") == 0) {
      use_kpathsea = false;
    } else {
      return usage_error(kUsage, (std::string("unexpected argument '") + a + "'").c_str());
    }
  }
  for (const std::string &t : trees) {
    if (t.find_first_of(",;{}") != std::string::npos)
      return usage_error(kUsage, ("a tree may not contain , ; { or }: " + t).c_str());
    if (!is_dir(t)) {
      std::fprintf(stderr, "trovalis init: %s: not a directory\n", t.c_str());
      return kExitNotFound;
    }
  }
  KpsePaths kp;
  if (trees.empty() && use_kpathsea) {
    std::map<std::string, std::string> formats;
    for (const Type &t : kTypes)
      if (t.format != nullptr) formats[t.name] = t.format;
    if (kpse_paths(formats, kp)) trees = kp.trees;
  }
  if (trees.empty()) trees = usual_trees();
  if (trees.empty()) {
    std::fprintf(stderr, "trovalis init: no TeX tree found; name one with --tree DIR\n");
    return kExitNotFound;
  }
  size_t list = 2;  // the braces
  for (const std::string &t : trees) list += t.size() + 1;
  if (list - 1 > kValueMax) {
    std::fprintf(stderr, "trovalis init: the trees' list is longer than %zu characters\n", kValueMax);
    return kExitNotFound;
  }
  for (const Type &t : kTypes)
    if (std::strlen(t.definition) > kDefinitionMax) return kExitNotFound;  // caught by the tests

  const std::string text = render(trees, kp);
  if (output == nullptr) {
    std::fputs(text.c_str(), stdout);
    return kExitOk;
  }
  if (!write_file(output, text, force)) return kExitNotFound;
  std::printf("wrote %s for %zu trees:\n", output, trees.size());
  for (const std::string &t : trees) {
    const bool indexed = access((t + "/ls-R").c_str(), R_OK) == 0;
    std::printf("  %s%s\n", t.c_str(), indexed ? "" : "  (no ls-R: searched on disk)");
  }
  return kExitOk;
}

}  // namespace cli
