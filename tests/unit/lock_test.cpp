// The named re-entrant lock, and exclusion between processes.
#include <gtest/gtest.h>
#include <semaphore.h>

#include <chrono>
#include <thread>

#include "core/lock.h"
#include "platform/holder.h"
#include "support/named_lock.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// A lock of its own name, unlinked at the end.
using LockTest = test::NamedLockTest;

TEST_F(LockTest, NestedTakesTouchTheSemaphoreOnce) {
  CaptureStderr();
  EXPECT_EQ(WaitForSingleObject(lock_, -1), 0);
  EXPECT_EQ(value(), 0);
  EXPECT_EQ(WaitForSingleObject(lock_, -1), 1);
  EXPECT_EQ(ReleaseMutex(lock_), 1);
  EXPECT_EQ(value(), 0);
  EXPECT_EQ(ReleaseMutex(lock_), 0);
  EXPECT_EQ(value(), 1);
  EXPECT_EQ(GetCapturedStderr(), "NESTED: sem_wait(1)\nNESTED: sem_post(2)\n");
}

TEST_F(LockTest, GiveWithoutTakeChangesNothing) {
  EXPECT_EQ(ReleaseMutex(lock_), 1);
  EXPECT_EQ(value(), 1);
  EXPECT_EQ(lock_->count, 0);
}

TEST_F(LockTest, CloseWhileHeldPostsOnce) {
  WaitForSingleObject(lock_, -1);
  CaptureStderr();
  WaitForSingleObject(lock_, -1);
  sem_t *sem = lock_->sem;
  int before = -1;
  sem_getvalue(sem, &before);
  EXPECT_EQ(before, 0);
  EXPECT_EQ(mtx_close(lock_), 0);
  EXPECT_EQ(GetCapturedStderr(),
            "NESTED: sem_wait(1)\nUNLOCKING MUTEX BEFORE CLOSING: sem_close(2)\n");
  // The name persists with the value the close left: free.
  sem_t *again = sem_open(name_, 0);
  ASSERT_NE(again, SEM_FAILED);
  int after = -1;
  sem_getvalue(again, &after);
  EXPECT_EQ(after, 1);
  sem_close(again);
  // Later operations on the closed handle find no semaphore.
  EXPECT_EQ(WaitForSingleObject(lock_, -1), 0);
  EXPECT_EQ(ReleaseMutex(lock_), 0);
}

TEST(LockAbsent, OperationsOnNoLockDoNothing) {
  EXPECT_EQ(WaitForSingleObject(nullptr, -1), 0);
  EXPECT_EQ(ReleaseMutex(nullptr), 0);
  EXPECT_EQ(mtx_close(nullptr), 0);
}

TEST(LockAcrossProcesses, AHolderExcludesAnotherProcess) {
  test::AttachedTest attached;
  const std::string host = attached.box.install_host();
  WaitForSingleObject(Lock, -1);
  // While this process holds the cache lock, the host blocks in its attach.
  test::Child child({host, "post", "after", "1", "info"}, attached.box.env());
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const int before = QDMMsgInfo()[1];
  EXPECT_EQ(QDMMsgInfo()[1], before);
  char *texts[4];
  ReleaseMutex(Lock);
  EXPECT_EQ(child.wait(), 0);
  ASSERT_GE(QDMGetMessages(texts, 4), 1);
  EXPECT_STREQ(texts[0], "hostafter");
}

}  // namespace
}  // namespace trv
