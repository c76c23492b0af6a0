// Profile writes: where lines go, what is kept byte for byte, when nothing happens.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <random>
#include <string>

#include "support/sandbox.h"
#include "trovalis.h"

namespace {

namespace fs = std::filesystem;
using trv::test::read_file;
using trv::test::ScopedEnv;

class ProfileWriteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/trv-write-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    home_.emplace("HOME", dir_.c_str());
  }
  void TearDown() override {
    home_.reset();
    fs::remove_all(dir_);
  }
  std::string new_path() { return dir_ + "/f" + std::to_string(files_++) + ".ini"; }
  std::string file_with(const std::string &text) {
    const std::string path = new_path();
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  static int write(const char *section, const char *key, const char *value, std::string path) {
    return WritePrivateProfileString(section, key, value, path.data());
  }
  static std::string get(const char *section, const char *key, std::string path) {
    char buf[256];
    GetPrivateProfileString(section, key, "<def>", buf, sizeof buf, path.data());
    return buf;
  }

  std::string dir_;
  int files_ = 0;
  std::optional<ScopedEnv> home_;
};

TEST_F(ProfileWriteTest, WorkedExample) {
  const std::string path = file_with("[a]\nx=1\n\n[b]\ny=2\n");
  EXPECT_EQ(write("a", "z", "3", path), 1);
  EXPECT_EQ(read_file(path), "[a]\nx=1\nz=3\n\n[b]\ny=2\n");
  EXPECT_EQ(write("b", "w", "4", path), 1);
  EXPECT_EQ(read_file(path), "[a]\nx=1\nz=3\n\n[b]\ny=2\nw=4\n");
  EXPECT_EQ(write("c", "k", "v", path), 1);
  EXPECT_EQ(read_file(path), "[a]\nx=1\nz=3\n\n[b]\ny=2\nw=4\n[c]\nk=v\n");
  EXPECT_EQ(write("A", "X", "100", path), 1);
  EXPECT_EQ(read_file(path), "[a]\nx=100\nz=3\n\n[b]\ny=2\nw=4\n[c]\nk=v\n");
  EXPECT_EQ(write("a", "x", nullptr, path), 1);
  EXPECT_EQ(read_file(path), "[a]\nz=3\n\n[b]\ny=2\nw=4\n[c]\nk=v\n");
}

struct Edit {
  const char *name;
  std::string before;
  const char *section, *key, *value;
  int result;
  std::string after;  // the file's text afterwards
};
void PrintTo(const Edit &c, std::ostream *os) { *os << c.name; }
class ProfileEditTest : public ProfileWriteTest, public ::testing::WithParamInterface<Edit> {};

TEST_P(ProfileEditTest, ChangesOnlyTheEditedLine) {
  const Edit &c = GetParam();
  const std::string path = file_with(c.before);
  EXPECT_EQ(write(c.section, c.key, c.value, path), c.result);
  EXPECT_EQ(read_file(path), c.after);
}

