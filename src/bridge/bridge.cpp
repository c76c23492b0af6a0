// The kpathsea bridge: answers TeX programs' single-file look-ups from
// trovalis's shared cache and leaves everything else, and everything it
// cannot answer exactly as kpathsea would, to kpathsea.
#include <dirent.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kpathsea/kpathsea.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "interpose.h"
#include "loader.h"

// kpathsea's own, exported but not in its public headers.
extern "C" void kpathsea_init_db(kpathsea kpse);
extern "C" void kpathsea_db_insert(kpathsea kpse, const_string passed_fname);
extern "C" string *kpathsea_path_search_list_generic(kpathsea kpse, const_string path,
                                                     string *names, boolean must_exist,
                                                     boolean all);

namespace bridge {
namespace {

// The trovalis type of each kpathsea format with ordinary files; glyph
// formats (gf, pk), configuration and pool files stay with kpathsea.
const char *type_of(int format) {
  switch (format) {
    case kpse_tex_format: return "tex";
    case kpse_tfm_format: return "tfm";
    case kpse_vf_format: return "vf";
    case kpse_type1_format: return "type1";
    case kpse_type42_format: return "type42";
    case kpse_opentype_format: return "opentype";
    case kpse_truetype_format: return "truetype";
    case kpse_afm_format: return "afm";
    case kpse_enc_format: return "enc";
    case kpse_fontmap_format: return "map";
    case kpse_lig_format: return "lig";
    case kpse_sfd_format: return "sfd";
    case kpse_cmap_format: return "cmap";
    case kpse_cid_format: return "cid";
    case kpse_fea_format: return "fea";
    case kpse_miscfonts_format: return "misc";
    case kpse_ofm_format: return "ofm";
    case kpse_ovf_format: return "ovf";
    case kpse_opl_format: return "opl";
    case kpse_ovp_format: return "ovp";
    case kpse_ocp_format: return "ocp";
    case kpse_otp_format: return "otp";
    case kpse_bib_format: return "bib";
    case kpse_bst_format: return "bst";
    case kpse_ist_format: return "ist";
    case kpse_mf_format: return "mf";
    case kpse_mft_format: return "mft";
    case kpse_mp_format: return "mp";
    case kpse_fmt_format: return "fmt";
    case kpse_base_format: return "base";
    case kpse_mem_format: return "mem";
    case kpse_lua_format: return "lua";
    case kpse_web_format: return "web";
    case kpse_cweb_format: return "cweb";
    case kpse_dvips_config_format: return "dvips";
    case kpse_tex_ps_header_format: return "psheader";
    case kpse_pdftex_config_format: return "pdftex";
    case kpse_texmfscripts_format: return "scripts";
    case kpse_texsource_format: return "source";
    default: return nullptr;
  }
}

enum class Mode { Unknown, On, Off };
enum class Verdict : signed char { Unknown = 0, Trovalis, Kpathsea };

// What the bridge knows about a format for the current program.
struct Format {
  Verdict verdict = Verdict::Unknown;
  bool dot_first = false;                // kpathsea's default path begins with "."
  // An environment override with an empty element: its elements in order,
  // "" standing for the default path.
  std::vector<std::string> override_elements;
};

struct State {
  Mode mode = Mode::Unknown;
  bool verify = false;
  kpathsea served = nullptr;     // the one kpathsea instance answered for
  bool db_pending = false;       // its ls-R load was held back
  const Trovalis *t = nullptr;
  std::string program;
  int std_extension_first = -1;  // kpathsea's try_std_extension_first, once read
  int fontmap = -1;              // whether a texfonts.map exists, once asked
  Format formats[kpse_last_format];
};

State g;
pthread_mutex_t g_lookup = PTHREAD_MUTEX_INITIALIZER;

// Held while the bridge works on a look-up; a second look-up meanwhile (a
// nested call or another thread) goes to kpathsea as it stands.
class LookupGuard {
 public:
  LookupGuard() : held_(pthread_mutex_trylock(&g_lookup) == 0) {}
  ~LookupGuard() {
    if (held_) pthread_mutex_unlock(&g_lookup);
  }
  bool held() const { return held_; }

