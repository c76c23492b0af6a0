// Search requests end to end: the answer cache with hits and misses,
// suffixes, quotes, definitions, program links, download markers, AutoMake
// through the request, and processes sharing one cache.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "platform/platform.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

std::vector<std::string> log_lines(int n = 256) {
  std::vector<char *> t(static_cast<size_t>(n));
  const int got = QDMGetMessages(t.data(), n);
  std::vector<std::string> lines(t.begin(), t.begin() + got);
  return {lines.rbegin(), lines.rend()};  // oldest first
}

// The log lines after the first `skip` (taken from an earlier log_count()),
// without the "QDM-prog: " prefix.
std::vector<std::string> new_lines(size_t before) {
  int *info = QDMMsgInfo();
  const size_t total = static_cast<size_t>(info[1]);
  std::vector<std::string> all = log_lines(static_cast<int>(std::min<size_t>(total - before, 1024)));
  for (std::string &l : all)
    if (l.rfind("QDM-prog: ", 0) == 0) l.erase(0, 10);
  return all;
}
size_t log_count() { return static_cast<size_t>(QDMMsgInfo()[1]); }

constexpr const char *kIni =
    "[common]\n"
    "TEXMF={$SELFAUTOPARENT/texmf}\n"
    "[QDM]\n"
    "ls-R=$SELFAUTOPARENT/texmf\n"
    "tfm=$TEXMF/fonts//;$SELFAUTOPARENT/disk+.tfm.TFM\n"
    "tex=$SELFAUTOPARENT/texmf/tex//\n"
    "made=$SELFAUTOPARENT/made+.mf*mkfile\n"
    "nopath=\n"
    "Program=$SELFAUTOPARENT/bin\n"
    "defs=$SELFAUTOPARENT/defs.ini;$SELFAUTOPARENT/more.ini\n";

class RequestTest : public ::testing::Test {
 protected:
  RequestTest() {
    box().write("texmf/fonts/tfm/cmr10.tfm", "x");
    box().write("disk/both.tfm", "x");
    box().write("disk/both.TFM", "x");
    box().write("disk/upper.TFM", "x");
    box().write("texmf/tex/latex/article.cls", "x");
    box().write("texmf/ls-R",
                "% ls-R\n./fonts/tfm:\ncmr10.tfm\n"
                "./tex/latex:\narticle.cls\n");
    fs::create_directories(box().path("disk"));
    fs::create_directories(box().path("made"));
    reset();
  }
  const test::Sandbox &box() const { return attached.box; }
  void reset() {
    CacheGuard g;
    QDMReset();
  }
  std::string ask(const char *type, const std::string &name, int origin = 0) {
    const char *r = _QDMSearch(type, name.c_str(), origin);
    return r ? r : "(null)";
  }
  std::string p(const std::string &rel) const { return box().path(rel); }

  test::SavedModes modes;
  test::AttachedTest attached{kIni};
};

TEST_F(RequestTest, AnswersAndCachesHitsAndMisses) {
  Trace = 1;
  size_t mark = log_count();
  EXPECT_EQ(ask("tfm", "cmr10.tfm"), p("texmf/fonts/tfm/cmr10.tfm"));
  EXPECT_THAT(new_lines(mark), Contains("Search File: cmr10.tfm"));

  mark = log_count();
  EXPECT_EQ(ask("TFM", "CMR10.TFM"), p("texmf/fonts/tfm/cmr10.tfm"));
  EXPECT_THAT(new_lines(mark), ElementsAre("INFO: Getting file Type path: TFM",
                                            "INFO: file Type path got."));

  EXPECT_EQ(ask("tfm", "late.tfm"), "(null)");
  box().write("disk/late.tfm", "x");  // appears on disk after the miss
  mark = log_count();
  EXPECT_EQ(ask("tfm", "late.tfm"), "(null)") << "a cached miss stays a miss";
  EXPECT_THAT(new_lines(mark), Not(Contains("Search File: late.tfm")));
  EXPECT_EQ(ask("*tfm", "late.tfm"), p("disk/late.tfm")) << "'*' ignores the cached miss";
  EXPECT_EQ(ask("tfm", "late.tfm"), p("disk/late.tfm"));
}

TEST_F(RequestTest, SuffixesInOrderAndCachedUnderTheNameAsked) {
  Trace = 1;
  const size_t mark = log_count();
  // On disk, where names compare with case: upper.tfm is tried and missed.
  EXPECT_EQ(ask("tfm", "upper"), p("disk/upper.TFM"));
  const std::vector<std::string> lines = new_lines(mark);
  const auto first = std::find(lines.begin(), lines.end(), "Search File: upper.tfm");
  const auto second = std::find(lines.begin(), lines.end(), "Search File: upper.TFM");
  ASSERT_NE(first, lines.end());
  ASSERT_NE(second, lines.end());
  EXPECT_LT(first, second);
  EXPECT_EQ(ask("tfm", "both"), p("disk/both.tfm"));
  EXPECT_EQ(ask("tfm", "both.TFM"), p("disk/both.TFM")) << "a name with '.' as given";

  CacheGuard g;
  const int answers = loadi(FormatPath("prog", "tfm"));
  EXPECT_GT(lru_lookup(answers, "upper"), 1);
  EXPECT_EQ(lru_lookup(answers, "upper.TFM"), 0) << "cached under the name asked for";
}

