// The arena: bump allocation in the shared data area, and checked offsets.
#include "core/region.h"

#include <algorithm>
#include <climits>

#include "core/message.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {

Mapping g_map;

namespace {
constexpr const char *kExhausted = "ERROR: too few shared memmory, extend it.";

char *data_base() { return g_map.base + kHeaderBytes; }
uint32_t g_refusals = 0;
}  // namespace

uint32_t arena_refusals() { return g_refusals; }


int32_t hdr(Word w) {
  if (g_map.base == nullptr) return 0;
  return loadi(g_map.base + 4 * static_cast<int>(w));
}

void set_hdr(Word w, int32_t value) {
  if (g_map.base == nullptr) return;
  storei(g_map.base + 4 * static_cast<int>(w), value);
}


const char *text_at(int32_t off) {
  const char *p = at(off, 1);
  if (p == nullptr) return nullptr;
  const int64_t room = std::min<int64_t>(data_bytes() - off, kTextMax + 1);
  return std::memchr(p, '\0', static_cast<size_t>(room)) ? p : nullptr;
}

int32_t offset_of(const void *p) {
  if (!region_mapped() || p == nullptr) return -1;
  const char *c = static_cast<const char *>(p);
  if (c < data_base() || c >= g_map.base + g_map.length) return -1;
  return static_cast<int32_t>(c - data_base());
}

int64_t max_walk() { return data_bytes() / EntryLayout::kOverhead + 1; }

}  // namespace trv

using namespace trv;

extern "C" {

// The arena grows up from Mem_Used, the pool down from Pool_Low; a request
// that would make them meet (or that runs past the mapping, which a damaged
// header could claim) fails with the exhaustion line and leaves both alone.
int salloc(int size) {
  if (!region_mapped()) return -1;
  const int64_t used = hdr(Word::Mem_Used);
  const int64_t end = used + static_cast<int64_t>(size);
  const int64_t ceiling = std::min<int64_t>(hdr(Word::Pool_Low), data_bytes());
  if (size < 0 || used < 0 || end >= ceiling) {
    // A full arena is normal; a header that makes every request fail is
    // damage, which the next export repairs.
    if (const Finding f = check_header(); f.fault != Fault::None) note_damage(f.what);
    ++g_refusals;
    message(kExhausted, "");
    return -1;
  }
  set_hdr(Word::Mem_Used, static_cast<int32_t>(end));
  return static_cast<int32_t>(used);
}

int stradd(const char *text) {
  const size_t len = std::strlen(text);
  if (len >= INT_MAX) return -1;
  const int off = salloc(static_cast<int>(len + 1));
  if (off < 0) return -1;
  std::memcpy(at(off, len + 1), text, len + 1);
  return off;
}

int add_str(int value, const char *text) {
  const size_t len = std::strlen(text);
  if (len >= INT_MAX - 8) return -1;
  const int off = salloc(static_cast<int>(len + 8));
  if (off < 0) return -1;
  char *p = at(off, len + 8);
  storei(p, value);
  std::memcpy(p + 4, text, len + 1);
  return off;
}

char *next_str(const void *word) {
  if (word == nullptr) return nullptr;
  const int32_t off = loadi(word);
  if (off == 0) return nullptr;
  return at(off, 1);
}

}  // extern "C"
