// The holder record of a named lock: recording takes and gives, and telling
// a dead holder from a live one.
//
// Why a takeover is sound. A waiter takes over only by a compare-and-swap of
// the exact state word it judged, so of all waiters that judged the same
// word exactly one wins, and a word that changed in between (the holder
// gave, somebody else took over) makes every one of them lose.
//
//   - Word T, and T's lifetime lock is gone: T died after recording its take
//     and before beginning to give (the give's first step changes the word),
//     so T never posted: the semaphore is still taken by T, and the winner
//     inherits that take. Tickets are never reused, so T cannot be a new
//     process that happens to have T's number.
//   - A stopped or slow T keeps its lifetime lock: it is never taken over,
//     however long it holds.
//
// The window between the semaphore's take and the record. A process that
// took the semaphore has not yet stored its ticket for a few instructions;
// likewise between a give's first step and its post. A process that dies
// (or is stopped) exactly there leaves the semaphore taken with no live
// holder on record: the word is 0, T|kGiven, or T|kGiving with T dead. The
// waiter cannot tell that from a live process in the same window, or from a
// process that works without a holder record (one that could not open the
// companion, or a build without it), so it does not act at once: only when
// the semaphore has stayed taken under the same such word for the lock's
// orphan deadline (30 s for the cache lock, an hour for the download lock,
// both far longer than any hold) does one waiter adopt the take, again by
// compare-and-swap. Should the process in the window be alive after all, it
// finds, when it goes on to record its take, that the word now names
// another holder (holder_claim): it knows its take was adopted, does not
// enter, and waits again; the adopter's give posts the semaphore in its
// place, so the count stays right. A process stopped after marking T|kGiving
// is alive, so the word T|kGiving with T alive is never adopted, and its
// late post cannot meet an adopter. The wait is thus bounded in every case,
// and no process that holds the lock on record is ever taken over.
#include "core/holder.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/holder.h"
#include "trovalis.h"

