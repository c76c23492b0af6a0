// Bad input at every export and at the tool: null, empty, over-long,
// non-UTF-8 and odd-byte arguments, and buffers of no room. Each is refused
// or cut as the interface says, and nothing crashes (the sanitizer build
// watches every byte).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

using ::testing::HasSubstr;

constexpr const char *kIni =
    "[QDM]\n"
    "ls-R=$SELFAUTOPARENT/texmf\n"
    "tfm=$SELFAUTOPARENT/texmf//+.tfm\n"
    "dir=$SELFAUTOPARENT/bin\n";

// Every argument a text parameter is given below (nullopt: a null pointer).
std::vector<std::optional<std::string>> inputs() {
  return {
      std::nullopt,
      "",
      "x",
      std::string(63, 'p'),
      std::string(64, 'p'),
      std::string(255, 'n'),
      std::string(256, 'n'),
      std::string(5000, 'l'),
      std::string(70000, 'h'),
      "\xff\xfe\xc3(\x80\xe9",                    // not UTF-8
      std::string("a\r\nb\x01\x7f\t\x1b[2J", 11),  // control bytes
      "%s%n%d%%",                                 // format directives
      "{a,b}$X${;;}",                             // path syntax
      "\\\\a\\b/../..//",                         // separators
      "<>",
      "!Finish<x>",
      "*<tfm>x",
      "[a]<b>c",
  };
}

// A writable copy of the argument, or null.
class Arg {
 public:
  explicit Arg(const std::optional<std::string> &s) : has_(s.has_value()) {
    if (has_) text_.assign(s->begin(), s->end()), text_.push_back('\0');
  }
  char *get() { return has_ ? text_.data() : nullptr; }
  const char *or_empty() { return has_ ? text_.data() : ""; }

 private:
  bool has_;
  std::vector<char> text_;
};

class BadInputTest : public ::testing::Test {
 protected:
  BadInputTest() {
    attached.box.write("texmf/ls-R", "./:\nx.tfm\n");
    attached.box.write("texmf/x.tfm", "x");
    CacheGuard g;
    QDMReset();
  }
  ~BadInputTest() override { std::memset(Key_List, 0, sizeof Key_List); }
  test::AttachedTest attached{kIni};
};

// Bytes of a buffer past the room it was given stay as they were.
void expect_fenced(const char *buf, size_t room, size_t size) {
  for (size_t i = room; i < size; ++i) ASSERT_EQ(buf[i], '#') << "byte " << i;
}

