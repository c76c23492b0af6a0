// Search requests end to end: the answer cache, suffixes, quotes,
// definitions, program links, download markers, the remedies behind a miss
// (AutoMake and AutoDownload, serialised by the download lock), the text
// front end, cache maintenance, the cache report, bad input at every
// export, and the trovalis tool as a user runs it from an installed tree.
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "search/search.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

namespace fs = std::filesystem;
using namespace ::testing;
using namespace ::testing::internal;

// The lines this process logs (the tap has up to 255 characters of each),
// each followed by '|', without the directory search's explanations and the
// directories it traces.
std::string g_log;
std::vector<int> g_states;
void tap(const char *text) {
  for (const char *skip : {"No database", "A database", "Found in a", "WARNING: absent INI", "Check dir", "Recursive"})
    if (std::strncmp(text, skip, std::strlen(skip)) == 0) return;
  g_log.append(text).append("|");
}
const char *or_empty(const char *text) { return text != nullptr ? text : ""; }

constexpr const char *kLsR = "% ls-R\n./fonts/tfm:\ncmr10.tfm\n./tex/latex:\narticle.cls\n";

class SearchTest : public Test {
 protected:
  SearchTest() {
    for (const char *f : {"texmf/fonts/tfm/cmr10.tfm", "texmf/tex/latex/article.cls", "disk/both.tfm",
                          "disk/both.TFM", "disk/upper.TFM", "made/.keep", "bin/tool", "real/tool2"})
      put(f, "x");
    put("texmf/ls-R", kLsR), put("bin/tool.lnk", "../real/tool2\n");
    put("texmf/aliases.ini", "[Aliases]\nroman.tfm=cmr10.tfm\n");
    put("bin/mkfile", "#!/bin/sh\ncase \"$1\" in ok*) : > @/made/$1.mf;; esac\necho \"making $1\"\n");
    put("bin/Quenmark.exe", "#!/bin/sh\necho \"wrapper: $*\"\n\"$@\"\n");  // runs its arguments
    put("bin/grant", "#!/bin/sh\n[ \"$1\" = -n ] && shift\nexec \"$@\"\n"), put("bin/refuse", "#!/bin/sh\nexit 1\n");
    QDMSetMessageTap(tap), QDMSetStateNotifier([](int value) { g_states.push_back(value); });
    AuthRef = 0, reset(), g_log.clear(), g_states.clear();
  }
  ~SearchTest() override { QDMSetMessageTap(nullptr), QDMSetStateNotifier(nullptr); }
  const test::Sandbox &box() const { return attached.box; }
  const std::string &root() const { return attached.box.root(); }
  // text with every "@/" replaced by the sandbox's root and '/'
  std::string r(const std::string &text) const {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) text.compare(i, 2, "@/") ? out.append(1, text[i]) : out.append(root());
    return out;
  }
  // Writes a file below the root ("@/" in text is the root); a script is made executable.
  void put(const std::string &rel, const std::string &text) const {
    box().write(rel, r(text));
    if (text.rfind("#!", 0) == 0) chmod(box().path(rel).c_str(), 0755);
  }
  static int32_t reset() { return CacheGuard(), QDMReset(), hdr(Word::Reset_Count); }  // the resets so far
  static std::string ask(const char *type, const std::string &n) { return or_empty(_QDMSearch(type, n.c_str(), 0)); }
  // The answer cached for a name (0 none, 1 a miss); with `answer`, stores
  // that first as a search would ("" a miss).
  static int cached(const char *prog, const char *type, const char *name, const char *answer = nullptr) {
    CacheGuard g;
    const int list = loadi(FormatPath(prog, type));
    if (answer != nullptr) lru_lookup(list, name), lru_insert(list, name, answer[0] ? stradd(answer) : 1);
    return lru_lookup(list, name);
  }
  // Runs the tool with the arguments in `args`, separated by '^'.
  test::RunResult cli(const std::string &args, const std::string &input = "") const {
    if (fs::create_directories(root() + "/lib"))  // bin/trovalis and lib/trovalis.so, as installed
      fs::copy_file(TROVALIS_TEST_CLI, root() + "/bin/trovalis"),
          fs::copy_file(TROVALIS_TEST_LIB, root() + "/lib/trovalis.so");
    std::vector<std::string> argv = {box().path("bin/trovalis")};
    for (size_t at = 0, end = 0; end != std::string::npos && !args.empty(); at = end + 1)
      argv.push_back(r(args.substr(at, (end = args.find('^', at)) - at)));
    return test::run(argv, box().env(), input);
  }
  bool download_lock_free() const {  // no run may leave it held
    int value = 1;
    sem_t *s = sem_open(box().download_lock_name().c_str(), 0);
    if (s != SEM_FAILED) value = test::sem_value(s), sem_close(s);
    return value > 0;
  }

  test::SavedModes modes;
  test::AttachedTest attached{
      "[common]\nTEXMF={$SELFAUTOPARENT/texmf}\nWHO=common\n[latex]\nWHO=latex\n"
      "[QDM]\nls-R=$TEXMF\ntfm=$TEXMF/fonts//;$SELFAUTOPARENT/disk+.tfm.TFM\nvf=$TEXMF/fonts//+.vf\n"
      "tex=$TEXMF/tex//+.tex\nmade=$SELFAUTOPARENT/made+.mf*mkfile\nnopath=\n"
      "Program=$SELFAUTOPARENT/bin\ndefs=$SELFAUTOPARENT/defs.ini;$SELFAUTOPARENT/more.ini\n"};
  test::ScopedEnv helper{"TROVALIS_PRIV_HELPER", nullptr};
  // The make command is looked up along PATH, like any command line.
  test::ScopedEnv path{"PATH", (box().path("bin") + ":" + std::getenv("PATH")).c_str()};
};

