// Cache maintenance: new files entered into the database and its ls-R file,
// stale answers and their suffix-less shortcuts forgotten, and recycling.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

namespace fs = std::filesystem;

constexpr const char *kIni =
    "[QDM]\n"
    "ls-R=$SELFAUTOPARENT/texmf\n"
    "tfm=$SELFAUTOPARENT/texmf/fonts//+.tfm.TFM\n"
    "vf=$SELFAUTOPARENT/texmf/fonts//+.vf\n"
    "tex=$SELFAUTOPARENT/texmf/tex//+.tex\n";
constexpr const char *kLsR = "./fonts/tfm:\nother.tfm\n";

bool logged(const std::string &text) {
  const std::string line = ("QDM-prog: " + text).substr(0, 100);
  char *t[64];
  const int n = QDMGetMessages(t, 64);
  return std::find(t, t + n, line) != t + n;
}

class MaintenanceTest : public ::testing::Test {
 protected:
  MaintenanceTest() {
    box().write("texmf/ls-R", kLsR);
    fs::create_directories(box().path("texmf/fonts/tfm"));
    fs::create_directories(box().path("texmf/tex/latex"));
    CacheGuard g;
    QDMReset();
  }
  const test::Sandbox &box() const { return attached.box; }
  // Stores an answer as a search would: 1 a miss, a text the path found.
  void cache(const char *prog, const char *type, const char *name, const char *answer) {
    CacheGuard g;
    const int list = loadi(FormatPath(prog, type));
    lru_lookup(list, name);
    lru_insert(list, name, answer ? stradd(answer) : 1);
  }
  int cached(const char *prog, const char *type, const char *name) {
    CacheGuard g;
    return lru_lookup(loadi(FormatPath(prog, type)), name);
  }
  int new_file(const std::string &rel) { return QDMNewFile(box().path(rel).c_str()); }
  std::string lsr() const { return test::read_file(box().path("texmf/ls-R")); }

  test::AttachedTest attached{kIni};
};

TEST_F(MaintenanceTest, NewFileForgetsNameAndStemEverywhere) {
  // A miss cached by a real request, before the file existed.
  EXPECT_EQ(_QDMSearch("tfm", "cmr10", 0), nullptr);
  cache("tex", "tfm", "cmr10.tfm", nullptr);
  cache("latex", "tfm", "CMR10.TFM", "/old/cmr10.tfm");
  cache("tex", "vf", "cmr10", nullptr);  // .vf is not the file's suffix
  cache("tex", "tex", "cmr10", nullptr);

  box().write("texmf/fonts/tfm/cmr10.tfm", "x");
  EXPECT_EQ(new_file("texmf/fonts/tfm/cmr10.tfm"), 3);
  EXPECT_EQ(lsr(), std::string(kLsR) + "\n./fonts/tfm:\ncmr10.tfm\n");
  EXPECT_TRUE(logged("QDMNewFile: " + box().path("texmf/fonts/tfm/cmr10.tfm")));
  EXPECT_TRUE(logged("QDMNewFile: Updating " + box().path("texmf/ls-R")));
  EXPECT_TRUE(logged("QDMNewFile: Clearing Requests for: cmr10.tfm"));
  EXPECT_TRUE(logged("QDMNewFile: Clearing shortcut: cmr10"));

  EXPECT_EQ(cached("tex", "tfm", "cmr10.tfm"), 0);
  EXPECT_EQ(cached("latex", "tfm", "cmr10.tfm"), 0);
  EXPECT_EQ(cached("tex", "vf", "cmr10"), 1);
  EXPECT_EQ(cached("tex", "tex", "cmr10"), 1);
  // The database now lists the file, so the next request finds it.
  const char *found = _QDMSearch("tfm", "cmr10", 0);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(std::string(found), box().path("texmf/fonts/tfm/cmr10.tfm"));
}

