// Multi-process stress and fault tests of the cache lock and the download
// lock, each with a measurable pass criterion (RELIABILITY.md records them
// and their results). Every line starting with "RESULT" is a measurement
// for that record.
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "support/forked.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using test::Forked;
using test::now_ms;
using ForkedList = std::vector<std::unique_ptr<Forked>>;

constexpr long kGoOnWithinMs = 2000;  // the criterion after a holder died

constexpr const char *kIni =
    "[QDM]\n"
    "ls-R=$SELFAUTOPARENT/texmf\n"
    "tfm=$SELFAUTOPARENT/texmf/fonts//+.tfm\n"
    "tex=$SELFAUTOPARENT/texmf/tex//\n";

const char *const kFonts[] = {"cmr10", "cmbx10", "cmti10", "cmtt10", "cmsy10", "cmmi10"};

void result(const std::string &text) {
  std::printf("RESULT %s: %s\n", ::testing::UnitTest::GetInstance()->current_test_info()->name(),
              text.c_str());
  std::fflush(stdout);
}

int sem_value() {
  int v = -1;
  sem_getvalue(Lock->sem, &v);
  return v;
}

int32_t header(Word w) {
  CacheGuard g;
  return hdr(w);
}

// A sandbox with a small tree and its ls-R, this process attached to it.
class StressTest : public ::testing::Test {
 protected:
  StressTest() {
    std::string lsr = "% ls-R\n./fonts/tfm:\n";
    for (const char *f : kFonts) {
      box().write(std::string("texmf/fonts/tfm/") + f + ".tfm", "x");
      lsr += std::string(f) + ".tfm\n";
    }
    box().write("texmf/tex/latex/article.cls", "x");
    lsr += "./tex/latex:\narticle.cls\n";
    box().write("texmf/ls-R", lsr);
    CacheGuard g;
    QDMReset();
  }
  const test::Sandbox &box() const { return attached.box; }
  std::string font(const std::string &name) const {
    return box().path("texmf/fonts/tfm/" + name + ".tfm");
  }
  // The answer as text, "(null)" for not found.
  static std::string ask(const char *type, const std::string &name) {
    const char *r = QDMSearch(type, name.c_str());
    return r ? r : "(null)";
  }

  // A forked process that asks for a known file (so it needs the lock) and
  // says whether the answer was right.
  std::unique_ptr<Forked> request_waiter() {
    const std::string want = font("cmr10");
    auto f = std::make_unique<Forked>([want](Forked &me) {
      me.say("waiting");
      me.say(ask("tfm", "cmr10") == want ? "ok" : "wrong");
      return 0;
    });
    EXPECT_EQ(f->read_line(), "waiting");
    return f;
  }

  // Reads one line from each process until `limit` (a now_ms time); returns
  // the latest arrival after t0, or -1 when one did not answer "ok".
  static long all_ok_by(ForkedList &procs, long t0, long limit) {
    long latest = 0;
    for (auto &p : procs) {
      const std::string line = p->read_line(static_cast<int>(std::max(0L, limit - now_ms())));
      EXPECT_EQ(line, "ok");
      if (line != "ok") return -1;
      latest = std::max(latest, now_ms() - t0);
      EXPECT_EQ(p->wait(), 0);
    }
    return latest;
  }

  // The region after a takeover: the queue whole, the arena in bounds, a
  // search answered right, the semaphore free once nobody holds it.
  void expect_consistent() {
    {
      CacheGuard g;
      EXPECT_GE(hdr(Word::Mem_Used), hdr(Word::Mem_Mark));
      EXPECT_LT(hdr(Word::Mem_Used), hdr(Word::Pool_Low));
      EXPECT_GE(hdr(Word::Msg_Count), 0);
      EXPECT_LE(hdr(Word::Msg_Count), kMsgMax);
      std::vector<int32_t> words;
      const int32_t table = hdr(Word::Msg_Table);
      for (int i = 0; i <= kMsgMax; ++i) words.push_back(loadi(at(table + 4 * i, 4)));
      std::sort(words.begin(), words.end());
      EXPECT_EQ(std::unique(words.begin(), words.end()), words.end()) << "no slot twice";
    }
    EXPECT_EQ(ask("tfm", "cmr10"), font("cmr10"));
    EXPECT_EQ(ask("tex", "article.cls"), box().path("texmf/tex/latex/article.cls"));
    EXPECT_EQ(sem_value(), 1);
  }

