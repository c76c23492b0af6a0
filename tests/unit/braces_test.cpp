// Brace expansion, string arrays, directory checks and search path splitting.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "config/braces.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using Strings = std::vector<std::string>;

// Takes ownership of a string array and releases it.
Strings take(char **array) {
  Strings out;
  if (array == nullptr) return {"(null)"};
  for (char **p = array; *p != nullptr; ++p) out.emplace_back(*p);
  free_array(array);
  return out;
}

Strings newest(int n) {
  std::vector<char *> t(static_cast<size_t>(n));
  const int got = QDMGetMessages(t.data(), n);
  return Strings(t.begin(), t.begin() + got);
}

// Sets the per-process trace switch for a scope.
struct TraceOn {
  int old = Trace;
  TraceOn() { Trace = 1; }
  ~TraceOn() { Trace = old; }
};

TEST(BraceExpand, Alternatives) {
  struct Case {
    const char *text;
    Strings expected;
  } cases[] = {
      {"a{b,c}d", {"abd", "acd"}},
      {"{a,{b,c}}d", {"ad", "bd", "cd"}},
      {"{a,b}c}", {"ac}", "bc}"}},  // a stray "}" is plain text
      {"x{,y}", {"x", "xy"}},
      {"x{y,}", {"xy", "x"}},  // a trailing empty piece counts too
      {"{a,b}{c,d}", {"ac", "bc", "ad", "bd"}},
      {"{a,b}/{c,d}/x", {"a/c/x", "b/c/x", "a/d/x", "b/d/x"}},
      {"a{}b", {"ab"}},
      {"{}", {"{}"}},
      {"a { b } c", {"a { b } c"}},
      {"", {""}},
      {"/usr/texmf//", {"/usr/texmf//"}},
      // Variable references keep their braces, and what they hold is no list.
      {"${A,B}/x", {"${A,B}/x"}},
      {"{a,${B,C}}", {"a", "${B,C}"}},
      {"${X}{a,b}", {"${X}a", "${X}b"}},
      // Quotes and backslashes hide list syntax and stay in the result.
      {"\"{a,b}\"", {"\"{a,b}\""}},
      {"\\{a,b}", {"\\{a,b}"}},
      {"{a,\"b,c\"}", {"a", "\"b,c\""}},
      {"{a,`b}`,c}", {"a", "`b}`", "c"}},
      {"{a\\,b,c}", {"a\\,b", "c"}},
      // A backslash is plain inside single quotes, so the quote still closes.
      {"'\\'{a,b}", {"'\\'a", "'\\'b"}},
      // ... but escapes the closing double quote.
      {"\"\\\"{a,b}", {"\"\\\"{a,b}"}},
  };
  for (const Case &c : cases) EXPECT_EQ(take(brace_expand(c.text)), c.expected) << c.text;
}

TEST(BraceExpand, ArrayConcatOwnership) {
  auto make = [](Strings s) {
    char **a = static_cast<char **>(std::calloc(s.size() + 1, sizeof(char *)));
    for (size_t i = 0; i < s.size(); ++i) a[i] = strdup(s[i].c_str());
    return a;
  };
  char **second = make({"1", "2"});
  EXPECT_EQ(take(array_concat(nullptr, second)), (Strings{"1", "2"}));
  EXPECT_EQ(take(array_concat(make({"a"}), nullptr)), (Strings{"a"}));
  EXPECT_EQ(take(array_concat(make({"a", "b"}), second)), (Strings{"a1", "b1", "a2", "b2"}));
  // `second` is still the caller's and intact.
  EXPECT_EQ(array_len(second), 2);
  char **copy = copy_array(second);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy[0], second[0]);
  free_array(second);
  EXPECT_EQ(take(copy), (Strings{"1", "2"}));
  free_array(nullptr);
  EXPECT_EQ(array_len(nullptr), 0);
}

class BraceLogTest : public ::testing::Test {
 protected:
  test::AttachedTest attached;
};

