// The search along a path: databases before the disk, the recursive walk
// and its failures, and link files beside programs.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> log_lines(int n = 64) {
  std::vector<char *> t(static_cast<size_t>(n));
  const int got = QDMGetMessages(t.data(), n);
  return {t.begin(), t.begin() + got};
}

bool logged(const std::string &text) {
  const std::string line = ("QDM-prog: " + text).substr(0, 100);
  for (const std::string &l : log_lines())
    if (l == line) return true;
  return false;
}

// Runs the rest of the scope in `dir`, for names without a directory.
class ScopedCwd {
 public:
  explicit ScopedCwd(const std::string &dir) : old_(fs::current_path()) { fs::current_path(dir); }
  ~ScopedCwd() { fs::current_path(old_); }

 private:
  fs::path old_;
};

class DirSearchTest : public ::testing::Test {
 protected:
  DirSearchTest() {
    attached.box.write("db/ls-R", "./:\nlisted.tex\n");
    attached.box.write("db/listed.tex", "x");
    attached.box.write("db/unlisted.tex", "x");
    attached.box.write("a/b/x", "x");
    attached.box.write("a/b/c/x", "x");
    attached.box.write("a/b/c/only-deep", "x");
    attached.box.write("plain/x", "x");
    CacheGuard g;
    QDMReset();
  }
  std::string p(const std::string &rel) const { return attached.box.path(rel); }
  // A search path list holding `elements`, in order.
  int list(const std::vector<std::string> &elements) {
    CacheGuard g;
    int first = 0;
    for (const std::string &e : elements) first = list_append(first, e.c_str(), 0);
    return first;
  }
  std::string search(const std::vector<std::string> &elements, const char *name) {
    const int l = list(elements);
    const char *r = search_file(l, name, buf);
    if (r != nullptr) {
      EXPECT_EQ(r, buf) << "an answer is always the caller's buffer";
    }
    return r ? r : "(null)";
  }
  test::AttachedTest attached{"[QDM]\nls-R=$SELFAUTOPARENT/db\n"};
  char buf[260];
};

TEST_F(DirSearchTest, ElementsAndTheirAnswers) {
  const struct {
    std::vector<std::string> elements;
    std::string name, answer;
  } cases[] = {
      {{"."}, "x", "(null)"},
      {{p("a/b//")}, "x", p("a/b/x")},
      {{p("a/b//")}, "only-deep", p("a/b/c/only-deep")},
      {{p("plain")}, "x", p("plain/x")},
      {{p("plain/")}, "x", p("plain/x")},
      {{"!!" + p("plain")}, "x", p("plain/x")},
      {{p("a")}, "x", "(null)"},
      {{p("db")}, "listed.tex", p("db/listed.tex")},
      {{p("db")}, "unlisted.tex", "(null)"},
      {{p("db//")}, "unlisted.tex", "(null)"},
      {{p("db"), p("plain")}, "x", p("plain/x")},
      {{p("missing"), ".", p("plain")}, "x", p("plain/x")},
      {{p("a/b"), p("plain")}, "x", p("a/b/x")},
      {{""}, "x", "(null)"},
      {{p("plain/") + std::string(300, 'z')}, "x", "(null)"},
      {{p("plain")}, std::string(300, 'n'), "(null)"},
  };
  for (const auto &c : cases)
    EXPECT_EQ(search(c.elements, c.name.c_str()), c.answer) << c.elements.front() << " " << c.name;
}

TEST_F(DirSearchTest, AShortDoubleSlashIsNotRecursive) {
  // "a//" is three characters: probed as a// followed by the name.
  ScopedCwd cwd(attached.box.root());
  EXPECT_EQ(search({"a//"}, "x"), "(null)");
  EXPECT_EQ(search({"a//"}, "b"), "a//b");
}

TEST_F(DirSearchTest, TraceShowsEachStep) {
  Trace = 1;
  search({p("a/b//")}, "x");
  Trace = 0;
  EXPECT_TRUE(logged("Check directory: " + p("a/b//")));
  EXPECT_TRUE(logged("Recursive search: " + p("a/b//")));
  EXPECT_TRUE(logged("OK: " + p("a/b/x")));
}

TEST_F(DirSearchTest, RecurseDirReportsWhatItCannotWalk) {
  char dir[260];
  const struct {
    std::string dir, message;
  } cases[] = {
      {p("nowhere"), "WARNING: absent directory: " + p("nowhere")},
      {p("plain/x"), "WARNING: is not a directory: " + p("plain/x")},
  };
  for (const auto &c : cases) {
    std::snprintf(dir, sizeof dir, "%s", c.dir.c_str());
    EXPECT_EQ(recurse_dir(dir, "x"), nullptr);
    EXPECT_TRUE(logged(c.message)) << c.message;
  }
}

