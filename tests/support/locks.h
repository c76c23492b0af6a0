// Test harness: a small installation with something in every structure of
// its region, and scenarios of processes that share its cache lock (or its
// download lock): forked processes that work under the lock, programs that
// search (or read everything while this process scribbles over the arena),
// and a holder that stops holding the lock at a point of interest and then
// meets its fate. The ordinary tests run the scenarios small, the stress
// tests large and timed (RELIABILITY.md).
#pragma once

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <random>

#include "core/containers.h"
#include "core/holder.h"
#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "support/forked.h"
#include "support/sandbox.h"

namespace trv::test {

inline const char *const kFonts[] = {"cmr10", "cmbx10", "cmti10", "cmtt10", "cmsy10"};

// What each forked process does, `rounds` times: kIncrement, an increment
// of a word of the image pool that only the cache lock guards, with a
// widened window between its read and its write; kRequests, that and then a
// font (with its suffix in odd rounds), a name never asked, a file it makes
// and enters and asks for (resetting every 50 rounds), and a message of type
// 4 or 5 in turn; kMakeRun, a make run under the download lock.
enum class Work { kIncrement, kRequests, kMakeRun };

class Region;
struct Scenario {
  const char *name;
  int procs, rounds;  // forked processes, and the rounds of their work
  Work what;
  int programs = 0;
  void (*hold)(const Region &) = nullptr;  // what a holder does before it stops
  const char *stop_at = nullptr;           // or where: at the first line it logs that starts so
  // The holder's end: killed by this signal; 0: it gives when told; -1: it
  // ended. `stop` is sent to it while the others wait (and then SIGCONT),
  // who stay out for quiet_ms; orphan_ms 0 is the lock's own deadline.
  int end = 0, stop = 0;
  long quiet_ms = 300, orphan_ms = 0;
  const char *logged = "";  // once, besides a takeover's own line; if it says damage, the only such line
  // adopted: the holder's take was adopted, not taken over from it;
  // scribble: for TROVALIS_STRESS_SECONDS (3 unless told).
  bool adopted = false, scribble = false;
};
inline void PrintTo(const Scenario &s, std::ostream *os) { *os << s.name; }
inline struct { Forked *channel; const char *stop_at; } g_holder;  // in a holder

// Fonts, an ls-R, aliases, a mirror; in the region cached answers and
// misses, values, pooled texts, a frame and a message queue gone round.
//
// Shared: afterwards nobody hung or crashed and every answer was right;
// nobody went on while the holder held the lock, all within 2 s of its death
// (after the orphan deadline, no sooner, where its take was adopted), and
// exactly one took the lock over and logged so once; the region counted
// every increment, post and reset; it is sound, the lock is free, and later
// programs run.
class Region : public ::testing::TestWithParam<Scenario> {
 public:
  Region() {
    std::string lsr = "% ls-R\n./tex:\narticle.cls\n./fonts/tfm:\n";
    for (const std::string f : kFonts) box.write("texmf/fonts/tfm/" + f + ".tfm", ""), lsr += f + ".tfm\n";
    for (const auto &[file, text] : {std::pair<std::string, std::string>("ls-R", lsr), {"tex/article.cls", ""},
                                     {"aliases", "cmr10.tfm roman.tfm\n"}, {"aliases.ini", "[Aliases]\nx=article\n"}})
      box.write("texmf/" + file, text);
    QDMFind("!Finish");
    for (const char *name : {"cmr10", "roman", "absent"}) QDMSearch("tfm", name);
    for (const char *program : {"latex,tex", "prog"}) QDMReady(program), QDMSearch("tex", "article.cls");
    QDMSetValue("memory", "X", "y");
    for (const char *text : {"Font One", "Font Two"}) QDMAddToPool(text);
    RegisterFrame("main", 7);
    for (int i = 0; i < 1100; ++i) QDMMessage("t", "x", 1);
  }
  std::string font(const std::string &name) const { return box.path("texmf/fonts/tfm/" + name + ".tfm"); }
  AttachedTest attached{"[QDM]\nls-R=$SELFAUTOPARENT/texmf\ntfm=$SELFAUTOPARENT/texmf/fonts//+.tfm\n"
                        "tex=$SELFAUTOPARENT/texmf/tex//\n[Mirrors]\n/nowhere/mirror=$SELFAUTOPARENT/local\n"};
  const Sandbox &box = attached.box;
  QDMLock *const download = [](QDMLock *l) { return set_lock_timing(l, kDownloadLockTiming), l; }(
      CreateMutex(nullptr, 0, box.download_lock_name().c_str()));
  QDMLock *lock() const { return GetParam().what == Work::kMakeRun ? download : Lock; }
  std::vector<int32_t> counts() const {  // increments, posts of type 4 and 5, resets
    CacheGuard g;
    return {loadi(at(hdr(Word::Image_Pool), 4)), hdr(Word::Msg_Warnings), hdr(Word::Msg_Type5),
            hdr(Word::Reset_Count)};
  }