 private:
  bool held_;
};

void post(const char *text) {
  if (g.t != nullptr) g.t->post("", text, 4);
}

// Decides once per process whether trovalis answers: TROVALIS_KPATHSEA=off,
// a libkpathsea other than the one the bridge was built for (its layout is
// read directly), or any failure to attach leaves everything to kpathsea.
bool turn_on(kpathsea kpse) {
  if (g.mode != Mode::Unknown) return g.mode == Mode::On && kpse == g.served;
  g.mode = Mode::Off;
  const char *setting = std::getenv("TROVALIS_KPATHSEA");
  if (setting != nullptr && std::strcmp(setting, "off") == 0) return false;
  g.verify = setting != nullptr && std::strcmp(setting, "verify") == 0;
  // The bridge reads kpathsea's structures as the headers it was built
  // with lay them out.
  const char *const *version = BRIDGE_KPSE(const char *const *, kpathsea_version_string);
  if (version == nullptr || *version == nullptr || std::strcmp(*version, KPSE_BUILT_VERSION) != 0)
    return false;
  static Trovalis t;
  const char *why = nullptr;
  bool can_log = false;
  if (!load_trovalis(&t, &why, &can_log)) {
    if (can_log) {
      // The region is there but not one to answer from: say so in the log
      // every other program reads too, once for this process.
      char line[100];
      std::snprintf(line, sizeof line, "kpathsea bridge off: %s", why);
      t.post("", line, 4);
    }
    return false;
  }
  g.t = &t;
  g.served = kpse;
  g.mode = Mode::On;
  if (kpse->program_name != nullptr) {
    g.program = kpse->program_name;
    t.ready(kpse->program_name);
  }
  return true;
}

void load_db_now(kpathsea kpse) {
  if (!g.db_pending || kpse != g.served) return;
  g.db_pending = false;
  if (auto real = BRIDGE_REAL(kpathsea_init_db)) real(kpse);
}

bool ends_with(const std::string &s, const char *suffix) {
  const size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

bool is_directory(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// kpathsea's test for a file it may answer: there, readable, no directory.
bool readable(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode) && access(path.c_str(), R_OK) == 0;
}

// kpathsea's path elements with "!!" removed and a subtree written "dir//",
// keeping those that exist; "." is reported apart. *foreign is set for what
// trovalis's paths do not express: "." after the first element, and "//"
// inside an element (every subdirectory at that point, "scripts//lua//").
std::vector<std::string> normal_elements(const char *path, bool *dot_first, bool *foreign) {
  std::vector<std::string> out;
  *dot_first = *foreign = false;
  bool first = true;
  for (const char *p = path; p != nullptr;) {
    const char *colon = std::strchr(p, ':');
    std::string e = colon ? std::string(p, colon) : std::string(p);
    p = colon ? colon + 1 : nullptr;
    if (e.rfind("!!", 0) == 0) e.erase(0, 2);
    if (e == ".") {
      (first ? *dot_first : *foreign) = true;
    } else if (!e.empty()) {
      const bool subtree = ends_with(e, "//");
      while (e.size() > 1 && e.back() == '/') e.pop_back();
      if (e.find("//") != std::string::npos) *foreign = true;
      if (is_directory(e)) out.push_back(subtree ? e + "//" : e);
    }
    first = false;
  }
  return out;
}

// trovalis's directories for a type, as the program sees them, in the same
// form.
std::vector<std::string> trovalis_elements(const char *type) {
  std::vector<std::string> out;
  const char *definition = g.t->value("QDM", type);
  if (definition == nullptr) return out;
  const std::string request = "?\?<" + std::string(definition, std::strcspn(definition, "+")) + ">";
  const char *dirs = g.t->find(request.c_str());
  if (dirs == nullptr || dirs[0] == '[') return out;
  for (const char *p = dirs; *p != '\0';) {
    const size_t n = std::strcspn(p, ";");
    std::string e(p, n);
    p += n + (p[n] == ';' ? 1 : 0);
    if (e.empty() || e == ".") continue;
    const bool subtree = ends_with(e, "//");
    while (e.size() > 1 && e.back() == '/') e.pop_back();
    out.push_back(subtree ? e + "//" : e);
  }
  return out;
}

// Whether trovalis's path for the format is kpathsea's. An environment
// override is served only when it keeps the default path (an empty
// element) and names plain directories otherwise.
void judge(kpathsea kpse, int format, Format &f) {
  f = Format{};
  f.verdict = Verdict::Kpathsea;
  const kpse_format_info_type &info = kpse->format_info[format];
  const char *type = type_of(format);
  if (type == nullptr || info.path == nullptr || info.path_source == nullptr ||
      info.client_path != nullptr || info.override_path != nullptr)
    return;
  std::string default_path;
  if (std::strcmp(info.path_source, "texmf.cnf") == 0) {
    default_path = info.path;
  } else if (ends_with(info.path_source, " environment variable") && info.cnf_path != nullptr &&
             info.raw_path != nullptr) {
    const std::string raw = info.raw_path;
    bool has_default = false;
    for (size_t start = 0;;) {
      const size_t colon = raw.find(':', start);
      const std::string e = raw.substr(start, colon == std::string::npos ? colon : colon - start);
      if (e.find_first_of("$~{}!") != std::string::npos) return;
      has_default = has_default || e.empty();
      f.override_elements.push_back(e);
      if (colon == std::string::npos) break;
      start = colon + 1;
    }
    if (!has_default || std::strstr(info.cnf_path, "::") != nullptr) return;
    auto brace_expand = BRIDGE_KPSE(decltype(&kpathsea_brace_expand), kpathsea_brace_expand);
    string expanded = brace_expand ? brace_expand(kpse, info.cnf_path) : nullptr;
    if (expanded == nullptr) return;
    default_path = expanded;
    std::free(expanded);
  } else {
    return;
  }
  bool foreign = false;
  const std::vector<std::string> kp = normal_elements(default_path.c_str(), &f.dot_first, &foreign);
  if (foreign || kp != trovalis_elements(type)) {
    if (g.verify) {
      char line[160];
      std::snprintf(line, sizeof line, "kpathsea answers %s for %s: the paths differ", type,
                    g.program.c_str());
      post(line);
    }
    return;
  }
  f.verdict = Verdict::Trovalis;
}

// The names kpathsea tries for NAME, in its order (tex-file.c): the name
// with each of the format's suffixes unless it ends in one already, and the
// name itself unless the format searches with suffixes only;
// try_std_extension_first=f puts a name with a '.' before its suffixed
// forms.
std::vector<std::string> candidates(kpathsea kpse, const std::string &name, int format) {
  const kpse_format_info_type &info = kpse->format_info[format];
  if (g.std_extension_first < 0) {
    auto var_value = BRIDGE_KPSE(decltype(&kpathsea_var_value), kpathsea_var_value);
    string v = var_value ? var_value(kpse, "try_std_extension_first") : nullptr;
    g.std_extension_first = !(v != nullptr && (v[0] == 'f' || v[0] == '0'));
    std::free(v);
  }
  const size_t dot = name.rfind('.');
  const bool any_suffix = dot != std::string::npos && name.find('/', dot) == std::string::npos;
  bool potential = false;
  for (const_string *lists[] = {info.suffix, info.alt_suffix}; const_string *list : lists)
    for (const_string *s = list; s != nullptr && *s != nullptr && !potential; ++s)
      potential = ends_with(name, *s);
  std::vector<std::string> suffixed, out;
  if (!potential && info.suffix != nullptr)
    for (const_string *s = info.suffix; *s != nullptr; ++s) suffixed.push_back(name + *s);
  const bool asis = potential || !info.suffix_search_only;
  if (any_suffix && !g.std_extension_first && asis) out.push_back(name);
  out.insert(out.end(), suffixed.begin(), suffixed.end());
  if (!(any_suffix && !g.std_extension_first) && asis) out.push_back(name);
  return out;
}

enum class Outcome { Found, Missing, Kpathsea };

// The first candidate readable in dir or, for "dir//", in the subtree below
// it, directories in kpathsea's order: a directory's own files, then its
// subdirectories depth first in the order the system lists them, skipping
// names that begin with '.'.
bool search_subtree(const std::string &dir, bool subtree, const std::vector<std::string> &names,
                    std::string &found, int depth = 0) {
  for (const std::string &n : names)
    if (readable(dir + "/" + n)) {
      found = dir + "/" + n;
      return true;
    }
  if (!subtree || depth > 64) return false;
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) return false;
  std::vector<std::string> subdirs;
  while (dirent *e = readdir(d))
    if (e->d_name[0] != '.' && is_directory(dir + "/" + e->d_name)) subdirs.push_back(dir + "/" + e->d_name);
  closedir(d);
  for (const std::string &s : subdirs)
    if (search_subtree(s, true, names, found, depth + 1)) return true;
  return false;
}

// The default path: the current directory where kpathsea's path begins
// with it, then trovalis. A hit whose letter case differs from the name
// asked, or two names found in different places (kpathsea's order between
// them depends on the element each lies in), is kpathsea's to decide.
Outcome default_search(const char *type, const Format &f, const std::vector<std::string> &names,
                       std::string &found) {
  if (f.dot_first)
    for (const std::string &n : names)
      if (readable(n)) {
        found = "./" + n;
        return Outcome::Found;
      }
  std::string hit;
  for (const std::string &n : names) {
    const char *r = g.t->search(type, n.c_str(), 0);
    // ls-R lists directories among the files; kpathsea answers files only.
    if (r == nullptr || r[0] == ':' || r[0] == '[' || !readable(r)) continue;
    const char *slash = std::strrchr(r, '/');
    const char *base = slash ? slash + 1 : r;
    if (std::strcmp(base, n.c_str()) != 0) {
      // trovalis appended a suffix to a name without '.' (found as such
      // already), or matched another letter case.
      if (strcasecmp(base, n.c_str()) == 0) return Outcome::Kpathsea;
      continue;
    }
    if (!hit.empty() && hit != r) return Outcome::Kpathsea;
    hit = r;
  }
  if (hit.empty()) return Outcome::Missing;
  found = hit;
  return Outcome::Found;
}

// Whether kpathsea has a texfonts.map to read (along the map path, which
// it searches for it): without one, it has no other names to try.
bool have_fontmap() {
  if (g.fontmap < 0) {
    const char *r = g.t->search("map", "texfonts.map", 0);
    g.fontmap = r != nullptr && r[0] != '[' && r[0] != ':';
  }
  return g.fontmap != 0;
}

Outcome answer(kpathsea kpse, const char *name, int format, boolean must_exist, std::string &found) {
  const kpse_format_info_type &info = kpse->format_info[format];
  if (name[0] == '\0' || std::strchr(name, '$') != nullptr || name[0] == '~')
    return Outcome::Kpathsea;
  Format &f = g.formats[format];
  if (f.verdict == Verdict::Unknown) judge(kpse, format, f);
  if (f.verdict != Verdict::Trovalis) return Outcome::Kpathsea;

  const std::vector<std::string> names = candidates(kpse, name, format);
  Outcome o = Outcome::Missing;
  if (std::strchr(name, '/') != nullptr) {
    // Absolute names and names that begin with "./" or "../" are checked
    // as they stand; other names with a directory part search the path.
    auto absolute = BRIDGE_KPSE(decltype(&kpathsea_absolute_p), kpathsea_absolute_p);
    if (absolute == nullptr || !absolute(kpse, name, true)) return Outcome::Kpathsea;
    for (const std::string &n : names)
      if (readable(n)) {
        found = n;
        return Outcome::Found;
      }
  } else if (f.override_elements.empty()) {
    o = default_search(type_of(format), f, names, found);
  } else {
    for (const std::string &e : f.override_elements) {
      if (e.empty()) {
        o = default_search(type_of(format), f, names, found);
      } else {
        std::string dir = e;
        const bool subtree = ends_with(dir, "//");
        while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
        o = search_subtree(dir, subtree, names, found) ? Outcome::Found : Outcome::Missing;
      }
      if (o != Outcome::Missing) break;
    }
  }
  if (o != Outcome::Missing) return o;
  // A miss is final unless kpathsea would now run its make script, or find
  // the font metrics under another name through texfonts.map.
  const bool makes = must_exist && info.program != nullptr && info.program_enabled_p;
  const bool fontmaps = (format == kpse_tfm_format || format == kpse_ofm_format) && have_fontmap();
  return makes || fontmaps ? Outcome::Kpathsea : Outcome::Missing;
}

string *one_answer(const char *path) {
  string *list = static_cast<string *>(std::malloc(2 * sizeof(string)));
  if (list == nullptr) return nullptr;
  list[0] = path != nullptr ? strdup(path) : nullptr;
  list[1] = nullptr;
  return list;
}

void verify(const char *name, int format, const Outcome o, const std::string &ours,
            const char *theirs) {
  const char *mine = o == Outcome::Found ? ours.c_str() : nullptr;
  if ((mine == nullptr) == (theirs == nullptr) && (mine == nullptr || std::strcmp(mine, theirs) == 0))
    return;
  char line[600];
  std::snprintf(line, sizeof line, "kpathsea disagrees: %s %s: trovalis %s, kpathsea %s",
                type_of(format), name, mine ? mine : "none", theirs ? theirs : "none");
  post(line);
}

}  // namespace
}  // namespace bridge

