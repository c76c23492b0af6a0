// Configuration and profiles: INI reads and writes at their limits, the
// process's file copies, the registry in REG.INI, values and variables, the
// reset, $NAME expansion, {a,b} alternatives and directory checks and format
// records.
#include <gtest/gtest.h>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "config/braces.h"
#include "core/lock.h"
#include "core/region.h"
#include "profile/ini_store.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;
using test::read_file;

constexpr char kMainIni[] =
    "[common]\nTEXMF=$SELFAUTOPARENT/texmf\nOnlyMain=main-value\nBoth=from-main\nFolder=#5\n"
    "TexCommon=common\n[latex]\nTREE=$SELFAUTOPARENT/latex\nLatexTex=latex\n"
    "[tex]\nTREE=$SELFAUTOPARENT/plain\nLatexTex=tex\nTexCommon=tex\n[memory]\nMem=memory\n"
    "[QDM]\ntfm=$TEXMF/fonts/tfm//+.tfm*mktextfm\nstar=/a*b\nplus=/a+\n"
    "macros=$TREE/tex;./rel;$TEXMF/missing+.tex.ltx\n";
constexpr char kUserIni[] = "home/.config/Zelvan TeX/TEXMF.INI";

// HOME, the files and the log are the sandbox's. The process keeps its copy
// of every INI file it touched, so each text gets a file of its own.
class ConfigTest : public ::testing::Test {
 protected:
  ConfigTest() { env.box.write(kUserIni, "[common]\nBoth=from-user\nUserFolder=#5\n"); }
  test::AttachedTest env{kMainIni};
  test::SavedModes modes;
  int files_ = 0;

  std::string file(const std::string &text) {
    env.box.write("f" + std::to_string(++files_) + ".ini", text);
    return env.box.path("f" + std::to_string(files_) + ".ini");
  }
};

std::string get(const char *s, const char *k, std::string path) {
  char buf[256];
  GetPrivateProfileString(s, k, "<def>", buf, sizeof buf, path.data());
  return buf;
}
int put(const char *s, const char *k, const char *v, std::string path) {
  return WritePrivateProfileString(s, k, v, path.data());
}
std::string str(const char *p) { return p ? p : "(null)"; }
// The lines posted since the count was `total`, oldest first. Read without
// the lock, which some tests hold: no other process writes to the sandbox's log.
Strings since(int total) {
  char *t[16];
  const int n = _QDMGetMessages(t, std::min(16, QDMMsgInfo()[1] - total));
  return Strings(std::make_reverse_iterator(t + n), std::make_reverse_iterator(t));
}
Strings newest() { return since(QDMMsgInfo()[1] - 1); }

// call: 'n' section names, 'l' a section's lines, 's' GetPrivateProfileString.
// bytes: the buffer's first bytes afterwards; the rest must stay untouched.
struct Read {
  std::string path;
  char call;
  const char *section, *key;
  int size, result;
  std::string bytes;
};

