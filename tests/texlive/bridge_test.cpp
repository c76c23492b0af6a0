// TeX Live's own programs through the kpathsea bridge (`trovalis run`): the
// same documents give byte-identical outputs and recorder files with and
// without it, under every configuration, broken ones included.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/sandbox.h"

namespace trv {
namespace {

namespace fs = std::filesystem;
using Env = std::map<std::string, std::string>;

const char *const kDocuments[][2] = {
    {"doc.tex",
     "\\documentclass{article}\\usepackage{amsmath,amssymb,graphicx,booktabs,xcolor,hyperref}\n"
     "\\begin{document}\\title{Bridged}\\author{T. Rovalis}\\maketitle\\section{One}\n"
     "As in \\cite{knuth}, \\(e^{i\\pi}+1=0\\) and \\begin{align}a&=\\sum_{k=1}^n k^2\\end{align}\n"
     "\\begin{tabular}{ll}\\toprule A&B\\\\\\midrule 1&2\\\\\\bottomrule\\end{tabular}\n"
     "\\textcolor{blue}{blue} \\url{https://example.org}\n"
     "\\bibliographystyle{plain}\\bibliography{refs}\\end{document}\n"},
    {"refs.bib", "@book{knuth, author={Donald E. Knuth}, title={The {\\TeX}book},\n"
                 "  publisher={Addison-Wesley}, year={1984}}\n"},
    {"plain.tex", "\\font\\big=cmbx12 {\\big A plain page}\\par\\input story\n"
                  "$\\sum_{i=1}^n i={n(n+1)\\over 2}$\\bye\n"},
    {"env.tex", "\\documentclass{article}\\usepackage{mystyle}\\begin{document}\\mine\\end{document}\n"},
    {"styles/sub/mystyle.sty", "\\ProvidesPackage{mystyle}\\newcommand\\mine{from TEXINPUTS}\n"},
};

// One document's run: the commands (each started through `trovalis run`
// when bridged) and the files they write.
struct Scenario {
  const char *name, *commands;
  std::vector<std::string> outputs;
  Env env;
};
const Scenario kScenarios[] = {
    {"latex", "$R pdflatex -recorder doc && $R bibtex doc && $R pdflatex doc && $R pdflatex -recorder doc",
     {"doc.pdf", "doc.bbl", "doc.fls", "doc.log"}, {}},
    {"plain", "$R tex -recorder plain && $R dvips -q plain.dvi -o plain.ps",
     {"plain.dvi", "plain.ps", "plain.fls"}, {}},
    {"texinputs", "$R pdflatex -recorder env", {"env.pdf", "env.fls"}, {{"TEXINPUTS", "./styles//:"}}},
};

struct Played {
  int status = -1;
  std::string out, err;
  std::map<std::string, std::string> files;
};

class Bridge : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char *p : {"pdflatex", "bibtex", "tex", "dvips", "kpsewhich", "mktexlsr"})
      if (std::system(("command -v " + std::string(p) + " >/dev/null").c_str()) != 0) missing = p;
#ifndef TROVALIS_TEST_BRIDGE
    if (missing.empty()) missing = "the kpathsea bridge (libkpathsea-dev)";
#else
    if (!missing.empty()) return;
    box = new test::Sandbox;
    fs::create_directories(box->path("lib"));
    fs::create_directories(box->home() + "/texmf/tex/latex");
    fs::copy_file(TROVALIS_TEST_CLI, box->path("bin/trovalis"));
    fs::copy_file(TROVALIS_TEST_LIB, box->path("lib/trovalis.so"));
    fs::copy_file(TROVALIS_TEST_BRIDGE, box->path("lib/trovalis-kpathsea.so"));
    sh("mktexlsr ~/texmf && bin/trovalis init --force -o TEXMF.INI", {});
    for (const Scenario &s : kScenarios) reference[s.name] = play(s, {}, false);
#endif
  }
  static void TearDownTestSuite() { delete box; }
  void SetUp() override {
#ifdef TROVALIS_TEST_BRIDGE_SANITIZED
    GTEST_SKIP() << "the bridge is not built with the sanitizers";
#endif
    if (missing.empty()) return;
    if (std::getenv("TROVALIS_REQUIRE_TEXLIVE") != nullptr) FAIL() << missing << " is missing";
    GTEST_SKIP() << missing << " is missing (scripts/run-tests installs TeX Live)";
  }

  static test::RunResult sh(const std::string &script, const Env &extra) {
    Env env = {{"SOURCE_DATE_EPOCH", "1700000000"}, {"FORCE_SOURCE_DATE", "1"}};
    for (const auto &[k, v] : extra) env[k] = v;
    return test::run({"/bin/sh", "-c", "cd '" + box->root() + "' && " + script}, box->env(env));
  }

  // Plays a scenario in a fresh work directory (always the same path: the
  // recorder files name it).
  static Played play(const Scenario &s, Env env, bool bridged) {
    fs::remove_all(box->path("work"));
    for (const auto &doc : kDocuments) box->write(std::string("work/") + doc[0], doc[1]);
    for (const auto &[k, v] : s.env) env[k] = v;
    env["R"] = bridged ? box->path("bin/trovalis") + " run" : "";
    const test::RunResult r =
        sh("cd work && { " + std::string(s.commands) + "; } </dev/null", env);
    Played run{r.status, r.out, r.err, {}};
    for (const std::string &f : s.outputs) {
      // Knuth's tex dates its output by the clock (" TeX output 2024.01.31:1200"),
      // whatever SOURCE_DATE_EPOCH says.
      std::string text = test::read_file(box->path("work/" + f));
      for (size_t at = 0; (at = text.find(" TeX output ", at)) != std::string::npos; at += 12)
        text.replace(at + 12, std::min<size_t>(15, text.size() - at - 12), 15, '#');
      run.files[f] = text;
    }
    return run;
  }

  static std::string log() { return sh("bin/trovalis log -n 1024", {}).out; }

  static inline test::Sandbox *box = nullptr;
  static inline std::string missing;
  static inline std::map<std::string, Played> reference;
};

