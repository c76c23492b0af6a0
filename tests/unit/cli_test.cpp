// The trovalis tool as a user runs it from an installed tree: every
// command's output and exit status through real processes, and the demo
// session.
#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "support/sandbox.h"

namespace trv {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// ROOT/bin/trovalis and ROOT/lib/trovalis.so beside ROOT/TEXMF.INI, as
// `cmake --install` lays them out.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    namespace fs = std::filesystem;
    fs::create_directories(box.path("lib"));
    fs::copy_file(TROVALIS_TEST_CLI, box.path("bin/trovalis"));
    fs::copy_file(TROVALIS_TEST_LIB, box.path("lib/trovalis.so"));
  }
  test::RunResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), box.path("bin/trovalis"));
    return test::run(args, box.env());
  }
  test::Sandbox box;
};

TEST_F(CliTest, UsageAndExitStatus) {
  struct Case {
    std::vector<std::string> args;
    int status;
    const char *out, *err;
  } cases[] = {
      {{"--help"}, 0, "Usage: trovalis", ""},
      {{"--version"}, 0, "trovalis ", ""},
      {{"log", "--help"}, 0, "Usage: trovalis log", ""},
      {{}, 2, "", "Usage: trovalis"},
      {{"frobnicate"}, 2, "", "unknown command 'frobnicate'"},
      {{"log", "-n", "many"}, 2, "", "-n takes a count"},
      {{"log", "extra"}, 2, "", "unexpected argument"},
      {{"post"}, 2, "", "TEXT is missing"},
      {{"find", "--help"}, 0, "Usage: trovalis find", ""},
      {{"why", "--help"}, 0, "Usage: trovalis why", ""},
      {{"request", "--help"}, 0, "Usage: trovalis request", ""},
      {{"expand", "--help"}, 0, "Usage: trovalis expand", ""},
      {{"path", "--help"}, 0, "Usage: trovalis path", ""},
      {{"newfile", "--help"}, 0, "Usage: trovalis newfile", ""},
      {{"reset", "--help"}, 0, "Usage: trovalis reset", ""},
      {{"report", "--help"}, 0, "Usage: trovalis report", ""},
      {{"find", "tex"}, 2, "", "TYPE and at least one NAME"},
      {{"find", "-p"}, 2, "", "-p needs a PROGRAM"},
      {{"find", "-p", std::string(64, 'p'), "tex", "x"}, 2, "", "longer than 63"},
      {{"find", "-x", "tex", "x"}, 2, "", "unknown option '-x'"},
      {{"why", "tex"}, 2, "", "TYPE and one NAME"},
      {{"expand"}, 2, "", "exactly one TEXT"},
      {{"expand", "a>b"}, 2, "", "may not contain '>'"},
      {{"path", std::string(300, 'a')}, 2, "", "too long"},
      {{"newfile", "plain.tex"}, 2, "", "must name the file's directory"},
      {{"newfile", "/" + std::string(300, 'a')}, 2, "", "longer than 255"},
      {{"reset", "now"}, 2, "", "takes no arguments"},
      {{"-v"}, 2, "", "a command is required"},
  };
  for (const Case &c : cases) {
    const test::RunResult r = cli(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_THAT(r.out, StartsWith(c.out));
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
}

TEST_F(CliTest, HelpNeedsNoConfiguration) {
  std::remove(box.path("TEXMF.INI").c_str());
  EXPECT_EQ(cli({"--help"}).status, 0);
  const test::RunResult r = cli({"log"});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("Can't locate TEXMF.INI file."));
}

TEST_F(CliTest, LogShowsTheNewestOldestFirst) {
  ASSERT_EQ(cli({"post", "first"}).status, 0);
  const test::RunResult second = cli({"post", "-t", "4", "second"});
  EXPECT_EQ(second.err, "") << "the start-up line only with -v";
  EXPECT_EQ(cli({"-v", "post", "third"}).err, "Opened Memory is 'REUSED', size=8000000\n");
  const test::RunResult r = cli({"log", "-n", "2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "trovalis: second\ntrovalis: third\n");
  EXPECT_EQ(cli({"log", "-n", "1"}).out, "trovalis: third\n");
}

TEST_F(CliTest, LogFollowPrintsWhatOthersPost) {
  ASSERT_EQ(cli({"post", "before"}).status, 0);
  test::Child follower({box.path("bin/trovalis"), "log", "-n", "1", "--follow"}, box.env());
  EXPECT_EQ(follower.read_line(), "trovalis: before");
  ASSERT_EQ(cli({"post", "after"}).status, 0);
  EXPECT_EQ(follower.read_line(), "trovalis: after");
  follower.kill_and_wait(SIGTERM);
}

// A small tree with a database, a disk-only directory and an alias.
class CliSearchTest : public CliTest {
 protected:
  CliSearchTest() {
    box.write("TEXMF.INI",
              "[common]\nTEXMF={$SELFAUTOPARENT/texmf}\n"
              "[QDM]\nls-R=$TEXMF\ntex=$TEXMF/tex//+.tex\ntfm=$TEXMF/fonts//+.tfm\n"
              "[latex]\nTEXMF={$SELFAUTOPARENT/latex}\n");
    box.write("texmf/tex/plain/plain.tex", "x");
    box.write("texmf/fonts/cmr10.tfm", "x");
    box.write("texmf/ls-R", "% ls-R\n./tex/plain:\nplain.tex\n./fonts:\ncmr10.tfm\n");
    box.write("texmf/aliases.ini", "[Aliases]\nroman.tfm=cmr10.tfm\n");
    box.write("latex/tex/base/plain.tex", "x");
  }
  std::string p(const std::string &rel) const { return box.path(rel); }
};

TEST_F(CliSearchTest, CommandsAnswerAndExitAsDocumented) {
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out;
  } cases[] = {
      {{"find", "tex", "plain"}, 0, p("texmf/tex/plain/plain.tex") + "\n"},
      {{"find", "tfm", "cmr10", "nosuch", "roman.tfm"}, 1,
       p("texmf/fonts/cmr10.tfm") + "\n" + p("texmf/fonts/cmr10.tfm") + "\n"},
      {{"find", "-p", "latex", "tex", "plain.tex"}, 0, p("latex/tex/base/plain.tex") + "\n"},
      {{"find", "tex", "nosuch"}, 1, ""},
      {{"request", "<tex>plain", "<tex>nosuch", "!Make", "!nonsense", "tex<tfm"}, 0,
       p("texmf/tex/plain/plain.tex") + "\n[file not found]\n[AutoMake is enabled]\n"
       "[invalid QDM management command]\n[Invalid request format]\n"},
      {{"expand", "$TEXMF"}, 0, "{" + p("texmf") + "}\n"},
      {{"expand", "-p", "latex", "$TEXMF"}, 0, "{" + p("latex") + "}\n"},
      {{"path", "$TEXMF/{tex,fonts,none}"}, 0, p("texmf/tex") + "\n" + p("texmf/fonts") + "\n"},
      {{"path", "$TEXMF/none"}, 1, ""},
      {{"reset"}, 0, "[QDM is Finished NOW]\n"},
  };
  for (const auto &c : cases) {
    const test::RunResult r = cli(c.args);
    EXPECT_EQ(r.status, c.status) << c.args[0] << " " << r.err;
    EXPECT_EQ(r.out, c.out) << c.args[0];
  }
}

TEST_F(CliSearchTest, RequestsFromStandardInput) {
  std::string input, expected;
  for (int i = 0; i < 2000; ++i) {
    input += i % 2 ? "<tex>plain\r\n" : "<tfm>nosuch" + std::to_string(i) + "\n";
    expected += i % 2 ? p("texmf/tex/plain/plain.tex") + "\n" : "[file not found]\n";
  }
  const test::RunResult r =
      test::run({box.path("bin/trovalis"), "request", "-"}, box.env(), input + "!Trace");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected + "[QDM trace mode switched ON]\n");
}

TEST_F(CliSearchTest, NewFileIsFoundAfterACachedMiss) {
  EXPECT_EQ(cli({"find", "tex", "late"}).status, 1);
  box.write("texmf/tex/plain/late.tex", "x");
  EXPECT_EQ(cli({"find", "tex", "late"}).status, 1) << "the miss is cached";
  const test::RunResult r = cli({"newfile", p("texmf/tex/plain/late.tex")});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "1\n") << "the stem's cached miss was forgotten";
  EXPECT_EQ(cli({"find", "tex", "late"}).out, p("texmf/tex/plain/late.tex") + "\n");
  EXPECT_THAT(test::read_file(p("texmf/ls-R")), ::testing::EndsWith("\n./tex/plain:\nlate.tex\n"));
}

