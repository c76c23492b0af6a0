// Loading trovalis privately into a TeX program and attaching it quietly.
#pragma once

namespace bridge {

// The library's exports the bridge calls, resolved once it attached.
struct Trovalis {
  char *(*search)(const char *type, const char *name, int origin);  // _QDMSearch
  char *(*find)(const char *request);                               // QDMFind
  char *(*value)(const char *section, const char *key);             // QDMValue
  int (*ready)(const char *program);                                // QDMReady
  int (*new_file)(const char *path);                                // QDMNewFile
  int (*post)(const char *source, const char *text, int type);      // QDMMessage
};

// Loads trovalis (beside the bridge, else where it was installed) into t
// and attaches this process to the shared region, with standard error sent
// to /dev/null meanwhile so that the program's output stays its own. False
// when that fails for any reason; *why then says what failed, and
// *can_log whether t->post may write to the shared log (the region is
// attached but not one to answer from).
bool load_trovalis(Trovalis *t, const char **why, bool *can_log);

}  // namespace bridge