using namespace bridge;

// kpathsea loads its ls-R databases here, on the first variable look-up.
// While trovalis answers, the load waits for the first search that reaches
// kpathsea itself; a program that kpathsea never has to search for skips
// it.
static void bridge_kpathsea_init_db(kpathsea kpse) {
  if (turn_on(kpse)) {
    g.db_pending = true;
    return;
  }
  if (auto real = BRIDGE_REAL(kpathsea_init_db)) real(kpse);
}

// Every search of kpathsea's own begins at one of these: the held-back
// databases are loaded first, outside kpathsea's path iteration (which is
// not re-entrant).
static string bridge_kpathsea_path_search(kpathsea kpse, const_string path, const_string name,
                                          boolean must_exist) {
  load_db_now(kpse);
  auto real = BRIDGE_REAL(kpathsea_path_search);
  return real ? real(kpse, path, name, must_exist) : nullptr;
}

static string *bridge_kpathsea_all_path_search(kpathsea kpse, const_string path,
                                               const_string name) {
  load_db_now(kpse);
  auto real = BRIDGE_REAL(kpathsea_all_path_search);
  return real ? real(kpse, path, name) : one_answer(nullptr);
}

static string *bridge_kpathsea_path_search_list_generic(kpathsea kpse, const_string path,
                                                        string *names, boolean must_exist,
                                                        boolean all) {
  load_db_now(kpse);
  auto real = BRIDGE_REAL(kpathsea_path_search_list_generic);
  return real ? real(kpse, path, names, must_exist, all) : one_answer(nullptr);
}

