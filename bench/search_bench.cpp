// Benchmarks of search requests against the shared answer cache: a hot
// cached hit and a cached miss through QDMSearch, and lookups of names at
// the cold end of answer caches of 20 to 100,000 names.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "core/lock.h"
#include "support/sandbox.h"
#include "trovalis.h"

// Every operator new of the process is counted, so that a benchmark can
// show how many allocations one request makes (the cached paths make none).
std::atomic<long> g_allocations{0};

void *operator new(size_t n) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void *p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
// The replaced new allocates with malloc, so free is the matching release;
// g++ cannot see that the two replacements belong together.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, size_t) noexcept { std::free(p); }

namespace {

using trv::test::AttachedTest;

// Runs the loop and reports the allocations per request as a counter.
template <class F>
void measure(benchmark::State &state, F &&request) {
  const long before = g_allocations.load();
  for (auto _ : state) benchmark::DoNotOptimize(request());
  state.counters["allocs/req"] = benchmark::Counter(
      static_cast<double>(g_allocations.load() - before) / static_cast<double>(state.iterations()));
}

constexpr const char *kIni =
    "[QDM]\nls-R=$SELFAUTOPARENT/texmf\ntfm=$SELFAUTOPARENT/texmf/fonts//+.tfm\n";

struct Fixture {
  explicit Fixture(int names) {
    std::string lsr = "./fonts/tfm:\ncmr10.tfm\n";
    for (int i = 0; i < names; ++i) {
      // Appended piece by piece: g++ 12 at -O3 warns falsely about "a" + s + "b".
      std::string name = "f";
      name += std::to_string(i);
      name += ".tfm";
      all.push_back(name);
      lsr += all.back() + "\n";
      attached.box.write("texmf/fonts/tfm/" + all.back(), "x");
    }
    attached.box.write("texmf/ls-R", lsr);
    attached.box.write("texmf/fonts/tfm/cmr10.tfm", "x");
    trv::CacheGuard g;
    QDMReset();
  }
  AttachedTest attached{kIni};
  std::vector<std::string> all;
};

void BM_CachedHit(benchmark::State &state) {
  Fixture f(0);
  if (QDMSearch("tfm", "cmr10") == nullptr) state.SkipWithError("cmr10 not found");
  measure(state, [] { return QDMSearch("tfm", "cmr10"); });
}
BENCHMARK(BM_CachedHit);

void BM_CachedMiss(benchmark::State &state) {
  Fixture f(0);
  if (QDMSearch("tfm", "absent") != nullptr) state.SkipWithError("absent was found");
  measure(state, [] { return QDMSearch("tfm", "absent"); });
}
BENCHMARK(BM_CachedMiss);

// Every name of the cache asked for in turn: the move-to-front list then
// always holds the next name at its far end, where a walk would reach it
// last; the index finds it at once. One tree per cache size, made once for
// all repetitions.
void BM_DeepLookup(benchmark::State &state) {
  static std::unique_ptr<Fixture> f;
  if (f == nullptr || f->all.size() != static_cast<size_t>(state.range(0))) {
    f.reset();
    f = std::make_unique<Fixture>(static_cast<int>(state.range(0)));
    // Twice: a cache that outgrows the region is moved to a larger one,
    // which starts empty.
    for (int pass = 0; pass < 2; ++pass)
      for (const std::string &n : f->all)
        if (QDMSearch("tfm", n.c_str()) == nullptr) state.SkipWithError("a name was not found");
  }
  size_t i = 0;
  measure(state, [&] {
    const char *r = QDMSearch("tfm", f->all[i].c_str());
    if (++i == f->all.size()) i = 0;
    return r;
  });
}
BENCHMARK(BM_DeepLookup)->Arg(20)->Arg(1000)->Arg(20000)->Arg(100000);

}  // namespace
