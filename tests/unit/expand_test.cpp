// Variable expansion: references, recursion, malformed text and truncation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/lock.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using Strings = std::vector<std::string>;

class VarExpandTest : public ::testing::Test {
 protected:
  VarExpandTest() {
    // A per-user file, so that look-ups log nothing about its absence.
    attached.box.write("home/Library/Zelvan TeX/TEXMF.INI", "[common]\n");
    CacheGuard g;
    const char *values[][2] = {
        {"A", "x"},      {"B", "$A/y"}, {"Ab", "ab-value"}, {"Y", "y"},
        {"P", "$Q"},     {"Q", "$P"},   {"V", "abcdefgh"},  {"Self", "${SELF}"},
        {"Bad", "v${W"},
    };
    for (auto &v : values) _QDMSetValue("memory", v[0], v[1], 0);
  }

  struct Result {
    std::string out;
    int left;
  };
  // Expands a copy of text, checking the contract every expansion keeps: the
  // input comes back byte for byte and out[capacity - left] ends the output.
  Result expand(const std::string &text, int capacity = 4096, QDMVarRef *chain = nullptr) {
    CacheGuard g;
    std::string input = text;
    std::vector<char> out(static_cast<size_t>(capacity) + 1, '#');
    const int left = var_expand(input.data(), out.data(), capacity, chain);
    EXPECT_EQ(input, text) << "input changed";
    EXPECT_GE(left, 1);
    EXPECT_LE(left, capacity);
    EXPECT_EQ(out[static_cast<size_t>(capacity - left)], '\0') << text;
    EXPECT_EQ(out[static_cast<size_t>(capacity)], '#') << "wrote past capacity";
    EXPECT_EQ(std::strlen(out.data()), static_cast<size_t>(capacity - left)) << text;
    return {out.data(), left};
  }

  // Lines posted since `total`, oldest first.
  static Strings logged_since(int total) {
    char *t[16];
    const int n = QDMGetMessages(t, std::min(16, QDMMsgInfo()[1] - total));
    Strings lines;
    for (int i = n - 1; i >= 0; --i) lines.emplace_back(t[i]);
    return lines;
  }

  test::AttachedTest attached;
};

TEST_F(VarExpandTest, References) {
  struct Case {
    const char *text, *expected;
  } cases[] = {
      {"$B/z", "x/y/z"},
      {"${A}b", "xb"},
      {"$Ab", "ab-value"},
      {"$a", "x"},  // names match whatever their case
      {"${None,Y}", "y"},
      {"${None,Also}/k", "/k"},
      {"{$A,$Y}/fonts", "{x,y}/fonts"},
      {"$Undefined/x", "/x"},
      {"$A\xC3\xA9", "x\xC3\xA9"},  // bytes above 127 end a name
      {"$A-$A.$A", "x-x.x"},
      {"", ""},
      {"plain", "plain"},
      // Malformed references.
      {"a$", "a$"},
      {"a$-b", "a$-b"},
      {"$$A", "$x"},
      {"pre${A", "preA"},
      {"${A${A}", ""},  // the name runs to the first "}": "A${A"
      // A cycle drops the rest of the innermost text; the outer levels go on.
      {"$P/x", "/x"},
      {"$Self!", "!"},
      {"$Bad.", "vW."},
  };
  for (const Case &c : cases) {
    const Result r = expand(c.text);
    EXPECT_EQ(r.out, c.expected) << c.text;
    EXPECT_EQ(r.left, 4096 - static_cast<int>(r.out.size())) << c.text;
  }
  // Values are expanded in place in the region and put back as well.
  CacheGuard g;
  EXPECT_STREQ(_QDMVar("B"), "$A/y");
}

TEST_F(VarExpandTest, Diagnostics) {
  QDMVarRef root{nullptr, "tex"};
  const std::string p = "QDM-prog: ";
  struct Case {
    const char *text;
    QDMVarRef *chain;
    Strings lines;
  } cases[] = {
      {"a$", nullptr, {p + "ERROR: Bad variable expression: $"}},
      {"a$-b", nullptr, {p + "ERROR: Bad variable expression: $-b"}},
      {"pre${A", nullptr, {p + "ERROR: Missed variable terminator ('}') in string: pre${A"}},
      {"pre${A", &root,
       {p + "ERROR: Missed variable terminator ('}') in definition of: tex",
        p + "ERROR: tex=pre${A"}},
      // Inside a value the whole value is reported, under its own name.
      {"$Bad", nullptr,
       {p + "ERROR: Missed variable terminator ('}') in definition of: Bad",
        p + "ERROR: Bad=v${W"}},
      {"$P/x", nullptr, {p + "ERROR: Variable Recursion: P <- Q <- P"}},
      {"$P/x", &root, {p + "ERROR: Variable Recursion: P <- Q <- P"}},
      // The file type at the root of the chain counts as being expanded.
      {"$TEX/x", &root, {p + "ERROR: Variable Recursion: TEX <- tex"}},
      {"$Tex", &root, {p + "ERROR: Variable Recursion: Tex <- tex"}},
      {"$A/${Y}", &root, {}},
  };
  for (const Case &c : cases) {
    const int total = QDMMsgInfo()[1];
    expand(c.text, 4096, c.chain);
    EXPECT_EQ(logged_since(total), c.lines) << c.text;
  }
}