  int work() const {
    int wrong = 0;
    const auto ask = [](const std::string &name) { return std::string(QDMSearch("tfm", name.c_str()) ?: ""); };
    for (int k = 0; k < GetParam().rounds; ++k) {
      if (GetParam().what == Work::kMakeRun) {
        WaitForSingleObject(download, -1), usleep(20 * 1000), ReleaseMutex(download);
        continue;
      }
      {
        CacheGuard g;
        const int32_t v = loadi(at(hdr(Word::Image_Pool), 4));
        for (int spin = 0; spin < 50; ++spin) asm volatile("" ::: "memory");
        if (k % 512 == 0) sched_yield();
        storei(at(hdr(Word::Image_Pool), 4), v + 1);
      }
      if (GetParam().what == Work::kIncrement) continue;
      const std::string name = kFonts[k % 5], made = "new" + std::to_string(k % 400);
      wrong += (ask(name + (k % 2 ? ".tfm" : "")) != font(name)) + (ask("never" + std::to_string(k)) != "");
      box.write("texmf/fonts/tfm/" + made + ".tfm", "");
      QDMNewFile(font(made).c_str());
      if (k % 50 == 0) QDMFind("!Finish");
      wrong += ask(made) != "" && ask(made) != font(made);
      QDMMessage("t", "post", 4 + k % 2);
    }
    return wrong;
  }

