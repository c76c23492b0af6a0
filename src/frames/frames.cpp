// The frame registry: window handles published by name across processes.
#include <signal.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {
namespace {

// The frame table, checked against the mapping; nullptr when the header
// does not describe a whole table.
char *frame_table() {
  const int32_t off = hdr(Word::Frame_Table);
  if (off <= 0) return nullptr;
  char *table = at(off, kFrameTableBytes);
  if (table == nullptr) note_damage("the frame table");
  return table;
}

char *frame(char *table, int i) { return table + static_cast<size_t>(i) * FrameLayout::kBytes; }

// Names are written with their NUL inside the 128 bytes, but another process
// may have left a damaged entry: force the last byte to NUL before reading.
const char *frame_name(char *f) {
  f[FrameLayout::kName + FrameLayout::kNameBytes - 1] = '\0';
  return f + FrameLayout::kName;
}

bool frame_alive(const char *f) {
  const int32_t handle = loadi(f + FrameLayout::kHandle);
  const int32_t pid = loadi(f + FrameLayout::kPid);
  // Only a positive pid names one process: kill() with 0 or a negative id
  // would probe a whole process group.
  return handle != 0 && pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

// First entry whose name is empty or equals `name` (case ignored); -1 when
// all 128 entries hold other names.
int slot_search(char *table, const char *name) {
  for (int i = 0; i < FrameLayout::kCount; ++i) {
    const char *n = frame_name(frame(table, i));
    if (n[0] == '\0' || strcasecmp(n, name) == 0) return i;
  }
  return -1;
}

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" {

int RegisterFrame(const char *name, int handle) {
  CacheGuard guard;
  repair_damage();
  char *table = frame_table();
  if (table == nullptr || name == nullptr) return 0;
  // Cut to 127 characters before the search, so a long name finds the entry
  // it was stored in last time.
  char cut[FrameLayout::kNameBytes];
  std::snprintf(cut, sizeof cut, "%s", name);
  const int i = slot_search(table, cut);
  if (i < 0) return 0;
  char *f = frame(table, i);
  // The handle last: a process killed in the middle of this leaves a dead
  // entry, not a live handle paired with another process's id.
  storei(f + FrameLayout::kHandle, 0);
  std::memcpy(f + FrameLayout::kName, cut, std::strlen(cut) + 1);
  storei(f + FrameLayout::kPid, static_cast<int32_t>(getpid()));
  storei(f + FrameLayout::kHandle, handle);
  return 1;
}

int UnRegisterProcessFrames(int pid) {
  CacheGuard guard;
  char *table = frame_table();
  if (table == nullptr) return 1;
  for (int i = 0; i < FrameLayout::kCount; ++i) {
    char *f = frame(table, i);
    if (frame_name(f)[0] == '\0') break;
    if (loadi(f + FrameLayout::kHandle) != 0 && loadi(f + FrameLayout::kPid) == pid)
      storei(f + FrameLayout::kHandle, 0);
  }
  return 1;
}

int FindFrame(const char *name) {
  CacheGuard guard;
  repair_damage();
  char *table = frame_table();
  if (table == nullptr || name == nullptr) return 0;
  const int i = slot_search(table, name);
  if (i < 0) return 0;
  const char *f = frame(table, i);
  if (frame_name(frame(table, i))[0] == '\0' || !frame_alive(f)) return 0;
  return loadi(f + FrameLayout::kHandle);
}

int FrameList(char *buffer, int size) {
  if (buffer == nullptr || size <= 0) return 0;
  CacheGuard guard;
  repair_damage();
  int remaining = size;
  char *w = buffer;
  if (char *table = frame_table()) {
    for (int i = 0; i < FrameLayout::kCount; ++i) {
      char *f = frame(table, i);
      const char *name = frame_name(f);
      if (name[0] == '\0') break;
      if (!frame_alive(f)) continue;
      const int len = static_cast<int>(std::strlen(name));
      if (len + 2 > remaining) break;  // the name, its NUL and the final NUL
      std::memcpy(w, name, static_cast<size_t>(len) + 1);
      w += len + 1;
      remaining -= len + 1;
    }
  }
  *w = '\0';
  return size - remaining;
}

}  // extern "C"
