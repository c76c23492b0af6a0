// Damaged regions: what the header check and the full check find, readers
// that meet damage, and the one report and rebuild that follow.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "core/containers.h"
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
    "tfm=$SELFAUTOPARENT/texmf/fonts//+.tfm\n"
    "tex=$SELFAUTOPARENT/texmf/tex//;$SELFAUTOPARENT/texmf/fonts\n"
    "[Mirrors]\n"
    "/nowhere/mirror=$SELFAUTOPARENT/local\n";
constexpr const char *kDamagedLine = "ERROR: Shared memory was damaged, rebuilding it: ";

// A region with something in every structure: databases and aliases, cached
// answers and misses, values, mirrors, pooled texts, frames and a message
// queue that has gone round more than once.
class ValidateTest : public ::testing::Test {
 protected:
  ValidateTest() {
    test::Sandbox &box = attached.box;
    box.write("texmf/ls-R", "% ls-R\n./fonts/tfm:\ncmr10.tfm\ncmbx10.tfm\n\n./tex/latex:\narticle.cls\n");
    box.write("texmf/fonts/tfm/cmr10.tfm", "x");
    box.write("texmf/fonts/tfm/cmbx10.tfm", "x");
    box.write("texmf/tex/latex/article.cls", "x");
    box.write("texmf/aliases", "cmr10.tfm cmrx.tfm\n");
    box.write("texmf/aliases.ini", "[Aliases]\nold.cls=article.cls\n");
    {
      CacheGuard g;
      QDMReset();
    }
    EXPECT_NE(QDMSearch("tfm", "cmr10"), nullptr);
    EXPECT_NE(QDMSearch("tfm", "cmrx"), nullptr);
    EXPECT_EQ(QDMSearch("tfm", "absent"), nullptr);
    EXPECT_NE(QDMSearch("tex", "article.cls"), nullptr);
    QDMReady("latex,tex");
    QDMVar("TEXMF");
    QDMReady("prog");
    QDMSetValue("memory", "X", "y");
    QDMAddToPool("Font One");
    QDMAddToPool("Font Two");
    RegisterFrame("main", 7);
    for (int i = 0; i < 1100; ++i) QDMMessage("t", "x", 1);
    forget_damage();
  }

  // The Nth (0-based) entry of the answer cache of program/type.
  int32_t answer_entry(const char *prog, const char *type, int n) {
    CacheGuard g;
    int32_t e = loadi(at(loadi(FormatPath(prog, type)), 4));
    for (int i = 0; i < n && e > 0; ++i) e = entry_next(e);
    return e;
  }
  int damage_lines() {
    char *texts[kMsgMax];
    const int n = QDMGetMessages(texts, kMsgMax);
    int found = 0;
    for (int i = 0; i < n; ++i) found += std::strstr(texts[i], kDamagedLine) != nullptr;
    return found;
  }

  test::AttachedTest attached{kIni};
};

TEST_F(ValidateTest, SoundRegionPassesBothChecks) {
  EXPECT_EQ(check_header().fault, Fault::None) << check_header().what;
  const Finding f = check_region();
  EXPECT_EQ(f.fault, Fault::None) << f.what;
  // And the readers meet nothing on the way.
  const uint32_t seen = damage_seen();
  testing::internal::CaptureStdout();
  Print_Cache();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(QDMRecycle("tfm", "nothing"), 0);
  EXPECT_EQ(damage_seen(), seen);
}

