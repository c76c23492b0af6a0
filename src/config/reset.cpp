// The configuration reset: discard everything learned since creation and
// rebuild the fixed starting points from the configuration files.
#include <cstdio>
#include <cstring>

#include "config/stamps.h"
#include "core/attach.h"
#include "core/failed_reads.h"
#include "core/region.h"
#include "trovalis.h"

using namespace trv;

namespace {

void reset_once() {
  // Every file read from here on is stamped (config/stamps.h).
  stamps_begin();
  const FailedReadWatch reads;
  char main_ini[4096];
  const char *stored = text_at(hdr(Word::Common_INI));
  std::snprintf(main_ini, sizeof main_ini, "%s", stored ? stored : "");

  char keys[256];
  keys[0] = '\0';
  if (main_ini[0] != '\0') {
    char file[4096];
    std::memcpy(file, main_ini, sizeof file);
    GetPrivateProfileString(ModerationSection, nullptr, "", keys, sizeof keys, file);
  }
  const bool moderated = keys[0] != '\0';
  set_hdr(Word::Moderation, moderated ? 1 : 0);
  message("Moderation of environment variable import is switched ", moderated ? "ON" : "OFF");

  set_hdr(Word::Mem_Used, hdr(Word::Mem_Mark));
  stamps_reserve();
  // Every offset handed out since the mark is void from here on; a search
  // that copied records out without the lock checks this count to know.
  set_hdr(Word::Reset_Count, static_cast<int32_t>(static_cast<uint32_t>(hdr(Word::Reset_Count)) + 1u));
  // The loaders set these words only when they find something; clearing
  // them here keeps every header word off the space just discarded.
  set_hdr(Word::DB_Hash, 0);
  set_hdr(Word::Alias_Hash, 0);
  set_hdr(Word::DB_Dirs, 0);
  set_hdr(Word::Net_Index, 0);
  set_hdr(Word::Mirror_List, 0);

  const int root = lru_create("[root]");
  set_hdr(Word::Root_LRU, root > 0 ? root : 0);

  INIFile = const_cast<char *>(text_at(hdr(Word::Common_INI)));
  const char *local = text_at(hdr(Word::Local_INI));
  if (local != nullptr) Zelvan_INI = const_cast<char *>(local);

  char folder[4096];
  std::memcpy(folder, main_ini, sizeof folder);
  if (char *slash = std::strrchr(folder, '/')) *slash = '\0';

  const int common = hash_create(711);
  set_hdr(Word::Common_Hash, common > 0 ? common : 0);
  if (common > 0) {
    const int text = stradd(folder);
    if (text > 0) hash_insert(common, "SELFAUTOPARENT", text);
  }
  const int dir = hash_create(31);
  set_hdr(Word::SectDir_Hash, dir > 0 ? dir : 0);
  if (dir > 0 && common > 0) hash_insert(dir, "Common", common);
  Common = hdr(Word::Common_Hash);
  SectDir = hdr(Word::SectDir_Hash);
  if (const int appdata = hdr(Word::AppData_Dir); appdata != 0 && Common > 0)
    hash_insert(Common, "APPDATA", appdata);
  // Databases last, above the tables made here; the mirror list follows.
  init_db();
  Load_Mirrors();
  stamps_end(!reads.failed());
}

}  // namespace

// A reset whose files do not fit (the trees grew, or this is the first reset
// of a region made with the default size) asks for a larger region: the
// region is replaced and the reset run again in the new one.
extern "C" int QDMReset(void) {
  if (!region_mapped()) return 0;
  const uint32_t refusals = arena_refusals();
  reset_once();
  const int64_t wish = take_region_wish(arena_refusals() != refusals);
  // Run again either way: when no larger region could be made, the second
  // run loads what fits.
  if (wish > 0) {
    grow_region(wish);
    reset_once();
  }
  region_refusals_met();
  return 0;
}
