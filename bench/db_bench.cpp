// Benchmarks of the file databases at the size of a full TeX distribution:
// loading an ls-R of about 130,000 files at a reset, looking names up, and
// walking a tree on disk.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace {

using trv::test::AttachedTest;

constexpr const char *kIni = "[common]\nTEXMF={$SELFAUTOPARENT/texmf}\n[QDM]\nls-R=$TEXMF\n";

// Small deterministic generator, so every run loads the same tree.
struct Rng {
  uint64_t s = 0x9E3779B97F4A7C15ull;
  uint32_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return static_cast<uint32_t>(s >> 11);
  }
  uint32_t below(uint32_t n) { return next() % n; }
};

// A tree description shaped like a distribution's: areas such as
// fonts/tfm/public/<package> or tex/latex/<package>, package names built
// from syllables, and files named after their package with the area's
// extensions. About 6,000 directories and 130,000 files.
struct Tree {
  std::string ls_r;
  std::vector<std::string> present;  // names listed, spread over the tree
  int dirs = 0, files = 0;
};

Tree make_tree(int target_files) {
  static const char *syll[] = {"ams", "cm", "lat", "ex", "bib", "pst", "tik", "z", "font",
                               "spot", "graph", "xy", "babel", "hyph", "ut", "ptm", "phv",
                               "lm", "tx", "geo", "beam", "er", "koma", "memo", "list"};
  static const struct {
    const char *dir, *ext;
    int per_dir;
  } areas[] = {
      {"fonts/tfm/public", ".tfm", 54}, {"fonts/type1/public", ".pfb", 40},
      {"fonts/vf/public", ".vf", 27},   {"fonts/afm/public", ".afm", 34},
      {"fonts/enc/dvips", ".enc", 8},   {"fonts/map/dvips", ".map", 4},
      {"tex/latex", ".sty", 16},        {"tex/generic", ".tex", 11},
      {"doc/latex", ".pdf", 7},         {"source/latex", ".dtx", 8},
      {"fonts/opentype/public", ".otf", 20},
  };
  Rng rng;
  Tree t;
  t.ls_r = "% ls-R -- filename database.\n% Created by the benchmark.\n\n./:\nls-R\n";
  while (t.files < target_files) {
    const auto &area = areas[rng.below(sizeof areas / sizeof areas[0])];
    std::string pkg = std::string(syll[rng.below(25)]) + syll[rng.below(25)] +
                      std::to_string(t.dirs);
    t.ls_r += "\n./" + std::string(area.dir) + "/" + pkg + ":\n";
    ++t.dirs;
    const int n = 1 + static_cast<int>(rng.below(static_cast<uint32_t>(2 * area.per_dir)));
    for (int i = 0; i < n; ++i) {
      std::string name = pkg + (i % 3 ? "-" : "") + syll[rng.below(25)] +
                         std::to_string(rng.below(100)) + area.ext;
      t.ls_r += name + "\n";
      ++t.files;
      if (rng.below(997) == 0) t.present.push_back(name);
    }
  }
  return t;
}

struct Loaded {
  AttachedTest attached{kIni};
  Tree tree = make_tree(130000);
  Loaded() {
    std::filesystem::create_directories(attached.box.path("texmf"));
    std::ofstream(attached.box.path("texmf/ls-R")) << tree.ls_r;
    trv::CacheGuard g;
    QDMReset();
  }
};

void BM_ResetLoadsLsR(benchmark::State &state) {
  Loaded l;
  trv::CacheGuard g;
  for (auto _ : state) QDMReset();
  // Arena taken by the database: entries and directory strings, net of the
  // fixed table of 15991 buckets.
  const int32_t mark = trv::hdr(trv::Word::Mem_Mark);
  int32_t before = 0;
  {
    // A reset without the ls-R measures everything but the entries.
    std::filesystem::rename(l.attached.box.path("texmf/ls-R"), l.attached.box.path("texmf/x"));
    QDMReset();
    before = trv::hdr(trv::Word::Mem_Used) - mark;
    std::filesystem::rename(l.attached.box.path("texmf/x"), l.attached.box.path("texmf/ls-R"));
    QDMReset();
  }
  const int32_t used = trv::hdr(trv::Word::Mem_Used) - mark;
  state.counters["files"] = l.tree.files;
  state.counters["dirs"] = l.tree.dirs;
  state.counters["arena_bytes"] = used;
  state.counters["bytes_per_entry"] = static_cast<double>(used - before) / l.tree.files;
  state.counters["arena_free"] = trv::hdr(trv::Word::Pool_Low) - trv::hdr(trv::Word::Mem_Used);
}
BENCHMARK(BM_ResetLoadsLsR)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_DbSearchPresent(benchmark::State &state) {
  Loaded l;
  const std::string element = l.attached.box.path("texmf//");
  char out[260];
  size_t i = 0;
  // The files are not on disk, so every hit is followed by a failed access;
  // the lookup up to that point is what this measures.
  for (auto _ : state) {
    benchmark::DoNotOptimize(db_search(l.tree.present[i].c_str(), element.c_str(), out));
    if (++i == l.tree.present.size()) i = 0;
  }
  state.counters["names"] = static_cast<double>(l.tree.present.size());
}
BENCHMARK(BM_DbSearchPresent);

void BM_DbSearchAbsent(benchmark::State &state) {
  Loaded l;
  const std::string element = l.attached.box.path("texmf/fonts/tfm//");
  char out[260];
  for (auto _ : state) benchmark::DoNotOptimize(db_search("nosuchfont10.tfm", element.c_str(), out));
}
BENCHMARK(BM_DbSearchAbsent);

void BM_DbSearchUncovered(benchmark::State &state) {
  Loaded l;
  char out[260];
  for (auto _ : state) benchmark::DoNotOptimize(db_search("cmr10.tfm", "/usr/share/fonts//", out));
}
BENCHMARK(BM_DbSearchUncovered);

// A full walk (the name is absent) of a tree on disk of 1,000 directories
// and 20,000 files.
void BM_RecurseDirFullWalk(benchmark::State &state) {
  AttachedTest attached{"[QDM]\n"};
  Rng rng;
  for (int d = 0; d < 1000; ++d) {
    const std::string dir = attached.box.path("walk/" + std::to_string(d % 10) + "/" +
                                              std::to_string(d % 100) + "/d" + std::to_string(d));
    std::filesystem::create_directories(dir);
    for (int f = 0; f < 20; ++f)
      std::ofstream(dir + "/f" + std::to_string(rng.below(100000)) + ".tfm");
  }
  const std::string top = attached.box.path("walk");
  char dir[260];
  for (auto _ : state) {
    std::snprintf(dir, sizeof dir, "%s", top.c_str());
    benchmark::DoNotOptimize(recurse_dir(dir, "absent.tfm"));
  }
}
BENCHMARK(BM_RecurseDirFullWalk)->Unit(benchmark::kMillisecond);

}  // namespace