TEST_F(MaintenanceTest, NewFileAppendsTheDirectoryRelativeToItsDatabase) {
  std::string backslashed = box().path("texmf/fonts/tfm/y.tfm");
  std::replace(backslashed.begin(), backslashed.end(), '/', '\\');
  const struct {
    std::string path, appended;
    int forgotten;
  } cases[] = {
      {box().path("texmf/fonts/tfm/cmr10.tfm"), "\n./fonts/tfm:\ncmr10.tfm\n", 0},
      {box().path("texmf/x.tex"), "\n./:\nx.tex\n", 0},
      {backslashed, "\n./fonts/tfm:\ny.tfm\n", 0},
      {box().path("elsewhere/z.tex"), "", 1},  // outside every database
  };
  for (const auto &c : cases) {
    const std::string before = lsr();
    cache("tex", "tex", "z.tex", nullptr);
    EXPECT_EQ(QDMNewFile(c.path.c_str()), c.forgotten) << c.path;
    EXPECT_EQ(lsr(), before + c.appended) << c.path;
  }
}

TEST_F(MaintenanceTest, OnlyTheWholeTailAndTheBareNameAreForgotten) {
  for (const char *name : {"a.b.tfm", "a", "a.b", "article.cls", "latex/article.cls"})
    cache("tex", "tfm", name, nullptr);
  EXPECT_EQ(new_file("texmf/fonts/tfm/a.b.tfm"), 1);
  EXPECT_EQ(new_file("texmf/tex/latex/article.cls"), 1);
  for (const char *name : {"a", "a.b", "latex/article.cls"})
    EXPECT_EQ(cached("tex", "tfm", name), 1) << name;
}

TEST_F(MaintenanceTest, UnwritableLsRStillClearsTheCaches) {
  fs::remove(box().path("texmf/ls-R"));
  fs::create_directories(box().path("texmf/ls-R"));  // opening it to append fails
  cache("tex", "tfm", "cmr10", nullptr);
  EXPECT_EQ(new_file("texmf/fonts/tfm/cmr10.tfm"), 1);
  EXPECT_TRUE(logged("ERROR: Can't update ls-R file: " + box().path("texmf/ls-R")));
}

TEST_F(MaintenanceTest, RefusedPathsChangeNothing) {
  const std::string dir = box().path("texmf/fonts/tfm/");
  const std::string longest = dir + std::string(255 - dir.size() - 4, 'n') + ".tfm";
  const std::string stem = longest.substr(dir.size(), longest.size() - dir.size() - 4);
  cache("tex", "tfm", stem.c_str(), nullptr);
  EXPECT_EQ(QDMNewFile("cmr10.tfm"), 0);
  EXPECT_FALSE(logged("QDMNewFile: cmr10.tfm"));
  const std::string too_long = dir + "n" + longest.substr(dir.size());
  EXPECT_EQ(QDMNewFile(too_long.c_str()), 0);
  EXPECT_TRUE(logged("WARNING: QDMNewFile: path too long, ignored: " + too_long));
  EXPECT_EQ(lsr(), kLsR);
  EXPECT_EQ(cached("tex", "tfm", stem.c_str()), 1);
  EXPECT_EQ(QDMNewFile(longest.c_str()), 1);  // 255 characters still fit
}

TEST_F(MaintenanceTest, RecycleForgetsOneTypeInEveryProgram) {
  cache("tex", "tfm", "cmr10", nullptr);
  cache("latex", "TFM", "CMR10", "/x/cmr10.tfm");
  cache("mf", "tfm", "cmr10", nullptr);
  cache("tex", "vf", "cmr10", nullptr);
  {
    CacheGuard g;
    lru_insert(loadi(FormatPath("mf", "tfm")), "cmr10", 0);  // already forgotten
  }
  EXPECT_EQ(QDMRecycle("nosuch", "cmr10"), 0);
  EXPECT_EQ(QDMRecycle("tfm", "cmr10"), 2);
  EXPECT_EQ(cached("latex", "tfm", "cmr10"), 0);
  EXPECT_EQ(cached("tex", "vf", "cmr10"), 1);
  EXPECT_EQ(QDMRecycle("tfm", "cmr10"), 0);
}

}  // namespace
}  // namespace trv