static string bridge_kpathsea_find_glyph(kpathsea kpse, const_string font_name, unsigned dpi,
                                         kpse_file_format_type format,
                                         kpse_glyph_file_type *glyph_file) {
  load_db_now(kpse);
  auto real = BRIDGE_REAL(kpathsea_find_glyph);
  return real ? real(kpse, font_name, dpi, format, glyph_file) : nullptr;
}

static void bridge_kpathsea_db_insert(kpathsea kpse, const_string fname) {
  load_db_now(kpse);
  if (auto real = BRIDGE_REAL(kpathsea_db_insert)) real(kpse, fname);
}

// The program name selects trovalis's per-program sections, as it selects
// kpathsea's per-program variables.
static void bridge_kpathsea_set_program_name(kpathsea kpse, const_string argv0,
                                             const_string progname) {
  if (auto real = BRIDGE_REAL(kpathsea_set_program_name)) real(kpse, argv0, progname);
  if (g.mode == Mode::On && kpse == g.served && kpse->program_name != nullptr) {
    g.program = kpse->program_name;
    g.t->ready(kpse->program_name);
    for (Format &f : g.formats) f = Format{};
  }
}

// A file made by kpathsea's make script (mktextfm, mktexpk...) is entered
// into trovalis's databases, so that no process keeps its cached miss.
static string bridge_kpathsea_make_tex(kpathsea kpse, kpse_file_format_type format,
                                       const_string base) {
  auto real = BRIDGE_REAL(kpathsea_make_tex);
  string made = real ? real(kpse, format, base) : nullptr;
  if (made != nullptr && g.mode == Mode::On && kpse == g.served && made[0] == '/') {
    LookupGuard guard;
    if (guard.held()) g.t->new_file(made);
  }
  return made;
}

