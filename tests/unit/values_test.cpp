// Configuration values, variables and the configuration reset.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::HasSubstr;

constexpr const char *kMainIni =
    "[common]\n"
    "TEXMF=/main/texmf\n"
    "OnlyMain=main-value\n"
    "Both=from-main\n"
    "Folder=#5\n"
    "[QDM]\n"
    "tex=.\n";

class ValuesTest : public ::testing::Test {
 protected:
  ValuesTest() {
    attached.box.write("home/Library/Zelvan TeX/TEXMF.INI",
                       "[common]\nBoth=from-user\nUserFolder=#5\n");
  }
  std::vector<std::string> newest(int n) {
    std::vector<char *> t(static_cast<size_t>(n));
    const int got = QDMGetMessages(t.data(), n);
    return std::vector<std::string>(t.begin(), t.begin() + got);
  }
  static std::string str(const char *p) { return p ? p : "(null)"; }

  test::AttachedTest attached{kMainIni};
};

TEST_F(ValuesTest, LooksUpUserFileThenMainFile) {
  struct Case {
    const char *section, *key;
    std::string expected;
  } cases[] = {
      {"common", "Both", "from-user"},
      {"COMMON", "onlymain", "main-value"},
      {"common", "Folder", attached.box.home() + "/Documents"},  // "#N" from the main file
      {"common", "UserFolder", "#5"},                            // taken literally
      {"common", "Missing", "(null)"},
      {"nosuchsection", "Both", "(null)"},
  };
  for (const Case &c : cases) EXPECT_EQ(str(QDMValue(c.section, c.key)), c.expected) << c.key;
}

TEST_F(ValuesTest, AnswersAreCachedIncludingMisses) {
  EXPECT_EQ(QDMValue("common", "Later"), nullptr);
  EXPECT_EQ(str(QDMValue("common", "Both")), "from-user");
  attached.box.write("TEXMF.INI", std::string(kMainIni) + "[common]\nLater=now\n");
  attached.box.write("home/Library/Zelvan TeX/TEXMF.INI", "[common]\nBoth=changed\n");
  EXPECT_EQ(QDMValue("common", "Later"), nullptr) << "a cached miss is not read again";
  EXPECT_EQ(str(QDMValue("common", "Both")), "from-user");
}

TEST_F(ValuesTest, SetValueOverridesAndPersists) {
  const std::string user = attached.box.home() + "/Library/Zelvan TeX/TEXMF.INI";
  EXPECT_EQ(QDMSetValue("common", "Key", ""), 0);
  EXPECT_EQ(QDMValue("common", "Key"), nullptr);
  EXPECT_EQ(QDMSetValue("common", "Key", "x"), 0);
  EXPECT_EQ(str(QDMValue("common", "key")), "x");
  EXPECT_THAT(test::read_file(user), HasSubstr("Key=x\n"));

  // A null value writes nothing and makes the next look-up read the files.
  EXPECT_EQ(QDMSetValue("common", "OnlyMain", nullptr), 0);
  EXPECT_EQ(str(QDMValue("common", "OnlyMain")), "main-value");
  EXPECT_THAT(test::read_file(user), ::testing::Not(HasSubstr("OnlyMain")));
}

TEST_F(ValuesTest, VariablesResolveThroughProgramSections) {
  attached.box.write("TEXMF.INI", std::string(kMainIni) +
                                      "[latex]\nBoth=latex\nLatexTex=latex\n"
                                      "[tex]\nLatexTex=tex\nTexCommon=tex\n"
                                      "[memory]\nMem=memory\n"
                                      "[common]\nTexCommon=common\n");
  std::snprintf(ProgName, sizeof ProgName, "latex,tex");
  struct Case {
    const char *name, *expected;
  } cases[] = {
      {"LatexTex", "latex"}, {"TexCommon", "tex"}, {"Mem", "memory"},
      {"OnlyMain", "main-value"}, {"Nothing", "(null)"},
  };
  for (const Case &c : cases) EXPECT_EQ(str(QDMVar(c.name)), c.expected) << c.name;
  EXPECT_STREQ(ProgName, "latex,tex") << "the list is put back after each cut";
}

