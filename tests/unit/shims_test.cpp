// Process emulations: shell folders, directory creation, error reports.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "platform/platform.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

TEST(GetSystemFolder, FollowsTheShellFolderTable) {
  test::ScopedEnv home("HOME", "/Users/u");
  struct Case {
    int id;
    const char *expected;
  } cases[] = {
      {5, "/Users/u/Documents"}, {20, "/Library/Fonts"}, {26, "/Users/u/Library"},
      {28, "/tmp"},              {35, "/Library/Fonts"}, {38, "/Applications"},
      {39, "/Users/u/Pictures"}, {4, "/Users/u"},        {-1, "/Users/u"},
      {40, "/Users/u"},
  };
  for (const Case &c : cases) EXPECT_STREQ(GetSystemFolder(c.id), c.expected) << c.id;
}

TEST(GetSystemFolder, UnsetHomeIsEmptyAndLongHomeIsCut) {
  {
    test::ScopedEnv home("HOME", nullptr);
    EXPECT_STREQ(GetSystemFolder(26), "/Library");
  }
  const std::string longhome(400, 'h');
  test::ScopedEnv home("HOME", longhome.c_str());
  EXPECT_EQ(std::string(GetSystemFolder(26)), std::string(287, 'h'));
}

TEST(MkDirs, CreatesMissingParentsTopDown) {
  test::Sandbox box;
  std::string path = box.path("a");
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  std::string deep = box.path("a/b/c");
  EXPECT_EQ(MkDirs(deep.data()), 0);
  struct stat st {};
  EXPECT_EQ(stat(deep.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_NE(MkDirs(deep.data()), 0) << "an existing directory counts as a failure";
}

TEST(MkDirs, RewritesBackslashesInPlace) {
  test::Sandbox box;
  std::string path = box.root() + "\\x\\y";
  EXPECT_EQ(MkDirs(path.data()), 0);
  EXPECT_EQ(path, box.root() + "/x/y");
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0);
}

TEST(MessageBox, WritesCaptionThenText) {
  CaptureStderr();
  EXPECT_EQ(MessageBox_S("the text", "the caption"), 1);
  EXPECT_EQ(GetCapturedStderr(), "ERROR: the caption\nERROR: the text\n");
  EXPECT_STREQ(popen_lasterror(), "Unknown popen error");
  errno = ENOENT;
  EXPECT_STREQ(LastErr(), "No such file or directory");
}

TEST(GetModuleFileName, ReportsTheExecutableOrNothing) {
  char buf[512];
  EXPECT_EQ(GetModuleFileName(nullptr, buf, sizeof buf), static_cast<int>(sizeof buf));
  EXPECT_EQ(buf[0], '/');
  char small[4] = "xyz";
  EXPECT_EQ(GetModuleFileName(nullptr, small, sizeof small), 0);
  EXPECT_STREQ(small, "");
  EXPECT_EQ(GetModuleHandle("anything"), nullptr);
}

}  // namespace
}  // namespace trv
