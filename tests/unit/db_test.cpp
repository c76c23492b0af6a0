// The file databases and what stands on them: loading ls-R, alias files and
// the network index, the lookup, the search along a path, link files beside
// programs and mirrors. One installation serves most cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
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

namespace fs = std::filesystem;
using V = std::vector<std::string>;
const std::string kNull = "(null)", kLong(130, 'n'), kL(100, 'L');

// How many of the newest log lines read "QDM-prog: TEXT", cut as the log cuts.
int logged(const std::string &text) {
  char *m[256];
  const int n = QDMGetMessages(m, 256);
  return static_cast<int>(std::count(m, m + n, ("QDM-prog: " + text).substr(0, 100)));
}

// Every value the table holds for `key`, in chain order; for the database
// the directory joined to the name, as a lookup forms the path.
V entries(int32_t table, const std::string &key, bool join) {
  V out;
  walk_chain(hash_bucket_head(table, hash(table, key.c_str())), [&](int32_t e) {
    if (key == entry_key(e))
      out.push_back(std::string(text_at(entry_value(e))) + (join ? entry_key(e) : ""));
    return true;
  });
  return out;
}

std::string answer(const char *r) { return r ? r : kNull; }

const std::string kIni =
    "[common]\nTEXMF={$SELFAUTOPARENT/texmf}\nTEXMFLOCAL=$SELFAUTOPARENT/local\nLONG=" + kL +
    "\n[QDM]\nls-R=$SELFAUTOPARENT/texmf;!!$SELFAUTOPARENT/two;$SELFAUTOPARENT/plain\n[Mirrors]\n"
    "$SELFAUTOPARENT/net=$SELFAUTOPARENT/main-local\n$SELFAUTOPARENT/keep=-local\n"
    "$SELFAUTOPARENT\\empty=$TEXMFLOCAL/e\n$SELFAUTOPARENT/far=$SELFAUTOPARENT/$LONG\n"
    "$SELFAUTOPARENT/blocked=$SELFAUTOPARENT/plain/x\n";

class DbTest : public ::testing::Test {
 protected:
  DbTest() {
    fs::current_path(at.box.root());  // for elements and names without a directory
    // The reader ends a line at a NUL byte, so "z\0:" is a name (dropped, as
    // it comes before any directory line) rather than a directory line.
    at.box.write("texmf/ls-R", std::string("z\0:\n", 4) + "% ls-R -- generated\n./:\r\na.tex\r\n"
                 ".\n..\n.0rc\nREADME.TXT\ncaf\xc3\xa9.tex\n" + kLong + "\n\n./.svn/x:\nh.tex\n"
                 "./b:\ns.tex\n./a/.cache/b:\nc.tex\n./a/b.c:\nd.tex\n./a\\.git:\ne.tex\n"
                 "./a/..x:\nf.tex\n./a./b:\ng.tex\n./tex/l/base:\na.cls\n./tex/l:\na.cls\n"
                 "./tex/x/l:\na.cls\n./fonts/tfm:\nbar.tfm\ngone.tfm\n/elsewhere/t:\nlisted.tex\n"
                 "./:\na.tex\n");
    at.box.write("texmf/aliases", "cmr10.tfm   cmroman.tfm\n% comment x\n# comment y\n\n"
                 "oneword\na b c\n \t lead\t\t spaced alias \np.tfm q.tfm\r\nfirst.tfm shared.tfm\n"
                 "second.tfm shared.tfm\nfrom-plain foo\nbar.tfm foo.tfm\n");
    at.box.write("texmf/aliases.ini", "[TeXFonts]\nptmr=ptmr8r\n" + std::string(200, 'k') +
                 "=x\n[Truncated]\nlongname.sty=longname\n[Aliases]\nfoo=from-ini\n");
    at.box.write("two/ls-R", "% only directories\n./:\n./a:\n./.git:\nlost\n");
    at.box.write("two/aliases.ini", "[Aliases]\nfoo=from-ini-two\n");
    at.box.write("SETUP.INI", "[Info]\nTEXMFNETMAP=%s\\idx\\%%\\%s%d.idx\n");
    at.box.write("idx/%/" + at.box.root() + "%d.idx", ":pkg:\n./f/tfm:\nx.tfm\n:o\n./:\ny\n");
    for (const std::string &f :
         V{"texmf/a.tex", "texmf/unlisted.tex", "texmf/tex/l/a.cls", "texmf/tex/x/l/a.cls",
           "texmf/tex/l/base/a.cls", "texmf/fonts/tfm/bar.tfm", "a/b/x", "a/b/c/x", "plain/x",
           "a/b/c/only-deep", "net2/a.tfm", "net\\c.tfm", "keep/a.tfm", "empty/a.tfm", "A/B/X",
           "net/fonts/a.tfm", "blocked/a.tfm", "A/B/setup", "C/setup", "loop/a/b/found",
           "far/" + std::string(140, 'f')})
      at.box.write(f, f);
    at.box.write(Zelvan_INI + p("").size(),  // the per-user file, under HOME
                 "[Mirrors]\n$SELFAUTOPARENT\\NET=$TEXMFLOCAL\n$SELFAUTOPARENT/empty=\n");
    fs::create_directory_symlink(p("loop"), p("loop/a/b/up"));  // cycles for the walk
    fs::create_directory_symlink(p("loop/a"), p("loop/a/side"));
    fs::create_symlink(p("loop/gone"), p("loop/a/dangling"));
    QDMFind("!Finish");
  }
  ~DbTest() { fs::current_path(cwd); }
  std::string p(const std::string &rel) const { return at.box.path(rel); }
  std::string t(const std::string &rel = "") const { return p("texmf/" + rel); }
  std::string search(const V &elements, const std::string &name) {
    int list = 0;
    {
      CacheGuard g;
      for (const std::string &e : elements) list = list_append(list, e.c_str(), 0);
    }
    return answer(search_file(list, name.c_str(), buf));
  }
  const fs::path cwd = fs::current_path();
  test::AttachedTest at{kIni};
  char buf[260];
};

