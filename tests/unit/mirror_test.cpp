// The mirror list and the copy of found files into a mirror's local tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "core/containers.h"
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

int count_logged(const std::string &text) {
  const std::string line = ("QDM-prog: " + text).substr(0, 100);
  int n = 0;
  for (const std::string &l : log_lines()) n += l == line;
  return n;
}

// (mirror directory, local directory) pairs in list order.
std::vector<std::pair<std::string, std::string>> mirror_list() {
  std::vector<std::pair<std::string, std::string>> out;
  CacheGuard g;
  walk_chain(hdr(Word::Mirror_List), [&](int32_t e) {
    const char *local = text_at(entry_value(e));
    out.emplace_back(entry_key(e), local ? local : "(bad)");
    return true;
  });
  return out;
}

// Runs Process_Mirror on a copy of `path` in a 260-byte buffer.
std::string process(const std::string &path) {
  char buf[260];
  std::snprintf(buf, sizeof buf, "%s", path.c_str());
  EXPECT_EQ(Process_Mirror(buf), buf);
  return buf;
}

class ScopedTrace {
 public:
  explicit ScopedTrace(int on) : old_(Trace) { Trace = on; }
  ~ScopedTrace() { Trace = old_; }

 private:
  int old_;
};

class MirrorTest : public ::testing::Test {
 protected:
  // Rewrites both configuration files and resets, as a "!Finish" would.
  void configure(const std::string &main_mirrors, const std::string &user_mirrors = "",
                 const std::string &common = "") {
    attached.box.write("TEXMF.INI", "[common]\nTEXMFLOCAL=$SELFAUTOPARENT/local\n" + common +
                                        "[QDM]\n" + main_mirrors);
    const fs::path user = Zelvan_INI;
    fs::create_directories(user.parent_path());
    std::ofstream(user, std::ios::binary) << user_mirrors;
    CacheGuard g;
    QDMReset();
  }
  std::string root() const { return attached.box.root(); }

  test::AttachedTest attached;
};

TEST_F(MirrorTest, WithoutMirrorsSectionPathsStayAsTheyAre) {
  attached.box.write("net/a.tfm", "a");
  configure("");
  EXPECT_EQ(hdr(Word::Mirror_List), 0);
  EXPECT_EQ(process(root() + "/net/a.tfm"), root() + "/net/a.tfm");
  EXPECT_FALSE(fs::exists(root() + "/local"));
}

TEST_F(MirrorTest, UserFileEntriesComeFirstAndWin) {
  attached.box.write("net/fonts/a.tfm", "font");
  configure("[Mirrors]\n$SELFAUTOPARENT/net=$SELFAUTOPARENT/main-local\n"
            "$SELFAUTOPARENT/other=-\n",
            "[Mirrors]\n$SELFAUTOPARENT/net=$TEXMFLOCAL\n");
  EXPECT_THAT(mirror_list(),
              ::testing::ElementsAre(::testing::Pair(root() + "/net", root() + "/local"),
                                     ::testing::Pair(root() + "/net", root() + "/main-local"),
                                     ::testing::Pair(root() + "/other", "-")));
  EXPECT_EQ(process(root() + "/net/fonts/a.tfm"), root() + "/local/fonts/a.tfm");
  EXPECT_EQ(test::read_file(root() + "/local/fonts/a.tfm"), "font");
  EXPECT_FALSE(fs::exists(root() + "/main-local"));
}

TEST_F(MirrorTest, MatchesDirectoryPrefixThenSeparator) {
  attached.box.write("net/fonts/deep/a.tfm", "deep");
  attached.box.write("net2/a.tfm", "x");
  attached.box.write("net\\c.tfm", "c");  // one name holding a backslash
  attached.box.write("keep/a.tfm", "k");
  attached.box.write("empty/a.tfm", "e");
  // Key spelled with other letter case and slash kinds than the disk.
  configure("[Mirrors]\n$SELFAUTOPARENT\\NET=$TEXMFLOCAL\n$SELFAUTOPARENT/keep=-local\n"
            "$SELFAUTOPARENT/empty=\n$SELFAUTOPARENT\\empty=$TEXMFLOCAL/e\n");
  const std::string r = root();
  struct Case {
    std::string path, expected;
  } cases[] = {
      {r + "/net", r + "/net"},                  // the mirror directory itself
      {r + "/net2/a.tfm", r + "/net2/a.tfm"},    // name continues, no separator
      {r + "/net/fonts/deep/a.tfm", r + "/local/fonts/deep/a.tfm"},
      {r + "/net\\c.tfm", r + "/local/c.tfm"},  // "\" ends the mirror part too
      {r + "/keep/a.tfm", r + "/keep/a.tfm"},    // "-": used in place
      {r + "/empty/a.tfm", r + "/local/e/a.tfm"},  // empty local directory passed over
  };
  for (const Case &c : cases) EXPECT_EQ(process(c.path), c.expected) << c.path;
  EXPECT_EQ(test::read_file(r + "/local/fonts/deep/a.tfm"), "deep");
  EXPECT_EQ(test::read_file(r + "/local/c.tfm"), "c");
  EXPECT_FALSE(fs::exists(r + "/local/a.tfm"));
}

