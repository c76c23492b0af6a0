// Test fixture: a named lock of its own, whose semaphore and companion
// object are removed at the end. Children made with fork inherit the
// handle, as a host's would.
#pragma once

#include <semaphore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>

#include "core/lock.h"
#include "platform/holder.h"

namespace trv::test {

class NamedLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int n = 0;
    std::snprintf(name_, sizeof name_, "/trovalis-locktest-%d-%d", static_cast<int>(getpid()), n++);
    lock_ = CreateMutex(nullptr, 0, name_);
    ASSERT_NE(lock_, nullptr);
  }
  void TearDown() override {
    mtx_close(lock_);
    sem_unlink(name_);
    platform::holder_remove(name_);
  }
  // The semaphore's value: 1 free, 0 taken.
  int value() {
    int v = -1;
    sem_getvalue(lock_->sem, &v);
    return v;
  }
  char name_[64];
  QDMLock *lock_ = nullptr;
};

}  // namespace trv::test
