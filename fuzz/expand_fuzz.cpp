// Fuzz target: variable expansion.
//
// The input is: a byte giving the output's capacity, the text to expand,
// then NUL-separated name and value pairs that define variables (in the
// region's "memory" section) for the expansion to find, references to each
// other and cycles included. The output buffer is exactly the capacity
// given, on the heap, so a write past it is caught; the result must be what
// the interface promises and the text must come back unchanged.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/region.h"
#include "core/validate.h"
#include "support.h"
#include "targets.h"
#include "trovalis.h"

namespace trv::fuzz {

void fuzz_expand(const uint8_t *data, size_t size) {
  if (size == 0) return;
  scratch();
  restore();
  const int capacity = 1 + data[0] * 17 % 4096;
  std::vector<std::string> fields;
  const char *p = reinterpret_cast<const char *>(data + 1);
  const char *end = reinterpret_cast<const char *>(data + size);
  while (p <= end) {
    const char *nul = static_cast<const char *>(std::memchr(p, '\0', static_cast<size_t>(end - p)));
    const char *stop = nul ? nul : end;
    fields.emplace_back(p, stop);
    p = stop + 1;
  }
  for (size_t i = 1; i + 1 < fields.size(); i += 2)
    _QDMSetValue("memory", fields[i].c_str(), fields[i + 1].c_str(), 0);

  std::string text = fields[0];
  const std::string before = text;
  std::unique_ptr<char[]> out(new char[static_cast<size_t>(capacity)]);
  const int left = var_expand(text.data(), out.get(), capacity, nullptr);
  FUZZ_CHECK(left >= 1 && left <= capacity);
  FUZZ_CHECK(std::strlen(out.get()) == static_cast<size_t>(capacity - left));
  FUZZ_CHECK(text == before);

  // The same with a chain, as a format path is built.
  QDMVarRef root{nullptr, "A"};
  const int again = var_expand(text.data(), out.get(), capacity, &root);
  FUZZ_CHECK(again >= 1 && again <= capacity);
  FUZZ_CHECK(std::strlen(out.get()) == static_cast<size_t>(capacity - again));
  FUZZ_CHECK(text == before);
  FUZZ_CHECK(check_region().fault == Fault::None);
}

}  // namespace trv::fuzz
