// Database lookup: coverage, "//" matching, candidates with aliases and the
// three kinds of answer of db_search.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "db/db.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

TEST(Match, AdmittedAndRefused) {
  const char *cm = "/t/fonts/tfm/public/cm/cmr10.tfm";
  const struct {
    const char *path, *element;
    int admitted;
  } cases[] = {
      {cm, "/t/fonts//", 1},
      {cm, "/t//cm/", 1},
      {cm, "/T/FONTS/TFM/PUBLIC/CM", 1},
      {cm, "\\t\\fonts\\tfm\\public\\cm\\", 1},
      {cm, "/t/fonts/tfm/public/cm/", 1},
      {cm, "/t/fonts/tfm/", 0},
      {cm, "/t/fonts/vf//", 0},
      {cm, "/t//public//", 1},
      {cm, "/t//tfm//cm/", 1},
      {cm, "/t//vf//", 0},
      {":pkg:fonts/tfm/x.tfm", ":*:/fonts/tfm//", 1},
      {":pkg:fonts/tfm/x.tfm", ":*:/fonts//", 1},
      {":pkg:fonts/tfm/x.tfm", ":*:\\fonts\\\\", 1},  // either separator after the root
      {":pkg:\\fonts\\tfm\\x.tfm", ":*:/fonts/tfm/", 1},
      {":pkg:fonts/tfm/x.tfm", ":*:/fonts/vf//", 0},
      {":pkg:fonts/tfm/x.tfm", "/t/fonts//", 0},
      {":pkg:fonts/tfm/x.tfm", ":*://", 1},
      {":pkg:x.tfm", ":*:", 1},
      {"/t/x/f", "/t//x/", 1},
      {"/t/a/x/f", "/t//x/", 1},
      {"/t/a/xy/f", "/t//x/", 0},
      {"/t/ax/f", "/t//x/", 0},
      {"t/x/f", "//x/", 0},
      {"t/x/f", "/t/x", 0},
      {"/t/x", "/t/x/", 0},
      {"/t/f", "/t", 1},
      {"/t/f", "/t/", 1},
      {"/t/a/f", "/t", 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(match(c.path, c.element), c.admitted) << c.path << " vs " << c.element;
}

TEST(Match, ManyWildcardsStayCheap) {
  std::string path, element = "/";
  for (int i = 0; i < 120; ++i) path += "/a";
  path += "/f";
  for (int i = 0; i < 40; ++i) element += "a//";
  element += "b/";
  EXPECT_EQ(match(path.c_str(), element.c_str()), 0);
}

TEST(DbEltInDb, RootsCoverTheirElements) {
  const struct {
    const char *root, *element;
    int covered;
  } cases[] = {
      {"/t/", "/t/tex/latex//", 1}, {"/t/", "/t/", 1},          {"/t/", "/T\\tex", 1},
      {"/t/", "/u/tex//", 0},       {"/t/", "/t", 0},           {"/t/", "/tex/", 0},
      {":*:", ":*:/fonts//", 1},    {":*:", ":pkg:", 1},        {":*:", "/t/", 0},
      {"/t/", ":*:/fonts//", 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(elt_in_db(c.root, c.element), c.covered) << c.root << " over " << c.element;
}

class DbSearchTest : public ::testing::Test {
 protected:
  DbSearchTest() {
    namespace fs = std::filesystem;
    for (const char *f : {"tex/latex/article.cls", "tex/x/latex/article.cls",
                          "tex/latex/base/article.cls", "fonts/tfm/bar.tfm",
                          "fonts/tfm/alias63.tfm", "fonts/tfm/alias64.tfm"})
      attached.box.write("texmf/" + std::string(f), "x");
    fs::create_directories(attached.box.path("other"));
    attached.box.write("texmf/ls-R",
                       "./tex/latex/base:\narticle.cls\n"
                       "./tex/latex:\narticle.cls\n"
                       "./tex/x/latex:\narticle.cls\n"
                       "./fonts/tfm:\nbar.tfm\ngone.tfm\nalias63.tfm\nalias64.tfm\n"
                       "/elsewhere/tree:\nlisted.tex\n");
    // many.tfm has 64 aliases, so its last one is never tried; edge.tfm has
    // 63, the last of them the 64th candidate.
    std::string aliases = "bar.tfm foo.tfm\n";
    for (int i = 1; i <= 63; ++i) aliases += "m" + std::to_string(i) + ".tfm many.tfm\n";
    aliases += "alias64.tfm many.tfm\n";
    for (int i = 1; i <= 62; ++i) aliases += "e" + std::to_string(i) + ".tfm edge.tfm\n";
    aliases += "alias63.tfm edge.tfm\n";
    attached.box.write("texmf/aliases", aliases);
    CacheGuard g;
    QDMReset();
  }
  std::string t(const std::string &rel) const { return attached.box.path("texmf/") + rel; }
  // "(null)" for a null answer.
  std::string search(const std::string &name, const std::string &element) {
    const char *r = db_search(name.c_str(), element.c_str(), out);
    return r ? r : "(null)";
  }
  test::AttachedTest attached{"[QDM]\nls-R=$SELFAUTOPARENT/texmf\n"};
  char out[260];
};

TEST_F(DbSearchTest, AnswersPerElement) {
  const struct {
    std::string name, element, answer;
  } cases[] = {
      {"latex/article.cls", t("tex//"), t("tex/latex/article.cls")},
      {"latex/article.cls", t("tex/x//"), t("tex/x/latex/article.cls")},
      {"latex/article.cls", t("tex/latex/base//"), ""},
      {"article.cls", t("tex/latex/base"), t("tex/latex/base/article.cls")},
      {"ARTICLE.CLS", t("tex/x/latex/"), t("tex/x/latex/article.cls")},
      {"article.cls", t("fonts//"), ""},
      {"bar.tfm", attached.box.path("texmf"), ""},
      {"bar.tfm", t("fonts//"), t("fonts/tfm/bar.tfm")},
      {"gone.tfm", t("fonts//"), ""},
      {"listed.tex", t("tex//"), ""},
      {"bar.tfm", attached.box.path("other//"), "(null)"},
      {"bar.tfm", "/u/tex//", "(null)"},
      {"foo.tfm", t("fonts/tfm//"), t("fonts/tfm/bar.tfm")},
      {"many.tfm", t("fonts//"), ""},
      {"edge.tfm", t("fonts//"), t("fonts/tfm/alias63.tfm")},
  };
  for (const auto &c : cases)
    EXPECT_EQ(search(c.name, c.element), c.answer) << c.name << " in " << c.element;
}

TEST_F(DbSearchTest, AliasTraceListsTheCandidates) {
  Trace_ALS = 1;
  search("foo.tfm", t("fonts//"));
  search("many.tfm", t("fonts//"));
  Trace_ALS = 0;
  char *m[2];
  ASSERT_EQ(QDMGetMessages(m, 2), 2);
  EXPECT_STREQ(m[1], "QDM-prog: Aliases: foo.tfm bar.tfm ");
  EXPECT_THAT(m[0], ::testing::StartsWith("QDM-prog: Aliases: many.tfm m1.tfm m2.tfm "));
}

TEST_F(DbSearchTest, OverlongTextsStayInTheirBuffers) {
  const std::string deep = t(std::string(250, 'd') + "//");
  EXPECT_EQ(search("bar.tfm", deep), "");
  const std::string huge(5000, 'h');
  EXPECT_EQ(search(huge, t("fonts//")), "");
  EXPECT_EQ(search(huge + "/a.tfm", t("fonts//")), "(null)") << "no room for the element";
}

TEST(DbSearchNoDatabase, EveryCallIsNull) {
  test::AttachedTest attached{"[QDM]\nls-R=$SELFAUTOPARENT\n"};
  char out[260];
  EXPECT_EQ(hdr(Word::DB_Hash), 0);
  EXPECT_EQ(db_search("a.tex", attached.box.root().c_str(), out), nullptr);
  EXPECT_EQ(db_search("a.tex", "/", out), nullptr);
}

TEST(DbSearchNetwork, IndexEntriesAnswerWithTheirNetworkPath) {
  test::AttachedTest attached{"[common]\nTEXMF={$SELFAUTOPARENT/texmf}\n[QDM]\nls-R=$TEXMF\n"};
  std::filesystem::create_directories(attached.box.path("texmf"));
  attached.box.write("Update/ls-R.net", ":pkg:\n./fonts/tfm:\nx.tfm\n");
  {
    CacheGuard g;
    QDMReset();
  }
  char out[260];
  const char *r = db_search("x.tfm", ":*:/fonts//", out);
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(r, ":pkg:fonts/tfm/x.tfm");
  r = db_search("x.tfm", (attached.box.path("texmf/fonts//")).c_str(), out);
  EXPECT_EQ(r, nullptr) << "the local tree has no database of its own";
}

}  // namespace
}  // namespace trv
