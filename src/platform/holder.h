// The companion object of a named lock and the kernel locks that tell
// whether a process is still alive: the parts that differ between systems.
//
// Every process that opens a named lock draws a ticket and keeps an
// exclusive kernel lock on the byte of the companion object at that offset
// for as long as it lives. The kernel drops that lock when the process dies
// (a zombie has already closed its files), so a waiter that finds the byte
// free knows the ticket's owner is gone. Tickets are never reused.
//
// Linux: the companion is a shared-memory object next to the semaphore,
// locked with open-file-description locks (a lock belongs to this process's
// own open of the object, not to every descriptor of the file in it).
// macOS: the companion is a file in the per-user temporary directory,
// locked with classic record locks (which belong to the process; see
// holder_macos.cpp for what that means for closing).
#pragma once

#include <cstddef>
#include <cstdint>

namespace trv::platform {

// Bytes of the companion object; its layout is core/holder.h's HolderRecord.
inline constexpr size_t kHolderObjectBytes = 64;

// The companion's name for lock `lock_name` into buf: the shared-memory
// object name (Linux) or the file's path (macOS). False when it does not fit.
bool holder_object_name(const char *lock_name, char *buf, size_t size);

// Opens the companion of `lock_name` read/write and close-on-exec, creating
// it (mode 0600, zero-filled, kHolderObjectBytes long) when it is missing.
// An object that is not a regular file of this user with no access for
// others, or that is too short, is refused. Returns the descriptor, or -1
// with `why` set to a short reason and errno to the failed call's error (0
// when no call failed but the object was refused).
int holder_open(const char *lock_name, const char **why);

// Maps kHolderObjectBytes of the open companion shared; nullptr on failure.
// The mapping holds on to the descriptor's open file description, so map
// through a descriptor that carries no lifetime lock.
void *holder_map(int fd);
void holder_unmap(void *map);

// Takes this process's lifetime lock on the byte at offset `ticket`. It
// lasts until the process ends or this descriptor is closed.
bool holder_lock_ticket(int fd, uint64_t ticket);

enum class Liveness { kAlive, kDead, kUnknown };

// Whether some other process holds the lifetime lock of `ticket`. A probe
// that fails says kUnknown, which callers treat as alive.
Liveness holder_probe(int fd, uint64_t ticket);

// Removes the companion of `lock_name` (for tests and for cleaning up).
int holder_remove(const char *lock_name);

// Shared by both systems' holder_open: checks a freshly opened companion as
// holder_open promises and sizes a new one. Returns fd, or -1 after closing
// it, with `why` and errno set as for holder_open.
int holder_checked(int fd, const char **why);

// The fcntl commands of the lifetime locks: open-file-description locks on
// Linux, classic record locks on macOS.
extern const int kTicketSetLock;
extern const int kTicketGetLock;

}  // namespace trv::platform