TEST_F(DirSearchTest, LinkCyclesEndAndDanglingLinksAreReported) {
  fs::create_directories(p("loop/a/b"));
  fs::create_symlink(p("loop"), p("loop/a/b/up"));
  fs::create_symlink(p("loop/a"), p("loop/a/side"));
  fs::create_symlink(p("loop/gone"), p("loop/a/dangling"));
  char dir[260];
  std::snprintf(dir, sizeof dir, "%s", p("loop").c_str());
  EXPECT_EQ(recurse_dir(dir, "never"), nullptr);
  EXPECT_TRUE(logged("ERROR: Can't access directory: " + p("loop/a/dangling")));
  attached.box.write("loop/a/b/found", "x");
  std::snprintf(dir, sizeof dir, "%s", p("loop").c_str());
  EXPECT_STREQ(recurse_dir(dir, "found"), p("loop/a/b/found").c_str());
}

// A directory that cannot be opened is reported and its siblings are still
// searched. Tests may run as root, for whom no permission bit closes a
// directory, so opendir is made to fail by leaving no file descriptor free
// beyond the one the walk's top directory takes.
TEST_F(DirSearchTest, AnUnreadableSubdirectoryIsPassedOver) {
  fs::create_directories(p("walk/closed/inner"));
  attached.box.write("walk/open/x", "x");
  bool closed_first = false;
  if (DIR *d = opendir(p("walk").c_str())) {
    while (const dirent *e = readdir(d)) {
      if (std::strcmp(e->d_name, "open") == 0) break;
      if (std::strcmp(e->d_name, "closed") == 0) closed_first = true;
    }
    closedir(d);
  }
  char dir[260];
  std::snprintf(dir, sizeof dir, "%s", p("walk").c_str());

  const int lowest_free = open("/dev/null", O_RDONLY);
  ASSERT_GE(lowest_free, 0);
  close(lowest_free);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowest_free) + 1;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  const char *r = recurse_dir(dir, "x");
  setrlimit(RLIMIT_NOFILE, &saved);

  ASSERT_NE(r, nullptr);
  EXPECT_EQ(std::string(r), p("walk/open/x"));
  EXPECT_EQ(logged("ERROR: Can't opendir: " + p("walk/closed")), closed_first);
}

class DirSearchAppBundle : public ::testing::Test {
 protected:
  std::string p(const std::string &rel) const { return attached.box.path(rel); }
  test::AttachedTest attached{"[QDM]\n"};
};

TEST_F(DirSearchAppBundle, LinkFilesResolveBesideTheProgram) {
  attached.box.write("A/B/setup", "x");
  attached.box.write("C/setup", "x");
  attached.box.write("A/B/X", "x");
  const struct {
    const char *link;  // nullptr: no link file
    std::string answer;
    int warnings;
  } cases[] = {
      {nullptr, p("A/B/setup"), 0},
      {"../../C/setup\n", p("C/setup"), 0},
      {"X", p("A/B/X"), 0},
      {"X \t\r\n", p("A/B/X"), 0},
      {"missing\n", p("A/B/setup"), 1},
      {"../../../../../../../../../../../../C/setup", p("A/B/setup"), 1},
  };
  for (const auto &c : cases) {
    fs::remove(p("A/B/setup.lnk"));
    if (c.link) attached.box.write("A/B/setup.lnk", c.link);
    std::string path = p("A/B/setup");
    const int warnings = QDMMsgInfo()[2];
    const char *r = find_AppBundle(path.data());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::string(r), c.answer) << (c.link ? c.link : "(no link)");
    EXPECT_EQ(QDMMsgInfo()[2] - warnings, c.warnings) << (c.link ? c.link : "(no link)");
  }
  char *m[1];
  ASSERT_EQ(QDMGetMessages(m, 1), 1);
  EXPECT_THAT(m[0], ::testing::StartsWith("WARNING: not present link file: /"));
}

TEST_F(DirSearchAppBundle, ANameWithoutDirectoryGetsARootedTarget) {
  ScopedCwd cwd(attached.box.root());
  attached.box.write("tool.lnk", "tmp\n");
  char name[] = "tool";
  EXPECT_STREQ(find_AppBundle(name), "/tmp");
}

}  // namespace
}  // namespace trv