TEST_F(ConfigTest, ProfileReadsAndListingsAtTheirBufferLimits) {
  const std::string rich = file(
      "pre=0\n[PATHS] ; c\nx=1\nX=2\nkey = v\n  in=1\nabc=1\na=b=c\nq=\"x\" ; y \n;c=1\nk\tz=5\n"
      "k\xe9=6\ncr=2\r\n[Paths2]\ny=3\n[paths]\ny=4\n[ab\nu=1\n[]\ne=1\n[s]\nk=0123456789\n"
      "m=12\r4567\r\nz=\n[last]\nn=1");
  const std::string stop = file("[A]\nA=1\nBBB=2\nC=3\n[BBB]\n[C]\n"), none = env.box.path("no");
  const std::string lines = file("[s]\r\nk=1\r\n;c\r\n\r\nx\ty=2\r\nplain\r\n[t]\nu=1\n\nv=2\n");
  const Read reads[] = {
      {rich, 's', "paths", "x", 64, 1, "1\0"s}, {rich, 's', "Paths", "y", 64, 5, "<def>\0"s},
      {rich, 's', "path", "x", 64, 5, "<def>"}, {rich, 's', "paths", "pre", 64, 5, "<def>"},
      {rich, 's', "paths", "key ", 64, 2, " v\0"s}, {rich, 's', "paths", "a", 64, 3, "b=c\0"s},
      {rich, 's', "paths", "q", 64, 8, "\"x\" ; y \0"s}, {rich, 's', "paths", ";c", 64, 1, "1"},
      {rich, 's', "paths", "K\xc9", 64, 5, "<def>"}, {rich, 's', "paths", "cr", 64, 1, "2\0"s},
      {rich, 's', "ab", "u", 64, 5, "<def>"}, {rich, 's', "", "e", 64, 1, "1\0"s},
      {rich, 's', "last", "n", 64, 1, "1\0"s}, {none, 's', "s", "k", 64, 5, "<def>\0"s},
      // Values and defaults are cut to the buffer less one; a CR taken last goes.
      {rich, 's', "none", "x", 4, 3, "<de\0"s}, {rich, 's', "s", "k", 8, 7, "0123456\0"s},
      {rich, 's', "s", "k", 1, 0, "\0"s}, {rich, 's', "s", "z", 8, 0, "\0"s},
      {rich, 's', "s", "m", 4, 2, "12\0"s}, {rich, 's', "s", "k", 0, 0, ""},
      // Names count the final NUL, keys do not; "no list" is two NULs. A name
      // runs to the next ']', across lines if need be.
      {rich, 'n', nullptr, nullptr, 64, 37, "PATHS\0Paths2\0paths\0ab\nu=1\n[\0\0s\0last\0\0"s},
      {rich, 's', "paths", nullptr, 64, 25, "x\0X\0key \0  in\0abc\0a\0q\0cr\0\0"s},
      {stop, 's', "BBB", nullptr, 64, 0, "\0#"s}, {stop, 's', "no", nullptr, 64, 0, "\0\0"s},
      {none, 'n', nullptr, nullptr, 64, 0, "\0\0"s}, {stop, 's', "A", nullptr, 0, 0, ""},
      // An entry needs its length + 2 bytes; the first that does not fit ends the list.
      {stop, 'n', nullptr, nullptr, 3, 1, "\0"s}, {stop, 'n', nullptr, nullptr, 4, 3, "A\0\0"s},
      {stop, 'n', nullptr, nullptr, 7, 3, "A\0\0"s}, {stop, 's', "A", nullptr, 7, 2, "A\0\0"s},
      {stop, 'n', nullptr, nullptr, 8, 7, "A\0BBB\0\0"s}, {stop, 'n', nullptr, nullptr, -1, 0, ""},
      // Whole lines but comments; the suffix's empty line ends the last section.
      {lines, 'l', "s", nullptr, 64, 16, "k=1\r\0\r\0x\0plain\r\0\0"s},
      {lines, 'l', "t", nullptr, 64, 10, "u=1\0\0v=2\0\0\0"s},
  };
  for (Read r : reads) {
    SCOPED_TRACE(r.path + " [" + (r.section ? r.section : "-") + "] " + (r.key ? r.key : "-"));
    std::string raw = "\r" + std::string(65, '#');  // [0] is not the buffer's: no CR to drop there
    char *buf = raw.data() + 1;
    EXPECT_EQ(r.call == 'n'   ? GetPrivateProfileSectionNames(buf, r.size, r.path.data())
              : r.call == 'l' ? GetPrivateProfileSection(r.section, buf, r.size, r.path.data())
                : GetPrivateProfileString(r.section, r.key, "<def>", buf, r.size, r.path.data()),
              r.result);
    const size_t size = static_cast<size_t>(std::max(r.size, 0));
    EXPECT_EQ(std::string(buf, r.bytes.size()), r.bytes);
    EXPECT_EQ(std::string(buf + size, 64 - size), std::string(64 - size, '#'));
  }
  EXPECT_EQ(GetPrivateProfileString("s", "k", "", nullptr, 16, std::string(rich).data()), 0);
}

