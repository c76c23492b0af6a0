// The fuzz targets: one entry point per parser or reader, linked both into
// its libFuzzer program and into the test that replays the saved inputs.
#pragma once

#include <cstddef>
#include <cstdint>

namespace trv::fuzz {

// Each takes any bytes. A crash, a sanitizer report or a failed FUZZ_CHECK
// is a finding; returning is a pass.
void fuzz_region(const uint8_t *data, size_t size);   // damaged region images
void fuzz_ini(const uint8_t *data, size_t size);      // INI reader and writer
void fuzz_lsr(const uint8_t *data, size_t size);      // ls-R reader
void fuzz_alias(const uint8_t *data, size_t size);    // alias readers
void fuzz_expand(const uint8_t *data, size_t size);   // var_expand
void fuzz_braces(const uint8_t *data, size_t size);   // brace expansion
void fuzz_match(const uint8_t *data, size_t size);    // database path matching
void fuzz_qdmfind(const uint8_t *data, size_t size);  // front-end requests

struct Target {
  const char *name;  // also the directory of its saved inputs, fuzz/corpus/NAME
  void (*run)(const uint8_t *, size_t);
};
inline constexpr Target kTargets[] = {
    {"region", fuzz_region}, {"ini", fuzz_ini},       {"lsr", fuzz_lsr},
    {"alias", fuzz_alias},   {"expand", fuzz_expand}, {"braces", fuzz_braces},
    {"match", fuzz_match},   {"qdmfind", fuzz_qdmfind},
};

}  // namespace trv::fuzz
