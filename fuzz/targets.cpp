// The fuzz targets' bodies: what each feeds its reader and what it checks.
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/containers.h"
#include "core/region.h"
#include "core/validate.h"
#include "db/db.h"
#include "fuzz.h"
#include "trovalis.h"

namespace trv::fuzz {

namespace {

std::string bytes(const uint8_t *data, size_t size) {
  return std::string(reinterpret_cast<const char *>(data), size);
}
std::string upto_nul(const std::string &s) { return s.substr(0, s.find('\0')); }

// The next NUL-terminated field of `rest` from `at` on.
std::string next_field(const std::string &rest, size_t &at) {
  if (at >= rest.size()) return "";
  std::string field = upto_nul(rest.substr(at));
  at += field.size() + 1;
  return field;
}

void check_sound() { FUZZ_CHECK(check_region().fault == Fault::None); }

// The database search must answer into `out` or not at all.
void search(const std::string &name, const std::string &element) {
  char out[kPathBuf];
  char *r = db_search(name.c_str(), element.c_str(), out);
  FUZZ_CHECK(r == nullptr || r == out);
}

// Reads that change nothing a check looks at.
void read_everything() {
  {
    QuietStdout quiet;
    Print_Cache();
  }
  char *texts[kMsgMax];
  const int n = _QDMGetMessages(texts, kMsgMax);
  FUZZ_CHECK(n >= 0 && n <= kMsgMax);
  for (int i = 0; i < n; ++i) FUZZ_CHECK(std::strlen(texts[i]) < MsgSlotLayout::kTextBytes);
  int pooled = 0;
  for (const char *p = QDMGetPool(); *p != '\0'; p += std::strlen(p) + 1) ++pooled;
  FUZZ_CHECK(pooled <= data_bytes());
  void *images = nullptr;
  int image_bytes = 0;
  QDMImageCacheIndexPool(&images, &image_bytes);
  if (images != nullptr) std::memset(images, 0, static_cast<size_t>(image_bytes));
}

}  // namespace

// Damaged region images. The input is a list of 9-byte edits to a populated
// region: a kind (a header word, an arena word, an arena word holding some
// offset inside the arena: the damage hardest to tell from a real link, or
// one byte), a place and a value. Then the checks and every reader run; on a
// region that check_region() calls sound no reader may meet damage.
void fuzz_region(const uint8_t *data, size_t size) {
  scratch();
  restore(true);
  const int64_t span = hdr(Word::Mem_Used) + 64;
  for (size_t i = 0; i + 9 <= size; i += 9) {
    uint32_t where, value;
    std::memcpy(&where, data + i + 1, 4);
    std::memcpy(&value, data + i + 5, 4);
    const int32_t off = static_cast<int32_t>(where % static_cast<uint32_t>(span));
    char *p = at(off, data[i] % 4 == 3 ? 1 : 4);
    switch (data[i] % 4) {
      case 0: set_hdr(static_cast<Word>(where % 32), static_cast<int32_t>(value)); break;
      case 1: if (p) store32(p, value); break;
      case 2: if (p) store32(p, value % static_cast<uint32_t>(span)); break;
      default: if (p) *p = static_cast<char>(value); break;
    }
  }
  check_header();
  const Finding f = check_region();
  const uint32_t seen = damage_seen();
  read_everything();
  // A region of another layout is not judged (attach refuses it).
  if (f.fault == Fault::None && hdr(Word::Version) == kLayoutVersion && damage_seen() != seen)
    fail(last_damage(), __FILE__, __LINE__);

  // Readers that also write (message posts, move-to-front, new records)
  // must only survive damage here: exports rebuild a damaged region, which
  // is tested elsewhere.
  forget_damage();
  hash_lookup(hdr(Word::Common_Hash), "SELFAUTOPARENT");
  hash_lookup(hdr(Word::DB_Hash), "cmr10.tfm");
  if (const char *record = FormatPath(ProgName, "tfm")) lru_lookup(loadi(record), "cmr10");
  lru_head(hdr(Word::Root_LRU));
  _QDMValue("QDM", "tfm");
  search("cmr10.tfm", scratch() + "/texmf/fonts//");
  search("latex/article.cls", scratch() + "/texmf/tex");
  forget_damage();
  QDMRecycle("tfm", "cmr10");
  forget_damage();
  char frames[64];
  FrameList(frames, sizeof frames);
  forget_damage();
  FindFrame("main");
  forget_damage();
  _QDMMessage("fuzz: ", "after", 4);
  read_everything();
  forget_damage();
}

// The INI reader and writer. The input is the file's text, then after a
// 0xFF byte NUL-separated section, key and value names for a few writes
// ("-" as a value deletes). Every listing and look-up is read into small
// buffers whose ends are watched; a plain value written must read back.
void fuzz_ini(const uint8_t *data, size_t size) {
  const std::string in = bytes(data, size);
  const size_t cut = in.find('\xff');
  const std::string text = in.substr(0, cut);
  std::string path = write_scratch("ini/fuzz.ini", reinterpret_cast<const uint8_t *>(text.data()),
                                   text.size());
  forget_ini_copies();
  // A read into `len` bytes of a larger buffer, whose rest must stay fenced.
  auto fenced = [](int len, auto &&read) {
    char buf[48];
    std::memset(buf, '#', sizeof buf);
    const int got = read(buf, len);
    FUZZ_CHECK(got >= 0 && got <= len);
    for (size_t i = static_cast<size_t>(len); i < sizeof buf; ++i) FUZZ_CHECK(buf[i] == '#');
  };
  for (int len : {1, 2, 7, 24})
    fenced(len, [&](char *b, int n) { return GetPrivateProfileSectionNames(b, n, path.data()); });
  char names[48];
  const int got = GetPrivateProfileSectionNames(names, 40, path.data());
  for (const char *s = names; s < names + got && *s; s += std::strlen(s) + 1) {
    const std::string section(s);
    char keys[48];
    const int k = GetPrivateProfileString(section.c_str(), nullptr, "", keys, 40, path.data());
    for (const char *key = keys; key < keys + k && *key; key += std::strlen(key) + 1)
      fenced(5, [&](char *b, int n) {
        return GetPrivateProfileString(section.c_str(), key, "dflt", b, n, path.data());
      });
    fenced(9, [&](char *b, int n) { return GetPrivateProfileSection(section.c_str(), b, n, path.data()); });
  }
  if (cut == std::string::npos) return;
  const std::string rest = in.substr(cut + 1);
  for (size_t at = 0; at < rest.size();) {
    const std::string section = next_field(rest, at), key = next_field(rest, at),
                      value = next_field(rest, at);
    const bool remove = value == "-";
    const int r = WritePrivateProfileString(section.c_str(), key.c_str(),
                                            remove ? nullptr : value.c_str(), path.data());
    FUZZ_CHECK(r == 0 || r == 1);
    // A name or value holding a line end or a bracket can make or hide a
    // head; only plain ones must read back.
    if (r == 1 && !remove && value.find_first_of("\n\r") == std::string::npos &&
        section.find_first_of("\n\r]") == std::string::npos &&
        key.find_first_of("\n\r=") == std::string::npos && key[0] != '[' && key[0] != ';' &&
        !key.empty() && !section.empty()) {
      char back[300];
      GetPrivateProfileString(section.c_str(), key.c_str(), "", back, sizeof back, path.data());
      if (value.size() < sizeof back) FUZZ_CHECK(value == back);
    }
  }
}

// The database readers. The first byte chooses the file by its value mod 3:
// an ls-R, a plain "aliases" list or "aliases.ini"; the rest, loaded into a
// fresh table, must leave the region sound. Then every name the file could
// hold (the words of its first 2000 bytes) is looked up below the file's own
// root and, through the aliases, in the fonts.
void fuzz_db(const uint8_t *data, size_t size) {
  if (size == 0) return;
  const int kind = data[0] % 3;
  const std::string root = scratch() + "/db/", fonts = scratch() + "/texmf/fonts//";
  restore();
  const char *const names[] = {"db/ls-R", "db/aliases", "db/aliases.ini"};
  const std::string file = write_scratch(names[kind], data + 1, size - 1);
  forget_ini_copies();
  const int table = hash_create(kind == 0 ? kDbBuckets : kAliasBuckets);
  FUZZ_CHECK(table > 0);
  set_hdr(kind == 0 ? Word::DB_Hash : Word::Alias_Hash, table);
  const int loaded = kind == 0   ? db_build(table, file.c_str())
                     : kind == 1 ? alias_build(table, file.c_str())
                                 : alias_ini_build(table, file.c_str());
  FUZZ_CHECK(loaded == 1 || (kind == 0 && loaded == 0));
  check_sound();
  const std::string text = bytes(data + 1, size - 1);
  for (size_t at = 0; at < text.size() && at < 2000;) {
    const size_t end = std::min(text.find_first_of(std::string(" \t\r\n=\0", 6), at), text.size());
    const std::string name = text.substr(at, std::min(end - at, size_t{PieceReader::kPiece}));
    for (const std::string &element : {root, root + "sub//", root + "//", fonts})
      if (!name.empty()) search(name, element);
    at = end + 1;
  }
}

// Variable expansion. The input is a byte giving the output's capacity, the
// text, then NUL-separated name and value pairs defined in the "memory"
// section (references to each other and cycles included). The output buffer
// is exactly the capacity, on the heap, so a write past it is caught; the
// result must be what the interface promises and the text come back as it
// was, with and without a chain (as a format path is built).
void fuzz_expand(const uint8_t *data, size_t size) {
  if (size == 0) return;
  scratch();
  restore();
  const int capacity = 1 + data[0] * 17 % 4096;
  const std::string rest = bytes(data + 1, size - 1);
  size_t at = 0;
  std::string text = next_field(rest, at);
  const std::string before = text;
  while (at < rest.size()) {
    const std::string name = next_field(rest, at), value = next_field(rest, at);
    _QDMSetValue("memory", name.c_str(), value.c_str(), 0);
  }
  std::unique_ptr<char[]> out(new char[static_cast<size_t>(capacity)]);
  QDMVarRef root{nullptr, "A"};
  for (QDMVarRef *chain : {static_cast<QDMVarRef *>(nullptr), &root}) {
    const int left = var_expand(text.data(), out.get(), capacity, chain);
    FUZZ_CHECK(left >= 1 && left <= capacity);
    FUZZ_CHECK(std::strlen(out.get()) == static_cast<size_t>(capacity - left));
    FUZZ_CHECK(text == before);
  }
  check_sound();
}

// Front-end requests, as a host passes them to QDMFind (up to the first
// NUL). The answer is never null, and a sound region stays sound. A type
// names its own search path when TEXMF.INI does not define it, so a type
// that could name a directory outside the scratch installation would walk
// the disk: such requests are not run, nor the modes that run programs.
void fuzz_qdmfind(const uint8_t *data, size_t size) {
  const std::string request = upto_nul(bytes(data, size));
  if (request.empty() || request[0] == '?' || request[0] == '!') {
    if (strncasecmp(request.c_str(), "!Make", 5) == 0 || strncasecmp(request.c_str(), "!*Make", 6) == 0)
      return;
  } else {
    const size_t lt = request.find('<');
    const size_t gt = request.find('>', lt == std::string::npos ? 0 : lt);
    if (lt != std::string::npos && gt != std::string::npos &&
        request.substr(lt + 1, gt - lt - 1).find_first_of("/\\$~.:{") != std::string::npos)
      return;
  }
  scratch();
  restore();
  const char *answer;
  {
    QuietStdout quiet;
    answer = QDMFind(request.c_str());
  }
  FUZZ_CHECK(answer != nullptr);
  FUZZ_CHECK(strnlen(answer, 4096) < 4096);
  check_sound();
}

}  // namespace trv::fuzz