TEST_F(ConfigTest, ProfileWritesChangeOnlyTheEditedLine) {
  const std::string ab = "[a]\nx=1\n\n[b]\ny=2\n", too_long(300, 's');
  for (auto [before, section, key, value, result, after] : {
           std::tuple{ab, "c", "k", "", 0, ab}, {ab, nullptr, "x", "9", 0, ab},
           {ab, "", "x", "9", 0, ab}, {ab, "c", nullptr, "v", 0, ab},
           {ab, "a", "q", nullptr, 0, ab}, {ab, too_long.c_str(), "k", "v", 0, ab},
           {ab, "a", "x", "", 1, "[a]\nx=\n\n[b]\ny=2\n"s},
           {"[Sec]\nKey=1\n", "SEC", "KEY", "2", 1, "[Sec]\nKey=2\n"},
           {"[a]\r\nx=1\r\ny=2\r\n", "a", "x", "10", 1, "[a]\r\nx=10\r\ny=2\r\n"},
           {"[a]\nx=1\ny=2\n", "a", "x", nullptr, 1, "[a]\ny=2\n"},
           {"[a]\ny=2\nx=1", "a", "x", nullptr, 1, "[a]\ny=2"},
           // New lines go after the section's last non-blank line.
           {"[a]\nx=1\n\n\n[b]\n", "a", "z", "3", 1, "[a]\nx=1\nz=3\n\n\n[b]\n"},
           {"[a]\r\nx=1\r\n\r\n[b]\r\n", "a", "z", "3", 1, "[a]\r\nx=1\r\nz=3\n\r\n[b]\r\n"},
           {"[a]\nx=1", "a", "z", "3", 1, "[a]\nx=1\nz=3"},
           {"[a]\nx=1\n", "New", "K", "V", 1, "[a]\nx=1\n[New]\nK=V\n"},
           {"[a]\r\nx=1\r\n", "b", "k", "v", 1, "[a]\r\nx=1\r\n[b]\nk=v\n"},
           {"", "b", "k", "v", 1, "[b]\nk=v\n"}, {"[a]\nx=1", "b", "k", "v", 0, "[a]\nx=1"}}) {
    const std::string path = file(before);
    EXPECT_EQ(put(section, key, value, path), result) << before << key;
    EXPECT_EQ(read_file(path), after) << before << key;
  }
  // Edits in turn while the text moves; a head that would land in a last line
  // without LF is taken back and never saved; a failed save is reported.
  const std::string path = file("[a]\nx=1\n[b]\ny=2\n"), nolf = file("[a]\nx=1");
  EXPECT_EQ(put("a", "x", std::string(2000, 'l').c_str(), path), 1);
  EXPECT_EQ(put("a", "x", nullptr, path), 1);
  EXPECT_EQ(read_file(path), "[a]\n[b]\ny=2\n");
  EXPECT_EQ(put("NewSect", "k", "v", nolf), 0);
  EXPECT_EQ(newest(), Strings{"QDM-prog: ERROR: Can't add section: NewSect"});
  EXPECT_EQ(put("a", "y", "2", nolf), 1);
  EXPECT_EQ(read_file(nolf), "[a]\nx=1\ny=2");
  EXPECT_EQ(put("s", "k", "v", env.box.path("no/f")), 1);
  EXPECT_EQ(newest(), Strings{"QDM-prog: ERROR: Can't write INI-file: " + env.box.path("no/f")});
}