TEST_F(SearchTest, AnswersNamesAndDefinitions) {
  Trace = 1;
  EXPECT_EQ(ask("tfm", "cmr10.tfm"), r("@/texmf/fonts/tfm/cmr10.tfm"));
  g_log.clear();
  EXPECT_EQ(ask("TFM", "CMR10.TFM"), r("@/texmf/fonts/tfm/cmr10.tfm"));
  EXPECT_EQ(g_log, "INFO: Getting file Type path: TFM|INFO: file Type path got.|") << "answered from the cache";
  EXPECT_EQ(ask("tfm", "late.tfm"), "");
  put("disk/late.tfm", "x");  // appears on disk after the miss
  EXPECT_EQ(ask("tfm", "late.tfm"), "") << "a cached miss stays a miss";
  EXPECT_EQ(ask("*tfm", "late.tfm"), r("@/disk/late.tfm")) << "'*' ignores the cached miss";
  EXPECT_EQ(ask("tfm", "late.tfm"), r("@/disk/late.tfm"));
  g_log.clear();  // suffixes in order (on disk names compare with case)
  EXPECT_EQ(ask("tfm", "upper"), r("@/disk/upper.TFM"));
  EXPECT_EQ(g_log, r("INFO: Getting file Type path: tfm|INFO: file Type path got.|Search File: upper.tfm|"
                     "Search File: upper.TFM|File: @/disk/upper.TFM|"));
  EXPECT_EQ(cached("prog", "tfm", "upper.TFM") + (cached("prog", "tfm", "upper") > 1), 1) << "cached as asked";
  EXPECT_TRUE(ask("nopath", "a.b").empty() && cached("prog", "nopath", "a.b") == 1) << "a miss";
  EXPECT_THAT(g_log, HasSubstr("|There is no path for file type: nopath|"));

  put("defs.ini", "[Fonts]\nabc.def=exact\nabc.*=short-*-end\n*=any:*\nq=one\n"), put("more.ini", "[Fonts]\nzz.q=2\n");
  const std::string cmr = r("@/texmf/fonts/tfm/cmr10.tfm"), longest(168, 'y');
  const struct {
    const char *prog, *type;
    std::string name, answer;
  } cases[] = {
      {"prog", "tfm", "\"cmr10.tfm\"", cmr},
      {"prog", "tfm", "\"cmr10", cmr},  // no closing quote
      {"prog", "tfm", "both", r("@/disk/both.tfm")},
      {"prog", "tfm", "both.TFM", r("@/disk/both.TFM")},  // a name with '.' as given
      {"prog", "tfm", "\"\"", ""},                {"prog", "tfm", longest, ""},
      {"prog", "tfm", "\"" + std::string(300, 'y') + "\"", ""},
      {"prog", "tex", "latex/article.cls", r("@/texmf/tex/latex/article.cls")},
      {"prog", "Program", "tool", r("@/real/tool2")},  // the link file is followed
      {"[Fonts]", "defs", "abc.def", "exact"},     {"[Fonts]", "defs", "abc.xyz", "short-xyz-end"},
      {"[Fonts]", "defs", "q.r", "any:q.r"},       {"[Fonts]", "defs", "q", "one"},
      {"[Fonts]", "defs", "", "any:"},             {"[Fonts]", "defs", "zz.q", "2"},
  };
  for (const auto &c : cases) {
    QDMReady(c.prog);
    EXPECT_EQ(ask(c.type, c.name), c.answer) << c.prog << c.type << " " << c.name.substr(0, 20);
  }
  put("defs.ini", "[Fonts]\nab*=x\n"), QDMReady("[Fonts");  // read again; without its ']' the rest is the section
  EXPECT_EQ(ask("defs", "abz.q"), "x");
}

