// Profile reads: value lookup, the two listings and their counts, buffer limits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>

#include "support/sandbox.h"
#include "trovalis.h"

namespace {

namespace fs = std::filesystem;
using trv::test::ScopedEnv;

class ProfileReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/trv-read-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    home_.emplace("HOME", dir_.c_str());
  }
  void TearDown() override {
    home_.reset();
    fs::remove_all(dir_);
  }
  // A fresh file for each text, so that no copy loaded earlier can answer.
  std::string file_with(const std::string &text) {
    const std::string path = dir_ + "/f" + std::to_string(files_++) + ".ini";
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  std::string dir_;
  int files_ = 0;
  std::optional<ScopedEnv> home_;
};

struct Lookup {
  const char *name;
  std::string text;
  const char *section;
  const char *key;
  std::string expected;  // "<def>" is the default
};
void PrintTo(const Lookup &c, std::ostream *os) { *os << c.name; }

class ProfileLookupTest : public ProfileReadTest, public ::testing::WithParamInterface<Lookup> {};

TEST_P(ProfileLookupTest, FindsTheValue) {
  const Lookup &c = GetParam();
  std::string path = file_with(c.text);
  char buf[64];
  const int n = GetPrivateProfileString(c.section, c.key, "<def>", buf, sizeof buf, path.data());
  EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), c.expected);
  EXPECT_EQ(std::string(buf), c.expected);
}

const Lookup kLookups[] = {
    {"SectionCaseIgnored", "[PATHS]\nx=1\n", "paths", "x", "1"},
    {"HeadTailIgnored", "[Paths] ; comment\nx=1\n", "Paths", "x", "1"},
    {"LongerHeadNoMatch", "[Paths2]\nx=1\n", "Paths", "x", "<def>"},
    {"SpacedKeyNeedsSpace", "[s]\nkey = value\n", "s", "key ", " value"},
    {"SpacedKeyBareMisses", "[s]\nkey = value\n", "s", "key", "<def>"},
    {"IndentedKeyMisses", "[s]\n  x=1\n", "s", "x", "<def>"},
    {"PrefixKeyMisses", "[s]\nabc=1\n", "s", "ab", "<def>"},
    {"ValueKeepsEquals", "[s]\na=b=c\n", "s", "a", "b=c"},
    {"ValueKeepsQuotesAndSemicolon", "[s]\na=\"x\" ; y \n", "s", "a", "\"x\" ; y "},
    {"CrLfValueLosesCr", "[s]\r\nx=1\r\ny=2\r\n", "s", "y", "2"},
    {"NoFinalLf", "[a]\nx=1", "a", "x", "1"},
    {"FirstDuplicateKeyWins", "[s]\nx=1\nX=2\n", "s", "x", "1"},
    {"FirstDuplicateSectionWins", "[s]\nx=1\n[S]\ny=2\n", "s", "y", "<def>"},
    {"LinesBeforeFirstHeadUnread", "x=0\n[s]\ny=1\n", "s", "x", "<def>"},
    {"CommentNotAKey", "[s]\n;x=1\n", "s", "x", "<def>"},
    {"SemicolonKeyFindsComment", "[s]\n;x=1\n", "s", ";x", "1"},
    {"TabInKey", "[s]\nk\tz=5\n", "s", "k\tz", "5"},
    {"HighByteKey", "[s]\nk\xe9=6\n", "s", "k\xe9", "6"},
    {"HighBytesFoldNot", "[s]\nk\xe9=6\n", "s", "K\xc9", "<def>"},
    {"UnclosedHeadMisses", "[ab\nx=1\n", "ab", "x", "<def>"},
    {"EmptySectionName", "[]\nx=1\n", "", "x", "1"},
};

INSTANTIATE_TEST_SUITE_P(Format, ProfileLookupTest, ::testing::ValuesIn(kLookups),
                         [](const auto &info) { return std::string(info.param.name); });

struct Cut {
  std::string value;
  int size;
  std::string expected;
};
void PrintTo(const Cut &c, std::ostream *os) { *os << c.value.size() << " bytes into " << c.size; }
class ProfileCutTest : public ProfileReadTest, public ::testing::WithParamInterface<Cut> {};

