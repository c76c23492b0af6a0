// The text front end: management commands and their answers, malformed
// requests, variable and directory queries, and the program name put back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

class FrontEndTest : public ::testing::Test {
 protected:
  FrontEndTest() {
    attached.box.write("texmf/fonts/tfm/cmr10.tfm", "x");
    attached.box.write("texmf/ls-R", "./fonts/tfm:\ncmr10.tfm\n");
    std::filesystem::create_directories(attached.box.path("texmf/tex/latex"));
    CacheGuard g;
    QDMReset();
  }
  std::string find(const std::string &request) { return QDMFind(request.c_str()); }
  std::string p(const std::string &rel) const { return attached.box.path(rel); }
  test::SavedModes modes;
  test::AttachedTest attached{
      "[common]\nTEXMF=$SELFAUTOPARENT/texmf\nWHO=common\n"
      "[latex]\nWHO=latex\n"
      "[QDM]\nls-R=$TEXMF\ntfm=$TEXMF/fonts//+.tfm\n"};
};

TEST_F(FrontEndTest, ManagementCommandsSetTheirModes) {
  const struct {
    const char *request, *answer;
    int make0, make1, download0, download1;
  } cases[] = {
      // Each row starts from make {5,5} and download {5,5}.
      {"!Make", "[AutoMake is enabled]", 0, 0, 5, 5},
      {"!make", "[AutoMake is enabled]", 0, 0, 5, 5},
      {"!NoMake", "[AutoMake is disabled]", 1, 1, 5, 5},
      {"!MakeAlways", "[AutoMake is always enabled]", -1, -1, 5, 5},
      {"!MakeAlways+", "[AutoMake is always enabled with output to MW]", -2, -2, 5, 5},
      {"!*Make", "[AutoMake for internal search is enabled]", 0, 5, 5, 5},
      {"!*MakeAlways", "[AutoMake for internal search is always enabled]", -1, 5, 5, 5},
      {"!*makealways+", "[AutoMake for internal search is always enabled with output via MW]", -2,
       5, 5, 5},
      {"!AutoDownload=ON", "[AutoDownload is enabled]", 5, 5, 1, 1},
      {"!AutoDownload=INFO", "[AutoDownload is in INFO mode.]", 5, 5, 0, 0},
      {"!AUTODOWNLOAD=off", "[AutoDownload is disabled]", 5, 5, -1, -1},
      {"!*AutoDownload=ON", "[AutoDownload for internal search is enabled]", 5, 5, 1, 5},
      {"!*AutoDownload=INFO", "[AutoDownload for internal search is in INFO mode.]", 5, 5, 0, 5},
      {"!*AutoDownload=OFF", "[AutoDownload for internal search is disabled]", 5, 5, -1, 5},
      {"!Make ", "[invalid QDM management command]", 5, 5, 5, 5},
      {"!", "[invalid QDM management command]", 5, 5, 5, 5},
      {"!Finishing", "[invalid QDM management command]", 5, 5, 5, 5},
      {"!*NoMake", "[invalid QDM management command]", 5, 5, 5, 5},
  };
  for (const auto &c : cases) {
    MakeLocked[0] = MakeLocked[1] = AutoDownload[0] = AutoDownload[1] = 5;
    EXPECT_EQ(find(c.request), c.answer) << c.request;
    EXPECT_EQ(MakeLocked[0], c.make0) << c.request;
    EXPECT_EQ(MakeLocked[1], c.make1) << c.request;
    EXPECT_EQ(AutoDownload[0], c.download0) << c.request;
    EXPECT_EQ(AutoDownload[1], c.download1) << c.request;
  }
}