// Every single-file look-up (kpse_find_file, kpse_open_file, kpsewhich)
// passes here.
static string *bridge_kpathsea_find_file_generic(kpathsea kpse, const_string name,
                                                 kpse_file_format_type format,
                                                 boolean must_exist, boolean all) {
  auto real = BRIDGE_REAL(kpathsea_find_file_generic);
  if (real == nullptr) return one_answer(nullptr);
  LookupGuard guard;
  if (!guard.held() || name == nullptr || all || format < 0 || format >= kpse_last_format)
    return real(kpse, name, format, must_exist, all);
  // As kpathsea does first; the first format read also reads texmf.cnf,
  // which is where the bridge decides whether trovalis answers.
  auto init_format = BRIDGE_KPSE(decltype(&kpathsea_init_format), kpathsea_init_format);
  if (kpse->format_info[format].path == nullptr && init_format != nullptr)
    init_format(kpse, format);
  if (!turn_on(kpse) || type_of(format) == nullptr) {
    load_db_now(kpse);
    return real(kpse, name, format, must_exist, all);
  }
  if (kpse->program_name != nullptr && g.program != kpse->program_name) {
    // A new program name (kpse_reset_program_name) brings new paths.
    g.program = kpse->program_name;
    g.t->ready(g.program.c_str());
    for (Format &f : g.formats) f = Format{};
  }
  std::string found;
  const Outcome o = answer(kpse, name, format, must_exist, found);
  if (o == Outcome::Kpathsea || g.verify) {
    load_db_now(kpse);
    string *theirs = real(kpse, name, format, must_exist, all);
    if (o != Outcome::Kpathsea && theirs != nullptr) verify(name, format, o, found, theirs[0]);
    return theirs;
  }
  return one_answer(o == Outcome::Found ? found.c_str() : nullptr);
}