TEST_F(ValidateTest, HeaderDamageIsClassified) {
  const int32_t used = hdr(Word::Mem_Used), mark = hdr(Word::Mem_Mark);
  const int32_t table = hdr(Word::Msg_Table);
  struct Case {
    Word word;
    int32_t value;
    Fault fault;
  } cases[] = {
      {Word::Mem_Max, -1, Fault::Recreate},
      {Word::Mem_Max, 0x7FFFFFFF, Fault::Recreate},
      {Word::Mem_Mark, 0, Fault::Recreate},
      {Word::Mem_Mark, mark + 1, Fault::Recreate},
      {Word::Pool_Low, hdr(Word::Mem_Max), Fault::Recreate},
      {Word::Msg_Max, 2000, Fault::Recreate},
      {Word::Msg_Len, 1000, Fault::Recreate},
      {Word::Msg_Table, table + 1, Fault::Recreate},
      {Word::Frame_Table, hdr(Word::Frame_Table) - 1, Fault::Recreate},
      {Word::Image_Size, 1 << 30, Fault::Recreate},
      {Word::Msg_Count, -1, Fault::Recreate},
      {Word::Msg_Count, kMsgMax + 1, Fault::Recreate},
      {Word::Common_INI, table, Fault::Recreate},
      {Word::Local_INI, 0, Fault::Recreate},
      {Word::Env_String, -7, Fault::Recreate},
      {Word::Mem_Used, mark - 1, Fault::Rebuild},
      {Word::Mem_Used, hdr(Word::Pool_Low), Fault::Rebuild},
      {Word::Root_LRU, used, Fault::Rebuild},
      {Word::Common_Hash, -4, Fault::Rebuild},
      {Word::DB_Hash, 12, Fault::Rebuild},  // below the mark
      {Word::Alias_Hash, used - 3, Fault::Rebuild},
      {Word::DB_Dirs, 0x40000000, Fault::Rebuild},
      {Word::Net_Index, used + 1, Fault::Rebuild},
      {Word::Moderation, 2, Fault::Rebuild},
      // Words any value of which is sound.
      {Word::Shared_Trace, -5, Fault::None},
      {Word::Reset_Count, -1, Fault::None},
      {Word::Msg_Total, -1, Fault::None},
  };
  CacheGuard g;
  for (const Case &c : cases) {
    const int32_t old = hdr(c.word);
    set_hdr(c.word, c.value);
    EXPECT_EQ(check_header().fault, c.fault) << "word " << static_cast<int>(c.word) << " = " << c.value;
    EXPECT_EQ(check_region().fault, c.fault) << "word " << static_cast<int>(c.word);
    set_hdr(c.word, old);
  }
  // A message slot word that names no slot, or a slot twice.
  for (const int32_t bad : {0, loadi(at(table, 4)) + 1, loadi(at(table + 8, 4))}) {
    const int32_t old = loadi(at(table, 4));
    storei(at(table, 4), bad);
    EXPECT_EQ(check_header().fault, Fault::Recreate) << bad;
    storei(at(table, 4), old);
  }
  // The resource pool must end with its empty text (a page attach does not
  // read: only the full check looks).
  char *top = at(hdr(Word::Mem_Max) - 1, 1);
  *top = 'x';
  EXPECT_EQ(check_header().fault, Fault::None);
  EXPECT_EQ(check_region().fault, Fault::Recreate);
  *top = '\0';
  // Another layout is not this check's to judge: attach refuses it.
  set_hdr(Word::Version, 8);
  EXPECT_EQ(check_region().fault, Fault::None);
  set_hdr(Word::Version, kLayoutVersion);
  EXPECT_EQ(check_region().fault, Fault::None);
}