// A bare name is lowered into HOME's profile directory, which a read makes;
// a name too long for it is refused. Other names are found without case, and
// '\' is rewritten in the caller's own buffer.
TEST_F(ConfigTest, ProfileFileNames) {
  const std::string dir = env.box.home() + "/.config/Zelvan TeX";
  std::filesystem::remove_all(dir);
  EXPECT_EQ(get("s", "k", "Absent.ini"), "<def>");
  EXPECT_EQ(newest(), Strings{"QDM-prog: WARNING: absent INI-file: " + dir + "/absent.ini"});
  EXPECT_EQ(put("s", "k", "v", "Win.ini"), 1);
  EXPECT_EQ(read_file(dir + "/win.ini"), "[s]\nk=v\n");
  const std::string fits(259 - 20 - env.box.home().size(), 'n');
  EXPECT_EQ(put("s", "k", "v", fits), 1);
  EXPECT_EQ(put("s", "k", "v", fits + "n"), 0);
  std::string path = file("[s]\nk=1\n"), dos = path;
  dos[dos.rfind('/')] = '\\';
  for (std::string name : {path, path.substr(0, path.size() - 4) + ".INI", dos})
    EXPECT_EQ(get("s", "k", name), "1") << name;
  char buf[8];
  GetPrivateProfileString("s", "k", "", buf, sizeof buf, dos.data());
  EXPECT_EQ(dos, path);
  int list = 0;  // a list of files gives the first non-empty value
  for (const std::string &n : {file("[s]\nk=\n"), env.box.path("no"), file("[s]\nk=b\n"), dos})
    list = list_append(list, n.c_str(), 0);
  EXPECT_EQ(GetProfileStringEx(list, "s", "k", buf, sizeof buf), 1);
  EXPECT_STREQ(buf, "b");
}

// The capacity is the multiple of 1024 above size + 8. A copy is read again
// when the file's time stamp or size differs, and outlives the file.
TEST_F(ConfigTest, ProfileCopiesGrowAndReload) {
  for (auto [size, capacity] : {std::pair{1015, 1024}, {1016, 2048}}) {
    std::string name = file(std::string(static_cast<size_t>(size), 'x'));
    const INIF *f = find_INIF(name.data(), false);
    EXPECT_EQ(std::tuple(f->Size, f->Capacity, std::string(f->Body + size, 7)),
              std::tuple(size, capacity, "\n[]\n\n\n\0"s));
  }
  std::string path = file("[s]\nk=v\n");
  EXPECT_EQ(put("s", "k", std::string(1009, 'v').c_str(), path), 1);  // 1016 bytes
  EXPECT_EQ(find_INIF(path.data(), false)->Capacity, 1024);
  const auto then = std::filesystem::last_write_time(path) - std::chrono::hours(1);
  for (auto [text, later, seen] : {std::tuple{"[s]\nk=1\n", 0, "1"}, {"[s]\nk=2\n", 0, "1"},
                                   {"[s]\nk=3\n", 5, "3"}, {"[s]\nk=444\n", 5, "444"}}) {
    env.box.write(path.substr(path.rfind('/') + 1), text);
    std::filesystem::last_write_time(path, then + std::chrono::seconds(later));
    EXPECT_EQ(get("s", "k", path), seen) << text;
  }
  std::filesystem::remove(path);
  EXPECT_EQ(get("s", "k", path), "444");
}

std::tuple<int, int, std::string> query(int key, const char *sub_key) {
  char buf[64] = "junk";
  int size = sizeof buf;
  const int r = RegQueryValue(key, sub_key, buf, &size);
  return {r, size, buf};
}