TEST_F(DbTest, LoadFillsTheTables) {
  const std::string n127 = kLong.substr(0, 127), texmf = "{$SELFAUTOPARENT/texmf,:*:}";
  const struct { bool alias; std::string key; V values; } cases[] = {
      {0, "% ls-R -- generated", {}}, {0, "a.tex", {t("a.tex"), t("a.tex")}}, {0, ".", {}},
      {0, "..", {}}, {0, ".0rc", {t(".0rc")}}, {0, "README.TXT", {t("README.TXT")}},
      {0, "caf\xc3\xa9.tex", {t("caf\xc3\xa9.tex")}}, {0, n127, {t(n127)}}, {0, "nnn", {t("nnn")}},
      {0, kLong, {}}, {0, "h.tex", {}}, {0, "s.tex", {t("b/s.tex")}}, {0, "c.tex", {}},
      {0, "d.tex", {t("a/b.c/d.tex")}}, {0, "e.tex", {}}, {0, "f.tex", {}}, {0, "lost", {}},
      {0, "g.tex", {t("a./b/g.tex")}}, {0, "listed.tex", {"/elsewhere/t/listed.tex"}},
      {0, "y", {":oy"}},  // a network root without its second colon
      {1, "cmroman.tfm", {"cmr10.tfm"}}, {1, "comment x", {}}, {1, "comment y", {}},
      {1, "oneword", {}}, {1, "b c", {"a"}}, {1, "spaced alias ", {"lead"}}, {1, "ptmr", {}},
      {1, "shared.tfm", {"first.tfm", "second.tfm"}}, {1, "ptmr.tfm", {"ptmr8r.tfm"}},
      {1, "ptmr.vf", {"ptmr8r.vf"}}, {1, "q.tfm", {"p.tfm"}}, {1, "longname", {"longname.sty"}},
      {1, "longname.sty", {}}, {1, std::string(200, 'k') + ".tfm", {"x.tfm"}},
      {1, "foo", {"from-plain", "from-ini", "from-ini-two"}},
  };
  const std::string index = p("idx/%/") + at.box.root() + "%d.idx";
  for (const std::string &line :
       V{"WARNING: No usable entries in " + p("two/ls-R"), "WARNING: There is no file: " +
         p("plain/ls-R"), "WARNING: Use 'Options|Directories ...' editor dialog to generate ls-R",
         "WARNING: There is no alias file(s): " + p("plain/Aliases[.ini]"),
         "Loading Network TEXMF Index=" + index, "Set TEXMF = " + texmf, "Got TEXMF = " + texmf})
    EXPECT_TRUE(logged(line)) << line;
  EXPECT_EQ(logged("WARNING: There is no alias file(s): " + p("two/Aliases[.ini]")), 0);
  CacheGuard g;
  for (const auto &c : cases)
    EXPECT_EQ(entries(hdr(c.alias ? Word::Alias_Hash : Word::DB_Hash), c.key, !c.alias), c.values)
        << c.key;
  EXPECT_STREQ(text_at(hdr(Word::Net_Index)), index.c_str());
}

