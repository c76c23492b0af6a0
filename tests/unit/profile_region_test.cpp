// Profile calls that meet the shared region: reads through a text list, and the reports.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/sandbox.h"
#include "trovalis.h"

namespace {

class ProfileRegionTest : public ::testing::Test {
 protected:
  trv::test::AttachedTest env;

  std::string put(const std::string &rel, const std::string &text) {
    env.box.write(rel, text);
    return env.box.path(rel);
  }
  int list_of(const std::vector<std::string> &names) {
    int list = 0;
    for (const std::string &n : names) list = list_append(list, n.c_str(), 0);
    return list;
  }
  // The newest `n` messages, newest first.
  static std::vector<std::string> messages(int n) {
    std::vector<char *> texts(static_cast<size_t>(n));
    const int got = QDMGetMessages(texts.data(), n);
    return {texts.begin(), texts.begin() + got};
  }
  static bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
  }
};

TEST_F(ProfileRegionTest, FirstFileWithANonEmptyValueWins) {
  const std::string a = put("a.ini", "[s]\nk=\nonly_a=A\n");
  const std::string b = put("b.ini", "[s]\nk=from b\n");
  const std::string c = put("c.ini", "[s]\nk=from c\nonly_c=C\n");
  const int list = list_of({a, env.box.path("missing.ini"), b, c});
  ASSERT_GT(list, 0);
  char buf[32];
  EXPECT_EQ(GetProfileStringEx(list, "s", "k", buf, sizeof buf), 1);
  EXPECT_STREQ(buf, "from b");
  EXPECT_EQ(GetProfileStringEx(list, "s", "only_c", buf, sizeof buf), 1);
  EXPECT_STREQ(buf, "C");
  EXPECT_EQ(GetProfileStringEx(list, "s", "none", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(GetProfileStringEx(0, "s", "k", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
}

TEST_F(ProfileRegionTest, BackslashNamesInTheListWork) {
  put("d/x.ini", "[s]\nk=v\n");
  const std::string dos = env.box.root() + "\\d\\x.ini";
  const int list = list_of({dos});
  char buf[8];
  EXPECT_EQ(GetProfileStringEx(list, "s", "k", buf, sizeof buf), 1);
  EXPECT_STREQ(buf, "v");
}

TEST_F(ProfileRegionTest, AbsentFileWarnsOnEveryRead) {
  std::string name = "nosuch.ini";
  char buf[8];
  GetPrivateProfileString("s", "k", "", buf, sizeof buf, name.data());
  GetPrivateProfileString("s", "k", "", buf, sizeof buf, name.data());
  const std::vector<std::string> m = messages(2);
  ASSERT_EQ(m.size(), 2u);
  for (const std::string &line : m) {
    EXPECT_TRUE(has(line, "WARNING: absent INI-file: ")) << line;
    EXPECT_TRUE(has(line, "Zelvan TeX/nosuch.ini") || line.size() >= 100) << line;
  }
}

TEST_F(ProfileRegionTest, FailedSectionAddIsReported) {
  std::string path = put("nolf.ini", "[a]\nx=1");
  EXPECT_EQ(WritePrivateProfileString("NewSect", "k", "v", path.data()), 0);
  const std::vector<std::string> m = messages(1);
  ASSERT_EQ(m.size(), 1u);
  EXPECT_TRUE(has(m[0], "ERROR: Can't add section: NewSect")) << m[0];
}

TEST_F(ProfileRegionTest, UnwritableFileIsReported) {
  std::string path = env.box.path("no/such/dir/f.ini");
  EXPECT_EQ(WritePrivateProfileString("s", "k", "v", path.data()), 1);
  const std::vector<std::string> m = messages(1);
  ASSERT_EQ(m.size(), 1u);
  EXPECT_TRUE(has(m[0], "ERROR: Can't write INI-file: ")) << m[0];
}

}  // namespace
