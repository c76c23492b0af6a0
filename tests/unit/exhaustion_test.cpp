// The arena filled to exhaustion: every request that no longer fits is
// refused with the exhaustion line, nothing is written past the arena's
// end, what was cached before stays readable, and a reset makes room again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

constexpr const char *kIni =
    "[QDM]\n"
    "ls-R=$SELFAUTOPARENT/texmf\n"
    "tfm=$SELFAUTOPARENT/texmf//+.tfm\n"
    "tex=$SELFAUTOPARENT/plain+.tex\n";
std::string S(const char *s) { return s ? s : "(null)"; }

constexpr const char *kExhausted = "QDM-prog: ERROR: too few shared memmory, extend it.";

class ExhaustionTest : public ::testing::Test {
 protected:
  ExhaustionTest() {
    attached.box.write("texmf/ls-R", "./:\ncmr10.tfm\n");
    attached.box.write("texmf/cmr10.tfm", "x");
    attached.box.write("plain/plain.tex", "x");
    CacheGuard g;
    QDMReset();
  }
  ~ExhaustionTest() override { Map_Size = View_Len = kDefaultMapSize; }
  std::string p(const std::string &rel) const { return attached.box.path(rel); }
  std::string newest() {
    char *texts[1];
    return QDMGetMessages(texts, 1) == 1 ? texts[0] : "";
  }

  // The smallest region there is, so that filling it is quick.
  test::ScopedEnv size_{"TROVALIS_MAP_SIZE", "1048576"};
  test::AttachedTest attached{kIni};
};

TEST_F(ExhaustionTest, FullArenaRefusesCleanlyAndKeepsWhatItHolds) {
  ASSERT_EQ(View_Len, 1048576);
  const std::string cmr10 = p("texmf/cmr10.tfm");
  ASSERT_EQ(S(QDMSearch("tfm", "cmr10")), cmr10);
  QDMSetValue("memory", "EARLY", "kept");
  ASSERT_EQ(QDMAddToPool("Pooled Font"), 11);
  // A type whose record exists before the arena fills (a type first asked
  // for when it is full has no record to search with).
  EXPECT_EQ(QDMSearch("tex", "other"), nullptr);
  // Everything from the pool's low end to the end of the mapping.
  const int32_t low = hdr(Word::Pool_Low);
  const std::vector<char> top(at(low, data_bytes() - low), at(low, data_bytes() - low) + data_bytes() - low);
  const uint32_t damage = damage_seen();

  // Cached misses until the arena stops growing. Long names fill it in few
  // entries (an answer cache is a list, searched from its front).
  const std::string padding(150, 'p');
  int searches = 0, still = 0;
  for (int32_t before = -1; still < 20 && searches < 200000; ++searches) {
    before = hdr(Word::Mem_Used);
    EXPECT_EQ(QDMSearch("tfm", (padding + std::to_string(searches)).c_str()), nullptr);
    still = hdr(Word::Mem_Used) == before ? still + 1 : 0;
  }
  RecordProperty("searches_to_fill", searches);
  ASSERT_LT(searches, 200000);
  EXPECT_EQ(newest(), kExhausted);
  EXPECT_LT(hdr(Word::Mem_Used), hdr(Word::Pool_Low));
  EXPECT_GT(hdr(Word::Mem_Used), hdr(Word::Pool_Low) - 64);  // really full
  EXPECT_EQ(std::memcmp(top.data(), at(low, data_bytes() - low), top.size()), 0);

  // What was there before is still answered, and so is a search that can no
  // longer be cached.
  EXPECT_EQ(S(QDMSearch("tfm", "cmr10")), cmr10);
  EXPECT_STREQ(QDMValue("memory", "EARLY"), "kept");
  EXPECT_EQ(QDMSearch("tfm", (padding + "0").c_str()), nullptr);
  EXPECT_EQ(S(QDMSearch("tex", "plain")), p("plain/plain.tex"));
  EXPECT_STREQ(QDMFind("<tex>plain"), p("plain/plain.tex").c_str());
  EXPECT_EQ(QDMAddToPool(std::string(100, 'f').c_str()), 0);
  EXPECT_EQ(newest(), kExhausted);
  EXPECT_STREQ(QDMGetPool(), "Pooled Font");

  // Full is not damaged: nothing was noted, nothing rebuilt.
  EXPECT_EQ(damage_seen(), damage);
  EXPECT_EQ(check_region().fault, Fault::None) << check_region().what;

  // A reset gives the arena back.
  EXPECT_STREQ(QDMFind("!Finish"), "[QDM is Finished NOW]");
  const int32_t after_reset = hdr(Word::Mem_Used);
  EXPECT_EQ(QDMSearch("tfm", "miss1"), nullptr);
  EXPECT_GT(hdr(Word::Mem_Used), after_reset);
  EXPECT_EQ(S(QDMSearch("tfm", "cmr10")), cmr10);
}

}  // namespace
}  // namespace trv
