// AutoMake and AutoDownload on their own: the routes of a make command, the
// setup program's run with granted, refused and missing rights or program,
// the package spec, failures of the system, and the download lock.
#include <fcntl.h>
#include <signal.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "search/search.h"
#include "support/forked.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Every line this process logs, whole (the queue cuts them to 100).
std::vector<std::string> g_lines;
void tap(const char *text) { g_lines.emplace_back(text); }
std::vector<int> g_states;
void notifier(int value) { g_states.push_back(value); }

// Collects what is written on file descriptor 1 for the life of the object.
class StdoutCapture {
 public:
  explicit StdoutCapture(const std::string &file) : file_(file) {
    std::fflush(stdout);
    saved_ = dup(1);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    close(fd);
  }
  ~StdoutCapture() { restore(); }
  std::string text() {
    restore();
    return test::read_file(file_);
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
    saved_ = -1;
  }
  std::string file_;
  int saved_ = -1;
};

// The lines of a download run without those the configuration reset logs
// between "INFO: QDMRestart..." and "Search again".
std::vector<std::string> without_reset(const std::vector<std::string> &lines) {
  std::vector<std::string> out;
  bool in_reset = false;
  for (const std::string &l : lines) {
    if (l == "Search again") in_reset = false;
    if (!in_reset) out.push_back(l);
    if (l == "INFO: QDMRestart...") in_reset = true;
  }
  return out;
}

class RemediesTest : public ::testing::Test {
 protected:
  RemediesTest() {
    g_lines.clear();
    g_states.clear();
    QDMSetMessageTap(tap);
    QDMSetStateNotifier(notifier);
    saved_auth_ = AuthRef;
    AuthRef = 0;
    write_script("bin/mkfile", "echo \"making $1\"\n: > \"" + p("made") + "/$1\"\n");
    // The wrapper runs its arguments as a command and copies the output.
    write_script("bin/Quenmark.exe", "echo \"wrapper: $*\"\n\"$@\"\n");
    write_script("bin/grant", "[ \"$1\" = -n ] && shift\nexec \"$@\"\n");
    write_script("bin/refuse", "exit 1\n");
    write_script("bin/setup", "echo \"setup $*\"\n");
    mkdir(p("made").c_str(), 0755);
  }
  ~RemediesTest() override {
    QDMSetMessageTap(nullptr);
    AuthRef = saved_auth_;
  }
  std::string p(const std::string &rel) const { return attached.box.path(rel); }
  void write_script(const std::string &rel, const std::string &body) const {
    attached.box.write(rel, "#!/bin/sh\n" + body);
    chmod(p(rel).c_str(), 0755);
  }
  bool exists(const std::string &rel) const { return access(p(rel).c_str(), F_OK) == 0; }
  int32_t resets() {
    CacheGuard g;
    return hdr(Word::Reset_Count);
  }
  // No run may leave the download lock held.
  bool download_lock_free() const {
    sem_t *s = sem_open(attached.box.download_lock_name().c_str(), 0);
    if (s == SEM_FAILED) return errno == ENOENT;  // never made: free
    const bool free = sem_trywait(s) == 0;
    if (free) sem_post(s);
    sem_close(s);
    return free;
  }

  test::AttachedTest attached;
  test::ScopedEnv helper{"TROVALIS_PRIV_HELPER", nullptr};

 private:
  int saved_auth_;
};

TEST_F(RemediesTest, TheLockNameCarriesTheInstance) {
  char name[128];
  ASSERT_TRUE(download_lock_name(name, sizeof name));
  EXPECT_EQ(std::string(name), attached.box.download_lock_name());
  EXPECT_FALSE(download_lock_name(name, 20)) << "a name that does not fit is refused";
}

