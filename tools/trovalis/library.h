// Loading trovalis.so into the tool on demand.
#pragma once

#include <string>

#include "trovalis.h"

namespace tool {

// The library's exports the tool calls, resolved by load().
struct Api {
  int (*QDMCopyMessages)(const unsigned *, char *, int, unsigned *);
  int (*QDMMessage)(const char *, const char *, int);
  int (*QDMReady)(const char *);
  char *(*QDMSearch)(const char *, const char *, int);  // _QDMSearch
  int (*QDMNewFile)(const char *);
  char *(*QDMFind)(const char *);
  int (*Print_Cache)(void);
  char *(*QDMValue)(const char *, const char *);
  void (*QDMSetMessageTap)(QDMMessageTap);
  int *Trace;      // this process's trace switches
  int *Trace_ALS;
};

// Loads the library (which attaches this process to the shared cache; a
// failed attach ends the process with status 1 after its report). Returns
// nullptr, after printing why on stderr, when the library cannot be loaded.
// The library announces every attach on stderr ("Opened Memory is ...");
// the tool passes that line on only when verbose is set, and everything
// else the library writes while loading always.
const Api *load();
void set_verbose(bool on);

// The tool's own executable, found the way the library finds it.
std::string own_path();

}  // namespace tool
