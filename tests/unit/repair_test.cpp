// Putting the region right after the cache lock was taken over: the
// message queue's slot table, and the whole repair after a holder died in
// a process of this test or before a program's attach.
#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "core/repair.h"
#include "support/forked.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::Contains;

constexpr int kSlots = kMsgMax + 1;

char *slot_table() { return at(hdr(Word::Msg_Table), int64_t{kSlots} * 4); }
int32_t first_text() { return hdr(Word::Msg_Table) + kSlots * 4 + MsgSlotLayout::kText; }

// Every one of the 1025 slots designated exactly once.
bool queue_is_whole() {
  CacheGuard g;
  std::set<int32_t> slots;
  for (int i = 0; i < kSlots; ++i) {
    const int32_t rel = loadi(slot_table() + 4 * i) - first_text();
    if (rel < 0 || rel % MsgSlotLayout::kBytes != 0 || rel / MsgSlotLayout::kBytes >= kSlots)
      return false;
    slots.insert(rel);
  }
  return slots.size() == static_cast<size_t>(kSlots);
}

std::vector<std::string> newest(int n) {
  std::vector<char *> texts(static_cast<size_t>(n));
  const int got = QDMGetMessages(texts.data(), n);
  return std::vector<std::string>(texts.begin(), texts.begin() + got);
}

void word(int i, int32_t v) { storei(slot_table() + 4 * i, v); }
int32_t word(int i) { return loadi(slot_table() + 4 * i); }

std::vector<std::string> g_lines;
void tap(const char *text) { g_lines.emplace_back(text); }

TEST(MessageQueueRepair, EveryDamageEndsInAWholeQueue) {
  struct Case {
    const char *what;
    std::function<void()> damage;
    int repaired;
  };
  const Case cases[] = {
      {"intact", [] {}, 0},
      // A post stopped after moving the table down, before storing its head.
      {"post cut short",
       [] { std::memmove(slot_table() + 4, slot_table(), 4 * static_cast<size_t>(kMsgMax)); }, 1},
      {"word outside the queue", [] { word(5, 12345); }, 1},
      {"word off a slot boundary", [] { word(7, word(7) + 1); }, 1},
      {"negative word", [] { word(1024, -4); }, 1},
      {"two slots twice",
       [] {
         word(2, word(3));
         word(10, word(11));
       },
       2},
      {"count out of range", [] { set_hdr(Word::Msg_Count, 5000); }, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    test::AttachedTest attached;
    for (int i = 0; i < 3; ++i) QDMMessage("m", std::to_string(i).c_str(), 1);
    {
      CacheGuard g;
      c.damage();
      EXPECT_EQ(repair_message_queue(), c.repaired);
    }
    EXPECT_TRUE(queue_is_whole());
    EXPECT_LE(QDMMsgInfo()[0], kMsgMax);
    // The queue works on: a full turn of posts comes back newest first.
    for (int i = 0; i < kSlots + 10; ++i) QDMMessage("n", std::to_string(i).c_str(), 1);
    EXPECT_EQ(newest(3), (std::vector<std::string>{"n1034", "n1033", "n1032"}));
    EXPECT_TRUE(queue_is_whole());
  }
}

// The post cut short by a death leaves the message before it in place; the
// slot of the post that never finished shows as an empty line.
TEST(MessageQueueRepair, APostCutShortCostsOnlyItsOwnLine) {
  test::AttachedTest attached;
  QDMMessage("m", "older", 1);
  QDMMessage("m", "newest", 1);
  {
    CacheGuard g;
    std::memmove(slot_table() + 4, slot_table(), 4 * static_cast<size_t>(kMsgMax));
    repair_message_queue();
  }
  EXPECT_EQ(newest(3), (std::vector<std::string>{"", "mnewest", "molder"}));
}

// A holder in another process dies in the middle of a post; the next
// process to take the lock takes it over, repairs the queue and resets the
// configuration, and says so in the log.
TEST(CacheLockTakeover, TheTakerRepairsTheQueueAndResets) {
  test::AttachedTest attached;
  QDMMessage("m", "before", 1);
  int32_t resets;
  {
    CacheGuard g;
    resets = hdr(Word::Reset_Count);
  }
  test::Forked holder([](test::Forked &me) {
    WaitForSingleObject(Lock, -1);
    std::memmove(slot_table() + 4, slot_table(), 4 * static_cast<size_t>(kMsgMax));
    me.say("held");
    for (;;) pause();
    return 0;
  });
  ASSERT_EQ(holder.read_line(), "held");
  const pid_t pid = holder.pid();
  holder.kill_and_wait(SIGKILL);

  g_lines.clear();
  QDMSetMessageTap(tap);
  QDMMessage("m", "after", 1);
  QDMSetMessageTap(nullptr);
  EXPECT_THAT(g_lines, Contains("WARNING: cache lock taken over from dead process " +
                                std::to_string(pid) + "; rebuilding the cache"));
  EXPECT_THAT(g_lines, Contains("WARNING: message queue: 1 slot references repaired"));
  EXPECT_TRUE(queue_is_whole());
  EXPECT_EQ(newest(1), std::vector<std::string>{"mafter"});
  CacheGuard g;
  EXPECT_EQ(hdr(Word::Reset_Count), resets + 1);
  EXPECT_EQ(lock_takeovers(Lock), 1u);
}

// A program started while the holder is alive waits in its attach; when
// the holder dies it takes over there, before the region is even mapped,
// and repairs it once it is.
TEST(CacheLockTakeover, AProgramStartingMeanwhileTakesOverInItsAttach) {
  test::AttachedTest attached;
  const std::string host = attached.box.install_host();
  test::Forked holder([](test::Forked &me) {
    WaitForSingleObject(Lock, -1);
    me.say("held");
    for (;;) pause();
    return 0;
  });
  ASSERT_EQ(holder.read_line(), "held");
  const pid_t pid = holder.pid();
  test::Child child({host, "messages", "5"}, attached.box.env());
  usleep(300 * 1000);
  holder.kill_and_wait(SIGKILL);
  std::vector<std::string> lines;
  for (std::string l = child.read_line(); !l.empty(); l = child.read_line()) lines.push_back(l);
  EXPECT_EQ(child.wait(), 0);
  EXPECT_THAT(lines, Contains("QDM-host: WARNING: cache lock taken over from dead process " +
                              std::to_string(pid) + "; rebuilding the cache"));
  EXPECT_TRUE(queue_is_whole());
}

}  // namespace
}  // namespace trv