// A name only in the network index, by download mode: INFO answers the
// marker, OFF nothing; ON runs the setup program (with rights refused or
// granted), resets the configuration and searches once more.
TEST_F(SearchTest, NetworkMarkerByDownloadMode) {
  put("Update/ls-R.net", ":pkg:\n./fonts/tfm:\nremote.tfm\n"), put("bin/setup", "#!/bin/sh\necho \"setup $*\"\n"
      "echo x > @/texmf/fonts/tfm/remote.tfm\nprintf '\\n./fonts/tfm:\\nremote.tfm\\n' >> @/texmf/ls-R\n");
  const int32_t resets = reset();
  const std::string marker = ":pkg:fonts/tfm/remote.tfm";
  AutoDownload[0] = 0;
  EXPECT_EQ(ask("tfm", "remote.tfm"), marker);
  EXPECT_EQ(ask("tfm", "remote.tfm"), marker) << "from the cache";
  AutoDownload[0] = -1;
  EXPECT_EQ(ask("tfm", "remote.tfm"), "");
  EXPECT_EQ(ask("tfm", "remote"), "");
  EXPECT_GT(cached("prog", "tfm", "remote"), 1) << "the marker is cached in OFF mode too";
  AutoDownload[0] = 1;
  test::ScopedEnv refuse("TROVALIS_PRIV_HELPER", r("@/bin/refuse").c_str());
  EXPECT_EQ(ask("tfm", "remote"), "");
  EXPECT_EQ(reset(), resets + 2) << "one reset, no second download";
  EXPECT_THAT(g_log, ContainsRegex("priveleges failed\\|.*\\|ERROR: Can't download " + marker + "\\|"));
  test::ScopedEnv grant("TROVALIS_PRIV_HELPER", r("@/bin/grant").c_str());
  CaptureStdout();
  EXPECT_EQ(ask("tfm", "remote"), r("@/texmf/fonts/tfm/remote.tfm"));
  EXPECT_EQ(GetCapturedStdout(), r("setup -d @/Update/ls-R.net+pkg\n")) << "the setup program's output is passed on";
  EXPECT_THAT(g_log, HasSubstr(r("|Running @/bin/setup|Reading ...|Line: setup -d @/Update/ls-R.net+pkg\n|")));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left unreaped";
  EXPECT_TRUE(download_lock_free());
}

// The make command by mode and route: (n)ot run, on the (c)onsole with the
// command line on standard error, through the (w)rapper with the command
// and its output in the log, or (t)oo long for the buffer and not run. A
// make that fails runs once per request and its miss is cached.
TEST_F(SearchTest, AutoMakeByModeAndRoute) {
  const struct {
    int mode, console;
    char route;
  } cases[] = {{0, 0, 'n'},  {1, 1, 'n'},  {0, 1, 'c'},  {-1, 1, 'c'}, {-1, 0, 'w'},
               {-2, 1, 'w'}, {-7, 0, 'w'}, {-1, 0, 't'}, {-1, 1, 't'}};
  int i = 0;
  for (const auto &c : cases) {
    const std::string n = (c.route == 't' ? std::string(253, 'o') : "ok") + std::to_string(i++);
    const std::string warn = ("WARNING: name too long, not searched: " + n).substr(0, 255) + "|",
                      refused = ("ERROR: Make command too long, not run: " + n).substr(0, 255) + "|";
    std::string lines = c.route == 'w' ? r("Running \"@/bin/Quenmark.exe\" mkfile ") + n : "";
    if (c.route == 'w') lines.append("|Message: wrapper: mkfile " + n + "\n|Message: making " + n + "\n|");
    if (c.route == 't') lines.append(warn).append(refused).append(warn);
    MakeLocked[0] = c.mode, ConsoleErr = c.console;
    g_log.clear(), g_states.clear(), CaptureStderr();
    EXPECT_EQ(ask("made", n), c.route == 'c' || c.route == 'w' ? r("@/made/") + n + ".mf" : "") << i;
    EXPECT_EQ(GetCapturedStderr(), c.route == 'c' ? "\nRunning [mkfile " + n + "]\n" : "") << i;
    EXPECT_EQ(g_log, lines) << i;
    EXPECT_EQ(g_states, c.route == 'n' ? std::vector<int>() : std::vector<int>({1, 0})) << i;
  }
  g_states.clear();
  EXPECT_EQ(ask("made", "never") + ask("made", "never") + ask("made", "never.mf"), "");
  EXPECT_THAT(g_states, ElementsAre(1, 0, 1, 0));
}