TEST_F(ConfigTest, RegistryKeysAndValues) {
  const int root = static_cast<int>(0x80000000u), user = root + 1, machine = root + 2;
  std::memset(Key_List, 0, sizeof Key_List);
  // With no slot open, 16 is no handle: the sub-key alone names the key.
  for (auto [key, sub_key, section] :
       {std::tuple{root, "", "HKEY_CLASSES_ROOT\\"}, {user, "A\\B", "HKEY_CURRENT_USER\\A\\B"},
        {root + 7, "x", "HKEY_RESERVED\\x"}, {root + 8, "x", "(null)"}, {16, "Only", "Only"}})
    EXPECT_EQ(str(KeyDir(key, sub_key)), section) << key;
  const std::string max(63, 'k');
  EXPECT_EQ(RegSetValue(user, "Software\\Test", 1, "1", 1), 0);
  EXPECT_EQ(query(user, "Software\\Test"), std::tuple(0, 1, "1"));
  EXPECT_EQ(RegSetValue(user, "Software\\Test", 1, "", 0), 0);
  EXPECT_EQ(query(user, "Software\\Test"), std::tuple(1, 0, ""));
  EXPECT_EQ(RegSetValueExA(root, nullptr, 0, 1, "1", 1), 0);
  // Two slots, handles 16 and 17; an opened key stands for its stored name.
  int a = -1, b = -1, c = -7;
  EXPECT_EQ(RegCreateKeyA(user, (max + "k").c_str(), &c), 1);
  EXPECT_EQ(RegCreateKeyA(user, max.c_str(), &a), 0);
  EXPECT_EQ(RegCreateKeyA(machine, "Soft\\P", &b), 0);
  EXPECT_EQ(RegCreateKeyA(user, "C", &c), 1);
  EXPECT_EQ(std::tuple(a, b, c, str(KeyDir(a, ""))),
            std::tuple(16, 17, -7, "HKEY_CURRENT_USER\\" + max));
  EXPECT_EQ(RegSetValue(b, "Other", 1, "on", 2), 0);
  EXPECT_EQ(query(machine, "Soft\\P"), std::tuple(0, 2, "on"));
  EXPECT_EQ(RegCloseKey(a), 0);
  EXPECT_EQ(RegCloseKey(a), 1);
  EXPECT_EQ(RegCreateKeyA(b, "Inner", &c), 0);
  EXPECT_EQ(RegSetValueExA(c, "V", 0, 1, "x", 1), 0);  // under an opened key: no root name
  EXPECT_EQ(read_file(env.box.home() + "/.config/Zelvan TeX/reg.ini"),
            "[HKEY_CURRENT_USER\\Software\\Test]\nDefault=\n[HKEY_CLASSES_ROOT\\]\nDefault=1\n"
            "[HKEY_LOCAL_MACHINE\\Soft\\P]\nDefault=on\n[Inner]\nV=x\n");
  std::memset(Key_List, 0, sizeof Key_List);
}

TEST_F(ConfigTest, ValuesComeFromTheUserFileThenTheMainFile) {
  const std::string docs = env.box.home() + "/Documents";  // "#N" in the main file only
  for (auto [section, key, value] :
       {std::tuple{"common", "Both", "from-user"}, {"COMMON", "onlymain", "main-value"},
        {"common", "Folder", docs.c_str()}, {"common", "UserFolder", "#5"},
        {"common", "Missing", "(null)"}, {"nosuchsection", "Both", "(null)"}})
    EXPECT_EQ(str(QDMValue(section, key)), value) << key;
  // Answers and misses are cached; a set value overrides, a null one forgets.
  env.box.write(kUserIni, "[common]\nBoth=changed\nMissing=now\n");
  EXPECT_EQ(str(QDMValue("common", "Missing")), "(null)");
  EXPECT_EQ(QDMSetValue("common", "Key", ""), 0);
  EXPECT_EQ(QDMValue("common", "Key"), nullptr);
  EXPECT_EQ(QDMSetValue("common", "Key", "x"), 0);
  EXPECT_EQ(str(QDMValue("common", "key")), "x");
  EXPECT_EQ(QDMSetValue("common", "Both", nullptr), 0);
  EXPECT_EQ(str(QDMValue("common", "Both")), "changed");
  EXPECT_EQ(read_file(env.box.path(kUserIni)), "[common]\nBoth=changed\nMissing=now\nKey=x\n");
  // Variables: the program's sections, most specific first, then memory and common.
  std::snprintf(ProgName, sizeof ProgName, "latex,tex");
  for (auto [name, value] : {std::pair{"LatexTex", "latex"}, {"TexCommon", "tex"},
                             {"Mem", "memory"}, {"OnlyMain", "main-value"}, {"Nothing", "(null)"}})
    EXPECT_EQ(str(QDMVar(name)), value) << name;
  test::ScopedEnv texmf("TEXMF", "/from/env");
  EXPECT_EQ(str(QDMVar("TEXMF")), "/from/env");
  EXPECT_EQ(newest(),
            Strings{"QDM-latex,tex: WARNING: There is inherited environment variable: TEXMF"});
}

