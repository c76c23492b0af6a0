// Consistency checks of the shared region, and the report and repair of a
// damaged one (when each runs: see validate.h).
#include "core/validate.h"

#include <bitset>
#include <cstring>

#include "core/containers.h"
#include "core/lock.h"
#include "core/lru_index.h"
#include "core/region.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr const char *kDamaged = "ERROR: Shared memory was damaged, rebuilding it: ";
constexpr int32_t kRecordBytes = 16;  // a format record: four words
constexpr int32_t kKnownEmpty = 1;    // a value table's "no such value"

struct Noted {
  const char *what = "";
  int32_t resets = 0;  // Reset_Count when the damage was met
  uint32_t count = 0;
} g_noted;
const char *g_last = "";

Finding fixed(const char *what) { return {Fault::Recreate, what}; }
Finding rebuild(const char *what) { return {Fault::Rebuild, what}; }

int32_t word(Word w) { return hdr(w); }

// len bytes at off lie inside [lo, hi).
bool within(int64_t off, int64_t len, int64_t lo, int64_t hi) {
  return off >= lo && len >= 0 && off + len <= hi && at(static_cast<int32_t>(off), len) != nullptr;
}

// A text at off inside [lo, hi): it starts there and its NUL comes before hi.
bool text_within(int64_t off, int64_t lo, int64_t hi) {
  if (off < lo || off >= hi) return false;
  const char *t = text_at(static_cast<int32_t>(off));
  return t != nullptr && off + static_cast<int64_t>(std::strlen(t)) < hi;
}

// The message slot table holds Msg_Max + 1 words, each the text offset of
// one of the slots that follow it, every slot once.
bool message_slots_sound(int32_t table) {
  const int64_t slots = table + 4 * static_cast<int64_t>(kMsgMax + 1);
  const char *words = at(table, 4 * static_cast<int64_t>(kMsgMax + 1));
  if (words == nullptr) return false;
  std::bitset<kMsgMax + 1> seen;
  for (int i = 0; i <= kMsgMax; ++i) {
    const int64_t rel = static_cast<int64_t>(loadi(words + 4 * i)) - MsgSlotLayout::kText - slots;
    if (rel < 0 || rel % MsgSlotLayout::kBytes != 0) return false;
    const int64_t slot = rel / MsgSlotLayout::kBytes;
    if (slot > kMsgMax || seen.test(static_cast<size_t>(slot))) return false;
    seen.set(static_cast<size_t>(slot));
  }
  return true;
}

// What a reset makes: 0, or an object of `bytes` bytes in [mark, used).
bool dynamic_object(int32_t off, int64_t bytes, int64_t mark, int64_t used) {
  return off == 0 || within(off, bytes, mark, used);
}

bool dynamic_table(int32_t off, int64_t mark, int64_t used) {
  if (off == 0) return true;
  if (!within(off, HashLayout::kHeads, mark, used)) return false;
  const int64_t n = loadi(at(off, HashLayout::kHeads));
  return n > 0 && within(off, HashLayout::kHeads + 4 * n, mark, used);
}

// Walks every list and table the header leads to, with one budget of steps
// for all of them. Entries lie above the creation mark; the texts their
// values name may lie anywhere in the arena (APPDATA names a creation text).
class RegionWalk {
 public:
  RegionWalk() : mark_(word(Word::Mem_Mark)), used_(word(Word::Mem_Used)), steps_(2 * max_walk()) {}

  const char *fault() const { return fault_; }

  void run() {
    lru(word(Word::Root_LRU), [&](int32_t program) { return program_table(program); });
    hash(word(Word::SectDir_Hash), [&](int32_t section) {
      return hash_ok(section) && hash(section, [&](int32_t v) { return value(v); });
    });
    hash(word(Word::Common_Hash), [&](int32_t v) { return value(v); });
    hash(word(Word::DB_Hash), [&](int32_t dir) { return text(dir); });
    hash(word(Word::Alias_Hash), [&](int32_t target) { return text(target); });
    chain(word(Word::DB_Dirs), "the database directory list", [](int32_t) { return true; });
    chain(word(Word::Mirror_List), "the mirror list", [&](int32_t local) { return text(local); });
    if (fault_ == nullptr) pool();
  }

 private:
  bool fail(const char *what) {
    if (fault_ == nullptr) fault_ = what;
    return false;
  }

  bool entry(int32_t e) {
    return within(e, EntryLayout::kKey + 1, mark_, used_) && text_within(e + EntryLayout::kKey, mark_, used_);
  }
  bool text(int32_t off) { return text_within(off, 0, used_); }
  // A configuration value: unknown (0), known to be empty (1), or a text.
  bool value(int32_t v) { return v == 0 || v == kKnownEmpty || text(v); }
  bool hash_ok(int32_t table) { return table > 0 && dynamic_table(table, mark_, used_); }
  bool lru_ok(int32_t list) {
    return list > 0 && within(list, LruHeadLayout::kName + 1, mark_, used_) &&
           text_within(list + LruHeadLayout::kName, mark_, used_);
  }