TEST_F(SearchTest, FrontEnd) {
  const struct {
    const char *request, *answer, *modes;  // make 0 and 1, download 0 and 1, wait
  } commands[] = {
      {"!Make", "[AutoMake is enabled]", "0, 0, 5, 5, 42"},
      {"!NoMake", "[AutoMake is disabled]", "1, 1, 5, 5, 42"},
      {"!MakeAlways+", "[AutoMake is always enabled with output to MW]", "-2, -2, 5, 5, 42"},
      {"!*MakeAlways", "[AutoMake for internal search is always enabled]", "-1, 5, 5, 5, 42"},
      {"!*makealways+", "[AutoMake for internal search is always enabled with output via MW]", "-2, 5, 5, 5, 42"},
      {"!AutoDownload=ON", "[AutoDownload is enabled]", "5, 5, 1, 1, 42"},
      {"!AUTODOWNLOAD=off", "[AutoDownload is disabled]", "5, 5, -1, -1, 42"},
      {"!*AutoDownload=INFO", "[AutoDownload for internal search is in INFO mode.]", "5, 5, 0, 5, 42"},
      {"!Make ", "[invalid QDM management command]", "5, 5, 5, 5, 42"},
      {"!WaitPassMSG=OFF", "[Wait will not pass GUI messages]", "5, 5, 5, 5, -1"},
      {"!waitpassmsg=auto", "[Wait will automatically determine when pass GUI messages]", "5, 5, 5, 5, 0"},
      {"!WaitPassMSG=On", "[Wait will automatically determine when pass GUI messages (COMPAT)]", "5, 5, 5, 5, 0"},
      {"!WaitPassMSG=12abc", "[Wait will pass selected set of GUI messages]", "5, 5, 5, 5, 12"},
      {"!WaitPassMSG=99999999999999", "[Wait will pass selected set of GUI messages]", "5, 5, 5, 5, 2147483647"},
  };
  for (const auto &c : commands) {
    MakeLocked[0] = MakeLocked[1] = AutoDownload[0] = AutoDownload[1] = 5, WaitPassMessages = 42;
    EXPECT_STREQ(QDMFind(c.request), c.answer);
    const int now[] = {MakeLocked[0], MakeLocked[1], AutoDownload[0], AutoDownload[1], WaitPassMessages};
    EXPECT_EQ(PrintToString(now), "{ " + std::string(c.modes) + " }") << c.request;
  }
  const int32_t resets = reset();
  EXPECT_STREQ(QDMFind("!finish"), "[QDM is Finished NOW]");
  EXPECT_EQ(reset(), resets + 2);
  EXPECT_STREQ(QDMFind("!Trace"), "[QDM trace mode switched ON]");
  EXPECT_EQ(Trace + hdr(Word::Shared_Trace), 2);

  const std::string cmr = r("@/texmf/fonts/tfm/cmr10.tfm"), invalid = "[Invalid request format]";
  const struct {
    std::string request, answer;
  } requests[] = {
      {"<tfm>cmr10", cmr},         {"tex<tfm>cmr10.tfm", cmr},            {"tex<*tfm>\"cmr10\"", cmr},
      {"x><tfm>cmr10", cmr},       {"tex<tfm>absent", "[file not found]"}, {"tex<tfm>", "[file not found]"},
      {"tfm>cmr10<x", invalid},    {"tex<tfm", invalid},                  {"", invalid},
      {"<tfm>" + std::string(251, 'c'), invalid},  // 256 characters
      {"<tfm>" + std::string(250, 'c'), "[file not found]"},
      {std::string(100, 'p') + "<tfm>cmr10", cmr},  // the program name is cut
      {"!" + std::string(300, 'M'), "[invalid QDM management command]"},
      {"?<$TEXMF>", r("{@/texmf}")}, {"?<$WHO>ignored", "common"},          {"?latex<$WHO>", "latex"},
      {"?" "?<$TEXMF/{tex,fonts,none}>", r("@/texmf/tex;@/texmf/fonts")},
      {"?" "?<{$TEXMF/none}>", ""}, {"?$WHO", invalid},                   {"?" "?latex<x", invalid},
      {"latex<tfm>cmr10", cmr},    {"*<tfm>cmr10", "[QDM Cache has been recycled]"},
  };
  for (const auto &c : requests) {
    EXPECT_EQ(QDMFind(c.request.c_str()), c.answer) << c.request.substr(0, 40);
    EXPECT_STREQ(ProgName, "prog") << c.request.substr(0, 40);
  }
  EXPECT_TRUE(QDMReady(std::string(80, 'x').c_str()) == 1 && std::string(ProgName) == std::string(63, 'x'));
  // Recycling forgets the name of one type in every program.
  EXPECT_EQ(cached("tex", "tfm", "cmr10") + cached("latex", "tfm", "cmr10") + cached("prog", "tfm", "cmr10"), 0);
  cached("latex", "TFM", "CMR10", "/x/cmr10.tfm"), cached("tex", "vf", "cmr10", "");
  EXPECT_EQ(QDMRecycle("nosuch", "cmr10") + QDMRecycle("tfm", "cmr10") + cached("tex", "vf", "cmr10"), 2);
}

