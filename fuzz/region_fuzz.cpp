// Fuzz target: damaged region images through the checks and the readers.
//
// The input is a list of edits to a populated region, 9 bytes each: a kind,
// a place and a value. Kinds write a header word, an arena word, an arena
// word that holds some offset inside the arena (the damage that is hard to
// tell from a real link), or one byte. Then the checks run, and the readers
// that every process uses: look-ups, the report, the message queue, frames,
// pools, the database search and forgetting answers. None of them may crash
// or hang, and on a region that check_region() calls sound none of them may
// meet damage.
#include <cstring>

#include "core/containers.h"
#include "core/region.h"
#include "core/validate.h"
#include "support.h"
#include "targets.h"
#include "trovalis.h"

namespace trv::fuzz {

namespace {

void apply_edits(const uint8_t *data, size_t size) {
  const int64_t span = hdr(Word::Mem_Used) + 64;
  for (size_t i = 0; i + 9 <= size; i += 9) {
    uint32_t where, value;
    std::memcpy(&where, data + i + 1, 4);
    std::memcpy(&value, data + i + 5, 4);
    const int32_t off = static_cast<int32_t>(where % static_cast<uint32_t>(span));
    switch (data[i] % 4) {
      case 0:
        set_hdr(static_cast<Word>(where % 32), static_cast<int32_t>(value));
        break;
      case 1:
        if (char *p = at(off, 4)) store32(p, value);
        break;
      case 2:
        if (char *p = at(off, 4)) store32(p, value % static_cast<uint32_t>(span));
        break;
      default:
        if (char *p = at(off, 1)) *p = static_cast<char>(value);
        break;
    }
  }
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

void fuzz_region(const uint8_t *data, size_t size) {
  scratch();
  restore(true);
  apply_edits(data, size);

  check_header();
  const Finding f = check_region();
  const uint32_t seen = damage_seen();
  read_everything();
  // A region of another layout is not judged (attach refuses it).
  if (f.fault == Fault::None && hdr(Word::Version) == kLayoutVersion && damage_seen() != seen)
    fail(last_damage(), __FILE__, __LINE__);

  // Readers that also write: message posts, move-to-front, new records.
  // Exports would rebuild a region found damaged; that is tested elsewhere,
  // here they must only survive it.
  forget_damage();
  hash_lookup(hdr(Word::Common_Hash), "SELFAUTOPARENT");
  hash_lookup(hdr(Word::DB_Hash), "cmr10.tfm");
  if (const char *record = FormatPath(ProgName, "tfm")) lru_lookup(loadi(record), "cmr10");
  lru_head(hdr(Word::Root_LRU));
  _QDMValue("QDM", "tfm");
  char out[260];
  db_search("cmr10.tfm", (scratch() + "/texmf/fonts//").c_str(), out);
  db_search("latex/article.cls", (scratch() + "/texmf/tex").c_str(), out);
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

}  // namespace trv::fuzz
