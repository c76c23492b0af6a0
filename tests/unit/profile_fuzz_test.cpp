// Arbitrary bytes through the profile reader and writer, replayed by the ordinary test run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>

#include "support/sandbox.h"
#include "trovalis.h"

namespace {

namespace fs = std::filesystem;

// One input: the file's text, then after a 0xFF byte NUL-separated section,
// key and value names for a few writes. Every listing and lookup the text
// offers is read into small buffers whose ends are watched.
void profile_fuzz_one(const std::string &dir, int n, const uint8_t *data, size_t size) {
  const std::string in(reinterpret_cast<const char *>(data), size);
  const size_t cut = in.find('\xff');
  std::string path = dir + "/z" + std::to_string(n) + ".ini";
  std::ofstream(path, std::ios::binary) << in.substr(0, cut);

  char buf[40];
  auto fenced = [&](int len, int got) {
    ASSERT_GE(got, 0);
    ASSERT_LE(got, len);
    for (size_t i = static_cast<size_t>(len); i < sizeof buf; ++i) ASSERT_EQ(buf[i], '#');
  };
  for (int len : {1, 2, 7, 24}) {
    std::memset(buf, '#', sizeof buf);
    fenced(len, GetPrivateProfileSectionNames(buf, len, path.data()));
  }
  char names[40];
  const int got = GetPrivateProfileSectionNames(names, 24, path.data());
  for (const char *s = names; s < names + got && *s; s += std::strlen(s) + 1) {
    const std::string section(s);
    char keys[40];
    const int k = GetPrivateProfileString(section.c_str(), nullptr, "", keys, 24, path.data());
    for (const char *key = keys; key < keys + k && *key; key += std::strlen(key) + 1) {
      std::memset(buf, '#', sizeof buf);
      fenced(5, GetPrivateProfileString(section.c_str(), key, "dflt", buf, 5, path.data()));
    }
    std::memset(buf, '#', sizeof buf);
    fenced(9, GetPrivateProfileSection(section.c_str(), buf, 9, path.data()));
  }
  if (cut == std::string::npos) return;

  std::string rest = in.substr(cut + 1);
  for (size_t at = 0; at < rest.size();) {
    const std::string section = rest.substr(at, rest.find('\0', at) - at);
    at += section.size() + 1;
    const std::string key = at < rest.size() ? rest.substr(at, rest.find('\0', at) - at) : "";
    at += key.size() + 1;
    const std::string value = at < rest.size() ? rest.substr(at, rest.find('\0', at) - at) : "";
    at += value.size() + 1;
    const bool remove = value == "-";
    const int r = WritePrivateProfileString(section.c_str(), key.c_str(),
                                            remove ? nullptr : value.c_str(), path.data());
    ASSERT_TRUE(r == 0 || r == 1);
    // A name or value holding a line end or a bracket can make or hide a
    // head; only plain ones must read back.
    if (r == 1 && !remove && value.find('\n') == std::string::npos &&
        section.find_first_of("\n]") == std::string::npos &&
        key.find('\n') == std::string::npos && key[0] != '[') {
      char back[300];
      GetPrivateProfileString(section.c_str(), key.c_str(), "", back, sizeof back, path.data());
      if (value.size() < sizeof back && (value.empty() || value.back() != '\r')) {
        EXPECT_EQ(std::string(back), value);
      }
    }
  }
}

class ProfileFuzz : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/trv-fuzz-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    home_.emplace("HOME", dir_.c_str());
  }
  void TearDown() override {
    home_.reset();
    fs::remove_all(dir_);
  }
  std::string dir_;
  std::optional<trv::test::ScopedEnv> home_;
};

template <size_t N>
std::string bytes(const char (&s)[N]) {
  return std::string(s, N - 1);
}

// Inputs that once mattered, kept so that they keep passing.
const std::string kSaved[] = {
    "",
    "[",
    "[]",
    "[a",
    "[a]",
    "[a]\n=",
    "[a]\r\n\r\n[b]\r",
    bytes("[a]\nk=\0\n[\0]\n"),
    bytes("x\n[a]\nk=v\xff" "a\0k\0-\0"),
    bytes("[a]\nk=v\xff" "b\0k\0v\0a\0k\0-\0a\0k\0\0"),
    bytes("[a]\nk=v\xff" "a\0k\0line\n[n]\0n\0q\0z\0"),
    "\n\n\n[\n]\n;\n=\xe9\t=\n\xff",
};

TEST_F(ProfileFuzz, SavedInputs) {
  int n = 0;
  for (const std::string &s : kSaved) {
    SCOPED_TRACE(n);
    profile_fuzz_one(dir_, n++, reinterpret_cast<const uint8_t *>(s.data()), s.size());
  }
}

// Random inputs over the bytes that matter to the format.
TEST_F(ProfileFuzz, RandomInputs) {
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
    SCOPED_TRACE(testing::PrintToString(s));
    profile_fuzz_one(dir_, n, reinterpret_cast<const uint8_t *>(s.data()), s.size());
    if (HasFatalFailure() || HasNonfatalFailure()) break;
  }
}

}  // namespace
