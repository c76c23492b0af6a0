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
#include <map>
#include <string>
#include <vector>

#include "core/region.h"
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

std::string dir_of(const std::string &path) { return fs::path(path).parent_path().string(); }

// The newest n lines of the instance's log, read through the test host.
std::string log_of(const Sandbox &box, const std::string &host) {
  return test::run({host, "messages", "40"}, box.env()).out;
}

// A host compiled for these tests, linked against trovalis.so (and, ahead
// of it, against `first` when given): "starve" uses up every file
// descriptor first; then each TYPE NAME pair is searched.
const char kHostSource[] = R"c(#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include "trovalis.h"
int main(int argc, char **argv) {
  int i = 1;
  if (argc > 1 && strcmp(argv[1], "starve") == 0) {
    while (dup(0) >= 0) {}
    i = 2;
  }
  for (; i + 1 < argc; i += 2) {
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

// Compiles `out` (a program, or a shared library with -shared) from
// `source` with the system's C compiler; false when that fails.
bool compile(const Sandbox &box, const std::string &out, const char *source,
             const std::string &flags) {
  box.write(out + ".c", source);
  const std::string lib = TROVALIS_TEST_LIB;
  const std::string cmd = "cc -o '" + box.path(out) + "' '" + box.path(out + ".c") + "' -I'" +
                          TROVALIS_SOURCE_DIR + "/include' " + flags + kSanitize;
  const test::RunResult r = test::run({"/bin/sh", "-c", cmd}, box.env());
  EXPECT_EQ(r.status, 0) << cmd << "\n" << r.err;
  return r.status == 0;
}

// Builds the impostor library and the host linked against it ahead of
// trovalis.so, both into ROOT/bin.
std::string build_host(const Sandbox &box) {
  const std::string lib = TROVALIS_TEST_LIB, bin = box.path("bin");
  if (!compile(box, "bin/libimpostor.so", kImpostorSource, "-shared -fPIC")) return "";
#ifdef __linux__
  const std::string needed = "-Wl,--no-as-needed ";  // the host calls nothing of it
#else
  const std::string needed;
#endif
  const std::string link = needed + "'" + bin + "/libimpostor.so' '" + lib + "' -Wl,-rpath,'" +
                           bin + "' -Wl,-rpath,'" + dir_of(lib) + "'";
  return compile(box, "bin/embed", kHostSource, link) ? box.path("bin/embed") : "";
}

// A library that defines hash_create, hash_insert and hash_lookup ahead of
// trovalis (as libkpathsea does in a TeX program): the reset that builds
// the region and the searches still call trovalis's own. Nothing of C++ is
// exported.
TEST(Embedding, ItsCallsReachItsOwnFunctionsWhateverIsLoadedFirst) {
  Sandbox box(kTreeIni);
  make_tree(box);
  const std::string host = build_host(box);
  ASSERT_FALSE(host.empty());
  const test::RunResult r = test::run({host, "tfm", "one", "tfm", "two"}, box.env());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, box.path("texmf/fonts/one.tfm") + "\n(null)\n");
#ifdef __linux__
  const test::RunResult nm =
      test::run({"/bin/sh", "-c", std::string("nm -D --defined-only '") + TROVALIS_TEST_LIB + "'"},
                box.env());
  ASSERT_EQ(nm.status, 0);
  EXPECT_THAT(nm.out, HasSubstr(" T hash_lookup\n"));
  EXPECT_THAT(nm.out, Not(HasSubstr(" _Z")));
#endif
}

// A process that has used up its file descriptors cannot read TEXMF.INI
// at its first search of a type. It answers "not found" and says why, but
// stores nothing: the type's value, its format record and the miss would
// make every later process answer "not found" until a reset.
TEST(Embedding, AProcessShortOfDescriptorsLeavesNoMissBehind) {
  Sandbox box(kTreeIni);
  make_tree(box);
  const std::string host = build_host(box);
  ASSERT_FALSE(host.empty());
  ASSERT_EQ(test::run({host}, box.env()).status, 0);  // the region, built normally
  const test::RunResult starved = test::run({host, "starve", "tfm", "one"}, box.env());
  EXPECT_EQ(starved.status, 0) << starved.err;
  EXPECT_EQ(starved.out, "(null)\n");
  const std::string one = box.path("texmf/fonts/one.tfm") + "\n";
  EXPECT_EQ(test::run({host, "tfm", "one"}, box.env()).out, one);
  EXPECT_EQ(test::run({host, "tfm", "one"}, box.env()).out, one);
  EXPECT_THAT(log_of(box, box.install_host()),
              HasSubstr("WARNING: Not cached, can't read (" + std::string(std::strerror(EMFILE)) +
                        "): " + box.root()));
}

// TeX Live's tools rewrite ls-R files without telling the cache, which
// holds the miss of a file they have just installed. The next process to
// start takes the new contents in, once, whether the file was replaced by a
// rename (mktexlsr), rewritten in place at the same size within the same
// second, or is new in a tree that had none.
TEST(Embedding, TheNextProcessSeesARewrittenDatabase) {
  const struct {
    const char *how;
    void (*change)(const Sandbox &);
  } cases[] = {
      {"renamed over",
       [](const Sandbox &b) {
         b.write("texmf/fonts/two.tfm", "");
         b.write("texmf/ls-R.new", "% ls-R\n./fonts:\none.tfm\ntwo.tfm\n");
         fs::rename(b.path("texmf/ls-R.new"), b.path("texmf/ls-R"));
       }},
      {"same size in place",
       [](const Sandbox &b) {
         b.write("texmf/fonts/two.tfm", "");
         b.write("texmf/ls-R", "% ls-R\n./fonts:\ntwo.tfm\n");
       }},
      {"new in a tree without one",
       [](const Sandbox &b) {
         b.write("more/fonts/two.tfm", "");
         b.write("more/ls-R", "% ls-R\n./fonts:\ntwo.tfm\n");
       }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.how);
    Sandbox box("[QDM]\nls-R=$SELFAUTOPARENT/texmf;$SELFAUTOPARENT/more\n"
                "tfm=$SELFAUTOPARENT/texmf//;$SELFAUTOPARENT/more//+.tfm\n");
    make_tree(box);
    box.write("more/README", "");  // walked while it has no ls-R
    const std::string host = box.install_host();
    EXPECT_EQ(test::run({host, "search", "tfm", "two"}, box.env()).out, "answer=(null)\n");
    c.change(box);
    const std::string found = test::run({host, "search", "tfm", "two"}, box.env()).out;
    EXPECT_THAT(found, HasSubstr("/fonts/two.tfm\n"));
    EXPECT_EQ(test::run({host, "search", "tfm", "two"}, box.env()).out, found);
    const std::string log = log_of(box, host);
    size_t resets = 0;
    for (size_t at = 0; (at = log.find("INFO: Resetting", at)) != std::string::npos; ++at) ++resets;
    EXPECT_EQ(resets, 1u) << log;
  }
}

// A program far from any TEXMF.INI (say /usr/bin/pdftex) is given one with
// TROVALIS_INI; the per-user folder on Linux follows $XDG_CONFIG_HOME.
TEST(Embedding, ANamedConfigurationServesAProgramOutsideTheTree) {
  Sandbox elsewhere;
  fs::remove(elsewhere.path("TEXMF.INI"));
  const std::string host = elsewhere.install_host();
  const struct {
    std::string ini;  // relative to the tree's root; "-" unset
    const char *xdg;  // relative to the tree's root; "" unset
    int status;
    std::string out_or_err;
  } cases[] = {
      {"TEXMF.INI", "", 0, "\nuser=HOME/.config/Zelvan TeX/TEXMF.INI\n"},
      {"TEXMF.INI", "xdg", 0, "\nuser=ROOT/xdg/Zelvan TeX/TEXMF.INI\n"},
      {"-", "", 1, "ERROR: Can't locate TEXMF.INI file.\n"},
      {"missing.ini", "", 1, "TROVALIS_INI=ROOT/missing.ini names no readable file"},
      {"texmf", "", 1, "TROVALIS_INI=ROOT/texmf names no readable file"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.ini + " " + c.xdg);
    Sandbox box(kTreeIni);
    make_tree(box);
    std::map<std::string, std::string> env = {
        {"XDG_CONFIG_HOME", c.xdg[0] ? box.path(c.xdg) : ""}};
    if (c.ini != "-") env["TROVALIS_INI"] = box.path(c.ini);
    const test::RunResult r =
        test::run({host, "info", "search", "tfm", "one", "request", "?<$SELFAUTOPARENT>"},
                  box.env(env));
    EXPECT_EQ(r.status, c.status) << r.err;
    std::string want = c.out_or_err;
    for (const auto &[from, to] : {std::pair{"HOME", box.home()}, std::pair{"ROOT", box.root()}})
      if (const size_t at = want.find(from); at != std::string::npos) want.replace(at, 4, to);
    EXPECT_THAT(c.status == 0 ? r.out : r.err, HasSubstr(want));
    if (c.status != 0) continue;
    EXPECT_THAT(r.out, HasSubstr("\nanswer=" + box.path("texmf/fonts/one.tfm") + "\nanswer=" +
                                 box.root() + "\n"));
  }
}

class EmbeddingAttached : public ::testing::Test {
 protected:
  test::AttachedTest attached;
  std::vector<std::string> log(int n) {
    char *texts[64];
    const int got = QDMGetMessages(texts, n);
    return std::vector<std::string>(texts, texts + got);
  }
};

// The registry refuses a key whose section the profile store cannot hold,
// rather than report success and lose the value; the pool logs a refusal.
TEST_F(EmbeddingAttached, LimitsAreReportedNotSilent) {
  const int hkcu = static_cast<int>(0x80000001u);
  for (const size_t len : {253u, 254u}) {
    const std::string sub(len - 18, 'k');  // "HKEY_CURRENT_USER\" is 18
    EXPECT_EQ(RegSetValue(hkcu, sub.c_str(), 1, "v", 1), len <= 253 ? 0 : 1) << len;
    char back[8] = "";
    int size = sizeof back;
    EXPECT_EQ(RegQueryValue(hkcu, sub.c_str(), back, &size), len <= 253 ? 0 : 1) << len;
  }
  const std::string big(65536, 'x');
  EXPECT_EQ(QDMAddToPool(big.c_str()), 0);
  EXPECT_EQ(log(1).at(0),
            "QDM-prog: ERROR: Pool text of 65536 bytes refused: longer than 65535");
}

#ifdef __linux__
// A download lock whose semaphore is not usable (here: not a regular file)
// is reported once in the log; AutoMake runs without it and standard error
// carries nothing but the console make line.
TEST_F(EmbeddingAttached, AnUnusableDownloadLockIsLoggedOnce) {
  const std::string sem = "/dev/shm/sem." + attached.box.download_lock_name();
  ASSERT_EQ(mkdir(sem.c_str(), 0700), 0);
  ::testing::internal::CaptureStderr();
  auto_make("true", "a", false);
  auto_make("true", "b", false);
  const std::string err = ::testing::internal::GetCapturedStderr();
  rmdir(sem.c_str());
  EXPECT_THAT(err, Not(HasSubstr("ERROR")));
  const std::vector<std::string> lines = log(20);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "QDM-prog: ERROR: [not a regular file] of creating MUTEX '" +
                           attached.box.download_lock_name() + "'"),
            1);
}
#endif

}  // namespace
}  // namespace trv