  template <class F>
  bool chain(int32_t first, const char *what, F &&value_ok) {
    for (int32_t e = first; e != 0 && fault_ == nullptr; e = entry_next(e)) {
      if (--steps_ < 0) return fail("lists hold more entries than the arena has room for");
      if (!entry(e) || !value_ok(entry_value(e))) return fail(what);
    }
    return fault_ == nullptr;
  }

  template <class F>
  bool hash(int32_t table, F &&value_ok) {
    if (table == 0) return true;
    if (!hash_ok(table)) return fail("a hash table does not fit in the arena");
    const int32_t n = hash_bucket_count(table);
    for (int32_t b = 0; b < n && fault_ == nullptr; ++b)
      chain(hash_bucket_head(table, static_cast<uint32_t>(b)), "a hash chain", value_ok);
    return fault_ == nullptr;
  }

  template <class F>
  bool lru(int32_t list, F &&value_ok) {
    if (list == 0) return true;
    if (!lru_ok(list)) return fail("a list head does not fit in the arena");
    return chain(loadi(at(list, LruHeadLayout::kName)), "an answer cache list", value_ok);
  }

  // A program's table of file types, each leading to a format record.
  bool program_table(int32_t table) {
    return lru(table, [&](int32_t record) {
      if (!within(record, kRecordBytes, mark_, used_)) return fail("a format record");
      const char *r = at(record, kRecordBytes);
      const int32_t answers = loadi(r), path = loadi(r + 4), suffixes = loadi(r + 8),
                    make = loadi(r + 12);
      if ((suffixes != 0 && !text(suffixes)) || (make != 0 && !text(make)))
        return fail("a format record's texts");
      return chain(path, "a search path list", [](int32_t) { return true; }) &&
             lru(answers, [&](int32_t a) { return a == 0 || a == 1 || text(a); }) &&
             index_of(answers);
    });
  }

  // An answer cache's index: a power of two of slots, one at least free,
  // as many used as counted, each used one naming an entry of the arena with its
  // prefix word above the mark and the hash of its key; and each entry of
  // the list with the prefix word naming the entry before it.
  bool index_of(int32_t list) {
    const int32_t index = loadi(at(list, LruHeadLayout::kName) + LruHeadLayout::kIndex);
    if (index == 0) return true;
    constexpr const char *kBad = "an answer cache index";
    if (!within(index, IndexLayout::kSlots, mark_, used_)) return fail(kBad);
    const int64_t n = loadi(at(index, IndexLayout::kSlots));
    if (n <= 0 || (n & (n - 1)) != 0 ||
        !within(index, IndexLayout::kSlots + IndexLayout::kSlotBytes * n, mark_, used_))
      return fail(kBad);
    const int64_t count = loadi(at(index, IndexLayout::kSlots) + IndexLayout::kCount);
    const auto prefixed = [&](int32_t e) {
      return within(static_cast<int64_t>(e) + IndexedEntryLayout::kPrev, IndexedEntryLayout::kPrefix,
                    mark_, used_) && entry(e);
    };
    int64_t in_use = 0;
    for (int64_t i = 0; i < n; ++i) {
      const char *s = at(static_cast<int32_t>(index + IndexLayout::kSlots + IndexLayout::kSlotBytes * i),
                         IndexLayout::kSlotBytes);
      const int32_t e = loadi(s + 4);
      if (e == 0) continue;
      if (--steps_ < 0 || !prefixed(e) || index_hash(entry_key(e)) != load32(s)) return fail(kBad);
      ++in_use;
    }
    if (in_use != count || count >= n) return fail(kBad);
    int32_t prev = 0;
    for (int32_t e = loadi(at(list, LruHeadLayout::kName)); e != 0; prev = e, e = entry_next(e))
      if (--steps_ < 0 || !prefixed(e) || indexed_prev(e) != prev) return fail(kBad);
    return true;
  }

  // Texts packed from Pool_Low up to the empty text at Mem_Max - 1, read
  // the way hosts read them: up to the first empty text, which must come
  // by then.
  void pool() {
    const int32_t top = word(Word::Mem_Max) - 1;
    for (int64_t off = word(Word::Pool_Low);;) {
      if (off > top || !text_within(off, off, top + 1)) {
        fail("the resource pool");
        return;
      }
      const size_t len = std::strlen(text_at(static_cast<int32_t>(off)));
      if (len == 0) return;
      off += static_cast<int64_t>(len) + 1;
    }
  }

  int64_t mark_, used_, steps_;
  const char *fault_ = nullptr;
};

}  // namespace

bool g_damage_pending = false;