TEST_F(CliSearchTest, WhyExplainsHitsAndMisses) {
  const test::RunResult found = cli({"why", "tfm", "roman.tfm"});
  EXPECT_EQ(found.status, 0);
  EXPECT_THAT(found.out, HasSubstr("definition:  tfm=$TEXMF/fonts//+.tfm\n"));
  EXPECT_THAT(found.out, HasSubstr("  " + p("texmf/fonts") + "//\n"));
  EXPECT_THAT(found.out, HasSubstr("Aliases: roman.tfm cmr10.tfm"));
  EXPECT_THAT(found.out, HasSubstr("Found in a database: " + p("texmf/fonts/cmr10.tfm")));
  EXPECT_THAT(found.out, HasSubstr("found: " + p("texmf/fonts/cmr10.tfm") + "\n"));

  ASSERT_EQ(cli({"find", "tex", "gone"}).status, 1);  // a cached miss first
  const test::RunResult missing = cli({"why", "tex", "gone"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.out, HasSubstr("Search File: gone.tex"));
  EXPECT_THAT(missing.out, HasSubstr("A database covers it and does not list the name: "));
  EXPECT_THAT(missing.out, HasSubstr("not found: gone\n"));

  // The trace switch was this process's own: a later process does not trace.
  cli({"find", "tfm", "cmr10"});
  EXPECT_THAT(cli({"log", "-n", "3"}).out, Not(HasSubstr("Search File: cmr10")));
}

TEST_F(CliSearchTest, ReportShowsTheCachedAnswers) {
  cli({"find", "tfm", "cmr10"});
  const test::RunResult r = cli({"report"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("\t\tThis Report is generated by Zelvan QDM 9\n"));
  EXPECT_THAT(r.out, HasSubstr("1\ttrovalis (program)\n1.1\t   tfm (file type)\n"));
  EXPECT_THAT(r.out, HasSubstr("1.1.1\t      cmr10 -> " + p("texmf/fonts/cmr10.tfm") + "\n"));
}

// mklsr writes the database the loader reads: files only, sorted, dot
// directories and link cycles left out, through a temporary file.
TEST_F(CliSearchTest, MklsrIndexesATreeAndResetsTheCache) {
  namespace fs = std::filesystem;
  box.write("texmf/tex/plain/later.tex", "x");
  box.write("texmf/tex/plain/.hidden", "x");
  box.write("texmf/.git/objects/x", "x");
  fs::create_directory_symlink("..", box.path("texmf/tex/loop"));
  EXPECT_EQ(cli({"find", "tex", "later"}).status, 1) << "the old ls-R does not list it";

  const test::RunResult r = cli({"mklsr", p("texmf/")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, p("texmf") + "/ls-R: 4 directories, 5 files\n");
  EXPECT_EQ(test::read_file(p("texmf/ls-R")),
            "% ls-R -- filename database for trovalis.\n\n./:\naliases.ini\n"
            "\n./fonts:\ncmr10.tfm\n\n./tex:\n"
            "\n./tex/plain:\n.hidden\nlater.tex\nplain.tex\n");
  for (const auto &e : fs::directory_iterator(p("texmf")))
    EXPECT_EQ(e.path().filename().string().rfind(".ls-R.", 0), std::string::npos) << e.path();
  EXPECT_EQ(cli({"find", "tex", "later"}).out, p("texmf/tex/plain/later.tex") + "\n")
      << "the cache was reset and reads the new database";
}

TEST_F(CliSearchTest, MklsrRefusesWhatItCannotIndex) {
  const struct {
    std::vector<std::string> args;
    int status;
    const char *err;
  } cases[] = {
      {{"mklsr"}, 2, "at least one DIR"},
      {{"mklsr", "--fast", "x"}, 2, "unknown option '--fast'"},
      {{"mklsr", "--no-reset", "/no/such/tree"}, 1, "/no/such/tree: not a directory"},
  };
  for (const auto &c : cases) {
    const test::RunResult r = cli(c.args);
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
}

TEST_F(CliSearchTest, InitWritesAConfigurationThatWorks) {
  const std::string ini = p("TEXMF.INI");
  const struct {
    std::vector<std::string> args;
    int status;
    const char *out, *err;
  } cases[] = {
      {{"init", "--tree", p("texmf"), "-o", ini}, 1, "", "exists; use --force"},
      {{"init", "--tree", p("none")}, 1, "", "not a directory"},
      {{"init", "--tree", p("a,b")}, 2, "", "may not contain"},
      {{"init", "-o"}, 2, "", "-o needs an argument"},
      {{"init", "--tree", p("texmf"), "--tree", p("latex")}, 0, "; TEXMF.INI written", ""},
      {{"init", "--tree", p("texmf"), "-o", ini, "--force"}, 0, "wrote ", ""},
  };
  for (const auto &c : cases) {
    const test::RunResult r = cli(c.args);
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_THAT(r.out, StartsWith(c.out));
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
  const std::string text = test::read_file(ini);
  EXPECT_THAT(text, HasSubstr("\n[common]\nTEXMF={" + p("texmf") + "}\n"));
  bool in_qdm = false;
  for (std::stringstream lines(text); !lines.eof();) {
    std::string l;
    std::getline(lines, l);
    if (l[0] == '[') in_qdm = l == "[QDM]";
    if (in_qdm && !l.empty() && l[0] != ';' && l[0] != '[') {
      EXPECT_LE(l.size() - l.find('=') - 1, 63u) << l;
    }
  }
  box.write("texmf/fonts/tfm/public/cmr12.tfm", "x");
  ASSERT_EQ(cli({"mklsr", "--no-reset", p("texmf")}).status, 0);
  EXPECT_EQ(cli({"find", "tfm", "cmr12"}).out, p("texmf/fonts/tfm/public/cmr12.tfm") + "\n");
  EXPECT_EQ(cli({"find", "tex", "plain"}).out, p("texmf/tex/plain/plain.tex") + "\n");
}

// The demo session from the README, run against the tool and library of
// this build in a copy of the demo distribution.
TEST(DemoSession, RunsToTheEnd) {
  namespace fs = std::filesystem;
  test::Sandbox box;
  const std::string dist = box.path("demo");
  fs::copy(TROVALIS_SOURCE_DIR "/demo", dist, fs::copy_options::recursive);
  fs::create_directories(dist + "/lib");
  fs::copy_file(TROVALIS_TEST_CLI, dist + "/bin/trovalis");
  fs::copy_file(TROVALIS_TEST_LIB, dist + "/lib/trovalis.so");
  const test::RunResult r = test::run({dist + "/session", dist}, box.env());
  EXPECT_EQ(r.status, 0) << r.err;
  for (const std::string &expect : std::vector<std::string>{
           "Opened Memory is 'NEW', size=0",
           "Opened Memory is 'REUSED', size=8000000",
           "the second process did not search",
           dist + "/texmf/fonts/tfm/public/cm/cmr10.tfm",  // the alias
           dist + "/texmf-latex/tex/latex/base/article.cls",
           dist + "/texmf-local/fonts/tfm/demo/cmr17.tfm",  // made
           "Message: mkfont: generating cmr17.tfm",
           dist + "/texmf-local/bibtex/bib/refs.bib",  // copied
           "Found in a database: ",
           "Totally, ",
       })
    EXPECT_THAT(r.out + r.err, HasSubstr(expect));
  EXPECT_TRUE(fs::exists(dist + "/texmf-local/bibtex/bib/refs.bib"));
}

}  // namespace
}  // namespace trv