TEST_F(RequestTest, QuotedNamesAndUnusualInput) {
  EXPECT_EQ(ask("tfm", "\"cmr10.tfm\""), p("texmf/fonts/tfm/cmr10.tfm"));
  {
    CacheGuard g;
    EXPECT_GT(lru_lookup(loadi(FormatPath("prog", "tfm")), "cmr10.tfm"), 1);
  }
  const struct {
    const char *type;
    std::string name, answer;
  } cases[] = {
      {"tfm", "\"cmr10", p("texmf/fonts/tfm/cmr10.tfm")},  // no closing quote
      {"tfm", "\"\"", "(null)"},
      {"tfm", "", "(null)"},
      {"tfm", std::string(400, 'x'), "(null)"},
      {"tfm", "\"" + std::string(300, 'y') + "\"", "(null)"},
      {"tex", "latex/article.cls", p("texmf/tex/latex/article.cls")},
      {"nopath", "cmr10.tfm", "(null)"},
      {"*", "x", "(null)"},
  };
  for (const auto &c : cases) EXPECT_EQ(ask(c.type, c.name), c.answer) << c.type << " " << c.name;
}

TEST_F(RequestTest, ATypeWithoutPathCachesAMiss) {
  const size_t mark = log_count();
  EXPECT_EQ(ask("nopath", "a.b"), "(null)");
  EXPECT_THAT(new_lines(mark), Contains("There is no path for file type: nopath"));
  CacheGuard g;
  EXPECT_EQ(lru_lookup(loadi(FormatPath("prog", "nopath")), "a.b"), 1);
}

TEST_F(RequestTest, DefinitionLookupFillsTheStar) {
  box().write("defs.ini", "[Fonts]\nabc.def=exact\nabc.*=short-*-end\n*=any:*\n");
  box().write("more.ini", "[Fonts]\nzz.q=from-second-file\n");
  std::strcpy(ProgName, "[Fonts]");
  const struct {
    const char *name, *answer;
  } cases[] = {
      {"abc.def", "exact"},
      {"abc.xyz", "short-xyz-end"},
      {"q.r", "any:q.r"},
      // Each key is asked of every file before it is shortened.
      {"zz.q", "from-second-file"},
  };
  for (const auto &c : cases) EXPECT_EQ(ask("defs", c.name), c.answer) << c.name;

  box().write("defs.ini", "[Fonts]\nab*=x\n");
  std::strcpy(ProgName, "[Fonts");  // no closing bracket: the rest is the section
  EXPECT_EQ(ask("defs", "abz.q"), "x");
  EXPECT_EQ(ask("defs", "b.q"), "(null)");
}

TEST_F(RequestTest, SearchDefinitionShortensTheKey) {
  box().write("defs.ini", "[S]\nab*=<*>\n");
  std::strcpy(ProgName, "[S]");
  int list;
  {
    CacheGuard g;
    list = list_append(0, p("defs.ini").c_str(), 0);
  }
  char buf[260];
  ASSERT_NE(search_definition(list, "abcdef", buf), nullptr);
  EXPECT_STREQ(buf, "<cdef>");
  EXPECT_EQ(search_definition(list, "xbcdef", buf), nullptr);
}

TEST_F(RequestTest, ProgramTypeFollowsTheLinkFile) {
  box().write("bin/tool", "x");
  box().write("bin/tool.lnk", "../real/tool2\n");
  box().write("real/tool2", "x");
  box().write("bin/plain", "x");
  EXPECT_EQ(ask("program", "tool"), p("real/tool2"));
  EXPECT_EQ(ask("Program", "plain"), p("bin/plain"));
}

TEST_F(RequestTest, NetworkMarkerByDownloadMode) {
  box().write("Update/ls-R.net", ":pkg:\n./fonts/tfm:\nremote.tfm\n");
  reset();
  const std::string marker = ":pkg:fonts/tfm/remote.tfm";
  AutoDownload[0] = 0;  // INFO
  EXPECT_EQ(ask("tfm", "remote.tfm"), marker);
  EXPECT_EQ(ask("tfm", "remote.tfm"), marker) << "from the cache";
  AutoDownload[0] = -1;  // OFF
  EXPECT_EQ(ask("tfm", "remote.tfm"), "(null)");
  EXPECT_EQ(ask("tfm", "remote"), "(null)");
  CacheGuard g;
  const int answers = loadi(FormatPath("prog", "tfm"));
  EXPECT_STREQ(text_at(lru_lookup(answers, "remote")), marker.c_str()) << "cached in OFF mode too";
}