TEST_F(VarExpandTest, Truncation) {
  const std::string p = "QDM-prog: Truncated expansion of: ";
  struct Case {
    const char *text;
    int capacity;
    const char *expected;
    int left;
    Strings lines;
  } cases[] = {
      {"abcdefghij", 8, "abcdefg", 1, {p + "abcdefghij"}},
      {"abcdefg", 8, "abcdefg", 1, {}},  // exactly full, nothing cut
      {"abcdefghij", 1, "", 1, {p + "abcdefghij"}},
      {"a$", 2, "a", 1, {"QDM-prog: ERROR: Bad variable expression: $"}},
      // A cut inside a value does not stop the enclosing text: its next
      // literal chunk is cut (and reported) too.
      {"$V!", 4, "abc", 1, {p + "abcdefgh", p + "!"}},
      {"$V", 9, "abcdefgh", 1, {}},
      {"ab$A", 3, "ab", 1, {p + "x"}},
  };
  for (const Case &c : cases) {
    const int total = QDMMsgInfo()[1];
    const Result r = expand(c.text, c.capacity);
    EXPECT_EQ(r.out, c.expected) << c.text;
    EXPECT_EQ(r.left, c.left) << c.text;
    EXPECT_EQ(logged_since(total), c.lines) << c.text;
  }
}

TEST_F(VarExpandTest, LongNamesInDiagnosticsAreCut) {
  // Names far longer than the 256-byte message buffers: the lines are cut,
  // nothing is overrun (the sanitizer build watches the buffers).
  const std::string a(300, 'a'), b(300, 'b');
  QDMVarRef outer{nullptr, a.c_str()};
  QDMVarRef inner{&outer, b.c_str()};
  const int total = QDMMsgInfo()[1];
  expand("$" + a + "/x", 64, &inner);
  expand("${" + b, 64, &inner);
  const Strings lines = logged_since(total);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].rfind("QDM-prog: ERROR: Variable Recursion: aaa", 0), 0u);
  EXPECT_EQ(lines[1].rfind("QDM-prog: ERROR: Missed variable terminator", 0), 0u);
  EXPECT_EQ(lines[2].rfind("QDM-prog: ERROR: bbb", 0), 0u);
  EXPECT_EQ(lines[3].rfind("QDM-prog: Truncated expansion of: bbb", 0), 0u);
}

// Arbitrary text over the bytes that matter to references, at small
// capacities; expand() checks the input, the terminator and the fence.
TEST_F(VarExpandTest, FuzzSavedInputs) {
  QDMVarRef root{nullptr, "tex"};
  for (const char *s : {"$", "$$", "${", "${}", "${$}", "}$A{", "$A$", "${A", "${,}", "${,A}",
                        "$P$P", "$V$V$V", "$B$B", "\xe9$\xe9", "${P}${Q}x"}) {
    for (int capacity : {1, 2, 3, 5, 64}) {
      SCOPED_TRACE(capacity);
      expand(s, capacity);
      expand(s, capacity, &root);
    }
  }
}

TEST_F(VarExpandTest, FuzzRandomInputs) {
  static const char kBytes[] = "$$${}{,},ABPQVSelf!/ \xe9";
  QDMVarRef root{nullptr, "tex"};
  std::mt19937 rng(7);
  for (int n = 0; n < 3000; ++n) {
    std::string s;
    const int len = std::uniform_int_distribution<int>(0, 24)(rng);
    for (int i = 0; i < len; ++i)
      s += kBytes[std::uniform_int_distribution<size_t>(0, sizeof kBytes - 2)(rng)];
    const int capacity = std::uniform_int_distribution<int>(1, 24)(rng);
    SCOPED_TRACE(testing::PrintToString(s) + " capacity " + std::to_string(capacity));
    expand(s, capacity, n % 2 ? &root : nullptr);
    if (HasFatalFailure() || HasNonfatalFailure()) break;
  }
}

}  // namespace
}  // namespace trv