TEST_F(BadInputTest, EveryExportTakesAnyText) {
  using Op = std::function<void(Arg &)>;
  const std::string dir = attached.box.path("texmf");
  const struct {
    const char *name;
    Op op;
  } ops[] = {
      {"QDMFind", [](Arg &a) {
         const char *r = QDMFind(a.get());
         ASSERT_NE(r, nullptr);
         EXPECT_LT(std::strlen(r), 4096u);
       }},
      {"QDMReady", [](Arg &a) {
         EXPECT_EQ(QDMReady(a.get()), 1);
         EXPECT_LE(std::strlen(ProgName), 63u);
         QDMReady("prog");
       }},
      {"QDMSearch type", [](Arg &a) {
         const char *r = QDMSearch(a.get(), "x");
         EXPECT_LT(r != nullptr ? std::strlen(r) : 0, 260u);
       }},
      {"QDMSearch name", [](Arg &a) {
         const char *r = _QDMSearch("tfm", a.get(), 1);
         EXPECT_LT(r != nullptr ? std::strlen(r) : 0, 260u);
       }},
      {"QDMValue", [](Arg &a) { QDMValue(a.get(), a.get()); QDMValue("QDM", a.get()); }},
      {"QDMSetValue", [](Arg &a) { QDMSetValue("memory", a.or_empty(), a.get()); }},
      {"QDMVar", [](Arg &a) { QDMVar(a.get()); }},
      {"cnf_get", [](Arg &a) {
         CacheGuard g;
         cnf_get(a.get());
       }},
      {"var_expand", [](Arg &a) {
         CacheGuard g;
         for (int capacity : {1, 2, 16, 300}) {
           char out[300 + 8];
           std::memset(out, '#', sizeof out);
           const int left = var_expand(a.get(), out, capacity, nullptr);
           EXPECT_TRUE(left >= 1 && left <= capacity);
           expect_fenced(out, static_cast<size_t>(capacity), sizeof out);
         }
       }},
      {"expand_braces", [](Arg &a) {
         char **dirs = expand_braces(a.get());
         ASSERT_NE(dirs, nullptr);
         for (char **d = dirs; *d; ++d) free(*d);
         free(dirs);
       }},
      {"OKDir", [](Arg &a) { OKDir(a.get()); }},
      {"FormatPath", [](Arg &a) {
         CacheGuard g;
         FormatPath(a.get(), a.get());
       }},
      {"db_search", [&](Arg &a) {
         char out[260];
         db_search(a.get(), dir.c_str(), out);
         db_search("x.tfm", a.get(), out);
       }},
      {"search_definition", [](Arg &a) {
         char buf[260];
         search_definition(hdr(Word::DB_Dirs), a.get(), buf);
       }},
      {"find_AppBundle", [](Arg &a) {
         if (a.get() != nullptr && std::strlen(a.get()) < 260) find_AppBundle(a.get());
       }},
      {"Process_Mirror", [](Arg &a) {
         if (a.get() != nullptr && std::strlen(a.get()) < 260) Process_Mirror(a.get());
       }},
      {"QDMNewFile", [](Arg &a) { EXPECT_GE(QDMNewFile(a.get()), 0); }},
      {"QDMRecycle", [](Arg &a) { QDMRecycle(a.get(), a.get()); }},
      {"QDMMessage", [](Arg &a) {
         QDMMessage(a.get(), a.get(), 1);
         char *texts[1];
         ASSERT_EQ(QDMGetMessages(texts, 1), 1);
         EXPECT_LE(std::strlen(texts[0]), 100u);
       }},
      {"message", [](Arg &a) { message(a.get(), a.get()); }},
      {"frames", [](Arg &a) {
         RegisterFrame(a.get(), 5);
         FindFrame(a.get());
       }},
      {"QDMAddToPool", [](Arg &a) { QDMAddToPool(a.get()); }},
      {"profiles", [&](Arg &a) {
         const std::string file = attached.box.path("p.ini");
         Arg f{file};
         char buf[40];
         for (int size : {-1, 0, 1, 9}) {
           std::memset(buf, '#', sizeof buf);
           GetPrivateProfileString(a.get(), a.get(), a.get(), buf, size, f.get());
           expect_fenced(buf, size > 0 ? static_cast<size_t>(size) : 0, sizeof buf);
           GetPrivateProfileSection(a.or_empty(), buf, size, f.get());
           expect_fenced(buf, size > 0 ? static_cast<size_t>(size) : 0, sizeof buf);
           GetProfileString(a.get(), a.get(), a.get(), buf, size);
           expect_fenced(buf, size > 0 ? static_cast<size_t>(size) : 0, sizeof buf);
         }
         WritePrivateProfileString(a.or_empty(), a.or_empty(), a.get(), f.get());
         WriteProfileString(a.or_empty(), a.or_empty(), a.get());
         GetProfileStringEx(hdr(Word::DB_Dirs), a.get(), a.get(), buf, sizeof buf);
       }},
      {"profile file name", [](Arg &a) {
         char buf[16];
         if (a.get() != nullptr) GetPrivateProfileString("s", "k", "d", buf, sizeof buf, a.get());
       }},
      {"registry", [](Arg &a) {
         int key = 0;
         if (RegCreateKeyA(static_cast<int>(0x80000001u), a.get(), &key) == 0) {
           RegSetValueExA(key, a.get(), 0, 1, a.or_empty(), 0);
           RegCloseKey(key);
         }
         RegSetValue(static_cast<int>(0x80000001u), a.get(), 1, a.or_empty(), 0);
         char buf[8];
         for (int size : {-1, 0, 1, 8}) {
           int got = size;
           RegQueryValue(static_cast<int>(0x80000001u), a.get(), size > 0 ? buf : nullptr, &got);
           EXPECT_GE(got, 0);
           EXPECT_LE(got, size > 0 ? size : 0);
         }
         KeyDir(static_cast<int>(0x80000001u), a.get());
       }},
      {"containers", [](Arg &a) {
         if (a.get() == nullptr) return;
         CacheGuard g;
         const int table = hash_create(7);
         hash_insert(table, a.get(), 9);
         hash_lookup(table, a.get());
         const int list = lru_create(a.get());
         lru_insert(list, a.get(), 3);
         lru_lookup(list, a.get());
         list_append(0, a.get(), 0);
         stradd(a.get());
       }},
  };
  const auto all = inputs();
  for (const auto &op : ops) {
    for (size_t i = 0; i < all.size(); ++i) {
      SCOPED_TRACE(std::string(op.name) + " with input " + std::to_string(i));
      Arg a{all[i]};
      op.op(a);
      if (HasFatalFailure()) return;
    }
  }
  // Whatever was asked, the region is as sound as it was.
  EXPECT_EQ(check_region().fault, Fault::None) << check_region().what;
}

