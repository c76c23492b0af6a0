// The shared region's binary layout and the checked access to it.
//
// Every process maps the region at its own address, so nothing in it is a
// pointer: references are 32-bit data-area offsets. The region may be damaged
// or written by a hostile process of the same user, so an offset becomes a
// pointer only through at(), which checks that the whole object lies inside
// the mapping; a bad offset is "none". Records are byte-packed and unaligned:
// they are read and written with load32/store32 (memcpy), never by casting.
// docs/region-format.md describes the same layout in prose.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace trv {

inline constexpr int32_t kLayoutVersion = 10;
inline constexpr int32_t kHeaderBytes = 128;
inline constexpr int32_t kDefaultMapSize = 8000000;
// The Version word of a region that a larger one has replaced: processes
// that still map it move to the object the name now leads to.
inline constexpr int32_t kReplacedVersion = -1;
// Mem_Max = Map_Size - 132: the data area in use, one word short of the end.
inline constexpr int32_t kMemMaxSlack = 132;

// The 32 header words, in order; word N is at byte 4 * N.
enum class Word : int {
  Version,
  Mem_Used,
  Mem_Mark,
  Mem_Max,
  Shared_Trace,
  Common_INI,
  Common_Hash,
  SectDir_Hash,
  Root_LRU,
  DB_Hash,
  Alias_Hash,
  DB_Dirs,
  Mirror_List,
  Moderation,
  Msg_Max,
  Msg_Count,
  Msg_Table,
  Msg_Len,
  Msg_Held,
  Msg_Total,
  Msg_Warnings,
  Msg_Type5,
  Local_INI,
  Env_String,
  Frame_Size,
  Frame_Table,
  Pool_Low,
  Reset_Count,
  Image_Size,
  Image_Pool,
  AppData_Dir,
  Net_Index,
  Count_
};

// The header as one record. Only used for its layout (offsetof); the words
// are accessed through hdr()/set_hdr() so that the access stays defined
// whatever another process wrote.
struct RegionHeader {
  int32_t Version, Mem_Used, Mem_Mark, Mem_Max, Shared_Trace, Common_INI,
      Common_Hash, SectDir_Hash, Root_LRU, DB_Hash, Alias_Hash, DB_Dirs,
      Mirror_List, Moderation, Msg_Max, Msg_Count, Msg_Table, Msg_Len,
      Msg_Held, Msg_Total, Msg_Warnings, Msg_Type5, Local_INI, Env_String,
      Frame_Size, Frame_Table, Pool_Low, Reset_Count, Image_Size, Image_Pool,
      AppData_Dir, Net_Index;
};

static_assert(sizeof(RegionHeader) == kHeaderBytes);
static_assert(static_cast<int>(Word::Count_) * 4 == kHeaderBytes);
#define TRV_WORD_AT(name, byte)                                   \
  static_assert(offsetof(RegionHeader, name) == (byte));          \
  static_assert(static_cast<int>(Word::name) * 4 == (byte))
TRV_WORD_AT(Version, 0);
TRV_WORD_AT(Mem_Used, 4);
TRV_WORD_AT(Mem_Mark, 8);
TRV_WORD_AT(Mem_Max, 12);
TRV_WORD_AT(Shared_Trace, 16);
TRV_WORD_AT(Common_INI, 20);
TRV_WORD_AT(Common_Hash, 24);
TRV_WORD_AT(SectDir_Hash, 28);
TRV_WORD_AT(Root_LRU, 32);
TRV_WORD_AT(DB_Hash, 36);
TRV_WORD_AT(Alias_Hash, 40);
TRV_WORD_AT(DB_Dirs, 44);
TRV_WORD_AT(Mirror_List, 48);
TRV_WORD_AT(Moderation, 52);
TRV_WORD_AT(Msg_Max, 56);
TRV_WORD_AT(Msg_Count, 60);
TRV_WORD_AT(Msg_Table, 64);
TRV_WORD_AT(Msg_Len, 68);
TRV_WORD_AT(Msg_Held, 72);
TRV_WORD_AT(Msg_Total, 76);
TRV_WORD_AT(Msg_Warnings, 80);
TRV_WORD_AT(Msg_Type5, 84);
TRV_WORD_AT(Local_INI, 88);
TRV_WORD_AT(Env_String, 92);
TRV_WORD_AT(Frame_Size, 96);
TRV_WORD_AT(Frame_Table, 100);
TRV_WORD_AT(Pool_Low, 104);
TRV_WORD_AT(Reset_Count, 108);
TRV_WORD_AT(Image_Size, 112);
TRV_WORD_AT(Image_Pool, 116);
TRV_WORD_AT(AppData_Dir, 120);
TRV_WORD_AT(Net_Index, 124);
#undef TRV_WORD_AT