// Through the wrapper the command and its output go to the log; on the
// console the command line goes to standard error and nothing is relayed.
TEST_F(RemediesTest, MakeThroughTheWrapperOrOnTheConsole) {
  const std::string make = p("bin/mkfile");
  const std::string wrapped = "\"" + p("bin/Quenmark.exe") + "\" " + make + " cmr10";
  const struct {
    bool to_window;
    std::vector<std::string> lines;
    std::string err;
  } cases[] = {
      {true,
       {"Running " + wrapped, "Message: wrapper: " + make + " cmr10\n", "Message: making cmr10\n"},
       ""},
      {false, {}, "\nRunning [" + make + " cmr10]\n"},
  };
  for (const auto &c : cases) {
    g_lines.clear();
    g_states.clear();
    unlink(p("made/cmr10").c_str());
    ::testing::internal::CaptureStderr();
    auto_make(make.c_str(), "cmr10", c.to_window);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(g_lines, ElementsAreArray(c.lines)) << c.to_window;
    EXPECT_EQ(err, c.err) << c.to_window;
    EXPECT_TRUE(exists("made/cmr10")) << c.to_window;
    EXPECT_THAT(g_states, ElementsAre(1, 0));
    EXPECT_TRUE(download_lock_free());
  }
}

// The relay reads into the 260-byte path buffer: a longer line arrives in
// pieces of 259 characters, only the last one with the line end.
TEST_F(RemediesTest, ALongOutputLineIsRelayedInPieces) {
  write_script("bin/talk", "echo " + std::string(300, 'x') + "\n");
  auto_make(p("bin/talk").c_str(), "n", true);
  ASSERT_EQ(g_lines.size(), 4u);
  // The log keeps 255 characters of the first piece; the second shows
  // where the cut was made.
  EXPECT_THAT(g_lines[2], StartsWith("Message: xxxxxxxx"));
  EXPECT_EQ(g_lines[3], "Message: " + std::string(300 - 259, 'x') + "\n");
}

// A command line that does not fit the path buffer is not cut into a
// different command: it is refused on both routes.
TEST_F(RemediesTest, ACommandTooLongForTheBufferIsNotRun) {
  const std::string name(250, 'a');
  for (const bool to_window : {true, false}) {
    g_lines.clear();
    g_states.clear();
    auto_make(p("bin/mkfile").c_str(), name.c_str(), to_window);
    EXPECT_THAT(g_lines, ElementsAre(StartsWith("ERROR: Make command too long, not run: aaaa")));
    EXPECT_FALSE(exists("made/" + name.substr(0, 10)));
    EXPECT_THAT(g_states, ElementsAre(1, 0));
    EXPECT_TRUE(download_lock_free());
  }
}

// With no file descriptor left neither the download lock nor the wrapper
// can be had: both are reported and the run ends cleanly.
TEST_F(RemediesTest, NoDescriptorsLeftReportsTheLockAndPopen) {
  const int lowest_free = open("/dev/null", O_RDONLY);
  ASSERT_GE(lowest_free, 0);
  close(lowest_free);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowest_free);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  auto_make(p("bin/mkfile").c_str(), "cmr10", true);
  setrlimit(RLIMIT_NOFILE, &saved);

  const std::string lock = attached.box.download_lock_name();
  EXPECT_THAT(g_lines,
              ElementsAre("ERROR: [" + std::string(std::strerror(EMFILE)) +
                              "] of creating MUTEX '" + lock + "'",
                          "Running \"" + p("bin/Quenmark.exe") + "\" " + p("bin/mkfile") + " cmr10",
                          "ERROR: popen -- Unknown popen error"));
  EXPECT_FALSE(exists("made/cmr10"));
  EXPECT_THAT(g_states, ElementsAre(1, 0));
}

// Waiting for the download lock while holding the cache lock could wait
// forever on a process that resets under the download lock; such a call
// runs without the download lock instead.
TEST_F(RemediesTest, ACallerHoldingTheCacheLockRunsWithoutTheDownloadLock) {
  {
    CacheGuard g;
    auto_make(p("bin/mkfile").c_str(), "cmr10", true);
  }
  EXPECT_EQ(g_lines.front(), "ERROR: download lock not taken: the cache lock is held");
  EXPECT_TRUE(exists("made/cmr10"));
}

