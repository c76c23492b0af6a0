// The shared message queue: the newest 1024 log lines of all processes.
#include "core/message.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/lock.h"
#include "core/region.h"
#include "core/validate.h"
#include "trovalis.h"

namespace trv {

namespace {

QDMMessageTap g_tap = nullptr;
constexpr const char *kBadQueue = "the message queue";

// Table word i designates the text of the i-th newest message (the slot's
// byte 4); word Msg_Max designates the spare slot. Returns the checked
// table, or nullptr when the header describes no usable table.
char *msg_table(int32_t *max_out) {
  const int32_t table = hdr(Word::Msg_Table);
  const int32_t max = hdr(Word::Msg_Max);
  if (table <= 0 || max <= 0) return nullptr;
  char *t = at(table, (static_cast<int64_t>(max) + 1) * 4);
  if (t != nullptr) *max_out = max;
  else note_damage(kBadQueue);
  return t;
}

// Counters go round after 2^32 posts (or from whatever another process left
// in them) rather than overflow.
void count_one(Word w) {
  set_hdr(w, static_cast<int32_t>(static_cast<uint32_t>(hdr(w)) + 1u));
}

// The text bytes of the slot that a table word designates, or nullptr.
char *slot_text(int32_t word) {
  char *slot = at(word, MsgSlotLayout::kTextBytes);
  if (slot == nullptr) note_damage(kBadQueue);
  return slot;
}

}  // namespace

void explain(const char *prefix, const char *text) {
  if (g_tap == nullptr) return;
  char line[256];
  std::snprintf(line, sizeof line, "%s%s", prefix, text ? text : "");
  g_tap(line);
}

int messagef(const char *prefix, const char *format, ...) {
  char text[256];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  return message(prefix, text);
}

}  // namespace trv

using namespace trv;

extern "C" {

int _QDMMessage(const char *source, const char *text, int type) {
  int32_t max = 0;
  char *table = msg_table(&max);
  if (table == nullptr) return 0;

  const int32_t spare = loadi(table + 4 * max);
  char *slot = slot_text(spare);
  // A slot found by slot_text() starts at a non-negative offset.
  char *type_bytes = slot ? at(spare - MsgSlotLayout::kText, MsgSlotLayout::kText) : nullptr;
  if (slot == nullptr || type_bytes == nullptr) {
    note_damage(kBadQueue);
    return 0;
  }
  slot[0] = '\0';
  type_bytes[MsgSlotLayout::kType] = 0;

  std::memmove(table + 4, table, 4 * static_cast<size_t>(max));
  int32_t count = hdr(Word::Msg_Count);
  if (count < 0) count = 0;
  if (count < max) count++;
  if (count > max) count = max;
  set_hdr(Word::Msg_Count, count);
  set_hdr(Word::Msg_Held, count);
  storei(table, spare);

  // Source first, then as much of the text as keeps the whole within
  // Msg_Len; the slot has room for kMsgLen characters and the NUL whatever
  // the header says.
  int32_t len = hdr(Word::Msg_Len);
  if (len < 0 || len > kMsgLen) len = kMsgLen;
  const char *src = source ? source : ProgName;
  size_t n = strnlen(src, static_cast<size_t>(len));
  std::memcpy(slot, src, n);
  if (text != nullptr) {
    const size_t t = strnlen(text, static_cast<size_t>(len) - n);
    std::memcpy(slot + n, text, t);
    n += t;
  }
  slot[n] = '\0';

  const uint32_t u = static_cast<uint32_t>(type);
  if ((u & 0xFF) != 0xFF) {
    type_bytes[MsgSlotLayout::kType] = static_cast<char>(u & 0xFF);
  } else {
    type_bytes[0] = static_cast<char>(u >> 24);
    type_bytes[1] = static_cast<char>(u >> 16);
    type_bytes[2] = static_cast<char>(u >> 8);
    type_bytes[MsgSlotLayout::kType] = static_cast<char>(0xFF);
  }
  if (type == 4) count_one(Word::Msg_Warnings);
  if (type == 5) count_one(Word::Msg_Type5);
  count_one(Word::Msg_Total);
  return 1;
}

int QDMMessage(const char *source, const char *text, int type) {
  CacheGuard guard;
  repair_damage();
  return _QDMMessage(source, text, type);
}

// Called with and without the cache lock held (the directory walk logs
// without it), so it takes the lock only when this process lacks it; that
// keeps posts of all processes serialised without NESTED lines on stderr.
int message(const char *prefix, const char *argument) {
  char source[80];
  std::snprintf(source, sizeof source, "QDM-%s: ", ProgName);
  char text[256];
  const int n = std::snprintf(text, sizeof text, "%.255s", prefix ? prefix : "");
  if (argument != nullptr && n >= 0 && n < static_cast<int>(sizeof text))
    std::snprintf(text + n, sizeof text - static_cast<size_t>(n), "%s", argument);
  if (g_tap != nullptr) g_tap(text);
  QuietCacheGuard guard;
  return _QDMMessage(source, text, 1);
}

int _QDMGetMessages(char **texts, int maximum) {
  int32_t max = 0;
  char *table = msg_table(&max);
  if (table == nullptr || texts == nullptr) return 0;
  int32_t count = hdr(Word::Msg_Count);
  if (count > max) count = max;
  const int n = count < maximum ? count : maximum;
  int filled = 0;
  for (int i = 0; i < n; ++i) {
    char *slot = slot_text(loadi(table + 4 * i));
    if (slot == nullptr) break;
    slot[MsgSlotLayout::kTextBytes - 1] = '\0';  // a damaged slot stays bounded
    texts[filled++] = slot;
  }
  return filled;
}

int QDMGetMessages(char **texts, int maximum) {
  CacheGuard guard;
  repair_damage();
  return _QDMGetMessages(texts, maximum);
}

int *QDMMsgInfo(void) {
  if (!region_mapped()) return nullptr;
  return reinterpret_cast<int *>(Ptr_trovalis + 4 * static_cast<int>(Word::Msg_Held));
}

int QDMCopyMessages(const unsigned *since, char *lines, int maximum, unsigned *total) {
  static_assert(QDM_MESSAGE_BYTES == MsgSlotLayout::kTextBytes);
  CacheGuard guard;
  repair_damage();
  const uint32_t now = static_cast<uint32_t>(hdr(Word::Msg_Total));
  if (total != nullptr) *total = now;
  if (lines == nullptr || maximum <= 0) return 0;
  uint32_t want = static_cast<uint32_t>(maximum < kMsgMax ? maximum : kMsgMax);
  if (since != nullptr && now - *since < want) want = now - *since;
  char *texts[kMsgMax];
  const int got = _QDMGetMessages(texts, static_cast<int>(want));
  for (int i = 0; i < got; ++i) {
    char *to = lines + static_cast<size_t>(i) * QDM_MESSAGE_BYTES;
    const char *from = texts[got - 1 - i];
    const size_t n = strnlen(from, QDM_MESSAGE_BYTES - 1);
    std::memcpy(to, from, n);
    to[n] = '\0';
  }
  return got;
}

void QDMSetStateNotifier(QDMStateNotifier callback) { StateNotifierProc = callback; }

void QDMSetMessageTap(QDMMessageTap tap) { g_tap = tap; }

int NotifyState(int value) {
  if (StateNotifierProc != nullptr) StateNotifierProc(value);
  return 0;
}

char *QDMINIFile(int which) {
  if (which == 0) return INIFile;
  if (which == 1) return Zelvan_INI;
  return nullptr;
}

}  // extern "C"