// Damage behind the header: only the full walk finds it, and a reader that
// meets it notes it and carries on without crashing or hanging.
TEST_F(ValidateTest, ListDamageIsFoundByTheWalkAndTheReaders) {
  const int32_t first = answer_entry("prog", "tfm", 0);
  const int32_t second = answer_entry("prog", "tfm", 1);
  ASSERT_GT(second, 0);
  const int32_t used = hdr(Word::Mem_Used);
  struct Case {
    const char *name;
    int32_t entry;
    int field;  // byte in the entry
    int32_t value;
    bool noticed;  // by the readers; the free space above the arena reads as
                   // an empty entry to them, harmless until it is allocated
  } cases[] = {
      {"cycle of two", second, EntryLayout::kNext, first, true},
      {"cycle of one", first, EntryLayout::kNext, first, true},
      {"link past the arena", first, EntryLayout::kNext, used + 100, false},
      {"link past the mapping", first, EntryLayout::kNext, 0x7FFFFFF0, true},
      {"negative link", first, EntryLayout::kNext, -20, true},
      {"answer outside", first, EntryLayout::kValue, 0x7FFFFFF0, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    char *word = at(c.entry + c.field, 4);
    const int32_t old = loadi(word);
    storei(word, c.value);
    EXPECT_EQ(check_header().fault, Fault::None);
    EXPECT_EQ(check_region().fault, Fault::Rebuild);
    const uint32_t seen = damage_seen();
    {
      CacheGuard g;
      lru_lookup(loadi(at(loadi(FormatPath("prog", "tfm")), 4)), "not there");
    }
    testing::internal::CaptureStdout();
    Print_Cache();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(damage_seen() > seen, c.noticed);
    storei(word, old);
    forget_damage();
    EXPECT_EQ(check_region().fault, Fault::None);
  }

  // An unterminated key: a run of bytes to the end of the arena.
  const int32_t key = first + EntryLayout::kKey;
  std::memset(at(key, used - key), 'k', static_cast<size_t>(used - key));
  EXPECT_EQ(check_region().fault, Fault::Rebuild);
}

TEST_F(ValidateTest, DamageIsReportedOnceAndRepairedByTheNextExport) {
  const int32_t resets = hdr(Word::Reset_Count);
  storei(at(answer_entry("prog", "tfm", 1) + EntryLayout::kNext, 4), answer_entry("prog", "tfm", 0));
  // The search walks the circle, notes it and still answers.
  EXPECT_EQ(QDMSearch("tfm", "never-cached"), nullptr);
  EXPECT_EQ(hdr(Word::Reset_Count), resets);
  // The next export rebuilds; later ones find nothing to do.
  EXPECT_NE(QDMValue("QDM", "tfm"), nullptr);
  EXPECT_EQ(hdr(Word::Reset_Count), resets + 1);
  EXPECT_EQ(check_region().fault, Fault::None);
  QDMValue("QDM", "tex");
  EXPECT_EQ(hdr(Word::Reset_Count), resets + 1);
  EXPECT_EQ(damage_lines(), 1);
  EXPECT_NE(QDMSearch("tfm", "cmr10"), nullptr);
}

TEST_F(ValidateTest, DamageOtherProcessesRepairedIsNotRepairedAgain) {
  storei(at(answer_entry("prog", "tfm", 0) + EntryLayout::kNext, 4), -1);
  QDMSearch("tfm", "never-cached");
  {
    CacheGuard g;
    QDMReset();  // as another process that met it first would
  }
  const int32_t resets = hdr(Word::Reset_Count);
  QDMValue("QDM", "tfm");
  EXPECT_EQ(hdr(Word::Reset_Count), resets);
  EXPECT_EQ(damage_lines(), 0);
}

TEST_F(ValidateTest, DamageToWhatCreationMadeIsRecreated) {
  const int32_t table = hdr(Word::Msg_Table);
  storei(at(table + 8, 4), 0x7FFFFFF0);  // a slot word that names no slot
  EXPECT_EQ(QDMMessage("t", "lost", 1), 1);  // the queue still takes posts
  char *texts[4];
  EXPECT_EQ(QDMGetMessages(texts, 4), 3);  // the reader stops at it ...
  char list[8];
  FrameList(list, sizeof list);            // ... and the next export rebuilds
  EXPECT_EQ(check_region().fault, Fault::None);
  EXPECT_EQ(damage_lines(), 1);
  char *all[kMsgMax];
  const int n = QDMGetMessages(all, kMsgMax);
  for (int i = 0; i < n; ++i) EXPECT_STRNE(all[i], "tlost");
  EXPECT_LT(n, 50);
  EXPECT_NE(QDMSearch("tfm", "cmr10"), nullptr);
}

TEST_F(ValidateTest, PoolReadersNeverLeaveTheRegion) {
  // An unterminated pool and a damaged image pool size are not handed out.
  std::memset(at(hdr(Word::Pool_Low), hdr(Word::Mem_Max) - hdr(Word::Pool_Low)), 'p',
              static_cast<size_t>(hdr(Word::Mem_Max) - hdr(Word::Pool_Low)));
  EXPECT_STREQ(QDMGetPool(), "");
  set_hdr(Word::Image_Size, 1 << 30);
  void *address = &address;
  int size = -1;
  QDMImageCacheIndexPool(&address, &size);
  EXPECT_EQ(address, nullptr);
  EXPECT_EQ(size, 0);
  // Both are creation's: the next export lays the region out again.
  QDMValue("QDM", "tfm");
  EXPECT_EQ(check_region().fault, Fault::None);
  EXPECT_STREQ(QDMGetPool(), "");
  QDMImageCacheIndexPool(&address, &size);
  EXPECT_NE(address, nullptr);
  EXPECT_EQ(size, kImagePoolBytes);
}

// Across processes: a region left damaged is checked and rebuilt at attach.
class DamagedAtAttach : public ::testing::Test {
 protected:
  // Makes the region with one process, then changes bytes of the object.
  void make_then_damage(const std::function<void(char *base)> &damage) {
    const test::RunResult first = test::run({host, "search", "tfm", "cmr10"}, box.env());
    ASSERT_EQ(first.status, 0) << first.err;
    const int fd = shm_open(box.region_name().c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0);
    void *p = mmap(nullptr, 8000000, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(p, MAP_FAILED);
    damage(static_cast<char *>(p));
    munmap(p, 8000000);
  }
  static void set_word(char *base, Word w, int32_t v) { storei(base + 4 * static_cast<int>(w), v); }
  static int32_t word(char *base, Word w) { return loadi(base + 4 * static_cast<int>(w)); }

  test::Sandbox box{"[QDM]\ntfm=$SELFAUTOPARENT\n"};
  std::string host = box.install_host();
};

TEST_F(DamagedAtAttach, CreationsPartIsLaidOutAgain) {
  make_then_damage([](char *base) { set_word(base, Word::Frame_Table, 12345); });
  const test::RunResult r = test::run({host, "info", "messages", "1"}, box.env());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.err, HasSubstr("ERROR: Zelvan Trovalis Initialization Error\nERROR: Shared Memory Name=`" +
                               box.region_name() +
                               "' is damaged (the places of the message queue, frame table and "
                               "image pool); rebuilding it\n"));
  EXPECT_THAT(r.out, HasSubstr("init=1"));
  EXPECT_THAT(r.out, HasSubstr(std::string("QDM-host: ") + kDamagedLine + "the places of"));
}

TEST_F(DamagedAtAttach, ArenaDamageIsResetOnce) {
  make_then_damage([](char *base) { set_word(base, Word::Mem_Used, word(base, Word::Pool_Low) + 8); });
  const test::RunResult r = test::run({host, "info", "messages", "50"}, box.env());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "Opened Memory is 'REUSED', size=8000000\n");
  EXPECT_THAT(r.out, HasSubstr("init=0"));
  EXPECT_THAT(r.out, HasSubstr(std::string(kDamagedLine) + "Mem_Used lies outside the arena"));
  const test::RunResult again = test::run({host, "search", "tfm", "TEXMF.INI", "messages", "400"},
                                          box.env());
  EXPECT_THAT(again.out, HasSubstr("answer=" + box.path("TEXMF.INI")));
  // Reported by the one process that rebuilt it.
  size_t lines = 0;
  for (size_t at = 0; (at = again.out.find(kDamagedLine, at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, 1u);
}

}  // namespace
}  // namespace trv
