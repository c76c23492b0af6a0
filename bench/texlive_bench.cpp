// The cached search on a real TeX Live tree: the configuration that
// `trovalis init` wrote (named by TROVALIS_BENCH_TEXMF_INI; bench/texlive.sh
// sets it), a hot name, and 1,000 names of the tree asked in turn.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/sandbox.h"
#include "trovalis.h"

namespace {

std::string configuration() {
  const char *ini = std::getenv("TROVALIS_BENCH_TEXMF_INI");
  if (ini == nullptr) return "";
  std::ifstream in(ini);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Up to n font metric names from the distribution's database.
std::vector<std::string> tfm_names(size_t n) {
  std::ifstream in("/usr/share/texlive/texmf-dist/ls-R");
  std::vector<std::string> out;
  for (std::string line; out.size() < n && std::getline(in, line);)
    if (line.size() > 4 && line.compare(line.size() - 4, 4, ".tfm") == 0) out.push_back(line);
  return out;
}

void BM_TexLiveHit(benchmark::State &state) {
  const std::string ini = configuration();
  if (ini.empty()) {
    state.SkipWithError("set TROVALIS_BENCH_TEXMF_INI (bench/texlive.sh does)");
    return;
  }
  trv::test::AttachedTest attached(ini);
  if (QDMSearch("tex", "article.cls") == nullptr) state.SkipWithError("article.cls not found");
  for (auto _ : state) benchmark::DoNotOptimize(QDMSearch("tex", "article.cls"));
}
BENCHMARK(BM_TexLiveHit)->UseRealTime();

void BM_TexLiveRotating(benchmark::State &state) {
  const std::string ini = configuration();
  const std::vector<std::string> names = tfm_names(1000);
  if (ini.empty() || names.empty()) {
    state.SkipWithError("set TROVALIS_BENCH_TEXMF_INI (bench/texlive.sh does)");
    return;
  }
  trv::test::AttachedTest attached(ini);
  for (const std::string &n : names) QDMSearch("tfm", n.c_str());
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(QDMSearch("tfm", names[i].c_str()));
    if (++i == names.size()) i = 0;
  }
}
BENCHMARK(BM_TexLiveRotating)->UseRealTime();

}  // namespace