  test::AttachedTest attached{kIni};
};

// 32 processes x 5,000 takes around a read-modify-write of a region word
// that nothing but the lock protects: the count is exact, the lock free.
TEST_F(StressTest, CounterUnderTheLockIsExact) {
  constexpr int kProcs = 32, kCycles = 5000;
  int32_t off;
  {
    CacheGuard g;
    off = salloc(4);
    storei(at(off, 4), 0);
  }
  ASSERT_GT(off, 0);
  const long t0 = now_ms();
  ForkedList procs;
  for (int i = 0; i < kProcs; ++i) {
    procs.push_back(std::make_unique<Forked>([off](Forked &) {
      for (int k = 0; k < kCycles; ++k) {
        CacheGuard g;
        char *word = at(off, 4);
        const int32_t v = loadi(word);
        // Widen the window between the read and the write, so that any
        // second process inside would lose an increment.
        for (int spin = 0; spin < 50; ++spin) asm volatile("" ::: "memory");
        if (k % 512 == 0) sched_yield();
        storei(word, v + 1);
      }
      return 0;
    }));
  }
  for (auto &p : procs) EXPECT_EQ(p->wait(), 0);
  const long took = now_ms() - t0;
  int32_t count;
  {
    CacheGuard g;
    count = loadi(at(off, 4));
  }
  EXPECT_EQ(count, kProcs * kCycles);
  EXPECT_EQ(sem_value(), 1);
  EXPECT_EQ(lock_takeovers(Lock), 0u);
  result(std::to_string(count) + " increments exact, lock free, " + std::to_string(took) + " ms");
}

// 16 processes x 10,000 mixed requests while another process resets and
// enters new files: every answer is the right path or not found, nothing
// hangs or crashes, and the queue's counters add up to the posts made.
std::atomic<long> g_posts{0};
// The tap sees every line a process logs, and also the directory search's
// explanations, which go to the tap alone and never into the queue.
void count_post(const char *text) {
  static const char *const kExplained[] = {
      "Found in a database: ", "A database covers it and does not list the name: ",
      "No database covers it; looking on disk: "};
  for (const char *prefix : kExplained)
    if (std::strncmp(text, prefix, std::strlen(prefix)) == 0) return;
  g_posts++;
}

