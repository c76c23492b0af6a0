// The resource pool (texts packed down from the top of the data area) and
// the image-cache index pool handed to hosts.
#include <cstring>

#include "core/lock.h"
#include "core/message.h"
#include "core/region.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {
namespace {

// Hosts read the pool as texts up to the empty one, so it is handed out
// only when that walk ends inside the data area.
bool pool_sound(int32_t low, int64_t top) {
  for (int64_t off = low; off <= top;) {
    const char *t = text_at(static_cast<int32_t>(off));
    if (t == nullptr) return false;
    if (t[0] == '\0') return true;
    off += static_cast<int64_t>(std::strlen(t)) + 1;
  }
  return false;
}

char g_empty_pool[2] = "";

}  // namespace
}  // namespace trv

using namespace trv;

extern "C" {

int QDMAddToPool(const char *text) {
  if (text == nullptr) return 0;
  const size_t len = std::strlen(text);
  // Readers take no text longer than kTextMax; one would read as damage.
  if (len > static_cast<size_t>(kTextMax)) {
    messagef("ERROR: ", "Pool text of %zu bytes refused: longer than %lld", len,
             static_cast<long long>(kTextMax));
    return 0;
  }
  CacheGuard guard;
  const int64_t used = hdr(Word::Mem_Used);
  const int64_t low = hdr(Word::Pool_Low);
  if (!region_mapped() || used + static_cast<int64_t>(len) + 1 >= low ||
      at(static_cast<int32_t>(low), 1) == nullptr) {
    message("ERROR: too few shared memmory, extend it.", "");
    return 0;
  }
  const int32_t new_low = static_cast<int32_t>(low - static_cast<int64_t>(len) - 1);
  std::memcpy(at(new_low, static_cast<int64_t>(len) + 1), text, len + 1);
  set_hdr(Word::Pool_Low, new_low);
  return static_cast<int>(len);
}

char *QDMGetPool(void) {
  const int32_t low = hdr(Word::Pool_Low);
  if (!pool_sound(low, static_cast<int64_t>(hdr(Word::Mem_Max)) - 1)) {
    if (region_mapped()) note_damage("the resource pool");
    return g_empty_pool;
  }
  return at(low, 1);
}

void QDMClearPool(void) {
  // Mem_Max is at least 1 in any region at() accepts it for.
  const int32_t max = hdr(Word::Mem_Max);
  const int32_t top = max > 0 ? max - 1 : -1;
  char *p = at(top, 1);
  if (p == nullptr) return;
  set_hdr(Word::Pool_Low, top);
  *p = '\0';
}

void QDMDeinstallPooledFonts(void) {}

int QDMImageCacheIndexPool(void **address, int *size) {
  const int32_t off = hdr(Word::Image_Pool);
  void *pool = off > 0 ? at(off, kImagePoolBytes) : nullptr;
  // The host writes as much as it is told: a damaged size is not passed on.
  const int32_t bytes = hdr(Word::Image_Size);
  if (pool == nullptr || bytes != kImagePoolBytes) {
    if (region_mapped()) note_damage("the image pool");
    pool = nullptr;
  }
  if (address) *address = pool;
  if (size) *size = pool != nullptr ? bytes : 0;
  return 1;
}

}  // extern "C"
