// Loading ls-R files, the network index and alias files into the region.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <strings.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "core/containers.h"
#include "core/lock.h"
#include "core/region.h"
#include "db/db.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Every value the table holds for `key`, in chain order; for the database
// table the directory and key joined, as a lookup forms the path.
std::vector<std::string> entries(int32_t table, const std::string &key, bool join_key) {
  std::vector<std::string> out;
  walk_chain(hash_bucket_head(table, hash(table, key.c_str())), [&](int32_t e) {
    if (strcasecmp(entry_key(e), key.c_str()) == 0)
      out.push_back(std::string(text_at(entry_value(e))) + (join_key ? entry_key(e) : ""));
    return true;
  });
  return out;
}

std::vector<std::string> db(const std::string &name) {
  return entries(hdr(Word::DB_Hash), name, true);
}

std::vector<std::string> db_dirs() {
  std::vector<std::string> out;
  walk_chain(hdr(Word::DB_Dirs), [&](int32_t e) {
    out.emplace_back(entry_key(e));
    return true;
  });
  return out;
}

// The newest `n` log lines, newest first.
std::vector<std::string> log_lines(int n = 64) {
  std::vector<char *> t(static_cast<size_t>(n));
  const int got = QDMGetMessages(t.data(), n);
  return {t.begin(), t.begin() + got};
}

bool logged(const std::string &text) {
  const std::string line = ("QDM-prog: " + text).substr(0, 100);
  for (const std::string &l : log_lines())
    if (l == line) return true;
  return false;
}

int count_logged(const std::string &text) {
  const std::string line = ("QDM-prog: " + text).substr(0, 100);
  int n = 0;
  for (const std::string &l : log_lines())
    n += l == line;
  return n;
}

constexpr const char *kIni =
    "[common]\nTEXMF={$SELFAUTOPARENT/texmf}\n[QDM]\nls-R=$TEXMF\n";

class DbLoadTest : public ::testing::Test {
 protected:
  DbLoadTest() { std::filesystem::create_directories(attached.box.path("texmf")); }
  void reset() {
    CacheGuard g;
    QDMReset();
  }
  std::string t(const std::string &rel = "") const {
    return attached.box.path("texmf/") + rel;
  }
  test::AttachedTest attached{kIni};
};

TEST_F(DbLoadTest, RelativeDirectoriesResolveAgainstTheTree) {
  attached.box.write("texmf/ls-R", "% ls-R -- generated\n\n./:\na.tex\n\n./fonts/tfm:\ncmr10.tfm\n");
  reset();
  CacheGuard g;
  EXPECT_THAT(db("a.tex"), ElementsAre(t("a.tex")));
  EXPECT_THAT(db("cmr10.tfm"), ElementsAre(t("fonts/tfm/cmr10.tfm")));
  EXPECT_THAT(db("% ls-R -- generated"), IsEmpty());
  EXPECT_THAT(db_dirs(), ElementsAre(t()));
}