TEST_P(ProfileCutTest, ValueIsCutToBufferLessOne) {
  const Cut &c = GetParam();
  std::string path = file_with("[s]\nk=" + c.value + "\n");
  char buf[32];
  std::memset(buf, '#', sizeof buf);
  const int n = GetPrivateProfileString("s", "k", "", buf, c.size, path.data());
  EXPECT_EQ(n, static_cast<int>(c.expected.size()));
  EXPECT_EQ(std::string(buf), c.expected);
  EXPECT_EQ(buf[c.size], '#');  // nothing written past the buffer
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ProfileCutTest,
    ::testing::Values(Cut{"0123456789", 8, "0123456"}, Cut{"0123456789", 10, "012345678"},
                      Cut{"0123456789", 1, ""},
                      // The CR is dropped when it is the last byte taken.
                      Cut{"1234567\r", 9, "1234567"}, Cut{"1234567\r", 8, "1234567"},
                      Cut{"12\r4567\r", 4, "12"}));

TEST_F(ProfileReadTest, DefaultIsReturnedAndCutToTheBuffer) {
  std::string path = file_with("[s]\nx=1\n");
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(GetPrivateProfileString("s", "nokey", "def", buf, 8, path.data()), 3);
  EXPECT_STREQ(buf, "def");
  EXPECT_EQ(GetPrivateProfileString("s", "nokey", "defaultvalue", buf, 5, path.data()), 4);
  EXPECT_STREQ(buf, "defa");
  EXPECT_EQ(buf[5], '#');
  std::string absent = dir_ + "/absent.ini";
  EXPECT_EQ(GetPrivateProfileString("s", "k", "abs", buf, 8, absent.data()), 3);
  EXPECT_STREQ(buf, "abs");
}

// Packed NUL-terminated entries, with the listing's final NUL.
std::string listing(const char *buf, int n) { return std::string(buf, static_cast<size_t>(n)); }

// The same entries: the section listing counts its final NUL, the key
// listing does not.
TEST_F(ProfileReadTest, ListingCountsDiffer) {
  char buf[64];
  std::string two = file_with("[A]\nA=1\nBB=2\n[BB]\n");
  EXPECT_EQ(GetPrivateProfileSectionNames(buf, sizeof buf, two.data()), 6);
  EXPECT_EQ(listing(buf, 6), std::string("A\0BB\0\0", 6));
  EXPECT_EQ(GetPrivateProfileString("A", nullptr, "", buf, sizeof buf, two.data()), 5);
  EXPECT_EQ(listing(buf, 6), std::string("A\0BB\0\0", 6));
  EXPECT_EQ(GetPrivateProfileString("BB", nullptr, "", buf, sizeof buf, two.data()), 0);
  EXPECT_EQ(buf[0], '\0');
  buf[0] = buf[1] = 'x';
  EXPECT_EQ(GetPrivateProfileString("none", nullptr, "", buf, sizeof buf, two.data()), 0);
  EXPECT_EQ(listing(buf, 2), std::string("\0\0", 2));
  std::string none = file_with("x=1\n");
  EXPECT_EQ(GetPrivateProfileString(nullptr, nullptr, nullptr, buf, sizeof buf, none.data()), 1);
  EXPECT_EQ(buf[0], '\0');
  std::string absent = dir_ + "/absent.ini";
  buf[0] = buf[1] = 'x';
  EXPECT_EQ(GetPrivateProfileSectionNames(buf, sizeof buf, absent.data()), 0);
  EXPECT_EQ(listing(buf, 2), std::string("\0\0", 2));
}

TEST_F(ProfileReadTest, UnclosedHeadListsUpToTheNextBracket) {
  std::string path = file_with("[ab\nx=1\n[c]\n");
  char buf[64];
  const int n = GetPrivateProfileSectionNames(buf, sizeof buf, path.data());
  EXPECT_EQ(listing(buf, n), std::string("ab\nx=1\n[c\0c\0\0", 13));
}

TEST_F(ProfileReadTest, KeyListingSkipsWhatIsNoPlainKey) {
  std::string path =
      file_with("[s]\n;c=1\n\nnoequals\nk\tz=1\nh\xe9=2\n a=3\nb==4\n=5\ncr=6\r\n[t]\n");
  char buf[64];
  const int n = GetPrivateProfileString("s", nullptr, "", buf, sizeof buf, path.data());
  EXPECT_EQ(listing(buf, n + 1), std::string(" a\0b\0\0cr\0\0", 10));
}