TEST(DbLookup, Match) {
  const char *cm = "/t/f/tfm/pub/cm/r.tfm", *net = ":pkg:fonts/tfm/x.tfm";
  const struct { const char *path, *element; int admitted; } cases[] = {
      {cm, "/t/f//", 1}, {cm, "/t//cm/", 1}, {cm, "/T/F/TFM/PUB/CM", 1}, {cm, "/t/f/tfm/", 0},
      {cm, "/t/f/vf//", 0}, {cm, "/t//tfm//cm/", 1}, {cm, "/t//vf//", 0}, {net, ":*:/fonts//", 1},
      {net, ":*:\\fonts\\\\", 1}, {net, ":*://", 1}, {":pkg:\\fonts\\tfm\\x.tfm", ":*:/fonts/tfm/", 1},
      {net, ":*:/fonts/vf//", 0}, {net, "/t/fonts//", 0}, {net, ":*://vf/", 0}, {":pkg:x.tfm", ":*:", 1},
      {"/t/a/x/f", "/t//x/", 1}, {"/t/a/xy/f", "/t//x/", 0}, {"/t/ax/f", "/t//x/", 0}, {"t/x/f", "//x/", 0},
      {"t/x/f", "/t/x", 0}, {"/t/x", "/t/x/", 0}, {"/t/f", "/t", 1}, {"/t/a/f", "/t", 0},
  };
  for (const auto &c : cases) EXPECT_EQ(match(c.path, c.element), c.admitted) << c.element;
}

// Rows marked 1 ask the databases alone: "" when one covers the element but
// lists no readable candidate, (null) when none covers it.
TEST_F(DbTest, SearchAlongAPath) {
  const std::string huge(5000, 'h'), net = ":pkg:f/tfm/x.tfm";
  const struct { bool db; V elements; std::string name, answer; } cases[] = {
      {1, {t("tex//")}, "l/a.cls", t("tex/l/a.cls")}, {1, {t("tex/l/base//")}, "l/a.cls", ""},
      {1, {t("tex/x//")}, "l/a.cls", t("tex/x/l/a.cls")}, {1, {t("fonts//")}, "a.cls", ""},
      {1, {t("tex/l/base")}, "a.cls", t("tex/l/base/a.cls")}, {1, {p("texmf")}, "bar.tfm", ""},
      {1, {t("tex/x/l/")}, "A.CLS", t("tex/x/l/a.cls")}, {1, {t("fonts//")}, "gone.tfm", ""},
      {1, {p("other//")}, "bar.tfm", kNull}, {1, {p("tex")}, "bar.tfm", kNull},
      {1, {p("two")}, "x", kNull}, {1, {":*:/f//"}, "x.tfm", net}, {1, {":*:/v//"}, "x.tfm", ""},
      {1, {":pkg:/f//"}, "x.tfm", net}, {1, {t("tex//")}, "listed.tex", ""},
      {1, {t("fonts/tfm//")}, "foo.tfm", t("fonts/tfm/bar.tfm")},
      {1, {t(std::string(250, 'd') + "//")}, "bar.tfm", ""}, {1, {t("fonts//")}, huge, ""},
      {1, {t("fonts//")}, huge + "/a.tfm", kNull},  // no room left for the element
      {0, {"."}, "x", kNull}, {0, {"a/b//"}, "x", "a/b/x"}, {0, {"plain"}, "", kNull},
      {0, {"a/b//"}, "only-deep", "a/b/c/only-deep"}, {0, {"plain"}, "x", "plain/x"},
      {0, {"plain/"}, "x", "plain/x"}, {0, {"!!plain"}, "x", "plain/x"}, {0, {"nowhere//"}, "x", kNull},
      {0, {"a//"}, "x", kNull}, {0, {"a//"}, "b", "a//b"}, {0, {p("a")}, "x", kNull},  // "a//": too short
      {0, {p("texmf")}, "a.tex", t("a.tex")}, {0, {p("texmf")}, "unlisted.tex", kNull},
      {0, {p("texmf"), "plain"}, "x", "plain/x"}, {0, {"a/b", "plain"}, "x", "a/b/x"},
      {0, {"a/b"}, "c/only-deep", "a/b/c/only-deep"},
      {0, {"missing", ".", "plain"}, "x", "plain/x"}, {0, {""}, "x", kNull}, {0, {"plain/x//"}, "x", kNull},
      {0, {p("plain/") + std::string(300, 'z')}, "x", kNull}, {0, {"plain"}, std::string(300, 'n'), kNull},
      {0, {"loop//"}, "never", kNull}, {0, {"loop//"}, "found", "loop/a/b/found"},
  };
  Trace = Trace_ALS = 1;
  for (const auto &c : cases)
    EXPECT_EQ(c.db ? answer(db_search(c.name.c_str(), c.elements[0].c_str(), buf))
                   : search(c.elements, c.name), c.answer) << c.elements[0] << " " << c.name;
  Trace = Trace_ALS = 0;
  for (const std::string &line :
       V{"Aliases: foo.tfm bar.tfm ", "Check directory: a/b//", "Recursive search: a/b//",
         "OK: a/b/x", "WARNING: absent directory: nowhere", "WARNING: is not a directory: plain/x",
         "ERROR: Can't access directory: loop/a/dangling"})
    EXPECT_TRUE(logged(line)) << line;
}

