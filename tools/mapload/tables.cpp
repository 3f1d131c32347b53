// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/tables.hpp"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>

#include "perm_map.h"

namespace tavrix::mapload {
namespace {

constexpr int kEveryone = 0666;
constexpr int kTries = 5;
constexpr int kSemaphores = 2;  // the index of the current table, and whether there is a map

key_t set_key() { return ftok(TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID); }

// Returns false when the look failed. A segment that does not exist is no failure.
bool look_at(int key, Segment& segment) {
  segment.id = shmget(key, 0, 0);
  if (segment.id == -1) return errno == ENOENT;
  struct shmid_ds info {};
  if (shmctl(segment.id, IPC_STAT, &info) == -1) return false;
  segment.created = info.shm_ctime;
  segment.creator = info.shm_cpid;
  segment.bytes = info.shm_segsz;
  return true;
}

bool look_at_set(Tables& tables) {
  const key_t key = set_key();
  if (key == -1) return false;
  tables.set = semget(key, 0, 0);
  if (tables.set == -1) return errno == ENOENT;
  tables.current = semctl(tables.set, 0, GETVAL);
  tables.initialized = semctl(tables.set, 1, GETVAL);
  return tables.current != -1 && tables.initialized != -1;
}

// Returns the set, and makes it when there is none. Returns -1 and sets errno when it fails.
int find_or_make_set() {
  const key_t key = set_key();
  if (key == -1) return -1;
  const int set = semget(key, 0, 0);
  if (set != -1 || errno != ENOENT) return set;
  return semget(key, kSemaphores, IPC_CREAT | kEveryone);
}

}  // namespace

int key_of(int table) { return table == 0 ? TAVRIX_PERM_TABLE0_KEY : TAVRIX_PERM_TABLE1_KEY; }

Tables look_at_tables() {
  Tables tables;
  if (!look_at_set(tables) || !look_at(key_of(0), tables.table[0]) ||
      !look_at(key_of(1), tables.table[1])) {
    tables.error = errno;
  }
  return tables;
}

bool make_current(int table) {
  unsigned short values[kSemaphores] = {static_cast<unsigned short>(table), 1};
  union {
    int val;
    unsigned short* array;
  } argument{.array = values};
  for (int tries = 0; tries < kTries; ++tries) {
    const int set = find_or_make_set();
    if (set == -1) return false;
    if (semctl(set, 0, SETALL, argument) == 0) return true;
    if (errno != EINVAL && errno != EIDRM) return false;
  }
  errno = EAGAIN;  // somebody removes the set each time it is made
  return false;
}

bool remove_segment(const Segment& segment) {
  return shmctl(segment.id, IPC_RMID, nullptr) == 0 || errno == EIDRM || errno == EINVAL;
}

Attached::Attached(const Segment& segment)
    : address_(segment.id == -1 ? ShmTraits::none() : shmat(segment.id, nullptr, SHM_RDONLY)),
      size_(segment.bytes) {}

std::span<const std::byte> Attached::bytes() const {
  if (!address_) return {};
  return {static_cast<const std::byte*>(address_.get()), size_};
}

}  // namespace tavrix::mapload
