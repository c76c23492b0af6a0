// Registry emulation: key names, the two open-key slots and values in reg.ini.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>

#include "support/sandbox.h"
#include "trovalis.h"

namespace {

namespace fs = std::filesystem;
using trv::test::ScopedEnv;

constexpr int kClassesRoot = static_cast<int>(0x80000000u);
constexpr int kCurrentUser = static_cast<int>(0x80000001u);
constexpr int kLocalMachine = static_cast<int>(0x80000002u);

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/trv-reg-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    home_.emplace("HOME", dir_.c_str());
    std::memset(Key_List, 0, sizeof Key_List);
  }
  void TearDown() override {
    std::memset(Key_List, 0, sizeof Key_List);
    home_.reset();
    fs::remove_all(dir_);
  }
  std::string reg_ini() const { return trv::test::read_file(dir_ + "/Library/Zelvan TeX/reg.ini"); }
  // The value's text and RegQueryValue's result and size.
  struct Query {
    int result, size;
    std::string text;
  };
  static Query query(int key, const char *sub_key) {
    char buf[64] = "junk";
    int size = sizeof buf;
    const int r = RegQueryValue(key, sub_key, buf, &size);
    return {r, size, buf};
  }

  std::string dir_;
  std::optional<ScopedEnv> home_;
};

TEST_F(RegistryTest, SetValueThenQueryIt) {
  char data[] = "1";
  EXPECT_EQ(RegSetValue(kCurrentUser, "Software\\Test", 1, data, 1), 0);
  EXPECT_EQ(reg_ini(), "[HKEY_CURRENT_USER\\Software\\Test]\nDefault=1\n");
  const Query q = query(kCurrentUser, "Software\\Test");
  EXPECT_EQ(q.result, 0);
  EXPECT_EQ(q.text, "1");
  EXPECT_EQ(q.size, 1);
}

struct Name {
  int key;
  const char *sub_key;
  const char *section;  // nullptr: no section
};
void PrintTo(const Name &n, std::ostream *os) {
  *os << std::hex << "0x" << static_cast<unsigned>(n.key) << " " << n.sub_key;
}
class RegistryKeyDirTest : public RegistryTest, public ::testing::WithParamInterface<Name> {};

TEST_P(RegistryKeyDirTest, NamesTheSection) {
  const char *s = KeyDir(GetParam().key, GetParam().sub_key);
  if (GetParam().section == nullptr) {
    EXPECT_EQ(s, nullptr);
  } else {
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, GetParam().section);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Handles, RegistryKeyDirTest,
    ::testing::Values(Name{kClassesRoot, "", "HKEY_CLASSES_ROOT\\"},
                      Name{kCurrentUser, "A\\B", "HKEY_CURRENT_USER\\A\\B"},
                      Name{static_cast<int>(0x80000004u), "x", "HKEY_PERFORMANCE_DATA\\x"},
                      Name{static_cast<int>(0x80000007u), "x", "HKEY_RESERVED\\x"},
                      Name{static_cast<int>(0x80000008u), "x", nullptr},
                      Name{-1, "x", nullptr},
                      // Not a root and not an open key: the sub-key alone.
                      Name{16, "Only", "Only"}, Name{5, "Only", "Only"}));

TEST_F(RegistryTest, NamesThatDoNotFitAreRefused) {
  const std::string fits(255 - 18, 'k'), too_long(256 - 18, 'k');
  ASSERT_NE(KeyDir(kCurrentUser, fits.c_str()), nullptr);
  EXPECT_EQ(std::strlen(KeyDir(kCurrentUser, fits.c_str())), 255u);
  EXPECT_EQ(KeyDir(kCurrentUser, too_long.c_str()), nullptr);
  char data[] = "v";
  EXPECT_EQ(RegSetValue(kCurrentUser, too_long.c_str(), 1, data, 1), 1);
  EXPECT_EQ(query(kCurrentUser, too_long.c_str()).result, 1);
  int size = 8;
  EXPECT_EQ(RegQueryValue(kCurrentUser, "x", data, nullptr), 1);
  EXPECT_EQ(RegQueryValue(static_cast<int>(0x8000000Fu), "x", nullptr, &size), 1);
  EXPECT_EQ(size, 0);
}

