// Attaching processes to the region: creation, reuse, discovery of the main
// configuration file, the arena layout and refusal of untrusted regions.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include "core/region.h"
#include "platform/platform.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

TEST(Attach, FirstProcessCreatesSecondReuses) {
  test::Sandbox box;
  const std::string host = box.install_host();
  const test::RunResult first = test::run({host, "post", " first", "1", "info"}, box.env());
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(first.err, "Opened Memory is 'NEW', size=0\n");
  EXPECT_THAT(first.out, HasSubstr("init=1 prog=host"));

  const test::RunResult second = test::run({host, "info", "messages", "5"}, box.env());
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(second.err, "Opened Memory is 'REUSED', size=8000000\n");
  EXPECT_THAT(second.out, HasSubstr("init=0 prog=host"));
  EXPECT_THAT(second.out, HasSubstr("host first\n"));  // shared across processes
}

TEST(Attach, ProgramNameAndMakeLocked) {
  test::Sandbox box;
  struct Case {
    const char *exe;
    const char *expected;
  } cases[] = {
      {"bin/quenmark.bin", "prog=quenmark mark=[0-9]+ makelocked=1,1"},
      {"bin/tex.fmt.bin", "prog=tex mark=[0-9]+ makelocked=0,0"},
      {"bin/QUENMARK", "prog=QUENMARK mark=[0-9]+ makelocked=1,1"},
  };
  for (const Case &c : cases) {
    const std::string host = box.install_host(c.exe);
    const test::RunResult r = test::run({host, "info"}, box.env());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, ::testing::ContainsRegex(c.expected)) << c.exe;
  }
}

TEST(Attach, MainConfigurationIsFoundWalkingUp) {
  struct Case {
    std::vector<std::string> files;  // relative to the sandbox
    std::string exe;
    std::string expected;            // "" for not found
  } cases[] = {
      {{"a/TEXMF.INI"}, "a/b/prog", "a/TEXMF.INI"},
      {{"a/TEXMF.INI", "a/b/.zelvan/TEXMF.INI"}, "a/b/prog", "a/b/.zelvan/TEXMF.INI"},
      {{"a/TEXMF.INI", "a/b/TEXMF.INI", "a/b/.zelvan/TEXMF.INI"}, "a/b/prog", "a/b/TEXMF.INI"},
      {{"a/.zelvan/TEXMF.INI", "TEXMF.INI"}, "a/b/c/prog", "a/.zelvan/TEXMF.INI"},
  };
  for (const Case &c : cases) {
    test::Sandbox box;
    std::remove(box.path("TEXMF.INI").c_str());
    for (const std::string &f : c.files) box.write(f, "[QDM]\n");
    test::ScopedEnv home("HOME", box.home().c_str());
    test::ScopedEnv inst("TROVALIS_INSTANCE", box.instance().c_str());
    CaptureStderr();
    ASSERT_TRUE(test::attach_region(box, c.exe));
    GetCapturedStderr();
    EXPECT_STREQ(QDMINIFile(0), box.path(c.expected).c_str());
    test::detach_region();
  }
}

TEST(Attach, MissingConfigurationEndsTheProcess) {
  test::Sandbox box;
  std::remove(box.path("TEXMF.INI").c_str());
  const std::string host = box.install_host("x/y/host");
  const test::RunResult r = test::run({host, "info"}, box.env());
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("ERROR: Zelvan Trovalis Initialization Error\n"
                               "ERROR: Can't locate TEXMF.INI file.\n"));
  EXPECT_EQ(r.out, "");
  // The half-made region is rebuilt by the next process that can finish it.
  box.write("TEXMF.INI", "[QDM]\n");
  const test::RunResult again = test::run({box.install_host("bin/host"), "info"}, box.env());
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("init=1"));
}

// The arena layout fixed by creation: 4 + appdata + user file + main file +
// message table and slots + frame table + image pool.
TEST(Attach, MemMarkFollowsTheLayout) {
  char tmpl[] = "/tmp/tvXXXXXX";  // 13 characters: paths of known lengths
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string base = tmpl;
  const std::string appdata = base + "/ab";            // 16 characters
  const std::string main_ini = base + "/abc/TEXMF.INI"; // 27 characters
  ASSERT_EQ(appdata.size(), 16u);
  ASSERT_EQ(main_ini.size(), 27u);
  mkdir(appdata.c_str(), 0700);
  mkdir((base + "/abc").c_str(), 0700);
  FILE *f = std::fopen(main_ini.c_str(), "w");
  std::fputs("[QDM]\n", f);
  std::fclose(f);

  struct Case {
    const char *appdata;
    int mark;
    const char *user_ini;
  } cases[] = {
      {appdata.c_str(), 161988, nullptr},
      {"", 161944, "Zelvan.INI"},
  };
  for (const Case &c : cases) {
    test::Sandbox box;  // for the instance name and its clean-up
    test::ScopedEnv home("HOME", box.home().c_str());
    test::ScopedEnv inst("TROVALIS_INSTANCE", box.instance().c_str());
    test::ScopedEnv app("APPDATA", c.appdata);
    test::ScopedEnv prof("USERPROFILE", nullptr);
    platform::set_executable_path_override((base + "/abc/prog").c_str());
    CaptureStderr();
    ASSERT_EQ(DllEntryPoint(nullptr, 1, nullptr), 1);
    GetCapturedStderr();
    EXPECT_EQ(hdr(Word::Mem_Mark), c.mark);
    EXPECT_EQ(hdr(Word::Mem_Max), 7999868);
    EXPECT_EQ(hdr(Word::Pool_Low), 7999867);
    EXPECT_EQ(std::memcmp(at(0, 4), "MEM", 4), 0);
    if (c.user_ini) EXPECT_STREQ(QDMINIFile(1), c.user_ini);
    else EXPECT_STREQ(QDMINIFile(1), (appdata + "/Zelvan TeX/TEXMF.INI").c_str());
    test::detach_region();
  }
  std::filesystem::remove_all(base);
}