TEST_F(ValuesTest, InheritedEnvironmentIsUsedWithAWarning) {
  test::ScopedEnv env("TEXMF", "/from/env");
  EXPECT_EQ(str(QDMVar("TEXMF")), "/from/env");
  EXPECT_EQ(newest(1)[0],
            "QDM-prog: WARNING: There is inherited environment variable: TEXMF");
}

TEST_F(ValuesTest, CnfGetTakesTheFirstNameWithAValueAndKeepsTheList) {
  CacheGuard guard;
  _QDMSetValue("memory", "B", "b-value", 0);
  char list[] = "A,B";
  EXPECT_EQ(str(cnf_get(list)), "b-value");
  EXPECT_EQ(std::memcmp(list, "A,B", 4), 0);
  char empty[] = "";
  EXPECT_EQ(cnf_get(empty), nullptr);
}

TEST_F(ValuesTest, TraceLineIsCutToItsBuffer) {
  Trace_XVAR = 1;
  const std::string value(200, 'v');
  {
    CacheGuard guard;
    _QDMSetValue("memory", "Long", value.c_str(), 0);
    _QDMValue("memory", "Long");
    _QDMValue("common", "OnlyMain");
  }
  Trace_XVAR = 0;
  const auto lines = newest(2);
  EXPECT_EQ(lines[0], "QDM-prog: Var: OnlyMain = [common]main-value");
  EXPECT_EQ(lines[1], ("QDM-prog: Var: Long = [memory]" + value).substr(0, 100));
}

TEST(Moderation, OnlyListedVariablesComeFromTheEnvironment) {
  test::AttachedTest attached("[ImportEnvironment]\nMYTEXMF=TEXMF_SOURCE\n[common]\nTEXMF=ini\n");
  test::ScopedEnv a("TEXMF", "/env/texmf");
  test::ScopedEnv b("TEXMF_SOURCE", "/env/source");
  EXPECT_EQ(hdr(Word::Moderation), 1);
  EXPECT_STREQ(QDMVar("TEXMF"), "ini");
  EXPECT_STREQ(QDMVar("MYTEXMF"), "/env/source");
}

class ResetTest : public ::testing::Test {
 protected:
  test::AttachedTest attached;
};

TEST_F(ResetTest, BuildsTheStartingPointsAtFixedOffsets) {
  const int mark = hdr(Word::Mem_Mark);
  const int folder_len = static_cast<int>(attached.box.root().size());
  EXPECT_EQ(hdr(Word::Root_LRU), mark);
  EXPECT_EQ(hdr(Word::Common_Hash), mark + 18);
  // 18 + table + folder text + SELFAUTOPARENT entry (14 + 12)
  EXPECT_EQ(hdr(Word::SectDir_Hash), mark + 18 + 2852 + folder_len + 1 + 26);
  EXPECT_EQ(Common, hdr(Word::Common_Hash));
  EXPECT_EQ(SectDir, hdr(Word::SectDir_Hash));
  EXPECT_STREQ(QDMValue("Common", "SELFAUTOPARENT"), attached.box.root().c_str());
  EXPECT_STREQ(QDMValue("Common", "APPDATA"), (attached.box.home() + "/Library").c_str());

  const int root = hdr(Word::Root_LRU), common = Common, sectdir = SectDir;
  QDMValue("common", "anything");  // grow the arena
  {
    CacheGuard guard;
    QDMReset();
  }
  EXPECT_EQ(hdr(Word::Root_LRU), root);
  EXPECT_EQ(Common, common);
  EXPECT_EQ(SectDir, sectdir);
  char *texts[16];
  const int n = QDMGetMessages(texts, 16);
  EXPECT_THAT(std::vector<std::string>(texts, texts + n),
              ::testing::Contains("QDM-prog: Moderation of environment variable import is switched OFF"));
  EXPECT_EQ(hdr(Word::Moderation), 0);
}

TEST(ResetNoAppData, ApplicationDataIsNotEntered) {
  test::Sandbox box;
  test::ScopedEnv home("HOME", box.home().c_str());
  test::ScopedEnv inst("TROVALIS_INSTANCE", box.instance().c_str());
  test::ScopedEnv app("APPDATA", "");
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(test::attach_region(box));
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(hash_lookup(Common, "APPDATA"), 0);
  EXPECT_EQ(QDMValue("Common", "APPDATA"), nullptr);
  test::detach_region();
}

}  // namespace
}  // namespace trv
