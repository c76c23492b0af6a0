// The answer caches' index, checked against the plain move-to-front list:
// the same operations on both must give the same answers and the same order.
#include <gtest/gtest.h>

#include <string>

#include "core/containers.h"
#include "core/lru_index.h"
#include "core/region.h"
#include "core/validate.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

// "key=value " for each entry, front to back.
std::string listing(int list) {
  std::string out;
  for (const char *e = lru_head(list); e != nullptr; e = next_key(e))
    out += std::string(e + EntryLayout::kKey) + "=" + std::to_string(loadi(e + EntryLayout::kValue)) + " ";
  return out;
}

TEST(AnswerIndex, AgreesWithTheListAlone) {
  test::AttachedTest env;
  const int plain = lru_create("tfm"), indexed = lru_create_indexed("tfm");
  enum Op { Insert, Lookup, Forget };  // Forget: look up, then insert 0 (QDMRecycle)
  struct Step { Op op; std::string key; int value; };
  std::vector<Step> steps = {
      {Insert, "a", 11}, {Insert, "B", 12}, {Lookup, "A", 0}, {Lookup, "b", 0}, {Lookup, "zz", 0},
      {Insert, "a", 13},      // "a" is first: changed in place
      {Insert, "b", 14},      // "b" is second: a new entry in front hides the old one
      {Lookup, "B", 0}, {Forget, "a", 0}, {Lookup, "A", 0}, {Insert, "", 2}, {Lookup, "", 0}};
  // Enough names to double the index from 32 slots to 512, looked up
  // from the back of the list, and some forgotten.
  for (int i = 0; i < 200; ++i) steps.push_back({Insert, "n" + std::to_string(i), 100 + i});
  for (int i = 0; i < 200; i += 7) steps.push_back({i % 3 ? Lookup : Forget, "N" + std::to_string(i), 0});
  for (const Step &s : steps) {
    int got[2] = {};
    for (const int list : {plain, indexed}) {
      got[list == indexed] = s.op == Insert ? (lru_insert(list, s.key.c_str(), s.value), 0) : lru_lookup(list, s.key.c_str());
      if (s.op == Forget) lru_insert(list, s.key.c_str(), 0);
    }
    ASSERT_TRUE(got[1] == got[0] && listing(indexed) == listing(plain)) << s.key;
  }
  // The index was used, and grew; the count of entries ever added agrees.
  EXPECT_EQ(loadi(at(loadi(at(indexed, LruHeadLayout::kName) + LruHeadLayout::kIndex), 4)), 512);
  EXPECT_EQ(loadi(at(plain, 8) + 4), loadi(at(indexed, 8) + 4));

  // A damaged prev word is noticed; the look-up walks the list instead and
  // still moves the right entry to the front.
  const uint32_t seen = damage_seen();
  const int32_t second = entry_next(loadi(at(indexed, 4)));
  indexed_set_prev(second, 5);
  EXPECT_EQ(lru_lookup(indexed, entry_key(second)), lru_lookup(plain, entry_key(second)));
  EXPECT_TRUE(listing(indexed) == listing(plain) && damage_seen() == seen + 1);
  forget_damage();
}

}  // namespace
}  // namespace trv
