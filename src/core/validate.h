// Consistency checks of the shared region, and the report and repair of a
// damaged one.
//
// When they run. A search answered from the cache costs tens of nanoseconds
// and a process attaches in well under a millisecond, so neither may walk a
// region that holds 130,000 database entries. Instead:
//  - attach runs check_header() (the 32 words and the message slot table,
//    a few microseconds) on every region it did not create;
//  - every reader checks each offset it follows (at(), text_at()) and bounds
//    each walk (walk_chain); one that meets a bad link, a list that does not
//    end or an impossible table calls note_damage() and carries on with
//    what it has, as if the rest were absent;
//  - the locking exports call repair_damage() when they start their work,
//    where this process holds no offset into the region. When damage was
//    noted there, check_region() walks everything to name the fault for the
//    log line, and the region is rebuilt: by a configuration reset when the
//    fault lies above the creation mark, or laid out anew when creation's
//    own part (the header's fixed words, the message queue, the frame table,
//    the image and resource pools) is hit.
// So an intact region costs one test of a flag per export, and a damaged
// one is reported once and rebuilt by the first process that meets it.
#pragma once

#include <cstdint>

namespace trv {

// What check_header() and check_region() found.
enum class Fault {
  None,
  Rebuild,   // above the creation mark, or a word a reset rewrites
  Recreate,  // in what only creation lays out
};

struct Finding {
  Fault fault = Fault::None;
  const char *what = "";  // static text: which part and what is wrong
};

// The header words, the creation-time objects on the region's first pages
// (paths, message slot table) and the ranges of the words a reset rewrites,
// for the region mapped now. Reads nothing else of the region: at attach,
// every page first touched costs a fault. Does not follow a single list. A
// region of another layout version is not judged here (Fault::None).
Finding check_header();

// check_header(), then the end of the resource pool and every list and table
// the header leads to: each entry inside the arena, every text terminated
// there, every value of the kind its table holds, no list without an end. Work is bounded by the size of the
// data area, whatever the region holds.
Finding check_region();

// Called by a reader that met damage; `what` is a static text. Cheap, and
// safe anywhere (the lock need not be held).
void note_damage(const char *what);
// Counts note_damage() calls in this process, so that a caller can tell
// whether a walk it just made met damage.
uint32_t damage_seen();
// What the latest note_damage() said ("" before any).
const char *last_damage();
// Forgets noted damage without repairing it (tests and fuzzing drive
// readers over images that no reset could rebuild).
void forget_damage();

// With the cache lock held by the outermost caller: when this process noted
// damage and no other process has rebuilt the region since, logs one
// "ERROR: " line saying what was wrong and rebuilds the region. Costs one
// test of a flag otherwise.
extern bool g_damage_pending;
void repair_noted_damage();
inline void repair_damage() {
  if (g_damage_pending) repair_noted_damage();
}

// Logs the one "ERROR: " line that says the region was damaged and rebuilt.
void report_damage(const char *what);

// Lays the region out anew, as for a new object (src/core/attach.cpp). The
// caller holds the cache lock. False when TEXMF.INI cannot be found.
bool recreate_region();

}  // namespace trv
