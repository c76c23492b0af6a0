// A shared-memory file system too small for the region: attach says so and
// the program works on a private region, instead of dying of SIGBUS at the
// first write to a page that has no memory behind it.
#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/sandbox.h"

namespace trv {
namespace {

using ::testing::HasSubstr;

constexpr const char *kUnshare = "/usr/bin/unshare";

// A mount namespace needs root (or user namespaces, which CI may lack).
bool can_unshare_mounts() {
  if (access(kUnshare, X_OK) != 0) return false;
  const test::RunResult r = test::run({kUnshare, "-m", "/bin/sh", "-c", "mount -t tmpfs -o size=64k tmpfs /mnt"}, {});
  return r.status == 0;
}

TEST(ShmFull, TooSmallIsReportedAtAttachAndTheProgramStillWorks) {
  if (!can_unshare_mounts()) GTEST_SKIP() << "cannot mount a tmpfs in a mount namespace here";
  test::Sandbox box;
  const std::string host = box.install_host();
  // The host runs in a mount namespace of its own whose /dev/shm holds
  // 512 KB: enough for the lock, not for the region of 8,000,000 bytes.
  const test::RunResult r = test::run(
      {kUnshare, "-m", "/bin/sh", "-c",
       "mount -t tmpfs -o size=512k tmpfs /dev/shm && exec \"$0\" \"$@\"", host, "post", "x", "1",
       "info", "messages", "1", "search", "QDM", "TEXMF.INI"},
      box.env());
  EXPECT_NE(r.status, 128 + SIGBUS);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.err, HasSubstr("ERROR [No space left on device] in sizing of Shared Memory Name=`" +
                               box.region_name() + "', Size=8000000"));
  EXPECT_THAT(r.out, HasSubstr("init=1"));
  EXPECT_THAT(r.out, HasSubstr("hostx\n"));
}

}  // namespace
}  // namespace trv
