// The library inside programs it does not own: its calls stay its own, a
// configuration named by path, databases that stay fresh, and no shared
// damage from a process that cannot read its files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "search/search.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;
using test::Sandbox;

// A tree with an ls-R that lists fonts/one.tfm.
const char kTreeIni[] =
    "[QDM]\nls-R=$SELFAUTOPARENT/texmf\ntfm=$SELFAUTOPARENT/texmf//+.tfm\n";

void make_tree(const Sandbox &box) {
  box.write("texmf/fonts/one.tfm", "");
  box.write("texmf/ls-R", "% ls-R\n./fonts:\none.tfm\n");
}

// A host compiled for these tests, linked against trovalis.so (and, ahead
// of it, against an impostor): "starve" uses up every file descriptor
// first; then each TYPE NAME pair is searched.
const char kHostSource[] = R"c(#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include "trovalis.h"
int main(int argc, char **argv) {
  const int starve = argc > 1 && strcmp(argv[1], "starve") == 0;
  while (starve && dup(0) >= 0) {}
  for (int i = 1 + starve; i + 1 < argc; i += 2) {
    const char *r = QDMSearch(argv[i], argv[i + 1]);
    printf("%s\n", r ? r : "(null)");
  }
  return 0;
}
)c";

// Defines the library's exported helpers the way TeX Live's libkpathsea
// does: any call of the library that reaches one ends the process.
const char kImpostorSource[] = R"(#include <unistd.h>
static void caught(void) { write(2, "impostor called\n", 16); _exit(97); }
int hash_create(int n) { (void)n; caught(); return 0; }
void hash_insert(int t, const char *k, int v) { (void)t; (void)k; (void)v; caught(); }
int hash_lookup(int t, const char *k) { (void)t; (void)k; caught(); return 0; }
)";

#if defined(__SANITIZE_ADDRESS__)
#define TRV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TRV_SANITIZED 1
#endif
#endif
#ifdef TRV_SANITIZED
const std::string kSanitize = " -fsanitize=address,undefined";
#else
const std::string kSanitize;
#endif

// Compiles ROOT/OUT (a program, or a shared library with -shared) from
// `source` with the system's C compiler.
void compile(const Sandbox &box, const std::string &out, const char *source, const std::string &flags) {
  box.write(out + ".c", source);
  const std::string cmd = "cc -o '" + box.path(out) + "' '" + box.path(out + ".c") + "' -I'" +
                          TROVALIS_SOURCE_DIR + "/include' " + flags + kSanitize;
  const test::RunResult r = test::run({"/bin/sh", "-c", cmd}, box.env());
  EXPECT_EQ(r.status, 0) << cmd << "\n" << r.err;
}

// A library that defines hash_create, hash_insert and hash_lookup ahead of
// trovalis (as libkpathsea does in a TeX program): the reset that builds
// the region and the searches still call trovalis's own, and nothing of C++
// is exported. A process that has used up its file descriptors cannot read
// TEXMF.INI at its first search of a type: it answers "not found" and says
// why, but stores nothing (the type's value, its format record and the miss
// would make every later process answer "not found" until a reset).
TEST(Embedding, ItsCallsStayItsOwnAndAStarvedProcessLeavesNoMissBehind) {
  Sandbox box(kTreeIni);
  make_tree(box);
  const std::string lib = TROVALIS_TEST_LIB, bin = box.path("bin"), host = bin + "/embed";
  compile(box, "bin/libimpostor.so", kImpostorSource, "-shared -fPIC");
#ifdef __linux__
  const std::string needed = "-Wl,--no-as-needed ";  // the host calls nothing of it
#else
  const std::string needed;
#endif
  compile(box, "bin/embed", kHostSource,
          needed + "'" + bin + "/libimpostor.so' '" + lib + "' -Wl,-rpath,'" + bin +
              "' -Wl,-rpath,'" + fs::path(lib).parent_path().string() + "'");
  ASSERT_FALSE(HasFailure());
  EXPECT_EQ(test::run({host}, box.env()).status, 0);  // the reset that builds the region
  const test::RunResult starved = test::run({host, "starve", "tfm", "one"}, box.env());
  EXPECT_EQ(starved.out + std::to_string(starved.status), "(null)\n0") << starved.err;
  const test::RunResult r = test::run({host, "tfm", "one", "tfm", "two"}, box.env());
  EXPECT_EQ(r.out + std::to_string(r.status), box.path("texmf/fonts/one.tfm") + "\n(null)\n0")
      << r.err;
  const std::string log = test::run({box.install_host(), "messages", "40"}, box.env()).out;
  EXPECT_THAT(log, HasSubstr("WARNING: Not cached, can't read (" +
                                     std::string(std::strerror(EMFILE)) + "): " + box.root()));
#ifdef __linux__
  const test::RunResult nm =
      test::run({"/bin/sh", "-c", "nm -D --defined-only '" + lib + "'"}, box.env());
  EXPECT_THAT(nm.out, HasSubstr(" T hash_lookup\n"));
  EXPECT_THAT(nm.out, Not(HasSubstr(" _Z")));
#endif
}

