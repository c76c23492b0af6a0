// The INI file store: name resolution, the record list, growth and reloads.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>

#include "profile/ini_store.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace {

namespace fs = std::filesystem;
using trv::test::ScopedEnv;

class ProfileStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/trv-store-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    home_.emplace("HOME", dir_.c_str());
  }
  void TearDown() override {
    home_.reset();
    fs::remove_all(dir_);
  }
  std::string profile_dir() const { return dir_ + "/Library/Zelvan TeX"; }
  void put(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  std::string get(const char *section, const char *key, std::string file,
                  const char *def = "<none>") {
    char buf[256];
    GetPrivateProfileString(section, key, def, buf, sizeof buf, file.data());
    return buf;
  }
  static int records_named(const std::string &name) {
    int n = 0;
    for (INIF *f = INI_File; f != nullptr; f = f->Next) n += name == f->Name;
    return n;
  }

  std::string dir_;
  std::optional<ScopedEnv> home_;
};

TEST_F(ProfileStoreTest, ReadOfAbsentBareNameCreatesProfileDirectory) {
  ASSERT_FALSE(fs::exists(profile_dir()));
  EXPECT_EQ(get("s", "k", "Absent.ini"), "<none>");
  EXPECT_TRUE(fs::is_directory(profile_dir()));
  EXPECT_FALSE(fs::exists(profile_dir() + "/absent.ini"));
}

TEST_F(ProfileStoreTest, BareNamesInAnyCaseShareOneLoweredFile) {
  char name[] = "Win.ini";
  ASSERT_EQ(WritePrivateProfileString("s", "k", "v", name), 1);
  const std::string file = profile_dir() + "/win.ini";
  EXPECT_EQ(trv::test::read_file(file), "[s]\nk=v\n");
  EXPECT_EQ(get("s", "k", "WIN.INI"), "v");
  EXPECT_EQ(get("s", "k", "win.ini"), "v");
  EXPECT_EQ(records_named(file), 1);
  EXPECT_EQ(std::string(INI_File->Name), file);  // the last one used is first
}

// Names are compared without case, but not resolved: another path to the
// same file is another record.
TEST_F(ProfileStoreTest, RecordsAreFoundByNameIgnoringCase) {
  fs::create_directory(dir_ + "/sub");
  put(dir_ + "/Case.ini", "[s]\nk=1\n");
  EXPECT_EQ(get("s", "k", dir_ + "/Case.ini"), "1");
  EXPECT_EQ(get("s", "k", dir_ + "/CASE.INI"), "1");
  EXPECT_EQ(get("s", "k", dir_ + "/sub/../Case.ini"), "1");
  EXPECT_EQ(records_named(dir_ + "/Case.ini"), 1);
  EXPECT_EQ(records_named(dir_ + "/CASE.INI"), 0);
  EXPECT_EQ(records_named(dir_ + "/sub/../Case.ini"), 1);
}

TEST_F(ProfileStoreTest, BackslashesAreRewrittenInTheCallersBuffer) {
  put(dir_ + "/b.ini", "[s]\nk=1\n");
  std::string name = dir_ + "\\b.ini";
  char buf[16];
  GetPrivateProfileString("s", "k", "", buf, sizeof buf, name.data());
  EXPECT_STREQ(buf, "1");
  EXPECT_EQ(name, dir_ + "/b.ini");
}

// The capacity is the multiple of 1024 above size + 8.
struct Growth {
  int size;
  int capacity;
};
void PrintTo(const Growth &g, std::ostream *os) { *os << g.size << " bytes"; }
class ProfileGrowthTest : public ProfileStoreTest, public ::testing::WithParamInterface<Growth> {};

TEST_P(ProfileGrowthTest, LoadedCapacityFollowsTheGrowthRule) {
  const std::string path = dir_ + "/g.ini";
  put(path, std::string(static_cast<size_t>(GetParam().size), 'x'));
  std::string name = path;
  INIF *f = trv::find_INIF(name.data(), false);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->Size, GetParam().size);
  EXPECT_EQ(f->Capacity, GetParam().capacity);
  EXPECT_EQ(f->Sections, 0);
  EXPECT_EQ(std::string(f->Body + f->Size, 7), std::string("\n[]\n\n\n", 7));
}