// A make run whose predecessor died holding the download lock goes on: the
// lock is taken over (after a slice of the download lock's longer watch),
// and the log says from whom.
TEST_F(RemediesTest, AMakeRunGoesOnAfterTheDownloadLockHolderDied) {
  const std::string lock = attached.box.download_lock_name();
  test::Forked holder([&](test::Forked &me) {
    WaitForSingleObject(CreateMutex(nullptr, 0, lock.c_str()), -1);
    me.say("held");
    for (;;) pause();
    return 0;
  });
  ASSERT_EQ(holder.read_line(), "held");
  const pid_t pid = holder.pid();
  holder.kill_and_wait(SIGKILL);
  EXPECT_FALSE(download_lock_free());

  auto_make(p("bin/mkfile").c_str(), "cmr10", true);
  EXPECT_THAT(g_lines, Contains("WARNING: lock `" + lock + "' taken over from dead process " +
                                std::to_string(pid)));
  EXPECT_TRUE(exists("made/cmr10"));
  EXPECT_TRUE(download_lock_free());
}

// The setup program's run in every outcome. Whatever happens, the
// configuration is reset once, the search is told to go again and the
// download lock is free afterwards.
TEST_F(RemediesTest, DownloadRunsSetupWithRightsOrReportsWhy) {
  write_script("other/setup", "echo \"linked $*\"\n");
  {
    CacheGuard g;
    set_hdr(Word::Net_Index, stradd("/x/ls-R.net"));
  }
  const std::string marker = ":pkg:tex/latex/foo.sty";
  const std::string setup = p("bin/setup");
  const struct {
    const char *name;
    const char *helper;  // TROVALIS_PRIV_HELPER; nullptr: none (as root)
    const char *setup;   // "missing", "plain" (not executable), "linked", "badshell"
    std::vector<std::string> middle;
    std::string out;
  } cases[] = {
      {"granted", "grant", "",
       {"Running " + setup, "Reading ...", "Line: setup -d /x/ls-R.net+pkg\n", "Reading ..."},
       "setup -d /x/ls-R.net+pkg\n"},
      {"as root", nullptr, "",
       {"Running " + setup, "Reading ...", "Line: setup -d /x/ls-R.net+pkg\n", "Reading ..."},
       "setup -d /x/ls-R.net+pkg\n"},
      {"linked", "grant", "linked",
       {"Running " + p("other/setup"), "Reading ...", "Line: linked -d /x/ls-R.net+pkg\n",
        "Reading ..."},
       "linked -d /x/ls-R.net+pkg\n"},
      {"refused", "refuse", "",
       {"ERROR: OSX AuthorizationCopyRights priveleges failed"}, ""},
      {"no helper", "no-such-helper", "",
       {"ERROR: OSX AuthorizationCopyRights priveleges failed"}, ""},
      {"missing", "grant", "missing", {"Running " + setup, "ERROR: Can't execute setup program " + setup}, ""},
      {"not executable", "grant", "plain",
       {"Running " + setup, "ERROR: Can't execute setup program " + setup}, ""},
      // Executable, but the system cannot start it: found out in the child.
      {"bad interpreter", nullptr, "badshell",
       {"Running " + setup, "ERROR: Can't execute setup program " + setup}, ""},
  };
  for (const auto &c : cases) {
    if (c.helper == nullptr && geteuid() != 0) continue;
    {
      CacheGuard g;
      set_hdr(Word::Net_Index, stradd("/x/ls-R.net"));  // the reset clears it
    }
    write_script("bin/setup", "echo \"setup $*\"\n");
    unlink(p("bin/setup.lnk").c_str());
    if (std::strcmp(c.setup, "missing") == 0) unlink(setup.c_str());
    if (std::strcmp(c.setup, "plain") == 0) chmod(setup.c_str(), 0644);
    if (std::strcmp(c.setup, "linked") == 0) attached.box.write("bin/setup.lnk", "../other/setup\n");
    if (std::strcmp(c.setup, "badshell") == 0) attached.box.write("bin/setup", "#!/no/such/shell\n");
    const std::string helper_path = c.helper ? p(std::string("bin/") + c.helper) : "";
    test::ScopedEnv env("TROVALIS_PRIV_HELPER", c.helper ? helper_path.c_str() : nullptr);
    g_lines.clear();
    g_states.clear();
    const int32_t before = resets();

    StdoutCapture out(p("stdout"));
    auto_download(marker.c_str());
    EXPECT_EQ(out.text(), c.out) << c.name;

    std::vector<std::string> expect = {"INFO: Downloading " + marker,
                                       "INFO: Downloading and Installing: /x/ls-R.net+pkg"};
    expect.insert(expect.end(), c.middle.begin(), c.middle.end());
    expect.insert(expect.end(), {"INFO: QDMRestart...", "Search again"});
    EXPECT_THAT(without_reset(g_lines), ElementsAreArray(expect)) << c.name;
    EXPECT_EQ(resets(), before + 1) << c.name;
    EXPECT_THAT(g_states, ElementsAre(0)) << c.name;
    EXPECT_EQ(AuthRef, 1) << c.name;
    EXPECT_TRUE(download_lock_free()) << c.name;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << c.name << ": a child was left unreaped";
  }
}