// TeX Live's tools rewrite ls-R files without telling the cache, which
// holds the miss of a file they have just installed. The next process to
// start takes the new contents in, once, whether the file was replaced by a
// rename (mktexlsr), rewritten in place at the same size within the same
// second, or is new in a tree that had none.
TEST(Embedding, TheNextProcessSeesARewrittenDatabase) {
  const struct {
    const char *how, *tree, *ls_r;
    bool renamed;
  } cases[] = {
      {"renamed over", "texmf", "% ls-R\n./fonts:\none.tfm\ntwo.tfm\n", true},
      {"same size in place", "texmf", "% ls-R\n./fonts:\ntwo.tfm\n", false},
      {"new in a tree without one", "more", "% ls-R\n./fonts:\ntwo.tfm\n", false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.how);
    Sandbox box("[QDM]\nls-R=$SELFAUTOPARENT/texmf;$SELFAUTOPARENT/more\n"
                "tfm=$SELFAUTOPARENT/texmf//;$SELFAUTOPARENT/more//+.tfm\n");
    make_tree(box);
    box.write("more/README", "");  // walked while it has no ls-R
    const std::string host = box.install_host(), tree = c.tree;
    EXPECT_EQ(test::run({host, "search", "tfm", "two"}, box.env()).out, "answer=(null)\n");
    box.write(tree + "/fonts/two.tfm", "");
    box.write(tree + (c.renamed ? "/ls-R.new" : "/ls-R"), c.ls_r);
    if (c.renamed) fs::rename(box.path(tree + "/ls-R.new"), box.path(tree + "/ls-R"));
    const std::string found = "answer=" + box.path(tree + "/fonts/two.tfm") + "\n";
    EXPECT_EQ(test::run({host, "search", "tfm", "two"}, box.env()).out, found);
    EXPECT_EQ(test::run({host, "search", "tfm", "two"}, box.env()).out, found);
    const std::string log = test::run({host, "messages", "40"}, box.env()).out;
    const std::string reset = "INFO: Resetting";
    EXPECT_TRUE(log.find(reset) != std::string::npos && log.find(reset) == log.rfind(reset)) << log;
  }
}

// A program far from any TEXMF.INI (say /usr/bin/pdftex) is given one with
// TROVALIS_INI, which must name a readable file; the per-user folder on
// Linux follows $XDG_CONFIG_HOME.
TEST(Embedding, ANamedConfigurationServesAProgramOutsideTheTree) {
  Sandbox elsewhere;
  fs::remove(elsewhere.path("TEXMF.INI"));
  const std::string host = elsewhere.install_host();
  // Both relative to the tree's root; xdg "" leaves the variable empty.
  for (auto [ini, xdg] : {std::pair{"TEXMF.INI", ""}, {"TEXMF.INI", "xdg"}, {"missing.ini", ""},
                          {"texmf", ""}}) {
    SCOPED_TRACE(std::string(ini) + " " + xdg);
    Sandbox box(kTreeIni);
    make_tree(box);
    const test::RunResult r =
        test::run({host, "info", "search", "tfm", "one", "request", "?<$SELFAUTOPARENT>"},
                  box.env({{"TROVALIS_INI", box.path(ini)},
                           {"XDG_CONFIG_HOME", *xdg ? box.path(xdg) : ""}}));
    const bool ok = std::string(ini) == "TEXMF.INI";
    EXPECT_EQ(r.status, ok ? 0 : 1) << r.err;
    EXPECT_THAT(r.err, HasSubstr(ok ? "" : "TROVALIS_INI=" + box.path(ini) + " names no readable file"));
    if (!ok) continue;
    const std::string user = *xdg ? box.path(xdg) : box.home() + "/.config";
    EXPECT_THAT(r.out, HasSubstr("\nuser=" + user + "/Zelvan TeX/TEXMF.INI\n"));
    EXPECT_THAT(r.out, HasSubstr("\nanswer=" + box.path("texmf/fonts/one.tfm") + "\nanswer=" +
                                 box.root() + "\n"));
  }
}

// The registry refuses a key whose section the profile store cannot hold,
// rather than report success and lose the value; the pool logs a refusal. A
// download lock whose semaphore is not usable (here: not a regular file) is
// reported once in the log; AutoMake runs without it and standard error
// carries nothing but the console make line.
TEST(Embedding, LimitsAreReportedNotSilent) {
  test::AttachedTest attached;
  const int hkcu = static_cast<int>(0x80000001u);
  for (const size_t len : {253u, 254u}) {
    const std::string sub(len - 18, 'k');  // "HKEY_CURRENT_USER\" is 18
    EXPECT_EQ(RegSetValue(hkcu, sub.c_str(), 1, "v", 1), len <= 253 ? 0 : 1) << len;
    char back[8] = "";
    int size = sizeof back;
    EXPECT_EQ(RegQueryValue(hkcu, sub.c_str(), back, &size), len <= 253 ? 0 : 1) << len;
  }
  EXPECT_EQ(QDMAddToPool(std::string(65536, 'x').c_str()), 0);
  char *texts[20];
  ASSERT_EQ(QDMGetMessages(texts, 1), 1);
  EXPECT_STREQ(texts[0], "QDM-prog: ERROR: Pool text of 65536 bytes refused: longer than 65535");
#ifdef __linux__
  const std::string sem = "/dev/shm/sem." + attached.box.download_lock_name();
  ASSERT_EQ(mkdir(sem.c_str(), 0700), 0);
  ::testing::internal::CaptureStderr();
  auto_make("true", "a", false);
  auto_make("true", "b", false);
  const std::string err = ::testing::internal::GetCapturedStderr();
  rmdir(sem.c_str());
  EXPECT_THAT(err, Not(HasSubstr("ERROR")));
  const int n = QDMGetMessages(texts, 20);
  EXPECT_EQ(std::count(texts, texts + n, "QDM-prog: ERROR: [not a regular file] of creating MUTEX '" +
                                             attached.box.download_lock_name() + "'"),
            1);
#endif
}

}  // namespace
}  // namespace trv