// AutoDownload ON through a search: the setup program beside the calling
// program installs the package (or is refused), the configuration is reset
// and the search repeated once.
class RequestDownloadTest : public RequestTest {
 protected:
  RequestDownloadTest() {
    box().write("Update/ls-R.net", ":pkg:\n./fonts/tfm:\nremote.tfm\n");
    // "Installing" writes the file into the tree and lists it in its ls-R.
    write_script("bin/setup", "echo \"setup $*\"\n"
                              "echo x > \"" + p("texmf/fonts/tfm/remote.tfm") + "\"\n"
                              "printf '\\n./fonts/tfm:\\nremote.tfm\\n' >> \"" + p("texmf/ls-R") + "\"\n");
    write_script("bin/grant", "[ \"$1\" = -n ] && shift\nexec \"$@\"\n");
    write_script("bin/refuse", "exit 1\n");
    platform::set_executable_path_override(p("bin/prog").c_str());
    reset();
    AutoDownload[0] = 1;
    saved_auth_ = AuthRef;
    AuthRef = 0;
  }
  ~RequestDownloadTest() override {
    platform::set_executable_path_override(nullptr);
    AuthRef = saved_auth_;
  }
  void write_script(const std::string &rel, const std::string &body) {
    box().write(rel, "#!/bin/sh\n" + body);
    chmod(p(rel).c_str(), 0755);
  }
  int saved_auth_;
};

TEST_F(RequestDownloadTest, GrantedRightsInstallAndTheSearchFindsTheFile) {
  test::ScopedEnv helper("TROVALIS_PRIV_HELPER", p("bin/grant").c_str());
  const size_t mark = log_count();
  EXPECT_EQ(ask("tfm", "remote"), p("texmf/fonts/tfm/remote.tfm"));
  const std::vector<std::string> lines = new_lines(mark);
  EXPECT_THAT(lines, Contains("INFO: Downloading :pkg:fonts/tfm/remote.tfm"));
  EXPECT_THAT(lines, Contains("Line: setup -d " + p("Update/ls-R.net") + "+pkg\n"));
  EXPECT_EQ(ask("tfm", "remote"), p("texmf/fonts/tfm/remote.tfm")) << "cached";
}

TEST_F(RequestDownloadTest, RefusedRightsAnswerNullAfterOneReset) {
  test::ScopedEnv helper("TROVALIS_PRIV_HELPER", p("bin/refuse").c_str());
  const size_t mark = log_count();
  const int32_t resets = [] {
    CacheGuard g;
    return hdr(Word::Reset_Count);
  }();
  EXPECT_EQ(ask("tfm", "remote"), "(null)");
  const std::vector<std::string> lines = new_lines(mark);
  const auto refused = std::find(lines.begin(), lines.end(),
                                 "ERROR: OSX AuthorizationCopyRights priveleges failed");
  const auto failed =
      std::find(lines.begin(), lines.end(), "ERROR: Can't download :pkg:fonts/tfm/remote.tfm");
  ASSERT_NE(refused, lines.end());
  ASSERT_NE(failed, lines.end());
  EXPECT_LT(refused, failed);
  CacheGuard g;
  EXPECT_EQ(hdr(Word::Reset_Count), resets + 1) << "one reset, no second download";
}

TEST_F(RequestDownloadTest, AMissingSetupProgramIsReported) {
  test::ScopedEnv helper("TROVALIS_PRIV_HELPER", p("bin/grant").c_str());
  unlink(p("bin/setup").c_str());
  const size_t mark = log_count();
  EXPECT_EQ(ask("tfm", "remote"), "(null)");
  EXPECT_THAT(new_lines(mark), Contains("ERROR: Can't execute setup program " + p("bin/setup")));
}

// The make command writes the file it is asked for; the request then finds
// it, and the wrapper's output reaches the log.
class RequestMakeTest : public RequestTest {
 protected:
  RequestMakeTest() {
    write_script("bin/mkfile",
                 "echo run >> \"$(dirname \"$0\")/../runs\"\n"
                 "case \"$1\" in ok*) echo made > \"$(dirname \"$0\")/../made/$1.mf\";; esac\n"
                 "echo \"made $1\"\n");
    write_script("bin/Quenmark.exe", "sh -c \"$*\"\n");
    platform::set_executable_path_override(p("bin/prog").c_str());
  }
  // The make command is looked up along PATH, like any command line.
  test::ScopedEnv path{"PATH", (box().path("bin") + ":" + std::getenv("PATH")).c_str()};
  ~RequestMakeTest() override { platform::set_executable_path_override(nullptr); }
  void write_script(const std::string &rel, const std::string &body) {
    box().write(rel, "#!/bin/sh\n" + body);
    chmod(p(rel).c_str(), 0755);
  }
  size_t runs() {
    const std::string t = test::read_file(p("runs"));
    return static_cast<size_t>(std::count(t.begin(), t.end(), '\n'));
  }
};