// A new file is entered into the database of the tree holding it (and its
// ls-R file), and every answer for its name, or for its stem where a type's
// suffix is the whole tail from the first '.', is forgotten.
TEST_F(SearchTest, NewFileEntersTheFileAndForgetsItsNames) {
  EXPECT_EQ(ask("tfm", "new"), "");  // a miss cached by a real request
  cached("tex", "tfm", "new.tfm", ""), cached("latex", "tfm", "NEW.TFM", "/old/new.tfm");
  cached("tex", "vf", "new", ""), cached("tex", "tex", "new", "");  // other suffixes
  for (const char *n : {"z.tex", "a.b.tfm", "a", "a.b", "latex/article.cls"}) cached("tex", "tfm", n, "");
  put("texmf/fonts/tfm/new.tfm", "x"), g_log.clear();
  EXPECT_EQ(QDMNewFile(r("@/texmf/fonts/tfm/new.tfm").c_str()), 3);
  EXPECT_EQ(g_log, r("QDMNewFile: @/texmf/fonts/tfm/new.tfm|QDMNewFile: Updating @/texmf/ls-R|QDMNewFile: Clearing "
                     "Requests for: new.tfm|QDMNewFile: Clearing shortcut: new|QDMNewFile: Clearing shortcut: new|"
                     "QDMNewFile: Clearing shortcut: new|"));
  EXPECT_EQ(cached("tex", "tfm", "new.tfm") + cached("latex", "tfm", "new.tfm") + cached("tex", "vf", "new"), 1);
  EXPECT_EQ(ask("tfm", "new"), r("@/texmf/fonts/tfm/new.tfm")) << "the database lists it now";
  const std::string dir = r("@/texmf/fonts/tfm/"), longest = dir + std::string(251 - dir.size(), 'n') + ".tfm";
  const struct {
    std::string path, appended;
    int forgotten;
  } cases[] = {
      {r("@/texmf/x.tex"), "\n./:\nx.tex\n", 0},
      {r("@/") + "texmf\\fonts\\tfm\\y.tfm", "\n./fonts/tfm:\ny.tfm\n", 0},
      {r("@/elsewhere/z.tex"), "", 1},  // outside every database
      {r("@/texmf/fonts/tfm/a.b.tfm"), "\n./fonts/tfm:\na.b.tfm\n", 1},
      {"cmr10.tfm", "", 0},    // no directory
      {"n" + longest, "", 0},  // 256 characters
      {longest, "\n./fonts/tfm:\n" + longest.substr(dir.size()) + "\n", 0},
  };
  std::string lsr = std::string(kLsR) + "\n./fonts/tfm:\nnew.tfm\n";
  for (const auto &c : cases) {
    EXPECT_EQ(QDMNewFile(c.path.c_str()), c.forgotten) << c.path;
    EXPECT_EQ(test::read_file(r("@/texmf/ls-R")), lsr.append(c.appended)) << c.path;
  }
  EXPECT_EQ(cached("tex", "tfm", "a") + cached("tex", "tfm", "a.b") + cached("tex", "tfm", "latex/article.cls"), 3);
  EXPECT_THAT(g_log, HasSubstr(("|WARNING: QDMNewFile: path too long, ignored: n" + longest).substr(0, 256) + "|"));
  fs::remove(r("@/texmf/ls-R")), fs::create_directories(r("@/texmf/ls-R"));  // opening it to append fails
  EXPECT_EQ(QDMNewFile(r("@/texmf/fonts/tfm/a.tfm").c_str()), 1) << "the stem 'a' is still forgotten";
  EXPECT_THAT(g_log, HasSubstr(r("|ERROR: Can't update ls-R file: @/texmf/ls-R|")));
}