BRIDGE_ENTRY(void, kpathsea_init_db, (kpathsea kpse), (kpse))
BRIDGE_ENTRY(string, kpathsea_path_search,
             (kpathsea kpse, const_string path, const_string name, boolean must_exist),
             (kpse, path, name, must_exist))
BRIDGE_ENTRY(string *, kpathsea_all_path_search,
             (kpathsea kpse, const_string path, const_string name), (kpse, path, name))
BRIDGE_ENTRY(string *, kpathsea_path_search_list_generic,
             (kpathsea kpse, const_string path, string *names, boolean must_exist, boolean all),
             (kpse, path, names, must_exist, all))
BRIDGE_ENTRY(string, kpathsea_find_glyph,
             (kpathsea kpse, const_string font_name, unsigned dpi, kpse_file_format_type format,
              kpse_glyph_file_type *glyph_file),
             (kpse, font_name, dpi, format, glyph_file))
BRIDGE_ENTRY(void, kpathsea_db_insert, (kpathsea kpse, const_string fname), (kpse, fname))
BRIDGE_ENTRY(void, kpathsea_set_program_name,
             (kpathsea kpse, const_string argv0, const_string progname), (kpse, argv0, progname))
BRIDGE_ENTRY(string, kpathsea_make_tex,
             (kpathsea kpse, kpse_file_format_type format, const_string base), (kpse, format, base))
BRIDGE_ENTRY(string *, kpathsea_find_file_generic,
             (kpathsea kpse, const_string name, kpse_file_format_type format, boolean must_exist,
              boolean all),
             (kpse, name, format, must_exist, all))
