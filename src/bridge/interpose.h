// How the bridge stands in front of libkpathsea's entry points, and how it
// loads trovalis: the few things that differ between Linux and macOS.
#pragma once

#include <dlfcn.h>

// BRIDGE_ENTRY(ret, name, (params), (args)) makes the bridge's handler
// `bridge_name` (defined before it) stand in for kpathsea's `name`;
// BRIDGE_REAL(name) is kpathsea's own function.
//
// Linux: the bridge exports the name itself and, preloaded, comes first in
// the global lookup; the real function is the next definition (RTLD_NEXT).
//
// macOS: dyld's interposing table (__DATA,__interpose) rebinds every other
// image's calls to the handler; the bridge's own references are not
// rebound, so the name itself is kpathsea's function.
#ifdef __APPLE__
#define BRIDGE_ENTRY(ret, name, params, args)                                    \
  __attribute__((used, section("__DATA,__interpose"))) static const struct {     \
    const void *replacement, *original;                                          \
  } interpose_##name = {reinterpret_cast<const void *>(&bridge_##name),          \
                        reinterpret_cast<const void *>(&name)};
#define BRIDGE_REAL(name) (&name)
#else
#define BRIDGE_ENTRY(ret, name, params, args)                                    \
  extern "C" __attribute__((visibility("default"))) ret name params {            \
    return bridge_##name args;                                                   \
  }
#define BRIDGE_REAL(name)                                                        \
  ([] {                                                                          \
    static const auto fn = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
    return fn;                                                                   \
  }())
#endif

// Other functions and data of libkpathsea, looked up when first used: the
// bridge refers to nothing of kpathsea's directly, so that it loads (and
// does nothing) in a program without kpathsea, as in a shell that
// preloads it for every command.
#define BRIDGE_KPSE(type, name)                                                  \
  ([] {                                                                          \
    static const auto p = reinterpret_cast<type>(dlsym(RTLD_DEFAULT, #name));    \
    return p;                                                                    \
  }())

namespace bridge {

// Flags for loading trovalis privately: its names stay out of the global
// lookup, and on Linux its own references bind to its own definitions
// first (libkpathsea exports hash_lookup and friends too). macOS's
// two-level namespace gives the second without asking.
#ifdef __APPLE__
inline constexpr int kPrivateLoad = RTLD_NOW | RTLD_LOCAL;
inline constexpr const char *kLibraryFile = "trovalis.dylib";
#else
inline constexpr int kPrivateLoad = RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND;
inline constexpr const char *kLibraryFile = "trovalis.so";
#endif

}  // namespace bridge