namespace trv {

namespace {

// The record is shared with other processes; every access is atomic. The
// builtins are used rather than std::atomic_ref, which the C++ library of
// the macOS releases we build for does not have.
static_assert(__atomic_always_lock_free(sizeof(uint64_t), 0));
static_assert(__atomic_always_lock_free(sizeof(uint32_t), 0));

template <class T>
T load(const T *p) {
  return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}
template <class T>
void store(T *p, T v) {
  __atomic_store_n(p, v, __ATOMIC_RELEASE);
}
// On failure *expected receives the current value.
template <class T>
bool swap(T *p, T *expected, T desired) {
  return __atomic_compare_exchange_n(p, expected, desired, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE);
}

constexpr char kUnusable[] = "Holder record of lock `%s' %s%s%s%s; a holder that dies will not be noticed";

Holder *g_holders = nullptr;
bool g_warned = false;

// Reported once per process: every lock that fails fails the same way, and
// the process works on regardless.
void warn_once(const char *name, const char *why) {
  if (g_warned) return;
  g_warned = true;
  const bool call = errno != 0;
  char text[512];
  std::snprintf(text, sizeof text, kUnusable, name, why, call ? " (" : "", call ? LastErr() : "",
                call ? ")" : "");
  MessageBox_S(text, TDSError);
}

// A new object is all zero; the first process to see it stamps it. Any
// other stamp is a layout this build does not know.
bool stamp_ok(HolderRecord *r) {
  uint32_t zero = 0;
  swap(&r->version, &zero, kHolderVersion);
  zero = 0;
  swap(&r->magic, &zero, kHolderMagic);
  return load(&r->magic) == kHolderMagic && load(&r->version) == kHolderVersion;
}

// Opens and maps the companion, replacing whatever mapping h had. The
// mapping is made through an open of its own, closed at once: a mapping
// keeps its open file description alive, and with it any lock on it, in
// every process that inherits the mapping by fork. Were the lifetime lock on
// that description, a forked child living on would keep a dead parent's
// ticket looking alive. The descriptor that carries the lock is used for
// nothing else and is closed in forked children.
bool open_companion(Holder *h, const char **why) {
  errno = 0;
  const int map_fd = platform::holder_open(h->name, why);
  if (map_fd < 0) return false;
  void *map = platform::holder_map(map_fd);
  close(map_fd);  // before any lock is taken: see holder_macos.cpp
  if (map == nullptr) {
    *why = "cannot be mapped";
    return false;
  }
  platform::holder_unmap(h->rec);
  h->rec = static_cast<HolderRecord *>(map);
  errno = 0;
  if (!stamp_ok(h->rec)) {
    *why = "has a layout this build does not know";
    return false;
  }
  h->fd = platform::holder_open(h->name, why);
  return h->fd >= 0;
}

bool draw_ticket(Holder *h, const char **why) {
  const uint64_t t = __atomic_add_fetch(&h->rec->last_ticket, 1, __ATOMIC_ACQ_REL);
  errno = 0;
  if (t == 0 || t > kTicketMask) {
    *why = "has run out of tickets";
    return false;
  }
  if (!platform::holder_lock_ticket(h->fd, t)) {
    *why = "cannot be locked";
    return false;
  }
  h->ticket = t;
  h->pid = static_cast<int32_t>(getpid());
  return true;
}

void close_companion(Holder *h) {
  if (h->fd >= 0) close(h->fd);
  h->fd = -1;
  platform::holder_unmap(h->rec);
  h->rec = nullptr;
  h->ticket = 0;
}

}  // namespace

Holder *holder_acquire(const char *name) {
  for (Holder *h = g_holders; h != nullptr; h = h->next) {
    if (std::strcmp(h->name, name) == 0) {
      h->users++;
      return h;
    }
  }
  Holder *h = new (std::nothrow) Holder;
  if (h == nullptr) return nullptr;
  const char *why = "has too long a name";
  errno = 0;
  const int n = std::snprintf(h->name, sizeof h->name, "%s", name);
  if (n < 0 || static_cast<size_t>(n) >= sizeof h->name || !open_companion(h, &why) ||
      !draw_ticket(h, &why)) {
    const int err = errno;
    close_companion(h);
    errno = err;
    warn_once(name, why);
    delete h;
    return nullptr;
  }
  h->users = 1;
  h->next = g_holders;
  g_holders = h;
  return h;
}

void holder_drop(Holder *h) {
  if (h == nullptr || --h->users > 0) return;
  for (Holder **p = &g_holders; *p != nullptr; p = &(*p)->next) {
    if (*p == h) {
      *p = h->next;
      break;
    }
  }
  close_companion(h);
  delete h;
}

void holder_forget_after_fork() {
  for (Holder *h = g_holders; h != nullptr; h = h->next) {
    if (h->fd >= 0) close(h->fd);
    h->fd = -1;
    h->ticket = 0;
  }
}

// A renewal that fails leaves the ticket 0 and the descriptor closed; each
// later take tries again, which costs system calls only in a process that
// is already off the fast path (a forked child that cannot open files).
bool holder_renew(Holder *h) {
  if (h->fd >= 0) close(h->fd);
  h->fd = -1;
  const char *why = "cannot be opened";
  if (open_companion(h, &why) && draw_ticket(h, &why)) return true;
  const int err = errno;
  if (h->fd >= 0) close(h->fd);
  h->fd = -1;
  errno = err;
  warn_once(h->name, why);
  return false;
}

bool holder_claim(Holder *h) {
  uint64_t w = load(&h->rec->holder);
  for (;;) {
    // A bare ticket here means another process took over the take we have
    // not recorded yet: the take is now that process's.
    if (w != 0 && (w & (kGiving | kGiven)) == 0) return false;
    if (swap(&h->rec->holder, &w, h->ticket)) break;
  }
  store(&h->rec->holder_pid, h->pid);
  return true;
}

// Both steps change the word only when it is still ours, so a hold that was
// never recorded (taken while the record could not be used) leaves it alone.
// The first needs no compare-and-swap: nobody else writes a word that names
// a live holder. The second does: once posted, the next holder may record
// itself at any moment.
void holder_give_begin(Holder *h) {
  if (load(&h->rec->holder) == h->ticket) store(&h->rec->holder, h->ticket | kGiving);
}

void holder_give_end(Holder *h) {
  uint64_t giving = h->ticket | kGiving;
  swap(&h->rec->holder, &giving, h->ticket | kGiven);
}

Sighting holder_sight(const Holder *h) {
  Sighting s;
  s.word = load(&h->rec->holder);
  if (s.word == 0) {
    s.kind = Sighting::kUnrecorded;
    return s;
  }
  const uint64_t t = s.word & kTicketMask;
  // Our own ticket: another handle of this process holds the lock.
  if (t == h->ticket) return s;
  if ((s.word & kGiven) != 0) {
    s.kind = Sighting::kUnrecorded;
    return s;
  }
  const bool dead = platform::holder_probe(h->fd, t) == platform::Liveness::kDead;
  if (!dead) return s;
  s.kind = (s.word & kGiving) != 0 ? Sighting::kUnrecorded : Sighting::kDiedHolding;
  return s;
}

bool holder_seize(Holder *h, uint64_t word, int32_t *former_pid) {
  *former_pid = load(&h->rec->holder_pid);
  if (!swap(&h->rec->holder, &word, h->ticket)) return false;
  store(&h->rec->holder_pid, h->pid);
  __atomic_add_fetch(&h->rec->takeovers, 1u, __ATOMIC_ACQ_REL);
  return true;
}

uint32_t holder_takeovers(const Holder *h) {
  return h != nullptr && h->rec != nullptr ? load(&h->rec->takeovers) : 0;
}

}  // namespace trv
