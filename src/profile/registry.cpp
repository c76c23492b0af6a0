// Registry emulation: keys as sections of REG.INI, values as their key lines.
#include <cstring>

#include "profile/profile_text.h"
#include "trovalis.h"

extern "C" {
RegKeySlot Key_List[2] = {};
}

namespace {

constexpr const char *kRootNames[8] = {
    "HKEY_CLASSES_ROOT", "HKEY_CURRENT_USER",     "HKEY_LOCAL_MACHINE", "HKEY_USERS",
    "HKEY_PERFORMANCE_DATA", "HKEY_CURRENT_CONFIG", "HKEY_DYN_DATA",      "HKEY_RESERVED"};
constexpr int kOpenedBit = 0x10;
constexpr size_t kSubKeyBytes = sizeof Key_List[0].SubKey;
constexpr char kDefaultValue[] = "Default";

char g_key_dir[256];
// The profile store holds sections whose head "[" name "]" fits its head
// buffer; a longer key could be built here but never stored, and a value
// set under it would be lost while the call reported success.
constexpr size_t kKeyDirMax = trv::kHeadBytes - 3;
static_assert(kKeyDirMax < sizeof g_key_dir);

// The slot that an opened-key handle designates, or -1. Handles 0 and 1
// reach the slots too, as 16 and 17 do.
int open_slot(int key) {
  const int slot = key & ~kOpenedBit;
  if ((slot == 0 || slot == 1) && Key_List[slot].Parent != 0) return slot;
  return -1;
}

bool append(size_t *used, const char *text) {
  const size_t n = std::strlen(text);
  if (*used + n > kKeyDirMax) return false;
  std::memcpy(g_key_dir + *used, text, n + 1);
  *used += n;
  return true;
}

// A writable copy of the registry file's name for each call: profile calls
// may rewrite their file name in place.
struct RegFile {
  char name[8] = "REG.INI";
};

}  // namespace

extern "C" {

// A root whose low four bits are 8 to 15 has no name, and a name that does
// not fit the buffer would be some other key: both give NULL, and the calls
// that need a section then fail.
char *KeyDir(int key, const char *sub_key) {
  g_key_dir[0] = '\0';
  const int slot = open_slot(key);
  char stored[kSubKeyBytes];
  if (slot >= 0) {
    key = Key_List[slot].Parent;
    // The table is exported, so its text is bounded here rather than trusted.
    const size_t n = strnlen(Key_List[slot].SubKey, kSubKeyBytes - 1);
    std::memcpy(stored, Key_List[slot].SubKey, n);
    stored[n] = '\0';
    sub_key = stored;
  }
  size_t used = 0;
  if (key < 0) {
    const int root = key & 0xF;
    if (root > 7) return nullptr;
    if (!append(&used, kRootNames[root]) || !append(&used, "\\")) return nullptr;
  }
  if (!append(&used, sub_key ? sub_key : "")) {
    g_key_dir[0] = '\0';
    return nullptr;
  }
  return g_key_dir;
}

// Refused with 1: a sub-key the slot cannot hold, a root without a name, and
// the parent 0, which would mark the slot free again.
int RegCreateKeyA(int key, const char *sub_key, int *result) {
  if (sub_key == nullptr) sub_key = "";
  if (result == nullptr || key == 0 || std::strlen(sub_key) >= kSubKeyBytes) return 1;
  if (key < 0 && (key & 0xF) > 7) return 1;
  for (int slot = 0; slot < 2; ++slot) {
    if (Key_List[slot].Parent != 0) continue;
    Key_List[slot].Parent = key;
    std::memcpy(Key_List[slot].SubKey, sub_key, std::strlen(sub_key) + 1);
    *result = slot | kOpenedBit;
    return 0;
  }
  return 1;
}

int RegCloseKey(int key) {
  const int slot = open_slot(key);
  if (slot < 0) return 1;
  Key_List[slot].Parent = 0;
  return 0;
}

int RegSetValue(int key, const char *sub_key, int, const char *data, int) {
  const char *section = KeyDir(key, sub_key);
  if (section == nullptr) return 1;
  RegFile file;
  WritePrivateProfileString(section, kDefaultValue, data, file.name);
  return 0;
}

int RegSetValueExA(int key, const char *value_name, int, int, const char *data, int) {
  const char *section = KeyDir(key, "");
  if (section == nullptr) return 1;
  if (value_name == nullptr || *value_name == '\0') value_name = kDefaultValue;
  RegFile file;
  WritePrivateProfileString(section, value_name, data, file.name);
  return 0;
}

int RegQueryValue(int key, const char *sub_key, char *buffer, int *size) {
  if (size == nullptr) return 1;
  const int room = *size;
  const char *section = KeyDir(key, sub_key);
  if (section == nullptr) {
    if (buffer != nullptr && room > 0) buffer[0] = '\0';
    *size = 0;
    return 1;
  }
  RegFile file;
  *size = GetPrivateProfileString(section, kDefaultValue, "", buffer, room, file.name);
  return buffer != nullptr && room > 0 && buffer[0] != '\0' ? 0 : 1;
}

}  // extern "C"