TEST_F(RegistryTest, TwoSlotsAreHandedOutAndReused) {
  int a = -1, b = -1, c = -7;
  EXPECT_EQ(RegCreateKeyA(kCurrentUser, "Software\\A", &a), 0);
  EXPECT_EQ(RegCreateKeyA(kCurrentUser, "Software\\B", &b), 0);
  EXPECT_EQ(a, 16);
  EXPECT_EQ(b, 17);
  EXPECT_EQ(RegCreateKeyA(kCurrentUser, "Software\\C", &c), 1);
  EXPECT_EQ(c, -7);
  EXPECT_EQ(RegCloseKey(a), 0);
  EXPECT_EQ(RegCloseKey(a), 1);
  EXPECT_EQ(RegCreateKeyA(kCurrentUser, "Software\\C", &c), 0);
  EXPECT_EQ(c, 16);
  EXPECT_STREQ(KeyDir(c, "ignored"), "HKEY_CURRENT_USER\\Software\\C");
  EXPECT_EQ(RegCloseKey(kCurrentUser), 1);
}

TEST_F(RegistryTest, CreateRefusesWhatTheSlotCannotHold) {
  int h = -7;
  const std::string max(63, 'k'), over(64, 'k');
  EXPECT_EQ(RegCreateKeyA(kCurrentUser, over.c_str(), &h), 1);
  EXPECT_EQ(RegCreateKeyA(static_cast<int>(0x8000000Fu), "x", &h), 1);
  EXPECT_EQ(RegCreateKeyA(kCurrentUser, "x", nullptr), 1);
  EXPECT_EQ(h, -7);
  EXPECT_EQ(RegCreateKeyA(kCurrentUser, max.c_str(), &h), 0);
  EXPECT_EQ(std::string(KeyDir(h, "")), "HKEY_CURRENT_USER\\" + max);
}

TEST_F(RegistryTest, OpenedKeyUsesItsStoredSubKey) {
  int h = 0;
  ASSERT_EQ(RegCreateKeyA(kLocalMachine, "Soft\\P", &h), 0);
  char data[] = "on";
  EXPECT_EQ(RegSetValue(h, "Other", 1, data, 2), 0);
  EXPECT_EQ(reg_ini(), "[HKEY_LOCAL_MACHINE\\Soft\\P]\nDefault=on\n");
  EXPECT_EQ(query(h, "Whatever").text, "on");
  EXPECT_EQ(query(kLocalMachine, "Soft\\P").text, "on");
}

TEST_F(RegistryTest, KeyUnderOpenedKeyHasNoRootName) {
  int outer = 0, inner = 0;
  ASSERT_EQ(RegCreateKeyA(kCurrentUser, "Outer", &outer), 0);
  ASSERT_EQ(RegCreateKeyA(outer, "Inner", &inner), 0);
  EXPECT_STREQ(KeyDir(inner, ""), "Inner");
  char data[] = "x";
  EXPECT_EQ(RegSetValueExA(inner, "V", 0, 1, data, 1), 0);
  EXPECT_EQ(reg_ini(), "[Inner]\nV=x\n");
}

TEST_F(RegistryTest, SetValueExNamesAndRootSection) {
  char one[] = "1", two[] = "2", three[] = "3";
  EXPECT_EQ(RegSetValueExA(kClassesRoot, nullptr, 0, 1, one, 1), 0);
  EXPECT_EQ(reg_ini(), "[HKEY_CLASSES_ROOT\\]\nDefault=1\n");
  EXPECT_EQ(RegSetValueExA(kClassesRoot, "", 0, 1, two, 1), 0);
  EXPECT_EQ(RegSetValueExA(kClassesRoot, "Named", 0, 1, three, 1), 0);
  EXPECT_EQ(reg_ini(), "[HKEY_CLASSES_ROOT\\]\nDefault=2\nNamed=3\n");
  EXPECT_EQ(RegSetValueExA(static_cast<int>(0x8000000Au), "n", 0, 1, three, 1), 1);
}

TEST_F(RegistryTest, MissingOrEmptyValueQueriesAsAbsent) {
  const Query missing = query(kCurrentUser, "Nowhere");
  EXPECT_EQ(missing.result, 1);
  EXPECT_EQ(missing.size, 0);
  EXPECT_EQ(missing.text, "");
  char data[] = "v", empty[] = "";
  ASSERT_EQ(RegSetValue(kCurrentUser, "K", 1, data, 1), 0);
  EXPECT_EQ(RegSetValue(kCurrentUser, "K", 1, empty, 0), 0);
  EXPECT_EQ(reg_ini(), "[HKEY_CURRENT_USER\\K]\nDefault=\n");
  const Query emptied = query(kCurrentUser, "K");
  EXPECT_EQ(emptied.result, 1);
  EXPECT_EQ(emptied.size, 0);
  EXPECT_EQ(emptied.text, "");
  // Null data deletes the line; the section stays.
  EXPECT_EQ(RegSetValue(kCurrentUser, "K", 1, nullptr, 0), 0);
  EXPECT_EQ(reg_ini(), "[HKEY_CURRENT_USER\\K]\n");
}

}  // namespace
