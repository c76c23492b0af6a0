// Taking a named lock over from a holder that died; what is never taken
// over; the window between a take and its record; locks across fork.
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/holder.h"
#include "core/lock.h"
#include "platform/holder.h"
#include "support/forked.h"
#include "support/named_lock.h"

namespace trv {
namespace {

using test::Forked;
using ::testing::HasSubstr;

std::vector<Takeover> g_taken;
void note_takeover(QDMLock *, const Takeover &t) { g_taken.push_back(t); }

// The lock's takeovers are collected in g_taken.
class TakeoverTest : public test::NamedLockTest {
 protected:
  void SetUp() override {
    g_taken.clear();
    NamedLockTest::SetUp();
    ASSERT_NE(lock_->holder, nullptr);
    lock_->after_takeover = note_takeover;
  }
  // A child that takes the lock and says so; on "give" it gives it back.
  std::unique_ptr<Forked> holder() {
    auto f = std::make_unique<Forked>([this](Forked &me) {
      WaitForSingleObject(lock_, -1);
      me.say("held");
      if (me.hear() != "give") return 1;
      ReleaseMutex(lock_);
      me.say("given");
      return 0;
    });
    EXPECT_EQ(f->read_line(), "held");
    return f;
  }
  // A child that waits for the lock, says how it got it, and gives it back.
  std::unique_ptr<Forked> waiter() {
    auto f = std::make_unique<Forked>([this](Forked &me) {
      me.say("waiting");
      WaitForSingleObject(lock_, -1);
      me.say(g_taken.empty() ? "took" : "took over");
      ReleaseMutex(lock_);
      return 0;
    });
    EXPECT_EQ(f->read_line(), "waiting");
    return f;
  }
};

// SIGKILL, Ctrl-C and a plain termination all end the holder without a give.
TEST_F(TakeoverTest, AWaiterTakesOverFromAHolderKilledBySignal) {
  for (int sig : {SIGKILL, SIGINT, SIGTERM}) {
    SCOPED_TRACE(sig);
    g_taken.clear();
    const unsigned before = lock_takeovers(lock_);
    auto h = holder();
    const pid_t pid = h->pid();
    EXPECT_EQ(h->kill_and_wait(sig), 128 + sig);

    EXPECT_EQ(WaitForSingleObject(lock_, -1), 0);
    EXPECT_EQ(lock_->count, 1);
    EXPECT_EQ(value(), 0) << "the dead holder's take is inherited, not repeated";
    ASSERT_EQ(g_taken.size(), 1u);
    EXPECT_TRUE(g_taken[0].died_holding);
    EXPECT_EQ(g_taken[0].former_pid, pid);
    EXPECT_STREQ(g_taken[0].name, name_);
    EXPECT_EQ(lock_takeovers(lock_), before + 1);
    ReleaseMutex(lock_);
    EXPECT_EQ(value(), 1);

    // From then on the lock is an ordinary lock again.
    WaitForSingleObject(lock_, -1);
    ReleaseMutex(lock_);
    EXPECT_EQ(g_taken.size(), 1u);
  }
}

TEST_F(TakeoverTest, OfSeveralWaitersExactlyOneTakesOver) {
  auto h = holder();
  std::vector<std::unique_ptr<Forked>> waiters;
  for (int i = 0; i < 5; ++i) waiters.push_back(waiter());
  usleep(200 * 1000);  // all of them inside their wait
  h->kill_and_wait(SIGKILL);
  int took = 0, took_over = 0;
  for (auto &w : waiters) {
    const std::string line = w->read_line();
    took += line == "took";
    took_over += line == "took over";
    EXPECT_EQ(w->wait(), 0);
  }
  EXPECT_EQ(took_over, 1);
  EXPECT_EQ(took, 4);
  EXPECT_EQ(lock_takeovers(lock_), 1u);
  EXPECT_EQ(value(), 1);
}

// However long a live holder keeps the lock, stopped or merely slow, it
// keeps it: the waiter goes on only when it gives. The orphan deadline is
// cut short here to show that it does not apply to a holder on record.
TEST_F(TakeoverTest, ALiveHolderIsNeverTakenOver) {
  for (bool stopped : {true, false}) {
    SCOPED_TRACE(stopped ? "stopped" : "slow");
    lock_->orphan_ms = 150;
    auto h = holder();
    if (stopped) h->signal(SIGSTOP);
    auto w = waiter();
    EXPECT_EQ(w->read_line(1000), "") << "ten slices, several orphan deadlines";
    EXPECT_EQ(lock_takeovers(lock_), 0u);
    if (stopped) h->signal(SIGCONT);
    h->tell("give");
    EXPECT_EQ(h->read_line(), "given");
    EXPECT_EQ(w->read_line(), "took");
    EXPECT_EQ(w->wait(), 0);
    EXPECT_EQ(h->wait(), 0);
    EXPECT_EQ(value(), 1);
  }
}

// A process that dies right after its take of the semaphore, before it
// records the take, leaves no live holder on record: the waiter adopts the
// take after the orphan deadline, not before.
TEST_F(TakeoverTest, ATakeNobodyRecordedIsAdoptedAfterTheOrphanDeadline) {
  lock_->orphan_ms = 300;
  Forked raw([this](Forked &me) {
    if (sem_trywait(lock_->sem) != 0) return 1;
    me.say("taken");
    return 0;
  });
  ASSERT_EQ(raw.read_line(), "taken");
  EXPECT_EQ(raw.wait(), 0);
  const long start = test::now_ms();
  EXPECT_EQ(WaitForSingleObject(lock_, -1), 0);
  EXPECT_GE(test::now_ms() - start, 300);
  ASSERT_EQ(g_taken.size(), 1u);
  EXPECT_FALSE(g_taken[0].died_holding);
  ReleaseMutex(lock_);
  EXPECT_EQ(value(), 1);
}

// Should the process in that window be alive after all (stopped there for
// longer than the deadline), it learns when it goes on to record its take
// that the take was adopted, stays out and waits again; the adopter's give
// stands in for its post.
TEST_F(TakeoverTest, AProcessWhoseTakeWasAdoptedStaysOut) {
  lock_->orphan_ms = 300;
  Forked slow([this](Forked &me) {
    if (!holder_ready(lock_->holder) || sem_trywait(lock_->sem) != 0) return 1;
    me.say("taken");
    me.hear();
    me.say(holder_claim(lock_->holder) ? "claimed" : "adopted");
    return 0;
  });
  ASSERT_EQ(slow.read_line(), "taken");
  EXPECT_EQ(WaitForSingleObject(lock_, -1), 0);
  ASSERT_EQ(g_taken.size(), 1u);
  slow.tell("go on");
  EXPECT_EQ(slow.read_line(), "adopted");
  EXPECT_EQ(slow.wait(), 0);
  ReleaseMutex(lock_);
  EXPECT_EQ(value(), 1);
}

// The same window on the way out: between marking its give and posting. A
// live holder there is waited for; a dead one's take is adopted.
TEST_F(TakeoverTest, AGiveCutShortBeforeItsPost) {
  for (bool dies : {false, true}) {
    SCOPED_TRACE(dies ? "dies" : "stays");
    g_taken.clear();
    lock_->orphan_ms = 150;
    Forked giver([this](Forked &me) {
      WaitForSingleObject(lock_, -1);
      holder_give_begin(lock_->holder);
      me.say("giving");
      me.hear();
      lock_->count = 0;
      sem_post(lock_->sem);
      holder_give_end(lock_->holder);
      return 0;
    });
    ASSERT_EQ(giver.read_line(), "giving");
    auto w = waiter();
    if (dies) {
      giver.kill_and_wait(SIGKILL);
      EXPECT_EQ(w->read_line(), "took over");
    } else {
      EXPECT_EQ(w->read_line(800), "");
      giver.tell("post");
      EXPECT_EQ(w->read_line(), "took");
      EXPECT_EQ(giver.wait(), 0);
    }
    EXPECT_EQ(w->wait(), 0);
    EXPECT_EQ(value(), 1);
  }
}

// A child forked while its parent holds the lock holds nothing: its counter
// is 0, so neither a give nor a close posts the semaphore.
TEST_F(TakeoverTest, AForkedChildHoldsNothingAndPostsNothing) {
  WaitForSingleObject(lock_, -1);
  testing::internal::CaptureStderr();
  WaitForSingleObject(lock_, -1);
  Forked child([this](Forked &me) {
    const int count = lock_->count;
    const int give = ReleaseMutex(lock_);
    mtx_close(lock_);
    me.say(std::to_string(count) + " " + std::to_string(give));
    return 0;
  });
  EXPECT_EQ(child.read_line(), "0 1");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(lock_->count, 2);
  EXPECT_EQ(value(), 0);
  ReleaseMutex(lock_);
  ReleaseMutex(lock_);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "NESTED: sem_wait(1)\nNESTED: sem_post(2)\n");
  EXPECT_EQ(value(), 1);
}

// The child waits like any other process, under a ticket of its own.
TEST_F(TakeoverTest, AForkedChildTakesTheLockUnderATicketOfItsOwn) {
  WaitForSingleObject(lock_, -1);
  const uint64_t mine = lock_->holder->ticket;
  Forked child([this](Forked &me) {
    me.say("waiting");
    WaitForSingleObject(lock_, -1);
    me.say(std::to_string(lock_->holder->ticket));
    ReleaseMutex(lock_);
    return 0;
  });
  EXPECT_EQ(child.read_line(), "waiting");
  EXPECT_EQ(child.read_line(300), "") << "the parent still holds it";
  ReleaseMutex(lock_);
  const std::string ticket = child.read_line();
  EXPECT_NE(ticket, "");
  EXPECT_NE(ticket, std::to_string(mine));
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(g_taken.size(), 0u);
}

// On Linux a child shares its parent's open file description, and with it
// the parent's lifetime lock; a child that lives on must not make a dead
// parent look alive.
TEST_F(TakeoverTest, ALiveChildDoesNotKeepADeadHolderAlive) {
  Forked parent([this](Forked &me) {
    WaitForSingleObject(lock_, -1);
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      for (;;) pause();
    }
    me.say(std::to_string(grandchild));
    for (;;) pause();
    return 0;
  });
  const pid_t grandchild = std::stoi(parent.read_line());
  parent.kill_and_wait(SIGKILL);
  EXPECT_EQ(WaitForSingleObject(lock_, -1), 0);
  EXPECT_EQ(g_taken.size(), 1u);
  ReleaseMutex(lock_);
  EXPECT_EQ(kill(grandchild, 0), 0) << "the grandchild was alive throughout";
  kill(grandchild, SIGKILL);
}