const std::string kAB = "[a]\nx=1\n\n[b]\ny=2\n";
const Edit kEdits[] = {
    // Nothing to do.
    {"NullSection", kAB, nullptr, "x", "9", 0, kAB},
    {"EmptySection", kAB, "", "x", "9", 0, kAB},
    {"NewSectionNullValue", kAB, "c", "k", nullptr, 0, kAB},
    {"NewSectionEmptyValue", kAB, "c", "k", "", 0, kAB},
    {"NewSectionNullKey", kAB, "c", nullptr, "v", 0, kAB},
    {"NullKeyKeepsSection", kAB, "a", nullptr, nullptr, 0, kAB},
    {"AbsentKeyNullValue", kAB, "a", "q", nullptr, 0, kAB},
    {"AbsentKeyEmptyValue", kAB, "a", "q", "", 0, kAB},
    // Replacing.
    {"EmptyValueEmptiesKey", kAB, "a", "x", "", 1, "[a]\nx=\n\n[b]\ny=2\n"},
    {"SameValueStillSaved", kAB, "b", "y", "2", 1, kAB},
    {"HeadAndKeyKeepTheirCase", "[Sec]\nKey=1\n", "SEC", "KEY", "2", 1, "[Sec]\nKey=2\n"},
    {"CrLfLineKeepsCrLf", "[a]\r\nx=1\r\ny=2\r\n", "a", "x", "10", 1, "[a]\r\nx=10\r\ny=2\r\n"},
    {"TabKeyReplaced", "[a]\nk\tz=1\n", "a", "k\tz", "2", 1, "[a]\nk\tz=2\n"},
    {"HighByteKeyReplaced", "[a]\nk\xe9=1\n", "a", "k\xe9", "2", 1, "[a]\nk\xe9=2\n"},
    {"FirstOfDuplicateKeys", "[a]\nx=1\nx=2\n", "a", "x", "3", 1, "[a]\nx=3\nx=2\n"},
    {"FirstOfDuplicateSections", "[a]\nx=1\n[a]\nx=2\n", "a", "x", "3", 1, "[a]\nx=3\n[a]\nx=2\n"},
    // Deleting.
    {"DeleteLine", "[a]\nx=1\ny=2\n", "a", "x", nullptr, 1, "[a]\ny=2\n"},
    {"DeleteCrLfLine", "[a]\r\nx=1\r\ny=2\r\n", "a", "x", nullptr, 1, "[a]\r\ny=2\r\n"},
    {"DeleteLastLineWithoutLf", "[a]\ny=2\nx=1", "a", "x", nullptr, 1, "[a]\ny=2"},
    // Inserting.
    {"InsertBeforeBlankLines", "[a]\nx=1\n\n\n[b]\n", "a", "z", "3", 1, "[a]\nx=1\nz=3\n\n\n[b]\n"},
    {"InsertBeforeCrLfBlankLine", "[a]\r\nx=1\r\n\r\n[b]\r\n", "a", "z", "3", 1,
     "[a]\r\nx=1\r\nz=3\n\r\n[b]\r\n"},
    {"InsertIntoEmptySection", "[a]\n\n[b]\n", "a", "z", "3", 1, "[a]\nz=3\n\n[b]\n"},
    {"InsertAtEndWithoutLf", "[a]\nx=1", "a", "z", "3", 1, "[a]\nx=1\nz=3"},
    {"InsertSkipsComment", "[a]\n;x=1\n", "a", "x", "2", 1, "[a]\n;x=1\nx=2\n"},
    {"InsertAfterTrailingComment", "[a]\nx=1\n;c\n\n[b]\n", "a", "z", "3", 1,
     "[a]\nx=1\n;c\nz=3\n\n[b]\n"},
    // Appending a section.
    {"AppendSection", "[a]\nx=1\n", "New", "K", "V", 1, "[a]\nx=1\n[New]\nK=V\n"},
    {"AppendAfterBlankLines", "[a]\nx=1\n\n", "b", "k", "v", 1, "[a]\nx=1\n\n[b]\nk=v\n"},
    {"AppendToCrLfFile", "[a]\r\nx=1\r\n", "b", "k", "v", 1, "[a]\r\nx=1\r\n[b]\nk=v\n"},
    {"AppendToEmptyFile", "", "b", "k", "v", 1, "[b]\nk=v\n"},
    {"AppendWithoutFinalLfFails", "[a]\nx=1", "b", "k", "v", 0, "[a]\nx=1"},
};