// The limits of the interface, each at and just past its edge.
TEST_F(BadInputTest, LimitsAreRefusedOrCutAsDocumented) {
  const std::string r255 = "<tfm>" + std::string(250, 'x');
  EXPECT_STREQ(QDMFind(r255.c_str()), "[file not found]");
  EXPECT_STREQ(QDMFind((r255 + "x").c_str()), "[Invalid request format]");
  EXPECT_STREQ(QDMFind(("!" + std::string(255, 'x')).c_str()), "[invalid QDM management command]");
  EXPECT_STREQ(QDMFind(nullptr), "[Invalid request format]");

  // An empty name once found the type's directory itself.
  EXPECT_EQ(QDMSearch("dir", ""), nullptr);
  EXPECT_STREQ(QDMFind("<dir>"), "[file not found]");
  // A pooled text longer than any reader takes is not added.
  EXPECT_EQ(QDMAddToPool(std::string(70000, 'f').c_str()), 0);
  EXPECT_STREQ(QDMGetPool(), "");

  QDMReady(std::string(100, 'q').c_str());
  EXPECT_EQ(std::string(ProgName), std::string(63, 'q'));
  QDMReady("prog");

  const std::string path255 = "/" + std::string(254, 'f'), path256 = path255 + "f";
  EXPECT_EQ(QDMNewFile(path255.c_str()), 0);  // taken (nothing was cached)
  EXPECT_EQ(QDMNewFile(path256.c_str()), 0);
  char *newest[1];
  QDMGetMessages(newest, 1);
  EXPECT_THAT(newest[0], HasSubstr("WARNING: QDMNewFile: path too long, ignored: "));

  const std::string frame(200, 'w');
  EXPECT_EQ(RegisterFrame(frame.c_str(), 42), 1);
  EXPECT_EQ(FindFrame(frame.substr(0, 127).c_str()), 42);

  QDMMessage(nullptr, std::string(300, 'm').c_str(), 1);
  QDMGetMessages(newest, 1);
  EXPECT_EQ(std::strlen(newest[0]), 100u);

  EXPECT_EQ(KeyDir(static_cast<int>(0x80000001u), std::string(300, 'k').c_str()), nullptr);
  char buf[4] = "abc";
  EXPECT_EQ(GetModuleFileName(nullptr, buf, 1), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(FrameList(buf, 0), 0);
  EXPECT_EQ(FrameList(buf, -5), 0);
  char *texts[2] = {nullptr, nullptr};
  EXPECT_EQ(QDMGetMessages(texts, 0), 0);
  EXPECT_EQ(QDMGetMessages(texts, -3), 0);
  EXPECT_EQ(QDMGetMessages(nullptr, 5), 0);
  EXPECT_EQ(QDMINIFile(7), nullptr);
  EXPECT_EQ(DllEntryPoint(nullptr, 99, nullptr), 0);
  EXPECT_NE(GetSystemFolder(-1), nullptr);
  EXPECT_NE(GetSystemFolder(1 << 30), nullptr);
}

// The tool: over-long, empty and odd-byte arguments and input lines.
TEST(BadInputCli, ArgumentsAndInputLines) {
  test::Sandbox box("[QDM]\ntfm=$SELFAUTOPARENT\n");
  namespace fs = std::filesystem;
  fs::create_directories(box.path("lib"));
  fs::copy_file(TROVALIS_TEST_CLI, box.path("bin/trovalis"));
  fs::copy_file(TROVALIS_TEST_LIB, box.path("lib/trovalis.so"));
  const std::string tool = box.path("bin/trovalis");
  const std::string huge(70000, 'h'), odd = "\xff\xfe\x01\x7f\t\r";
  const struct {
    std::vector<std::string> args;
    int status;
    const char *err;  // expected in stderr ("" for anything)
  } cases[] = {
      {{"find", "tfm", huge}, 1, ""},
      {{"find", "tfm", ""}, 1, ""},
      {{"find", huge, "x"}, 1, ""},
      {{"find", odd, odd}, 1, ""},
      {{"find", "-p", std::string(64, 'p'), "tfm", "x"}, 2, "PROGRAM is longer than 63 characters"},
      {{"find", "-p", "", "tfm", "x"}, 1, ""},
      {{"why", "tfm", huge}, 1, ""},
      {{"why", odd, odd}, 1, ""},
      {{"request", huge, "", odd}, 0, ""},
      {{"expand", std::string(300, 'e')}, 2, "TEXT is too long"},
      {{"expand", odd}, 0, ""},
      {{"path", ""}, 1, ""},
      {{"newfile", "/" + std::string(255, 'n')}, 2, "PATH is longer than 255 characters"},
      {{"newfile", "/" + odd}, 0, ""},
      {{"post", huge}, 0, ""},
      {{"post", "-t", "x", "y"}, 2, ""},
      {{"log", "-n", "-1"}, 2, ""},
      {{"log", "-n", "99999999999999999999"}, 2, ""},
      {{""}, 2, "unknown command"},
      {{huge}, 2, "unknown command"},
  };
  for (const auto &c : cases) {
    std::vector<std::string> argv = c.args;
    argv.insert(argv.begin(), tool);
    const test::RunResult r = test::run(argv, box.env());
    EXPECT_EQ(r.status, c.status) << c.args[0] << " " << c.args.size() << ": " << r.err.substr(0, 200);
    EXPECT_THAT(r.err, HasSubstr(c.err)) << c.args[0];
  }
  // Requests from standard input: a NUL, a line too long, bytes above 127
  // and an empty line each get their one answer line.
  const std::string input = std::string("<tfm>a\0b\n", 9) + "<tfm>" + huge + "\n" + odd + "\n\n!Trace\n";
  const test::RunResult r = test::run({tool, "request", "-"}, box.env(), input);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "[file not found]\n[Invalid request format]\n[Invalid request format]\n"
                   "[Invalid request format]\n[QDM trace mode switched ON]\n");
}

}  // namespace
}  // namespace trv
