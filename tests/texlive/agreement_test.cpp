// Agreement with kpsewhich on the machine's TeX Live trees: a configuration
// made by `trovalis init`, and a deterministic sample of the names the
// trees' ls-R files list, asked of both finders.
//
// The sample leaves out only what the two systems answer differently by
// design (docs/kpsewhich-differences.md): names that another name of the
// trees equals without regard to case or that appear more than once, names
// without '.' for types that add suffixes, names that kpsewhich would first
// try with a suffix appended that another file of the trees has, and the
// names of directories, which ls-R lists among the files.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace trv {
namespace {

namespace fs = std::filesystem;

constexpr size_t kSampleTarget = 2400;

// One file type: the name trovalis init gives it, kpsewhich's format name,
// the directories (below a tree) whose files belong to it, the suffixes
// its files carry (none: any name), and whether names without '.' are
// tried with suffixes.
struct Type {
  const char *name, *format;
  std::vector<std::string> dirs, suffixes;
};

const std::vector<Type> &types() {
  static const std::vector<Type> t = {
      {"tex", "tex", {"tex/"}, {}}, {"tfm", "tfm", {"fonts/tfm/"}, {".tfm"}},
      {"vf", "vf", {"fonts/vf/"}, {".vf"}}, {"pk", "pk", {"fonts/pk/"}, {".pk"}},
      {"type1", "type1 fonts", {"fonts/type1/"}, {".pfb", ".pfa"}},
      {"opentype", "opentype fonts", {"fonts/opentype/"}, {".otf"}},
      {"truetype", "truetype fonts", {"fonts/truetype/"}, {".ttf", ".ttc"}},
      {"afm", "afm", {"fonts/afm/"}, {".afm"}}, {"enc", "enc files", {"fonts/enc/"}, {".enc"}},
      {"map", "map", {"fonts/map/"}, {".map"}}, {"cmap", "cmap files", {"fonts/cmap/"}, {}},
      {"misc", "misc fonts", {"fonts/misc/"}, {}}, {"ofm", "ofm", {"fonts/ofm/"}, {".ofm"}},
      {"ovf", "ovf", {"fonts/ovf/"}, {".ovf"}}, {"ovp", "ovp", {"fonts/ovp/"}, {".ovp"}},
      {"ocp", "ocp", {"omega/ocp/"}, {".ocp"}}, {"otp", "otp", {"omega/otp/"}, {".otp"}},
      {"bib", "bib", {"bibtex/bib/"}, {".bib"}}, {"bst", "bst", {"bibtex/bst/"}, {".bst"}},
      {"ist", "ist", {"makeindex/"}, {".ist"}},
      {"mf", "mf", {"metafont/", "fonts/source/"}, {".mf"}}, {"mft", "mft", {"mft/"}, {".mft"}},
      {"mp", "mp", {"metapost/"}, {".mp"}}, {"fmt", "fmt", {"web2c/"}, {".fmt"}},
      {"lua", "lua", {"scripts/", "tex/"}, {".lua"}}, {"dvips", "dvipsconfig", {"dvips/"}, {}},
      {"source", "source", {"source/"}, {}},
  };
  return t;
}

std::string lower(std::string s) {
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// FNV-1a: a fixed order of the candidates that does not depend on the
// order of the ls-R files.
uint64_t fnv(const std::string &s) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : s) h = (h ^ c) * 1099511628211ull;
  return h;
}

struct Entry {
  std::string tree, dir, name;  // dir relative to the tree, ending in '/'
};

// The files an ls-R lists, read as trovalis reads it: directory lines end
// in ':', directories with a component that begins with '.' are skipped.
std::vector<Entry> read_lsr(const std::string &tree) {
  std::vector<Entry> out;
  std::ifstream in(tree + "/ls-R");
  std::string line, dir;
  bool have_dir = false;
  while (std::getline(in, line)) {
    while (!line.empty() && static_cast<unsigned char>(line.back()) < 32) line.pop_back();
    if (line.empty()) continue;
    if (line.back() == ':') {
      const std::string d = line.substr(0, line.size() - 1);
      have_dir = d.find("/.") == std::string::npos;
      dir = d == "." || d == "./" ? "" : d.substr(d.rfind("./", 0) == 0 ? 2 : 0) + "/";
      continue;
    }
    if (have_dir && line[0] != '%' && line != "." && line != "..")
      out.push_back({tree, dir, line});
  }
  return out;
}