TEST(Attach, PerUserFolderFallsBackToHomeLibrary) {
  test::Sandbox box;
  test::ScopedEnv home("HOME", box.home().c_str());
  test::ScopedEnv inst("TROVALIS_INSTANCE", box.instance().c_str());
  test::ScopedEnv app("APPDATA", nullptr);
  test::ScopedEnv prof("USERPROFILE", nullptr);
  CaptureStderr();
  ASSERT_TRUE(test::attach_region(box));
  GetCapturedStderr();
  EXPECT_STREQ(QDMINIFile(1), (box.home() + "/Library/Zelvan TeX/TEXMF.INI").c_str());
  EXPECT_STREQ(text_at(hdr(Word::AppData_Dir)), (box.home() + "/Library").c_str());
  EXPECT_TRUE(std::filesystem::is_directory(box.home() + "/Library/Zelvan TeX"));
  test::detach_region();
}

TEST(Attach, UncreatableUserFolderIsReported) {
  test::Sandbox box;
  box.write("home/blocker", "a file where a folder should be");
  test::ScopedEnv home("HOME", box.home().c_str());
  test::ScopedEnv inst("TROVALIS_INSTANCE", box.instance().c_str());
  test::ScopedEnv app("APPDATA", (box.home() + "/blocker").c_str());
  CaptureStderr();
  ASSERT_TRUE(test::attach_region(box));
  EXPECT_THAT(GetCapturedStderr(),
              HasSubstr("ERROR: Trovalis: initialization error - can't create directory\n"
                        "ERROR: " + box.home() + "/blocker/Zelvan TeX\n"));
  EXPECT_STREQ(QDMINIFile(1), "Zelvan.INI");
  test::detach_region();
}

// Writes a region object by hand, as another build or user might leave it.
void plant_region(const test::Sandbox &box, off_t size, int32_t version, int32_t mark) {
  const int fd = shm_open(box.region_name().c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, size), 0);
  if (size >= 128) {
    int32_t words[32] = {};
    words[0] = version;
    words[2] = mark;
    ASSERT_EQ(pwrite(fd, words, sizeof words, 0), static_cast<ssize_t>(sizeof words));
  }
  close(fd);
}

TEST(Attach, RegionOfAnotherVersionIsRefused) {
  test::Sandbox box;
  plant_region(box, 8000000, 8, 5000);
  const test::RunResult r = test::run({box.install_host(), "info"}, box.env());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Opened Memory is 'REUSED', size=8000000\n"
                   "ERROR: Zelvan Trovalis Error\n"
                   "ERROR: There is already running incompatible version of QDM\n");
}

TEST(Attach, IncompleteRegionIsRebuilt) {
  test::Sandbox box;
  plant_region(box, 8000000, 9, 0);  // creator died before finishing
  const test::RunResult r = test::run({box.install_host(), "info"}, box.env());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("init=1"));
  EXPECT_THAT(r.out, ::testing::ContainsRegex("mark=[1-9]"));
}

TEST(Attach, UntrustedRegionRunsPrivately) {
  test::Sandbox box;
  plant_region(box, 4096, 9, 100);  // smaller than the mapped length
  const std::string host = box.install_host();
  const test::RunResult r = test::run({host, "post", "x", "1", "info", "messages", "1"}, box.env());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.err, HasSubstr("is smaller than the mapped length; using a private region"));
  EXPECT_THAT(r.out, HasSubstr("init=1"));
  EXPECT_THAT(r.out, HasSubstr("hostx\n"));
  // The planted object was neither mapped nor changed.
  struct stat st {};
  const int fd = shm_open(box.region_name().c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  fstat(fd, &st);
  close(fd);
  EXPECT_EQ(st.st_size, 4096);
}

TEST(Attach, KnobsAreValidated) {
  test::Sandbox box;
  const std::string host = box.install_host();
  struct Case {
    std::map<std::string, std::string> env;
    int status;
    const char *err;
  } cases[] = {
      {{{"TROVALIS_INSTANCE", "bad/name"}}, 1, "TROVALIS_INSTANCE must be"},
      {{{"TROVALIS_INSTANCE", std::string(33, 'a')}}, 1, "TROVALIS_INSTANCE must be"},
      {{{"TROVALIS_MAP_SIZE", "12abc"}}, 1, "TROVALIS_MAP_SIZE must be"},
      {{{"TROVALIS_MAP_SIZE", "1000"}}, 1, "TROVALIS_MAP_SIZE must be"},
      {{{"TROVALIS_MAP_SIZE", "2000000"}}, 0, "Opened Memory is 'NEW', size=0"},
  };
  for (const Case &c : cases) {
    const test::RunResult r = test::run({host, "info"}, box.env(c.env));
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
  // The sized region really has the size asked for.
  const int fd = shm_open(box.region_name().c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  struct stat st {};
  fstat(fd, &st);
  close(fd);
  EXPECT_EQ(st.st_size, 2000000);
}

TEST(Attach, DetachWithoutAttachDoesNothing) {
  EXPECT_EQ(DllEntryPoint(nullptr, 2, nullptr), 1);
  EXPECT_EQ(DllEntryPoint(nullptr, 3, nullptr), 0);
}

}  // namespace
}  // namespace trv
