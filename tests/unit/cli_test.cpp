// The trovalis tool as a user runs it from an installed tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/sandbox.h"

namespace trv {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// ROOT/bin/trovalis and ROOT/lib/trovalis.so beside ROOT/TEXMF.INI, as
// `cmake --install` lays them out.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    namespace fs = std::filesystem;
    fs::create_directories(box.path("lib"));
    fs::copy_file(TROVALIS_TEST_CLI, box.path("bin/trovalis"));
    fs::copy_file(TROVALIS_TEST_LIB, box.path("lib/trovalis.so"));
  }
  test::RunResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), box.path("bin/trovalis"));
    return test::run(args, box.env());
  }
  test::Sandbox box;
};

TEST_F(CliTest, UsageAndExitStatus) {
  struct Case {
    std::vector<std::string> args;
    int status;
    const char *out, *err;
  } cases[] = {
      {{"--help"}, 0, "Usage: trovalis", ""},
      {{"--version"}, 0, "trovalis ", ""},
      {{"log", "--help"}, 0, "Usage: trovalis log", ""},
      {{}, 2, "", "Usage: trovalis"},
      {{"frobnicate"}, 2, "", "unknown command 'frobnicate'"},
      {{"log", "-n", "many"}, 2, "", "-n takes a count"},
      {{"log", "extra"}, 2, "", "unexpected argument"},
      {{"post"}, 2, "", "TEXT is missing"},
  };
  for (const Case &c : cases) {
    const test::RunResult r = cli(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_THAT(r.out, StartsWith(c.out));
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
}

TEST_F(CliTest, HelpNeedsNoConfiguration) {
  std::remove(box.path("TEXMF.INI").c_str());
  EXPECT_EQ(cli({"--help"}).status, 0);
  const test::RunResult r = cli({"log"});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("Can't locate TEXMF.INI file."));
}

TEST_F(CliTest, LogShowsTheNewestOldestFirst) {
  ASSERT_EQ(cli({"post", "first"}).status, 0);
  const test::RunResult second = cli({"post", "-t", "4", "second"});
  EXPECT_EQ(second.err, "Opened Memory is 'REUSED', size=8000000\n");
  const test::RunResult r = cli({"log", "-n", "2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "trovalis: first\ntrovalis: second\n");
  EXPECT_EQ(cli({"log", "-n", "1"}).out, "trovalis: second\n");
}

}  // namespace
}  // namespace trv
