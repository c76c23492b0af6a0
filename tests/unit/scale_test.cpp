// Full-size trees: a search in a full arena, and the region replaced by a
// larger one while other processes answer from it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

std::string g_log;
void tap(const char *text) { g_log.append(text).append("|"); }

off_t object_size(const std::string &name) {
  struct stat st {};
  const int fd = shm_open(name.c_str(), O_RDONLY, 0);
  const bool ok = fd >= 0 && fstat(fd, &st) == 0;
  if (fd >= 0) close(fd);
  return ok ? st.st_size : -1;
}

// With no room left, a search is still answered (from the cache, the
// database, then the disk), logs the exhaustion line, caches nothing and
// writes nothing past the arena; full is not damage. With the size fixed
// the region stays full until a reset; otherwise the next search replaces
// it by one of twice the size, and caching resumes.
TEST(FullRegion, SearchesWithoutCaching) {
  for (const bool fixed : {true, false}) {
    test::ScopedEnv size("TROVALIS_MAP_SIZE", fixed ? "8000000" : nullptr);
    test::AttachedTest env("[QDM]\nls-R=$SELFAUTOPARENT/texmf\ntfm=$SELFAUTOPARENT/texmf//;$SELFAUTOPARENT/disk+.tfm\n");
    env.box.write("texmf/ls-R", "./fonts:\ncmr10.tfm\n");
    env.box.write("texmf/fonts/cmr10.tfm", "x");
    env.box.write("disk/a.tfm", "x");
    { CacheGuard g; QDMReset(); }
    QDMSetMessageTap(tap);
    QDMSearch("tfm", "cmr10");
    ASSERT_EQ(QDMAddToPool("Pooled Font"), 11);
    const int32_t low = hdr(Word::Pool_Low);
    const std::string top(at(low, 1), static_cast<size_t>(data_bytes() - low));
    const uint32_t damage = damage_seen();
    { CacheGuard g; salloc(low - hdr(Word::Mem_Used) - 1); }
    const int used = hdr(Word::Mem_Used);
    g_log.clear();
    for (const char *name : {"cmr10", "a", "cmr10"}) {
      const char *got = QDMSearch("tfm", name);
      EXPECT_EQ(std::string(got ? got : "(null)"), env.box.path(name[0] == 'a' ? "disk/a.tfm" : "texmf/fonts/cmr10.tfm"));
    }
    EXPECT_THAT(g_log, ::testing::HasSubstr("ERROR: too few shared memmory, extend it.|"));
    EXPECT_EQ(hdr(Word::Mem_Used) == used, fixed);
    EXPECT_EQ(object_size(env.box.region_name()), fixed ? 8000000 : 16000000);
    EXPECT_TRUE(!fixed || std::string(at(low, 1), top.size()) == top);
    EXPECT_EQ(damage_seen(), damage);
    if (fixed) { CacheGuard g; QDMReset(); }
    QDMSearch("tfm", "a");
    g_log.clear();
    QDMSearch("tfm", "a");
    EXPECT_EQ(g_log, "") << "answered from the cache";
    QDMSetMessageTap(nullptr);
    EXPECT_EQ(check_region().fault, Fault::None) << check_region().what;
  }
}

// A tree without ls-R is walked once for a batch and then checked directory
// by directory; a file or a directory that appears later is still found.
TEST(WalkMemo, SeesWhatChanges) {
  test::AttachedTest env("[QDM]\ntex=$SELFAUTOPARENT/disk//+.sty\n");
  env.box.write("disk/a/b/old.sty", "x");
  const timespec past[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
  for (const char *d : {"disk", "disk/a", "disk/a/b"}) utimensat(AT_FDCWD, env.box.path(d).c_str(), past, 0);
  const auto ask = [&](const char *name) { const char *r = QDMSearch("*tex", name); return std::string(r ? r : ""); };
  for (const char *name : {"none", "old", "none"}) EXPECT_EQ(ask(name), name[0] == 'o' ? env.box.path("disk/a/b/old.sty") : "");
  env.box.write("disk/a/b/new.sty", "x");  // in a directory the walk knows
  env.box.write("disk/a/c/newer.sty", "x");  // in a directory it does not
  EXPECT_EQ(ask("new") + ask("newer"), env.box.path("disk/a/b/new.sty") + env.box.path("disk/a/c/newer.sty"));
}

// Processes that search without pause while the trees grow twice past what
// the region holds: each growth replaces the region by a larger object, and
// the searching processes move to it at their next take of the lock. Every
// answer of the first two is found (a process reading unmapped memory would
// die). The third also asks for "hidden", which is on disk but in no ls-R:
// never found, since the old region, reset without its databases before
// the replacement, would have sent the search to the disk. The message log
// comes along.
TEST(RegionReplacement, UnderSearchingProcesses) {
  test::Sandbox box("[QDM]\nls-R=$SELFAUTOPARENT/texmf\ntfm=$SELFAUTOPARENT/texmf//+.tfm\n");
  const std::string host = box.install_host();
  for (const char *f : {"texmf/fonts/cmr10.tfm", "texmf/fonts/cmbx10.tfm", "texmf/fonts/hidden.tfm"}) box.write(f, "x");
  const auto grow_tree = [&](int names) {
    std::string lsr = "./fonts:\ncmr10.tfm\ncmbx10.tfm\n./many:\n";
    for (int i = 0; i < names; ++i) lsr += "f" + std::to_string(i) + ".tfm\n";
    box.write("texmf/ls-R", lsr);
  };
  grow_tree(0);
  ASSERT_EQ(test::run({host, "post", "kept", "1", "search", "tfm", "cmr10"}, box.env()).status, 0);
  ASSERT_EQ(object_size(box.region_name()), 8000000);
  std::vector<std::unique_ptr<test::Child>> hammers;
  for (const char *second : {"cmbx10", "cmbx10", "hidden"})
    hammers.push_back(std::make_unique<test::Child>(
        std::vector<std::string>{host, "hammer", "4", "tfm", "cmr10", second}, box.env()));
  off_t sizes[2] = {};
  for (const int names : {400000, 1200000}) {
    usleep(500000);
    grow_tree(names);
    // The next process to attach notices the new ls-R and resets.
    EXPECT_EQ(test::run({host, "search", "tfm", "cmbx10"}, box.env()).status, 0);
    sizes[names > 400000] = object_size(box.region_name());
  }
  EXPECT_TRUE(sizes[0] > 8000000 && sizes[1] > sizes[0]) << sizes[0] << " " << sizes[1];
  for (auto &h : hammers) {
    const std::string line = h->read_line();
    long rounds = 0, found = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "rounds=%ld found=%ld", &rounds, &found), 2) << line;
    EXPECT_TRUE(rounds > 0 && found == (&h != &hammers.back() ? 4 : 2) * rounds) << line;
    EXPECT_EQ(h->wait(), 0);
  }
  const test::RunResult after = test::run({host, "messages", "1024"}, box.env());
  EXPECT_THAT(after.out, ::testing::AllOf(::testing::HasSubstr("kept"),
                                          ::testing::HasSubstr("INFO: The shared memory was replaced by a larger one of ")));
}

}  // namespace
}  // namespace trv