// Entry record shared by hash tables, LRU lists and text lists:
// next (4), value (4), key text with NUL; nothing after the key.
struct EntryLayout {
  static constexpr int32_t kNext = 0;
  static constexpr int32_t kValue = 4;
  static constexpr int32_t kKey = 8;
  static constexpr int32_t kOverhead = 9;  // reserved beyond the key length
};
// An entry of an indexed LRU list carries one more word in front of it, so
// that every reader of plain entries reads it unchanged: the entry before
// it in the list (0 for the first), relative to the entry's own offset.
struct IndexedEntryLayout {
  static constexpr int32_t kPrev = -4;
  static constexpr int32_t kPrefix = 4;
};
// LRU list head: first (4), count (4), index (4, 0 for a list without
// one), name text with NUL.
struct LruHeadLayout {
  static constexpr int32_t kFirst = 0;
  static constexpr int32_t kCount = 4;
  static constexpr int32_t kIndex = 8;
  static constexpr int32_t kName = 12;
  static constexpr int32_t kOverhead = 13;
};
// Index of an LRU list: slot count (a power of two), slots in use, then
// the slots, each a key's hash and its entry (0: free), linearly probed.
struct IndexLayout {
  static constexpr int32_t kCount = 4;
  static constexpr int32_t kSlots = 8;
  static constexpr int32_t kSlotBytes = 8;
  static constexpr int32_t kFirstSlots = 32;
};
// Hash table: bucket count, then the bucket heads; 8 bytes of slack.
struct HashLayout {
  static constexpr int32_t kBuckets = 0;
  static constexpr int32_t kHeads = 4;
  static constexpr int32_t kOverhead = 8;
};
// Message slot: three extended-type bytes, the type byte, then the text.
struct MsgSlotLayout {
  static constexpr int32_t kTypeHigh = 0;  // bytes 0..2, high to low
  static constexpr int32_t kType = 3;
  static constexpr int32_t kText = 4;
  static constexpr int32_t kTextBytes = 101;
  static constexpr int32_t kBytes = kText + kTextBytes;
};
static_assert(MsgSlotLayout::kBytes == 105);
// Frame entry: handle, process id, 128-byte name.
struct FrameLayout {
  static constexpr int32_t kHandle = 0;
  static constexpr int32_t kPid = 4;
  static constexpr int32_t kName = 8;
  static constexpr int32_t kNameBytes = 128;
  static constexpr int32_t kBytes = kName + kNameBytes;
  static constexpr int32_t kCount = 128;
};
static_assert(FrameLayout::kBytes == 136);
static_assert(FrameLayout::kBytes * FrameLayout::kCount == 17408);

// No text this system stores is longer than a path (4096 bytes); a reader
// gives up on a text that runs longer than this without its NUL, so that
// one damaged link costs at most this much scanning, not the whole arena.
inline constexpr int64_t kTextMax = 65535;

inline constexpr int32_t kMsgMax = 1024;
inline constexpr int32_t kMsgLen = 100;
inline constexpr int32_t kFrameTableBytes = 17408;
inline constexpr int32_t kImagePoolBytes = 32768;

inline uint32_t load32(const void *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;  // little-endian hosts only (both target platforms)
}
inline void store32(void *p, uint32_t v) { std::memcpy(p, &v, 4); }
inline int32_t loadi(const void *p) { return static_cast<int32_t>(load32(p)); }
inline void storei(void *p, int32_t v) { store32(p, static_cast<uint32_t>(v)); }

// A data-area offset. 0 is "none"; negative values never designate anything.
struct Off {
  int32_t v = 0;
  constexpr Off() = default;
  constexpr explicit Off(int32_t value) : v(value) {}
  constexpr bool none() const { return v <= 0; }
  friend constexpr bool operator==(Off a, Off b) { return a.v == b.v; }
};

// The region mapped in this process.
struct Mapping {
  char *base = nullptr;   // Ptr_trovalis
  int64_t length = 0;     // bytes mapped
  // Counts the mappings this process has made: what was read in one is
  // not taken for what another holds, though the address may repeat.
  uint64_t serial = 0;
};
extern Mapping g_map;

// These three are on the path of every list step, so they are inline.
inline bool region_mapped() { return g_map.base != nullptr && g_map.length > kHeaderBytes; }
int32_t hdr(Word w);
void set_hdr(Word w, int32_t value);

// Bytes available from the data-area offset to the end of the mapping.
inline int64_t data_bytes() { return region_mapped() ? g_map.length - kHeaderBytes : 0; }

// Pointer to `len` bytes at data-area offset `off`, or nullptr when any of
// them lies outside the mapped data area. Offset 0 is valid here ("MEM"); the
// callers that read links treat 0 as the end before asking.
inline char *at(int32_t off, int64_t len) {
  if (!region_mapped() || off < 0 || len < 0) return nullptr;
  if (static_cast<int64_t>(off) + len > data_bytes()) return nullptr;
  return g_map.base + kHeaderBytes + off;
}
inline char *at(Off off, int64_t len) { return at(off.v, len); }
// The NUL-terminated text at `off`, or nullptr when the offset is outside the
// data area or the text runs past its end or past kTextMax characters.
const char *text_at(int32_t off);
// The reverse of at(): the data-area offset of a pointer into the region, or
// -1 for a pointer outside it.
int32_t offset_of(const void *p);

// Requests the arena has refused in this process: a caller that builds
// several objects compares it before and after to know whether all of them
// fit.
uint32_t arena_refusals();

// Upper bound for walks along links: no list can hold more entries than the
// data area has room for, so a longer walk has met a cycle.
int64_t max_walk();

}  // namespace trv
