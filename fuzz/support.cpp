// The fuzz targets' scratch installation, region state and checks.
#include "fuzz.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "core/region.h"
#include "core/validate.h"
#include "platform/holder.h"
#include "platform/platform.h"
#include "profile/ini_store.h"
#include "trovalis.h"

namespace trv::fuzz {

namespace {

namespace fs = std::filesystem;

constexpr const char *kIni =
    "[QDM]\n"
    "ls-R=$SELFAUTOPARENT/texmf\n"
    "tfm=$SELFAUTOPARENT/texmf/fonts//+.tfm.TFM\n"
    "tex=$SELFAUTOPARENT/texmf/tex//;$SELFAUTOPARENT/texmf-local/tex\n"
    "defs=$SELFAUTOPARENT/texmf/defs\n"
    "[common]\n"
    "TEXMF={$SELFAUTOPARENT/texmf,$SELFAUTOPARENT/texmf-local}\n"
    "A=$B/a\n"
    "B=${C,A}\n"
    "C=c{1,2}\n"
    "[latex]\n"
    "tex=$SELFAUTOPARENT/texmf/tex/latex\n"
    "[Mirrors]\n"
    "$SELFAUTOPARENT/texmf/mirror=$SELFAUTOPARENT/texmf-local\n";

struct Files {
  const char *rel, *text;
} const kFiles[] = {
    {"TEXMF.INI", kIni},
    {"texmf/ls-R", "% ls-R\n./fonts/tfm/cm:\ncmr10.tfm\ncmbx10.tfm\n\n./tex/latex:\narticle.cls\n"},
    {"texmf/aliases", "cmr10.tfm cmrx.tfm\n% comment\n"},
    {"texmf/aliases.ini", "[TeXFonts]\ncmr=cmr10\n[Aliases]\nold.cls=article.cls\n"},
    {"texmf/fonts/tfm/cm/cmr10.tfm", "x"},
    {"texmf/fonts/tfm/cm/cmbx10.tfm", "x"},
    {"texmf/tex/latex/article.cls", "x"},
    {"texmf/defs/defs.ini", "[fmts]\nx*=y*\nplain=plain.fmt\n"},
    {"texmf-local/tex/local.sty", "x"},
};

struct State {
  std::string root;
  std::vector<char> image;  // the whole mapping as the set-up left it
  int32_t used = 0;
  char prog[sizeof ProgName] = "";
  int trace = 0, make[2] = {}, download[2] = {}, wait = 0;
  char *ini = nullptr, *user_ini = nullptr;
  int common = 0, sectdir = 0;
  std::map<std::string, std::optional<std::string>> env;  // as found
};
State *g_state = nullptr;

// A fuzz program ends without release(); its directory goes with it.
void remove_scratch_at_exit() {
  if (g_state == nullptr) return;
  std::error_code ec;
  std::filesystem::remove_all(g_state->root, ec);
}

void set_env(State &s, const char *name, const char *value) {
  if (!s.env.count(name)) {
    const char *old = std::getenv(name);
    s.env[name] = old ? std::optional<std::string>(old) : std::nullopt;
  }
  if (value) setenv(name, value, 1);
  else unsetenv(name);
}

// Something in every structure a reader may meet.
void populate() {
  QDMSearch("tfm", "cmr10");
  QDMSearch("tfm", "cmrx");
  QDMSearch("tfm", "absent");
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

State *make_state() {
  auto s = std::make_unique<State>();
  char tmpl[] = "/tmp/trovalis-fuzz-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) fail("mkdtemp", __FILE__, __LINE__);
  s->root = tmpl;
  static const bool registered = std::atexit(remove_scratch_at_exit) == 0;
  (void)registered;
  for (const Files &f : kFiles) {
    const fs::path p = fs::path(s->root) / f.rel;
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << f.text;
  }
  fs::create_directories(s->root + "/home");
  fs::create_directories(s->root + "/bin");
  char instance[32];
  static int counter = 0;
  std::snprintf(instance, sizeof instance, "fz%d_%d", static_cast<int>(getpid()), counter++);
  set_env(*s, "HOME", (s->root + "/home").c_str());
  set_env(*s, "TROVALIS_INSTANCE", instance);
  set_env(*s, "TROVALIS_MAP_SIZE", "1048576");
  set_env(*s, "APPDATA", nullptr);
  set_env(*s, "USERPROFILE", nullptr);
  platform::set_executable_path_override((s->root + "/bin/fuzz").c_str());
  if (DllEntryPoint(nullptr, 1, nullptr) != 1) fail("attach", __FILE__, __LINE__);
  // Names only: the objects stay open in this process and go with it.
  shm_unlink(Map_Name);
  sem_unlink(Cache_Lock);
  platform::holder_remove(Cache_Lock);

  populate();
  forget_damage();
  s->image.assign(Ptr_trovalis, Ptr_trovalis + View_Len);
  s->used = hdr(Word::Mem_Used);
  std::memcpy(s->prog, ProgName, sizeof ProgName);
  s->trace = Trace;
  std::memcpy(s->make, MakeLocked, sizeof s->make);
  std::memcpy(s->download, AutoDownload, sizeof s->download);
  s->wait = WaitPassMessages;
  s->ini = INIFile;
  s->user_ini = Zelvan_INI;
  s->common = Common;
  s->sectdir = SectDir;
  return s.release();
}

}  // namespace

const std::string &scratch() {
  if (g_state == nullptr) g_state = make_state();
  return g_state->root;
}

void restore(bool whole) {
  State &s = *g_state;
  const size_t bytes = whole ? s.image.size() : kHeaderBytes + static_cast<size_t>(s.used);
  std::memcpy(Ptr_trovalis, s.image.data(), bytes);
  std::memcpy(ProgName, s.prog, sizeof ProgName);
  Trace = s.trace;
  Trace_LRU = Trace_XVAR = Trace_ALS = 0;
  std::memcpy(MakeLocked, s.make, sizeof s.make);
  std::memcpy(AutoDownload, s.download, sizeof s.download);
  WaitPassMessages = s.wait;
  INIFile = s.ini;
  Zelvan_INI = s.user_ini;
  Common = s.common;
  SectDir = s.sectdir;
  forget_damage();
}

void forget_ini_copies() {
  for (INIF *f = INI_File; f != nullptr; f = f->Next) f->MTime = 0;
}

std::string write_scratch(const std::string &rel, const uint8_t *data, size_t size) {
  const std::string path = scratch() + "/" + rel;
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
  return path;
}

void release() {
  if (g_state == nullptr) return;
  DllEntryPoint(nullptr, 2, nullptr);
  platform::set_executable_path_override(nullptr);
  std::error_code ec;
  fs::remove_all(g_state->root, ec);
  for (const auto &[name, value] : g_state->env) {
    if (value) setenv(name.c_str(), value->c_str(), 1);
    else unsetenv(name.c_str());
  }
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