TEST_F(RequestMakeTest, ModesDecideWhetherAndHowToMake) {
  const struct {
    int make_mode, console;
    bool makes, through_wrapper;
  } cases[] = {
      {0, 0, false, false}, {1, 1, false, false}, {-1, 0, true, true},
      {-1, 1, true, false}, {-2, 1, true, true},  {-7, 0, true, true},
  };
  int n = 0;
  for (const auto &c : cases) {
    MakeLocked[0] = c.make_mode;
    ConsoleErr = c.console;
    const std::string name = "ok" + std::to_string(n++);
    const size_t before = runs(), mark = log_count();
    const std::string expect = c.makes ? p("made/" + name + ".mf") : "(null)";
    EXPECT_EQ(ask("made", name), expect) << c.make_mode << "/" << c.console;
    EXPECT_EQ(runs() - before, c.makes ? 1u : 0u);
    const std::vector<std::string> lines = new_lines(mark);
    const bool relayed =
        std::find(lines.begin(), lines.end(), "Message: made " + name + "\n") != lines.end();
    EXPECT_EQ(relayed, c.through_wrapper) << c.make_mode << "/" << c.console;
  }
}

TEST_F(RequestMakeTest, AFailedMakeRunsOnceAndCachesTheMiss) {
  MakeLocked[0] = -1;
  EXPECT_EQ(ask("made", "never"), "(null)");
  EXPECT_EQ(runs(), 1u) << "at most one make per request";
  EXPECT_EQ(ask("made", "never"), "(null)");
  EXPECT_EQ(runs(), 1u) << "the miss is cached";
  EXPECT_EQ(ask("made", "never.mf"), "(null)");
  EXPECT_EQ(runs(), 2u);
}

// Another process asks the same question: answered from the shared cache,
// without searching.
TEST(RequestProcesses, ASecondProcessIsAnsweredFromTheCache) {
  test::Sandbox box(kIni);
  box.write("texmf/fonts/tfm/cmr10.tfm", "x");
  box.write("texmf/ls-R", "./fonts/tfm:\ncmr10.tfm\n");
  const std::string host = box.install_host();
  const std::string path = box.path("texmf/fonts/tfm/cmr10.tfm");
  const test::RunResult first = test::run({host, "trace", "search", "tfm", "cmr10"}, box.env());
  EXPECT_EQ(first.out, "answer=" + path + "\n") << first.err;
  const test::RunResult second =
      test::run({host, "trace", "search", "tfm", "cmr10", "messages", "20"}, box.env());
  EXPECT_THAT(second.out, ::testing::StartsWith("answer=" + path + "\n"));
  EXPECT_THAT(second.out, ::testing::HasSubstr("QDM-host: INFO: file Type path got."));
  const size_t own = second.out.find("QDM-host: INFO: Getting file Type path: tfm");
  ASSERT_NE(own, std::string::npos);
  EXPECT_EQ(second.out.substr(0, own).find("Search File: "), std::string::npos)
      << "the second process did not search";
}

// Resets in another process while this one searches: every answer is the
// right path, never a record the reset discarded.
TEST(RequestProcesses, ResetsElsewhereNeverGiveWrongAnswers) {
  test::Sandbox box(kIni);
  std::vector<std::string> names;
  std::string lsr = "./fonts/tfm:\n";
  for (int i = 0; i < 40; ++i) {
    const std::string n = "f" + std::to_string(i) + ".tfm";
    box.write("texmf/fonts/tfm/" + n, "x");
    lsr += n + "\n";
    names.push_back(n);
  }
  box.write("texmf/ls-R", lsr);
  const std::string host = box.install_host();
  std::vector<std::string> resets = {host};
  for (int i = 0; i < 200; ++i) resets.insert(resets.end(), {"request", "!Finish"});
  test::Child resetter(resets, box.env());

  test::ScopedEnv home("HOME", box.home().c_str());
  test::ScopedEnv instance("TROVALIS_INSTANCE", box.instance().c_str());
  ASSERT_TRUE(test::attach_region(box));
  int wrong = 0;
  for (int round = 0; round < 50; ++round) {
    for (const std::string &n : names) {
      const char *r = QDMSearch("tfm", n.c_str());
      if (r == nullptr || box.path("texmf/fonts/tfm/" + n) != r) ++wrong;
    }
  }
  test::detach_region();
  EXPECT_EQ(resetter.wait(), 0);
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace trv