TEST_F(DbTest, LinkFilesBesidePrograms) {
  const struct { const char *link; std::string answer; } cases[] = {  // nullptr: none yet
      {nullptr, p("A/B/setup")}, {"../../C/setup\n", p("C/setup")}, {"X", p("A/B/X")},
      {"X \t\r\n", p("A/B/X")}, {"missing\n", p("A/B/setup")},
      {"../../../../../../../../../../../../C/setup", p("A/B/setup")},
  };
  for (const auto &c : cases) {
    if (c.link) at.box.write("A/B/setup.lnk", c.link);
    std::string path = p("A/B/setup");
    const int warnings = QDMMsgInfo()[2];
    EXPECT_EQ(answer(find_AppBundle(path.data())), c.answer) << (c.link ? c.link : "");
    EXPECT_EQ(QDMMsgInfo()[2] - warnings, c.link && c.answer == path) << (c.link ? c.link : "");
  }
  at.box.write("tool.lnk", "tmp\n");  // beside a program named without a directory
  char name[] = "tool";
  EXPECT_STREQ(find_AppBundle(name), "/tmp");
}

// Rows: a path, what it becomes ("": itself) and a line it logs. The mirror
// directory itself and a name that only begins like it are not mirrored;
// the per-user entry for net wins; "\" ends the mirror part too; "-" uses
// the mirror in place; an empty local directory is passed over; the copy of
// the far file would not fit the buffer.
TEST_F(DbTest, MirrorsCopyIntoTheirLocalTree) {
  const std::string r = at.box.root() + "/", uncached = "WARNING: the file will not be cached: ";
  const std::string far = "far/" + std::string(140, 'f');
  const struct { std::string path, answer, log; } cases[] = {
      {"net", "", ""}, {"net2/a.tfm", "", ""}, {"net/fonts/a.tfm", "local/fonts/a.tfm", ""},
      {"net\\c.tfm", "local/c.tfm", ""}, {"keep/a.tfm", "", ""}, {far, "", uncached + r + far},
      {"empty/a.tfm", "local/e/a.tfm", ""}, {"net/missing.tfm", "", "WARNING: Can't open file: " +
                                              r + "net/missing.tfm"},
      {"blocked/a.tfm", "", "ERROR: Can't create directory for file: " + r + "plain/x/a.tfm"},
  };
  for (const auto &c : cases) {
    std::snprintf(buf, sizeof buf, "%s", (r + c.path).c_str());
    EXPECT_EQ(std::string(Process_Mirror(buf)), r + (c.answer.empty() ? c.path : c.answer));
    EXPECT_EQ(logged(uncached + r + c.path), !c.log.empty() && c.answer.empty()) << c.path;
    EXPECT_EQ(logged(c.log), !c.log.empty()) << c.log;
  }
  EXPECT_EQ(test::read_file(r + "local/fonts/a.tfm"), "net/fonts/a.tfm");
  EXPECT_EQ(test::read_file(r + "local/c.tfm"), "net\\c.tfm");
}

}  // namespace
}  // namespace trv