// The package spec: the network index path, '+' and the text between the
// marker's ':' and the next one; one that does not fit is not downloaded.
TEST_F(RemediesTest, PackageSpecFromTheIndexAndTheMarker) {
  const std::string long_name(170, 'p');
  const struct {
    const char *index;  // nullptr: no network index
    std::string marker, line;
  } cases[] = {
      {"/x/ls-R.net", ":pkgname:tex/latex/foo.sty",
       "INFO: Downloading and Installing: /x/ls-R.net+pkgname"},
      {"/x/ls-R.net", ":whole", "INFO: Downloading and Installing: /x/ls-R.net+whole"},
      {"/x/ls-R.net", "::empty", "INFO: Downloading and Installing: /x/ls-R.net+"},
      {nullptr, ":pkg:a", "INFO: Downloading and Installing: +pkg"},
      {"/x/ls-R.net", ":" + long_name + ":a",
       "ERROR: Package name too long, not downloaded: :" + long_name + ":a"},
  };
  test::ScopedEnv env("TROVALIS_PRIV_HELPER", p("bin/refuse").c_str());
  for (const auto &c : cases) {
    {
      CacheGuard g;
      set_hdr(Word::Net_Index, c.index ? stradd(c.index) : 0);
    }
    g_lines.clear();
    auto_download(c.marker.c_str());
    ASSERT_GE(g_lines.size(), 2u);
    EXPECT_EQ(g_lines[1], c.line);
    const bool asked = std::find(g_lines.begin(), g_lines.end(),
                                 "ERROR: OSX AuthorizationCopyRights priveleges failed") !=
                       g_lines.end();
    EXPECT_EQ(asked, c.line.rfind("INFO", 0) == 0) << c.marker;
    EXPECT_EQ(g_lines.back(), "Search again");
  }
}

// Two processes that make at the same time run one after the other: each
// make command's start and end lines are adjacent in the shared file.
TEST_F(RemediesTest, TwoProcessesMakeOneAfterTheOther) {
  write_script("bin/slowmake",
               "echo \"start $1\" >> \"" + p("order") + "\"\n"
               "sleep 0.3\n"
               "echo \"end $1\" >> \"" + p("order") + "\"\n");
  const std::string make = p("bin/slowmake");
  pid_t kids[2];
  for (int i = 0; i < 2; ++i) {
    kids[i] = fork();
    ASSERT_GE(kids[i], 0);
    if (kids[i] == 0) {
      auto_make(make.c_str(), i == 0 ? "a" : "b", true);
      _exit(0);
    }
  }
  for (const pid_t kid : kids) {
    int status = 0;
    ASSERT_EQ(waitpid(kid, &status, 0), kid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const std::string order = test::read_file(p("order"));
  EXPECT_TRUE(order == "start a\nend a\nstart b\nend b\n" ||
              order == "start b\nend b\nstart a\nend a\n")
      << order;
  EXPECT_TRUE(download_lock_free());
}

}  // namespace
}  // namespace trv