TEST_F(StressTest, MixedRequestsWithResetsAnswerRight) {
  constexpr int kProcs = 16, kRequests = 10000, kMade = 400;
  ASSERT_EQ(ask("tfm", "cmr10"), font("cmr10"));
  const int32_t total0 = header(Word::Msg_Total), warn0 = header(Word::Msg_Warnings),
                type5_0 = header(Word::Msg_Type5), resets0 = header(Word::Reset_Count);
  QDMSetMessageTap(count_post);
  g_posts = 0;  // children start from here; this process posts nothing more meanwhile

  const long t0 = now_ms();
  ForkedList procs;
  for (int i = 0; i < kProcs; ++i) {
    procs.push_back(std::make_unique<Forked>([&, i](Forked &me) {
      std::mt19937 rng(static_cast<unsigned>(i) * 7919u + 1u);
      long wrong = 0, own_posts = 0, type4 = 0, type5 = 0;
      for (int k = 0; k < kRequests; ++k) {
        const unsigned r = rng();
        const std::string f = kFonts[r / 8 % std::size(kFonts)];
        std::string got, want, also = "";
        switch (r % 8) {
          case 0:
          case 1:  // the suffix added by the search
            got = ask("tfm", f);
            want = font(f);
            break;
          case 2:
            got = ask("tfm", f + ".tfm");
            want = font(f);
            break;
          case 3:
            got = ask("tex", "article.cls");
            want = box().path("texmf/tex/latex/article.cls");
            break;
          case 4:
            got = ask("tfm", "absent");
            want = "(null)";
            break;
          case 5:  // a name nobody asked for before
            got = ask("tfm", "p" + std::to_string(i) + "n" + std::to_string(k));
            want = "(null)";
            break;
          case 6: {
            const std::string n = "new" + std::to_string(r / 8 % kMade);
            got = ask("tfm", n);
            want = "(null)";
            also = font(n);  // once the resetter has entered the file
            break;
          }
          default:
            if (r / 8 % 2 == 0) {
              QDMMessage("stress: ", "warning", 4);
              type4++;
            } else {
              QDMMessage("stress: ", "type five", 5);
              type5++;
            }
            own_posts++;
            continue;
        }
        if (got != want && got != also) {
          if (wrong++ < 3) std::fprintf(stderr, "wrong answer %s for %s\n", got.c_str(), want.c_str());
        }
      }
      me.say(std::to_string(wrong) + " " + std::to_string(g_posts + own_posts) + " " +
             std::to_string(type4) + " " + std::to_string(type5));
      return 0;
    }));
  }
  // The resetter: enters new files and resets until the others are done.
  Forked resetter([&](Forked &me) {
    int k = 0, resets = 0;
    while (true) {
      if (k < kMade) {
        const std::string rel = "texmf/fonts/tfm/new" + std::to_string(k) + ".tfm";
        box().write(rel, "x");
        std::string path = box().path(rel);
        QDMNewFile(path.data());
        ++k;
      }
      if (k % 4 == 0) {
        QDMFind(const_cast<char *>("!Finish"));
        ++resets;
      }
      usleep(2000);
      if (access(box().path("done").c_str(), F_OK) == 0) break;
    }
    me.say(std::to_string(g_posts.load()) + " " + std::to_string(resets) + " " + std::to_string(k));
    return 0;
  });

  long wrong = 0, posts = 0, type4 = 0, type5 = 0;
  for (auto &p : procs) {
    const std::string line = p->read_line(240 * 1000);
    ASSERT_FALSE(line.empty()) << "a requester hung";
    long w, n, t4, t5;
    ASSERT_EQ(std::sscanf(line.c_str(), "%ld %ld %ld %ld", &w, &n, &t4, &t5), 4);
    wrong += w;
    posts += n;
    type4 += t4;
    type5 += t5;
    EXPECT_EQ(p->wait(), 0);
  }
  const long took = now_ms() - t0;
  box().write("done", "");
  long reset_posts = 0, resets = 0, made = 0;
  const std::string line = resetter.read_line(60 * 1000);
  ASSERT_EQ(std::sscanf(line.c_str(), "%ld %ld %ld", &reset_posts, &resets, &made), 3);
  EXPECT_EQ(resetter.wait(), 0);
  QDMSetMessageTap(nullptr);

  EXPECT_EQ(wrong, 0);
  EXPECT_GT(resets, 0);
  EXPECT_EQ(header(Word::Msg_Total) - total0, posts + reset_posts);
  EXPECT_EQ(header(Word::Msg_Warnings) - warn0, type4);
  EXPECT_EQ(header(Word::Msg_Type5) - type5_0, type5);
  EXPECT_EQ(header(Word::Reset_Count) - resets0, resets);
  EXPECT_EQ(sem_value(), 1);
  EXPECT_EQ(lock_takeovers(Lock), 0u);
  result(std::to_string(kProcs * kRequests) + " requests in " + std::to_string(took) + " ms, " +
         std::to_string(wrong) + " wrong, " + std::to_string(resets) + " resets, " +
         std::to_string(made) + " new files, " + std::to_string(posts + reset_posts) +
         " posts counted = Msg_Total delta");
}

// The holder dies at each point of interest. Forked processes waiting in a
// request and programs waiting in their attach all go on within 2 s of the
// death, exactly one takes over, the region is consistent afterwards.
Forked *g_channel = nullptr;
const char *g_stop_at = nullptr;
// The message tap as a hook: the holder stops (holding the lock) at the
// first line that starts with g_stop_at, and says so.
void stop_here(const char *text) {
  if (g_stop_at == nullptr || std::strncmp(text, g_stop_at, std::strlen(g_stop_at)) != 0) return;
  g_channel->say("inside");
  for (;;) pause();
}