// The trees of TEXMF in the configuration trovalis init wrote.
std::vector<std::string> trees_of(const std::string &ini) {
  std::ifstream in(ini);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("TEXMF={", 0) != 0) continue;
    std::vector<std::string> trees;
    std::stringstream list(line.substr(7, line.size() - 8));
    for (std::string t; std::getline(list, t, ',');) trees.push_back(t);
    return trees;
  }
  return {};
}

struct Item {
  const Type *type;
  std::string name, engine;  // engine: the web2c subdirectory of a format
};

TEST(Agreement, TrovalisAnswersAsKpsewhichDoes) {
  test::Sandbox box;
  const std::vector<std::string> env = box.env();
  if (test::run({"/bin/sh", "-c", "command -v kpsewhich"}, env).status != 0) {
    // CI installs TeX Live and must not pass by skipping.
    if (std::getenv("TROVALIS_REQUIRE_TEXLIVE") != nullptr) FAIL() << "kpsewhich is not installed";
    GTEST_SKIP() << "kpsewhich is not installed (scripts/run-tests installs TeX Live)";
  }

  fs::create_directories(box.path("lib"));
  fs::copy_file(TROVALIS_TEST_CLI, box.path("bin/trovalis"));
  fs::copy_file(TROVALIS_TEST_LIB, box.path("lib/trovalis.so"));
  const test::RunResult init =
      test::run({box.path("bin/trovalis"), "init", "--force", "-o", box.path("TEXMF.INI")}, env);
  ASSERT_EQ(init.status, 0) << init.err;

  // Every file of every tree, and how often each name occurs.
  std::vector<Entry> all;
  for (const std::string &tree : trees_of(box.path("TEXMF.INI"))) {
    std::vector<Entry> e = read_lsr(tree);
    all.insert(all.end(), e.begin(), e.end());
  }
  ASSERT_GT(all.size(), 10000u) << "the TeX Live trees are not installed";
  std::map<std::string, int> occurrences;  // lower-cased name
  std::set<std::string> directories;       // tree + dir, without the final '/'
  for (const Entry &e : all) {
    ++occurrences[lower(e.name)];
    directories.insert(e.tree + "/" + e.dir.substr(0, e.dir.empty() ? 0 : e.dir.size() - 1));
  }

  // Candidates per type, in a fixed order.
  std::map<std::string, std::vector<std::pair<uint64_t, Item>>> candidates;
  for (const Entry &e : all) {
    if (occurrences[lower(e.name)] != 1) continue;
    // ls-R lists subdirectories among the files; only kpsewhich tells them
    // apart.
    if (directories.count(e.tree + "/" + e.dir + e.name) > 0) continue;
    if (e.name.find_first_of("<>\"") != std::string::npos || e.name[0] == '*') continue;
    for (const Type &t : types()) {
      const bool in_dir = std::any_of(t.dirs.begin(), t.dirs.end(),
                                      [&](const std::string &d) { return e.dir.rfind(d, 0) == 0; });
      if (!in_dir) continue;
      if (!t.suffixes.empty()) {
        if (e.name.find('.') == std::string::npos) continue;  // suffix-only search
        bool has_suffix = false, shadowed = false;
        for (const std::string &s : t.suffixes) {
          has_suffix = has_suffix || e.name.ends_with(s);
          shadowed = shadowed || occurrences.count(lower(e.name + s)) > 0;
        }
        if (!has_suffix && t.suffixes.size() == 1 && std::string(t.name) != "tex") continue;
        if (shadowed) continue;  // kpsewhich would try NAME + suffix first
      }
      Item item{&t, e.name, ""};
      if (std::string(t.name) == "fmt") {
        // A format is found by kpsewhich for its engine only.
        const size_t slash = e.dir.find('/', 6);
        if (slash == std::string::npos) continue;
        item.engine = e.dir.substr(6, slash - 6);
      }
      candidates[t.name].push_back({fnv(std::string(t.name) + "/" + e.name), item});
    }
  }
  size_t total = 0;
  for (auto &[name, list] : candidates) {
    std::sort(list.begin(), list.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    total += list.size();
  }

  // Each type gets its share of the target, at least 25 when it has them.
  std::vector<Item> sample;
  for (auto &[name, list] : candidates) {
    size_t take = std::max<size_t>(25, kSampleTarget * list.size() / total);
    take = std::min(take, list.size());
    for (size_t i = 0; i < take; ++i) sample.push_back(list[i].second);
  }
  // Names that exist nowhere: both must say not found.
  for (const Type &t : types())
    for (int i = 0; i < 3; ++i) {
      const std::string ext = t.suffixes.empty() ? ".x" : t.suffixes[0];
      sample.push_back({&t, "trovalis-missing-" + std::to_string(i) + ext, ""});
    }
  ASSERT_GE(sample.size(), 2000u);

  // trovalis: one process answers every request.
  std::string requests;
  for (const Item &it : sample) requests += std::string("<") + it.type->name + ">" + it.name + "\n";
  const test::RunResult ours = test::run({box.path("bin/trovalis"), "request", "-"}, env, requests);
  ASSERT_EQ(ours.status, 0) << ours.err;
  std::vector<std::string> answers;
  std::stringstream lines(ours.out);
  for (std::string l; std::getline(lines, l);) answers.push_back(l == "[file not found]" ? "" : l);
  ASSERT_EQ(answers.size(), sample.size());

  // kpsewhich: one run per format (and engine), names given together; a
  // found path ends with the name asked for, which the sample has once.
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> batches;
  for (const Item &it : sample) batches[{it.type->format, it.engine}].push_back(it.name);
  std::map<std::string, std::string> theirs;  // "format|name" -> path
  fs::create_directories(box.path("cwd"));
  for (const auto &[key, names] : batches) {
    for (size_t at = 0; at < names.size(); at += 200) {
      std::string script = "cd '" + box.path("cwd") + "' && exec kpsewhich -format='" + key.first + "'";
      if (!key.second.empty()) script += " -engine='" + key.second + "'";
      for (size_t i = at; i < std::min(names.size(), at + 200); ++i) script += " '" + names[i] + "'";
      const test::RunResult r = test::run({"/bin/sh", "-c", script}, env);
      std::stringstream found(r.out);
      for (std::string path; std::getline(found, path);) {
        const std::string base = path.substr(path.rfind('/') + 1);
        theirs[key.first + "|" + base] = path;
      }
    }
  }

  size_t wrong = 0, found = 0;
  std::string report;
  for (size_t i = 0; i < sample.size(); ++i) {
    const Item &it = sample[i];
    const auto k = theirs.find(std::string(it.type->format) + "|" + it.name);
    const std::string expected = k == theirs.end() ? "" : k->second;
    if (!expected.empty()) ++found;
    if (answers[i] == expected) continue;
    if (++wrong <= 25)
      report += std::string("  <") + it.type->name + ">" + it.name + ": trovalis '" + answers[i] +
                "', kpsewhich '" + expected + "'\n";
  }
  // The same names through the kpathsea bridge in verify mode: kpsewhich
  // answers as ever and the log holds no disagreement.
#ifdef TROVALIS_TEST_BRIDGE
  fs::copy_file(TROVALIS_TEST_BRIDGE, box.path("lib/trovalis-kpathsea.so"));
  for (const auto &[key, names] : batches) {
    std::string script = "exec '" + box.path("bin/trovalis") + "' run kpsewhich -format='" + key.first + "'";
    if (!key.second.empty()) script += " -engine='" + key.second + "'";
    for (const std::string &n : names) script += " '" + n + "'";
    test::run({"/bin/sh", "-c", script}, box.env({{"TROVALIS_KPATHSEA", "verify"}}));
  }
  const std::string log = test::run({box.path("bin/trovalis"), "log", "-n", "1024"}, env).out;
  EXPECT_EQ(log.find("kpathsea disagrees:"), std::string::npos) << log;
#endif
  std::cout << "sample: " << sample.size() << " names (" << found << " found by kpsewhich) from "
            << all.size() << " files\n";
  EXPECT_EQ(wrong, 0u) << "answers that differ:\n" << report;
  EXPECT_GE(found, 2000u) << "too few names were found to compare";
}

}  // namespace
}  // namespace trv