// The whole report: header, databases, programs and sections with their
// types or file lists, answers by value, and the resource pool.
TEST_F(SearchTest, CacheReport) {
  cached("[Fonts]", "defs", "a.x", ""), cached("tex", "tfm", "cmr5", "");
  QDMRecycle("tfm", "cmr5"), QDMAddToPool("Times.ttf"), QDMAddToPool("Arial.ttf");
  cached("tex", "tfm", "cmr10", ""), cached("tex", "tfm", "cmr10.tfm", r("@/texmf/fonts/tfm/cmr10.tfm").c_str());
  CaptureStdout(), Print_Cache();
  char head[400];
  std::snprintf(head, sizeof head, "\t\tThis Report is generated by Zelvan QDM 10\n\n\t\tThere is memory usage of QDM "
                "cache\n\n\tThis version of QDM is configured to maximum virtual memory %d\n\tCurrently, it uses only "
                "%d bytes of memory.\n\tCache Shared Memory=`%s', Lock=`%s'.\n",
                hdr(Word::Mem_Max), hdr(Word::Mem_Used), Map_Name, Cache_Lock);
  EXPECT_EQ(GetCapturedStdout(),
            head + r("\tConfiguration files:\n\t\tCommon=`@/TEXMF.INI',\n\t\tLocal=`@/home/.config/Zelvan TeX/"
                     "TEXMF.INI'.\n\n\tDirectories with DB (ls-R) files:\n\t\t@/texmf/\n\n"
                     "1\ttex (program)\n1.1\t   tfm (file type)\n\t   Search Path:\n\t      @/texmf/fonts//\n"
                     "\t      @/disk\n\t   File Cache:\n1.1.1\t      cmr10.tfm -> @/texmf/fonts/tfm/cmr10.tfm\n"
                     "1.1.2\t      cmr10 -> NONE\n1.1.3\t      cmr5 -> UNKNOWN\n"
                     "2\t[Fonts] (section)\n2.1\t   defs (file list)\n\t   Search Path:\n\t   File Cache:\n"
                     "2.1.1\t      a.x -> NONE\n3\tQDM (program)\n3.1\t   ls-R (file type)\n\t   Search Path:\n"
                     "\t      @/texmf\n\t   File Cache:\nTotally, 4 cached files.\n\n"
                     "List of Installed TrueType Fonts:\n\tArial.ttf\n\tTimes.ttf\nTotally, 2 fonts.\n"));
}

// Bad input at every export: null, empty, over-long, non-UTF-8 and odd-byte
// arguments, and buffers of no room. Each is refused or cut as the
// interface says, nothing crashes (the sanitizer build watches every byte)
// and the region stays sound.
TEST_F(SearchTest, EveryExportTakesAnyText) {
  const std::string inputs[] = {"", std::string(64, 'p'), std::string(256, 'n'), std::string(70000, 'h'),
                                "\xff\xfe\xc3(\x80\r\n\x01\x7f\t%s%n{a,b}$X${;;}\\\\a\\b/../..//", "!Finish<x>",
                                "*<tfm>x", "[a]<b>c"};
  char out[308], *texts[1];
  const int hkcu = static_cast<int>(0x80000001u);
  for (int i = -1; i < static_cast<int>(std::size(inputs)); ++i) {  // -1: a null pointer
    SCOPED_TRACE("input " + std::to_string(i));
    std::string text = i < 0 ? "" : inputs[i], ini = r("@/p.ini");
    char *a = i < 0 ? nullptr : text.data();
    EXPECT_LT(std::strlen(QDMFind(a)), 4096u);
    EXPECT_TRUE(QDMReady(a) == 1 && QDMReady("prog") == 1);
    EXPECT_LT(std::strlen(or_empty(QDMSearch(a, "x"))) + std::strlen(or_empty(_QDMSearch("tfm", a, 1))), 520u);
    EXPECT_GE(QDMNewFile(a) + QDMRecycle(a, a), 0);
    search_definition(0, a, out), QDMValue(a, a), QDMSetValue("memory", or_empty(a), a), QDMVar(a);
    if (a != nullptr && std::strlen(a) < 260) find_AppBundle(a), Process_Mirror(a);
    QDMMessage(a, a, 1), message(a, a), RegisterFrame(a, 5), FindFrame(a), QDMAddToPool(a);
    EXPECT_LE(std::strlen(QDMGetMessages(texts, 1) ? texts[0] : ""), 100u);
    WritePrivateProfileString(or_empty(a), or_empty(a), a, ini.data()), RegSetValue(hkcu, a, 1, or_empty(a), 0);
    WriteProfileString(or_empty(a), or_empty(a), a), OKDir(a), KeyDir(hkcu, a), GetProfileStringEx(0, a, a, out, 40);
    CacheGuard(), cnf_get(a), FormatPath(a, a), db_search(a, r("@/texmf").c_str(), out), db_search("x.tfm", a, out);
    for (int size : {-1, 0, 1, 16, 300}) {  // bytes past the room stay as they were
      std::memset(out, '#', sizeof out);
      CacheGuard g;
      EXPECT_TRUE(size < 1 || var_expand(a, out, size, nullptr) >= 1);
      GetPrivateProfileString(a, a, a, out, size, ini.data()), GetProfileString(a, a, a, out, size);
      const size_t room = static_cast<size_t>(std::max(size, 0));
      EXPECT_EQ(std::string(out + room, out + sizeof out), std::string(sizeof out - room, '#'));
    }
  }
  EXPECT_EQ(check_region().fault, Fault::None) << check_region().what;
  // The limits of the interface, each at and just past its edge.
  EXPECT_STREQ(QDMFind(nullptr), "[Invalid request format]");
  EXPECT_EQ(ask("Program", ""), "") << "an empty name once found the type's directory itself";
  EXPECT_EQ(GetModuleFileName(nullptr, out, 1) + FrameList(out, 0) + FrameList(out, -5), 0);
  EXPECT_EQ(QDMGetMessages(texts, 0) + QDMGetMessages(texts, -3) + QDMGetMessages(nullptr, 5) + out[0], 0);
  EXPECT_TRUE(QDMINIFile(7) == nullptr && KeyDir(hkcu, std::string(300, 'k').c_str()) == nullptr);
}