TEST_F(StressTest, HolderKilledAtEachPointOfInterest) {
  const std::string host = box().install_host();
  box().write("texmf/fonts/tfm/brandnew.tfm", "x");
  const std::string brandnew = box().path("texmf/fonts/tfm/brandnew.tfm");
  struct Point {
    const char *name;
    const char *stop_at;  // message prefix, or nullptr: stop after `act`
    void (*act)(const std::string &);
  };
  const Point points[] = {
      {"after taking the lock", nullptr, [](const std::string &) { WaitForSingleObject(Lock, -1); }},
      {"during a reset", "Load DB: ",
       [](const std::string &) { QDMFind(const_cast<char *>("!Finish")); }},
      {"during a cache update", "LRU Insert: ",
       [](const std::string &) {
         Trace_LRU = 1;
         QDMSearch("tfm", "never-asked-before");
       }},
      {"during QDMNewFile", "QDMNewFile: Clearing Requests for: ",
       [](const std::string &file) {
         std::string path = file;
         QDMNewFile(path.data());
       }},
      {"just before giving the lock", nullptr,
       [](const std::string &) {
         WaitForSingleObject(Lock, -1);
         QDMSearch("tfm", "cmbx10");  // a whole request inside, then stop
       }},
  };
  std::string summary;
  for (const Point &pt : points) {
    SCOPED_TRACE(pt.name);
    const unsigned takeovers0 = lock_takeovers(Lock);
    Forked holder([&](Forked &me) {
      g_channel = &me;
      g_stop_at = pt.stop_at;
      QDMSetMessageTap(stop_here);
      pt.act(brandnew);
      if (pt.stop_at == nullptr) me.say("inside");
      for (;;) pause();
      return 0;
    });
    ASSERT_EQ(holder.read_line(), "inside");
    ForkedList waiters;
    for (int i = 0; i < 4; ++i) waiters.push_back(request_waiter());
    std::vector<std::unique_ptr<test::Child>> programs;
    for (int i = 0; i < 2; ++i)
      programs.push_back(std::make_unique<test::Child>(
          std::vector<std::string>{host, "search", "tfm", "cmr10"}, box().env()));
    usleep(300 * 1000);  // everybody inside a wait
    EXPECT_EQ(lock_takeovers(Lock), takeovers0) << "nothing taken over from the live holder";

    const long t0 = now_ms();
    holder.kill_and_wait(SIGKILL);
    long latest = all_ok_by(waiters, t0, t0 + 10000);
    for (auto &p : programs) {
      EXPECT_EQ(p->read_line(), "answer=" + font("cmr10"));
      EXPECT_EQ(p->wait(), 0);
      latest = std::max(latest, now_ms() - t0);
    }
    EXPECT_GE(latest, 0);
    EXPECT_LE(latest, kGoOnWithinMs);
    EXPECT_EQ(lock_takeovers(Lock), takeovers0 + 1) << "exactly one takeover";
    expect_consistent();
    summary += std::string(summary.empty() ? "" : "; ") + pt.name + " " +
               std::to_string(latest) + " ms";
  }
  result("all waiters on within (ms): " + summary + "; 1 takeover each, region consistent");
}

// A holder stopped for three times the deadline is not taken over. The
// waiters run with the orphan deadline cut to 1 s, the longest a waiter
// ever waits before acting on anything, to show that no deadline applies
// to a holder on record.
TEST_F(StressTest, StoppedHolderIsNeverTakenOver) {
  constexpr long kDeadlineMs = 1000;
  Lock->orphan_ms = kDeadlineMs;
  Forked holder([](Forked &me) {
    WaitForSingleObject(Lock, -1);
    me.say("inside");
    me.hear();
    ReleaseMutex(Lock);
    for (;;) pause();
    return 0;
  });
  ASSERT_EQ(holder.read_line(), "inside");
  ForkedList waiters;
  for (int i = 0; i < 4; ++i) waiters.push_back(request_waiter());
  holder.signal(SIGSTOP);
  const long stopped = now_ms();
  for (auto &w : waiters) {
    const long left = stopped + 3 * kDeadlineMs - now_ms();
    EXPECT_EQ(w->read_line(static_cast<int>(std::max(0L, left))), "") << "went on meanwhile";
  }
  const long held = now_ms() - stopped;
  EXPECT_GE(held, 3 * kDeadlineMs);
  EXPECT_EQ(lock_takeovers(Lock), 0u);
  holder.signal(SIGCONT);
  holder.tell("give");
  const long t0 = now_ms();
  EXPECT_GE(all_ok_by(waiters, t0, t0 + 10000), 0);
  EXPECT_EQ(lock_takeovers(Lock), 0u);
  result("stopped " + std::to_string(held) + " ms (3 x " + std::to_string(kDeadlineMs) +
         " ms deadline), 0 takeovers, all waiters on after SIGCONT");
}

