// Random inputs over the bytes that matter to the INI format, through the
// INI fuzz target (whose saved inputs fuzz_replay_test replays).
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "fuzz.h"

namespace {

TEST(ProfileFuzz, RandomInputs) {
  // The last pick, one past the table, stands for a NUL byte.
  static const char kBytes[] = "[]=;\n\n\n\r\t abAB\xe9\xff";
  constexpr int kCount = sizeof kBytes - 1;
  std::mt19937 rng(2024);
  for (int n = 0; n < 400; ++n) {
    std::string s;
    const int len = std::uniform_int_distribution<int>(0, 120)(rng);
    for (int i = 0; i < len; ++i) {
      const int pick = std::uniform_int_distribution<int>(0, kCount)(rng);
      s += pick == kCount ? '\0' : kBytes[pick];
    }
    trv::fuzz::fuzz_ini(reinterpret_cast<const uint8_t *>(s.data()), s.size());
  }
  trv::fuzz::release();
}

}  // namespace
