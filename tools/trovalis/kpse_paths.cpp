// kpathsea's search paths (kpsewhich -show-path) turned into trovalis paths
// over $TEXMF: one element per subtree of every tree, in kpathsea's order.
#include "kpse_paths.h"

#include <sys/stat.h>

#include <cstdio>
#include <set>
#include <string>

namespace cli {
namespace {

// The engines and tools whose paths depend on their name ($progname,
// $engine, TEXINPUTS.latex ...), with the engine each runs as.
struct Program {
  const char *name, *engine;
};
constexpr Program kPrograms[] = {
    {"tex", "tex"},         {"etex", "pdftex"},     {"latex", "pdftex"},
    {"pdftex", "pdftex"},   {"pdflatex", "pdftex"}, {"xetex", "xetex"},
    {"xelatex", "xetex"},   {"luatex", "luatex"},   {"lualatex", "luahbtex"},
    {"bibtex", ""},         {"dvips", ""},          {"mpost", "mpost"},
};

// Values are read into 256-byte buffers.
constexpr size_t kValueMax = 255;

std::string quoted(const std::string &s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// "env -u VAR ..." for the variables that set a format's path from the
// environment (TEXINPUTS, BIBINPUTS, ...), which kpsewhich lists in its
// --help-formats: the configuration holds the paths from texmf.cnf, not
// what this shell happens to set.
std::string g_unset;

// The output of a kpsewhich run; false when it did not run.
bool kpsewhich(const std::string &args, std::string &out) {
  out.clear();
  FILE *p = popen((g_unset + "kpsewhich " + args + " 2>/dev/null").c_str(), "r");
  if (p == nullptr) return false;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  const int status = pclose(p);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return status == 0;
}

std::vector<std::string> split(const std::string &s, char sep) {
  std::vector<std::string> parts;
  for (size_t start = 0;;) {
    const size_t at = s.find(sep, start);
    parts.push_back(s.substr(start, at == std::string::npos ? at : at - start));
    if (at == std::string::npos) return parts;
    start = at + 1;
  }
}

bool is_dir(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// "dir//" for a subtree, "dir" otherwise ("tex///" is a subtree too).
std::string normal(std::string e) {
  if (e.rfind("!!", 0) == 0) e.erase(0, 2);
  const bool subtree = e.size() > 2 && e.compare(e.size() - 2, 2, "//") == 0;
  while (e.size() > 1 && e.back() == '/') e.pop_back();
  return subtree ? e + "//" : e;
}

std::string base_dir(const std::string &e) {
  const bool subtree = e.size() > 2 && e.compare(e.size() - 2, 2, "//") == 0;
  return subtree ? e.substr(0, e.size() - 2) : e;
}

// kpathsea's expanded path as a trovalis path: a run of elements that
// names the same place below each tree, in the trees' order, becomes
// $TEXMF/place; "." stays; other directories are kept when they exist.
std::string compress(const std::string &path, const std::vector<std::string> &all_trees,
                     const std::vector<std::string> &trees) {
  std::vector<std::string> out;
  std::string run_rest;
  std::vector<std::string> run;  // the trees of the current run
  auto flush = [&] {
    if (!run.empty()) {
      std::vector<std::string> existing;
      for (const std::string &t : run)
        if (is_dir(t)) existing.push_back(t);
      bool somewhere = false;
      for (const std::string &t : existing) somewhere = somewhere || is_dir(base_dir(t + run_rest));
      if (!somewhere) {
        // No tree has it ($TEXMF/tex/kpsewhich//): nothing to search.
      } else if (existing == trees) {
        out.push_back("$TEXMF" + run_rest);
      } else {
        for (const std::string &t : existing)
          if (is_dir(base_dir(t + run_rest))) out.push_back(t + run_rest);
      }
    }
    run.clear();
  };
  for (const std::string &raw : split(path, ':')) {
    const std::string e = normal(raw);
    if (e.empty()) continue;
    const std::string *tree = nullptr;
    for (const std::string &t : all_trees)
      if (e.compare(0, t.size(), t) == 0 && (e.size() == t.size() || e[t.size()] == '/') &&
          (tree == nullptr || t.size() > tree->size()))
        tree = &t;
    if (tree == nullptr) {
      flush();
      if (e == "." || is_dir(base_dir(e))) out.push_back(e);
      continue;
    }
    const std::string rest = e.substr(tree->size());
    // A run names each tree once, in order ({$progname,pdftex,...} may
    // name a place twice in a row).
    bool again = false;
    for (const std::string &t : run) again = again || t == *tree;
    if (!run.empty() && (rest != run_rest || again)) flush();
    run_rest = rest;
    run.push_back(*tree);
  }
  flush();
  std::string joined;
  for (const std::string &e : out) joined += (joined.empty() ? "" : ";") + e;
  return joined;
}

// The raw path of each format in `kpsewhich --help-formats` output, by
// format name: tells which formats a program's name changes.
std::map<std::string, std::string> raw_paths(const std::string &help) {
  std::map<std::string, std::string> raw;
  std::string format;
  for (const std::string &line : split(help, '\n')) {
    const size_t at = line.find("[original path (from ");
    if (at != std::string::npos) {
      const size_t eq = line.find(" = ", at);
      if (eq != std::string::npos && !format.empty()) raw[format] = line.substr(eq + 3);
    } else if (!line.empty() && line[0] != ' ') {
      format = line.substr(0, line.find_first_of(":("));
      while (!format.empty() && format.back() == ' ') format.pop_back();
    }
  }
  return raw;
}

}  // namespace

bool kpse_paths(const std::map<std::string, std::string> &formats, KpsePaths &out) {
  std::string text;
  if (!kpsewhich("--expand-braces='$TEXMF'", text) || text.empty()) return false;
  std::vector<std::string> all_trees;
  for (const std::string &t : split(text, ':')) {
    const std::string n = normal(t);
    if (n.empty()) continue;
    all_trees.push_back(n);
    if (is_dir(n)) out.trees.push_back(n);
  }
  if (out.trees.empty()) return false;

  std::string help;
  kpsewhich("--help-formats", help);
  std::set<std::string> vars;
  for (const std::string &line : split(help, '\n')) {
    const size_t at = line.find("[variables: ");
    if (at == std::string::npos) continue;
    for (const std::string &v : split(line.substr(at + 12, line.find(']', at) - at - 12), ' '))
      if (!v.empty() && v.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") == std::string::npos)
        vars.insert(v);
  }
  for (const std::string &v : vars) g_unset += (g_unset.empty() ? "env -u " : "-u ") + v + " ";
  const std::map<std::string, std::string> common_raw = raw_paths(help);
  for (const auto &[type, format] : formats) {
    // Without an engine kpathsea finds no format file (web2c/$engine); the
    // type keeps its own path for programs without a section, and each
    // engine gets kpathsea's.
    const auto raw = common_raw.find(format);
    if (raw != common_raw.end() && raw->second.find("$engine") != std::string::npos) continue;
    if (kpsewhich("-show-path=" + quoted(format), text)) {
      const std::string value = compress(text, all_trees, out.trees);
      if (value.size() <= kValueMax) out.common[type] = value;
    }
  }
  for (const Program &p : kPrograms) {
    std::string options = "-progname=" + std::string(p.name);
    if (p.engine[0] != '\0') options += " -engine=" + std::string(p.engine);
    kpsewhich(options + " --help-formats", help);
    const std::map<std::string, std::string> raw = raw_paths(help);
    for (const auto &[type, format] : formats) {
      const auto r = raw.find(format), c = common_raw.find(format);
      if (r == raw.end()) continue;
      const bool depends = r->second.find("$progname") != std::string::npos ||
                           r->second.find("$engine") != std::string::npos;
      if (!depends && c != common_raw.end() && c->second == r->second) continue;
      if (!kpsewhich(options + " -show-path=" + quoted(format), text)) continue;
      const std::string value = compress(text, all_trees, out.trees);
      const auto c2 = out.common.find(type);
      if ((c2 == out.common.end() || value != c2->second) && value.size() <= kValueMax)
        out.programs[p.name][type] = value;
    }
  }
  return true;
}

}  // namespace cli