TEST(ConfigModeration, OnlyListedVariablesComeFromTheEnvironment) {
  test::AttachedTest env("[ImportEnvironment]\nMYTEXMF=TEXMF_SOURCE\n[common]\nTEXMF=ini\n");
  test::ScopedEnv a("TEXMF", "/env/texmf"), b("TEXMF_SOURCE", "/env/source");
  EXPECT_EQ(std::tuple(hdr(Word::Moderation), str(QDMVar("TEXMF")), str(QDMVar("MYTEXMF"))),
            std::tuple(1, "ini", "/env/source"));
}

// After the stamp word (4 bytes) at the mark: the root list (19), the
// common table (2852), the folder's text, the SELFAUTOPARENT entry (14 + 9)
// and the section directory.
TEST_F(ConfigTest, ResetRebuildsTheStartingPointsAtFixedOffsets) {
  const int mark = hdr(Word::Mem_Mark), resets = hdr(Word::Reset_Count);
  const int folder = static_cast<int>(env.box.root().size());
  const std::tuple expected{mark + 4, mark + 4 + 19, mark + 4 + 19 + 2852 + folder + 1 + 23};
  EXPECT_EQ(std::tuple(hdr(Word::Root_LRU), hdr(Word::Common_Hash), SectDir), expected);
  EXPECT_STREQ(QDMValue("Common", "SELFAUTOPARENT"), env.box.root().c_str());
  const int total = QDMMsgInfo()[1];
  {
    CacheGuard guard;
    set_hdr(Word::Net_Index, 5);
    QDMReset();
  }
  EXPECT_EQ(std::tuple(hdr(Word::Root_LRU), Common, hdr(Word::SectDir_Hash)), expected);
  EXPECT_EQ(std::tuple(hdr(Word::Reset_Count), hdr(Word::Net_Index), hdr(Word::Moderation)),
            std::tuple(resets + 1, 0, 0));
  const Strings lines = since(total);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "QDM-prog: Moderation of environment variable import is switched OFF"), 1);
}