TEST_F(BraceLogTest, UnmatchedBraceIsLoggedAndKeptWhole) {
  EXPECT_EQ(take(brace_expand("x/{a,b")), Strings{"x/{a,b"});
  EXPECT_EQ(newest(1), Strings{"QDM-prog: x/{a,b: Unmatched {"});
  // Inside a postamble the whole text is what the inner step sees.
  EXPECT_EQ(take(brace_expand("{p,q}{a,b")), (Strings{"p{a,b", "q{a,b"}));
  EXPECT_EQ(newest(1), Strings{"QDM-prog: {a,b: Unmatched {"});
}

// Every list multiplies the alternatives; fifty of them once held a process
// for ever. A piece that would have more than 1024 is kept as it stands.
TEST_F(BraceLogTest, TooManyAlternativesAreNotMade) {
  std::string ten, eleven, fifty;
  for (int i = 0; i < 50; ++i) (i < 10 ? ten : i < 11 ? eleven : fifty) += "{a,b}";
  eleven = ten + eleven;
  fifty = eleven + fifty;
  EXPECT_EQ(take(brace_expand(ten.c_str())).size(), 1024u);
  EXPECT_EQ(take(brace_expand(eleven.c_str())), Strings{eleven});
  EXPECT_EQ(newest(1), Strings{("QDM-prog: ERROR: More than 1024 alternatives in: " + eleven).substr(0, 100)});
  const Strings many = take(brace_expand(fifty.c_str()));
  EXPECT_LE(many.size(), 1024u);
  std::string path = "/no/" + fifty + ";/no/x{1,2}";
  EXPECT_EQ(take(expand_braces(path.data())), Strings{});
}

// Arbitrary text over the bytes that matter to the path syntax. Whatever the
// text, expansion answers an array (never an empty one), and text without a
// "{" comes back whole.
void brace_fuzz_one(const std::string &text) {
  const Strings all = take(brace_expand(text.c_str()));
  ASSERT_FALSE(all.empty());
  ASSERT_NE(all[0], "(null)");
  if (text.find('{') == std::string::npos) {
    EXPECT_EQ(all, Strings{text});
  }
  std::string path = text;
  const Strings dirs = take(expand_braces(path.data()));
  ASSERT_TRUE(dirs.empty() || dirs[0] != "(null)");
  // Only network roots can pass: the fuzz runs in an empty directory and its
  // texts hold no "/", so the rest name nothing on disk.
  for (const std::string &d : dirs) {
    EXPECT_EQ(d[d.rfind("!!", 0) == 0 ? 2 : 0], ':') << d;
  }
}

// Runs a test from an empty directory of the sandbox.
class BraceFuzz : public BraceLogTest {
 protected:
  void SetUp() override {
    attached.box.write("empty/.keep", "");
    ASSERT_NE(getcwd(old_, sizeof old_), nullptr);
    ASSERT_EQ(chdir(attached.box.path("empty").c_str()), 0);
  }
  void TearDown() override { ASSERT_EQ(chdir(old_), 0); }
  char old_[4096];
};

TEST_F(BraceFuzz, SavedInputs) {
  for (const char *s : {"{", "}", "{{", "}{", "{,}", "${", "${{}", "\\", "\\{a,b}", "'{'",
                        "\"", "{\"}\"}", "{a,b}{", ";{;};", "!!", "!!:", ":{a,b};:c", "{ }",
                        "\t{\n", "a{\\}b", "{{{{{{a,b}}}}}}", "$"}) {
    SCOPED_TRACE(s);
    brace_fuzz_one(s);
  }
}

TEST_F(BraceFuzz, RandomInputs) {
  static const char kBytes[] = "{{{}}},,,;\"'`\\$ \t!:a";
  std::mt19937 rng(33);
  for (int n = 0; n < 2000; ++n) {
    std::string s;
    const int len = std::uniform_int_distribution<int>(0, 24)(rng);
    for (int i = 0; i < len; ++i)
      s += kBytes[std::uniform_int_distribution<size_t>(0, sizeof kBytes - 2)(rng)];
    SCOPED_TRACE(testing::PrintToString(s));
    brace_fuzz_one(s);
    if (HasFatalFailure() || HasNonfatalFailure()) break;
  }
}

