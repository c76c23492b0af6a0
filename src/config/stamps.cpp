// Recording the stamps of the files a reset read, and comparing them with
// the files at attach.
#include "config/stamps.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "core/region.h"
#include "platform/platform.h"
#include "trovalis.h"

namespace trv {

namespace {

// Stamp list: magic, flags, count, then one record per file.
constexpr uint32_t kMagic = 0x504D5453;  // "STMP" in the region
constexpr uint32_t kStale = 1;           // flag: a read failed during the reset
constexpr int32_t kListHead = 12;
// Record: path text offset, mtime nanoseconds, then size, mtime seconds and
// inode as 64-bit little-endian numbers.
constexpr int32_t kRecordBytes = 32;
// No reset reads more files than this (a few per tree); a larger count is
// damage.
constexpr int32_t kMaxFiles = 4096;

struct Pending {
  std::string path;
  platform::FileStamp stamp;
};

bool g_recording = false;
bool g_lost = false;  // a stamp could not be kept in process memory
// This process found the list stale: the reset it runs is the retry, and
// a read that fails again is taken to fail for good (an unreadable tree,
// say). Marking that list stale too would reset at every program's start.
bool g_retry = false;
int32_t g_slot = 0;
std::vector<Pending> g_files;

void store64(char *p, int64_t v) {
  store32(p, static_cast<uint32_t>(static_cast<uint64_t>(v)));
  store32(p + 4, static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32));
}
int64_t load64(const char *p) {
  return static_cast<int64_t>(static_cast<uint64_t>(load32(p)) |
                              (static_cast<uint64_t>(load32(p + 4)) << 32));
}

bool same(const platform::FileStamp &a, const platform::FileStamp &b) {
  return a.size == b.size && a.mtime_sec == b.mtime_sec && a.mtime_nsec == b.mtime_nsec &&
         a.inode == b.inode;
}

// Writes the list; its offset, or 0 when the arena has no room.
int32_t write_list(bool complete) {
  const int32_t count = static_cast<int32_t>(g_files.size());
  if (count > kMaxFiles) return 0;
  // Paths first, so that the list itself is one object.
  std::vector<int32_t> paths;
  paths.reserve(g_files.size());
  for (const Pending &f : g_files) {
    const int32_t text = stradd(f.path.c_str());
    if (text <= 0) return 0;
    paths.push_back(text);
  }
  const int64_t bytes = kListHead + static_cast<int64_t>(count) * kRecordBytes;
  const int32_t list = salloc(static_cast<int>(bytes));
  char *p = list > 0 ? at(list, bytes) : nullptr;
  if (p == nullptr) return 0;
  store32(p, kMagic);
  store32(p + 4, complete ? 0u : kStale);
  storei(p + 8, count);
  for (int32_t i = 0; i < count; ++i) {
    char *r = p + kListHead + static_cast<int64_t>(i) * kRecordBytes;
    const platform::FileStamp &s = g_files[static_cast<size_t>(i)].stamp;
    storei(r, paths[static_cast<size_t>(i)]);
    storei(r + 4, s.mtime_nsec);
    store64(r + 8, s.size);
    store64(r + 16, s.mtime_sec);
    store64(r + 24, s.inode);
  }
  return list;
}

}  // namespace

void stamps_begin() {
  g_files.clear();
  g_lost = false;
  g_slot = 0;
  g_recording = true;
}

void stamps_reserve() {
  g_slot = salloc(4);
  if (char *p = g_slot > 0 ? at(g_slot, 4) : nullptr) storei(p, 0);
}

bool stamp_file(const char *path) {
  if (!g_recording || path == nullptr) return false;
  for (const Pending &f : g_files)
    if (f.path == path) return false;
  try {
    g_files.push_back({path, platform::file_stamp(path)});
  } catch (...) {  // out of memory: the list cannot say what was read
    g_lost = true;
  }
  return true;
}

void stamps_end(bool complete) {
  if (!g_recording) return;
  g_recording = false;
  char *slot = g_slot > 0 ? at(g_slot, 4) : nullptr;
  if (slot != nullptr) storei(slot, write_list((complete || g_retry) && !g_lost));
  g_retry = false;
  g_files.clear();
  g_files.shrink_to_fit();
}

bool stamps_changed(const char **why) {
  const char *slot = at(hdr(Word::Mem_Mark), 4);
  const int32_t list = slot != nullptr ? loadi(slot) : 0;
  if (list == 0) return false;
  const char *p = list > 0 ? at(list, kListHead) : nullptr;
  if (p == nullptr || load32(p) != kMagic) {
    *why = "(no file stamps)";
    return true;
  }
  if ((load32(p + 4) & kStale) != 0) {
    *why = "(a file could not be read at the last reset)";
    g_retry = true;
    return true;
  }
  const int32_t count = loadi(p + 8);
  const char *records =
      count >= 0 && count <= kMaxFiles
          ? at(list + kListHead, static_cast<int64_t>(count) * kRecordBytes)
          : nullptr;
  if (records == nullptr) {
    *why = "(no file stamps)";
    return true;
  }
  for (int32_t i = 0; i < count; ++i) {
    const char *r = records + static_cast<int64_t>(i) * kRecordBytes;
    const char *path = text_at(loadi(r));
    if (path == nullptr) {
      *why = "(no file stamps)";
      return true;
    }
    platform::FileStamp was;
    was.mtime_nsec = loadi(r + 4);
    was.size = load64(r + 8);
    was.mtime_sec = load64(r + 16);
    was.inode = load64(r + 24);
    if (!same(was, platform::file_stamp(path))) {
      *why = path;
      return true;
    }
  }
  return false;
}

}  // namespace trv