TEST_F(MirrorTest, UnreadableSourceIsUsedInPlace) {
  configure("[Mirrors]\n$SELFAUTOPARENT/net=$TEXMFLOCAL\n");
  const std::string path = root() + "/net/missing.tfm";
  EXPECT_EQ(process(path), path);
  const std::vector<std::string> lines = log_lines(2);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], ("QDM-prog: WARNING: Can't open file: " + path).substr(0, 100));
  EXPECT_EQ(lines[0], ("QDM-prog: WARNING: the file will not be cached: " + path).substr(0, 100));
}

TEST_F(MirrorTest, DestinationBeyondBufferIsRefused) {
  // The local directory is longer than the mirror's, so a path that fits
  // gives a destination that does not.
  const std::string local(100, 'L');
  configure("[Mirrors]\n$SELFAUTOPARENT/net=$LONGLOCAL\n", "",
            "LONGLOCAL=$SELFAUTOPARENT/" + local + "\n");
  ASSERT_THAT(mirror_list(),
              ::testing::ElementsAre(::testing::Pair(root() + "/net", root() + "/" + local)));
  std::string rel = "net/" + std::string(100, 'd') + "/";
  rel += std::string(259 - (root().size() + 1 + rel.size()), 'f');
  attached.box.write(rel, "x");
  const std::string path = root() + "/" + rel;
  ASSERT_EQ(path.size(), 259u);
  EXPECT_EQ(process(path), path);
  EXPECT_EQ(count_logged("WARNING: the file will not be cached: " + path), 1);
  EXPECT_EQ(count_logged("WARNING: Can't open file: " + path), 0);
  EXPECT_FALSE(fs::exists(root() + "/" + local));
}

TEST_F(MirrorTest, CopyTracesBothPathsBeforeTrying) {
  configure("");
  ScopedTrace trace(1);
  attached.box.write("src.tfm", "data");
  const std::string source = root() + "/src.tfm";
  std::string dest = root() + "\\made\\a/b.tfm";
  EXPECT_EQ(Copy_File(source.c_str(), dest.data()), 1);
  EXPECT_EQ(dest, root() + "/made/a/b.tfm");
  EXPECT_EQ(test::read_file(dest), "data");
  EXPECT_EQ(count_logged("Copy file: " + source), 1);
  EXPECT_EQ(count_logged("To:        " + dest), 1);

  // Traced even when the source cannot be read.
  std::string other = root() + "/made/c.tfm";
  EXPECT_EQ(Copy_File((root() + "/none").c_str(), other.data()), 0);
  EXPECT_EQ(count_logged("To:        " + other), 1);
  EXPECT_FALSE(fs::exists(other));
}

TEST_F(MirrorTest, OpenFileReportsWhatCannotBeMade) {
  configure("");
  attached.box.write("plain", "not a directory");
  attached.box.write("old/f", "old text");
  const std::string r = root();
  struct Case {
    std::string path, report;
  } cases[] = {
      {r + "/plain/sub/f", "ERROR: Can't create directory for file: "},
      {r + "/plain/f", "ERROR: Can't create directory for file: "},
      {r + "/old", "ERROR: Can't create directory for file: "},  // a directory
      {"", "ERROR: Can't open for write file: "},  // nothing to make
      {"no-such-dir-" + std::string(300, 'x'), "ERROR: Can't open for write file: "},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(Open_File(c.path.c_str()), nullptr) << c.path;
    EXPECT_EQ(count_logged(c.report + c.path), 1) << c.path;
  }
  // An existing file is truncated.
  FILE *f = Open_File((r + "/old/f").c_str());
  ASSERT_NE(f, nullptr);
  std::fclose(f);
  EXPECT_EQ(test::read_file(r + "/old/f"), "");
}

}  // namespace
}  // namespace trv
