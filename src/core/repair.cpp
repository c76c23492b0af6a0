// Putting the shared region right after the cache lock was taken over from
// a process that may have died in the middle of writing it.
//
// Everything above Mem_Mark (value tables, databases, answer caches) is
// rebuilt by a configuration reset, whatever state it was left in. Below
// the mark, three things are written after creation:
//   - the message queue: a post moves the table one word down and then
//     stores the spare slot at its head; a post cut short in between leaves
//     one slot designated twice and another not at all, and from then on
//     every post would write over a message still shown. Repaired here.
//   - the frame table: RegisterFrame clears an entry's handle before it
//     rewrites the entry, so a cut-short write leaves a dead entry, never a
//     live one with a mixed-up name or process.
//   - the resource pool: QDMAddToPool copies the text before it lowers
//     Pool_Low, so a cut-short add leaves unused bytes only.
// Header words are written one at a time and are whole either way.
#include "core/repair.h"

#include <cstdio>
#include <cstring>

#include "core/message.h"
#include "core/region.h"
#include "trovalis.h"

namespace trv {

namespace {

constexpr char kCacheTakenOver[] = "cache lock taken over from dead process %d; rebuilding the cache";
constexpr char kCacheAdopted[] =
    "cache lock taken by no live process for %ld s; taken over, rebuilding the cache";
constexpr char kQueueRepaired[] = "message queue: %d slot references repaired";

bool g_pending = false;
Takeover g_what{};

void repair_now() {
  g_pending = false;
  if (g_what.died_holding) messagef("WARNING: ", kCacheTakenOver, g_what.former_pid);
  else messagef("WARNING: ", kCacheAdopted, g_what.waited_ms / 1000);
  const int fixed = repair_message_queue();
  if (fixed > 0) messagef("WARNING: ", kQueueRepaired, fixed);
  QDMReset();
}

}  // namespace

void cache_lock_taken_over(QDMLock *, const Takeover &what) {
  g_pending = true;
  g_what = what;
  g_what.name = "";  // the name lives in the lock's holder; not needed here
  if (region_mapped()) repair_now();
}

void repair_pending_region() {
  if (g_pending && region_mapped()) repair_now();
}

void drop_pending_repair() { g_pending = false; }

// Creation lays the 1025 slots out one after the other right behind the
// table (docs/region-format.md), so the set of valid table words is known:
// the text offset of each slot. A queue of another shape is left alone.
int repair_message_queue() {
  constexpr int32_t kSlots = kMsgMax + 1;
  const int32_t table_off = hdr(Word::Msg_Table);
  if (table_off <= 0 || hdr(Word::Msg_Max) != kMsgMax) return 0;
  char *table = at(table_off, int64_t{kSlots} * 4);
  const int32_t slots = table_off + kSlots * 4;
  if (table == nullptr || at(slots, int64_t{kSlots} * MsgSlotLayout::kBytes) == nullptr) return 0;
  const int32_t first_text = slots + MsgSlotLayout::kText;

  // From the spare slot towards the newest message, so that of two words
  // designating the same slot the older position keeps it: a post cut short
  // has copied the newest message one place down but not yet stored the
  // new head, and the head is the word that is wrong.
  bool seen[kSlots] = {};
  int bad[kSlots];
  int nbad = 0;
  for (int i = kSlots - 1; i >= 0; --i) {
    const int32_t w = loadi(table + 4 * i);
    const int32_t rel = w - first_text;
    const int32_t k = rel / MsgSlotLayout::kBytes;
    if (rel >= 0 && rel % MsgSlotLayout::kBytes == 0 && k < kSlots && !seen[k]) seen[k] = true;
    else bad[nbad++] = i;
  }
  int k = 0;
  for (int j = 0; j < nbad; ++j) {
    while (seen[k]) ++k;
    seen[k] = true;
    const int32_t slot = slots + k * MsgSlotLayout::kBytes;
    // Whatever the slot holds was left by a post that did not finish.
    std::memset(at(slot, MsgSlotLayout::kBytes), 0, MsgSlotLayout::kBytes);
    storei(table + 4 * bad[j], slot + MsgSlotLayout::kText);
  }

  int32_t count = hdr(Word::Msg_Count);
  if (count < 0) count = 0;
  if (count > kMsgMax) count = kMsgMax;
  set_hdr(Word::Msg_Count, count);
  set_hdr(Word::Msg_Held, count);
  return nbad;
}

}  // namespace trv
