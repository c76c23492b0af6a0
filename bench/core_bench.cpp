// Benchmarks of the shared-region primitives every search leans on: hash and
// LRU look-ups, allocation, message posts and the cache lock.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace {

using trv::test::AttachedTest;

std::vector<std::string> keys(int n) {
  std::vector<std::string> out;
  for (int i = 0; i < n; ++i) out.push_back("cmr" + std::to_string(i) + ".tfm");
  return out;
}

void BM_HashLookup(benchmark::State &state) {
  AttachedTest t;
  trv::CacheGuard g;
  const int n = static_cast<int>(state.range(0));
  const int table = hash_create(15991);
  const auto k = keys(n);
  for (int i = 0; i < n; ++i) hash_insert(table, k[static_cast<size_t>(i)].c_str(), i + 1);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(hash_lookup(table, k[i].c_str()));
    if (++i == k.size()) i = 0;
  }
}
BENCHMARK(BM_HashLookup)->Arg(1000)->Arg(100000);

void BM_LruLookupHot(benchmark::State &state) {
  AttachedTest t;
  trv::CacheGuard g;
  const int list = lru_create("bench");
  const auto k = keys(static_cast<int>(state.range(0)));
  for (size_t i = 0; i < k.size(); ++i) lru_insert(list, k[i].c_str(), static_cast<int>(i) + 2);
  for (auto _ : state) benchmark::DoNotOptimize(lru_lookup(list, k.back().c_str()));
}
BENCHMARK(BM_LruLookupHot)->Arg(100)->Arg(10000);

void BM_MessagePost(benchmark::State &state) {
  AttachedTest t;
  for (auto _ : state) message("INFO: ", "a line of the shared log");
}
BENCHMARK(BM_MessagePost);

void BM_LockTakeGive(benchmark::State &state) {
  AttachedTest t;
  for (auto _ : state) {
    trv::CacheGuard g;
  }
}
BENCHMARK(BM_LockTakeGive);

void BM_Attach(benchmark::State &state) {
  trv::test::Sandbox box;
  trv::test::ScopedEnv home("HOME", box.home().c_str());
  trv::test::ScopedEnv inst("TROVALIS_INSTANCE", box.instance().c_str());
  std::FILE *saved = stderr;  // the attach line is printed every time
  (void)saved;
  for (auto _ : state) {
    trv::test::attach_region(box);
    trv::test::detach_region();
  }
}
BENCHMARK(BM_Attach);

}  // namespace