TEST_F(StressTest, SixteenWaitersOneDeadHolderOneTakeover) {
  Forked holder([](Forked &me) {
    WaitForSingleObject(Lock, -1);
    me.say("inside");
    for (;;) pause();
    return 0;
  });
  ASSERT_EQ(holder.read_line(), "inside");
  ForkedList waiters;
  for (int i = 0; i < 16; ++i) waiters.push_back(request_waiter());
  usleep(300 * 1000);
  const long t0 = now_ms();
  holder.kill_and_wait(SIGKILL);
  const long latest = all_ok_by(waiters, t0, t0 + 10000);
  EXPECT_GE(latest, 0);
  EXPECT_LE(latest, kGoOnWithinMs);
  EXPECT_EQ(lock_takeovers(Lock), 1u);
  int logged = 0;
  {
    char *texts[kMsgMax];
    const int n = QDMGetMessages(texts, kMsgMax);
    for (int i = 0; i < n; ++i) logged += std::strstr(texts[i], "cache lock taken over") != nullptr;
  }
  EXPECT_EQ(logged, 1);
  expect_consistent();
  result("16 waiters on within " + std::to_string(latest) + " ms, " +
         std::to_string(lock_takeovers(Lock)) + " takeover, " + std::to_string(logged) +
         " takeover logged");
}

// A process dies between its take of the semaphore and its record: the
// waiters adopt the take after the orphan deadline (cut to 1 s here), no
// earlier, exactly one of them.
TEST_F(StressTest, DeathBetweenTakeAndRecordIsBounded) {
  constexpr long kDeadlineMs = 1000;
  Lock->orphan_ms = kDeadlineMs;
  Forked raw([](Forked &me) {
    if (sem_trywait(Lock->sem) != 0) return 1;
    me.say("inside");
    return 0;
  });
  ASSERT_EQ(raw.read_line(), "inside");
  const long t0 = now_ms();
  EXPECT_EQ(raw.wait(), 0);
  ForkedList waiters;
  for (int i = 0; i < 8; ++i) waiters.push_back(request_waiter());
  const long latest = all_ok_by(waiters, t0, t0 + kDeadlineMs + 10000);
  EXPECT_GE(latest, kDeadlineMs);
  EXPECT_LE(latest, kDeadlineMs + kGoOnWithinMs);
  EXPECT_EQ(lock_takeovers(Lock), 1u);
  expect_consistent();
  result("8 waiters on after " + std::to_string(latest) + " ms (deadline " +
         std::to_string(kDeadlineMs) + " ms), 1 adoption");
}

// The download lock the same way, with its own longer watch.
TEST_F(StressTest, DownloadLockHolderKilledDuringAMakeRun) {
  const std::string name = box().download_lock_name();
  auto open_download = [name] {
    QDMLock *l = CreateMutex(nullptr, 0, name.c_str());
    set_lock_timing(l, kDownloadLockTiming);
    return l;
  };
  QDMLock *mine = open_download();
  Forked holder([&](Forked &me) {
    WaitForSingleObject(mine, -1);
    me.say("inside");
    for (;;) pause();
    return 0;
  });
  ASSERT_EQ(holder.read_line(), "inside");
  ForkedList waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.push_back(std::make_unique<Forked>([&](Forked &me) {
      me.say("waiting");
      QDMLock *l = open_download();
      WaitForSingleObject(l, -1);
      usleep(20 * 1000);  // a short make run
      ReleaseMutex(l);
      me.say("ok");
      return 0;
    }));
    EXPECT_EQ(waiters.back()->read_line(), "waiting");
  }
  usleep(300 * 1000);
  const long t0 = now_ms();
  holder.kill_and_wait(SIGKILL);
  const long latest = all_ok_by(waiters, t0, t0 + 10000);
  EXPECT_GE(latest, 0);
  EXPECT_LE(latest, kGoOnWithinMs);
  EXPECT_EQ(lock_takeovers(mine), 1u);
  int v = -1;
  sem_getvalue(mine->sem, &v);
  EXPECT_EQ(v, 1);
  mtx_close(mine);
  result("4 make runs on within " + std::to_string(latest) + " ms, 1 takeover, lock free");
}

}  // namespace
}  // namespace trv