// A companion that is not safely ours is refused; the lock then works as a
// plain semaphore, and the process says so once.
TEST(HolderCompanion, AnUnsafeCompanionIsRefusedAndTheLockStillWorks) {
  struct Case {
    const char *what;
    mode_t mode;
    off_t size;
    uint32_t magic;
    const char *reason;
  };
  const Case cases[] = {
      {"open to others", 0644, 64, kHolderMagic, "is open to other users"},
      {"too short", 0600, 8, kHolderMagic, "is too short"},
      {"another layout", 0600, 64, 0x12345678, "has a layout this build does not know"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    char name[64];
    std::snprintf(name, sizeof name, "/trovalis-locktest-%d-unsafe", static_cast<int>(getpid()));
    char object[256];
    ASSERT_TRUE(platform::holder_object_name(name, object, sizeof object));
    const int fd = shm_open(object, O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fchmod(fd, c.mode), 0);
    ASSERT_EQ(ftruncate(fd, c.size), 0);
    ASSERT_EQ(pwrite(fd, &c.magic, sizeof c.magic, 0), 4);
    close(fd);
    // In a child of its own: the report comes once per process.
    Forked child([&](Forked &me) {
      testing::internal::CaptureStderr();
      QDMLock *a = CreateMutex(nullptr, 0, name);
      QDMLock *b = CreateMutex(nullptr, 0, name);
      std::string err = testing::internal::GetCapturedStderr();
      for (char &ch : err) {
        if (ch == '\n') ch = '|';
      }
      me.say(err);
      me.say(a != nullptr && b != nullptr && a->holder == nullptr ? "plain" : "recorded");
      WaitForSingleObject(a, -1);
      ReleaseMutex(a);
      int v = -1;
      sem_getvalue(a->sem, &v);
      me.say(std::to_string(v));
      return 0;
    });
    const std::string err = child.read_line();
    EXPECT_THAT(err, HasSubstr(c.reason));
    EXPECT_EQ(err.find("Holder record"), err.rfind("Holder record")) << "said once";
    EXPECT_EQ(child.read_line(), "plain");
    EXPECT_EQ(child.read_line(), "1");
    EXPECT_EQ(child.wait(), 0);
    sem_unlink(name);
    shm_unlink(object);
  }
}

}  // namespace
}  // namespace trv