class OKDirTest : public ::testing::Test {
 protected:
  OKDirTest() { box.write("usr/texmf/.keep", ""); }
  test::AttachedTest attached;
  test::Sandbox &box = attached.box;
};

TEST_F(OKDirTest, Checks) {
  const std::string usr = box.path("usr/texmf");
  const std::string opt = box.path("opt/texmf");
  struct Case {
    std::string dir;
    int ok;
    const char *logged;  // with tracing on; nullptr: nothing
  } cases[] = {
      {usr, 1, "Accept directory: "},
      {usr + "//", 1, "Accept directory: "},
      {"!!" + usr, 1, "Accept directory: "},
      {"!!" + usr + "//", 1, "Accept directory: "},
      {opt, 0, "Pass absent directory: "},
      {opt + "//", 0, "Pass absent directory: "},
      {":net:/fonts", 1, nullptr},
      {"!!:net:/fonts", 1, nullptr},
      {"./fonts", 0, "WARNING: pass relative directory: "},
      {"!!./fonts", 0, "WARNING: pass relative directory: "},
      {"", 0, "Pass absent directory: "},
  };
  for (const Case &c : cases) {
    const int total = QDMMsgInfo()[1];
    EXPECT_EQ(OKDir(c.dir.c_str()), c.ok) << c.dir;
    EXPECT_EQ(QDMMsgInfo()[1], total) << "logged without tracing: " << c.dir;
    {
      TraceOn trace;
      EXPECT_EQ(OKDir(c.dir.c_str()), c.ok) << c.dir;
    }
    // The line names what was checked, after any "!!".
    const std::string shown = c.dir.rfind("!!", 0) == 0 ? c.dir.substr(2) : c.dir;
    if (c.logged == nullptr)
      EXPECT_EQ(QDMMsgInfo()[1], total) << c.dir;
    else
      EXPECT_EQ(newest(1), Strings{"QDM-prog: " + std::string(c.logged) + shown});
  }
}

TEST_F(OKDirTest, PathsSplitExpandAndFilter) {
  box.write("a;b/texmf/.keep", "");
  const std::string r = box.root();
  struct Case {
    std::string path;
    Strings expected;
  } cases[] = {
      {"{" + r + "/usr," + r + "/opt}/texmf;" + r + "/usr/texmf//",
       {r + "/usr/texmf", r + "/usr/texmf//"}},
      // A ";" inside braces belongs to the alternative.
      {r + "/{a;b,usr,opt}/texmf", {r + "/a;b/texmf", r + "/usr/texmf"}},
      {":net:/fonts;./fonts;!!" + r + "/usr/texmf;" + r + "/opt/texmf",
       {":net:/fonts", "!!" + r + "/usr/texmf"}},
      {"", {}},
      {";;", {}},
  };
  for (Case &c : cases) {
    std::string writable = c.path;
    EXPECT_EQ(take(expand_braces(writable.data())), c.expected) << c.path;
  }
  EXPECT_EQ(take(expand_braces(nullptr)), Strings{});
}

TEST_F(OKDirTest, MoreThan64DirectoriesAllKept) {
  std::string path, alternatives;
  Strings expected;
  for (int i = 0; i < 100; ++i) {
    const std::string d = "d" + std::to_string(i);
    box.write(d + "/.keep", "");
    path += (i ? ";" : "") + box.path(d);
    alternatives += (i ? "," : "") + d;
    expected.push_back(box.path(d));
  }
  EXPECT_EQ(take(expand_braces(path.data())), expected);
  std::string braced = box.root() + "/{" + alternatives + "}";
  EXPECT_EQ(take(expand_braces(braced.data())), expected);
}

}  // namespace
}  // namespace trv