TEST_F(ConfigTest, Expansion) {
  CacheGuard guard;
  for (auto [name, value] : {std::pair{"A", "x"}, {"B", "$A/y"}, {"Ab", "ab-value"}, {"Y", "y"},
                             {"P", "$Q"}, {"Q", "$P"}, {"V", "abcdefgh"},
                             {"Bad", "v${W"}})
    _QDMSetValue("memory", name, value, 0);
  // A format's file type heads its chain, and counts as being expanded.
  QDMVarRef tex{nullptr, "tex"}, *t = &tex;
  const std::string e = "QDM-prog: ERROR: ", cut = "QDM-prog: Truncated expansion of: ";
  const std::string missed = e + "Missed variable terminator ('}') in ";
  struct Case {
    std::string text, out;
    int capacity = 64;
    QDMVarRef *chain = nullptr;
    Strings lines = {};
  } cases[] = {
      {"$B/z", "x/y/z"}, {"${A}b", "xb"}, {"$Ab", "ab-value"}, {"$a", "x"}, {"${None,Y}", "y"},
      {"{$A,$Y}/fonts", "{x,y}/fonts"}, {"$Undefined/x", "/x"}, {"$A\xC3\xA9", "x\xC3\xA9"},
      {"", ""}, {"${A${A}", ""}, {"$A/${Y}", "x/y", 64, t},
      {"a$-b", "a$-b", 64, nullptr, {e + "Bad variable expression: $-b"}},
      {"pre${A", "preA", 64, nullptr, {missed + "string: pre${A"}},
      {"pre${A", "preA", 64, t, {missed + "definition of: tex", e + "tex=pre${A"}},
      {"$Bad.", "vW.", 64, nullptr, {missed + "definition of: Bad", e + "Bad=v${W"}},
      // A cycle drops the rest of the innermost text; the outer levels go on.
      {"$P/x", "/x", 64, nullptr, {e + "Variable Recursion: P <- Q <- P"}},
      {"$Tex/x", "", 64, t, {e + "Variable Recursion: Tex <- tex"}},
      // Cut to the capacity less one, and reported.
      {"abcdefghij", "abcdefg", 8, nullptr, {cut + "abcdefghij"}}, {"abcdefg", "abcdefg", 8},
      {"abcdefghij", "", 1, nullptr, {cut + "abcdefghij"}},
      {"a$", "a", 2, nullptr, {e + "Bad variable expression: $"}},
      {"$V!", "abc", 4, nullptr, {cut + "abcdefgh", cut + "!"}}, {"$V", "abcdefgh", 9},
      {"ab$A", "ab", 3, nullptr, {cut + "x"}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.text) + " into " + std::to_string(c.capacity));
    const int total = QDMMsgInfo()[1];
    std::string input = c.text;
    std::vector<char> out(static_cast<size_t>(c.capacity) + 1, '#');
    const int left = var_expand(input.data(), out.data(), c.capacity, c.chain);
    const std::string got(out.data(), strnlen(out.data(), out.size()));
    EXPECT_EQ(std::tuple(input, got, left, out.back(), since(total)),
              std::tuple(c.text, c.out, c.capacity - static_cast<int>(c.out.size()), '#', c.lines));
  }
  EXPECT_STREQ(_QDMVar("B"), "$A/y");  // values expand in place and are put back
}

Strings take(char **array) {
  Strings out(array, array + array_len(array));
  free_array(array);
  return out;
}

TEST_F(ConfigTest, BraceAlternatives) {
  for (const auto &[text, expected] : std::vector<std::pair<std::string, Strings>>{
           {"a{b,c}d", {"abd", "acd"}}, {"{a,{b,c}}d", {"ad", "bd", "cd"}},
           {"{a,b}c}", {"ac}", "bc}"}}, {"x{,y}", {"x", "xy"}}, {"x{y,}", {"xy", "x"}},
           {"{a,b}{c,d}", {"ac", "bc", "ad", "bd"}}, {"a{}b", {"ab"}}, {"{}", {"{}"}},
           {"a { b } c", {"a { b } c"}}, {"", {""}},
           // References keep their braces; quotes and backslashes hide list syntax.
           {"${A,B}/x", {"${A,B}/x"}}, {"{a,${B,C}}", {"a", "${B,C}"}},
           {"${X}{a,b}", {"${X}a", "${X}b"}}, {"\"{a,b}\"", {"\"{a,b}\""}},
           {"\\{a,b}", {"\\{a,b}"}}, {"{a,\"b,c\"}", {"a", "\"b,c\""}},
           {"{a,`b}`,c}", {"a", "`b}`", "c"}}, {"{a\\,b,c}", {"a\\,b", "c"}},
           {"'\\'{a,b}", {"'\\'a", "'\\'b"}}, {"\"\\\"{a,b}", {"\"\\\"{a,b}"}},
           {"{p,q}{a,b", {"p{a,b", "q{a,b"}}})
    EXPECT_EQ(take(brace_expand(text.c_str())), expected) << text;
  EXPECT_EQ(newest(), Strings{"QDM-prog: {a,b: Unmatched {"});
  // A piece with more than 1024 alternatives is kept as it stands.
  std::string ten;
  for (int i = 0; i < 10; ++i) ten += "{a,b}";
  EXPECT_EQ(take(brace_expand(ten.c_str())).size(), 1024u);
  EXPECT_EQ(take(brace_expand((ten + "{a,b}").c_str())), Strings{ten + "{a,b}"});
  EXPECT_EQ(newest(), Strings{"QDM-prog: ERROR: More than 1024 alternatives in: " + ten + "{"});
  char **second = brace_expand("{1,2}");
  EXPECT_EQ(take(array_concat(nullptr, second)), (Strings{"1", "2"}));
  free_array(second);  // still the caller's
}