// One ls-R text per behaviour of the reader, with the entries it must give.
TEST_F(DbLoadTest, LineFormsOfTheReader) {
  const std::string long_name(130, 'n');
  struct Case {
    const char *what;
    std::string text;
    std::map<std::string, std::vector<std::string>> expect;
  } cases[] = {
      {"a dot-directory hides its files until the next directory line",
       "./.svn/x:\nhidden.tex\n./b:\nshown.tex\n",
       {{"hidden.tex", {}}, {"shown.tex", {t("b/shown.tex")}}}},
      {"a dot-component deeper down is ignored too",
       "./a/.cache/b:\nc.tex\n./a/b.c:\nd.tex\n",
       {{"c.tex", {}}, {"d.tex", {t("a/b.c/d.tex")}}}},
      {"dot names: . and .. never, .0rc yes", "./:\n.\n..\n.0rc\n",
       {{".", {}}, {"..", {}}, {".0rc", {t(".0rc")}}}},
      {"CR LF lines read like LF lines", "./:\r\na.tex\r\n\r\n./fonts/tfm:\r\ncmr10.tfm\r\n",
       {{"a.tex", {t("a.tex")}}, {"cmr10.tfm", {t("fonts/tfm/cmr10.tfm")}}}},
      {"names before any directory line are skipped", "early.tex\n./:\nlate.tex\n",
       {{"early.tex", {}}, {"late.tex", {t("late.tex")}}}},
      {"an absolute directory line stands as written", "/abs/dir:\nx.tex\n",
       {{"x.tex", {"/abs/dir/x.tex"}}}},
      {"a directory named twice keeps both, in load order",
       "./:\nx.tex\n./sub:\ny.tex\n\n./:\nx.tex\n",
       {{"x.tex", {t("x.tex"), t("x.tex")}}, {"y.tex", {t("sub/y.tex")}}}},
      {"a line over 127 characters is read as several",
       "./:\n" + long_name + "\n",
       {{long_name.substr(0, 127), {t(long_name.substr(0, 127))}},
        {"nnn", {t("nnn")}},
        {long_name, {}}}},
      {"names are case-insensitive keys but keep their spelling", "./:\nREADME.TXT\n",
       {{"readme.txt", {t("README.TXT")}}}},
  };
  for (const Case &c : cases) {
    attached.box.write("texmf/ls-R", c.text);
    reset();
    CacheGuard g;
    for (const auto &[name, paths] : c.expect) EXPECT_EQ(db(name), paths) << c.what << ": " << name;
    EXPECT_THAT(db_dirs(), ElementsAre(t())) << c.what;
  }
}

TEST_F(DbLoadTest, ADatabaseWithoutEntriesIsNotCounted) {
  attached.box.write("texmf/ls-R", "% only directories\n./:\n./a:\n./.git:\nlost\n");
  reset();
  CacheGuard g;
  EXPECT_EQ(hdr(Word::DB_Hash), 0);
  EXPECT_THAT(db_dirs(), IsEmpty());
  EXPECT_TRUE(logged("WARNING: No usable entries in " + t("ls-R")));
  EXPECT_TRUE(logged("WARNING: Use 'Options|Directories ...' editor dialog to generate ls-R"));
}

TEST_F(DbLoadTest, MissingFilesAreReported) {
  reset();
  CacheGuard g;
  EXPECT_EQ(hdr(Word::DB_Hash), 0);
  EXPECT_EQ(hdr(Word::Alias_Hash), 0);
  EXPECT_TRUE(logged("WARNING: There is no file: " + t("ls-R")));
  EXPECT_TRUE(logged("WARNING: There is no alias file(s): " + t("Aliases[.ini]")));
  EXPECT_TRUE(logged("Checking Network TEXMF Index=" + attached.box.path("Update/ls-R.net")));
  EXPECT_FALSE(logged("Loading Network TEXMF Index=" + attached.box.path("Update/ls-R.net")));
}

TEST_F(DbLoadTest, TraceNamesEachDirectoryAndFile) {
  attached.box.write("texmf/ls-R", "./:\na.tex\n");
  Trace = 1;
  reset();
  Trace = 0;
  EXPECT_TRUE(logged("Check path: " + attached.box.path("texmf")));
  EXPECT_TRUE(logged("Load DB: " + t("ls-R")));
}

TEST_F(DbLoadTest, BangsBeforeADatabaseDirectoryAreDropped) {
  attached.box.write("TEXMF.INI", "[QDM]\nls-R=!!$SELFAUTOPARENT/texmf\n");
  attached.box.write("texmf/ls-R", "./:\na.tex\n");
  reset();
  CacheGuard g;
  EXPECT_THAT(db("a.tex"), ElementsAre(t("a.tex")));
}

TEST_F(DbLoadTest, NoLsRTypeIsAnErrorButTheIndexStillLoads) {
  attached.box.write("TEXMF.INI", "[QDM]\n");
  attached.box.write("Update/ls-R.net", ":pkg:\n./fonts/tfm:\nx.tfm\n");
  reset();
  CacheGuard g;
  EXPECT_THAT(db("x.tfm"), ElementsAre(":pkg:fonts/tfm/x.tfm"));
}