// Every configuration, working or broken, leaves the programs' results as
// kpathsea alone gives them; `instance` asks for a region of its own, made
// by `prepare` (a sandbox's instance, removed with it).
struct Config {
  const char *name;
  Env env;
  bool own_region;
  void (*prepare)(const std::string &instance);
};

void other_version(const std::string &instance) {
  std::ofstream region("/dev/shm/zelvan-tds-mem-" + std::to_string(getuid()) + "-" + instance);
  std::string bytes(8000000, '\0');
  bytes[0] = 7;    // layout version 7
  bytes[8] = 100;  // finished
  region << bytes;
}

TEST_F(Bridge, OutputsAreKpathseasUnderEveryConfiguration) {
  const Config configs[] = {
      {"bridged", {}, false, nullptr},
      {"verify", {{"TROVALIS_KPATHSEA", "verify"}}, false, nullptr},
      {"off", {{"TROVALIS_KPATHSEA", "off"}}, false, nullptr},
      {"no configuration", {{"TROVALIS_INI", "/nonexistent/TEXMF.INI"}}, true, nullptr},
      {"bad instance", {{"TROVALIS_INSTANCE", "no/such instance"}}, false, nullptr},
      {"other version", {}, true, other_version},
      {"full region", {{"TROVALIS_MAP_SIZE", "1048576"}}, true, nullptr},
  };
  for (const Config &c : configs) {
    test::Sandbox own;
    Env env = c.env;
    if (c.own_region) env["TROVALIS_INSTANCE"] = own.instance();
    if (c.prepare) c.prepare(own.instance());
    for (const Scenario &s : kScenarios) {
      SCOPED_TRACE(std::string(c.name) + ", " + s.name);
      const Played &want = reference[s.name];
      const Played got = play(s, env, true);
      ASSERT_EQ(got.status, 0) << got.out << got.err;
      EXPECT_EQ(got.err, want.err);
      EXPECT_EQ(got.out, want.out);
      for (const auto &[file, text] : want.files) EXPECT_TRUE(got.files.at(file) == text) << file;
    }
  }
  EXPECT_EQ(log().find("kpathsea disagrees:"), std::string::npos) << log();

  // Warm, the bridged programs open no ls-R: trovalis answered them all.
  if (std::system("command -v strace >/dev/null") == 0) {
    const test::RunResult r = sh("cd work && strace -f -e trace=open,openat -o ../trace " +
                                 box->path("bin/trovalis") + " run pdflatex doc </dev/null", {});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(test::read_file(box->path("trace")).find("/ls-R\""), std::string::npos);
  }
}

// A package that the distribution installs (its ls-R rewritten by
// mktexlsr) is found by the next bridged program; and four programs that
// start together on a fresh region all finish.
TEST_F(Bridge, FreshAfterInstallsAndInParallel) {
  EXPECT_EQ(sh("bin/trovalis run kpsewhich fresh.sty", {}).status, 1);
  box->write("home/texmf/tex/latex/fresh/fresh.sty", "\\ProvidesPackage{fresh}\n");
  sh("mktexlsr ~/texmf", {});
  EXPECT_EQ(sh("bin/trovalis run kpsewhich fresh.sty", {}).out,
            box->home() + "/texmf/tex/latex/fresh/fresh.sty\n");

  test::Sandbox fresh;
  for (int i = 0; i < 4; ++i) box->write("p" + std::to_string(i) + "/doc.tex", kDocuments[0][1]);
  std::vector<test::RunResult> results(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      results[i] = sh("cd p" + std::to_string(i) + " && ../bin/trovalis run pdflatex doc </dev/null",
                      {{"TROVALIS_INSTANCE", fresh.instance()}});
    });
  for (std::thread &t : threads) t.join();
  for (const test::RunResult &r : results) {
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("Output written on doc.pdf"), std::string::npos);
    EXPECT_EQ(r.err, "");
  }
}

}  // namespace
}  // namespace trv
