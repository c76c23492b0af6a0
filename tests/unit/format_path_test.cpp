// Format records: definitions split into path, suffixes and make command,
// and records cached per program key.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

struct Record {
  int answers = 0;
  std::vector<std::string> path;
  std::string suffixes = "(none)", make = "(none)";
};

Record read_record(const char *p) {
  Record r;
  r.answers = loadi(p);
  for (int32_t e = loadi(p + 4); e > 0; e = loadi(at(e, 4))) r.path.emplace_back(text_at(e + 8));
  if (loadi(p + 8)) r.suffixes = text_at(loadi(p + 8));
  if (loadi(p + 12)) r.make = text_at(loadi(p + 12));
  return r;
}

class FormatPathTest : public ::testing::Test {
 protected:
  FormatPathTest() {
    std::filesystem::create_directories(attached.box.path("texmf/fonts/tfm"));
    std::filesystem::create_directories(attached.box.path("latex/tex"));
    std::filesystem::create_directories(attached.box.path("plain/tex"));
  }
  test::AttachedTest attached{
      "[common]\n"
      "TEXMF=$SELFAUTOPARENT/texmf\n"
      "[latex]\nTREE=$SELFAUTOPARENT/latex\n"
      "[tex]\nTREE=$SELFAUTOPARENT/plain\n"
      "[QDM]\n"
      "tfm=$TEXMF/fonts/tfm//+.tfm*mktextfm\n"
      "star=/a*b\n"
      "plus=/a+\n"
      "macros=$TREE/tex;./rel;$TEXMF/missing+.tex.ltx\n"};
  CacheGuard guard;
};

TEST_F(FormatPathTest, DefinitionsSplitIntoTheirParts) {
  const std::string root = attached.box.root();
  struct Case {
    const char *type;
    std::vector<std::string> path;
    const char *suffixes, *make;
  } cases[] = {
      {"tfm", {root + "/texmf/fonts/tfm//"}, ".tfm", "mktextfm"},
      {"star", {}, "(none)", "(none)"},
      {"plus", {}, "", "(none)"},
      {"undefined", {}, "(none)", "(none)"},
  };
  for (const Case &c : cases) {
    const char *p = FormatPath("", c.type);
    ASSERT_NE(p, nullptr) << c.type;
    const Record r = read_record(p);
    EXPECT_EQ(r.path, c.path) << c.type;
    EXPECT_EQ(r.suffixes, c.suffixes) << c.type;
    EXPECT_EQ(r.make, c.make) << c.type;
    EXPECT_GT(r.answers, 0);
  }
}

TEST_F(FormatPathTest, RecordsAreCachedPerProgramKey) {
  Trace = 1;
  const int posted = QDMMsgInfo()[1];
  std::snprintf(ProgName, sizeof ProgName, "latex");
  const char *latex = FormatPath(ProgName, "macros");
  const int after_build = QDMMsgInfo()[1];
  EXPECT_GT(after_build, posted);
  EXPECT_EQ(FormatPath("LATEX", "MACROS"), latex);
  EXPECT_EQ(QDMMsgInfo()[1], after_build) << "a cached record logs nothing";
  std::snprintf(ProgName, sizeof ProgName, "tex");
  const char *tex = FormatPath(ProgName, "macros");
  Trace = 0;
  EXPECT_NE(tex, latex);
  EXPECT_EQ(read_record(latex).path,
            std::vector<std::string>{attached.box.root() + "/latex/tex"});
  EXPECT_EQ(read_record(tex).path, std::vector<std::string>{attached.box.root() + "/plain/tex"});
  EXPECT_EQ(read_record(tex).suffixes, ".tex.ltx");
}

TEST_F(FormatPathTest, TraceShowsTheSteps) {
  Trace = 1;
  FormatPath("QDM", "undefined");
  Trace = 0;
  char *t[12];
  const int n = QDMGetMessages(t, 12);
  std::vector<std::string> lines(t, t + n);
  for (const char *want : {"QDM-prog: Look for a Format: undefined", "QDM-prog: Use the path: (none)",
                           "QDM-prog: RAW Search Path: undefined",
                           "QDM-prog: Expanded variables: undefined",
                           "QDM-prog: Pass absent directory: undefined"})
    EXPECT_THAT(lines, ::testing::Contains(want));
}

TEST_F(FormatPathTest, ATypeReferringToItselfIsARecursion) {
  attached.box.write("TEXMF.INI", "[QDM]\nloop=$LOOP/x\n[common]\nLOOP=/tmp\n");
  const char *p = FormatPath("", "loop");
  ASSERT_NE(p, nullptr);
  char *t[4];
  const int n = QDMGetMessages(t, 4);
  std::vector<std::string> lines(t, t + n);
  EXPECT_THAT(lines, ::testing::Contains("QDM-prog: ERROR: Variable Recursion: LOOP <- loop"));
}

}  // namespace
}  // namespace trv