// Directories are checked after any "!!"; a network root is taken as it is.
// A trace logs the checks.
TEST_F(ConfigTest, PathsKeepTheDirectoriesThatExist) {
  const std::string r = env.box.root(), usr = r + "/usr/texmf", opt = r + "/opt/texmf";
  env.box.write("usr/texmf/.keep", "");
  env.box.write("a;b/texmf/.keep", "");
  Trace = 1;  // put back by SavedModes
  for (auto [dir, ok, logged] :
       {std::tuple{"!!" + usr + "//", 1, "Accept directory: " + usr + "//"},
        {opt + "//", 0, "Pass absent directory: " + opt + "//"}, {"!!:net:/fonts"s, 1, ""s},
        {"!!./f"s, 0, "WARNING: pass relative directory: ./f"s}}) {
    const int total = QDMMsgInfo()[1];
    EXPECT_EQ(OKDir(dir.c_str()), ok) << dir;
    EXPECT_EQ(since(total), logged.empty() ? Strings{} : Strings{"QDM-prog: " + logged}) << dir;
  }
  for (auto [path, dirs] : {std::pair{"{" + r + "/usr," + r + "/opt}/texmf;" + usr + "//",
                                      Strings{usr, usr + "//"}},
                            {r + "/{a;b,usr,opt}/texmf", {r + "/a;b/texmf", usr}},
                            {":n:/f;./f;!!" + usr + ";" + opt, {":n:/f", "!!" + usr}},
                            {";;"s, {}}})
    EXPECT_EQ(take(expand_braces(path.data())), dirs) << path;
}

// A record: its answer cache, then the path's list, the suffixes and the
// make command ("-" for none).
TEST_F(ConfigTest, FormatRecordsSplitTheirDefinitionPerProgram) {
  const std::string r = env.box.root();
  for (const char *d : {"texmf/fonts/tfm", "latex/tex", "plain/tex"})
    env.box.write(std::string(d) + "/.keep", "");
  const auto record = [](const char *p) {
    Strings path;
    for (int32_t e = loadi(p + 4); e > 0; e = loadi(at(e, 4))) path.emplace_back(text_at(e + 8));
    const auto text = [&](int w) { return str(loadi(p + w) ? text_at(loadi(p + w)) : "-"); };
    return std::tuple(loadi(p) > 0, path, text(8), text(12));
  };
  CacheGuard guard;
  for (auto [type, path, suffixes, make] :
       {std::tuple{"tfm", Strings{r + "/texmf/fonts/tfm//"}, ".tfm", "mktextfm"},
        {"star", Strings{}, "-", "-"}, {"plus", Strings{}, "", "-"}, {"none", Strings{}, "-", "-"}})
    EXPECT_EQ(record(FormatPath("", type)), std::tuple(true, path, suffixes, make)) << type;
  EXPECT_EQ(FormatPath("", "tfm"), FormatPath(nullptr, "tfm"));
  EXPECT_NE(FormatPath("x", "tfm"), FormatPath("QDM", "tfm"));
  std::snprintf(ProgName, sizeof ProgName, "latex");
  const char *latex = FormatPath("latex", "macros");
  std::snprintf(ProgName, sizeof ProgName, "tex");
  EXPECT_EQ(record(latex), std::tuple(true, Strings{r + "/latex/tex"}, ".tex.ltx", "-"));
  EXPECT_EQ(std::get<1>(record(FormatPath("tex", "macros"))), Strings{r + "/plain/tex"});
}

}  // namespace
}  // namespace trv