INSTANTIATE_TEST_SUITE_P(Outcomes, ProfileEditTest, ::testing::ValuesIn(kEdits),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(ProfileWriteTest, FailedSectionAddNeverReachesTheFile) {
  const std::string path = file_with("[a]\nx=1");
  EXPECT_EQ(write("b", "k", "v", path), 0);
  EXPECT_EQ(get("a", "x", path), "1");
  // A later successful write saves the copy: the failed head must be gone.
  EXPECT_EQ(write("a", "y", "2", path), 1);
  EXPECT_EQ(read_file(path), "[a]\nx=1\ny=2");
  EXPECT_EQ(get("a", "y", path), "2");
}

TEST_F(ProfileWriteTest, OverlongSectionNameIsNeverAdded) {
  const std::string path = file_with("[a]\nx=1\n");
  const std::string name(300, 's');
  EXPECT_EQ(write(name.c_str(), "k", "v", path), 0);
  EXPECT_EQ(get(name.c_str(), "k", path), "<def>");
  EXPECT_EQ(read_file(path), "[a]\nx=1\n");
}

TEST_F(ProfileWriteTest, LaterSectionsStayFoundAfterTheTextMoves) {
  const std::string path = file_with("[a]\nx=1\n[b]\ny=2\n[c]\nz=3\n");
  EXPECT_EQ(write("a", "x", std::string(2000, 'l').c_str(), path), 1);
  EXPECT_EQ(get("b", "y", path), "2");
  EXPECT_EQ(write("a", "x", "s", path), 1);
  EXPECT_EQ(get("c", "z", path), "3");
  EXPECT_EQ(write("a", "x", nullptr, path), 1);
  EXPECT_EQ(get("c", "z", path), "3");
  EXPECT_EQ(read_file(path), "[a]\n[b]\ny=2\n[c]\nz=3\n");
}

TEST_F(ProfileWriteTest, FailedSaveReturnsOneAndTheCopyKeepsTheEdit) {
  const std::string path = dir_ + "/no/such/dir/f.ini";
  EXPECT_EQ(write("s", "k", "v", path), 1);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(get("s", "k", path), "v");
}

TEST_F(ProfileWriteTest, OwnSaveDoesNotCountAsAnOutsideChange) {
  const std::string path = file_with("[s]\nk=1\n");
  const struct timeval long_ago[2] = {{1000000, 0}, {1000000, 0}};
  ASSERT_EQ(utimes(path.c_str(), long_ago), 0);
  EXPECT_EQ(write("s", "k", "22", path), 1);
  // The save's time stamp and size are the record's now: a change of the
  // file that keeps both is not seen.
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  std::ofstream(path, std::ios::binary) << "[s]\nk=33\n";
  const struct timeval saved[2] = {{st.st_mtime, 0}, {st.st_mtime, 0}};
  ASSERT_EQ(utimes(path.c_str(), saved), 0);
  EXPECT_EQ(get("s", "k", path), "22");
}

// Each process holds its own copy; a write by one is seen by the other at its
// next access, through the file's changed size.
TEST_F(ProfileWriteTest, TwoProcessesEditingInTurnSeeEachOther) {
  const std::string path = file_with("[s]\na=1\n");
  EXPECT_EQ(get("s", "a", path), "1");
  int to_child[2], to_parent[2];
  ASSERT_EQ(pipe(to_child), 0);
  ASSERT_EQ(pipe(to_parent), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    char c;
    int ok = get("s", "a", path) == "1";
    ok &= write("s", "b", "22", path) == 1;
    ok &= ::write(to_parent[1], "w", 1) == 1;
    ok &= read(to_child[0], &c, 1) == 1;
    ok &= get("s", "c", path) == "333";
    ok &= write("s", "a", "4444", path) == 1;
    _exit(ok ? 0 : 1);
  }
  char c;
  ASSERT_EQ(read(to_parent[0], &c, 1), 1);
  EXPECT_EQ(get("s", "b", path), "22");
  EXPECT_EQ(write("s", "c", "333", path), 1);
  ASSERT_EQ(::write(to_child[1], "w", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(get("s", "a", path), "4444");
  EXPECT_EQ(read_file(path), "[s]\na=4444\nb=22\nc=333\n");
  for (int fd : {to_child[0], to_child[1], to_parent[0], to_parent[1]}) close(fd);
}

// Random INI texts under random writes and deletes: a written value reads
// back, a call that returns 0 leaves the file alone, the bytes outside the
// one edited line stay as they were, and no CR is ever added.
class ProfileRandomEdits : public ProfileWriteTest {
 protected:
  std::mt19937 rng{12345};
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); }
  std::string word(const char *alphabet) {
    std::string s;
    const int n = 1 + pick(3);
    for (int i = 0; i < n; ++i) s += alphabet[pick(static_cast<int>(std::strlen(alphabet)))];
    return s;
  }
  std::string name() { return word("abcABC"); }
  std::string value() { return pick(6) == 0 ? "" : word("xyz =;\"\t\xe9[]"); }
  std::string text() {
    const bool crlf = pick(3) == 0;
    const char *eol = crlf ? "\r\n" : "\n";
    std::string t;
    if (pick(4) == 0) t += "stray=1" + std::string(eol);
    for (int s = pick(4); s > 0; --s) {
      t += "[" + name() + "]" + (pick(5) == 0 ? " ; note" : "") + eol;
      for (int l = pick(5); l > 0; --l) {
        switch (pick(5)) {
          case 0: t += eol; break;
          case 1: t += ";" + name() + "=c" + eol; break;
          default: t += name() + "=" + value() + eol;
        }
      }
    }
    if (!t.empty() && pick(4) == 0) t.pop_back();  // no final LF
    return t;
  }
};

size_t count(const std::string &s, char c) { return static_cast<size_t>(std::count(s.begin(), s.end(), c)); }

TEST_F(ProfileRandomEdits, PropertiesHold) {
  for (int round = 0; round < 100; ++round) {
    const std::string path = file_with(text());
    for (int op = 0; op < 12; ++op) {
      const std::string before = read_file(path);
      const std::string section = name(), key = name();
      const bool remove = pick(4) == 0;
      const std::string v = value();
      const int r = write(section.c_str(), key.c_str(), remove ? nullptr : v.c_str(), path);
      const std::string after = read_file(path);
      SCOPED_TRACE("before: " + before + "\nwrite [" + section + "] " + key + " = " +
                   (remove ? "(delete)" : v));
      if (r == 0) {
        ASSERT_EQ(after, before);
        continue;
      }
      if (!remove) {
        ASSERT_EQ(get(section.c_str(), key.c_str(), path), v);
      }
      ASSERT_LE(count(after, '\r'), count(before, '\r'));
      // The bytes that differ lie within one line, or two for a new section.
      size_t p = 0;
      while (p < before.size() && p < after.size() && before[p] == after[p]) ++p;
      size_t s = 0;
      while (s < before.size() - p && s < after.size() - p &&
             before[before.size() - 1 - s] == after[after.size() - 1 - s])
        ++s;
      const std::string gone = before.substr(p, before.size() - p - s);
      const std::string came = after.substr(p, after.size() - p - s);
      ASSERT_LE(count(gone, '\n') + count(came, '\n'), 2u) << "gone: " << gone << " came: " << came;
    }
  }
}

}  // namespace