TEST(DbIgnoreDir, ComponentsThatBeginWithADot) {
  const struct {
    const char *line;
    int ignored;
  } cases[] = {
      {"./.git:", 1},      {"./a/.cache/b:", 1}, {"./:", 0},      {"./a/b.c:", 0},
      {".hidden:", 0},     {"/t/.svn:", 1},      {"a\\.git\\x:", 1}, {"./a/..x:", 1},
      {"./a./b:", 0},      {"", 0},
  };
  for (const auto &c : cases) EXPECT_EQ(ignore_dir_p(c.line), c.ignored) << c.line;
}

// The network index: its root lines, the marker in DB_Dirs and the TEXMF
// rewrite, for each shape TEXMF can have.
TEST(DbNetworkIndex, LoadsAndJoinsTheMarkerToTexmf) {
  const struct {
    const char *ini;
    const char *texmf_after;
    bool local_db;
  } cases[] = {
      {"[common]\nTEXMF={$SELFAUTOPARENT/texmf}\n[QDM]\nls-R=$TEXMF\n",
       "{$SELFAUTOPARENT/texmf,:*:}", true},
      {"[common]\nTEXMF={$SELFAUTOPARENT/texmf}\n[QDM]\nls-R=$TEXMF\n",
       "{$SELFAUTOPARENT/texmf,:*:}", false},
      {"[common]\nTEXMF=$SELFAUTOPARENT/texmf\n[QDM]\nls-R=$TEXMF\n",
       "{$SELFAUTOPARENT/texmf,:*:}", true},
      {"[QDM]\nls-R=$SELFAUTOPARENT/texmf\n", "{:*:}", true},
  };
  for (const auto &c : cases) {
    test::AttachedTest attached{c.ini};
    std::filesystem::create_directories(attached.box.path("texmf"));
    if (c.local_db) attached.box.write("texmf/ls-R", "./:\nlocal.tex\n");
    attached.box.write("Update/ls-R.net", ":pkg:\n./fonts/tfm:\nx.tfm\n:other\n./:\ny.tfm\n");
    CacheGuard g;
    QDMReset();
    const std::string index = attached.box.path("Update/ls-R.net");
    EXPECT_TRUE(logged("Loading Network TEXMF Index=" + index)) << c.ini;
    EXPECT_STREQ(text_at(hdr(Word::Net_Index)), index.c_str());
    EXPECT_THAT(db("x.tfm"), ElementsAre(":pkg:fonts/tfm/x.tfm")) << c.ini;
    EXPECT_THAT(db("y.tfm"), ElementsAre(":othery.tfm")) << "a root without its second colon";
    std::vector<std::string> dirs = {":*:"};
    if (c.local_db) dirs.insert(dirs.begin(), attached.box.path("texmf/"));
    EXPECT_EQ(db_dirs(), dirs) << c.ini;
    const char *texmf = _QDMValue("common", "TEXMF");
    ASSERT_NE(texmf, nullptr) << c.ini;
    EXPECT_STREQ(texmf, c.texmf_after);
    EXPECT_TRUE(logged(std::string("Set TEXMF = ") + c.texmf_after));
    EXPECT_EQ(count_logged(std::string("Got TEXMF = ") + c.texmf_after), 1);
  }
}

TEST(DbNetworkIndex, SetupIniNamesTheIndex) {
  test::AttachedTest attached{"[QDM]\nls-R=\n"};
  attached.box.write("SETUP.INI", "[Info]\nTEXMFNETMAP=%s\\net\\%%\\%s%d.idx\n");
  const std::string root = attached.box.root();
  const std::string index = root + "/net/%/" + root + "%d.idx";
  CacheGuard g;
  QDMReset();
  EXPECT_TRUE(logged("Checking Network TEXMF Index=" + index));
}

// The loader hashes names itself; a table it fills must stay readable by
// every other user of the containers.
TEST(DbHash, LoaderHashAgreesWithTheContainers) {
  uint32_t seed = 12345;
  for (uint32_t buckets : {1u, 97u, 127u, 128u, 129u, 1009u, 15991u, 65521u}) {
    for (int i = 0; i < 2000; ++i) {
      // Half plain ASCII (long ones too), half with bytes of 128 and more.
      std::string key(1 + i % 200, ' ');
      for (char &c : key) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>(i % 2 ? 32 + (seed >> 16) % 95 : 1 + (seed >> 16) % 255);
      }
      ASSERT_EQ(fast_hash_index(key.c_str(), buckets), hash_index(key.c_str(), buckets))
          << buckets << " " << key;
    }
  }
}

