// The fuzz targets' scratch installation, region state and checks, on the
// tests' own sandbox.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "fuzz.h"
#include "platform/holder.h"
#include "profile/ini_store.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv::fuzz {

namespace {

constexpr const char *kIni =
    "[QDM]\n"
    "ls-R=$SELFAUTOPARENT/texmf\n"
    "tfm=$SELFAUTOPARENT/texmf/fonts//+.tfm.TFM\n"
    "tex=$SELFAUTOPARENT/texmf/tex//;$SELFAUTOPARENT/texmf-local/tex\n"
    "defs=$SELFAUTOPARENT/texmf/defs\n"
    "[common]\n"
    "TEXMF={$SELFAUTOPARENT/texmf,$SELFAUTOPARENT/texmf-local}\n"
    "A=$B/a\nB=${C,A}\nC=c{1,2}\n"
    "[latex]\n"
    "tex=$SELFAUTOPARENT/texmf/tex/latex\n"
    "[Mirrors]\n"
    "$SELFAUTOPARENT/texmf/mirror=$SELFAUTOPARENT/texmf-local\n";

// The scratch installation's files.
void write_files(const test::Sandbox &box) {
    for (const char *rel : {"texmf/fonts/tfm/cm/cmr10.tfm", "texmf/fonts/tfm/cm/cmbx10.tfm",
                            "texmf/tex/latex/article.cls", "texmf-local/tex/local.sty"})
      box.write(rel, "x");
    box.write("texmf/ls-R", "% ls-R\n./fonts/tfm/cm:\ncmr10.tfm\ncmbx10.tfm\n\n./tex/latex:\narticle.cls\n");
    box.write("texmf/aliases", "cmr10.tfm cmrx.tfm\n% comment\n");
    box.write("texmf/aliases.ini", "[TeXFonts]\ncmr=cmr10\n[Aliases]\nold.cls=article.cls\n");
    box.write("texmf/defs/defs.ini", "[fmts]\nx*=y*\nplain=plain.fmt\n");
}

// The installation, this process attached to its 1 MB region, and the
// state restore() puts back: the whole mapping and the per-process switches.
struct State {
  test::ScopedEnv size{"TROVALIS_MAP_SIZE", "1048576"};
  test::AttachedTest attached{kIni};
  std::vector<char> image;
  int32_t used = 0;
  std::optional<test::SavedModes> modes;
};
State *g_state = nullptr;

// A fuzz program ends without release(); its directory goes with it.
void release_at_exit() { release(); }

// Something in every structure a reader may meet.
void populate() {
  for (const char *name : {"cmr10", "cmrx", "absent"}) QDMSearch("tfm", name);
  QDMSearch("tex", "article.cls");
  QDMFind("latex<tex>article.cls");
  QDMFind("[fmts]<defs>xa");
  QDMFind("?" "?<$TEXMF/tex//>");
  QDMVar("A");
  QDMSetValue("memory", "M", "m");
  QDMAddToPool("Font One");
  QDMAddToPool("Font Two");
  RegisterFrame("main", 7);
  for (int i = 0; i < 1030; ++i) QDMMessage("fuzz: ", "line", i % 6);
}

}  // namespace

const std::string &scratch() {
  if (g_state == nullptr) {
    g_state = new State;
    State &s = *g_state;
    write_files(s.attached.box);
    {
      CacheGuard lock;
      QDMReset();
    }
    static const bool registered = std::atexit(release_at_exit) == 0;
    (void)registered;
    // Names only: the objects stay open in this process and go with it.
    shm_unlink(Map_Name);
    sem_unlink(Cache_Lock);
    platform::holder_remove(Cache_Lock);
    populate();
    forget_damage();
    s.image.assign(Ptr_trovalis, Ptr_trovalis + View_Len);
    s.used = hdr(Word::Mem_Used);
    s.modes.emplace();
  }
  return g_state->attached.box.root();
}

void restore(bool whole) {
  State &s = *g_state;
  const size_t bytes = whole ? s.image.size() : kHeaderBytes + static_cast<size_t>(s.used);
  std::memcpy(Ptr_trovalis, s.image.data(), bytes);
  s.modes->restore();
  Trace_LRU = Trace_XVAR = Trace_ALS = 0;
  forget_damage();
}

void forget_ini_copies() {
  for (INIF *f = INI_File; f != nullptr; f = f->Next) f->MTime = 0;
}

std::string write_scratch(const std::string &rel, const uint8_t *data, size_t size) {
  scratch();
  g_state->attached.box.write(rel, std::string(reinterpret_cast<const char *>(data), size));
  return g_state->attached.box.path(rel);
}

void release() {
  delete g_state;
  g_state = nullptr;
}

QuietStdout::QuietStdout() {
  std::fflush(stdout);
  saved_ = dup(1);
  const int null = open("/dev/null", O_WRONLY);
  if (null >= 0) {
    dup2(null, 1);
    close(null);
  }
}

QuietStdout::~QuietStdout() {
  std::fflush(stdout);
  if (saved_ >= 0) {
    dup2(saved_, 1);
    close(saved_);
  }
}

void fail(const char *what, const char *file, int line) {
  std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", file, line, what);
  std::abort();
}

}  // namespace trv::fuzz