// The tool: each command's answers and exit status, and its usage errors
// (status 2, a part of the message on standard error). Arguments are
// separated by '^'; "@/" is the root; an answer "^..." is a prefix.
TEST_F(SearchTest, ToolCommandsAnswerAndExitAsDocumented) {
  const std::string huge(70000, 'h'), odd = "\xff\xfe\x01\x7f\t\r", cls = r("@/texmf/tex/latex/article.cls\n");
  const struct {
    std::string args;
    int status;
    std::string out, err;
  } cases[] = {
      {"--help", 0, "^Usage: trovalis [--help]", ""},
      {"find^tex^article.cls", 0, cls, ""},
      {"find^tfm^cmr10^nosuch^roman.tfm", 1, r("@/texmf/fonts/tfm/cmr10.tfm\n@/texmf/fonts/tfm/cmr10.tfm\n"), ""},
      {"find^tfm^" + huge + "^^" + odd, 1, "", ""},
      {"request^<tex>article.cls^<tex>nosuch^!Make^!nonsense^tex<tfm^" + huge + "^^" + odd, 0,
       cls + "[file not found]\n[AutoMake is enabled]\n[invalid QDM management command]\n[Invalid request "
       "format]\n[Invalid request format]\n[Invalid request format]\n[Invalid request format]\n", ""},
      {"expand^-p^latex^$WHO", 0, "latex\n", ""},
      {"expand^" + std::string(252, 'e'), 0, std::string(252, 'e') + "\n", ""},
      {"path^$TEXMF/{tex,fonts,none}", 0, r("@/texmf/tex\n@/texmf/fonts\n"), ""},
      {"reset", 0, "[QDM is Finished NOW]\n", ""},
      {"report", 0, "^\t\tThis Report is generated by Zelvan QDM 10\n", ""},
      {"log^-n^1024", 0, "^", ""},
      {"mklsr^--no-reset^/no/such/tree", 1, "", "/no/such/tree: not a directory"},
      {"init^--tree^@/texmf^-o^@/TEXMF.INI", 1, "", "exists; use --force"},
      {"init^--tree^@/texmf^--tree^@/disk", 0, "^; TEXMF.INI written by 'trovalis init'", ""},
      {"init^--tree^@/texmf/^-o^@/new.ini", 0, r("wrote @/new.ini for 1 trees:\n  @/texmf\n"), ""},
  };
  for (const auto &c : cases) {
    const test::RunResult res = cli(c.args);
    EXPECT_EQ(res.status, c.status) << c.args.substr(0, 30) << ": " << res.err.substr(0, 300);
    const bool prefix = c.out[0] == '^';
    EXPECT_EQ(prefix ? res.out.substr(0, c.out.size() - 1) : res.out, c.out.substr(prefix ? 1 : 0));
    EXPECT_THAT(res.err, HasSubstr(c.err)) << c.args.substr(0, 30);
  }
  const struct {
    std::string args, err;
  } usage[] = {
      {"", "trovalis: a command is required\nUsage: trovalis ["}, {huge, "unknown command 'hhh"},
      {"find^tex", "TYPE and at least one NAME"},                   {"find^-p", "-p needs a PROGRAM"},
      {"find^-p^" + std::string(64, 'p') + "^tex^x", "PROGRAM is longer than 63 characters"},
      {"find^-x^tex^x", "unknown option '-x'"},                     {"log^-n^1025", "-n takes a count from 0 to 1024"},
      {"expand", "exactly one TEXT"},                               {"expand^a>b", "TEXT may not contain '>'"},
      {"expand^" + std::string(253, 'e'), "TEXT is too long"},      {"report^now", "report takes no arguments"},
      {"newfile^plain.tex", "PATH must name the file's directory"}, {"post", "TEXT is missing"},
      {"newfile^/" + std::string(255, 'n'), "PATH is longer than 255 characters"},
      {"post^-t^x^y", "-t takes a 32-bit integer"},                 {"mklsr", "at least one DIR"},
      {"mklsr^--fast^x", "unknown option '--fast'"},                {"init^-o", "-o needs an argument"},
      {"init^--tree^@/a,b", "a tree may not contain , ; { or }"},
  };
  for (const auto &c : usage) {
    const test::RunResult res = cli(c.args);
    EXPECT_EQ(res.status + res.out.size(), 2u) << c.args.substr(0, 30);
    EXPECT_THAT(res.err, HasSubstr(c.err));
  }
  for (const char *cmd : {"find", "log", "post", "mklsr", "init"})
    EXPECT_THAT(cli(std::string(cmd) + "^--help").out, StartsWith(std::string("Usage: trovalis ") + cmd)) << cmd;
}

