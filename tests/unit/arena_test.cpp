// The arena: allocation, exhaustion and checked offsets.
#include <gtest/gtest.h>

#include <cstring>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

class ArenaTest : public ::testing::Test {
 protected:
  test::AttachedTest attached;
  CacheGuard guard;

  int messages_posted() { return QDMMsgInfo()[1]; }
};

TEST_F(ArenaTest, AllocationBumpsTheTop) {
  const int used = hdr(Word::Mem_Used);
  EXPECT_EQ(salloc(0), used);
  EXPECT_EQ(hdr(Word::Mem_Used), used);
  EXPECT_EQ(salloc(10), used);
  EXPECT_EQ(stradd("abc"), used + 10);
  EXPECT_STREQ(at(used + 10, 4), "abc");
  const int rec = add_str(0x01020304, "key");
  EXPECT_EQ(rec, used + 14);
  EXPECT_EQ(loadi(at(rec, 4)), 0x01020304);
  EXPECT_STREQ(at(rec + 4, 4), "key");
  EXPECT_EQ(hdr(Word::Mem_Used), used + 14 + 3 + 8);
}

TEST_F(ArenaTest, ExhaustionIsLoggedAndChangesNothing) {
  const int used = hdr(Word::Mem_Used);
  const int low = hdr(Word::Pool_Low);
  const int before = messages_posted();
  EXPECT_EQ(salloc(low - used), -1);  // would make the top equal Pool_Low
  EXPECT_EQ(salloc(low - used + 100), -1);
  EXPECT_EQ(stradd(std::string(static_cast<size_t>(low - used), 'x').c_str()), -1);
  EXPECT_EQ(hdr(Word::Mem_Used), used);
  EXPECT_EQ(messages_posted(), before + 3);  // once per failing request
  char *texts[1];
  QDMGetMessages(texts, 1);
  EXPECT_STREQ(texts[0], "QDM-prog: ERROR: too few shared memmory, extend it.");
  EXPECT_EQ(salloc(low - used - 1), used);  // the largest request that fits
  EXPECT_EQ(salloc(-1), -1);
}

TEST_F(ArenaTest, OffsetsOutsideTheRegionAreNone) {
  const int64_t data = data_bytes();
  struct Case {
    int32_t off;
    int64_t len;
    bool valid;
  } cases[] = {
      {0, 4, true},
      {-1, 1, false},
      {static_cast<int32_t>(data - 1), 1, true},
      {static_cast<int32_t>(data - 1), 2, false},
      {static_cast<int32_t>(data), 1, false},
      {0x7FFFFFFF, 1, false},
  };
  for (const Case &c : cases) EXPECT_EQ(at(c.off, c.len) != nullptr, c.valid) << c.off;
  // A text that runs to the end of the mapping without a NUL is no text.
  std::memset(at(static_cast<int32_t>(data - 8), 8), 'z', 8);
  EXPECT_EQ(text_at(static_cast<int32_t>(data - 8)), nullptr);
  int32_t zero = 0;
  EXPECT_EQ(next_str(&zero), nullptr);
  int32_t mem = static_cast<int32_t>(stradd("x"));
  EXPECT_STREQ(next_str(&mem), "x");
}

TEST_F(ArenaTest, DamagedTopIsNotTrusted) {
  set_hdr(Word::Mem_Used, static_cast<int32_t>(data_bytes() + 100));
  set_hdr(Word::Pool_Low, 0x7FFFFFFF);
  EXPECT_EQ(salloc(4), -1);
  set_hdr(Word::Mem_Used, -50);
  EXPECT_EQ(salloc(4), -1);
}

}  // namespace
}  // namespace trv