Finding check_header() {
  if (!region_mapped() || word(Word::Version) != kLayoutVersion) return {};
  const int64_t data = data_bytes();
  const int64_t max = word(Word::Mem_Max), mark = word(Word::Mem_Mark);
  const int64_t used = word(Word::Mem_Used), low = word(Word::Pool_Low);

  // What creation laid out below the mark: the arena's bounds, the paths,
  // the message queue, the frame table and the image pool, in that order.
  if (max <= 0 || max > data - 4) return fixed("Mem_Max lies outside the mapping");
  if (mark <= 0 || mark >= max) return fixed("Mem_Mark lies outside the arena");
  if (low <= mark || low > max - 1) return fixed("Pool_Low lies outside the arena");
  if (word(Word::Msg_Max) != kMsgMax || word(Word::Msg_Len) != kMsgLen ||
      word(Word::Frame_Size) != kFrameTableBytes || word(Word::Image_Size) != kImagePoolBytes)
    return fixed("a fixed size in the header");
  const int64_t table = word(Word::Msg_Table);
  const int64_t frames = table + 4 * static_cast<int64_t>(kMsgMax + 1) +
                         static_cast<int64_t>(kMsgMax + 1) * MsgSlotLayout::kBytes;
  if (table <= 0 || word(Word::Frame_Table) != frames ||
      word(Word::Image_Pool) != frames + kFrameTableBytes ||
      mark != frames + kFrameTableBytes + kImagePoolBytes)
    return fixed("the places of the message queue, frame table and image pool");
  if (!message_slots_sound(static_cast<int32_t>(table))) return fixed("the message slot table");
  const int32_t msgs = word(Word::Msg_Count);
  if (msgs < 0 || msgs > kMsgMax) return fixed("Msg_Count");
  if (!text_within(word(Word::Common_INI), 1, table) || !text_within(word(Word::Local_INI), 1, table))
    return fixed("the configuration file paths");
  if (const int32_t a = word(Word::AppData_Dir); a != 0 && !text_within(a, 1, table))
    return fixed("the application data folder");
  if (const int32_t env = word(Word::Env_String); env != -1 && !text_within(env, 0, mark))
    return fixed("Env_String");

  // What a reset rewrites.
  if (used < mark || used >= low) return rebuild("Mem_Used lies outside the arena");
  // Only where these objects lie: what they hold is the full check's.
  for (const Word w : {Word::Root_LRU, Word::Common_Hash, Word::SectDir_Hash, Word::DB_Hash,
                       Word::Alias_Hash, Word::DB_Dirs, Word::Mirror_List, Word::Net_Index}) {
    const int64_t off = word(w);
    if (off != 0 && (off < mark || off + 4 > used)) return rebuild("a word of the header that a reset rewrites");
  }
  if (const int32_t m = word(Word::Moderation); m != 0 && m != 1) return rebuild("Moderation");
  return {};
}

Finding check_region() {
  const Finding head = check_header();
  if (head.fault != Fault::None || !region_mapped() || word(Word::Version) != kLayoutVersion)
    return head;
  if (*at(word(Word::Mem_Max) - 1, 1) != '\0') return fixed("the resource pool has no end");
  const int32_t mark = word(Word::Mem_Mark), used = word(Word::Mem_Used);
  const int32_t root = word(Word::Root_LRU);
  if (root != 0 && !(within(root, LruHeadLayout::kName + 1, mark, used) &&
                     text_within(root + LruHeadLayout::kName, mark, used)))
    return rebuild("Root_LRU");
  if (!dynamic_table(word(Word::Common_Hash), mark, used) ||
      !dynamic_table(word(Word::SectDir_Hash), mark, used) ||
      !dynamic_table(word(Word::DB_Hash), mark, used) ||
      !dynamic_table(word(Word::Alias_Hash), mark, used))
    return rebuild("a hash table word of the header");
  if (!dynamic_object(word(Word::DB_Dirs), EntryLayout::kKey + 1, mark, used) ||
      !dynamic_object(word(Word::Mirror_List), EntryLayout::kKey + 1, mark, used))
    return rebuild("a list word of the header");
  if (const int32_t net = word(Word::Net_Index); net != 0 && !text_within(net, mark, used))
    return rebuild("Net_Index");
  RegionWalk walk;
  walk.run();
  if (walk.fault() != nullptr) return rebuild(walk.fault());
  return {};
}

void note_damage(const char *what) {
  ++g_noted.count;
  g_last = what;
  if (g_damage_pending) return;
  g_damage_pending = true;
  g_noted.what = what;
  g_noted.resets = hdr(Word::Reset_Count);
}

void report_damage(const char *what) { message(kDamaged, what); }

uint32_t damage_seen() { return g_noted.count; }

const char *last_damage() { return g_last; }

void forget_damage() { g_damage_pending = false; }

void repair_noted_damage() {
  if (!g_damage_pending) return;
  // Only the outermost holder of the lock may rebuild: a caller further out
  // may still hold offsets into what the rebuild discards.
  if (Lock != nullptr && Lock->count > 1) return;
  g_damage_pending = false;
  if (!region_mapped() || hdr(Word::Version) != kLayoutVersion) return;
  // Another process met the same damage first and rebuilt the region.
  if (hdr(Word::Reset_Count) != g_noted.resets) return;

  const Finding f = check_region();
  const char *what = f.fault != Fault::None ? f.what : g_noted.what;
  if (f.fault == Fault::Recreate) {
    recreate_region();
    report_damage(what);
    g_damage_pending = false;
    return;
  }
  report_damage(what);
  QDMReset();
  // The walks after the reset see a sound region; what they noted while it
  // was being rebuilt is not news.
  g_damage_pending = false;
}

}  // namespace trv
