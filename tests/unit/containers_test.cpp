// Hash tables, LRU lists and text lists in the arena.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/containers.h"
#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

class ContainersTest : public ::testing::Test {
 protected:
  test::AttachedTest attached;
  CacheGuard guard;
};

TEST(HashIndex, MatchesTheDocumentedFunction) {
  struct Case {
    const char *key;
    uint32_t buckets;
    uint32_t expected;
  } cases[] = {
      {"abc", 711, 459},  // 2 * (2 * 65 + 66) + 67
      {"ABC", 711, 459},  // case does not change the bucket
      {"", 711, 0},
      {"anything", 1, 0},
      // A byte above 127 counts as negative: 2*65 + (-23) = 107.
      {"A\xE9", 711, 107},
      // Reduction happens after every byte: ((2*90 + 90) % 100) = 70.
      {"ZZ", 100, 70},
  };
  for (const Case &c : cases) EXPECT_EQ(hash_index(c.key, c.buckets), c.expected) << c.key;
}

TEST_F(ContainersTest, InsertAppendsAndRevertShadows) {
  const int t = hash_create(711);
  hash_insert(t, "A", 5);
  hash_insert(t, "a", 7);
  EXPECT_EQ(hash_lookup(t, "A"), 5);
  EXPECT_EQ(hash_lookup(t, "a"), 5);
  hash_insert_revert(t, "a", 9);
  EXPECT_EQ(hash_lookup(t, "A"), 9);
  EXPECT_EQ(hash_lookup(t, "missing"), 0);
}

TEST_F(ContainersTest, SingleBucketChainsEverything) {
  const int t = hash_create(1);
  const std::vector<std::string> keys = {"one", "two", "three", "four"};
  for (size_t i = 0; i < keys.size(); ++i) hash_insert(t, keys[i].c_str(), static_cast<int>(i) + 10);
  for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(hash_lookup(t, keys[i].c_str()), static_cast<int>(i) + 10);
  // All four entries hang off bucket 0, in insertion order.
  std::vector<std::string> chain;
  walk_chain(hash_bucket_head(t, 0), [&](int32_t e) {
    chain.emplace_back(entry_key(e));
    return true;
  });
  EXPECT_EQ(chain, keys);
}

std::vector<std::string> lru_keys(int list) {
  std::vector<std::string> out;
  for (char *e = lru_head(list); e != nullptr; e = next_key(e)) out.emplace_back(e + 8);
  return out;
}

int lru_count(int list) { return loadi(at(list, 8) + 4); }

TEST_F(ContainersTest, LruLookupMovesToFront) {
  const int l = lru_create("[root]");
  lru_insert(l, "c", 3);
  lru_insert(l, "b", 2);
  lru_insert(l, "a", 1);
  EXPECT_EQ(lru_keys(l), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(lru_lookup(l, "C"), 3);
  EXPECT_EQ(lru_keys(l), (std::vector<std::string>{"c", "a", "b"}));
  EXPECT_EQ(lru_lookup(l, "nothing"), 0);
  EXPECT_EQ(lru_keys(l), (std::vector<std::string>{"c", "a", "b"}));
}

TEST_F(ContainersTest, LruInsertComparesOnlyTheFirstEntry) {
  const int l = lru_create("list");
  lru_insert(l, "x", 1);
  lru_insert(l, "y", 2);
  EXPECT_EQ(lru_count(l), 2);
  lru_insert(l, "Y", 5);  // first entry: changed in place
  EXPECT_EQ(lru_count(l), 2);
  EXPECT_EQ(lru_lookup(l, "y"), 5);
  lru_insert(l, "x", 9);  // deeper in the list: a new, shadowing entry
  EXPECT_EQ(lru_count(l), 3);
  EXPECT_EQ(lru_lookup(l, "x"), 9);
}

TEST_F(ContainersTest, LruTraceLines) {
  Trace_LRU = 1;
  const int l = lru_create("fonts");
  lru_lookup(l, "cmr10");
  lru_insert(l, "cmr10", 42);
  lru_lookup(l, "cmr10");
  Trace_LRU = 0;
  char *texts[3];
  ASSERT_EQ(QDMGetMessages(texts, 3), 3);
  EXPECT_STREQ(texts[2], "QDM-prog: LRU Lookup: (fonts)cmr10 -> NONE");
  EXPECT_STREQ(texts[1], "QDM-prog: LRU Insert: (fonts)cmr10 -> 42");
  EXPECT_STREQ(texts[0], "QDM-prog: LRU Lookup: (fonts)cmr10 -> 42");
}

TEST_F(ContainersTest, ListAppendKeepsOrder) {
  const int first = list_append(0, "one", 1);
  EXPECT_GT(first, 0);
  EXPECT_EQ(list_append(first, "two", 2), first);
  EXPECT_EQ(list_append(first, "three", 3), first);
  std::vector<std::string> got;
  for (char *e = at(first, 8); e != nullptr; e = next_key(e)) got.emplace_back(e + 8);
  EXPECT_EQ(got, (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(ContainersTest, ExhaustedArenaWritesNothing) {
  const int t = hash_create(7);
  hash_insert(t, "kept", 1);
  const int used = hdr(Word::Mem_Used);
  // Leave only a few bytes between the arena and the pool.
  set_hdr(Word::Pool_Low, used + 10);
  hash_insert(t, "a-key-too-long-to-fit", 2);
  hash_insert_revert(t, "another-long-key", 3);
  EXPECT_EQ(lru_create("a-name-too-long-to-fit"), -1);
  EXPECT_EQ(list_append(0, "a-text-too-long-to-fit", 1), 0);
  EXPECT_EQ(hdr(Word::Mem_Used), used);
  EXPECT_EQ(hash_lookup(t, "kept"), 1);
  EXPECT_EQ(hash_lookup(t, "a-key-too-long-to-fit"), 0);
  QDMClearPool();
}

TEST_F(ContainersTest, DamagedLinksAreNeverFollowed) {
  const int t = hash_create(1);
  hash_insert(t, "a", 1);
  hash_insert(t, "b", 2);
  const int32_t head = hash_bucket_head(t, 0);
  // Point the second entry back at the first: a cycle.
  storei(at(entry_next(head), 4), head);
  EXPECT_EQ(hash_lookup(t, "missing"), 0);  // bounded walk, no hang
  // A link far outside the region.
  storei(at(head, 4), 0x7FFFFFF0);
  EXPECT_EQ(hash_lookup(t, "b"), 0);
  EXPECT_EQ(hash_lookup(t, "a"), 1);
  int32_t word = 0x7FFFFFF0;
  EXPECT_EQ(next_str(&word), nullptr);
  EXPECT_EQ(lru_lookup(0x7FFFFFF0, "x"), 0);
  EXPECT_EQ(hash_lookup(-5, "x"), 0);
}

}  // namespace
}  // namespace trv