TEST_F(FrontEndTest, WaitPassMessageValues) {
  const struct {
    const char *request, *answer;
    int value;
  } cases[] = {
      {"!WaitPassMSG=OFF", "[Wait will not pass GUI messages]", -1},
      {"!waitpassmsg=auto", "[Wait will automatically determine when pass GUI messages]", 0},
      {"!WaitPassMSG=On", "[Wait will automatically determine when pass GUI messages (COMPAT)]", 0},
      {"!WaitPassMSG=17", "[Wait will pass selected set of GUI messages]", 17},
      {"!WaitPassMSG=12abc", "[Wait will pass selected set of GUI messages]", 12},
      {"!WaitPassMSG=", "[Wait will pass selected set of GUI messages]", 0},
      {"!WaitPassMSG=-3", "[Wait will pass selected set of GUI messages]", 0},
      {"!WaitPassMSG=99999999999999", "[Wait will pass selected set of GUI messages]", 2147483647},
  };
  for (const auto &c : cases) {
    WaitPassMessages = 42;
    EXPECT_EQ(find(c.request), c.answer) << c.request;
    EXPECT_EQ(WaitPassMessages, c.value) << c.request;
  }
}

TEST_F(FrontEndTest, TraceAndFinishReachTheRegion) {
  EXPECT_EQ(find("!Trace"), "[QDM trace mode switched ON]");
  EXPECT_EQ(Trace, 1);
  EXPECT_EQ(hdr(Word::Shared_Trace), 1);
  const int32_t resets = hdr(Word::Reset_Count);
  EXPECT_EQ(find("!finish"), "[QDM is Finished NOW]");
  EXPECT_EQ(hdr(Word::Reset_Count), resets + 1);
  EXPECT_FALSE(cache_lock_held());
}

TEST_F(FrontEndTest, SearchesAndMalformedRequests) {
  std::strcpy(ProgName, "prog");
  const std::string cmr = p("texmf/fonts/tfm/cmr10.tfm");
  const struct {
    std::string request, answer;
  } cases[] = {
      {"<tfm>cmr10", cmr},
      {"tex<tfm>cmr10.tfm", cmr},
      {"tex<*tfm>\"cmr10\"", cmr},
      {"tex<tfm>absent", "[file not found]"},
      {"tex<tfm>", "[file not found]"},
      {"tfm>cmr10<x", "[Invalid request format]"},
      {"tex<tfm", "[Invalid request format]"},
      {"", "[Invalid request format]"},
      {"<tfm>" + std::string(251, 'c'), "[Invalid request format]"},  // 256 characters
      {"<tfm>" + std::string(250, 'c'), "[file not found]"},
      {std::string(100, 'p') + "<tfm>cmr10", cmr},  // the program name is cut
      {"?<a" + std::string(300, 'b') + ">", "[Invalid request format]"},
      {"!" + std::string(300, 'M'), "[invalid QDM management command]"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(find(c.request), c.answer) << c.request.substr(0, 40);
    EXPECT_STREQ(ProgName, "prog") << c.request.substr(0, 40);
  }
}

TEST_F(FrontEndTest, RecycleForgetsInEveryProgram) {
  EXPECT_EQ(find("tex<tfm>cmr10"), p("texmf/fonts/tfm/cmr10.tfm"));
  EXPECT_EQ(find("latex<tfm>cmr10"), p("texmf/fonts/tfm/cmr10.tfm"));
  EXPECT_EQ(find("*<tfm>cmr10"), "[QDM Cache has been recycled]");
  CacheGuard g;
  for (const char *prog : {"tex", "latex"})
    EXPECT_EQ(lru_lookup(loadi(FormatPath(prog, "tfm")), "cmr10"), 0) << prog;
}

TEST_F(FrontEndTest, VariableAndDirectoryQueries) {
  std::strcpy(ProgName, "prog");
  const std::string texmf = p("texmf");
  const struct {
    std::string request, answer;
  } cases[] = {
      {"?<$TEXMF>", texmf},
      {"?<$WHO>", "common"},
      {"?latex<$WHO>", "latex"},
      {"?<$WHO>ignored", "common"},
      {"?" "?<$TEXMF/{tex,fonts,none}>", texmf + "/tex;" + texmf + "/fonts"},
      {"?" "?<{$TEXMF/none}>", ""},
      {"?$WHO", "[Invalid request format]"},
      {"??latex<x", "[Invalid request format]"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(find(c.request), c.answer) << c.request;
    EXPECT_STREQ(ProgName, "prog") << c.request;
  }
  EXPECT_EQ(QDMReady(std::string(80, 'x').c_str()), 1);
  EXPECT_EQ(std::string(ProgName), std::string(63, 'x'));
}

}  // namespace
}  // namespace trv