class AliasLoadTest : public ::testing::Test {
 protected:
  std::vector<std::string> targets(const std::string &alias) {
    return entries(table, alias, false);
  }
  test::AttachedTest attached{"[QDM]\n"};
  CacheGuard guard;
  int table = hash_create(kAliasBuckets);
};

TEST_F(AliasLoadTest, PlainFileLines) {
  attached.box.write("aliases",
                     "cmr10.tfm   cmroman.tfm\n"
                     "% comment x\n"
                     "# comment y\n"
                     "\n"
                     "oneword\n"
                     "a b c\n"
                     " \t lead\t\t spaced alias \n"
                     "p.tfm q.tfm\r\n"
                     "first.tfm shared.tfm\n"
                     "second.tfm shared.tfm\n");
  EXPECT_EQ(alias_build(table, attached.box.path("aliases").c_str()), 1);
  const struct {
    const char *alias;
    std::vector<std::string> targets;
  } cases[] = {
      {"cmroman.tfm", {"cmr10.tfm"}},
      {"x", {}},
      {"y", {}},
      {"comment", {}},
      {"oneword", {}},
      {"", {}},
      {"b c", {"a"}},
      {"spaced alias ", {"lead"}},
      {"q.tfm", {"p.tfm"}},
      {"shared.tfm", {"first.tfm", "second.tfm"}},
  };
  for (const auto &c : cases) EXPECT_EQ(targets(c.alias), c.targets) << "[" << c.alias << "]";
}

TEST_F(AliasLoadTest, MissingPlainFileIsNotLoaded) {
  EXPECT_EQ(alias_build(table, attached.box.path("nothing").c_str()), 0);
}

TEST_F(AliasLoadTest, ProfileSections) {
  const std::string long_key(200, 'k');
  attached.box.write("aliases.ini",
                     "[TeXFonts]\nptmr=ptmr8r\n" + long_key + "=x\n"
                     "[Truncated]\nlongname.sty=longname\n"
                     "[Aliases]\nx.sty=y.sty\nx.sty=z.sty\n");
  EXPECT_EQ(alias_ini_build(table, attached.box.path("aliases.ini").c_str()), 1);
  EXPECT_THAT(targets("ptmr.tfm"), ElementsAre("ptmr8r.tfm"));
  EXPECT_THAT(targets("ptmr.vf"), ElementsAre("ptmr8r.vf"));
  EXPECT_THAT(targets("ptmr"), IsEmpty());
  EXPECT_THAT(targets("longname"), ElementsAre("longname.sty"));
  EXPECT_THAT(targets("longname.sty"), IsEmpty());
  EXPECT_THAT(targets("x.sty"), ::testing::Contains("y.sty"));
  EXPECT_THAT(targets(long_key + ".tfm"), ElementsAre("x.tfm"));
}

// Within a directory "aliases" comes before "aliases.ini"; directories come
// in the order of the ls-R path.
TEST(AliasInitDb, LoadOrderAcrossFilesAndDirectories) {
  test::AttachedTest attached{"[QDM]\nls-R=$SELFAUTOPARENT/one;$SELFAUTOPARENT/two\n"};
  attached.box.write("one/aliases", "from-plain-one foo\n");
  attached.box.write("one/aliases.ini", "[Aliases]\nfoo=from-ini-one\n");
  attached.box.write("two/aliases.ini", "[Aliases]\nfoo=from-ini-two\n");
  CacheGuard g;
  QDMReset();
  ASSERT_NE(hdr(Word::Alias_Hash), 0);
  EXPECT_THAT(entries(hdr(Word::Alias_Hash), "foo", false),
              ElementsAre("from-plain-one", "from-ini-one", "from-ini-two"));
  EXPECT_FALSE(logged("WARNING: There is no alias file(s): " + attached.box.path("two/Aliases[.ini]")));
}

}  // namespace
}  // namespace trv