INSTANTIATE_TEST_SUITE_P(Sizes, ProfileGrowthTest,
                         ::testing::Values(Growth{0, 1024}, Growth{1015, 1024},
                                           Growth{1016, 2048}, Growth{2039, 2048},
                                           Growth{2040, 3072}));

TEST_F(ProfileStoreTest, IndexHoldsHeadsAtLineStartsOnly) {
  const std::string path = dir_ + "/i.ini";
  put(path, "[a]\n [b]\n\t[c]\nx=[d]\n[\n[e\n[f]");
  std::string name = path;
  INIF *f = trv::find_INIF(name.data(), false);
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(f->Sections, 4);
  EXPECT_EQ(f->BodyIndex[0] - f->Body, 0);
  EXPECT_EQ(f->BodyIndex[1] - f->Body, 20);
  EXPECT_EQ(f->BodyIndex[2] - f->Body, 22);
  EXPECT_EQ(f->BodyIndex[3] - f->Body, 25);
}

TEST_F(ProfileStoreTest, ReloadOnlyWhenTimeStampOrSizeDiffers) {
  const std::string path = dir_ + "/same.ini";
  put(path, "[s]\nk=1\n");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(get("s", "k", path), "1");
  put(path, "[s]\nk=2\n");  // same size
  const struct timeval times[2] = {{st.st_mtime, 0}, {st.st_mtime, 0}};
  ASSERT_EQ(utimes(path.c_str(), times), 0);
  EXPECT_EQ(get("s", "k", path), "1");
  // A different time stamp alone is enough.
  const struct timeval later[2] = {{st.st_mtime + 5, 0}, {st.st_mtime + 5, 0}};
  ASSERT_EQ(utimes(path.c_str(), later), 0);
  EXPECT_EQ(get("s", "k", path), "2");
  put(path, "[s]\nk=333\n");  // so is a different size
  EXPECT_EQ(get("s", "k", path), "333");
}

TEST_F(ProfileStoreTest, DeletedFileKeepsAnsweringFromTheCopy) {
  const std::string path = dir_ + "/gone.ini";
  put(path, "[s]\nk=kept\n");
  EXPECT_EQ(get("s", "k", path), "kept");
  fs::remove(path);
  EXPECT_EQ(get("s", "k", path), "kept");
}

TEST_F(ProfileStoreTest, FileCreatedAfterAFailedWriteIsLoadedOnNextAccess) {
  const std::string path = dir_ + "/late.ini";
  std::string name = path;
  EXPECT_EQ(WritePrivateProfileString("s", "k", "", name.data()), 0);  // leaves an empty record
  EXPECT_EQ(records_named(path), 1);
  EXPECT_EQ(get("s", "k", path), "<none>");
  char buf[8] = "xxxxxxx";
  EXPECT_EQ(GetPrivateProfileSectionNames(buf, sizeof buf, name.data()), 1);
  put(path, "[s]\nk=late\n");
  EXPECT_EQ(get("s", "k", path), "late");
}

TEST_F(ProfileStoreTest, NamesBeyondTheResolutionBufferAreRefused) {
  // HOME + "/Library/Zelvan TeX/" + name must stay below 260 bytes.
  const size_t longest = 259 - 20 - dir_.size();
  std::string fits(longest, 'n'), too_long(longest + 1, 'n');
  EXPECT_EQ(WritePrivateProfileString("s", "k", "v", fits.data()), 1);
  EXPECT_EQ(get("s", "k", fits), "v");
  EXPECT_EQ(WritePrivateProfileString("s", "k", "v", too_long.data()), 0);
  EXPECT_EQ(get("s", "k", too_long), "<none>");
  EXPECT_FALSE(fs::exists(profile_dir() + "/" + too_long));
}

}  // namespace