// The log, and requests from standard input with CR LF line ends, a NUL, a
// line too long, bytes above 127 and an empty line.
TEST_F(SearchTest, ToolLogAndStandardInput) {
  EXPECT_EQ(cli("post^-t^4^first").err, "") << "the start-up line only with -v";
  EXPECT_EQ(cli("-v^post^second").err, "Opened Memory is 'REUSED', size=8000000\n");
  EXPECT_EQ(cli("log^-n^2").out, "trovalis: first\ntrovalis: second\n");
  test::Child follower({box().path("bin/trovalis"), "log", "-n", "1", "--follow"}, box().env());
  EXPECT_EQ(follower.read_line(), "trovalis: second");
  for (const char *text : {"third", "fourth"}) {
    ASSERT_EQ(cli(std::string("post^") + text).status, 0);
    EXPECT_EQ(follower.read_line(), std::string("trovalis: ") + text);
  }
  const std::string input = "<tfm>" + std::string(300, 'l') + "\n\xff\xfe\n\n<tex>article.cls\r\n!Trace";
  EXPECT_EQ(cli("request^-", std::string("<tfm>a\0b\n", 9) + input).out,
            r("[file not found]\n[Invalid request format]\n[Invalid request format]\n[Invalid request format]\n"
              "@/texmf/tex/latex/article.cls\n[QDM trace mode switched ON]\n"));
}

// Processes share the cache: a miss stays cached until newfile; why
// explains how a name is found; mklsr writes the database the loader reads
// (files only, sorted, dot directories and link cycles left out).
TEST_F(SearchTest, ToolNewFileWhyAndMklsr) {
  EXPECT_EQ(cli("find^tex^late").status, 1);
  put("texmf/tex/latex/late.tex", "x");
  EXPECT_EQ(cli("find^tex^late").status, 1) << "the miss is cached";
  EXPECT_EQ(cli("newfile^@/texmf/tex/latex/late.tex").out, "1\n") << "the stem's cached miss was forgotten";
  EXPECT_EQ(cli("find^tex^late").out, r("@/texmf/tex/latex/late.tex\n"));
  EXPECT_THAT(cli("why^tfm^roman.tfm").out,
              AllOf(HasSubstr("file type:   tfm, as program trovalis\ndefinition:  tfm=$TEXMF/fonts//;"),
                    HasSubstr(r("directories:\n  @/texmf/fonts//\n  @/disk\ntrace:\n")),
                    HasSubstr("Aliases: roman.tfm cmr10.tfm"), HasSubstr(r("\nfound: @/texmf/fonts/tfm/cmr10.tfm\n"))));
  put("texmf/tex/.hidden/x", "x"), fs::create_directory_symlink("..", box().path("texmf/tex/loop"));
  EXPECT_EQ(cli("mklsr^@/texmf/").out, r("@/texmf/ls-R: 5 directories, 4 files\n"));
  EXPECT_EQ(test::read_file(r("@/texmf/ls-R")), "% ls-R -- filename database for trovalis.\n\n./:\naliases.ini\n\n"
            "./fonts:\n\n./fonts/tfm:\ncmr10.tfm\n\n./tex:\n\n./tex/latex:\narticle.cls\nlate.tex\n");
}

}  // namespace
}  // namespace trv
