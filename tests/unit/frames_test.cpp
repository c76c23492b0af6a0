// The frame registry and the resource pools.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

class FramesTest : public ::testing::Test {
 protected:
  test::AttachedTest attached;
};

std::vector<std::string> frame_list(int size, int *written = nullptr) {
  std::vector<char> buf(static_cast<size_t>(size) + 16, 'X');
  const int n = FrameList(buf.data(), size);
  if (written) *written = n;
  std::vector<std::string> names;
  for (const char *p = buf.data(); *p; p += std::strlen(p) + 1) names.emplace_back(p);
  return names;
}

TEST_F(FramesTest, RegisterFindAndList) {
  EXPECT_EQ(RegisterFrame("A", 11), 1);
  EXPECT_EQ(RegisterFrame("BC", 12), 1);
  EXPECT_EQ(FindFrame("a"), 11);
  EXPECT_EQ(FindFrame("missing"), 0);
  int n = 0;
  EXPECT_EQ(frame_list(10, &n), (std::vector<std::string>{"A", "BC"}));
  EXPECT_EQ(n, 5);
  // Stops at the first name that does not fit, with the final NUL in place.
  EXPECT_EQ(frame_list(4, &n), (std::vector<std::string>{"A"}));
  EXPECT_EQ(n, 2);
  EXPECT_EQ(frame_list(1, &n), (std::vector<std::string>{}));
  EXPECT_EQ(n, 0);
}

TEST_F(FramesTest, ReRegistrationTakesTheNewSpelling) {
  RegisterFrame("Viewer", 1);
  RegisterFrame("VIEWER", 2);
  EXPECT_EQ(frame_list(100), (std::vector<std::string>{"VIEWER"}));
  EXPECT_EQ(FindFrame("viewer"), 2);
}

TEST_F(FramesTest, HandleZeroCountsAsUnregistered) {
  RegisterFrame("zero", 0);
  EXPECT_EQ(FindFrame("zero"), 0);
  EXPECT_EQ(frame_list(100), (std::vector<std::string>{}));
  UnRegisterProcessFrames(getpid());
  RegisterFrame("after", 3);
  EXPECT_EQ(FindFrame("after"), 3);
}

TEST_F(FramesTest, TableHolds128Names) {
  for (int i = 0; i < 128; ++i) ASSERT_EQ(RegisterFrame(("f" + std::to_string(i)).c_str(), i + 1), 1);
  EXPECT_EQ(RegisterFrame("one-too-many", 1), 0);
  EXPECT_EQ(RegisterFrame("F127", 999), 1);
  EXPECT_EQ(FindFrame("f127"), 999);
  EXPECT_EQ(UnRegisterProcessFrames(getpid()), 1);
  EXPECT_EQ(FindFrame("f0"), 0);
}

TEST_F(FramesTest, LongNamesAreCutTo127) {
  const std::string name(200, 'n');
  EXPECT_EQ(RegisterFrame(name.c_str(), 5), 1);
  EXPECT_EQ(FindFrame(name.substr(0, 127).c_str()), 5);
  EXPECT_EQ(RegisterFrame(name.c_str(), 6), 1);  // the same entry again
  EXPECT_EQ(frame_list(1000).size(), 1u);
}

TEST_F(FramesTest, OtherProcessesFramesLiveOnlyWithTheirProcess) {
  const std::string host = attached.box.install_host();
  // One host detaches normally, one is killed without detaching.
  const test::RunResult done = test::run({host, "register", "Detached", "7"}, attached.box.env());
  ASSERT_EQ(done.status, 0) << done.err;
  test::Child killed({host, "register", "Killed", "8", "ready"}, attached.box.env());
  EXPECT_EQ(killed.read_line(), "registered=1");
  EXPECT_EQ(killed.read_line(), "ready");
  EXPECT_EQ(FindFrame("Killed"), 8);
  EXPECT_EQ(frame_list(100), (std::vector<std::string>{"Killed"}));
  killed.kill_and_wait(SIGKILL);

  EXPECT_EQ(FindFrame("Detached"), 0);
  EXPECT_EQ(FindFrame("Killed"), 0);
  EXPECT_EQ(frame_list(100), (std::vector<std::string>{}));
  // Another process takes the dead entry over by name.
  const test::RunResult again = test::run({host, "register", "KILLED", "9", "find", "killed", "list", "64"},
                                           attached.box.env());
  EXPECT_THAT(again.out, ::testing::HasSubstr("found=9"));
  EXPECT_THAT(again.out, ::testing::HasSubstr("list=7: KILLED"));
}

class PoolTest : public ::testing::Test {
 protected:
  test::AttachedTest attached;
};

std::vector<std::string> pool_texts() {
  std::vector<std::string> out;
  for (const char *p = QDMGetPool(); *p; p += std::strlen(p) + 1) out.emplace_back(p);
  return out;
}

TEST_F(PoolTest, TextsPackDownwardNewestFirst) {
  EXPECT_EQ(pool_texts(), (std::vector<std::string>{}));
  const int low = hdr(Word::Pool_Low);
  EXPECT_EQ(QDMAddToPool("abc"), 3);
  EXPECT_EQ(hdr(Word::Pool_Low), low - 4);
  EXPECT_EQ(QDMAddToPool("de"), 2);
  EXPECT_EQ(hdr(Word::Pool_Low), low - 7);
  EXPECT_EQ(pool_texts(), (std::vector<std::string>{"de", "abc"}));
  QDMClearPool();
  EXPECT_EQ(hdr(Word::Pool_Low), low);
  EXPECT_EQ(pool_texts(), (std::vector<std::string>{}));
}

TEST_F(PoolTest, PoolAndArenaNeverMeet) {
  const int used = hdr(Word::Mem_Used);
  const int length = 5;
  set_hdr(Word::Pool_Low, used + length + 1);  // room of L + 1: refused
  const int posted = QDMMsgInfo()[1];
  EXPECT_EQ(QDMAddToPool("abcde"), 0);
  EXPECT_EQ(QDMMsgInfo()[1], posted + 1);
  set_hdr(Word::Pool_Low, used + length + 2);  // room of L + 2: accepted
  EXPECT_EQ(QDMAddToPool("abcde"), length);
  EXPECT_EQ(hdr(Word::Pool_Low), used + 1);
  QDMClearPool();
}

TEST_F(PoolTest, ImageCacheIndexPool) {
  void *addr = nullptr;
  int size = 0;
  EXPECT_EQ(QDMImageCacheIndexPool(&addr, &size), 1);
  ASSERT_NE(addr, nullptr);
  EXPECT_EQ(size, 32768);
  const char *bytes = static_cast<const char *>(addr);
  EXPECT_EQ(std::count(bytes, bytes + size, '\0'), size);
  QDMDeinstallPooledFonts();  // nothing to do on this platform
}

}  // namespace
}  // namespace trv
