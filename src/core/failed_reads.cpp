// The count of failed reads of this process, and their log line.
#include "core/failed_reads.h"

#include <cstring>

#include "core/message.h"

namespace trv {

namespace {
uint32_t g_failed = 0;
}  // namespace

void note_failed_read(const char *path, int err) {
  if (file_absent(err)) return;
  ++g_failed;
  // The path last: a long one loses its head to the log's line length,
  // the reason stays.
  messagef("WARNING: ", "Not cached, can't read (%s): %s", std::strerror(err),
           path != nullptr ? path : "");
}

uint32_t failed_reads() { return g_failed; }

}  // namespace trv
