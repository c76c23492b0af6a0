// The resource pool (texts packed down from the top of the data area) and
// the image-cache index pool handed to hosts.
#include <cstring>

#include "core/lock.h"
#include "core/region.h"
#include "trovalis.h"

using namespace trv;

extern "C" {

int QDMAddToPool(const char *text) {
  if (text == nullptr) return 0;
  const size_t len = std::strlen(text);
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
  char *p = at(hdr(Word::Pool_Low), 1);
  return p ? p : at(hdr(Word::Mem_Max) - 1, 1);
}

void QDMClearPool(void) {
  const int32_t top = hdr(Word::Mem_Max) - 1;
  char *p = at(top, 1);
  if (p == nullptr) return;
  set_hdr(Word::Pool_Low, top);
  *p = '\0';
}

void QDMDeinstallPooledFonts(void) {}

int QDMImageCacheIndexPool(void **address, int *size) {
  const int32_t off = hdr(Word::Image_Pool);
  if (address) *address = off > 0 ? at(off, kImagePoolBytes) : nullptr;
  if (size) *size = hdr(Word::Image_Size);
  return 1;
}

}  // extern "C"
