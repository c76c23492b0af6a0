// Full-size trees: a search in a full arena, and the region replaced by a
// larger one while other processes answer from it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

std::string g_log;
void tap(const char *text) { g_log.append(text).append("|"); }

// With no room left, a search is still answered (first from the database,
// then from the disk) and caches nothing; a reset makes room and caching
// resumes.
TEST(FullRegion, SearchesWithoutCaching) {
  test::AttachedTest env("[QDM]\nls-R=$SELFAUTOPARENT/texmf\ntfm=$SELFAUTOPARENT/texmf//;$SELFAUTOPARENT/disk+.tfm\n");
  env.box.write("texmf/ls-R", "./fonts:\ncmr10.tfm\n");
  env.box.write("texmf/fonts/cmr10.tfm", "x");
  env.box.write("disk/a.tfm", "x");
  { CacheGuard g; QDMReset(); }
  QDMSetMessageTap(tap);
  {
    CacheGuard g;
    salloc(hdr(Word::Pool_Low) - hdr(Word::Mem_Used) - 1);
  }
  const int used = hdr(Word::Mem_Used);
  for (const char *name : {"cmr10", "a", "cmr10"}) {
    g_log.clear();
    const char *got = QDMSearch("tfm", name);
    EXPECT_EQ(std::string(got ? got : "(null)"), env.box.path(name[0] == 'a' ? "disk/a.tfm" : "texmf/fonts/cmr10.tfm"));
    EXPECT_THAT(g_log, ::testing::HasSubstr("ERROR: too few shared memmory, extend it.|"));
  }
  EXPECT_EQ(hdr(Word::Mem_Used), used);
  { CacheGuard g; QDMReset(); }
  QDMSearch("tfm", "a");
  g_log.clear();
  QDMSearch("tfm", "a");
  EXPECT_EQ(g_log, "") << "answered from the cache";
  QDMSetMessageTap(nullptr);
  EXPECT_EQ(check_region().fault, Fault::None) << check_region().what;
}

}  // namespace
}  // namespace trv