  void run() {
    const Scenario &c = GetParam();
    lock()->orphan_ms = c.orphan_ms > 0 ? c.orphan_ms : lock()->orphan_ms;
    const std::vector<int32_t> before = counts();
    Forked holder([&](Forked &me) {
      g_holder = {&me, c.stop_at};
      QDMSetMessageTap([](const char *text) {
        if (!g_holder.stop_at || std::strncmp(text, g_holder.stop_at, std::strlen(g_holder.stop_at)) != 0) return;
        for (g_holder.channel->say("in");;) pause();
      });
      if (c.hold) c.hold(*this), me.say("in");
      return c.end >= 0 && c.hold && me.hear() == "give" ? ReleaseMutex(lock()) : 0;
    });
    ASSERT_EQ(c.hold ? holder.read_line() : "in", "in");
    const std::string pid = std::to_string(holder.pid()), host = box.install_host();
    const char *seconds = std::getenv("TROVALIS_STRESS_SECONDS") ?: "3";
    long t0 = now_ms(), latest = 0;
    std::vector<std::unique_ptr<Forked>> procs;
    for (int i = 0; i < c.procs; ++i)
      procs.push_back(std::make_unique<Forked>([&](Forked &me) { return me.say(std::to_string(work())), 0; }));
    std::vector<std::string> argv = {host, "search", "tfm", "cmr10"};
    if (c.scribble) argv = {host, "hammer", seconds, "tfm", "cmr10", "cmbx10", "roman", "absent"};
    std::vector<std::unique_ptr<Child>> programs;
    for (int i = 0; i < c.programs; ++i) programs.push_back(std::make_unique<Child>(argv, box.env()));
    if (c.hold) {
      kill(holder.pid(), c.stop);
      usleep(static_cast<useconds_t>(c.quiet_ms * 1000));
      for (auto &p : procs) EXPECT_EQ(p->read_line(0), "") << "went on while the lock was held";
      kill(holder.pid(), c.stop ? SIGCONT : 0);
      if (c.end == 0) holder.tell("give");
      t0 = c.end >= 0 ? now_ms() : t0;
      EXPECT_EQ(holder.kill_and_wait(std::max(c.end, 0)), c.end > 0 ? 128 + c.end : 0);
    }
    // Words of every kind a damaged arena holds: offsets that lead somewhere
    // inside it, zeros, small numbers and anything.
    const unsigned seed = std::random_device{}();
    std::mt19937 rng(seed);
    long words = 0;
    for (const long end = now_ms() + 1000L * std::atoi(seconds); c.scribble && now_ms() < end; usleep(200)) {
      const uint32_t used = static_cast<uint32_t>(std::max(hdr(Word::Mem_Used), 8));
      for (uint32_t k = 0, r = rng(); k < 4; ++k, ++words, r = rng()) {
        const uint32_t kinds[] = {r % used, 0, r % 64, r};
        store32(at(static_cast<int32_t>(rng() % (used - 4)), 4), kinds[rng() % 4]);
      }
    }
    std::string said;
    for (auto &p : procs) {
      EXPECT_EQ(p->read_line(static_cast<int>(t0 + 250000 - now_ms())), "0") << "wrong answers, or it hung";
      latest = std::max(latest, now_ms() - t0);
    }
    for (auto &p : programs) {
      const std::string line = p->read_line();
      EXPECT_EQ(c.scribble ? line.substr(0, 7) : line, c.scribble ? "rounds=" : "answer=" + font("cmr10"));
      EXPECT_EQ(p->wait(), 0) << "crashed";
      said += " " + line, latest = std::max(latest, now_ms() - t0);
    }
    const unsigned takeovers = c.hold && c.end != 0 ? 1 : 0;
    EXPECT_GE(latest, c.adopted ? lock()->orphan_ms : 0);
    EXPECT_LE(latest, !c.hold ? 240000 : c.adopted ? lock()->orphan_ms + 2000 : 2000);
    EXPECT_EQ(lock_takeovers(lock()), takeovers);
    std::string log;
    char *texts[kMsgMax];
    for (int i = QDMGetMessages(texts, kMsgMax); i-- > 0;) log += std::string(texts[i]) + "\n";
    const auto once = [&](const std::string &s) { return log.find(s) != log.npos && log.find(s) == log.rfind(s); };
    EXPECT_EQ(once(c.what == Work::kMakeRun ? "lock `" + box.download_lock_name() + "' taken over from dead"
                   : c.adopted ? "cache lock taken by no live process"
                               : "cache lock taken over from dead process " + pid + "; rebuilding the cache"),
              takeovers == 1) << log;
    EXPECT_EQ(once(c.logged), *c.logged != '\0');
    EXPECT_TRUE(c.scribble || std::strstr(c.logged, "damaged") || log.find("damaged") == log.npos);
    const std::vector<int32_t> after = counts();
    const int each = c.procs * c.rounds, made[] = {each, each / 2, each / 2, c.procs * ((c.rounds + 49) / 50)};
    for (int i = 0; i < 4 && !c.hold && !c.scribble; ++i)
      EXPECT_EQ(after[i] - before[i], i == 0 || c.what == Work::kRequests ? made[i] : 0) << i;
    EXPECT_EQ(c.scribble ? Fault::None : check_region().fault, Fault::None) << check_region().what;
    const RunResult later = test::run({host, "search", "tfm", "cmr10", "request", "!Finish"}, box.env());
    EXPECT_EQ(later.status, 0) << later.err;
    EXPECT_EQ(later.err, c.scribble ? later.err : "Opened Memory is 'REUSED', size=8000000\n");
    EXPECT_EQ(later.out, c.scribble ? later.out : "answer=" + font("cmr10") + "\nanswer=[QDM is Finished NOW]\n");
    EXPECT_EQ(sem_value(lock()->sem), 1);
    std::printf("RESULT %s: on after %ld ms; %u takeover(s); %d increments, %d + %d posts, %d resets; %ld words "
                "(seed %u);%s\n", c.name, latest, takeovers, after[0] - before[0], after[1] - before[1],
                after[2] - before[2], after[3] - before[3], words, seed, said.c_str());
  }
};

// Holders: each takes the lock its own way, or does what it stops in.
inline void take(const Region &) { WaitForSingleObject(Lock, -1); }
inline void take_leaving_a_child(const Region &r) {  // which lives on, sharing its files
  if (take(r), fork() == 0) _exit(static_cast<int>(g_holder.channel->hear().size()));
}
inline void take_unrecorded(const Region &) { sem_trywait(Lock->sem); }
inline void give_halfway(const Region &r) { take(r), holder_give_begin(Lock->holder); }
inline void cut_a_post_short(const Region &r) {  // after moving the slot table, before storing its head
  take(r), std::memmove(at(hdr(Word::Msg_Table) + 4, 4), at(hdr(Word::Msg_Table), 4), 4 * kMsgMax);
}
inline void leave_a_circle(const Region &r) {  // in the cached answers, for the others to meet
  const int32_t first = (take(r), loadi(at(loadi(FormatPath("prog", "tfm")), 4)));
  storei(at(entry_next(first) + EntryLayout::kNext, 4), first);
}
inline void reset(const Region &) { QDMFind("!Finish"); }
inline void update_the_cache(const Region &) { Trace_LRU = 1, QDMSearch("tfm", "never-asked"); }
inline void enter_a_file(const Region &r) { QDMNewFile(r.font("cmr10").c_str()); }
inline void request_inside(const Region &r) { take(r), QDMSearch("tfm", "cmbx10"); }
inline void take_download(const Region &r) { WaitForSingleObject(r.download, -1); }

}  // namespace trv::test
