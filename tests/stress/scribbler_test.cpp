// A writer scribbles random words into the shared arena while reader
// processes run every reading export: no reader crashes or hangs, and the
// region serves again once the scribbling stops. TROVALIS_STRESS_SECONDS
// sets how long (3 seconds unless told; CI gives it a minute under the
// sanitizers).
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/region.h"
#include "support/sandbox.h"

namespace trv {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

int stress_seconds() {
  const char *s = std::getenv("TROVALIS_STRESS_SECONDS");
  const int n = s ? std::atoi(s) : 0;
  return n > 0 ? n : 3;
}

// Kills the readers that outlive their time by `grace`: a hang then fails the
// test with a status instead of holding CTest until its own time limit.
class Watchdog {
 public:
  Watchdog(std::vector<pid_t> pids, std::chrono::seconds limit)
      : thread_([this, pids, limit] {
          std::unique_lock<std::mutex> lock(mutex_);
          if (!done_cv_.wait_for(lock, limit, [this] { return done_; }))
            for (pid_t p : pids) kill(p, SIGKILL);
        }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    done_cv_.notify_all();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_cv_;
  bool done_ = false;
  std::thread thread_;
};

TEST(Scribbler, ReadersSurviveRandomWordsInTheArena) {
  const int seconds = stress_seconds();
  test::Sandbox box(
      "[common]\nTEXMF={$SELFAUTOPARENT/texmf}\n"
      "[QDM]\nls-R=$TEXMF\ntfm=$TEXMF/fonts//+.tfm\ntex=$TEXMF/tex//+.tex\n");
  box.write("texmf/ls-R", "% ls-R\n./fonts/cm:\ncmr10.tfm\ncmbx10.tfm\n./tex/plain:\nplain.tex\n");
  box.write("texmf/aliases", "cmr10.tfm roman.tfm\n");
  box.write("texmf/fonts/cm/cmr10.tfm", "x");
  box.write("texmf/fonts/cm/cmbx10.tfm", "x");
  box.write("texmf/tex/plain/plain.tex", "x");
  const std::string host = box.install_host();
  const test::RunResult first = test::run({host, "register", "main", "7", "search", "tfm", "cmr10"}, box.env());
  ASSERT_EQ(first.status, 0) << first.err;

  const int fd = shm_open(box.region_name().c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  char *base = static_cast<char *>(mmap(nullptr, kDefaultMapSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  close(fd);
  ASSERT_NE(base, MAP_FAILED);

  std::vector<std::unique_ptr<test::Child>> readers;
  std::vector<pid_t> pids;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(std::make_unique<test::Child>(
        std::vector<std::string>{host, "hammer", std::to_string(seconds), "tfm", "cmr10", "cmbx10",
                                 "roman", "absent"},
        box.env()));
    pids.push_back(readers.back()->pid());
  }
  const Watchdog watchdog(pids, std::chrono::seconds(seconds + 120));

  // Words of every kind a damaged arena holds: anything, offsets that lead
  // somewhere inside it, zeros and small numbers. The header is left alone:
  // attach's check of it is tested elsewhere.
  const unsigned seed = static_cast<unsigned>(std::random_device{}());
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  long words = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) {
    const int32_t used = loadi(base + 4 * static_cast<int>(Word::Mem_Used));
    const int32_t span = used > 8 && used < kDefaultMapSize - kMemMaxSlack ? used : 8;
    for (int k = 0; k < 4; ++k) {
      const uint32_t off = rng() % static_cast<uint32_t>(span - 4);
      uint32_t value = rng();
      switch (value % 4) {
        case 0: value = rng() % static_cast<uint32_t>(span); break;
        case 1: value = 0; break;
        case 2: value = rng() % 64; break;
        default: break;
      }
      store32(base + kHeaderBytes + off, value);
      ++words;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  // Every rebuild counts one configuration reset (a region laid out anew
  // starts from the count it had).
  const int32_t resets = loadi(base + 4 * static_cast<int>(Word::Reset_Count));
  munmap(base, kDefaultMapSize);

  for (auto &r : readers) {
    const std::string line = r->read_line();
    std::printf("reader %d: %s\n", static_cast<int>(r->pid()), line.c_str());
    EXPECT_THAT(line, StartsWith("rounds=")) << "reader " << r->pid();
    EXPECT_EQ(r->wait(), 0) << "reader crashed or hung (killed after its time)";
  }
  RecordProperty("words_scribbled", std::to_string(words));
  std::printf("scribbled %ld words in %d seconds; %d resets\n", words, seconds, resets);

  // With the scribbling over, later processes still run. (Whether their
  // answers are right cannot be promised: a word that turned a path kept in
  // the arena into another text inside it is not damage any check can see.)
  const test::RunResult after =
      test::run({host, "search", "tfm", "cmr10", "request", "!Finish", "search", "tfm", "cmbx10"},
                box.env());
  EXPECT_EQ(after.status, 0) << after.err;
  EXPECT_THAT(after.out, HasSubstr("answer=[QDM is Finished NOW]"));
}

}  // namespace
}  // namespace trv