struct Stop {
  int size;
  std::string sections;  // with the final NUL
  std::string keys;      // without it
};
void PrintTo(const Stop &c, std::ostream *os) { *os << "size " << c.size; }
class ProfileStopTest : public ProfileReadTest, public ::testing::WithParamInterface<Stop> {};

// An entry needs its length + 2 bytes to be left; the first that does not
// fit ends the listing even when a later, shorter one would.
TEST_P(ProfileStopTest, ListingStopsAtFirstEntryThatDoesNotFit) {
  std::string path = file_with("[A]\nA=1\nBBB=2\nC=3\n[BBB]\n[C]\n");
  char buf[32];
  std::memset(buf, '#', sizeof buf);
  const int s = GetPrivateProfileSectionNames(buf, GetParam().size, path.data());
  EXPECT_EQ(listing(buf, s), GetParam().sections);
  EXPECT_EQ(buf[GetParam().size], '#');
  const int k = GetPrivateProfileString("A", nullptr, "", buf, GetParam().size, path.data());
  EXPECT_EQ(listing(buf, k), GetParam().keys);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ProfileStopTest,
    ::testing::Values(Stop{1, std::string("\0", 1), ""}, Stop{3, std::string("\0", 1), ""},
                      Stop{4, std::string("A\0\0", 3), std::string("A\0", 2)},
                      Stop{7, std::string("A\0\0", 3), std::string("A\0", 2)},
                      Stop{8, std::string("A\0BBB\0\0", 7), std::string("A\0BBB\0", 6)},
                      Stop{10, std::string("A\0BBB\0C\0\0", 9), std::string("A\0BBB\0C\0", 8)}));

TEST_F(ProfileReadTest, SectionReadsWholeLines) {
  std::string path = file_with("[s]\r\nk=1\r\n;c\r\n\r\nx\ty=2\r\nplain\r\n[t]\nu=1\n\nv=2\n");
  char buf[64];
  int n = GetPrivateProfileSection("s", buf, sizeof buf, path.data());
  EXPECT_EQ(listing(buf, n + 1), std::string("k=1\r\0\r\0x\0plain\r\0\0", 17));
  // In the last section the blank line ends the list for a reader that stops
  // at the first empty entry.
  n = GetPrivateProfileSection("t", buf, sizeof buf, path.data());
  EXPECT_EQ(listing(buf, 5), std::string("u=1\0\0", 5));
  // The whole-line mode ends with the call.
  n = GetPrivateProfileString("t", nullptr, "", buf, sizeof buf, path.data());
  EXPECT_EQ(listing(buf, n + 1), std::string("u\0v\0\0", 5));
  buf[0] = buf[1] = 'x';
  EXPECT_EQ(GetPrivateProfileSection("none", buf, sizeof buf, path.data()), 0);
  EXPECT_EQ(listing(buf, 2), std::string("\0\0", 2));
}

TEST_F(ProfileReadTest, GetProfileStringReadsWinIni) {
  fs::create_directories(dir_ + "/Library/Zelvan TeX");
  std::ofstream(dir_ + "/Library/Zelvan TeX/win.ini") << "[Fonts]\nArial=arial.ttf\n";
  char buf[32];
  EXPECT_EQ(GetProfileString("fonts", "arial", "", buf, sizeof buf), 9);
  EXPECT_STREQ(buf, "arial.ttf");
}

TEST_F(ProfileReadTest, NullOrEmptyBufferIsNotWritten) {
  std::string path = file_with("[s]\nk=1\n");
  char guard = '#';
  EXPECT_EQ(GetPrivateProfileString("s", "k", "", &guard, 0, path.data()), 0);
  EXPECT_EQ(GetPrivateProfileString("s", nullptr, "", &guard, 0, path.data()), 0);
  EXPECT_EQ(GetPrivateProfileSectionNames(&guard, -1, path.data()), 0);
  EXPECT_EQ(GetPrivateProfileString("s", "k", "", nullptr, 16, path.data()), 0);
  EXPECT_EQ(guard, '#');
}

}  // namespace
