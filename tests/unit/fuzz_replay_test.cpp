// Replays the saved inputs of every fuzz target (fuzz/corpus/TARGET/), so
// that an input that once found a bug keeps passing in every build.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/sandbox.h"
#include "fuzz.h"

namespace trv {
namespace {

namespace fs = std::filesystem;

class FuzzReplay : public ::testing::TestWithParam<fuzz::Target> {
 protected:
  ~FuzzReplay() override { fuzz::release(); }
};

TEST_P(FuzzReplay, SavedInputsPass) {
  const fs::path dir = fs::path(TROVALIS_SOURCE_DIR) / "fuzz" / "corpus" / GetParam().name;
  std::vector<fs::path> files;
  for (const auto &e : fs::directory_iterator(dir))
    if (e.is_regular_file()) files.push_back(e.path());
  std::sort(files.begin(), files.end());
  ASSERT_FALSE(files.empty()) << dir;
  for (const fs::path &f : files) {
    // A failing input ends the process: the last name printed is the one.
    std::fprintf(stderr, "replaying %s\n", f.c_str());
    const std::string bytes = test::read_file(f.string());
    GetParam().run(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, ::testing::ValuesIn(fuzz::kTargets),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace trv
